// What becomes of access lists when the library opens a folder to all users.

#include "verify/place.h"

#include "agent/folder_access.h"
#include "runtime/owned.h"

#include <aclapi.h>
#include <sddl.h>

namespace halvard_runner {

namespace {

// The rights that the list of a file or folder gives to the group of users.
DWORD RightsOfUsers(const std::wstring& path) {
    PSID users = nullptr;
    Require(ConvertStringSidToSidW(L"S-1-5-32-545", &users) != FALSE, L"the group of users");
    PACL list = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    const DWORD code =
        GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr,
                              nullptr, &list, nullptr, &descriptor);
    DWORD rights = 0;
    for (DWORD index = 0; code == ERROR_SUCCESS && list != nullptr && index < list->AceCount;
         ++index) {
        void* found = nullptr;
        if (GetAce(list, index, &found) == FALSE) {
            continue;
        }
        const auto* const entry = static_cast<const ACCESS_ALLOWED_ACE*>(found);
        const bool allows = entry->Header.AceType == ACCESS_ALLOWED_ACE_TYPE &&
                            (entry->Header.AceFlags & INHERIT_ONLY_ACE) == 0;
        // The identity begins at this member and goes on behind it.
        if (allows && EqualSid(const_cast<DWORD*>(&entry->SidStart), users) != FALSE) {
            rights |= entry->Mask;
        }
    }
    LocalFree(descriptor);
    LocalFree(users);
    RequireSuccess(static_cast<LSTATUS>(code), L"reading the access list");
    return rights;
}

std::wstring AccessOfUsers(const std::wstring& path) {
    const DWORD rights = RightsOfUsers(path);
    const bool isFull =
        (rights & FILE_ALL_ACCESS) == FILE_ALL_ACCESS || (rights & GENERIC_ALL) != 0;
    return isFull ? L"full access" : L"not full access";
}

std::wstring FolderItself(const ScratchPlace& place) {
    halvard::GrantUsersFullAccess(place.Folder());
    return AccessOfUsers(place.Folder());
}

std::wstring FileThatWasThere(const ScratchPlace& place) {
    MakeFile(place.File(L"file"));
    halvard::GrantUsersFullAccess(place.Folder());
    return AccessOfUsers(place.File(L"file"));
}

std::wstring FileThatComesLater(const ScratchPlace& place) {
    halvard::GrantUsersFullAccess(place.Folder());
    MakeFile(place.File(L"file"));
    return AccessOfUsers(place.File(L"file"));
}

} // namespace

std::vector<Fact> SecurityFacts() {
    return {
        {L"access-to-folder", FolderItself},
        {L"access-to-old-file", FileThatWasThere},
        {L"access-to-new-file", FileThatComesLater},
    };
}

} // namespace halvard_runner
