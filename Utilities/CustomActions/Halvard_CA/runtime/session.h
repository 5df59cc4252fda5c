#pragma once

#include <windows.h>
#include <msi.h>

#include <string>

namespace halvard {

/// The longest log line, in wide characters with its terminator: twice the classic path limit.
inline constexpr int kLogMessageLimit = 520;

/// What helpers log to that nothing ever gives a session: their lines are lost. Packages have never
/// seen them, and must not start to.
inline constexpr MSIHANDLE kNoSession = 0;

/// The session that helpers log to which are handed none: the last handle that an action of this
/// process stored, 0 when none did. Not every action stores its session, and helpers would then log
/// to whatever an earlier action left here; those whose helpers ask for it store it first.
MSIHANDLE CurrentSession() noexcept;
void SetCurrentSession(MSIHANDLE session) noexcept;

/// Sends `text` as field 0 of a record with `fieldCount` further fields to the session. Failures
/// are ignored: a message that cannot be shown must not fail an installation.
void SendMessageRecord(MSIHANDLE session, INSTALLMESSAGE type, UINT fieldCount,
                       const wchar_t* text) noexcept;

/// Writes one line into the installer's verbose log (INSTALLMESSAGE_INFO), formatted by wvsprintfW:
/// "%s" and "%ls" take a wide string, "%d" an int. Nothing is added to the text, and square
/// brackets in it are left to the engine, which takes them for property references.
///
/// A text that does not fit kLogMessageLimit goes out as "CA buffer overflow\n", never cut. Throws
/// nothing and reports nothing.
void LogMessage(MSIHANDLE session, const wchar_t* format, ...) noexcept;

/// The whole "CustomActionData" property of a deferred action, logged once as
/// "CustomActionData: %s". A property that is missing or cannot be read gives an empty text.
/// Throws std::bad_alloc only.
std::wstring ReadCustomActionData(MSIHANDLE session);

} // namespace halvard
