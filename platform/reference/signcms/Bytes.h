#pragma once

#include <concepts>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

namespace PackageSignatures {

/// Appends a number in network byte order.
template<std::unsigned_integral Number>
void appendNumber(std::string& bytes, Number number) {
    for (auto shift = 8 * sizeof(Number); shift > 0; shift -= 8) {
        bytes += static_cast<char>(static_cast<unsigned char>(number >> (shift - 8)));
    }
}

/// Parses a binary format from its beginning, with bounds checks.
class ByteReader {
public:
    explicit ByteReader(std::string_view bytes)
        : rest_(bytes) {}

    /// The next bytes. Throws std::runtime_error when there are fewer.
    std::string_view bytes(std::size_t size) {
        if (size > rest_.size()) {
            throw std::runtime_error("ends too early");
        }
        const auto taken = rest_.substr(0, size);
        rest_.remove_prefix(size);
        return taken;
    }

    /// The next number, in network byte order. Throws as bytes() does.
    template<std::unsigned_integral Number>
    Number number() {
        Number value = 0;
        for (const char byte : bytes(sizeof(Number))) {
            value = static_cast<Number>((value << 8) | static_cast<unsigned char>(byte));
        }
        return value;
    }

    /// Throws std::runtime_error unless the next bytes are these.
    void expect(std::string_view expected, const char* what) {
        if (bytes(expected.size()) != expected) {
            throw std::runtime_error(std::string("has another ") + what);
        }
    }

    [[nodiscard]] std::size_t left() const { return rest_.size(); }

private:
    std::string_view rest_;
};

} // namespace PackageSignatures
