// The objects of the Task Scheduler come from no import. The first of each class shows the table of
// its functions; each object of the class then gets a copy of it with these among them.

// In the form for C an interface has its functions in a structure.
#define CINTERFACE

#include "trace/hook.h"

#include <taskschd.h>

#include <mutex>
#include <utility>

namespace halvard_runner {

namespace {

// Objects keep them until the process ends.
ITaskServiceVtbl serviceFunctions;
ITaskFolderVtbl folderFunctions;
const ITaskServiceVtbl* ofService = nullptr;
const ITaskFolderVtbl* ofFolder = nullptr;

std::wstring TextOf(const OLECHAR* text) {
    return text == nullptr ? L"" : text;
}

void TellAnswer(const wchar_t* what, const std::wstring& target, HRESULT answer,
                TraceDetails details = {}) {
    Tell(TraceGroup::Task, what, target,
         FAILED(answer) ? static_cast<DWORD>(answer) : DWORD{ERROR_SUCCESS}, std::move(details));
}

HRESULT STDMETHODCALLTYPE RegisterTask(ITaskFolder* folder, BSTR path, BSTR xml, LONG flags,
                                       VARIANT user, VARIANT password, TASK_LOGON_TYPE logon,
                                       VARIANT security, IRegisteredTask** task) {
    const HRESULT answer =
        ofFolder->RegisterTask(folder, path, xml, flags, user, password, logon, security, task);
    TellAnswer(L"registers", TextOf(path), answer,
               {{L"user", user.vt == VT_BSTR ? TextOf(user.bstrVal) : L""}});
    return answer;
}

void Watch(ITaskFolder& folder) {
    static std::once_flag once;
    std::call_once(once, [&] {
        ofFolder = folder.lpVtbl;
        folderFunctions = *ofFolder;
        folderFunctions.RegisterTask = RegisterTask;
    });
    if (folder.lpVtbl == ofFolder) {
        folder.lpVtbl = &folderFunctions;
    }
}

HRESULT STDMETHODCALLTYPE Connect(ITaskService* service, VARIANT server, VARIANT user,
                                  VARIANT domain, VARIANT password) {
    const HRESULT answer = ofService->Connect(service, server, user, domain, password);
    TellAnswer(L"connects to", kTaskScheduler, answer);
    return answer;
}

HRESULT STDMETHODCALLTYPE GetFolder(ITaskService* service, BSTR path, ITaskFolder** folder) {
    const HRESULT answer = ofService->GetFolder(service, path, folder);
    TellAnswer(L"opens folder of tasks", TextOf(path), answer);
    if (SUCCEEDED(answer)) {
        Watch(**folder);
    }
    return answer;
}

} // namespace

void WatchTaskScheduler(const IID& interfaceId, void* object) {
    if (interfaceId != IID_ITaskService) {
        return;
    }
    auto& service = *static_cast<ITaskService*>(object);
    static std::once_flag once;
    std::call_once(once, [&] {
        ofService = service.lpVtbl;
        serviceFunctions = *ofService;
        serviceFunctions.Connect = Connect;
        serviceFunctions.GetFolder = GetFolder;
    });
    if (service.lpVtbl == ofService) {
        service.lpVtbl = &serviceFunctions;
    }
}

} // namespace halvard_runner
