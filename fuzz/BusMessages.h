#pragma once

#include "fuzz/Require.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <fuzzer/FuzzedDataProvider.h>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Fuzz {

template<auto release>
struct Releaser {
    template<typename Handle>
    void operator()(Handle* handle) const {
        release(handle);
    }
};
using Message = std::unique_ptr<sd_bus_message, Releaser<sd_bus_message_unref>>;

/// A connection of the bus whose address is in an environment variable.
class Connection {
public:
    explicit Connection(const char* variable) {
        sd_bus* bus = nullptr;
        requireDone(sd_bus_new(&bus));
        requireDone(sd_bus_set_address(bus, std::getenv(variable)));
        requireDone(sd_bus_set_bus_client(bus, 1));
        requireDone(sd_bus_start(bus));
        bus_.reset(bus);
    }
    [[nodiscard]] sd_bus* get() const { return bus_.get(); }
    /// @return whether a message was handled
    bool process() const {
        int result = sd_bus_process(get(), nullptr);
        const bool hasProcessed = result > 0;
        while (result > 0) {
            result = sd_bus_process(get(), nullptr);
        }
        requireDone(result); // else the bus has closed the connection
        return hasProcessed;
    }

private:
    std::unique_ptr<sd_bus, Releaser<sd_bus_flush_close_unref>> bus_;
};

/// Writes values of any type from the input into messages.
class Values {
public:
    explicit Values(FuzzedDataProvider& input)
        : input_(input) {}

    /// Values of these types, or of any.
    void write(sd_bus_message* message, std::string_view types) {
        if (input_.ConsumeBool()) {
            for (auto count = input_.ConsumeIntegralInRange(0, 3); count > 0; --count) {
                write(message, anyType(3));
            }
            return;
        }
        writeTyped(message, types);
    }
    void writeTyped(sd_bus_message* message, std::string_view types) {
        while (!types.empty()) {
            write(message, parse(types));
        }
    }

    /// ASCII: the bus takes no other text that random bytes are likely to be.
    std::string text() {
        static const std::array<std::string, 16> texts{"com.example.app",
                                                       "general.id",
                                                       "general.version",
                                                       "certificate.id",
                                                       "certificate.subgroup",
                                                       "",
                                                       "..",
                                                       "a/b",
                                                       "norvane.ZUL.Error.Filesystem",
                                                       "norvane.ZUL.Error.PackageNotExist",
                                                       "norvane.Vendara.Error",
                                                       "org.freedesktop.DBus.Error.Disconnected",
                                                       "org.freedesktop.DBus.Error.NoReply",
                                                       "norvane.ZUL",
                                                       std::string(300, 'x'),
                                                       std::string(std::size_t{1} << 17U, 'x')};
        const auto choice = input_.ConsumeIntegralInRange<std::size_t>(0, texts.size() + 1);
        if (choice < texts.size() && texts[choice].size() < room_) {
            room_ -= texts[choice].size();
            return texts[choice];
        }
        auto bytes = "x" + input_.ConsumeRandomLengthString(40);
        std::transform(bytes.begin(), bytes.end(), bytes.begin(),
                       [](char byte) { return static_cast<char>(std::max(byte & 0x7f, 1)); });
        return bytes;
    }

private:
    struct Type {
        char kind;
        std::vector<Type> parts;
    };

    static std::string insideOf(const Type& type) {
        std::string text;
        for (const auto& part : type.parts) {
            text += part.kind == 'r'   ? "(" + insideOf(part) + ")"
                    : part.kind == 'e' ? "{" + insideOf(part) + "}"
                                       : part.kind + insideOf(part);
        }
        return text;
    }

    Type anyType(int depth) {
        static constexpr std::string_view basic = "sogybnqiuxtd";
        const auto choice = input_.ConsumeIntegralInRange<std::size_t>(0, basic.size() + 3);
        if (choice < basic.size() || depth == 0) {
            return {basic[choice % basic.size()], {}};
        }
        switch (choice - basic.size()) {
        case 0:
            return {'v', {}};
        case 1:
            return {'a', {anyType(depth - 1)}};
        case 2:
            return {'a', {{'e', {anyType(0), anyType(depth - 1)}}}};
        default:
            return {'r', {anyType(depth - 1), anyType(depth - 1)}};
        }
    }

    static Type parse(std::string_view& types) {
        const char kind = types.front();
        types.remove_prefix(1);
        if (kind == 'a') {
            return {kind, {parse(types)}};
        }
        if (kind != '(' && kind != '{') {
            return {kind, {}};
        }
        Type type{kind == '(' ? 'r' : 'e', {}};
        while (types.front() != ')' && types.front() != '}') {
            type.parts.push_back(parse(types));
        }
        types.remove_prefix(1);
        return type;
    }

    void write(sd_bus_message* message, const Type& type) {
        switch (type.kind) {
        case 's':
            sd_bus_message_append_basic(message, 's', text().c_str());
            break;
        case 'o':
            sd_bus_message_append_basic(message, 'o', "/norvane");
            break;
        case 'g':
            sd_bus_message_append_basic(message, 'g', "a{sv}");
            break;
        case 'a':
        case 'e':
        case 'r':
        case 'v':
            writeContainer(message, type);
            break;
        default: {
            const auto number = input_.ConsumeIntegral<std::uint64_t>();
            sd_bus_message_append_basic(message, type.kind, &number);
        }
        }
    }

    void writeContainer(sd_bus_message* message, Type type) {
        if (type.kind == 'v') {
            type.parts = {depth_ < 20 ? anyType(2) : Type{'s', {}}};
        }
        if (sd_bus_message_open_container(message, type.kind, insideOf(type).c_str()) < 0) {
            return;
        }
        ++depth_;
        int count = 1;
        if (type.kind == 'a') {
            count = input_.ConsumeIntegralInRange(0, 9) == 9 && room_ > 500 ? 500 : 2;
            room_ -= std::min<std::size_t>(room_, std::size_t{100} * static_cast<std::size_t>(count));
        }
        for (int each = 0; each < count; ++each) {
            for (const auto& part : type.parts) {
                write(message, part);
            }
        }
        sd_bus_message_close_container(message);
        --depth_;
    }

    FuzzedDataProvider& input_;
    // The bus disconnects clients that exceed its limits.
    std::size_t room_ = std::size_t{1} << 20U; ///< for what makes messages large
    int depth_ = 0;                            ///< of containers
};

} // namespace Fuzz
