#pragma once

#include <windows.h>

#include <string>

// Copies of task definitions, or of any other XML file, in which the text of one element is
// replaced.
//
// Both functions read `sourcePath` as UTF-16, refuse a document type definition, and write the
// document node by node, indented and as UTF-16, into `targetPath`, overwriting what stands there.
// An element is looked for by its qualified name, so one with a prefix is another, and only the
// first text of each element is replaced: the one behind a comment stays, an element without text
// gets none. All end tags come out in full, except where the source has an empty element.
//
// The result is that of the last step: S_FALSE, the end of the input, for a complete copy. Any
// failure ends the copy, writes at most one message without a line end to standard output, and
// leaves in the target what was copied so far. A malformed source gives no message. Both throw
// std::bad_alloc only.

namespace halvard {

/// Replaces the text of every "WorkingDirectory" element with `newText`.
HRESULT RewriteTaskWorkingDirectory(std::wstring sourcePath, std::wstring targetPath,
                                    std::wstring newText);

/// Replaces the text of every "StartBoundary" element with the start of the next day by the local
/// clock (NextMidnightText), read anew for each element. A text without a character ends the copy
/// with E_UNEXPECTED and no message.
HRESULT RewriteTaskStartBoundary(std::wstring sourcePath, std::wstring targetPath);

} // namespace halvard
