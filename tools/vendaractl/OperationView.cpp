#include "tools/vendaractl/OperationView.h"

#include "tools/vendaractl/Text.h"

#include <algorithm>
#include <iostream>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

namespace Vendaractl {

namespace {

const std::string lostWords = "the service no longer knows the operation; its result is unknown";

class JsonView final : public OperationView {
public:
    void changed(const Common::OperationRecord& operation) override {
        printJson(JsonValue{{"operation", toJson(operation)}});
    }
    void lost(const Common::OperationRecord& operation) override {
        printFailure(Format::Json, operation.get<1>(), lostWords);
    }
    void earlier(const Common::OperationRecord& operation) override {
        printJson(JsonValue{{"completedOperations", toJson(std::vector{operation})}});
    }
    void refused(const std::string& subject, const std::string& message) override {
        printFailure(Format::Json, subject, message);
    }
};

class PlainView final : public OperationView {
public:
    void changed(const Common::OperationRecord& operation) override { printLine(inWords(operation)); }
    void lost(const Common::OperationRecord& operation) override {
        printFailure(Format::Words, operation.get<1>(), lostWords);
    }
    void earlier(const Common::OperationRecord& operation) override { printEarlier(operation); }
    void refused(const std::string& subject, const std::string& message) override {
        printFailure(Format::Words, subject, message);
    }
};

// Operations that have ended stand above, for good; below them a line for each that goes on, rewritten in
// place. A line that wrapped, or more lines than the screen has, could not be rewritten: both are cut.
class TerminalView final : public OperationView {
public:
    ~TerminalView() override { std::cout.flush(); }

    void changed(const Common::OperationRecord& operation) override {
        const auto known = std::find_if(active_.begin(), active_.end(),
                                        [&](const auto& other) { return idOf(other) == idOf(operation); });
        if (hasEnded(operation)) {
            if (known != active_.end()) {
                active_.erase(known);
            }
            printAbove([&] { printLine("  " + inWords(operation)); });
        } else if (known == active_.end()) {
            active_.push_back(operation);
            draw();
        } else {
            *known = operation;
            draw();
        }
    }

    void lost(const Common::OperationRecord& operation) override {
        active_.erase(std::remove_if(active_.begin(), active_.end(),
                                     [&](const auto& other) { return idOf(other) == idOf(operation); }),
                      active_.end());
        refused(operation.get<1>(), lostWords);
    }

    void earlier(const Common::OperationRecord& operation) override {
        printAbove([&] { printEarlier(operation); });
    }

    void refused(const std::string& subject, const std::string& message) override {
        printAbove([&] { printFailure(Format::Words, subject, message); });
    }

    void tick() override {
        ++step_;
        draw();
    }

private:
    template<typename Print>
    void printAbove(const Print& print) {
        clear();
        print();
        draw();
    }

    void clear() {
        if (drawn_ > 0) {
            std::cout << "\r\x1b[" << drawn_ << "A\x1b[J" << std::flush;
        }
        drawn_ = 0;
    }

    void draw() {
        winsize window{};
        const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) == 0;
        const std::size_t columns = known && window.ws_col > 0 ? window.ws_col : 80;
        const std::size_t rows = known && window.ws_row > 2 ? window.ws_row - 1U : 23;
        clear();
        for (const auto& operation : active_) {
            if (drawn_ == rows) {
                break;
            }
            const bool moving = statusOf(operation) != Core::OperationStatus::Queued;
            // The indicator takes two columns; one stays free, so that the cursor does not wrap.
            std::cout << (moving ? "|/-\\"[step_ % 4] : ' ') << ' '
                      << inWords(operation, columns - std::min<std::size_t>(columns, 3)) << '\n';
            ++drawn_;
        }
        std::cout << std::flush;
    }

    std::vector<Common::OperationRecord> active_;
    std::size_t drawn_ = 0;
    std::size_t step_ = 0;
};

} // namespace

std::unique_ptr<OperationView> makeOperationView(Format format) {
    if (format == Format::Json) {
        return std::make_unique<JsonView>();
    }
    if (onTerminal()) {
        return std::make_unique<TerminalView>();
    }
    return std::make_unique<PlainView>();
}

} // namespace Vendaractl
