#include "runtime/session.h"

#include <msiquery.h>

#include <cstdarg>
#include <cwchar>

namespace halvard {

namespace {

// wvsprintfW writes up to 1024 characters whatever the size of the buffer.
constexpr int kFormatterLimit = 1024;

MSIHANDLE currentSession = 0;

} // namespace

MSIHANDLE CurrentSession() noexcept {
    return currentSession;
}

void SetCurrentSession(MSIHANDLE session) noexcept {
    currentSession = session;
}

void SendMessageRecord(MSIHANDLE session, INSTALLMESSAGE type, UINT fieldCount,
                       const wchar_t* text) noexcept {
    const MSIHANDLE record = MsiCreateRecord(fieldCount);
    MsiRecordSetStringW(record, 0, text);
    MsiProcessMessage(session, type, record);
    if (record != 0) {
        MsiCloseHandle(record);
    }
}

void LogMessage(MSIHANDLE session, const wchar_t* format, ...) noexcept {
    wchar_t buffer[kFormatterLimit + 1] = {};
    va_list arguments; // NOLINT(cppcoreguidelines-init-variables): va_start initialises it
    va_start(arguments, format);
    const int length = wvsprintfW(buffer, format, arguments);
    va_end(arguments);

    const bool fits = length >= 0 && length < kLogMessageLimit;
    SendMessageRecord(session, INSTALLMESSAGE_INFO, 0, fits ? buffer : L"CA buffer overflow\n");
}

std::wstring ReadCustomActionData(MSIHANDLE session) {
    wchar_t none[1] = {};
    DWORD length = 0;
    MsiGetPropertyW(session, L"CustomActionData", none, &length);

    // A string keeps a terminator of its own behind these characters, whatever the engine writes.
    DWORD capacity = length + 1;
    std::wstring data(capacity, L'\0');
    MsiGetPropertyW(session, L"CustomActionData", data.data(), &capacity);

    LogMessage(session, L"CustomActionData: %s", data.c_str());
    data.resize(std::wcslen(data.c_str()));
    return data;
}

} // namespace halvard
