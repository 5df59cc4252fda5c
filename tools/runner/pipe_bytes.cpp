#include "pipe_bytes.h"

#include <algorithm>
#include <array>

namespace halvard_runner {

namespace {

constexpr std::size_t kBytes = std::size_t{1} << 20U;
constexpr std::size_t kConsoleCharacters = 8000;

// What a call that has written so much is to be told as.
DWORD Judged(bool done, DWORD written) {
    const DWORD code = done ? ERROR_SUCCESS : GetLastError();
    const bool hasFailed = !done || written == 0;
    return hasFailed && code == ERROR_SUCCESS ? ERROR_WRITE_FAULT : code;
}

// Both halves of a surrogate pair go to the console at once.
std::size_t ConsoleBlock(const std::wstring& text, std::size_t start) {
    const std::size_t size = std::min(text.size() - start, kConsoleCharacters);
    const wchar_t last = text[start + size - 1];
    const bool isCut = last >= 0xD800 && last <= 0xDBFF && start + size < text.size();
    return isCut ? size - 1 : size;
}

} // namespace

std::string ReadToEnd(HANDLE pipe) {
    std::string bytes;
    std::array<char, 4096> block = {};
    DWORD read = 0;
    while (ReadFile(pipe, block.data(), static_cast<DWORD>(block.size()), &read, nullptr) !=
               FALSE &&
           read > 0) {
        bytes.append(block.data(), read);
    }
    return bytes;
}

DWORD WriteAll(HANDLE file, const std::string& bytes) {
    std::size_t start = 0;
    while (start < bytes.size()) {
        const auto size = static_cast<DWORD>(std::min(bytes.size() - start, kBytes));
        DWORD written = 0;
        const bool done = WriteFile(file, bytes.data() + start, size, &written, nullptr) != FALSE;
        if (const DWORD code = Judged(done, written)) {
            return code;
        }
        start += written;
    }
    return ERROR_SUCCESS;
}

DWORD WriteAllToConsole(HANDLE console, const std::wstring& text) {
    std::size_t start = 0;
    while (start < text.size()) {
        const auto size = static_cast<DWORD>(ConsoleBlock(text, start));
        DWORD written = 0;
        const bool done =
            WriteConsoleW(console, text.data() + start, size, &written, nullptr) != FALSE;
        if (const DWORD code = Judged(done, written)) {
            return code;
        }
        start += written;
    }
    return ERROR_SUCCESS;
}

bool ReaderHasGone(HANDLE file, DWORD code) {
    const bool isOfPipes =
        code == ERROR_BROKEN_PIPE || code == ERROR_NO_DATA || code == ERROR_PIPE_NOT_CONNECTED;
    return isOfPipes && GetFileType(file) == FILE_TYPE_PIPE;
}

} // namespace halvard_runner
