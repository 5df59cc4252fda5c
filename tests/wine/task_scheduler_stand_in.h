#pragma once

#include "import_hook.h"

#include <msi.h>
#include <msiquery.h>
#include <taskschd.h>

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace halvard_tests {

/// One object of the stand-in scheduler. It lives as long as its owner, whatever is released. What
/// it does is no part of the code under test.
template <class Interface>
class StandInObject : public Interface {
public:
    explicit StandInObject(std::function<void()> released) : released_(std::move(released)) {}

    STDMETHODIMP QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    STDMETHODIMP_(ULONG) AddRef() override { return 2; }
    STDMETHODIMP_(ULONG) Release() override {
        const HookedCall call;
        released_();
        return 1;
    }
    STDMETHODIMP GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override {
        return E_NOTIMPL;
    }
    STDMETHODIMP Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*,
                        UINT*) override {
        return E_NOTIMPL;
    }

private:
    std::function<void()> released_;
};

class StandInRegisteredTask final : public StandInObject<IRegisteredTask> {
public:
    using StandInObject::StandInObject;

    STDMETHODIMP get_Name(BSTR*) override { return E_NOTIMPL; }
    STDMETHODIMP get_Path(BSTR*) override { return E_NOTIMPL; }
    STDMETHODIMP get_State(TASK_STATE*) override { return E_NOTIMPL; }
    STDMETHODIMP get_Enabled(VARIANT_BOOL*) override { return E_NOTIMPL; }
    STDMETHODIMP put_Enabled(VARIANT_BOOL) override { return E_NOTIMPL; }
    STDMETHODIMP Run(VARIANT, IRunningTask**) override { return E_NOTIMPL; }
    STDMETHODIMP RunEx(VARIANT, LONG, LONG, BSTR, IRunningTask**) override { return E_NOTIMPL; }
    STDMETHODIMP GetInstances(LONG, IRunningTaskCollection**) override { return E_NOTIMPL; }
    STDMETHODIMP get_LastRunTime(DATE*) override { return E_NOTIMPL; }
    STDMETHODIMP get_LastTaskResult(LONG*) override { return E_NOTIMPL; }
    STDMETHODIMP get_NumberOfMissedRuns(LONG*) override { return E_NOTIMPL; }
    STDMETHODIMP get_NextRunTime(DATE*) override { return E_NOTIMPL; }
    STDMETHODIMP get_Definition(ITaskDefinition**) override { return E_NOTIMPL; }
    STDMETHODIMP get_Xml(BSTR*) override { return E_NOTIMPL; }
    STDMETHODIMP GetSecurityDescriptor(LONG, BSTR*) override { return E_NOTIMPL; }
    STDMETHODIMP SetSecurityDescriptor(BSTR, LONG) override { return E_NOTIMPL; }
    STDMETHODIMP Stop(LONG) override { return E_NOTIMPL; }
    STDMETHODIMP GetRunTimes(const LPSYSTEMTIME, const LPSYSTEMTIME, DWORD*,
                             LPSYSTEMTIME*) override {
        return E_NOTIMPL;
    }
};

/// What the root folder was asked to register. A variant is its type, a colon and its text.
struct Registration {
    std::wstring path;
    std::wstring xml;
    LONG flags;
    std::wstring user;
    std::wstring password;
    int logonType;
    std::wstring security;
};

inline std::wstring Describe(BSTR text) {
    return text == nullptr ? L"null" : text;
}

inline std::wstring Describe(const VARIANT& variant) {
    std::wstring text = std::to_wstring(variant.vt) + L":";
    if (variant.vt == VT_BSTR) {
        text += Describe(variant.bstrVal);
    }
    return text;
}

/// Refuses a definition as Windows does: what is not well-formed because of an ampersand that
/// begins no entity, and an empty command.
inline HRESULT Judge(const std::wstring& xml) {
    constexpr HRESULT malformedXml = static_cast<HRESULT>(0x8004131AU);
    constexpr HRESULT invalidValue = static_cast<HRESULT>(0x80041318U);
    for (std::size_t at = xml.find(L'&'); at != std::wstring::npos; at = xml.find(L'&', at + 1)) {
        const std::size_t end = xml.find_first_of(L"; <", at);
        if (end == std::wstring::npos || xml[end] != L';') {
            return malformedXml;
        }
    }
    return xml.find(L"<Command></Command>") == std::wstring::npos ? S_OK : invalidValue;
}

