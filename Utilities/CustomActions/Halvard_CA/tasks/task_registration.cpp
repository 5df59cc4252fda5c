#include "tasks/task_registration.h"

#include "runtime/owned.h"
#include "runtime/session.h"
#include "tasks/task_templates.h"

#include <taskschd.h>

namespace halvard {

namespace {

constexpr UINT kRegistered = 0;
constexpr UINT kNotRegistered = 1;

// None when there is no memory for it.
OwnedAutomationString MakeAutomationString(const wchar_t* text) noexcept {
    return OwnedAutomationString(SysAllocString(text));
}

// The variant stays owned by `text`: the call that it is handed to by value does not free it.
VARIANT StringVariant(const OwnedAutomationString& text) noexcept {
    VARIANT variant = {};
    variant.vt = VT_BSTR;
    variant.bstrVal = text.get();
    return variant;
}

HRESULT ConnectToThisMachine(ITaskService& service) noexcept {
    const VARIANT none = {};
    return service.Connect(none, none, none, none);
}

HRESULT GetRootFolder(ITaskService& service, ITaskFolder** folder) noexcept {
    const OwnedAutomationString path = MakeAutomationString(L"\\");
    return path ? service.GetFolder(path.get(), folder) : E_OUTOFMEMORY;
}

HRESULT RegisterInFolder(ITaskFolder& folder, const std::wstring& taskName,
                         const std::wstring& xmlText, const std::wstring& userName,
                         IRegisteredTask** task) noexcept {
    const OwnedAutomationString path = MakeAutomationString(taskName.c_str());
    const OwnedAutomationString xml = MakeAutomationString(xmlText.c_str());
    const OwnedAutomationString user = MakeAutomationString(userName.c_str());
    const OwnedAutomationString security = MakeAutomationString(L"");
    // A null string has a meaning of its own to the Task Scheduler: a made-up name, another user.
    if (!path || !xml || !user || !security) {
        return E_OUTOFMEMORY;
    }
    const VARIANT noPassword = {};
    return folder.RegisterTask(path.get(), xml.get(), TASK_CREATE_OR_UPDATE, StringVariant(user),
                               noPassword, TASK_LOGON_INTERACTIVE_TOKEN, StringVariant(security),
                               task);
}

UINT RegisterInsideApartment(const std::wstring& taskName, const std::wstring& xmlText,
                             const std::wstring& userName) noexcept {
    ITaskService* service = nullptr;
    HRESULT result = CoCreateInstance(CLSID_TaskScheduler, nullptr, CLSCTX_INPROC_SERVER,
                                      IID_ITaskService, reinterpret_cast<void**>(&service));
    if (FAILED(result)) {
        LogMessage(kNoSession, L"Failed to create an instance of ITaskService: 0x%x", result);
        return kNotRegistered;
    }

    result = ConnectToThisMachine(*service);
    if (FAILED(result)) {
        LogMessage(kNoSession, L"ITaskService::Connect failed: 0x%x", result);
        service->Release();
        return kNotRegistered;
    }

    ITaskFolder* rootFolder = nullptr;
    result = GetRootFolder(*service, &rootFolder);
    if (FAILED(result)) {
        LogMessage(kNoSession, L"Cannot get Root Folder pointer: 0x%x", result);
        service->Release();
        return kNotRegistered;
    }

    // From here on the service object is never released.
    IRegisteredTask* task = nullptr;
    result = RegisterInFolder(*rootFolder, taskName, xmlText, userName, &task);
    if (FAILED(result)) {
        LogMessage(kNoSession, L"Error saving the Task : 0x%x", result);
        rootFolder->Release();
        return kNotRegistered;
    }

    LogMessage(kNoSession, L"Successfully added %s Scheduled Event", taskName.c_str());
    rootFolder->Release();
    task->Release();
    return kRegistered;
}

} // namespace

UINT RegisterTaskFromXml(const std::wstring& taskName, const std::wstring& xmlText,
                         const std::wstring& userName) noexcept {
    const HRESULT entered = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (FAILED(entered)) {
        LogMessage(kNoSession, L"Failed to call CoInitializeEx 0x%x", entered);
        // A single-threaded apartment, entered by whoever owns the thread, serves as well.
        if (entered != RPC_E_CHANGED_MODE) {
            return kNotRegistered;
        }
    }
    const UINT result = RegisterInsideApartment(taskName, xmlText, userName);
    CoUninitialize();
    return result;
}

UINT RegisterAgentLogonTask(const std::wstring& taskName, const std::wstring& command,
                            const std::wstring& userName) {
    return RegisterTaskFromXml(taskName, AgentLogonTaskXml(taskName, command), userName);
}

} // namespace halvard
