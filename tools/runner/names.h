#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace halvard_runner {

/// The name of an installer result, or nullptr for a number that the installer does not know as the
/// result of an action. The names live as long as the program.
const wchar_t* ResultName(std::uint32_t result);

/// What the result of an action that is declared Return="check" does to an installation.
const wchar_t* ResultEffect(std::uint32_t result);

/// The kind of an installer message: "log" for a line of the verbose log, "user", "error" and so
/// on; "other" for a kind without a name. The buttons and icons in the low bits do not count.
const wchar_t* MessageKind(std::uint32_t type);

/// The name of a structured exception, or nullptr for a code without one.
const wchar_t* StructuredExceptionName(std::uint32_t code);

/// The compiler whose run-time raises C++ exceptions with this code, or nullptr.
const wchar_t* CompilerOfException(std::uint32_t code);

/// The names that were probably meant by one that is none of them: the same but for the case, or
/// else those with the fewest characters to change, at most three; empty when none comes near.
std::vector<std::wstring> NamesNear(const std::wstring& name,
                                    const std::vector<std::wstring>& names);

/// What to say behind an action that is none: "; did you mean A or B?", or where they are shown.
std::wstring MeantText(const std::wstring& name, const std::vector<std::wstring>& names);

} // namespace halvard_runner