class StandInFolder final : public StandInObject<ITaskFolder> {
public:
    using Registering = std::function<HRESULT(const Registration&, IRegisteredTask**)>;

    StandInFolder(std::function<void()> released, Registering registering)
        : StandInObject(std::move(released)), registering_(std::move(registering)) {}

    STDMETHODIMP RegisterTask(BSTR path, BSTR xml, LONG flags, VARIANT user, VARIANT password,
                              TASK_LOGON_TYPE logonType, VARIANT security,
                              IRegisteredTask** task) override {
        const HookedCall call;
        return registering_({Describe(path), Describe(xml), flags, Describe(user),
                             Describe(password), logonType, Describe(security)},
                            task);
    }

    STDMETHODIMP get_Name(BSTR*) override { return E_NOTIMPL; }
    STDMETHODIMP get_Path(BSTR*) override { return E_NOTIMPL; }
    STDMETHODIMP GetFolder(BSTR, ITaskFolder**) override { return E_NOTIMPL; }
    STDMETHODIMP GetFolders(LONG, ITaskFolderCollection**) override { return E_NOTIMPL; }
    STDMETHODIMP CreateFolder(BSTR, VARIANT, ITaskFolder**) override { return E_NOTIMPL; }
    STDMETHODIMP DeleteFolder(BSTR, LONG) override { return E_NOTIMPL; }
    STDMETHODIMP GetTask(BSTR, IRegisteredTask**) override { return E_NOTIMPL; }
    STDMETHODIMP GetTasks(LONG, IRegisteredTaskCollection**) override { return E_NOTIMPL; }
    STDMETHODIMP DeleteTask(BSTR, LONG) override { return E_NOTIMPL; }
    STDMETHODIMP RegisterTaskDefinition(BSTR, ITaskDefinition*, LONG, VARIANT, VARIANT,
                                        TASK_LOGON_TYPE, VARIANT, IRegisteredTask**) override {
        return E_NOTIMPL;
    }
    STDMETHODIMP GetSecurityDescriptor(LONG, BSTR*) override { return E_NOTIMPL; }
    STDMETHODIMP SetSecurityDescriptor(BSTR, LONG) override { return E_NOTIMPL; }

private:
    Registering registering_;
};

class StandInService final : public StandInObject<ITaskService> {
public:
    using Connecting = std::function<HRESULT(const std::wstring&)>;
    using FindingFolder = std::function<HRESULT(const std::wstring&, ITaskFolder**)>;

    StandInService(std::function<void()> released, Connecting connecting, FindingFolder finding)
        : StandInObject(std::move(released)), connecting_(std::move(connecting)),
          finding_(std::move(finding)) {}

    STDMETHODIMP Connect(VARIANT server, VARIANT user, VARIANT domain, VARIANT password) override {
        const HookedCall call;
        return connecting_(Describe(server) + L" " + Describe(user) + L" " + Describe(domain) +
                           L" " + Describe(password));
    }
    STDMETHODIMP GetFolder(BSTR path, ITaskFolder** folder) override {
        const HookedCall call;
        return finding_(Describe(path), folder);
    }

    STDMETHODIMP GetRunningTasks(LONG, IRunningTaskCollection**) override { return E_NOTIMPL; }
    STDMETHODIMP NewTask(DWORD, ITaskDefinition**) override { return E_NOTIMPL; }
    STDMETHODIMP get_Connected(VARIANT_BOOL*) override { return E_NOTIMPL; }
    STDMETHODIMP get_TargetServer(BSTR*) override { return E_NOTIMPL; }
    STDMETHODIMP get_ConnectedUser(BSTR*) override { return E_NOTIMPL; }
    STDMETHODIMP get_ConnectedDomain(BSTR*) override { return E_NOTIMPL; }
    STDMETHODIMP get_HighestVersion(DWORD*) override { return E_NOTIMPL; }

private:
    Connecting connecting_;
    FindingFolder finding_;
};

