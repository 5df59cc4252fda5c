#pragma once

#include <string>

namespace halvard {

/// For the agent's data folder: lets the built-in Users group do everything in a folder and in all
/// that will be below it, by one entry more in the folder's access list; the other entries stay.
///
/// A folder that cannot be opened to read and write its list stays as it is, and so does one whose
/// list cannot be read: the entry must never take the place of a list. A folder that is open to
/// everyone because it has no list gets one with this entry only. The entry is inheritable, and
/// Windows passes it on to what is in the folder already (documented: "SetSecurityInfo function").
/// Reports nothing and throws
/// nothing.
///
/// The handle of the folder, the group's identifier and the new list stay in the process.
void GrantUsersFullAccess(const std::wstring& folder) noexcept;

} // namespace halvard
