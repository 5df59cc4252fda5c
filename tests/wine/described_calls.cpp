#include "call_trace.h"

#include <windows.h>
#include <winternl.h>

#include <aclapi.h>
#include <msi.h>
#include <msiquery.h>
#include <objbase.h>
#include <oleauto.h>
#include <setupapi.h>
#include <shellapi.h>
#include <shlobj.h>
#include <shlwapi.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <type_traits>

// Every function of Windows that a trace can show, each once: its group, what it gives back when it
// fails, its line, and for one that opens something what that is for.

namespace halvard_tests {

using namespace std::string_literals;

namespace {

std::wstring Text(const wchar_t* text) {
    return text == nullptr ? std::wstring(L"null") : std::wstring(text);
}

std::wstring Hex(DWORD number) {
    wchar_t text[16] = {};
    wsprintfW(text, L" 0x%x", number);
    return text;
}

std::wstring Number(std::uint64_t number) {
    return L" " + std::to_wstring(number);
}

std::wstring AccessAndOptions(REGSAM access, DWORD options) {
    return Hex(access) + (options != 0 ? L" options" + Hex(options) : std::wstring());
}

std::wstring Below(const CallTrace& trace, HKEY key, LPCWSTR subkey) {
    return trace.Name(key) + L"\\" + Text(subkey);
}

std::wstring EntryBelow(const CallTrace& trace, const OBJECT_ATTRIBUTES* entry) {
    return trace.Name(entry->RootDirectory) + L"\\" +
           std::wstring(entry->ObjectName->Buffer, entry->ObjectName->Length / sizeof(wchar_t));
}

std::wstring Plain(const std::wstring& path) {
    return path.rfind(L"\\\\?\\", 0) == 0 ? path.substr(4) : path;
}

// How a function tells that it failed. What is not here is a value that it returns then, with the
// code as the last error.

struct TheCode { // the code itself
    template <class Result>
    static Result Of(DWORD code) {
        return static_cast<Result>(code);
    }
    template <class Result>
    static bool Tells(Result result) {
        return result != Result{};
    }
};

struct AnHresult {
    template <class Result>
    static Result Of(DWORD code) {
        return code == NO_ERROR ? E_FAIL : HRESULT_FROM_WIN32(code);
    }
    template <class Result>
    static bool Tells(Result result) {
        return FAILED(result);
    }
};

struct AStatus {
    template <class Result>
    static Result Of(DWORD code) {
        const std::map<DWORD, DWORD> statuses = {{ERROR_SHARING_VIOLATION, 0xC0000043U},
                                                 {ERROR_FILE_NOT_FOUND, 0xC0000034U},
                                                 {ERROR_PATH_NOT_FOUND, 0xC000003AU},
                                                 {ERROR_INVALID_NAME, 0xC0000033U},
                                                 {ERROR_BAD_NETPATH, 0xC00000BEU}};
        const auto found = statuses.find(code);
        const DWORD accessDenied = 0xC0000022U;
        return static_cast<NTSTATUS>(found != statuses.end() ? found->second : accessDenied);
    }
    template <class Result>
    static bool Tells(Result result) {
        return result < 0;
    }
};

struct Zero {
    template <class Result>
    static Result Of(DWORD /*code*/) {
        return Result{};
    }
    template <class Result>
    static bool Tells(Result result) {
        return result == Result{};
    }
};

struct MinusOne { // the invalid handle, too
    template <class Result>
    static Result Of(DWORD /*code*/) {
        if constexpr (std::is_pointer_v<Result>) {
            return INVALID_HANDLE_VALUE;
        } else {
            return static_cast<Result>(-1);
        }
    }
    template <class Result>
    static bool Tells(Result result) {
        return result == Of<Result>(NO_ERROR);
    }
};

struct Nothing {};

template <auto* Function>
struct Hooked;

template <class Result, class... Arguments, Result(WINAPI* Function)(Arguments...)>
struct Hooked<Function> {
    // A function that may fail. `line` writes its line; `opened` sees a call that succeeded.
    template <class Failure, class Line, class AfterSuccess>
    static DescribedCall MayFail(unsigned group, const char* name, Failure /*failure*/, Line line,
                                 AfterSuccess opened) {
        return Make(group, name, [line, opened](const auto& hook, CallTrace& trace, auto... all) {
            if (!trace.Comes(line(trace, all...))) {
                SetLastError(trace.FailureCode());
                return Failure::template Of<Result>(trace.FailureCode());
            }
            SetLastError(NO_ERROR);
            const Result result = hook.Original(all...);
            if constexpr (!std::is_same_v<AfterSuccess, Nothing>) {
                const DWORD code = GetLastError();
                if (!Failure::Tells(result)) {
                    opened(trace, result, all...);
                }
                SetLastError(code);
            }
            return result;
        });
    }

