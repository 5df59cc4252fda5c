#include "verify/child.h"

#include "library.h"

#include "runtime/owned.h"

#include <cwchar>

namespace halvard_runner {

namespace {

constexpr DWORD kWaitMilliseconds = 60000;
constexpr DWORD kStartLimitMilliseconds = 20000;
constexpr DWORD kEndLimitMilliseconds = 20000;
constexpr DWORD kPollMilliseconds = 20;

PROCESS_INFORMATION Start(std::wstring commandLine, const std::wstring& directory, DWORD flags) {
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION child = {};
    Require(CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE,
                           CREATE_NO_WINDOW | flags, nullptr, directory.c_str(), &startup,
                           &child) != FALSE,
            L"starting " + commandLine);
    return child;
}

} // namespace

int RunStandIn(const std::vector<std::wstring>& arguments) {
    const std::wstring& word = arguments[0];
    if (word == L"exit") {
        return static_cast<int>(std::wcstol(arguments[1].c_str(), nullptr, 10));
    }
    WriteText(arguments[1], GetCommandLineW());
    if (word == L"wait") {
        Sleep(kWaitMilliseconds);
    }
    return 0;
}

std::wstring ChildAt(const std::wstring& path) {
    Require(CopyFileW(ProgramPath().c_str(), path.c_str(), TRUE) != FALSE,
            L"copying this program to " + path);
    return path;
}

WaitingChild::WaitingChild(const std::wstring& program, const std::wstring& sign,
                           const std::wstring& directory) {
    const PROCESS_INFORMATION child =
        Start(L"\"" + program + L"\" " + kChildWord + L" wait \"" + sign + L"\"", directory, 0);
    CloseHandle(child.hThread);
    process_.reset(child.hProcess);
    for (DWORD waited = 0; waited < kStartLimitMilliseconds && !IsThere(sign) && !HasEnded();
         waited += kPollMilliseconds) {
        Sleep(kPollMilliseconds);
    }
    if (!IsThere(sign) || HasEnded()) {
        End();
        throw CannotBeAsked(L"the program that was to wait does not run: " + program);
    }
}

WaitingChild::~WaitingChild() {
    End();
}

void WaitingChild::End() {
    TerminateProcess(process_.get(), 0);
    WaitForSingleObject(process_.get(), kEndLimitMilliseconds);
}

bool WaitingChild::HasEnded() const {
    return WaitForSingleObject(process_.get(), 0) == WAIT_OBJECT_0;
}

std::optional<DWORD> RunToItsEnd(const std::wstring& commandLine, const std::wstring& directory,
                                 DWORD limitMilliseconds) {
    // A job takes along what the program has started.
    const halvard::OwnedHandle job(CreateJobObjectW(nullptr, nullptr));
    const PROCESS_INFORMATION child = Start(commandLine, directory, CREATE_SUSPENDED);
    const halvard::OwnedHandle process(child.hProcess);
    const halvard::OwnedHandle thread(child.hThread);
    AssignProcessToJobObject(job.get(), process.get());
    ResumeThread(thread.get());
    if (WaitForSingleObject(process.get(), limitMilliseconds) != WAIT_OBJECT_0) {
        TerminateJobObject(job.get(), 1);
        TerminateProcess(process.get(), 1);
        WaitForSingleObject(process.get(), kEndLimitMilliseconds);
        return std::nullopt;
    }
    DWORD exitCode = 0;
    GetExitCodeProcess(process.get(), &exitCode);
    return exitCode;
}

void WriteText(const std::wstring& path, const std::wstring& text) {
    const auto* const bytes = reinterpret_cast<const char*>(text.data());
    MakeFile(path, std::string(bytes, text.size() * sizeof(wchar_t)));
}

std::wstring ReadText(const std::wstring& path) {
    const halvard::OwnedHandle file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ,
                                                nullptr, OPEN_EXISTING, 0, nullptr));
    LARGE_INTEGER size = {};
    Require(file && GetFileSizeEx(file.get(), &size) != FALSE, L"opening " + path);
    std::wstring text(static_cast<std::size_t>(size.QuadPart) / sizeof(wchar_t), L'\0');
    DWORD read = 0;
    Require(ReadFile(file.get(), text.data(), static_cast<DWORD>(text.size() * sizeof(wchar_t)),
                     &read, nullptr) != FALSE,
            L"reading " + path);
    return text;
}

} // namespace halvard_runner
