#include "tools/vendaractl/OperationView.h"

#include <algorithm>
#include <iostream>
#include <sys/ioctl.h>
#include <unistd.h>

namespace Vendaractl {

namespace {

using Vendara::Operation;

// An argument of a shell command that the user may copy. Identifiers are untrusted, so special ones are
// replaced.
std::string inShell(const std::string& id) {
    const bool isPlain = id.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                              "0123456789.-_+") == std::string::npos;
    return isPlain && !id.starts_with('-') ? id : "ID";
}

class LineView : public OperationView {
public:
    explicit LineView(Format format)
        : format_(format) {}

    void changed(const Operation& operation) override {
        if (format_ == Format::Json) {
            printJson(JsonValue{{"operation", toJson(operation)}});
        } else {
            printLine(toText(operation));
        }
    }
    void lost(const Operation& operation) override {
        refused(operation.packageId, "the service no longer lists the operation; its result is unknown");
    }
    void waits(const Operation& operation) override {
        if (format_ == Format::Text) {
            printFailure(
                format_, operation.packageId,
                "the upgrade waits for the application to end; to terminate it: vendaractl restart " +
                    inShell(operation.packageId));
        }
    }
    void earlier(const Operation& operation) override {
        if (format_ == Format::Json) {
            printJson(JsonValue{{"completedOperations", toJson(std::vector{operation})}});
        } else {
            printEarlier(operation);
        }
    }
    void refused(const std::string& subject, const std::string& message) override {
        printFailure(format_, subject, message);
    }

private:
    Format format_;
};

// Lines of ended operations stay above. Each other operation has a line below, which is rewritten in place.
// Lines are shortened and limited in number, because wrapped or scrolled lines could not be rewritten.
class TerminalView final : public LineView {
public:
    TerminalView()
        : LineView(Format::Text) {}
    ~TerminalView() override { std::cout.flush(); }

    void changed(const Operation& operation) override {
        if (operation.hasEnded()) {
            erase(operation);
            printAbove([&] { printLine("  " + toText(operation)); });
            return;
        }
        const auto known = find(operation);
        known == active_.end() ? active_.push_back(operation) : static_cast<void>(*known = operation);
        draw();
    }

    void lost(const Operation& operation) override {
        erase(operation);
        LineView::lost(operation);
    }
    void waits(const Operation& operation) override {
        printAbove([&] { LineView::waits(operation); });
    }
    void earlier(const Operation& operation) override {
        printAbove([&] { LineView::earlier(operation); });
    }
    void refused(const std::string& subject, const std::string& message) override {
        printAbove([&] { LineView::refused(subject, message); });
    }

    bool tick() override {
        ++step_;
        draw();
        return true;
    }

private:
    std::vector<Operation>::iterator find(const Operation& operation) {
        return std::find_if(active_.begin(), active_.end(),
                            [&](const auto& other) { return other.id == operation.id; });
    }
    void erase(const Operation& operation) {
        if (const auto known = find(operation); known != active_.end()) {
            active_.erase(known);
        }
    }

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
            const bool moving = operation.status != Vendara::OperationStatus::Queued;
            // The indicator takes two columns; one stays free, so that the cursor does not wrap.
            std::cout << (moving ? "|/-\\"[step_ % 4] : ' ') << ' '
                      << toText(operation, columns - std::min<std::size_t>(columns, 3)) << '\n';
            ++drawn_;
        }
        std::cout << std::flush;
    }

    std::vector<Operation> active_;
    std::size_t drawn_ = 0;
    std::size_t step_ = 0;
};

} // namespace

std::unique_ptr<OperationView> makeOperationView(Format format) {
    if (format == Format::Text && onTerminal()) {
        return std::make_unique<TerminalView>();
    }
    return std::make_unique<LineView>(format);
}

} // namespace Vendaractl
