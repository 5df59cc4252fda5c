#include "cleanup/held_folder.h"

#include "runtime/file_status.h"

#include <winternl.h>

#include <utility>

namespace halvard {

namespace {

// FileInternalInformation and its structure, which some headers lack: no constant expression, for
// there the number is outside of what the enumeration can hold.
const auto kFileInternalInformation = static_cast<FILE_INFORMATION_CLASS>(6);
struct InternalInformation {
    LARGE_INTEGER indexNumber;
};

// All bits are set where an identity does not fit into 64 bits.
std::uint64_t KnownFileId(LARGE_INTEGER fileId) {
    return fileId.QuadPart == -1 ? 0 : static_cast<std::uint64_t>(fileId.QuadPart);
}

// Its volume is not asked for: a name that is opened in a folder that is no link is on the volume
// of the folder, and under Wine the question takes as long as removing several files.
std::uint64_t ReadFileId(HANDLE opened) {
    InternalInformation info = {};
    IO_STATUS_BLOCK result = {};
    return NT_SUCCESS(NtQueryInformationFile(opened, &result, &info, sizeof(info),
                                             kFileInternalInformation))
               ? KnownFileId(info.indexNumber)
               : 0;
}

// A tag that cannot be read counts as that of a link.
bool HasTagOfALink(HANDLE opened, DWORD attributes) {
    DWORD tag = 0;
    return (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 &&
           (ReadReparseTag(opened, tag) != ERROR_SUCCESS || IsLink(attributes, tag));
}

bool IsDots(const std::wstring& name) {
    return name == L"." || name == L"..";
}

// Servers and damaged volumes may list anything. With a separator it is a path and no name.
bool IsName(const std::wstring& name) {
    return !name.empty() && name.find_first_of(L"\\/") == std::wstring::npos;
}

bool AreSameNames(const std::wstring& first, const std::wstring& second) {
    return CompareStringOrdinal(first.c_str(), static_cast<int>(first.size()), second.c_str(),
                                static_cast<int>(second.size()), TRUE) == CSTR_EQUAL;
}

// FILE_ID_BOTH_DIR_INFO begins as FILE_FULL_DIR_INFO does, up to the name.
void ReadEntry(const FILE_FULL_DIR_INFO& info, const wchar_t* name, std::uint64_t fileId,
               ListedEntry& entry) {
    entry.name.assign(name, info.FileNameLength / sizeof(wchar_t));
    entry.attributes = info.FileAttributes;
    // This field holds the tag of what is a reparse point.
    entry.reparseTag = (info.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 ? info.EaSize : 0;
    entry.fileId = fileId;
}

} // namespace

bool IsLink(DWORD attributes, DWORD reparseTag) {
    return (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 &&
           (reparseTag == IO_REPARSE_TAG_SYMLINK || reparseTag == IO_REPARSE_TAG_MOUNT_POINT ||
            reparseTag == 0);
}

DWORD HeldFolder::OpenTop(const std::wstring& systemPath, FolderUse use) {
    isOpenForDeletion_ = use == FolderUse::ListAndDelete;
    const DWORD deletion = isOpenForDeletion_ ? DELETE : 0;
    handle_.reset(CreateFileW(systemPath.c_str(),
                              FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES | deletion,
                              FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                              FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (!handle_) {
        return GetLastError();
    }
    const DWORD code = CheckOpened(0);
    const std::size_t nameEnd = systemPath.find_last_not_of(L'\\') + 1;
    const std::size_t nameStart = systemPath.rfind(L'\\', nameEnd - 1) + 1;
    // The root of a drive lies in no folder.
    if (code != ERROR_SUCCESS || isLink_ || systemPath[nameEnd - 1] == L':') {
        return code;
    }
    return CheckLiesIn(systemPath.substr(0, nameStart),
                       systemPath.substr(nameStart, nameEnd - nameStart));
}

// A folder that is not the one listed was reached through a link: some file systems look names up
// by the path of the folder that they are opened in, and Wine follows links of its host.
DWORD HeldFolder::OpenIn(const HeldFolder& parent, const ListedEntry& folder, FolderUse use) {
    isOpenForDeletion_ = use == FolderUse::ListAndDelete;
    DWORD code = parent.OpenSubfolder(folder, isOpenForDeletion_ ? DELETE : 0, handle_);
    if (isOpenForDeletion_ && (code == ERROR_SHARING_VIOLATION || code == ERROR_ACCESS_DENIED)) {
        isOpenForDeletion_ = false;
        code = parent.OpenSubfolder(folder, 0, handle_);
    }
    return code == ERROR_SUCCESS && IsOpen() ? CheckOpenedAs(folder) : code;
}

DWORD HeldFolder::ReopenForDeletion(const HeldFolder& parent, const ListedEntry& folder) {
    const bool wasLink = isLink_;
    handle_.reset();
    isOpenForDeletion_ = true;
    DWORD code = parent.OpenEntry(folder, DELETE | FILE_READ_ATTRIBUTES,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                  FILE_DIRECTORY_FILE, handle_);
    if (code == ERROR_SUCCESS && IsOpen()) {
        code = CheckOpenedAs(folder);
        if (code == ERROR_SUCCESS && isLink_ != wasLink) {
            code = ERROR_DIR_NOT_EMPTY;
        }
    }
    return code;
}

// Any folder will do where there are no identities.
DWORD HeldFolder::CheckOpenedAs(const ListedEntry& folder) {
    const DWORD code = CheckOpened(folder.attributes);
    const bool isAnother = folder.fileId != 0 && fileId_ != 0 && folder.fileId != fileId_;
    return code == ERROR_SUCCESS && !isLink_ && isAnother ? DWORD{ERROR_DIR_NOT_EMPTY} : code;
}

DWORD HeldFolder::OpenForDeletion(const ListedEntry& entry, OwnedHandle& opened) const {
    return OpenEntry(entry, DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                     entry.HasFolderAttribute() ? FILE_DIRECTORY_FILE : FILE_NON_DIRECTORY_FILE,
                     opened);
}

DWORD HeldFolder::CheckIsNoLink() const {
    DWORD attributes = 0;
    const DWORD code = ReadAttributes(handle_.get(), attributes);
    if (code == ERROR_SUCCESS && HasTagOfALink(handle_.get(), attributes)) {
        return ERROR_DIR_NOT_EMPTY;
    }
    return code;
}

DWORD HeldFolder::OpenSubfolder(const ListedEntry& folder, ACCESS_MASK deletion,
                                OwnedHandle& opened) const {
    return OpenEntry(folder, FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES | SYNCHRONIZE | deletion,
                     FILE_SHARE_READ | FILE_SHARE_WRITE,
                     FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, opened);
}

DWORD HeldFolder::OpenEntry(const ListedEntry& entry, ACCESS_MASK access, ULONG sharing,
                            ULONG options, OwnedHandle& opened) const {
    if (!IsName(entry.name)) {
        return ERROR_INVALID_NAME;
    }
    UNICODE_STRING name = {};
    name.Buffer = const_cast<wchar_t*>(entry.name.c_str());
    name.Length = static_cast<USHORT>(entry.name.size() * sizeof(wchar_t));
    name.MaximumLength = name.Length;
    OBJECT_ATTRIBUTES object = {};
    InitializeObjectAttributes(&object, &name, 0, handle_.get(), nullptr);
    IO_STATUS_BLOCK result = {};
    HANDLE handle = nullptr;
    const NTSTATUS status =
        NtOpenFile(&handle, access, &object, &result, sharing,
                   options | FILE_OPEN_REPARSE_POINT | FILE_OPEN_FOR_BACKUP_INTENT);
    OwnedHandle entryHandle(NT_SUCCESS(status) ? handle : nullptr);
    // Asked after the opening, also when nothing was found: if this folder has become a link, that
    // is an answer about another one.
    const DWORD code = CheckIsNoLink();
    if (code != ERROR_SUCCESS) {
        return code;
    }
    opened = std::move(entryHandle);
    if (NT_SUCCESS(status)) {
        return ERROR_SUCCESS;
    }
    const DWORD refusal = RtlNtStatusToDosError(status);
    return MeansMissing(refusal) ? DWORD{ERROR_SUCCESS} : refusal;
}

DWORD HeldFolder::CheckOpened(DWORD listedAttributes) {
    DWORD attributes = 0;
    const DWORD code = ReadAttributes(handle_.get(), attributes);
    if (code != ERROR_SUCCESS) {
        return code;
    }
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
        return ERROR_DIRECTORY;
    }
    // Where a reparse point was listed and the handle has no tag, the opening may have followed it.
    isLink_ = HasTagOfALink(handle_.get(), attributes | listedAttributes);
    fileId_ = ReadFileId(handle_.get());
    return ERROR_SUCCESS;
}

// Says yes where that cannot be asked. A folder without an entry of its name is known by its
// identity alone: some file systems open names that they do not list. A reparse point that is no
// link may be listed with an identity of its own.
DWORD HeldFolder::CheckLiesIn(const std::wstring& folder, const std::wstring& name) {
    HeldFolder above;
    if (OpenShared(folder, FILE_LIST_DIRECTORY, above.handle_) != ERROR_SUCCESS || fileId_ == 0 ||
        above.BeginListing() != ERROR_SUCCESS) {
        return ERROR_SUCCESS;
    }
    bool hasName = false;
    bool hasLink = false;
    bool hasIdentity = false;
    bool areIdentitiesListed = false;
    ListedEntry entry;
    std::wstring shortName;
    DWORD code = ERROR_SUCCESS;
    while ((code = above.NextListed(entry, &shortName)) == ERROR_SUCCESS) {
        const bool isNamed = AreSameNames(entry.name, name) || AreSameNames(shortName, name);
        const bool isThis =
            entry.IsFolder() && (entry.fileId == 0 || entry.fileId == fileId_ ||
                                 (entry.attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0);
        if (isNamed && isThis) {
            return ERROR_SUCCESS;
        }
        if (IsDots(entry.name)) {
            continue;
        }
        hasName = hasName || isNamed;
        hasLink = hasLink || (isNamed && IsLink(entry.attributes, entry.reparseTag));
        hasIdentity = hasIdentity || (entry.IsFolder() && entry.fileId == fileId_);
        areIdentitiesListed = areIdentitiesListed || entry.fileId != 0;
    }
    isLink_ = hasLink;
    const bool isElsewhere = !hasLink && (hasName || (areIdentitiesListed && !hasIdentity));
    return code == ERROR_NO_MORE_FILES && isElsewhere ? ERROR_DIR_NOT_EMPTY : ERROR_SUCCESS;
}

DWORD HeldFolder::BeginListing() {
    listing_ = std::make_unique<Listing>();
    DWORD code = ReadListing();
    if (MeansUnknownClass(code)) {
        listingClass_ = FileFullDirectoryInfo;
        code = ReadListing();
    }
    return code == ERROR_NO_MORE_FILES ? ERROR_SUCCESS : code;
}

DWORD HeldFolder::Next(ListedEntry& entry) {
    DWORD code = ERROR_SUCCESS;
    do {
        code = NextListed(entry, nullptr);
    } while (code == ERROR_SUCCESS && IsDots(entry.name));
    return code;
}

DWORD HeldFolder::NextListed(ListedEntry& entry, std::wstring* shortName) {
    if (!hasNext_) {
        const DWORD code = ReadListing();
        if (code != ERROR_SUCCESS) {
            return code;
        }
    }
    const unsigned char* const next = listing_->bytes + offset_;
    const auto& full = *reinterpret_cast<const FILE_FULL_DIR_INFO*>(next);
    const auto& both = *reinterpret_cast<const FILE_ID_BOTH_DIR_INFO*>(next);
    const bool hasIdentity = listingClass_ == FileIdBothDirectoryInfo;
    const std::size_t nameOffset =
        offset_ + (hasIdentity ? offsetof(FILE_ID_BOTH_DIR_INFO, FileName)
                               : offsetof(FILE_FULL_DIR_INFO, FileName));
    if (nameOffset > sizeof(listing_->bytes) ||
        full.FileNameLength > sizeof(listing_->bytes) - nameOffset) {
        return ERROR_INVALID_DATA;
    }
    ReadEntry(full, hasIdentity ? both.FileName : full.FileName,
              hasIdentity ? KnownFileId(both.FileId) : 0, entry);
    if (shortName != nullptr) {
        const bool isThere = hasIdentity && both.ShortNameLength > 0 &&
                             both.ShortNameLength <= static_cast<CCHAR>(sizeof(both.ShortName));
        shortName->assign(both.ShortName,
                          isThere ? static_cast<std::size_t>(both.ShortNameLength) / 2 : 0);
    }
    offset_ += full.NextEntryOffset;
    hasNext_ = full.NextEntryOffset != 0;
    return ERROR_SUCCESS;
}

DWORD HeldFolder::ReadListing() {
    if (GetFileInformationByHandleEx(handle_.get(), listingClass_, listing_->bytes,
                                     sizeof(listing_->bytes)) == FALSE) {
        // An empty drive has not even the two dots.
        const DWORD code = GetLastError();
        return code == ERROR_FILE_NOT_FOUND ? DWORD{ERROR_NO_MORE_FILES} : code;
    }
    offset_ = 0;
    hasNext_ = true;
    return ERROR_SUCCESS;
}

} // namespace halvard
