#pragma once

#include <windows.h>

#include <string>

namespace halvard_runner {

/// All that comes until the last writer has gone.
std::string ReadToEnd(HANDLE pipe);

/// ERROR_SUCCESS when all of it was written, or why not; a call that writes nothing and calls that
/// done is a failure too.
DWORD WriteAll(HANDLE file, const std::string& bytes);

/// The same for a console, which takes texts, and long ones in blocks.
DWORD WriteAllToConsole(HANDLE console, const std::wstring& text);

/// Whether a write failed with that code because nobody reads the pipe any more.
bool ReaderHasGone(HANDLE file, DWORD code);

} // namespace halvard_runner
