#include "runtime/file_status.h"

#include "runtime/file_paths.h"

#include <shlwapi.h>

#include <cstring>
#include <filesystem>
#include <system_error>

namespace halvard {

namespace {

std::error_code SystemError(DWORD code) {
    return {static_cast<int>(code), std::system_category()};
}

struct FileIdentity {
    ULONGLONG volume = 0;
    FILE_ID_128 file = {};
};

// What a reparse point leads to; a tag other than 0 says that it was not followed.
DWORD ReadTarget(const std::wstring& systemPath, DWORD& attributes, DWORD& tag) {
    OwnedHandle opened;
    DWORD code = OpenShared(systemPath, FILE_READ_ATTRIBUTES, opened);
    if (code == ERROR_SUCCESS) {
        code = ReadAttributes(opened.get(), attributes);
    }
    if (code == ERROR_SUCCESS && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        code = ReadReparseTag(opened.get(), tag);
    }
    return code;
}

DWORD ReadIdentity(const std::wstring& path, FileIdentity& identity) {
    OwnedHandle opened;
    const DWORD code = OpenShared(SystemPath(path), FILE_READ_ATTRIBUTES, opened);
    if (code != ERROR_SUCCESS) {
        return code;
    }
    FILE_ID_INFO wide = {};
    if (GetFileInformationByHandleEx(opened.get(), FileIdInfo, &wide, sizeof(wide)) != FALSE) {
        identity = {wide.VolumeSerialNumber, wide.FileId};
        return ERROR_SUCCESS;
    }
    // File systems without 128-bit identities.
    BY_HANDLE_FILE_INFORMATION narrow = {};
    if (GetFileInformationByHandle(opened.get(), &narrow) == FALSE) {
        return GetLastError();
    }
    identity.volume = narrow.dwVolumeSerialNumber;
    std::memcpy(identity.file.Identifier, &narrow.nFileIndexLow, sizeof(DWORD));
    std::memcpy(identity.file.Identifier + sizeof(DWORD), &narrow.nFileIndexHigh, sizeof(DWORD));
    return ERROR_SUCCESS;
}

} // namespace

void ThrowFileSystemError(const char* operation, const std::wstring& path, DWORD code) {
    throw std::filesystem::filesystem_error(operation, WithoutLoneSurrogates(path),
                                            SystemError(code));
}

bool MeansMissing(DWORD code) {
    return code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND ||
           code == ERROR_BAD_NETPATH || code == ERROR_INVALID_NAME;
}

bool MeansUnknownClass(DWORD code) {
    return code == ERROR_INVALID_FUNCTION || code == ERROR_NOT_SUPPORTED ||
           code == ERROR_INVALID_PARAMETER || code == ERROR_CALL_NOT_IMPLEMENTED ||
           code == ERROR_INVALID_LEVEL;
}

std::wstring SystemPath(const std::wstring& path) {
    // GetFullPathNameW would take dots and blanks off names that this form keeps.
    if (IsTakenAsItStands(path)) {
        return path;
    }
    std::wstring full;
    DWORD length = GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
    // Asked again while the answer grows: another thread may change the current directory.
    while (length > full.size()) {
        full.resize(length);
        length = GetFullPathNameW(path.c_str(), length, full.data(), nullptr);
    }
    if (length == 0) {
        return path;
    }
    full.resize(length);
    return ExtendedLengthPath(full);
}

DWORD OpenShared(const std::wstring& systemPath, DWORD access, OwnedHandle& opened) {
    opened.reset(CreateFileW(systemPath.c_str(), access,
                             FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                             OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    return opened ? ERROR_SUCCESS : GetLastError();
}

DWORD ReadAttributes(HANDLE opened, DWORD& attributes) {
    FILE_BASIC_INFO info = {};
    if (GetFileInformationByHandleEx(opened, FileBasicInfo, &info, sizeof(info)) == FALSE) {
        return GetLastError();
    }
    attributes = info.FileAttributes;
    return ERROR_SUCCESS;
}

DWORD ReadReparseTag(HANDLE opened, DWORD& tag) {
    FILE_ATTRIBUTE_TAG_INFO info = {};
    if (GetFileInformationByHandleEx(opened, FileAttributeTagInfo, &info, sizeof(info)) == FALSE) {
        return GetLastError();
    }
    tag = (info.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 ? info.ReparseTag : 0;
    return ERROR_SUCCESS;
}

FileKind QueryKind(const std::wstring& path, const char* operation) {
    const std::wstring systemPath = SystemPath(path);
    DWORD attributes = GetFileAttributesW(systemPath.c_str());
    DWORD code = attributes != INVALID_FILE_ATTRIBUTES ? DWORD{ERROR_SUCCESS} : GetLastError();
    DWORD tag = 0;
    if (code == ERROR_SUCCESS && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        code = ReadTarget(systemPath, attributes, tag);
    }
    if (MeansMissing(code)) {
        return FileKind::Missing;
    }
    if (code != ERROR_SUCCESS) {
        ThrowFileSystemError(operation, path, code);
    }
    if (tag == IO_REPARSE_TAG_SYMLINK) {
        return FileKind::SymbolicLink;
    }
    if (tag == IO_REPARSE_TAG_MOUNT_POINT) {
        return FileKind::Junction;
    }
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        return FileKind::Directory;
    }
    // The extended-length form has none at its end, and with one Windows knows no file.
    return path.back() == L'\\' || path.back() == L'/' ? FileKind::Missing : FileKind::File;
}

bool ExistsOrThrow(const std::wstring& path) {
    return QueryKind(path, "exists") != FileKind::Missing;
}

bool ExistsByAttributes(const std::wstring& path) {
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

bool ExistsForShell(const std::wstring& path) {
    return PathFileExistsW(path.c_str()) != FALSE;
}

bool IsDirectory(const std::wstring& path) {
    return QueryKind(path, "status") == FileKind::Directory;
}

bool AreEquivalent(const std::wstring& first, const std::wstring& second) {
    FileIdentity left;
    FileIdentity right;
    DWORD code = ReadIdentity(first, left);
    if (code == ERROR_SUCCESS) {
        code = ReadIdentity(second, right);
    }
    if (code != ERROR_SUCCESS) {
        throw std::filesystem::filesystem_error("equivalent", WithoutLoneSurrogates(first),
                                                WithoutLoneSurrogates(second), SystemError(code));
    }
    return left.volume == right.volume &&
           std::memcmp(&left.file, &right.file, sizeof(left.file)) == 0;
}

} // namespace halvard
