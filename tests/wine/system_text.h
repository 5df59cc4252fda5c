#pragma once

#include <windows.h>

#include <string>

namespace halvard_tests {

/// What Windows says of an error code, without the end of its line: asked of the system itself, and
/// not of the category that the exceptions under test are made with.
inline std::string SystemText(int code) {
    char text[512] = {};
    FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                   static_cast<DWORD>(code), 0, text, sizeof(text), nullptr);
    std::string line = text;
    line.erase(line.find_last_not_of(".\r\n") + 1);
    return line;
}

} // namespace halvard_tests
