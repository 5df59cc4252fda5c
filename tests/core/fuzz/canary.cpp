// Stands between libFuzzer and the function of a fuzzer and adds the fault that HALVARD_CANARY
// names to one input of some hundreds: the fuzzer has to come upon one of these, and to report it.

#include "fuzz_input.h"

#include <cstdlib>
#include <string>
#include <vector>

namespace {

// No seed has the sum that brings the fault; with one that has, the canary counts as missed.
constexpr std::uint32_t kModulus = 257;

std::uint32_t Checksum(const std::uint8_t* bytes, std::size_t size) {
    std::uint32_t sum = 0;
    for (std::size_t index = 0; index < size; ++index) {
        sum = (sum * 31 + bytes[index]) % kModulus;
    }
    return sum;
}

void Plant(const std::string& fault, const std::uint8_t* bytes, std::size_t size) {
    std::vector<std::uint8_t> copy(bytes, bytes + size);
    // No compiler may see that it lies behind the block.
    volatile std::uint8_t* volatile behind = copy.data() + size;
    if (fault == "overflow") {
        static_cast<void>(*behind);
    } else if (fault == "write") {
        *behind = 1;
    } else if (fault == "arithmetic") {
        volatile int places = 40;
        places = 1 << places;
    } else if (fault == "abort") {
        std::abort();
    } else if (fault == "exception") {
        throw 1;
    }
    halvard_tests::Require(fault != "property");
}

} // namespace

extern "C" int __real_LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size);

// The name that the linker gives to what libFuzzer calls.
extern "C" int __wrap_LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const int result = __real_LLVMFuzzerTestOneInput(bytes, size);
    const char* const named = std::getenv("HALVARD_CANARY");
    if (named != nullptr && Checksum(bytes, size) == kModulus - 1) {
        Plant(named, bytes, size);
    }
    return result;
}
