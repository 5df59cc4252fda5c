#pragma once

#include "runtime/owned.h"

#include "import_hook.h"
#include "lines.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace halvard_tests {

/// A call of CreateProcessW that is about to be made. Its application and its directory may be
/// changed.
struct ProcessStart {
    LPCWSTR application;
    LPWSTR commandLine;
    BOOL inherit;
    DWORD flags;
    LPCWSTR directory;
};

/// Watches the calls of CreateProcessW, in their order.
class ProcessStarts {
public:
    /// `before` sees each call, counted already. The call is made when it returns true, and refused
    /// with ERROR_ACCESS_DENIED otherwise.
    explicit ProcessStarts(std::function<bool(ProcessStart&)> before =
                               [](ProcessStart&) { return true; })
        : before_(std::move(before)) {}

    int Calls() const { return creating_.Calls(); }
    const Lines& CommandLines() const { return commandLines_; }

    /// The calls as a CallTrace tells of them, with the code of a refusal behind: "run COMMAND in
    /// DIRECTORY refused with 5".
    const Lines& All() const { return all_; }

    /// The error codes, NO_ERROR for a process that was started.
    const std::vector<DWORD>& Codes() const { return codes_; }

    /// The handle that the last start gave, which is the caller's; null when it failed.
    HANDLE Process() const { return process_; }

    /// The process of the last start that was not refused, by a handle that this object closes;
    /// null without one.
    HANDLE LastStarted() const { return started_.empty() ? nullptr : started_.back().get(); }

    /// Ends what was started and still runs.
    void EndAll() const {
        for (const halvard::OwnedHandle& process : started_) {
            TerminateProcess(process.get(), 0);
        }
        WaitUntilAllHaveEnded();
    }

    /// How many handles of processes it holds itself, for tests that count open handles.
    int HandlesHeld() const { return static_cast<int>(started_.size()); }

    void WaitUntilAllHaveEnded() const {
        for (const halvard::OwnedHandle& process : started_) {
            WaitForSingleObject(process.get(), INFINITE);
        }
    }

    /// What came of each call, for a message: the code of a refusal, and the exit code of a process
    /// that was started.
    std::wstring Told() const {
        std::wstring told;
        auto process = started_.begin();
        for (std::size_t call = 0; call < codes_.size(); ++call) {
            told += commandLines_[call] + L": ";
            if (codes_[call] != NO_ERROR) {
                told += L"refused with " + std::to_wstring(codes_[call]) + L"\n";
                continue;
            }
            DWORD exitCode = 0;
            GetExitCodeProcess((process++)->get(), &exitCode);
            told += exitCode == STILL_ACTIVE ? L"still runs\n"
                                             : L"ended with " + std::to_wstring(exitCode) + L"\n";
        }
        return told;
    }

private:
    std::function<bool(ProcessStart&)> before_;
    Lines commandLines_;
    Lines all_;
    std::vector<DWORD> codes_;
    // Of its own: the caller closes the handles that it got.
    std::vector<halvard::OwnedHandle> started_;
    HANDLE process_ = nullptr;

    HOOK(creating_, CreateProcessW,
         [this](LPCWSTR application, LPWSTR commandLine, LPSECURITY_ATTRIBUTES process,
                LPSECURITY_ATTRIBUTES thread, BOOL inherit, DWORD flags, LPVOID environment,
                LPCWSTR directory, LPSTARTUPINFOW startup, LPPROCESS_INFORMATION created) {
             ProcessStart start{application, commandLine, inherit, flags, directory};
             commandLines_.emplace_back(commandLine);
             const std::wstring in = directory == nullptr ? L"" : L" in " + std::wstring(directory);
             all_.push_back(L"run " + commandLines_.back() + in);
             process_ = nullptr;
             BOOL done = FALSE;
             DWORD code = ERROR_ACCESS_DENIED;
             if (before_(start)) {
                 done = creating_.Original(start.application, commandLine, process, thread, inherit,
                                           flags, environment, start.directory, startup, created);
                 code = done != FALSE ? NO_ERROR : GetLastError();
             }
             if (done != FALSE) {
                 process_ = created->hProcess;
                 HANDLE kept = nullptr;
                 DuplicateHandle(GetCurrentProcess(), process_, GetCurrentProcess(), &kept, 0,
                                 FALSE, DUPLICATE_SAME_ACCESS);
                 started_.emplace_back(kept);
             }
             codes_.push_back(code);
             if (code != NO_ERROR) {
                 all_.back() += L" refused with " + std::to_wstring(code);
             }
             SetLastError(code);
             return done;
         });
};

} // namespace halvard_tests
