#include "common/PlatformFacts.h"
#include "core/zul/Inspection.h"
#include "platform/signcms/PackageSignatures.h"
#include "tools/Progress.h"
#include "tools/vendaractl/Commands.h"

#include <chrono>
#include <ctime>
#include <functional>
#include <iomanip>
#include <sstream>

namespace Vendaractl {

using Core::ZUL::Inspection;

namespace {

std::string textOf(std::chrono::sys_seconds time, const char* form) {
    const auto seconds = std::chrono::system_clock::to_time_t(time);
    std::tm fields{};
    std::ostringstream text;
    text << std::put_time(gmtime_r(&seconds, &fields), form);
    return text.str();
}

JsonValue toJson(const Core::ZUL::Expiry& expiry) {
    return expiry ? JsonValue(textOf(*expiry, "%Y-%m-%dT%H:%M:%SZ")) : JsonValue();
}

std::string toText(const Core::ZUL::Expiry& expiry) {
    return expiry ? textOf(*expiry, ", valid until %Y-%m-%d") : "";
}

JsonValue toJson(const std::string& file, const Inspection& found) {
    JsonValue result{{"file", file}, {"accepted", !found.refusal}};
    if (found.refusal) {
        result["errorCode"] = static_cast<int>(found.refusal->code());
        result["error"] = found.refusal->what();
    }
    if (found.claims) {
        const auto& claims = *found.claims;
        result["reason"] = claims.reason ? JsonValue(*claims.reason) : JsonValue();
        auto signers = JsonValue::array();
        for (const auto& cms : claims.signatures) {
            const auto& certificate = cms.certificate();
            signers.push_back({{"subject", certificate.subject()},
                               {"keyId", certificate.keyId()},
                               {"validUntil", toJson(Core::ZUL::expiryOf(cms))}});
        }
        result["unverified"] = {{"package", claims.identity.id()},
                                {"version", claims.identity.version()},
                                {"architecture", claims.architecture},
                                {"signers", signers}};
    }
    if (!found.package) {
        return result;
    }
    const auto& package = *found.package;
    const auto valueOrNull = [](const auto& value) { return value ? JsonValue(*value) : JsonValue(); };
    result.update({{"package", package.id()},
                   {"version", package.version()},
                   {"existingVersion", found.existingVersion},
                   {"architecture", package.architecture()},
                   {"organization", valueOrNull(package.orgName())},
                   {"application", valueOrNull(package.appName())},
                   {"developer",
                    {{"subject", package.developerCms().certificate().subject()},
                     {"keyId", package.developerKeyId()},
                     {"validUntil", toJson(package.developerExpiry())},
                     {"system", package.isSystemDeveloper()}}},
                   {"source",
                    {{"subject", package.sourceSubject()},
                     {"keyId", package.sourceKeyId()},
                     {"validUntil", toJson(package.sourceExpiry())}}},
                   {"size", found.size},
                   {"available", valueOrNull(found.available)},
                   {"files", JsonValue::array()}});
    for (const auto& each : found.files) {
        result["files"].push_back(
            {{"path", each.path}, {"place", orNull(each.place)}, {"taken", each.isPlaceTaken}});
    }
    return result;
}

void print(const Inspection::Claims& claims) {
    printText(claims.identity.id() + " " + claims.identity.version() + ", " + claims.architecture +
              ", UNVERIFIED");
    for (const auto& cms : claims.signatures) {
        printText("  unverified signer: " + cms.certificate().subject() + toText(Core::ZUL::expiryOf(cms)));
    }
    if (claims.reason) {
        printText("  reason: " + *claims.reason);
    }
}

void print(const std::string& file, const Inspection& found) {
    if (found.package) {
        const auto& package = *found.package;
        printText(package.id() + " " + package.version() + ", " + package.architecture() +
                  (found.existingVersion.empty() ? ", first installation"
                                                 : ", upgrade of " + found.existingVersion));
        printText("  developer: " + package.developerCms().certificate().subject() +
                  (package.isSystemDeveloper() ? " (system developer)" : "") +
                  toText(package.developerExpiry()));
        printText("  source: " + (package.sourceSubject().empty() ? "none" : package.sourceSubject()) +
                  toText(package.sourceExpiry()));
        printText("  size: " + std::to_string(found.size) + " bytes" +
                  (found.available ? ", " + std::to_string(*found.available) + " free" : ""));
        for (const auto& each : found.files) {
            printText("  " + (each.place.empty() ? each.path + ", not mapped" : each.place) +
                      (each.isPlaceTaken ? ", TAKEN by another file" : ""));
        }
    }
    if (found.claims) {
        print(*found.claims);
    }
    printText(file + ": " +
              (found.refusal ? "would be refused: " + std::string(found.refusal->what()) + " (error " +
                                   std::to_string(static_cast<int>(found.refusal->code())) + ")"
                             : "would be installed"));
}

} // namespace

ExitStatus check(const Request& request) {
    Core::ZUL::InspectedSystem system{.database = Core::ZUL::DatabaseLocation(request.configuration),
                                      .root = request.systemRoot,
                                      .architecture = Common::getPlatformArchitecture(),
                                      .authorities = {}};
    if (!request.authority.empty()) {
        auto& authorities = system.authorities;
        authorities.certificates = request.authority;
        authorities.systemDeveloperKeyId =
            authorities.certificates.parent_path() / authorities.systemDeveloperKeyId.filename();
    }
    bool areAllAccepted = true;
    for (std::size_t index = 0; index < request.arguments.size(); ++index) {
        const auto& file = request.arguments[index];
        const auto found = [&] {
            Tools::Progress progress("checking", index, request.arguments.size());
            progress(0, 0);
            return Core::ZUL::inspect(file, system, {.progress = std::ref(progress)});
        }();
        areAllAccepted = areAllAccepted && !found.refusal;
        if (request.format == Format::Json) {
            printJson(toJson(file, found));
        } else {
            print(file, found);
        }
    }
    return areAllAccepted ? Success : OperationFailed;
}

} // namespace Vendaractl
