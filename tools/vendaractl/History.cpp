#include "common/Files.h"
#include "common/PackageId.h"
#include "core/zul/Events.h"
#include "core/zul/ReadTree.h"
#include "tools/vendaractl/Commands.h"

#include <systemd/sd-journal.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>
#include <fcntl.h>
#include <iomanip>
#include <memory>
#include <optional>
#include <sstream>
#include <utility>

namespace Vendaractl {

namespace fs = std::filesystem;
using namespace Core::ZUL;
using Common::UniqueFd;

namespace {

/// Throws for a negative errno that a function of libsystemd returns.
int requireSuccess(int result) {
    if (result < 0) {
        // ENODATA: the file is shorter than a journal, or than its header says.
        const bool isDamaged = result == -EBADMSG || result == -ENODATA;
        throw Common::Error(Common::ErrorCode::Filesystem, isDamaged
                                                               ? "damaged, or not a journal"
                                                               : std::generic_category().message(-result));
    }
    return result;
}

using Journal = std::unique_ptr<sd_journal, decltype(&sd_journal_close)>;

/// @param files  one or more; the journal takes ownership
Journal openJournal(std::vector<UniqueFd>& files) {
    std::vector<int> descriptors(files.size());
    std::transform(files.begin(), files.end(), descriptors.begin(),
                   [](const auto& file) { return file.get(); });
    sd_journal* journal = nullptr;
    requireSuccess(
        sd_journal_open_files_fd(&journal, descriptors.data(), static_cast<unsigned>(files.size()), 0));
    for (auto& file : files) {
        static_cast<void>(file.release());
    }
    return {journal, sd_journal_close};
}

/// Like sd_journal_open(3), without journals that were collected from other machines.
std::vector<fs::path> directoriesOf(const Request& request) {
    if (!request.journal.empty()) {
        return {fs::absolute(request.journal)};
    }
    sd_id128_t machine;
    std::array<char, SD_ID128_STRING_MAX> name{};
    if (request.image.empty() && sd_id128_get_machine(&machine) >= 0) {
        sd_id128_to_string(machine, name.data());
    }
    return {fs::path("/run/log/journal") / name.data(), fs::path("/var/log/journal") / name.data()};
}

/// The value of a field of the current entry; empty if the entry has no such field.
std::string valueOf(sd_journal* journal, const std::string& field) {
    const void* data = nullptr;
    std::size_t size = 0;
    const int result = sd_journal_get_data(journal, field.c_str(), &data, &size);
    if (result != -ENOENT) {
        requireSuccess(result);
    }
    return std::string(static_cast<const char*>(data), size).substr(size == 0 ? 0 : field.size() + 1);
}

/// When the current entry was received, in ISO 8601 with the local offset.
std::string timeOf(sd_journal* journal) {
    std::uint64_t microseconds = 0;
    requireSuccess(sd_journal_get_realtime_usec(journal, &microseconds));
    const auto seconds = static_cast<std::time_t>(microseconds / 1000000);
    std::tm local{};
    localtime_r(&seconds, &local);
    std::ostringstream text;
    text << std::put_time(&local, "%FT%T%z");
    return text.str().insert(text.str().size() - 2, ":");
}

/// The current entry; nothing if the database cannot have written it, because any user may write such
/// entries.
std::optional<Row> rowOf(sd_journal* journal) {
    const auto package = valueOf(journal, packageField);
    const auto version = valueOf(journal, versionField);
    if (!Common::isPackageId(package) || version.size() > NAME_MAX) {
        return {};
    }
    const auto id = "MESSAGE_ID=" + valueOf(journal, "MESSAGE_ID");
    const auto* const kind = std::find_if(eventKinds.begin(), eventKinds.end(),
                                          [&](const auto& each) { return each.messageId == id; });
    return Row{timeOf(journal),
               kind == eventKinds.end() ? "" : kind->name,
               package,
               version,
               valueOf(journal, "_UID"),
               valueOf(journal, "MESSAGE")};
}

/// Reads the events and reports failures to read.
class Reader {
public:
    explicit Reader(const Request& request)
        : request_(request) {}

