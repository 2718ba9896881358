#include "common/Error.h"
#include "common/Names.h"
#include "common/PackageId.h"
#include "core/zul/DatabaseInspection.h"
#include "core/zul/DatabaseView.h"
#include "core/zul/Edge.h"
#include "core/zul/Record.h"
#include "core/zul/mapping/FileCopy.h"
#include "core/zul/mapping/MappingRules.h"
#include "core/zul/package/PackagePath.h"

#include <fcntl.h>
#include <set>

namespace Core::ZUL {

namespace fs = std::filesystem;
using Common::Error;
using Common::ErrorCode;

namespace {

const std::string startManager = "start the package manager: ";
const std::string recreate = startManager + "recovery creates it again";
const char* const integrityAttribute = "security.ima";
const char* const identityAttribute = "security.appid";

std::string reinstall(const std::string& id) { return "remove " + id + " and install it again"; }

const std::string anyName = "*";

/// The system directories in which mappings of a package can be.
std::set<std::string> mappedDirectories(const std::string& packageId) {
    std::set<std::string> directories;
    for (const auto& [target, source, kind] :
         mappingRules(PackageIdentity(packageId, anyName, anyName, anyName))) {
        directories.insert(target.substr(0, target.rfind('/', target.find(anyName)) + 1));
    }
    // A walk includes subdirectories.
    for (auto outer = directories.begin(); outer != directories.end(); ++outer) {
        for (auto inner = std::next(outer); inner != directories.end() && inner->starts_with(*outer);) {
            inner = directories.erase(inner);
        }
    }
    return directories;
}

class Verifier {
public:
    Verifier(const InspectedDatabase& database, SecurityAttributes attributes)
        : view_(database)
        , attributes_(attributes) {}

    Verification verify(const std::optional<std::string>& only);

private:
    /// An installed version and the kind of its mappings.
    struct Mapped {
        const InstalledPackage& package;
        std::string version;
        MappingKind kind;
    };

    void verifyEntry(const std::string& name);
    void verifyPackage(const InstalledPackage& package);
    bool verifyUpgrade(const InstalledPackage& package, const Verification::Package& state);
    bool verifyRecord(const InstalledPackage& package, const std::string& version, const std::string& repair);
    void verifyMappings(const InstalledPackage& package, const std::string& version);
    void verifyPlace(const Mapped& mapped, const std::string& place, const fs::path& file);
    void verifyCopy(const Mapped& mapped, const std::string& place, const fs::path& file);
    void verifyAttributes(const InstalledPackage& package, const std::string& version,
                          const std::vector<InstalledPackage::File>& files);
    void findLeftovers(const std::optional<std::string>& only);

    void report(const std::string& id, const fs::path& path, const std::string& problem,
                const std::string& repair) {
        result_.findings.push_back({id, path, problem, repair});
    }
    template<typename Action>
    void attempt(const std::string& id, const Action& action) {
        try {
            action();
        } catch (const Error& error) {
            result_.unread.push_back({id, error.what()});
            unknown_.insert(id);
        }
    }

