#pragma once

#include <windows.h>

#include <string>

namespace halvard_runner {

/// A text of the C++ run-time: UTF-8, or the ANSI code page where it is no UTF-8.
std::wstring Widened(const char* text);

std::string Utf8(const std::wstring& text);

/// Writes to STD_OUTPUT_HANDLE or STD_ERROR_HANDLE: as it is to a console, in UTF-8 to a file or a
/// pipe.
void Write(DWORD stream, const std::wstring& text);

/// Writes ASCII text that is at hand, and does without memory of its own. Nobody is told of a
/// failure.
void WriteAsItIs(DWORD stream, const char* text) noexcept;

/// Whether something could not be written, and why: empty when all of it was. A reader that has
/// gone wants no more, which is no failure.
std::wstring WriteFailure();

/// The text that the system has for a code; empty without one.
std::wstring MeaningOf(DWORD code);

/// "Win32 error 126 (The specified module could not be found)".
std::wstring ErrorText(DWORD code);

} // namespace halvard_runner