/// Stands in for the Task Scheduler for the length of a scope, and writes down, in one list, every
/// call that it, COM and the installer's log get.
class StandInTaskScheduler {
public:
    /// When set, CoInitializeEx returns this, and neither it nor CoUninitialize do anything.
    std::optional<HRESULT> apartmentResult;
    HRESULT createResult = S_OK;
    HRESULT connectResult = S_OK;
    HRESULT folderResult = S_OK;
    /// Of a registration whose definition is accepted.
    HRESULT registerResult = S_OK;
    /// The allocation of a string that fails, counted from 1; 0 for none.
    int failingString = 0;

    const std::vector<std::wstring>& Lines() const { return lines_; }
    const std::vector<Registration>& Registrations() const { return registrations_; }
    int StringsAllocated() const { return stringsAllocated_; }
    /// Strings that were allocated and not freed, counted.
    std::size_t OpenStrings() const { return openStrings_.size(); }

private:
    HRESULT Step(const std::wstring& line, HRESULT result) {
        lines_.push_back(line);
        return result;
    }

    template <class Interface, class Object>
    static HRESULT Give(HRESULT result, Interface** target, Object& object) {
        *target = SUCCEEDED(result) ? &object : nullptr;
        return result;
    }

    std::vector<std::wstring> lines_;
    std::vector<Registration> registrations_;
    std::set<BSTR> openStrings_;
    int stringsAllocated_ = 0;
    std::wstring logText_;

    StandInRegisteredTask task_{[this] {
        lines_.emplace_back(L"release task");
    }};
    StandInFolder folder_{[this] { lines_.emplace_back(L"release folder"); },
                          [this](const Registration& registration, IRegisteredTask** task) {
                              registrations_.push_back(registration);
                              const HRESULT verdict = Judge(registration.xml);
                              return Give(
                                  Step(L"RegisterTask", FAILED(verdict) ? verdict : registerResult),
                                  task, task_);
                          }};
    StandInService service_{[this] { lines_.emplace_back(L"release service"); },
                            [this](const std::wstring& variants) {
                                return Step(L"Connect " + variants, connectResult);
                            },
                            [this](const std::wstring& path, ITaskFolder** folder) {
                                return Give(Step(L"GetFolder " + path, folderResult), folder,
                                            folder_);
                            }};

    HOOK(entering_, CoInitializeEx, [this](LPVOID reserved, DWORD model) {
        lines_.push_back((reserved == nullptr ? L"CoInitializeEx " : L"CoInitializeEx reserved ") +
                         std::to_wstring(model));
        return apartmentResult ? *apartmentResult : entering_.Original(reserved, model);
    });
    HOOK(creating_, CoCreateInstance,
         [this](REFCLSID classId, LPUNKNOWN outer, DWORD context, REFIID interfaceId,
                LPVOID* object) {
             wchar_t classText[40] = {};
             wchar_t interfaceText[40] = {};
             StringFromGUID2(classId, classText, 40);
             StringFromGUID2(interfaceId, interfaceText, 40);
             lines_.push_back(std::wstring(L"CoCreateInstance ") + classText +
                              (outer == nullptr ? L" " : L" aggregated ") +
                              std::to_wstring(context) + L" " + interfaceText);
             return Give(createResult, reinterpret_cast<ITaskService**>(object), service_);
         });
    HOOK(leaving_, CoUninitialize, [this] {
        lines_.emplace_back(L"CoUninitialize");
        if (!apartmentResult) {
            leaving_.Original();
        }
    });
    HOOK(allocating_, SysAllocString, [this](const OLECHAR* text) {
        if (++stringsAllocated_ == failingString) {
            return static_cast<BSTR>(nullptr);
        }
        const BSTR copy = allocating_.Original(text);
        openStrings_.insert(copy);
        return copy;
    });
    HOOK(freeing_, SysFreeString, [this](BSTR text) {
        if (text != nullptr && openStrings_.erase(text) == 0) {
            lines_.emplace_back(L"a string freed that is not open");
        }
        freeing_.Original(text);
    });
    HOOK(setting_, MsiRecordSetStringW, [this](MSIHANDLE record, UINT field, LPCWSTR text) {
        logText_ = text;
        return setting_.Original(record, field, text);
    });
    HOOK(sending_, MsiProcessMessage,
         [this](MSIHANDLE session, INSTALLMESSAGE type, MSIHANDLE record) {
             lines_.push_back(L"log to " + std::to_wstring(session) + L": " + logText_);
             return sending_.Original(session, type, record);
         });
};

} // namespace halvard_tests
