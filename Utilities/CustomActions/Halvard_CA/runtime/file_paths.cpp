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

bool IsDriveAt(const std::wstring& path, std::size_t index) {
    return path.size() > index + 1 && path[index + 1] == L':' && !IsSlash(path[index]);
}

// Where a root's name ends: a drive ("C:"), a server ("\\server"), or a drive in the
// extended-length form ("\\?\C:"), that of the object manager ("\??\C:") or of a device ("\\.\C:").
std::size_t RootNameLength(const std::wstring& path) {
    if (IsDriveAt(path, 0)) {
        return 2;
    }
    if (IsTakenAsItStands(path) && IsDriveAt(path, 4)) {
        return 6;
    }
    const bool namesServer =
        path.size() > 2 && IsSlash(path[0]) && IsSlash(path[1]) && !IsSlash(path[2]);
    if (!namesServer) {
        return 0;
    }
    const bool isSystemForm = path.size() > 3 && (path[2] == L'?' || path[2] == L'.') &&
                              IsSlash(path[3]) && IsDriveAt(path, 4);
    if (isSystemForm) {
        return 6;
    }
    std::size_t end = 2;
    while (end < path.size() && !IsSlash(path[end])) {
        ++end;
    }
    return end;
}

std::size_t RootLength(const std::wstring& path) {
    std::size_t end = RootNameLength(path);
    while (end < path.size() && IsSlash(path[end])) {
        ++end;
    }
    return end;
}

} // namespace

bool IsSlash(wchar_t character) {
    return character == L'\\' || character == L'/';
}

bool IsTakenAsItStands(const std::wstring& path) {
    return StartsWith(path, L"\\\\?\\") || StartsWith(path, L"\\??\\");
}

std::wstring FileInFolder(const std::wstring& folder, const std::wstring& fileName) {
    const bool endsInSlash = !folder.empty() && IsSlash(folder.back());
    return folder + (endsInSlash ? L"" : L"\\") + fileName;
}

std::wstring ProgramInFolder(const std::wstring& folder, const std::wstring& fileName) {
    return folder + L"\\" + fileName;
}

std::wstring ParentFolder(const std::wstring& path) {
    const std::size_t root = RootLength(path);
    std::size_t end = path.size();
    while (end > root && !IsSlash(path[end - 1])) {
        --end;
    }
    while (end > root && IsSlash(path[end - 1])) {
        --end;
    }
    return path.substr(0, end);
}

std::wstring ExtendedLengthPath(const std::wstring& fullPath) {
    if (IsTakenAsItStands(fullPath) || StartsWith(fullPath, L"\\\\.\\")) {
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

std::wstring ThroughFirstBackslash(const std::wstring& path) {
    const std::size_t backslash = path.find(L'\\');
    return backslash == std::wstring::npos ? path : path.substr(0, backslash + 1);
}

} // namespace halvard
