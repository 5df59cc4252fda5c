#pragma once

#include <cstddef>
#include <cstdint>

namespace halvard_tests {

/// Decisions for what is generated: one a byte, and 0 where the bytes have come to their end.
class ByteSource {
public:
    ByteSource(const std::uint8_t* bytes, std::size_t size) : bytes_(bytes), size_(size) {}

    bool IsEmpty() const { return at_ >= size_; }
    std::size_t Below(std::size_t limit) { return IsEmpty() ? 0 : bytes_[at_++] % limit; }

private:
    const std::uint8_t* bytes_;
    std::size_t size_;
    std::size_t at_ = 0;
};

} // namespace halvard_tests
