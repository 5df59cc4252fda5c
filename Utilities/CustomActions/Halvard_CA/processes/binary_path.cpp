#include "processes/binary_path.h"

#include "runtime/file_paths.h"

namespace halvard {

namespace {

bool IsDriveAt(const std::wstring& path, std::size_t index) {
    return path.size() > index + 1 && path[index + 1] == L':' && !IsSlash(path[index]);
}

// Where a root's name ends: a drive ("C:"), a server ("\\server"), or a drive in the
// extended-length form ("\\?\C:") or that of a device ("\\.\C:").
std::size_t RootNameLength(const std::wstring& path) {
    if (IsDriveAt(path, 0)) {
        return 2;
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

} // namespace halvard
