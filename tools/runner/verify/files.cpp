// What paths lead to, and what can be removed: by the library's own code, on trees of the program's
// own making.

#include "verify/child.h"
#include "verify/place.h"

#include "library.h"

#include "cleanup/directory_tree.h"
#include "cleanup/held_folder.h"
#include "runtime/file_paths.h"
#include "runtime/file_status.h"
#include "runtime/owned.h"

#include <shlobj.h>
#include <winioctl.h>

#include <cstring>
#include <system_error>
#include <vector>

namespace halvard_runner {

namespace {

using halvard::OwnedHandle;

// As the library asks what a path leads to.
std::wstring CodeOfOpening(const std::wstring& path) {
    const OwnedHandle opened(CreateFileW(halvard::SystemPath(path).c_str(), FILE_READ_ATTRIBUTES,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                         nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS,
                                         nullptr));
    return opened ? L"opens" : std::to_wstring(GetLastError());
}

std::wstring MissingFile(const ScratchPlace& place) {
    return CodeOfOpening(place.File(L"none"));
}

std::wstring MissingFolder(const ScratchPlace& place) {
    return CodeOfOpening(place.File(L"none\\none"));
}

std::wstring MissingDrive(const ScratchPlace& /*place*/) {
    const DWORD drives = GetLogicalDrives();
    for (wchar_t letter = L'Z'; letter >= L'D'; --letter) {
        if ((drives & (1U << static_cast<unsigned>(letter - L'A'))) == 0) {
            return CodeOfOpening(std::wstring(1, letter) + L":\\none");
        }
    }
    throw CannotBeAsked(L"there is no letter without a drive");
}

std::wstring MissingServer(const ScratchPlace& /*place*/) {
    return CodeOfOpening(L"\\\\halvard-verify.invalid\\share\\none");
}

std::wstring InvalidName(const ScratchPlace& place) {
    return CodeOfOpening(place.File(L"a<b"));
}

std::wstring QuotedFolder(const ScratchPlace& place) {
    return CodeOfOpening(halvard::ParentFolder(L"\"" + place.File(L"service.exe") + L"\""));
}

std::wstring BelowAFile(const ScratchPlace& place) {
    MakeFile(place.File(L"file"));
    return CodeOfOpening(place.File(L"file\\none"));
}

std::wstring EmptyPath(const ScratchPlace& /*place*/) {
    return CodeOfOpening(L"");
}

std::wstring FormOfObjectManager(const ScratchPlace& place) {
    return CodeOfOpening(L"\\??\\" + place.Folder());
}

std::wstring SameFolder(const ScratchPlace& place) {
    return halvard::AreEquivalent(place.Folder() + L"\\.\\", L"\\\\?\\" + place.Folder())
               ? L"the same"
               : L"another";
}

// Folders in each other below a folder, down to one whose path is longer than 260 characters.
std::wstring LongFolder(const std::wstring& folder) {
    std::wstring path = Extended(folder);
    while (path.size() < 320) {
        path += L"\\" + std::wstring(40, L'f');
        MakeFolder(path);
    }
    return path;
}

std::wstring LongPath(const ScratchPlace& place) {
    const std::wstring path = LongFolder(place.Folder());
    MakeFile(path + L"\\file");
    return path + L"\\file";
}

std::wstring LongPathForTheShell(const ScratchPlace& place) {
    const std::wstring path = LongPath(place).substr(4);
    return halvard::ExistsForShell(path) ? L"found" : L"not found";
}

std::wstring Removal(const std::wstring& path) {
    DWORD code = ERROR_SUCCESS;
    halvard::RemoveAll(path, code);
    if (code != ERROR_SUCCESS) {
        return std::to_wstring(code);
    }
    return IsThere(Extended(path)) ? L"stays" : L"removed";
}

std::wstring LongPathInTree(const ScratchPlace& place) {
    MakeFolder(place.File(L"tree"));
    LongFolder(place.File(L"tree"));
    return Removal(place.File(L"tree"));
}

std::wstring Tree(const ScratchPlace& place) {
    MakeFolder(place.File(L"tree"));
    MakeFolder(place.File(L"tree\\folder"));
    MakeFile(place.File(L"tree\\folder\\file"));
    return place.File(L"tree");
}

std::wstring ReadOnlyFile(const ScratchPlace& place) {
    const std::wstring tree = Tree(place);
    SetFileAttributesW((tree + L"\\folder\\file").c_str(), FILE_ATTRIBUTE_READONLY);
    return Removal(tree);
}

OwnedHandle Open(const std::wstring& path, DWORD access, DWORD sharing) {
    OwnedHandle opened(CreateFileW(path.c_str(), access, sharing, nullptr, OPEN_EXISTING,
                                   FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT,
                                   nullptr));
    Require(static_cast<bool>(opened), L"opening " + path);
    return opened;
}

std::wstring OpenFile(const ScratchPlace& place) {
    const std::wstring tree = Tree(place);
    const OwnedHandle held =
        Open(tree + L"\\folder\\file", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE);
    return Removal(tree);
}

std::wstring OpenSharedFile(const ScratchPlace& place) {
    const std::wstring tree = Tree(place);
    const OwnedHandle held = Open(tree + L"\\folder\\file", GENERIC_READ,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    return Removal(tree);
}

std::wstring CurrentDirectoryInTree(const ScratchPlace& place) {
    const std::wstring tree = Tree(place);
    const std::wstring program = ChildAt(place.File(L"child.exe"));
    const WaitingChild child(program, place.File(L"sign"), tree + L"\\folder");
    return Removal(tree);
}

std::wstring LoadedLibrary(const ScratchPlace& place) {
    const std::wstring tree = Tree(place);
    const std::wstring library =
        ProgramPath().substr(0, ProgramPath().rfind(L'\\') + 1) + L"Halvard_CA.dll";
    const std::wstring copy = tree + L"\\folder\\library.dll";
    Require(CopyFileW(library.c_str(), copy.c_str(), TRUE) != FALSE, L"copying " + library);
    HMODULE const loaded = LoadLibraryW(copy.c_str());
    Require(loaded != nullptr, L"loading " + copy);
    std::wstring outcome = Removal(tree);
    FreeLibrary(loaded);
    return outcome;
}

std::wstring RunningProgram(const ScratchPlace& place) {
    const std::wstring tree = Tree(place);
    const std::wstring program = ChildAt(tree + L"\\folder\\child.exe");
    const WaitingChild child(program, place.File(L"sign"), place.Folder());
    return Removal(tree);
}

std::wstring DotsInTree(const ScratchPlace& place) {
    const std::wstring tree = Tree(place);
    MakeFile(Extended(tree) + L"\\name.");
    MakeFile(Extended(tree) + L"\\blank ");
    return Removal(tree);
}

std::wstring DotAtTheEnd(const ScratchPlace& place) {
    MakeFile(place.File(L"name"));
    return IsThere(place.File(L"name.")) ? L"the name without it" : L"nothing";
}

std::wstring ReservedName(const ScratchPlace& place) {
    const std::wstring tree = Tree(place);
    MakeFile(Extended(tree) + L"\\nul");
    return Removal(tree);
}

std::wstring HeldFolderIsRenamed(const ScratchPlace& place) {
    const std::wstring tree = Tree(place);
    halvard::HeldFolder folder;
    SetLastError(folder.OpenTop(halvard::SystemPath(tree), halvard::FolderUse::ListAndDelete));
    Require(folder.IsOpen(), L"holding " + tree);
    return MoveFileW(tree.c_str(), place.File(L"renamed").c_str()) != FALSE
               ? L"renamed"
               : std::to_wstring(GetLastError());
}

std::wstring FolderAboveIsRenamed(const ScratchPlace& place) {
    const std::wstring tree = Tree(place);
    halvard::HeldFolder folder;
    SetLastError(
        folder.OpenTop(halvard::SystemPath(tree + L"\\folder"), halvard::FolderUse::ListAndDelete));
    Require(folder.IsOpen(), L"holding " + tree);
    return MoveFileW(tree.c_str(), place.File(L"renamed").c_str()) != FALSE
               ? L"renamed"
               : std::to_wstring(GetLastError());
}

std::wstring PosixDeletion(const ScratchPlace& place) {
    MakeFile(place.File(L"file"));
    const OwnedHandle opened =
        Open(place.File(L"file"), DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    DWORD flags = 0x1 | 0x2; // to delete, with POSIX semantics
    constexpr auto kDispositionWithFlags = static_cast<FILE_INFO_BY_HANDLE_CLASS>(21);
    if (SetFileInformationByHandle(opened.get(), kDispositionWithFlags, &flags, sizeof(flags)) !=
        FALSE) {
        return L"known";
    }
    const DWORD code = GetLastError();
    return halvard::MeansUnknownClass(code) ? L"not known" : std::to_wstring(code);
}

enum class LinkKind { Junction, Symbolic };

struct MountPoint {
    DWORD tag;
    WORD dataLength;
    WORD reserved;
    WORD substituteOffset;
    WORD substituteLength;
    WORD printOffset;
    WORD printLength;
};

void MakeJunction(const std::wstring& link, const std::wstring& target) {
    MakeFolder(link);
    const std::wstring substitute = L"\\??\\" + target;
    const std::wstring names = substitute + L'\0' + target + L'\0';
    const std::size_t namesSize = names.size() * sizeof(wchar_t);
    std::vector<BYTE> buffer(sizeof(MountPoint) + namesSize);
    MountPoint head = {};
    head.tag = IO_REPARSE_TAG_MOUNT_POINT;
    head.dataLength = static_cast<WORD>(4 * sizeof(WORD) + namesSize);
    head.substituteLength = static_cast<WORD>(substitute.size() * sizeof(wchar_t));
    head.printOffset = static_cast<WORD>(head.substituteLength + sizeof(wchar_t));
    head.printLength = static_cast<WORD>(target.size() * sizeof(wchar_t));
    std::memcpy(buffer.data(), &head, sizeof(head));
    std::memcpy(buffer.data() + sizeof(head), names.data(), namesSize);
    const OwnedHandle opened =
        Open(link, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    DWORD returned = 0;
    Require(DeviceIoControl(opened.get(), FSCTL_SET_REPARSE_POINT, buffer.data(),
                            static_cast<DWORD>(buffer.size()), nullptr, 0, &returned,
                            nullptr) != FALSE,
            L"making a junction");
}

void MakeSymbolicLink(const std::wstring& link, const std::wstring& target) {
    constexpr DWORD kFolder = 0x1;
    constexpr DWORD kUnprivileged = 0x2;
    Require(CreateSymbolicLinkW(link.c_str(), target.c_str(), kFolder | kUnprivileged) != FALSE,
            L"making a symbolic link (it needs elevation or the developer mode)");
}

// A link at `path` to a folder that holds a file.
void MakeLink(const ScratchPlace& place, LinkKind kind, const std::wstring& path) {
    const std::wstring target = place.File(L"target");
    MakeFolder(target);
    MakeFile(target + L"\\kept");
    if (kind == LinkKind::Junction) {
        MakeJunction(path, target);
    } else {
        MakeSymbolicLink(path, target);
    }
    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0 ||
        !IsThere(path + L"\\kept")) {
        throw CannotBeAsked(L"the system said that it made a link, and there is none");
    }
}

std::wstring WithTarget(const ScratchPlace& place, const std::wstring& outcome) {
    return outcome +
           (IsThere(place.File(L"target\\kept")) ? L", target kept" : L", target emptied");
}

template <LinkKind Kind>
std::wstring LinkInTree(const ScratchPlace& place) {
    const std::wstring tree = Tree(place);
    MakeLink(place, Kind, tree + L"\\folder\\link");
    return WithTarget(place, Removal(tree));
}

template <LinkKind Kind>
std::wstring LinkAsTop(const ScratchPlace& place) {
    const std::wstring link = place.File(L"link");
    MakeLink(place, Kind, link);
    try {
        halvard::RemoveDirectoryTree(link);
    } catch (const std::system_error& error) {
        return WithTarget(place, std::to_wstring(error.code().value()));
    }
    return WithTarget(place, IsThere(link) ? L"stays" : L"removed");
}

template <LinkKind Kind>
std::wstring LinkTag(const ScratchPlace& place) {
    const std::wstring tree = place.File(L"tree");
    MakeFolder(tree);
    MakeLink(place, Kind, tree + L"\\link");
    halvard::HeldFolder folder;
    SetLastError(folder.OpenTop(halvard::SystemPath(tree), halvard::FolderUse::List));
    Require(folder.IsOpen(), L"holding " + tree);
    halvard::ListedEntry entry;
    Require(folder.BeginListing() == ERROR_SUCCESS && folder.Next(entry) == ERROR_SUCCESS,
            L"listing " + tree);
    switch (entry.reparseTag) {
    case IO_REPARSE_TAG_MOUNT_POINT:
        return L"a mount point";
    case IO_REPARSE_TAG_SYMLINK:
        return L"a symbolic link";
    default:
        return L"tag " + std::to_wstring(entry.reparseTag);
    }
}

} // namespace

std::vector<Fact> FileFacts() {
    return {
        {L"missing-file", MissingFile},
        {L"missing-folder", MissingFolder},
        {L"missing-drive", MissingDrive},
        {L"missing-server", MissingServer},
        {L"invalid-name", InvalidName},
        {L"quoted-folder", QuotedFolder},
        {L"below-a-file", BelowAFile},
        {L"empty-path", EmptyPath},
        {L"form-of-object-manager", FormOfObjectManager},
        {L"same-folder", SameFolder},
        {L"long-path-for-the-shell", LongPathForTheShell},
        {L"long-path-in-tree", LongPathInTree},
        {L"read-only-file", ReadOnlyFile},
        {L"open-file", OpenFile},
        {L"open-shared-file", OpenSharedFile},
        {L"current-directory", CurrentDirectoryInTree},
        {L"loaded-library", LoadedLibrary},
        {L"running-program", RunningProgram},
        {L"dots-in-tree", DotsInTree},
        {L"dot-at-the-end", DotAtTheEnd},
        {L"reserved-name", ReservedName},
        {L"held-folder", HeldFolderIsRenamed},
        {L"above-held-folder", FolderAboveIsRenamed},
        {L"posix-deletion", PosixDeletion},
        {L"junction-in-tree", LinkInTree<LinkKind::Junction>},
        {L"junction-as-top", LinkAsTop<LinkKind::Junction>},
        {L"junction-tag", LinkTag<LinkKind::Junction>},
        {L"symbolic-link-in-tree", LinkInTree<LinkKind::Symbolic>},
        {L"symbolic-link-as-top", LinkAsTop<LinkKind::Symbolic>},
        {L"symbolic-link-tag", LinkTag<LinkKind::Symbolic>},
    };
}

} // namespace halvard_runner