    DatabaseView view_;
    SecurityAttributes attributes_;
    Verification result_;
    std::map<std::string, std::set<std::string>> places_; ///< of each package, known from lists and rules
    std::set<std::string> unknown_;                       ///< packages that could not be read
};

Verification Verifier::verify(const std::optional<std::string>& only) {
    if (only) {
        const InstalledPackage package(view_, *only);
        package.requireExists();
        verifyEntry(package.id());
        findLeftovers(package.id());
    } else {
        for (const auto& name : view_.tree().namesIn(view_.directory())) {
            verifyEntry(name);
        }
        findLeftovers({});
    }
    return std::move(result_);
}

void Verifier::verifyEntry(const std::string& name) {
    const auto path = view_.directory() / name;
    attempt(name, [&] {
        const auto status = view_.tree().status(path);
        if (!status || !S_ISDIR(status->st_mode)) {
            report("", path, "it is not a package's directory", startManager + "it deletes it");
        } else if (!Common::isPackageId(name)) {
            report("", path, "its name is not an identifier", "delete it");
        } else if (view_.tree().linkTarget(path)) {
            report(name, path,
                   "the package's directory is a link, and the package manager changes nothing behind it",
                   "delete the link and install " + name + " again");
            unknown_.insert(name);
        } else {
            verifyPackage(InstalledPackage(view_, name));
        }
    });
}

void Verifier::verifyPackage(const InstalledPackage& package) {
    const auto& id = package.id();
    // The lists first: they name the mappings even of a damaged package.
    for (const auto& version : package.versions()) {
        const auto list = package.mappingList(version).value_or(MappingList());
        places_[id].insert(list.begin(), list.end());
    }
    Verification::Package state{id, package.versionOf("current"), package.versionOf("next")};
    const bool isCompletable = verifyUpgrade(package, state);
    auto repair = "install " + id + " again; the package manager deletes what is damaged when it starts";
    if (isCompletable) {
        repair = startManager + "recovery completes the upgrade";
    } else if (unknown_.contains(id)) {
        repair = "run this command as root: not all of the package could be read";
    }
    if (state.version.empty()) {
        const auto target = view_.tree().linkTarget(package.path() / "current");
        report(id, package.path() / "current",
               target ? "it points to " + target->native() + ", which is not a version of the package"
                      : "the link to the installed version is missing",
               repair);
    } else if (verifyRecord(package, state.version, repair)) {
        verifyMappings(package, state.version);
    }
    result_.packages.push_back(std::move(state));
}

/// Checks everything except the installed version.
/// @return whether there is an upgrade that recovery would complete
bool Verifier::verifyUpgrade(const InstalledPackage& package, const Verification::Package& state) {
    const auto discarded = startManager + "recovery discards the upgrade";
    for (const auto& name : view_.tree().namesIn(package.path())) {
        const auto path = package.path() / name;
        if (name == "next" && state.prepared.empty()) {
            report(package.id(), path, "it does not point to a prepared version", discarded);
        } else if (!state.version.empty() && name != "next" && name != "current" && name != state.version &&
                   name != state.prepared) {
            report(package.id(), path, "it is neither installed nor prepared",
                   startManager + "recovery deletes it");
        }
    }
    return !state.prepared.empty() && verifyRecord(package, state.prepared, discarded);
}

/// @return whether the record is usable
bool Verifier::verifyRecord(const InstalledPackage& package, const std::string& version,
                            const std::string& repair) {
    namespace Keys = Common::Names::PackageKeys;
    const auto path = package.path() / version / recordName;
    bool isUsable = false;
    attempt(package.id(), [&] {
        try {
            const auto record = package.record(version);
            for (const auto& [key, expected] :
                 {std::pair(Keys::id, package.id()), std::pair(Keys::version, version)}) {
                if (record.at(key) != expected) {
                    auto problem = "the record has the " + key + " ";
                    problem.append(record.at(key)).append(" instead of ").append(expected);
                    report(package.id(), path, problem, reinstall(package.id()));
                }
            }
            static_cast<void>(package.identity(version));
            isUsable = true;
        } catch (const Error& error) {
            if (error.code() == ErrorCode::Filesystem) {
                throw;
            }
            report(package.id(), path, "the record is damaged: " + std::string(error.what()), repair);
        }
    });
    return isUsable;
}

void Verifier::verifyMappings(const InstalledPackage& package, const std::string& version) {
    const auto identity = package.identity(version);
    const auto files = package.files(version);
    const auto plan = package.plan(identity, files);
    const auto list = package.mappingList(version);
    const auto listPath = package.path() / version / mappingListName;
    if (!list) {
        report(package.id(), listPath, "the mapping list is missing", recreate);
        unknown_.insert(package.id()); // its mappings cannot be told from leftovers
    }
    std::map<std::string, std::string> all = plan;
    const PackagePath paths(identity);
    std::set<std::string> listed;
    std::size_t invalidLines = 0;
    for (const auto& place : list.value_or(MappingList())) {
        if (!Mapping::isPlace(place)) {
            ++invalidLines;
        } else if (listed.insert(place).second) {
            all.emplace(place, paths.toPackagePath(place));
        }
    }
    if (invalidLines > 0) {
        report(package.id(), listPath,
               "lines of the mapping list that are not places: " + std::to_string(invalidLines), recreate);
    }
    const Mapped mapped{package, version, package.kindOf(identity)};
    for (const auto& [place, file] : all) {
        places_[package.id()].insert(place);
        if (list && !listed.contains(place)) {
            report(package.id(), listPath, "the mapping list does not contain " + place, recreate);
        }
        attempt(package.id(), [&] { verifyPlace(mapped, place, file); });
    }
    if (attributes_ == SecurityAttributes::Expected) {
        verifyAttributes(package, version, files);
    }
}

void Verifier::verifyPlace(const Mapped& mapped, const std::string& place, const fs::path& file) {
    const auto& id = mapped.package.id();
    const auto& tree = view_.tree();
    const auto mapping = view_.mappingAt(place);
    const auto expected = mapped.package.path() / "current" / file;
    const bool isPresent = mapping.exists();
    const auto target = isPresent && mapping.isMapping() ? mapping.mappingTarget() : fs::path();
    const auto holder = view_.packageOf(target);
    if (!tree.status(mapped.package.path() / mapped.version / file, O_NOFOLLOW)) {
        // A list may name mappings that do not exist, for example after a failed removal.
        if (holder == id) {
            report(id, place, "the package has no file for this mapping: " + file.native(),
                   reinstall(id) + "; starting the package manager removes the mapping only");
        }
        return;
    }
    const bool isLink = view_.system().linkTarget(place).has_value();
    if (!isPresent) {
        report(id, place, "the mapping is missing", recreate);
    } else if (target.empty() || (holder.empty() && isLink)) {
        report(id, place,
               target.empty() ? "a file that is not a mapping has the mapping's place"
                              : "a link to " + target.native() + " has the mapping's place",
               "delete it and start the package manager: recovery creates the mapping again");
    } else if (holder != id) {
        report(id, place, "a mapping of " + target.native() + " has the mapping's place",
               reinstall(id) + ": it takes the place");
    } else if (isLink != (mapped.kind == MappingKind::Link)) {
        report(id, place, isLink ? "it is a link instead of a copy" : "it is a copy instead of a link",
               recreate);
    } else if (target.lexically_normal() != expected && !(isLink && tree.isSameFile(target, expected))) {
        report(id, place, "it is a mapping of " + target.native() + " instead of " + expected.native(),
               recreate);
    } else if (!isLink) {
        verifyCopy(mapped, place, file);
    }
}

void Verifier::verifyCopy(const Mapped& mapped, const std::string& place, const fs::path& file) {
    const auto& id = mapped.package.id();
    const auto original = mapped.package.path() / mapped.version / file;
    const auto status = view_.tree().status(original);
    const auto copy = view_.system().status(place, O_NOFOLLOW);
    if (!status || !copy || !isCopyOf(*copy, *status)) {
        report(id, place, "the copy differs from " + original.native() + " in size, owner, mode or time",
               recreate);
        return;
    }
    const auto attributes = view_.system().securityAttributes(place, O_NOFOLLOW);
    for (const auto& [name, value] : view_.tree().securityAttributes(original)) {
        const auto found = attributes.find(name);
        // The system sets other attributes, such as labels, on each file itself.
        const bool isSignature = name == integrityAttribute || name == identityAttribute;
        if (found == attributes.end() || (isSignature && found->second != value)) {
            report(id, place,
                   "the copy " +
                       std::string(found == attributes.end() ? "does not have" : "has another value of") +
                       " the attribute " + name + " of " + original.native(),
                   "delete it and start the package manager: recovery creates the copy again");
        }
    }
}

/// Extraction gives the attributes to every executable file. Which of the others have them is not recorded.
void Verifier::verifyAttributes(const InstalledPackage& package, const std::string& version,
                                const std::vector<InstalledPackage::File>& files) {
    constexpr mode_t executable = 0111;
    const auto repair = reinstall(package.id()) + " with a package manager that may set it";
    std::map<std::string, std::vector<fs::path>> lacking;
    std::set<std::string> used;
    for (const auto& [relative, status] : files) {
        if (!S_ISREG(status.st_mode)) {
            continue;
        }
        const auto path = package.path() / version / relative;
        const auto attributes = view_.tree().securityAttributes(path, O_NOFOLLOW);
        for (const auto* name : {identityAttribute, integrityAttribute}) {
            const auto found = attributes.find(name);
            if (found != attributes.end()) {
                used.insert(name);
            } else if ((status.st_mode & executable) != 0) {
                lacking[name].push_back(path);
            }
        }
        const auto identity = attributes.find(identityAttribute);
        if (identity != attributes.end() && identity->second != package.id()) {
            report(package.id(), path,
                   std::string("the attribute ") + identityAttribute + " names another package", repair);
        }
    }
    for (const auto& [name, paths] : lacking) {
        if (used.contains(name)) {
            for (const auto& path : paths) {
                report(package.id(), path, "the attribute " + name + " is missing", repair);
            }
        } else if (name == identityAttribute) {
            // Signatures of files are optional; the identity is not.
            report(package.id(), package.path() / version, "no file has the attribute " + name, repair);
        }
    }
}

/// Reports mappings that no list names: nothing would remove them.
void Verifier::findLeftovers(const std::optional<std::string>& only) {
    const auto judge = [&](const fs::path& path, const struct stat& status) {
        if (!Mapping::isPlace(path) || (!S_ISLNK(status.st_mode) && !S_ISREG(status.st_mode))) {
            return;
        }
        const auto mapping = view_.mappingAt(path);
        const auto id = mapping.isMapping() ? view_.packageOf(mapping.mappingTarget()) : std::string();
        if (id.empty() || (only && id != *only) || unknown_.contains(id) || places_[id].contains(path)) {
            return;
        }
        const bool isInstalled = view_.tree().status(view_.directory() / id).has_value();
        report(id, path,
               isInstalled ? "it is a mapping of the package, which does not list it"
                           : "it is a mapping of a package that is not installed",
               "delete it");
    };
    for (const auto& directory : mappedDirectories(only.value_or(anyName))) {
        view_.system().walk(directory, judge, [this](const Error& error) {
            result_.unread.push_back({"", error.what()});
        });
    }
}

} // namespace

Verification verify(const InspectedDatabase& database, const std::optional<std::string>& packageId,
                    SecurityAttributes attributes) try {
    return Verifier(database, attributes).verify(packageId);
} catch (...) {
    throwAsError();
}

} // namespace Core::ZUL
