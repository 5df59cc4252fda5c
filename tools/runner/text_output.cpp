#include "text_output.h"

#include "pipe_bytes.h"

#include <cstring>

namespace halvard_runner {

namespace {

// Of the first write that failed.
DWORD writeError = ERROR_SUCCESS;

void Remember(HANDLE file, DWORD code) {
    if (writeError == ERROR_SUCCESS && !ReaderHasGone(file, code)) {
        writeError = code;
    }
}

std::wstring Decoded(UINT codePage, DWORD flags, const char* text) {
    const int size = static_cast<int>(std::strlen(text));
    const int length = MultiByteToWideChar(codePage, flags, text, size, nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(length), L'\0');
    MultiByteToWideChar(codePage, flags, text, size, wide.data(), length);
    return wide;
}

} // namespace

std::string Utf8(const std::wstring& text) {
    const int length = static_cast<int>(text.size());
    const int size =
        WideCharToMultiByte(CP_UTF8, 0, text.c_str(), length, nullptr, 0, nullptr, nullptr);
    std::string bytes(static_cast<std::size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.c_str(), length, bytes.data(), size, nullptr, nullptr);
    return bytes;
}

std::wstring Widened(const char* text) {
    if (*text == '\0') {
        return {};
    }
    const std::wstring wide = Decoded(CP_UTF8, MB_ERR_INVALID_CHARS, text);
    return wide.empty() ? Decoded(CP_ACP, 0, text) : wide;
}

void Write(DWORD stream, const std::wstring& text) {
    void* const handle = GetStdHandle(stream);
    DWORD mode = 0;
    const bool isConsole = GetConsoleMode(handle, &mode) != FALSE;
    Remember(handle, isConsole ? WriteAllToConsole(handle, text) : WriteAll(handle, Utf8(text)));
}

void WriteAsItIs(DWORD stream, const char* text) noexcept {
    DWORD written = 0;
    WriteFile(GetStdHandle(stream), text, static_cast<DWORD>(std::strlen(text)), &written, nullptr);
}

std::wstring WriteFailure() {
    return writeError == ERROR_SUCCESS ? L"" : ErrorText(writeError);
}

std::wstring MeaningOf(DWORD code) {
    wchar_t text[512] = {};
    const DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                                        nullptr, code, 0, text, 512, nullptr);
    const std::wstring meaning(text, length);
    return meaning.substr(0, meaning.find_last_not_of(L"\r\n. ") + 1);
}

std::wstring ErrorText(DWORD code) {
    const std::wstring number = L"Win32 error " + std::to_wstring(code);
    const std::wstring meaning = MeaningOf(code);
    return meaning.empty() ? number : number + L" (" + meaning + L")";
}

} // namespace halvard_runner
