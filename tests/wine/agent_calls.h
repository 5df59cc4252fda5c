#pragma once

#include "agent_machine.h"
#include "call_trace.h"

#include <aclapi.h>
#include <objbase.h>
#include <shellapi.h>
#include <shlobj.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace halvard_tests {

/// What the agent's actions meet in the tests: their folders lie on the throw-away drive, programs
/// are only started where a test says so, and no sleep lasts long. What the actions leave open is
/// closed at the end.
class AgentStandIns {
public:
    /// Starts TaskKill.exe and schtasks, or what stands in for them, instead of only noting them,
    /// where this text stands in the command.
    std::optional<std::wstring> started;
    /// Lets no service be deleted, though whoever deletes one is told that it is.
    bool keepServices = false;
    /// What the shell tells as Program Files instead of the folder of the machine.
    std::optional<std::wstring> programFiles;

    AgentStandIns(const AgentStandIns&) = delete;
    AgentStandIns& operator=(const AgentStandIns&) = delete;

protected:
    explicit AgentStandIns(const AgentFolders& folders) : folders_(folders) {}
    ~AgentStandIns() {
        for (const HANDLE folder : openFolders_) {
            CloseHandle(folder);
        }
        for (const HANDLE source : openSources_) {
            DeregisterEventSource(source);
        }
    }

private:
    bool IsStarted(const std::wstring& command) const {
        return started && command.find(*started) != std::wstring::npos;
    }

    AgentFolders folders_;
    std::map<const void*, int> shellFolders_;
    std::vector<HANDLE> openFolders_;
    std::vector<HANDLE> openSources_;

    HOOK(locating_, SHGetFolderLocation,
         [this](HWND window, int csidl, HANDLE token, DWORD flags, PIDLIST_ABSOLUTE* location) {
             const HRESULT result = locating_.Original(window, csidl, token, flags, location);
             shellFolders_[*location] = csidl;
             return result;
         });
    HOOK(converting_, SHGetPathFromIDListW, [this](PCIDLIST_ABSOLUTE location, LPWSTR path) {
        const int csidl = shellFolders_[location];
        if (csidl == CSIDL_PROGRAM_FILES) {
            lstrcpyW(path, programFiles ? programFiles->c_str() : folders_.Programs().c_str());
            return TRUE;
        }
        if (csidl == CSIDL_COMMON_APPDATA) {
            lstrcpyW(path, folders_.Data().c_str());
            return TRUE;
        }
        return converting_.Original(location, path);
    });
    HOOK(starting_, CreateProcessW,
         [this](LPCWSTR application, LPWSTR commandLine, LPSECURITY_ATTRIBUTES process,
                LPSECURITY_ATTRIBUTES thread, BOOL inherit, DWORD flags, LPVOID environment,
                LPCWSTR directory, LPSTARTUPINFOW startup, LPPROCESS_INFORMATION child) {
             if (IsStarted(commandLine)) {
                 return starting_.Original(application, commandLine, process, thread, inherit,
                                           flags, environment, directory, startup, child);
             }
             // Something to wait for and to close that has ended already.
             child->hProcess = CreateEventW(nullptr, TRUE, TRUE, nullptr);
             child->hThread = CreateEventW(nullptr, TRUE, TRUE, nullptr);
             return TRUE;
         });
    HOOK(executing_, ShellExecuteExW, [this](SHELLEXECUTEINFOW* execution) {
        return IsStarted(execution->lpParameters) ? executing_.Original(execution) : TRUE;
    });
    HOOK(deletingService_, DeleteService, [this](SC_HANDLE service) {
        return keepServices ? TRUE : deletingService_.Original(service);
    });
    HOOK(opening_, CreateFileW,
         [this](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                DWORD disposition, DWORD flags, HANDLE like) {
             const HANDLE opened =
                 opening_.Original(path, access, share, security, disposition, flags, like);
             if (opened != INVALID_HANDLE_VALUE && (access & WRITE_DAC) != 0) {
                 openFolders_.push_back(opened);
             }
             return opened;
         });
    HOOK(registering_, RegisterEventSourceW, [this](LPCWSTR server, LPCWSTR source) {
        const HANDLE opened = registering_.Original(server, source);
        if (opened != nullptr) {
            openSources_.push_back(opened);
        }
        return opened;
    });
    HOOK(sleeping_, Sleep, [this](DWORD milliseconds) {
        constexpr DWORD longest = 10;
        sleeping_.Original(milliseconds < longest ? milliseconds : longest);
    });
};

inline constexpr unsigned kAgentCalls =
    kFiles | kFolders | kProcesses | kServices | kSecurity | kCom;

/// Watches the calls of the agent's actions in front of these stand-ins.
class AgentCalls : public AgentStandIns, public CallTrace {
public:
    explicit AgentCalls(const AgentFolders& folders, std::size_t failing = 0,
                        DWORD code = ERROR_ACCESS_DENIED, unsigned groups = kAgentCalls)
        : AgentStandIns(folders), CallTrace(groups, failing, code) {}
};

} // namespace halvard_tests