    /// @return a row for each event, the latest last
    Rows read() {
        findFiles();
        Rows rows;
        const bool isEmpty = files_.empty();
        if (isDenied_) {
            printFailure(isEmpty ? request_.format : Format::Text, {},
                         "entries of the system and of other users are not shown: only root and the groups "
                         "adm and systemd-journal may read them");
            hasFailed_ = hasFailed_ || isEmpty;
        }
        if (isEmpty) {
            if (!isFound_ && !hasFailed_) {
                failWithoutJournal();
            }
            return rows;
        }
        const auto journal = openJournal(files_);
        for (const auto& kind : eventKinds) {
            requireSuccess(sd_journal_add_match(journal.get(), kind.messageId, 0));
        }
        if (!request_.arguments.empty()) {
            const auto match = packageField + ("=" + request_.arguments.front());
            requireSuccess(sd_journal_add_match(journal.get(), match.c_str(), 0));
        }
        bool isThere = true;
        while (std::exchange(isThere, false)) {
            try {
                // A failure here ends the list; a failure to read an entry does not.
                isThere = requireSuccess(sd_journal_next(journal.get())) > 0;
                if (auto row = isThere ? rowOf(journal.get()) : std::nullopt) {
                    rows.push_back(std::move(*row));
                }
            } catch (const Common::Error& error) {
                fail({}, std::string("couldn't read an entry: ") + error.what());
            }
        }
        return rows;
    }

    /// Whether something could not be read, or the user may read no file.
    [[nodiscard]] bool hasFailed() const { return hasFailed_; }

private:
    void findFiles() {
        const fs::path root = request_.image.empty() ? "/" : request_.image;
        const UniqueFd top(open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        const auto visit = [&](const fs::path& path, const struct stat& status) {
            const auto kind = path.extension();
            if (!S_ISREG(status.st_mode) || (kind != ".journal" && kind != ".journal~")) {
                return;
            }
            isFound_ = true;
            if (status.st_size > 0) { // an empty file was just created
                add(path, Common::openWithin(top.get(), path.relative_path(), O_RDONLY | O_NONBLOCK,
                                             Common::Resolve::InRoot));
            }
        };
        for (const auto& directory : directoriesOf(request_)) {
            const bool isThere{Common::openWithin(top.get(), directory.relative_path(),
                                                  O_RDONLY | O_DIRECTORY, Common::Resolve::InRoot)};
            if (!isThere && errno == EACCES) {
                isDenied_ = true;
            } else {
                ReadTree(root).walk(directory, visit, [this](const auto& error) { fail({}, error.what()); });
            }
        }
    }

    void add(const fs::path& path, UniqueFd file) {
        if (!file && errno == EACCES) {
            isDenied_ = true;
            return;
        }
        try {
            std::vector<UniqueFd> copy(1);
            copy.front() = UniqueFd(file ? fcntl(file.get(), F_DUPFD_CLOEXEC, 0) : -1);
            requireSuccess(copy.front() ? 0 : -errno);
            openJournal(copy); // each file alone, because errors of the journal do not name the file
            files_.push_back(std::move(file));
        } catch (const Common::Error& error) {
            fail(path, error.what());
        }
    }

    void failWithoutJournal() {
        std::string places;
        for (const auto& directory : directoriesOf(request_)) {
            places += (places.empty() ? "" : " or ") + directory.native();
        }
        fail(request_.image, "no journal in " + places);
    }

    void fail(const std::string& subject, const std::string& message) {
        hasFailed_ = true;
        printFailure(request_.format, subject, message);
    }

    const Request& request_;
    std::vector<UniqueFd> files_;
    bool isFound_ = false;
    bool isDenied_ = false;
    bool hasFailed_ = false;
};

} // namespace

ExitStatus history(const Request& request) {
    Reader reader(request);
    const auto rows = reader.read();
    if (request.format == Format::Text) {
        printTable({"TIME", "EVENT", "PACKAGE", "VERSION", "USER", "MESSAGE"}, rows);
    } else {
        for (const auto& row : rows) {
            printJson({{"time", row[0]},
                       {"event", orNull(row[1])},
                       {"package", orNull(row[2])},
                       {"version", orNull(row[3])},
                       {"user", orNull(row[4])},
                       {"message", orNull(row[5])}});
        }
    }
    return reader.hasFailed() ? OperationFailed : Success;
}

} // namespace Vendaractl
