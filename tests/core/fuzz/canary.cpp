// Stands between libFuzzer and the function of a fuzzer and adds the fault that HALVARD_CANARY
// names to one input of a thousand: the fuzzer has to come upon one of these, and to report it.

#include "fuzz_input.h"

#include <cstdlib>
#include <string>
#include <vector>

namespace {

std::uint32_t Checksum(const std::uint8_t* bytes, std::size_t size) {
    std::uint32_t sum = 0;
    for (std::size_t index = 0; index < size; ++index) {
        sum = (sum * 31 + bytes[index]) % 1009;
    }
    return sum;
}

} // namespace

extern "C" int __real_LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size);

// The name that the linker gives to what libFuzzer calls.
extern "C" int __wrap_LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const int result = __real_LLVMFuzzerTestOneInput(bytes, size);
    const bool faulty = Checksum(bytes, size) == 1008;
    const char* const fault = std::getenv("HALVARD_CANARY");
    if (faulty && fault != nullptr && fault == std::string("overflow")) {
        const std::vector<std::uint8_t> copy(bytes, bytes + size);
        const volatile std::uint8_t behind = copy.data()[size];
        static_cast<void>(behind);
    }
    halvard_tests::Require(!faulty);
    return result;
}
