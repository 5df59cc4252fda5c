#pragma once

namespace halvard {

/// Takes the agent's files out of the renames that Windows carries out at the next restart
/// (documented: "MoveFileExW function"), so that it does not delete what has just been installed:
/// HKLM "SYSTEM\CurrentControlSet\Control\Session Manager", REG_MULTI_SZ
/// "PendingFileRenameOperations". Nothing happens when there is no such value to read. Otherwise it
/// is written anew, even when it names no file of the agent: RenamesToKeep also drops the empty
/// strings, and the end of every such value counts as one.
///
/// The key is opened for reading only, so Windows refuses the write (documented: "RegSetValueExW
/// function", KEY_SET_VALUE). Only that keeps a value that vanishes while it is read from being
/// written as an empty list.
///
/// Throws RegKeyError when the key cannot be opened the second time ("Unable to open registry key")
/// or the value not be written ("Unable to write REG_MULTI_SZ value = ..."), and what
/// ReadMultiString throws besides RegKeyError, such as std::bad_alloc.
void CleanPendingRenames();

} // namespace halvard
