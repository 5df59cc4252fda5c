#include "runtime/launch.h"

#include "runtime/file_paths.h"
#include "runtime/launch_text.h"
#include "runtime/owned.h"
#include "runtime/session.h"

#include <shellapi.h>
#include <shlobj.h>

#include <system_error>
#include <vector>

namespace halvard {

namespace {

// True when the pipe can still be read; takes what is waiting in it.
bool DrainPipe(HANDLE pipe) {
    DWORD waiting = 0;
    if (PeekNamedPipe(pipe, nullptr, 0, nullptr, &waiting, nullptr) == FALSE) {
        return false;
    }
    if (waiting > 0) {
        std::vector<char> output(waiting);
        DWORD read = 0;
        ReadFile(pipe, output.data(), waiting, &read, nullptr);
    }
    return true;
}

[[noreturn]] void ThrowLastError(const char* message) {
    // Before the exception asks for memory, which may change it.
    const auto code = static_cast<int>(GetLastError());
    throw std::system_error(code, std::system_category(), message);
}

} // namespace

DWORD RunCmdCommand(const std::wstring& command, const wchar_t* directory) {
    std::wstring commandLine = CmdCommandLine(command);

    SECURITY_ATTRIBUTES inheritable = {};
    inheritable.nLength = sizeof(inheritable);
    inheritable.bInheritHandle = TRUE;
    constexpr DWORD pipeSize = 4096;

    HANDLE outputReadEnd = nullptr;
    HANDLE outputWriteEnd = nullptr;
    CreatePipe(&outputReadEnd, &outputWriteEnd, &inheritable, pipeSize);
    const OwnedHandle outputRead(outputReadEnd);
    // Kept to the end: without a writer the pipe could not be asked any more once the child is
    // gone, and its exit code would not be read.
    const OwnedHandle outputWrite(outputWriteEnd);

    // Never connected to the child, which inherits its read end all the same, and never closed: the
    // process that hosts the action is gone soon after it.
    HANDLE spareReadEnd = nullptr;
    HANDLE spareWriteEnd = nullptr;
    CreatePipe(&spareReadEnd, &spareWriteEnd, &inheritable, pipeSize);

    SetHandleInformation(outputRead.get(), HANDLE_FLAG_INHERIT, 0);
    SetHandleInformation(spareWriteEnd, HANDLE_FLAG_INHERIT, 0);

    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = outputWrite.get();
    startup.hStdError = outputWrite.get();

    PROCESS_INFORMATION child = {};
    const BOOL started = CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE,
                                        CREATE_NO_WINDOW, nullptr, directory, &startup, &child);
    const DWORD code = GetLastError();
    // An action may start thousands, and each would inherit the spare ends of all before it.
    SetHandleInformation(spareReadEnd, HANDLE_FLAG_INHERIT, 0);
    if (started == FALSE) {
        return code;
    }
    const OwnedHandle process(child.hProcess);
    const OwnedHandle thread(child.hThread);

    // What comes back when already the first question fails.
    DWORD exitCode = STILL_ACTIVE;
    do {
        // A process that cannot be asked would hold the loop for ever.
        if (GetExitCodeProcess(process.get(), &exitCode) == FALSE) {
            break;
        }
    } while (DrainPipe(outputRead.get()) && exitCode == STILL_ACTIVE);
    return exitCode;
}

bool RunCommandLine(wchar_t* commandLine, const std::wstring& directory, bool wait) {
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION child = {};
    // An empty working directory would be refused, and means none here.
    if (CreateProcessW(nullptr, commandLine, nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr,
                       directory.empty() ? nullptr : directory.c_str(), &startup,
                       &child) == FALSE) {
        const DWORD code = GetLastError();
        // Nobody reads it but who stops here in a debugger: no caller logs a refused start.
        const std::wstring report = FailedLaunchText(commandLine, code);
        return false;
    }
    if (wait) {
        WaitForSingleObject(child.hProcess, INFINITE);
    }
    CloseHandle(child.hProcess);
    CloseHandle(child.hThread);
    return true;
}

DWORD ShellExecuteAndWait(const std::wstring& file, const std::wstring& parameters,
                          DWORD timeoutMilliseconds) {
    SHELLEXECUTEINFOW execution = {};
    execution.cbSize = sizeof(execution);
    execution.fMask =
        SEE_MASK_NOCLOSEPROCESS | SEE_MASK_NOASYNC | SEE_MASK_FLAG_NO_UI | SEE_MASK_NOZONECHECKS;
    execution.lpVerb = L"open";
    execution.lpFile = file.c_str();
    execution.lpParameters = parameters.c_str();
    execution.nShow = SW_HIDE;
    if (ShellExecuteExW(&execution) == FALSE) {
        ThrowLastError("Unable to create process");
    }
    const OwnedHandle process(execution.hProcess);

    WaitForSingleObject(process.get(), timeoutMilliseconds);
    DWORD exitCode = 0;
    if (GetExitCodeProcess(process.get(), &exitCode) == FALSE) {
        ThrowLastError("Unable to process exit code");
    }
    return exitCode;
}

bool LaunchSchtasks(const wchar_t* parameters) {
    const wchar_t* const program = L"schtasks";
    SHELLEXECUTEINFOW execution = {};
    execution.cbSize = sizeof(execution);
    execution.fMask = SEE_MASK_NOCLOSEPROCESS;
    execution.lpVerb = L"open";
    execution.lpFile = program;
    execution.lpParameters = parameters;
    execution.nShow = SW_SHOWNORMAL;
    if (ShellExecuteExW(&execution) == FALSE) {
        LogMessage(kNoSession, L"Quenby_CA failed to launch the following: %s",
                   ShellExecuteErrorText(reinterpret_cast<INT_PTR>(execution.hInstApp)));
        return false;
    }
    // The process handle stays open.
    LogMessage(kNoSession, L"Quenby_CA launched the following successfully: %s", program);
    return true;
}

bool GetShellFolderPath(int csidl, std::wstring& path) {
    PIDLIST_ABSOLUTE location = nullptr;
    const HRESULT result = SHGetFolderLocation(nullptr, csidl, nullptr, 0, &location);
    if (location != nullptr) {
        wchar_t folder[MAX_PATH] = {};
        const BOOL converted = SHGetPathFromIDListW(location, folder);
        IMalloc* allocator = nullptr;
        if (SUCCEEDED(SHGetMalloc(&allocator))) {
            allocator->Free(location);
            allocator->Release();
        }
        if (converted != FALSE) {
            path = folder;
        }
    }
    return result == S_OK;
}

std::wstring ShellFolderOrEmpty(int csidl) {
    std::wstring path;
    GetShellFolderPath(csidl, path);
    return path;
}

std::wstring GetSystemDriveRoot() {
    wchar_t directory[MAX_PATH] = {};
    if (GetWindowsDirectoryW(directory, MAX_PATH) == 0) {
        return {};
    }
    return ThroughFirstBackslash(directory);
}

} // namespace halvard
