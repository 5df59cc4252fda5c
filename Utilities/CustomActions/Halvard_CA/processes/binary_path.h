#pragma once

#include <string>

namespace halvard {

/// The folder part of a program's path: the text without its last component and without the run of
/// slashes of either kind before that. Looks at no file system and knows no quotes or arguments.
///
/// A root stays whole: "C:\" for "C:\svc.exe", since "C:" would be the current folder of that
/// drive. A path that is nothing but a root is its own folder, a lone name has an empty one.
std::wstring ParentFolder(const std::wstring& path);

} // namespace halvard
