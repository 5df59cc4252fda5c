#pragma once

#include "agent_machine.h"
#include "import_hook.h"
#include "removal_calls.h"

#include <aclapi.h>
#include <objbase.h>
#include <shellapi.h>
#include <shlobj.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace halvard_tests {

/// Watches the calls of the agent's actions in their order, those to the registry apart, for which
/// there is RegistryCalls, and lets them through but for the one that is to fail. The agent's
/// folders lie on the throw-away drive, programs are only started where a test says so, and no
/// sleep lasts long. What the actions leave open is closed at the end.
class AgentCalls {
public:
    /// With `failing` not 0 the call of this number, counted from 1, is not made and gives `code`.
    explicit AgentCalls(const AgentFolders& folders, std::size_t failing = 0,
                        DWORD code = ERROR_ACCESS_DENIED)
        : folders_(folders), failing_(failing), code_(code) {}
    ~AgentCalls() {
        for (const HANDLE folder : openFolders_) {
            CloseHandle(folder);
        }
        for (const HANDLE source : openSources_) {
            DeregisterEventSource(source);
        }
    }
    AgentCalls(const AgentCalls&) = delete;
    AgentCalls& operator=(const AgentCalls&) = delete;

    /// Starts TaskKill.exe and schtasks, or what stands in for them, instead of only noting them,
    /// where this text stands in the command.
    std::optional<std::wstring> started;
    /// Lets no service be deleted, though whoever deletes one is told that it is.
    bool keepServices = false;
    /// What the shell tells as Program Files instead of the folder of the machine.
    std::optional<std::wstring> programFiles;

    /// Is called before each call, with its line. The calls that it makes itself are neither lines
    /// nor counted.
    std::function<void(const std::wstring& line)> before;

    /// Makes the call number `nth`, counted from 1, of those whose lines begin with `start` fail.
    void Fail(const std::wstring& start, DWORD code, std::size_t nth = 1) {
        failStart_ = start;
        failNth_ = nth;
        code_ = code;
    }

    const std::vector<std::wstring>& All() const { return lines_; }
    std::size_t Count() const { return lines_.size(); }

    /// The lines that begin with one of these texts.
    std::vector<std::wstring> Of(const std::vector<std::wstring>& starts) const {
        std::vector<std::wstring> found;
        for (const std::wstring& line : lines_) {
            for (const std::wstring& start : starts) {
                if (line.compare(0, start.size(), start) == 0) {
                    found.push_back(line);
                    break;
                }
            }
        }
        return found;
    }

    /// The folders that were opened for their access lists.
    const std::vector<HANDLE>& OpenFolders() const { return openFolders_; }

private:
    static std::wstring Hexadecimal(DWORD number) {
        wchar_t text[16] = {};
        wsprintfW(text, L" 0x%x", number);
        return text;
    }

    bool IsStarted(const std::wstring& line) const {
        return started && line.find(*started) != std::wstring::npos;
    }

    std::wstring Name(SC_HANDLE service) { return services_[service]; }

    SC_HANDLE Remember(SC_HANDLE service, const wchar_t* name) {
        const DWORD code = GetLastError();
        services_[service] = name;
        SetLastError(code);
        return service;
    }

    // Whether the call is to be made; the last error is set when it is not.
    bool Goes(const std::wstring& line) {
        if (own_) {
            return true;
        }
        lines_.push_back(line);
        const bool fails =
            lines_.size() == failing_ ||
            (!failStart_.empty() && line.compare(0, failStart_.size(), failStart_) == 0 &&
             ++failSeen_ == failNth_);
        if (before) {
            own_ = true;
            before(line);
            own_ = false;
        }
        SetLastError(fails ? code_ : DWORD{NO_ERROR});
        return !fails;
    }

    template <class Call, class Result>
    Result Pass(const std::wstring& line, Result failure, Call call) {
        return Goes(line) ? call() : failure;
    }

    template <class Call>
    DWORD PassCode(const std::wstring& line, Call call) {
        return Goes(line) ? call() : code_;
    }

