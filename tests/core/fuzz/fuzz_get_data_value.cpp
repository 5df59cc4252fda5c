#include "fuzz_input.h"

#include "runtime/custom_action_data.h"

#include <stdexcept>

// The key stands before the first line feed of the input, the data behind it.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    using halvard_tests::Require;
    const auto [key, data] = halvard_tests::CutAtLineFeed(halvard_tests::Characters(bytes, size));

    // The start of the value, told by a plain comparison at every index.
    std::size_t start = key.size() - 1;
    for (std::size_t index = 0; index + key.size() <= data.size(); ++index) {
        if (data.compare(index, key.size(), key) == 0) {
            start = index + key.size();
            break;
        }
    }

    try {
        const std::wstring value = halvard::GetDataValue(data, key);
        Require(start <= data.size());
        Require(data.compare(start, value.size(), value) == 0);
        Require(value.find(L';') == std::wstring::npos);
        const std::size_t end = start + value.size();
        Require(end == data.size() || data[end] == L';');
    } catch (const std::out_of_range&) {
        Require(start > data.size());
    }
    return 0;
}
