#include "runtime/file_paths.h"

namespace halvard {

namespace {

bool StartsWith(const std::wstring& text, const wchar_t* start) {
    return text.rfind(start, 0) == 0;
}

bool IsHighSurrogate(wchar_t character) {
    return character >= 0xD800 && character < 0xDC00;
}

bool IsLowSurrogate(wchar_t character) {
    return character >= 0xDC00 && character < 0xE000;
}

std::wstring WithoutTrailingBackslashes(std::wstring path) {
    // Without its backslash "C:\" would be the volume itself.
    while (path.size() > 1 && path.back() == L'\\' && path[path.size() - 2] != L':') {
        path.pop_back();
    }
    return path;
}

} // namespace

bool IsSlash(wchar_t character) {
    return character == L'\\' || character == L'/';
}

std::wstring FileInFolder(const std::wstring& folder, const std::wstring& fileName) {
    const bool endsInSlash = !folder.empty() && IsSlash(folder.back());
    return folder + (endsInSlash ? L"" : L"\\") + fileName;
}

std::wstring ProgramInFolder(const std::wstring& folder, const std::wstring& fileName) {
    return folder + L"\\" + fileName;
}

std::wstring ExtendedLengthPath(const std::wstring& fullPath) {
    if (StartsWith(fullPath, L"\\\\?\\") || StartsWith(fullPath, L"\\\\.\\") ||
        StartsWith(fullPath, L"\\??\\")) {
        return fullPath;
    }
    const std::wstring path = WithoutTrailingBackslashes(fullPath);
    return StartsWith(path, L"\\\\") ? L"\\\\?\\UNC" + path.substr(1) : L"\\\\?\\" + path;
}

std::wstring WithoutLoneSurrogates(std::wstring text) {
    for (std::size_t index = 0; index < text.size(); ++index) {
        if (IsHighSurrogate(text[index]) && index + 1 < text.size() &&
            IsLowSurrogate(text[index + 1])) {
            ++index;
        } else if (IsHighSurrogate(text[index]) || IsLowSurrogate(text[index])) {
            text[index] = L'\xFFFD';
        }
    }
    return text;
}

} // namespace halvard