    AgentFolders folders_;
    std::size_t failing_;
    DWORD code_;
    std::wstring failStart_;
    std::size_t failNth_ = 0;
    std::size_t failSeen_ = 0;
    bool own_ = false;
    std::vector<std::wstring> lines_;
    std::map<SC_HANDLE, std::wstring> services_;
    std::map<const void*, int> shellFolders_;
    std::vector<HANDLE> openFolders_;
    std::vector<HANDLE> openSources_;

    HOOK(locating_, SHGetFolderLocation,
         [this](HWND window, int csidl, HANDLE token, DWORD flags, PIDLIST_ABSOLUTE* location) {
             return Pass(L"folder " + std::to_wstring(csidl), E_FAIL, [&] {
                 const HRESULT result = locating_.Original(window, csidl, token, flags, location);
                 shellFolders_[*location] = csidl;
                 return result;
             });
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
             const std::wstring line = std::wstring(L"run ") + commandLine +
                                       (directory == nullptr ? L"" : L" in a directory");
             return Pass(line, FALSE, [&]() -> BOOL {
                 if (IsStarted(line)) {
                     return starting_.Original(application, commandLine, process, thread, inherit,
                                               flags, environment, directory, startup, child);
                 }
                 // Something to wait for and to close that has ended already.
                 child->hProcess = CreateEventW(nullptr, TRUE, TRUE, nullptr);
                 child->hThread = CreateEventW(nullptr, TRUE, TRUE, nullptr);
                 return TRUE;
             });
         });
    HOOK(executing_, ShellExecuteExW, [this](SHELLEXECUTEINFOW* execution) {
        const std::wstring line =
            std::wstring(L"execute ") + execution->lpFile + L"|" + execution->lpParameters;
        return Pass(line, FALSE, [&]() -> BOOL {
            return IsStarted(line) ? executing_.Original(execution) : TRUE;
        });
    });
    HOOK(openManager_, OpenSCManagerW, [this](LPCWSTR machine, LPCWSTR database, DWORD access) {
        return Pass(L"open manager" + Hexadecimal(access), SC_HANDLE{},
                    [&] { return openManager_.Original(machine, database, access); });
    });
    HOOK(openService_, OpenServiceW, [this](SC_HANDLE manager, LPCWSTR name, DWORD access) {
        return Pass(std::wstring(L"open ") + name + Hexadecimal(access), SC_HANDLE{},
                    [&] { return Remember(openService_.Original(manager, name, access), name); });
    });
    HOOK(createService_, CreateServiceW,
         [this](SC_HANDLE manager, LPCWSTR name, LPCWSTR display, DWORD access, DWORD type,
                DWORD start, DWORD control, LPCWSTR path, LPCWSTR group, LPDWORD tag,
                LPCWSTR dependencies, LPCWSTR account, LPCWSTR password) {
             return Pass(std::wstring(L"create ") + name, SC_HANDLE{}, [&] {
                 return Remember(createService_.Original(manager, name, display, access, type,
                                                         start, control, path, group, tag,
                                                         dependencies, account, password),
                                 name);
             });
         });
    HOOK(queryService_, QueryServiceStatusEx,
         [this](SC_HANDLE service, SC_STATUS_TYPE level, LPBYTE buffer, DWORD size,
                LPDWORD needed) {
             return Pass(L"query " + Name(service), FALSE, [&] {
                 return queryService_.Original(service, level, buffer, size, needed);
             });
         });
    HOOK(controlService_, ControlService,
         [this](SC_HANDLE service, DWORD control, LPSERVICE_STATUS status) {
             return Pass(L"control " + Name(service) + L" " + std::to_wstring(control), FALSE,
                         [&] { return controlService_.Original(service, control, status); });
         });
    HOOK(startService_, StartServiceW, [this](SC_HANDLE service, DWORD count, LPCWSTR* arguments) {
        return Pass(L"start " + Name(service), FALSE,
                    [&] { return startService_.Original(service, count, arguments); });
    });
    HOOK(changeService_, ChangeServiceConfig2W,
         [this](SC_HANDLE service, DWORD level, LPVOID config) {
             return Pass(L"change " + Name(service), FALSE,
                         [&] { return changeService_.Original(service, level, config); });
         });
    HOOK(deleteService_, DeleteService, [this](SC_HANDLE service) {
        return Pass(L"delete " + Name(service), FALSE,
                    [&] { return keepServices ? TRUE : deleteService_.Original(service); });
    });
    HOOK(looking_, GetFileAttributesW, [this](LPCWSTR path) {
        return Pass(std::wstring(L"look ") + path, INVALID_FILE_ATTRIBUTES,
                    [&] { return looking_.Original(path); });
    });
    HOOK(opening_, CreateFileW,
         [this](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                DWORD disposition, DWORD flags, HANDLE like) {
             const std::wstring line = L"open file" + Hexadecimal(access) + L" " + path;
             return Pass(line, INVALID_HANDLE_VALUE, [&] {
                 const HANDLE opened =
                     opening_.Original(path, access, share, security, disposition, flags, like);
                 if (opened != INVALID_HANDLE_VALUE && (access & WRITE_DAC) != 0) {
                     openFolders_.push_back(opened);
                 }
                 return opened;
             });
         });
    HOOK(removing_, RemoveDirectoryW, [this](LPCWSTR path) {
        return Pass(std::wstring(L"remove ") + path, FALSE,
                    [&] { return removing_.Original(path); });
    });
    HOOK(deleting_, DeleteFileW, [this](LPCWSTR path) {
        return Pass(std::wstring(L"delete file ") + path, FALSE,
                    [&] { return deleting_.Original(path); });
    });
    HOOK(openingEntry_, NtOpenFile,
         [this](PHANDLE opened, ACCESS_MASK access, POBJECT_ATTRIBUTES object,
                PIO_STATUS_BLOCK result, ULONG sharing, ULONG options) {
             const std::wstring line =
                 L"open entry " + std::wstring(object->ObjectName->Buffer,
                                               object->ObjectName->Length / sizeof(wchar_t));
             return Pass(line, kStatusAccessDenied, [&] {
                 return openingEntry_.Original(opened, access, object, result, sharing, options);
             });
         });
    HOOK(registering_, RegisterEventSourceW, [this](LPCWSTR server, LPCWSTR source) {
        const std::wstring line =
            std::wstring(L"event source ") + (server == nullptr ? L"null " : server) + source;
        const HANDLE opened =
            Pass(line, HANDLE{}, [&] { return registering_.Original(server, source); });
        if (opened != nullptr) {
            openSources_.push_back(opened);
        }
        return opened;
    });
    HOOK(making_, CoCreateGuid, [this](GUID* identity) {
        return Pass(L"make identity", E_FAIL, [&] { return making_.Original(identity); });
    });
    HOOK(spelling_, StringFromCLSID, [this](REFCLSID identity, LPOLESTR* text) {
        return Pass(L"spell identity", E_OUTOFMEMORY,
                    [&] { return spelling_.Original(identity, text); });
    });
    HOOK(gettingList_, GetSecurityInfo,
         [this](HANDLE object, SE_OBJECT_TYPE type, SECURITY_INFORMATION what, PSID* owner,
                PSID* group, PACL* dacl, PACL* sacl, PSECURITY_DESCRIPTOR* descriptor) {
             return PassCode(L"get list", [&] {
                 return gettingList_.Original(object, type, what, owner, group, dacl, sacl,
                                              descriptor);
             });
         });
    HOOK(settingList_, SetSecurityInfo,
         [this](HANDLE object, SE_OBJECT_TYPE type, SECURITY_INFORMATION what, PSID owner,
                PSID group, PACL dacl, PACL sacl) {
             return PassCode(L"set list", [&] {
                 return settingList_.Original(object, type, what, owner, group, dacl, sacl);
             });
         });
    HOOK(connecting_, CoCreateInstance,
         [this](REFCLSID classId, LPUNKNOWN outer, DWORD context, REFIID interfaceId,
                LPVOID* object) {
             return Pass(L"register task", E_FAIL, [&] {
                 return connecting_.Original(classId, outer, context, interfaceId, object);
             });
         });
    HOOK(sleeping_, Sleep, [this](DWORD milliseconds) {
        constexpr DWORD longest = 10;
        sleeping_.Original(milliseconds < longest ? milliseconds : longest);
    });
};

} // namespace halvard_tests
