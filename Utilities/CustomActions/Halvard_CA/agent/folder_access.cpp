#include "agent/folder_access.h"

#include <windows.h>
#include <aclapi.h>

namespace halvard {

namespace {

// Null when there is no memory for it.
PSID UsersGroup() noexcept {
    SID_IDENTIFIER_AUTHORITY authority = SECURITY_NT_AUTHORITY;
    PSID group = nullptr;
    AllocateAndInitializeSid(&authority, 2, SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_USERS, 0,
                             0, 0, 0, 0, 0, &group);
    return group;
}

// Null when it cannot be made.
PACL WithFullAccess(PACL list, PSID group) noexcept {
    EXPLICIT_ACCESSW entry = {};
    entry.grfAccessPermissions = GENERIC_ALL;
    entry.grfAccessMode = GRANT_ACCESS;
    entry.grfInheritance = CONTAINER_INHERIT_ACE | OBJECT_INHERIT_ACE;
    entry.Trustee.TrusteeForm = TRUSTEE_IS_SID;
    entry.Trustee.TrusteeType = TRUSTEE_IS_GROUP;
    entry.Trustee.ptstrName = static_cast<wchar_t*>(group);
    PACL extended = nullptr;
    const DWORD code = SetEntriesInAclW(1, &entry, list, &extended);
    return code == ERROR_SUCCESS ? extended : nullptr;
}

} // namespace

void GrantUsersFullAccess(const std::wstring& folder) noexcept {
    // Never closed, and neither group nor new list are freed.
    void* const opened = CreateFileW(folder.c_str(), READ_CONTROL | WRITE_DAC, 0, nullptr,
                                     OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (opened == INVALID_HANDLE_VALUE) {
        return;
    }
    PACL list = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (GetSecurityInfo(opened, SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &list,
                        nullptr, &descriptor) != ERROR_SUCCESS) {
        return;
    }
    PSID const users = UsersGroup();
    ACL* const extended = users == nullptr ? nullptr : WithFullAccess(list, users);
    if (extended != nullptr) {
        SetSecurityInfo(opened, SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                        extended, nullptr);
    }
    // It holds the former list.
    LocalFree(descriptor);
}

} // namespace halvard