    // A function that has nothing to fail with.
    template <class Line>
    static DescribedCall Passes(unsigned group, const char* name, Line line) {
        return Make(group, name, [line](const auto& hook, CallTrace& trace, auto... all) {
            trace.Passes(line(all...));
            return hook.Original(all...);
        });
    }

    // A function that gives something back: that of its first argument.
    static DescribedCall GivesBack(unsigned group, const char* name, Resource kind,
                                   const wchar_t* what) {
        return Make(group, name, [kind, what](const auto& hook, CallTrace& trace, auto first) {
            // MSIHANDLE is a number.
            const void* handle = nullptr;
            if constexpr (std::is_pointer_v<decltype(first)>) {
                handle = first;
            } else {
                handle = reinterpret_cast<const void*>(std::uintptr_t{first});
            }
            const bool isNamed =
                std::is_same_v<decltype(first), HKEY> || std::is_same_v<decltype(first), SC_HANDLE>;
            trace.Closes(what + (isNamed ? trace.Name(kind, handle) : std::wstring()), kind,
                         handle);
            return hook.Original(first);
        });
    }

private:
    template <class Handler>
    static DescribedCall Make(unsigned group, const char* name, Handler handler) {
        return {group, [name, handler](CallTrace& trace) -> std::shared_ptr<void> {
                    struct Hook {
                        Hook(const char* function, CallTrace& shownIn, Handler handled)
                            : hook(function, [this, &shownIn, handled](Arguments... all) {
                                  return HookDepth() > 1 ? hook.Original(all...)
                                                         : handled(hook, shownIn, all...);
                              }) {}
                        ImportHook<Function> hook;
                    };
                    return std::make_shared<Hook>(name, trace, handler);
                }};
    }
};

} // namespace

#define CALL(group, function, failure, line)                                                       \
    Hooked<&function>::MayFail(group, #function, failure{}, line, Nothing{})
#define OPENING_CALL(group, function, failure, line, opened)                                       \
    Hooked<&function>::MayFail(group, #function, failure{}, line, opened)
#define PASSING_CALL(group, function, line) Hooked<&function>::Passes(group, #function, line)
#define CLOSING_CALL(group, function, kind, what)                                                  \
    Hooked<&function>::GivesBack(group, #function, Resource::kind, what)

// The arguments that do not matter stand behind those that do.
using Trace = CallTrace;

const std::vector<DescribedCall>& DescribedCalls() {
    static const std::vector<DescribedCall> calls = {
        // Registry
        OPENING_CALL(
            kRegistry, RegOpenKeyExW, TheCode,
            [](Trace& trace, HKEY root, LPCWSTR subkey, DWORD options, REGSAM access,
               PHKEY opened) {
                *opened = reinterpret_cast<HKEY>(kNoHandle);
                return L"open " + Below(trace, root, subkey) + AccessAndOptions(access, options);
            },
            [](Trace& trace, LSTATUS, HKEY root, LPCWSTR subkey, DWORD, REGSAM, PHKEY opened) {
                trace.Opened(Resource::kernel, *opened, Below(trace, root, subkey));
            }),
        OPENING_CALL(
            kRegistry, RegCreateKeyExW, TheCode,
            [](Trace& trace, HKEY root, LPCWSTR subkey, DWORD, LPWSTR keyClass, DWORD options,
               REGSAM access, LPSECURITY_ATTRIBUTES security, PHKEY created, LPDWORD disposition) {
                *created = reinterpret_cast<HKEY>(kNoHandle);
                return L"create " + Below(trace, root, subkey) + AccessAndOptions(access, options) +
                       (keyClass == nullptr ? L"" : L" with a class") +
                       (security == nullptr ? L"" : L" with security") +
                       (disposition == nullptr ? L"" : L" and disposition");
            },
            [](Trace& trace, LSTATUS, HKEY root, LPCWSTR subkey, DWORD, LPWSTR, DWORD, REGSAM,
               LPSECURITY_ATTRIBUTES, PHKEY created,
               LPDWORD) { trace.Opened(Resource::kernel, *created, Below(trace, root, subkey)); }),
        CALL(kRegistry, RegGetValueW, TheCode,
             ([](Trace& trace, HKEY key, LPCWSTR subkey, LPCWSTR name, DWORD flags, LPDWORD,
                 PVOID data, LPDWORD) {
                 const bool below = subkey != nullptr && *subkey != L'\0';
                 return (data == nullptr ? L"size of " : L"get ") +
                        (below ? Below(trace, key, subkey) : trace.Name(key)) + L" " + Text(name) +
                        Hex(flags);
             })),
        CALL(kRegistry, RegQueryValueExW, TheCode,
             ([](Trace& trace, HKEY key, LPCWSTR name, LPDWORD, LPDWORD, LPBYTE, LPDWORD size) {
                 return L"query " + trace.Name(key) + L" " + Text(name) + Number(*size) + L" bytes";
             })),
        CALL(kRegistry, RegSetValueExW, TheCode,
             ([](Trace& trace, HKEY key, LPCWSTR name, DWORD, DWORD type, const BYTE*, DWORD size) {
                 return L"set " + trace.Name(key) + L" " + Text(name) + Number(type) +
                        Number(size) + L" bytes";
             })),
        CALL(kRegistry, RegDeleteKeyValueW, TheCode,
             ([](Trace& trace, HKEY key, LPCWSTR subkey, LPCWSTR name) {
                 return L"delete value " + Below(trace, key, subkey) + L" " + Text(name);
             })),
        CALL(kRegistry, RegDeleteValueW, TheCode, ([](Trace& trace, HKEY key, LPCWSTR name) {
                 return L"delete value " + trace.Name(key) + L" " + Text(name);
             })),
        CALL(kRegistry, RegDeleteKeyW, TheCode, ([](Trace& trace, HKEY key, LPCWSTR subkey) {
                 return L"delete key " + Below(trace, key, subkey);
             })),
        CALL(kRegistry, RegDeleteKeyExW, TheCode,
             ([](Trace& trace, HKEY key, LPCWSTR subkey, REGSAM view, DWORD) {
                 return L"delete key " + Below(trace, key, subkey) + Hex(view);
             })),
        CALL(kRegistry, RegDeleteTreeW, TheCode, ([](Trace& trace, HKEY key, LPCWSTR subkey) {
                 return L"delete tree " + Below(trace, key, subkey);
             })),
        CLOSING_CALL(kRegistry, RegCloseKey, kernel, L"close "),
        CALL(kRegistryListing, RegQueryInfoKeyW, TheCode,
             [](Trace& trace, HKEY key, auto...) { return L"count " + trace.Name(key); }),
        CALL(kRegistryListing, RegEnumKeyExW, TheCode,
             ([](Trace& trace, HKEY key, DWORD index, LPWSTR, LPDWORD length, auto...) {
                 return L"subkey" + Number(index) + L" of " + trace.Name(key) + Number(*length);
             })),
        CALL(kRegistryListing, RegEnumValueW, TheCode,
             ([](Trace& trace, HKEY key, DWORD index, LPWSTR, LPDWORD length, LPDWORD, LPDWORD,
                 LPBYTE, LPDWORD size) {
                 return L"value" + Number(index) + L" of " + trace.Name(key) + Number(*length) +
                        (size == nullptr ? std::wstring() : Number(*size) + L" bytes");
             })),

        // Files
        OPENING_CALL(kFiles, CreateFileW, MinusOne,
                     ([](Trace&, LPCWSTR path, DWORD access, auto...) {
                         return L"open file" + Hex(access) + L" " + Text(path);
                     }),
                     ([](Trace& trace, HANDLE file, LPCWSTR path, auto...) {
                         trace.Opened(Resource::kernel, file, Plain(path));
                     })),
        OPENING_CALL(
            kFiles, NtOpenFile, AStatus,
            ([](Trace& trace, PHANDLE, ACCESS_MASK access, POBJECT_ATTRIBUTES object,
                PIO_STATUS_BLOCK, ULONG sharing, ULONG options) {
                return L"open entry " + EntryBelow(trace, object) + Hex(access) + L" shared" +
                       Hex(sharing) + L" options" + Hex(options) +
                       (object->Attributes != 0 ? L" attributes" : L"");
            }),
            ([](Trace& trace, NTSTATUS, PHANDLE opened, ACCESS_MASK, POBJECT_ATTRIBUTES object,
                auto...) { trace.Opened(Resource::kernel, *opened, EntryBelow(trace, object)); })),
        CALL(kFiles, SetFileInformationByHandle, Zero,
             ([](Trace& trace, HANDLE file, FILE_INFO_BY_HANDLE_CLASS type, auto...) {
                 return L"change entry " + trace.Name(file) + Number(type);
             })),
        CALL(kFiles, RemoveDirectoryW, Zero,
             [](Trace&, LPCWSTR path) { return L"remove " + Text(path); }),
        CALL(kFiles, DeleteFileW, Zero,
             [](Trace&, LPCWSTR path) { return L"delete file " + Text(path); }),
        CALL(kFiles, _wremove, MinusOne,
             [](Trace&, const wchar_t* path) { return L"unlink " + Text(path); }),
        CALL(kFiles, MoveFileExW, Zero, ([](Trace&, LPCWSTR from, LPCWSTR to, DWORD flags) {
                 return L"move " + Text(from) + L" to " + Text(to) + Hex(flags);
             })),
        CALL(kFiles, SetFileAttributesW, Zero, ([](Trace&, LPCWSTR path, DWORD attributes) {
                 return L"set attributes " + Text(path) + Hex(attributes);
             })),
        CALL(kFiles, GetFileAttributesW, MinusOne,
             [](Trace&, LPCWSTR path) { return L"attributes of " + Text(path); }),
        CALL(kFileQuestions, GetFileInformationByHandle, Zero,
             [](Trace& trace, HANDLE file, auto...) { return L"about " + trace.Name(file); }),
        CALL(kFileQuestions, GetFileInformationByHandleEx, Zero,
             ([](Trace& trace, HANDLE file, FILE_INFO_BY_HANDLE_CLASS type, auto...) {
                 return L"about " + trace.Name(file) + Number(type);
             })),
        CALL(kFileQuestions, PathFileExistsW, Zero,
             [](Trace&, LPCWSTR path) { return L"is there " + Text(path); }),
        CALL(kFileQuestions, PathIsDirectoryW, Zero,
             [](Trace&, LPCWSTR path) { return L"is folder " + Text(path); }),
        CALL(kFileQuestions, PathIsDirectoryEmptyW, Zero,
             [](Trace&, LPCWSTR path) { return L"is empty " + Text(path); }),
        CALL(kFileQuestions, GetFullPathNameW, Zero,
             [](Trace&, LPCWSTR path, auto...) { return L"full path of " + Text(path); }),
        OPENING_CALL(
            kFileQuestions, FindFirstFileW, MinusOne,
            [](Trace&, LPCWSTR pattern, auto...) { return L"list " + Text(pattern); },
            ([](Trace& trace, HANDLE search, LPCWSTR pattern, auto...) {
                trace.Opened(Resource::memory, search, pattern);
            })),
        CALL(kFileQuestions, FindNextFileW, Zero, ([](Trace& trace, HANDLE search, auto...) {
                 return L"next of " + trace.Name(Resource::memory, search);
             })),
        CALL(kFileContents, ReadFile, Zero,
             ([](Trace& trace, HANDLE file, LPVOID, DWORD size, auto...) {
                 return L"read " + trace.Name(file) + Number(size);
             })),
        CALL(kFileContents, WriteFile, Zero,
             ([](Trace& trace, HANDLE file, LPCVOID, DWORD size, auto...) {
                 return L"write " + trace.Name(file) + Number(size);
             })),
        CALL(kFileContents, SetFilePointerEx, Zero,
             [](Trace& trace, HANDLE file, auto...) { return L"seek in " + trace.Name(file); }),
        CALL(
            kFileContents, GetFileSizeEx, Zero,
            [](Trace& trace, HANDLE file, auto...) { return L"size of file " + trace.Name(file); }),

        // Folders of the system
        CALL(kFolders, SHGetFolderLocation, AnHresult,
             [](Trace&, HWND, int csidl, auto...) { return L"folder " + std::to_wstring(csidl); }),
        CALL(kFileQuestions, SHGetPathFromIDListW, Zero,
             [](Trace&, auto...) { return std::wstring(L"path of a folder"); }),
        CALL(kFolders, GetTempPathW, Zero,
             [](Trace&, DWORD size, auto...) { return L"temporary folder" + Number(size); }),
        CALL(kFolders, GetWindowsDirectoryW, Zero,
             [](Trace&, LPWSTR, UINT size) { return L"folder of Windows" + Number(size); }),
        CALL(kFolders, SHCreateDirectoryExW, TheCode,
             ([](Trace&, HWND window, LPCWSTR path, const SECURITY_ATTRIBUTES* security) {
                 return L"make folder " + Text(path) +
                        (window == nullptr ? L"" : L" for a window") +
                        (security == nullptr ? L"" : L" with security");
             })),

        // Processes
        OPENING_CALL(kProcesses, CreateProcessW, Zero,
                     ([](Trace&, LPCWSTR, LPWSTR line, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES,
                         BOOL, DWORD, LPVOID, LPCWSTR directory, auto...) {
                         return L"run " + Text(line) +
                                (directory == nullptr ? std::wstring() : L" in " + Text(directory));
                     }),
                     ([](Trace& trace, BOOL, LPCWSTR, LPWSTR line, LPSECURITY_ATTRIBUTES,
                         LPSECURITY_ATTRIBUTES, BOOL, DWORD, LPVOID, LPCWSTR, LPSTARTUPINFOW,
                         LPPROCESS_INFORMATION child) {
                         trace.Opened(Resource::kernel, child->hProcess, line);
                         trace.Opened(Resource::kernel, child->hThread, L"thread of "s + line);
                     })),
        OPENING_CALL(kProcesses, ShellExecuteExW, Zero, ([](Trace&, SHELLEXECUTEINFOW* execution) {
                         return L"execute " + Text(execution->lpFile) + L"|" +
                                Text(execution->lpParameters);
                     }),
                     ([](Trace& trace, BOOL, SHELLEXECUTEINFOW* execution) {
                         if (execution->hProcess != nullptr) {
                             trace.Opened(Resource::kernel, execution->hProcess, execution->lpFile);
                         }
                     })),
        OPENING_CALL(
            kChildren, CreatePipe, Zero,
            ([](Trace& trace, PHANDLE, PHANDLE, LPSECURITY_ATTRIBUTES attributes, DWORD size) {
                const bool inherits = attributes != nullptr &&
                                      attributes->nLength == sizeof(*attributes) &&
                                      attributes->bInheritHandle != FALSE;
                const bool secured =
                    attributes != nullptr && attributes->lpSecurityDescriptor != nullptr;
                return L"pipe" + Number(trace.Of({L"pipe "}).size() + 1) + L" of" + Number(size) +
                       L" bytes" + (inherits ? L" to inherit" : L"") +
                       (secured ? L" with security" : L"");
            }),
            ([](Trace& trace, BOOL, PHANDLE readEnd, PHANDLE writeEnd, auto...) {
                const std::wstring pipe = L"of pipe" + Number(trace.Of({L"pipe "}).size());
                trace.Opened(Resource::kernel, *readEnd, L"reader " + pipe);
                trace.Opened(Resource::kernel, *writeEnd, L"writer " + pipe);
            })),
        CALL(kChildren, SetHandleInformation, Zero,
             ([](Trace& trace, HANDLE handle, DWORD mask, DWORD flags) {
                 return L"inherit " + trace.Name(handle) + Hex(mask) + Hex(flags);
             })),
        CALL(kChildren, PeekNamedPipe, Zero,
             ([](Trace& trace, HANDLE pipe, LPVOID buffer, DWORD size, LPDWORD read, LPDWORD,
                 LPDWORD left) {
                 return L"peek " + trace.Name(pipe) +
                        (buffer == nullptr && size == 0 && read == nullptr && left == nullptr
                             ? L""
                             : L" and more");
             })),
        CALL(kChildren, GetExitCodeProcess, Zero, ([](Trace& trace, HANDLE process, auto...) {
                 return L"exit code of " + trace.Name(process);
             })),
        CALL(kChildren, WaitForSingleObject, MinusOne,
             ([](Trace& trace, HANDLE object, DWORD limit) {
                 return L"wait for " + trace.Name(object) + Number(limit);
             })),

        // Services
        OPENING_CALL(kServices, OpenSCManagerW, Zero,
                     ([](Trace&, LPCWSTR machine, LPCWSTR database, DWORD access) {
                         return L"open manager" + Hex(access) +
                                (machine == nullptr ? std::wstring() : L" of " + Text(machine)) +
                                (database == nullptr ? std::wstring() : L" in " + Text(database));
                     }),
                     [](Trace& trace, SC_HANDLE manager, auto...) {
                         trace.Opened(Resource::service, manager, L"manager");
                     }),
        OPENING_CALL(kServices, OpenServiceW, Zero,
                     ([](Trace&, SC_HANDLE, LPCWSTR name, DWORD access) {
                         return L"open service " + Text(name) + Hex(access);
                     }),
                     ([](Trace& trace, SC_HANDLE service, SC_HANDLE, LPCWSTR name, auto...) {
                         trace.Opened(Resource::service, service, name);
                     })),
        OPENING_CALL(kServices, CreateServiceW, Zero,
                     ([](Trace&, SC_HANDLE, LPCWSTR name, LPCWSTR displayName, DWORD access,
                         DWORD type, DWORD start, DWORD errorControl, LPCWSTR path, LPCWSTR group,
                         LPDWORD tag, LPCWSTR dependencies, LPCWSTR account, LPCWSTR password) {
                         return L"create service " + Text(name) + L", " + Text(displayName) + L"," +
                                Hex(access) + Hex(type) + Number(start) + Number(errorControl) +
                                L", " + Text(path) +
                                (group == nullptr ? std::wstring() : L" in " + Text(group)) +
                                (tag == nullptr ? L"" : L" with tag") +
                                (dependencies == nullptr ? L"" : L" with dependencies") +
                                (account == nullptr ? std::wstring() : L" as " + Text(account)) +
                                (password == nullptr ? L"" : L" with password");
                     }),
                     ([](Trace& trace, SC_HANDLE service, SC_HANDLE, LPCWSTR name, auto...) {
                         trace.Opened(Resource::service, service, name);
                     })),
        CALL(kServices, QueryServiceStatusEx, Zero, ([](Trace& trace, SC_HANDLE service, auto...) {
                 return L"query service " + trace.Name(service);
             })),
        CALL(kServices, QueryServiceStatus, Zero, ([](Trace& trace, SC_HANDLE service, auto...) {
                 return L"state of service " + trace.Name(service);
             })),
        CALL(kServices, QueryServiceConfigW, Zero,
             ([](Trace& trace, SC_HANDLE service, LPQUERY_SERVICE_CONFIGW, DWORD size, LPDWORD) {
                 return L"configuration of service " + trace.Name(service) + Number(size);
             })),
        CALL(kServices, ControlService, Zero,
             ([](Trace& trace, SC_HANDLE service, DWORD control, auto...) {
                 return L"control service " + trace.Name(service) + Number(control);
             })),
        CALL(kServices, StartServiceW, Zero,
             ([](Trace& trace, SC_HANDLE service, DWORD count, LPCWSTR* arguments) {
                 return L"start service " + trace.Name(service) +
                        (count == 0 && arguments == nullptr ? L"" : L" with arguments");
             })),
        CALL(kServices, ChangeServiceConfig2W, Zero,
             ([](Trace& trace, SC_HANDLE service, DWORD level, LPVOID info) {
                 return L"change service " + trace.Name(service) + Number(level) +
                        (level == SERVICE_CONFIG_DELAYED_AUTO_START_INFO
                             ? Number(static_cast<DWORD>(
                                   static_cast<const SERVICE_DELAYED_AUTO_START_INFO*>(info)
                                       ->fDelayedAutostart))
                             : std::wstring());
             })),
        CALL(kServices, DeleteService, Zero, ([](Trace& trace, SC_HANDLE service) {
                 return L"delete service " + trace.Name(service);
             })),
        CLOSING_CALL(kServiceClosing, CloseServiceHandle, service, L"close service "),
        CLOSING_CALL(kServiceClosing, DeregisterEventSource, service, L"close event source"),
        OPENING_CALL(kServices, RegisterEventSourceW, Zero,
                     ([](Trace&, LPCWSTR server, LPCWSTR source) {
                         return L"event source " + Text(server) + L" " + Text(source);
                     }),
                     ([](Trace& trace, HANDLE source, auto...) {
                         trace.Opened(Resource::service, source, L"event source");
                     })),

        // Installer
        OPENING_CALL(
            kInstaller, MsiCreateRecord, Zero,
            [](Trace&, UINT fields) { return L"create record" + Number(fields); },
            [](Trace& trace, MSIHANDLE record, UINT) {
                trace.Opened(Resource::record,
                             reinterpret_cast<const void*>(std::uintptr_t{record}), L"record");
            }),
        CALL(kInstaller, MsiRecordSetStringW, TheCode,
             ([](Trace&, MSIHANDLE, UINT field, LPCWSTR text) {
                 return L"set field" + Number(field) + L" " + Text(text);
             })),
        CALL(kInstaller, MsiProcessMessage, MinusOne,
             ([](Trace&, MSIHANDLE session, INSTALLMESSAGE type, MSIHANDLE) {
                 return L"send" + Hex(static_cast<DWORD>(type)) + L" to" + Number(session);
             })),
        CLOSING_CALL(kInstaller, MsiCloseHandle, record, L"close record"),
        CALL(kProperties, MsiGetPropertyW, TheCode,
             ([](Trace&, MSIHANDLE session, LPCWSTR name, LPWSTR, LPDWORD length) {
                 return L"property " + Text(name) + Number(*length) + L" of" + Number(session);
             })),

        // Security
        OPENING_CALL(
            kSecurity, GetSecurityInfo, TheCode,
            [](Trace&, auto...) { return std::wstring(L"get list"); },
            ([](Trace& trace, DWORD, HANDLE, SE_OBJECT_TYPE, SECURITY_INFORMATION, PSID*, PSID*,
                PACL*, PACL*, PSECURITY_DESCRIPTOR* descriptor) {
                trace.Opened(Resource::memory, *descriptor, L"list");
            })),
        CALL(kSecurity, SetSecurityInfo, TheCode,
             [](Trace&, auto...) { return std::wstring(L"set list"); }),
        OPENING_CALL(
            kSecurity, SetEntriesInAclW, TheCode,
            [](Trace&, auto...) { return std::wstring(L"extend list"); },
            ([](Trace& trace, DWORD, ULONG, PEXPLICIT_ACCESS_W, PACL, PACL* extended) {
                trace.Opened(Resource::memory, *extended, L"extended list");
            })),
        OPENING_CALL(
            kSecurity, AllocateAndInitializeSid, Zero,
            [](Trace&, auto...) { return std::wstring(L"make account"); },
            ([](Trace& trace, BOOL, PSID_IDENTIFIER_AUTHORITY, BYTE, DWORD, DWORD, DWORD, DWORD,
                DWORD, DWORD, DWORD, DWORD,
                PSID* sid) { trace.Opened(Resource::memory, *sid, L"account"); })),

        // COM
        CALL(kCom, CoInitializeEx, AnHresult,
             [](Trace&, LPVOID, DWORD model) { return L"enter apartment" + Number(model); }),
        CALL(kCom, CoCreateInstance, AnHresult,
             [](Trace&, auto...) { return std::wstring(L"create object"); }),
        CALL(kCom, CoCreateGuid, AnHresult,
             [](Trace&, GUID*) { return std::wstring(L"make identity"); }),
        OPENING_CALL(
            kCom, StringFromCLSID, AnHresult,
            [](Trace&, auto...) { return std::wstring(L"spell identity"); },
            ([](Trace& trace, HRESULT, REFCLSID, LPOLESTR* text) {
                trace.Opened(Resource::memory, *text, L"identity");
            })),
        OPENING_CALL(
            kCom, SysAllocString, Zero, [](Trace&, auto...) { return std::wstring(L"string"); },
            [](Trace& trace, BSTR copy, auto...) {
                trace.Opened(Resource::memory, copy, L"string");
            }),
        CLOSING_CALL(kClosing, CoTaskMemFree, memory, L"free"),
        CLOSING_CALL(kClosing, SysFreeString, memory, L"free string"),

        // Devices
        OPENING_CALL(kDevices, SetupDiGetClassDevsW, MinusOne,
                     ([](Trace&, const GUID* kind, PCWSTR enumerator, HWND window, DWORD flags) {
                         wchar_t text[40] = {};
                         StringFromGUID2(*kind, text, 40);
                         return L"list devices " + Text(text) +
                                (enumerator == nullptr ? std::wstring()
                                                       : L" of " + Text(enumerator)) +
                                (window == nullptr ? L"" : L" for a window") + Number(flags);
                     }),
                     [](Trace& trace, HDEVINFO list, auto...) {
                         trace.Opened(Resource::memory, list, L"devices");
                     }),
        CALL(kDevices, SetupDiEnumDeviceInfo, Zero,
             ([](Trace&, HDEVINFO, DWORD index, PSP_DEVINFO_DATA data) {
                 return L"device" + Number(index) + Number(data->cbSize) + L" bytes";
             })),
        CALL(kDevices, SetupDiGetDeviceRegistryPropertyW, Zero,
             ([](Trace&, HDEVINFO, PSP_DEVINFO_DATA, DWORD property, PDWORD, PBYTE, DWORD size,
                 PDWORD) { return L"property" + Number(property) + Number(size); })),
        CLOSING_CALL(kDevices, SetupDiDestroyDeviceInfoList, memory, L"close devices"),

        // The platform
        CALL(kPlatform, GetProcAddress, Zero, ([](Trace&, HMODULE, LPCSTR name) {
                 // A number below this stands for a function without a name.
                 const auto number = reinterpret_cast<std::uintptr_t>(name);
                 return L"look up " + (number < 0x10000
                                           ? std::to_wstring(number)
                                           : std::wstring(name, name + std::strlen(name)));
             })),
        PASSING_CALL(kPlatform, GetNativeSystemInfo,
                     [](LPSYSTEM_INFO) { return L"native processor"s; }),
        PASSING_CALL(kPlatform, GetSystemInfo, [](LPSYSTEM_INFO) { return L"processor"s; }),

        // Messages and waits
        PASSING_CALL(kMessages, OutputDebugStringW,
                     [](LPCWSTR text) { return L"says " + Text(text); }),
        PASSING_CALL(kSleeps, Sleep,
                     [](DWORD milliseconds) { return L"sleep" + Number(milliseconds); }),

        // What gives something back
        CLOSING_CALL(kClosing, CloseHandle, kernel, L"close handle"),
        CLOSING_CALL(kClosing, FindClose, memory, L"close list"),
        CLOSING_CALL(kClosing, LocalFree, memory, L"free"),
        CLOSING_CALL(kClosing, FreeSid, memory, L"free account"),
    };
    return calls;
}

} // namespace halvard_tests
