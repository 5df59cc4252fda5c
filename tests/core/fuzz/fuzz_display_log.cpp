#include "fuzz_input.h"

#include "registry_actions/display_log_text.h"

namespace {

using halvard_tests::Require;
using halvard_tests::Texts;

bool StandsAt(const std::wstring& text, std::size_t index, const std::wstring& part) {
    if (text.size() - index < part.size()) {
        return false;
    }
    for (std::size_t offset = 0; offset < part.size(); ++offset) {
        if (text[index + offset] != part[offset]) {
            return false;
        }
    }
    return true;
}

void CheckMaker(const std::wstring& manufacturer) {
    bool expected = StandsAt(manufacturer, 0, L"Zenvo") || StandsAt(manufacturer, 0, L"Qorta");
    for (std::size_t index = 0; index < manufacturer.size(); ++index) {
        expected |= StandsAt(manufacturer, index, L"Zenvo Corporation");
    }
    Require(halvard::IsMadeByTheMaker(manufacturer) == expected);
}

// A buffer of 256 characters for the key, the terminator included.
void CheckDriverKey(const std::wstring& name) {
    const std::wstring classes = L"SYSTEM\\CurrentControlSet\\Control\\Class\\";
    const auto key = halvard::DriverClassKey(name);
    Require(key.has_value() == (!name.empty() && classes.size() + name.size() + 1 <= 256));
    Require(!key || *key == classes + name);
}

// Buffers of 1024 characters, terminators included.
void CheckPaths(const std::wstring& temporary) {
    const std::wstring folder = temporary + L"Zenvo\\PV\\Analytics";
    const std::wstring file = temporary + L"Zenvo\\PV\\Analytics\\qtkmd_dce.log";
    const auto paths = halvard::DisplayLogPathsIn(temporary);
    Require(paths.has_value() == (!temporary.empty() && file.size() + 1 <= 1024));
    Require(!paths || (paths->folder == folder && paths->file == file));
}

} // namespace

// A manufacturer, a driver key's name and a temporary folder, one a line.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const Texts words = {
        L"Zenvo", L"Zenvo Corporation",    L"Qorta",
        L"qorta", std::wstring(100, L'x'), L"{4d36e968-e325-11ce-bfc1-08002be10318}\\0000",
    };
    Texts texts = halvard_tests::Lines(halvard_tests::Text(bytes, size, words));
    texts.resize(3);
    CheckMaker(texts[0]);
    CheckDriverKey(texts[1]);
    CheckPaths(texts[2]);
    return 0;
}
