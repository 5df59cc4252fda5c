#pragma once

#include "verify/place.h"

#include "runtime/owned.h"

#include <optional>
#include <string>
#include <vector>

// This program once more, as a program that stands in for others.

namespace halvard_runner {

inline constexpr const wchar_t* kChildWord = L"--verify-child";

/// What the child does: "record FILE" writes its command line into the file, "wait FILE" makes the
/// file and waits to be ended, for a minute at most, "exit NUMBER" ends with that exit code.
int RunStandIn(const std::vector<std::wstring>& arguments);

/// A copy of this program in a folder.
std::wstring ChildAt(const std::wstring& path);

/// A child that runs and has the folder of the place as its current directory, ended with the
/// scope.
class WaitingChild {
public:
    /// Throws CannotBeAsked where it has not begun to wait in time, or has ended.
    WaitingChild(const std::wstring& program, const std::wstring& sign,
                 const std::wstring& directory);
    ~WaitingChild();
    WaitingChild(const WaitingChild&) = delete;
    WaitingChild& operator=(const WaitingChild&) = delete;

    [[nodiscard]] bool HasEnded() const;

private:
    void End();

    halvard::OwnedHandle process_;
};

/// Starts a command line without a window in a folder and waits for its end. Nothing after that
/// time, when it is ended with all that it has started. Throws CannotBeAsked.
std::optional<DWORD> RunToItsEnd(const std::wstring& commandLine, const std::wstring& directory,
                                 DWORD limitMilliseconds);

/// A text file of this program's own.
void WriteText(const std::wstring& path, const std::wstring& text);
std::wstring ReadText(const std::wstring& path);

} // namespace halvard_runner
