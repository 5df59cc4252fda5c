#pragma once

#include <string>

// Texts of paths, without a look at the file system.

namespace halvard {

/// Whether a character separates the parts of a path.
bool IsSlash(wchar_t character);

/// The path of a file in a folder; a folder that ends in a slash of either kind gets no other. An
/// empty folder gives a path from the root of the current drive.
std::wstring FileInFolder(const std::wstring& folder, const std::wstring& fileName);

/// The path of a program in a folder, always with a backslash between them: a folder that ends in
/// one gives two, which Windows takes for one (assumed) and which existing tasks show.
std::wstring ProgramInFolder(const std::wstring& folder, const std::wstring& fileName);

/// The folder part of a program's path: the text without its last component and without the run of
/// slashes of either kind before that. Looks at no file system and knows no quotes or arguments.
///
/// A root stays whole: "C:\" for "C:\svc.exe", since "C:" would be the current folder of that
/// drive. A path that is nothing but a root is its own folder, a lone name has an empty one.
std::wstring ParentFolder(const std::wstring& path);

/// Whether a path begins with "\\?\" or "\??\", behind which the system takes it as it stands. The
/// service manager stores the programs of drivers in the second form.
bool IsTakenAsItStands(const std::wstring& path);

/// The extended-length form ("\\?\C:\folder", "\\?\UNC\server\share") of a full path: no limit of
/// 260 characters, and names that end in dots or blanks stay what they are. Backslashes at the end
/// go, but for the one of a drive's root. A path in this form or in that of a device is returned
/// unchanged.
std::wstring ExtendedLengthPath(const std::wstring& fullPath);

/// The text with U+FFFD for each UTF-16 surrogate that stands alone. File names may hold them, but
/// no such text converts to UTF-8.
std::wstring WithoutLoneSurrogates(std::wstring text);

/// The part of `path` up to and including its first backslash, or all of it when it has none.
std::wstring ThroughFirstBackslash(const std::wstring& path);

} // namespace halvard
