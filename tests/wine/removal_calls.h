#pragma once

#include "import_hook.h"

#include <windows.h>
#include <winternl.h>

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

// The calls by which a tree is removed, watched by the paths of what they are made for.

namespace halvard_tests {

constexpr NTSTATUS kStatusSuccess = 0;
constexpr NTSTATUS kStatusNoSuchName = static_cast<NTSTATUS>(0xC0000034U);
constexpr NTSTATUS kStatusNoSuchPath = static_cast<NTSTATUS>(0xC000003AU);
constexpr NTSTATUS kStatusInvalidName = static_cast<NTSTATUS>(0xC0000033U);
constexpr NTSTATUS kStatusBadNetworkPath = static_cast<NTSTATUS>(0xC00000BEU);
constexpr NTSTATUS kStatusAccessDenied = static_cast<NTSTATUS>(0xC0000022U);
constexpr NTSTATUS kStatusSharingViolation = static_cast<NTSTATUS>(0xC0000043U);

constexpr auto kDispositionWithFlags = static_cast<FILE_INFO_BY_HANDLE_CLASS>(21);

/// Whether the system knows deletions with flags, asked with a new file of the throw-away drive.
inline bool KnowsDeletionWithFlags(const std::wstring& path) {
    const HANDLE file =
        CreateFileW(path.c_str(), DELETE, 7, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    DWORD flags = 3;
    const bool knows =
        SetFileInformationByHandle(file, kDispositionWithFlags, &flags, sizeof(flags)) != FALSE;
    CloseHandle(file);
    DeleteFileW(path.c_str());
    return knows;
}

/// One opening of an entry by the handle of its folder.
struct EntryOpening {
    std::wstring path;
    std::wstring name;
    ACCESS_MASK access;
    ULONG sharing;
    ULONG options;
    ULONG attributes;
    bool isRelative;
};

/// Watches openings, questions and deletions for the length of a scope. Paths are those of the
/// first opening, without the prefix of the extended-length form.
class RemovalCalls {
public:
    /// Asked in front of a call; a result other than success is returned instead of making it.
    std::function<NTSTATUS(const std::wstring& path)> beforeOpening;
    std::function<DWORD(const std::wstring& path)> beforeDeletion;
    std::function<DWORD(const std::wstring& path)> beforeListing;
    std::function<void(const std::wstring& path)> beforeOpeningPath;
    /// Whether a deletion is only played: it succeeds and removes nothing.
    std::function<bool(const std::wstring& path)> simulatesDeletion;
    /// Told after a call that succeeded, and may change what it answered.
    std::function<void(const std::wstring& path)> afterOpening;
    std::function<void(const std::wstring& path)> afterOpeningPath;
    std::function<DWORD(const std::wstring& path, FILE_INFO_BY_HANDLE_CLASS type, void* data)>
        afterQuestion;
    /// Whether deletions with flags are known, or as the system has it.
    bool simulatesFlags = false;

    /// "remove PATH" by path, "delete PATH" by handle, each with " refused" behind it when it was.
    std::vector<std::wstring> removals;
    std::vector<std::wstring> openedByPath;
    std::vector<EntryOpening> openings;
    std::vector<FILE_INFO_BY_HANDLE_CLASS> dispositions;
    std::vector<DWORD> flags;
    /// The folders of which a listing was begun.
    std::vector<std::wstring> listings;

    bool WasOpened(const std::wstring& path) const {
        for (const EntryOpening& opening : openings) {
            if (opening.path == path) {
                return true;
            }
        }
        return false;
    }

private:
    static std::wstring Plain(const std::wstring& path) {
        return path.rfind(L"\\\\?\\", 0) == 0 ? path.substr(4) : path;
    }

    void NoteRemoval(const wchar_t* kind, const std::wstring& path, bool done) {
        const DWORD code = GetLastError();
        removals.push_back(kind + path + (done ? L"" : L" refused"));
        SetLastError(code);
    }

    BOOL Delete(HANDLE file, FILE_INFO_BY_HANDLE_CLASS type, LPVOID data, DWORD size) {
        const std::wstring& path = paths_[file];
        const bool hasFlags = type == kDispositionWithFlags;
        dispositions.push_back(type);
        if (hasFlags) {
            flags.push_back(*static_cast<DWORD*>(data));
            if (!simulatesFlags && !knowsFlags_) {
                SetLastError(ERROR_INVALID_PARAMETER);
                return FALSE;
            }
        }
        const DWORD code = beforeDeletion ? beforeDeletion(path) : DWORD{ERROR_SUCCESS};
        SetLastError(code);
        BOOL done = FALSE;
        if (code == ERROR_SUCCESS && simulatesDeletion && simulatesDeletion(path)) {
            done = TRUE;
        } else if (code == ERROR_SUCCESS) {
            FILE_DISPOSITION_INFO plain = {TRUE};
            done = hasFlags && simulatesFlags
                       ? setting_.Original(file, FileDispositionInfo, &plain, sizeof(plain))
                       : setting_.Original(file, type, data, size);
        }
        NoteRemoval(L"delete ", path, done != FALSE);
        return done;
    }

    const bool knowsFlags_ = KnowsDeletionWithFlags(L"T:\\asked for deletion");
    std::map<HANDLE, std::wstring> paths_;

    HOOK(removing_, RemoveDirectoryW, [this](LPCWSTR path) {
        const BOOL done = removing_.Original(path);
        NoteRemoval(L"remove ", Plain(path), done != FALSE);
        return done;
    });
    HOOK(openingPath_, CreateFileW,
         [this](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                DWORD disposition, DWORD options, HANDLE model) {
             openedByPath.push_back(Plain(path));
             if (beforeOpeningPath) {
                 beforeOpeningPath(Plain(path));
             }
             const HANDLE opened =
                 openingPath_.Original(path, access, share, security, disposition, options, model);
             paths_[opened] = Plain(path);
             if (afterOpeningPath) {
                 afterOpeningPath(Plain(path));
             }
             return opened;
         });
    HOOK(opening_, NtOpenFile,
         [this](PHANDLE opened, ACCESS_MASK access, POBJECT_ATTRIBUTES object,
                PIO_STATUS_BLOCK result, ULONG sharing, ULONG options) -> NTSTATUS {
             const std::wstring name(object->ObjectName->Buffer,
                                     object->ObjectName->Length / sizeof(wchar_t));
             const std::wstring path = paths_[object->RootDirectory] + L"\\" + name;
             openings.push_back({path, name, access, sharing, options, object->Attributes,
                                 object->RootDirectory != nullptr});
             NTSTATUS status = beforeOpening ? beforeOpening(path) : kStatusSuccess;
             if (status == kStatusSuccess) {
                 status = opening_.Original(opened, access, object, result, sharing, options);
             }
             if (status == kStatusSuccess) {
                 paths_[*opened] = path;
                 if (afterOpening) {
                     afterOpening(path);
                 }
             }
             return status;
         });
    HOOK(setting_, SetFileInformationByHandle,
         [this](HANDLE file, FILE_INFO_BY_HANDLE_CLASS type, LPVOID data, DWORD size) {
             return Delete(file, type, data, size);
         });
    HOOK(asking_, GetFileInformationByHandleEx,
         [this](HANDLE file, FILE_INFO_BY_HANDLE_CLASS type, LPVOID data, DWORD size) -> BOOL {
             const std::wstring path = paths_[file];
             if (type == FileIdBothDirectoryInfo && (listings.empty() || listings.back() != path)) {
                 listings.push_back(path);
             }
             const DWORD refusal = type == FileIdBothDirectoryInfo && beforeListing
                                       ? beforeListing(path)
                                       : DWORD{ERROR_SUCCESS};
             if (refusal != ERROR_SUCCESS) {
                 SetLastError(refusal);
                 return FALSE;
             }
             const BOOL done = asking_.Original(file, type, data, size);
             if (done == FALSE || !afterQuestion) {
                 return done;
             }
             const DWORD code = afterQuestion(path, type, data);
             SetLastError(code);
             return code == ERROR_SUCCESS ? TRUE : FALSE;
         });
};

/// Goes through the entries of a listing as the system wrote it.
template <class Change>
void ForEachListed(void* data, Change change) {
    auto* next = static_cast<BYTE*>(data);
    ULONG offset = 0;
    do {
        auto* const info = reinterpret_cast<FILE_ID_BOTH_DIR_INFO*>(next);
        change(std::wstring(info->FileName, info->FileNameLength / sizeof(wchar_t)), *info);
        offset = info->NextEntryOffset;
        next += offset;
    } while (offset != 0);
}

} // namespace halvard_tests
