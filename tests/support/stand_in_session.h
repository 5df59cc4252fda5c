#pragma once

#include <windows.h>
#include <msi.h>

#include <set>
#include <string>
#include <vector>

namespace halvard_tests {

/// Lines for the log, and messages for the user, that reached the engine's handler.
struct SessionMessage {
    UINT type;
    std::wstring text;
};

bool operator==(const SessionMessage& left, const SessionMessage& right);

/// A real installer session in this process: a bare package opened by the engine, once for all
/// tests. The properties that a test sets are gone at its end.
class StandInSession {
public:
    StandInSession();
    ~StandInSession();
    StandInSession(const StandInSession&) = delete;
    StandInSession& operator=(const StandInSession&) = delete;

    MSIHANDLE Get() const { return session_; }
    void SetProperty(const std::wstring& name, const std::wstring& value) const;

    /// What the engine handed to its handler since the session was opened.
    const std::vector<SessionMessage>& Messages() const;

    /// The messages of type INSTALLMESSAGE_INFO alone.
    std::vector<std::wstring> LogLines() const;

private:
    MSIHANDLE session_;
    mutable std::set<std::wstring> properties_;
};

/// A path relative to the folder of the test program, as built.
std::wstring BesideTestProgram(const std::wstring& relative);

} // namespace halvard_tests
