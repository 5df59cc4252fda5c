#include "stand_ins.h"

#include <shellapi.h>

#include <map>
#include <stdexcept>
#include <string>

namespace halvard_sweep {

namespace {

// Milliseconds.
constexpr DWORD kWaitHint = 1000;
constexpr DWORD kStart = 3600 * 1000;
constexpr DWORD kLook = 15;
constexpr char kOutput[] = "told on standard output\r\n";

std::vector<std::wstring> started;
DWORD serviceState = SERVICE_STOPPED;
DWORD checkpoint = 0;
DWORD passed = 0;

template <class Type>
Type As(Word word) {
    return reinterpret_cast<Type>(static_cast<std::uintptr_t>(word));
}

std::wstring OrEmpty(const wchar_t* text) {
    return text == nullptr ? L"" : text;
}

PROCESS_INFORMATION StartAndEnd() {
    wchar_t program[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    std::wstring line = L"\"" + std::wstring(program) + L"\"";
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION child = {};
    if (CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                       &child) == FALSE) {
        throw std::runtime_error("no program can be started: " + std::to_string(GetLastError()));
    }
    WaitForSingleObject(child.hProcess, INFINITE);
    return child;
}

// This program, which without arguments does nothing.
const PROCESS_INFORMATION& EndedChild() {
    static const PROCESS_INFORMATION child = StartAndEnd();
    return child;
}

HANDLE Copy(HANDLE handle) {
    HANDLE copy = nullptr;
    DuplicateHandle(GetCurrentProcess(), handle, GetCurrentProcess(), &copy, 0, FALSE,
                    DUPLICATE_SAME_ACCESS);
    return copy;
}

Word StartProcess(Arguments arguments) {
    const auto* const directory = As<const wchar_t*>(arguments[7]);
    if (directory != nullptr) {
        const DWORD attributes = GetFileAttributesW(directory);
        if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
            SetLastError(ERROR_DIRECTORY);
            return FALSE;
        }
    }
    started.push_back(OrEmpty(As<const wchar_t*>(arguments[1])));
    const auto* const startup = As<const STARTUPINFOW*>(arguments[8]);
    if ((startup->dwFlags & STARTF_USESTDHANDLES) != 0) {
        DWORD written = 0;
        WriteFile(startup->hStdOutput, kOutput, sizeof(kOutput) - 1, &written, nullptr);
    }
    const PROCESS_INFORMATION& ended = EndedChild();
    auto& child = *As<PROCESS_INFORMATION*>(arguments[9]);
    child = {Copy(ended.hProcess), Copy(ended.hThread), ended.dwProcessId, ended.dwThreadId};
    return TRUE;
}

Word ExecuteByShell(Arguments arguments) {
    auto& execution = *As<SHELLEXECUTEINFOW*>(arguments[0]);
    started.push_back(OrEmpty(execution.lpFile) + L" " + OrEmpty(execution.lpParameters));
    execution.hProcess = Copy(EndedChild().hProcess);
    execution.hInstApp = As<HINSTANCE>(42);
    return TRUE;
}

// Each question finds a pending change one step further.
void Advance() {
    if (checkpoint == 0) {
        return;
    }
    if (++checkpoint > 3) {
        serviceState = serviceState == SERVICE_START_PENDING ? SERVICE_RUNNING : SERVICE_STOPPED;
        checkpoint = 0;
    }
}

void Report(SERVICE_STATUS& status) {
    status = {};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = serviceState;
    status.dwCheckPoint = checkpoint;
    status.dwWaitHint = checkpoint == 0 ? 0 : kWaitHint;
}

Word QueryService(Arguments arguments) {
    Advance();
    Report(*As<SERVICE_STATUS*>(arguments[1]));
    return TRUE;
}

Word QueryServiceAtLength(Arguments arguments) {
    Advance();
    auto& status = *As<SERVICE_STATUS_PROCESS*>(arguments[2]);
    status = {};
    // The longer one begins with what the shorter one is.
    Report(reinterpret_cast<SERVICE_STATUS&>(status));
    return TRUE;
}

Word Control(Arguments arguments) {
    if (serviceState != SERVICE_RUNNING) {
        SetLastError(ERROR_SERVICE_NOT_ACTIVE);
        return FALSE;
    }
    serviceState = SERVICE_STOP_PENDING;
    checkpoint = 1;
    Report(*As<SERVICE_STATUS*>(arguments[2]));
    return TRUE;
}

Word Start(Arguments /*arguments*/) {
    if (serviceState != SERVICE_STOPPED) {
        SetLastError(ERROR_SERVICE_ALREADY_RUNNING);
        return FALSE;
    }
    serviceState = SERVICE_START_PENDING;
    checkpoint = 1;
    return TRUE;
}

Word PassTime(Arguments arguments) {
    passed += static_cast<DWORD>(arguments[0]);
    return 0;
}

// The same in every run: a look at the clock takes its time too.
Word TellTime(Arguments /*arguments*/) {
    passed += kLook;
    return kStart + passed;
}

using Function = Word (*)(Arguments);

const std::map<std::string, Function>& Functions() {
    static const std::map<std::string, Function> functions = {
        {"CreateProcessW", StartProcess},
        {"ShellExecuteExW", ExecuteByShell},
        {"QueryServiceStatus", QueryService},
        {"QueryServiceStatusEx", QueryServiceAtLength},
        {"ControlService", Control},
        {"StartServiceW", Start},
        {"Sleep", PassTime},
        {"GetTickCount", TellTime},
    };
    return functions;
}

} // namespace

bool HasStandIn(const std::string& function) {
    return Functions().count(function) != 0;
}

std::optional<Word> StandIn(const std::string& function, Arguments arguments) {
    const auto found = Functions().find(function);
    if (found == Functions().end()) {
        return std::nullopt;
    }
    return found->second(arguments);
}

void ResetStandIns(DWORD state) {
    static_cast<void>(EndedChild());
    started.clear();
    serviceState = state;
    checkpoint = 0;
    passed = 0;
}

std::vector<std::wstring> StartedPrograms() {
    return started;
}

} // namespace halvard_sweep
