// What the Task Scheduler takes, and how schtasks ends. Only one of these makes a task, with a name
// of its own, and deletes it again.

#include "verify/child.h"
#include "verify/place.h"

#include "runtime/launch.h"
#include "runtime/owned.h"
#include "tasks/schtasks_commands.h"
#include "tasks/task_templates.h"

#include <taskschd.h>

namespace halvard_runner {

namespace {

using halvard::OwnedAutomationString;
using halvard::OwnedInterface;

constexpr DWORD kSchtasksLimitMilliseconds = 15000;

class Apartment {
public:
    Apartment() : entered_(CoInitializeEx(nullptr, COINIT_MULTITHREADED)) {}
    ~Apartment() {
        if (SUCCEEDED(entered_)) {
            CoUninitialize();
        }
    }
    Apartment(const Apartment&) = delete;
    Apartment& operator=(const Apartment&) = delete;

private:
    HRESULT entered_;
};

void RequireResult(HRESULT result, const std::wstring& what) {
    if (FAILED(result)) {
        throw CannotBeAsked(what + L" failed with " + CodeText(result));
    }
}

std::wstring ThisUser() {
    wchar_t domain[256] = {};
    wchar_t user[256] = {};
    if (GetEnvironmentVariableW(L"USERDOMAIN", domain, 256) > 0 &&
        GetEnvironmentVariableW(L"USERNAME", user, 256) > 0) {
        return std::wstring(domain) + L"\\" + user;
    }
    DWORD size = 256;
    Require(GetUserNameW(user, &size) != FALSE, L"the user's name");
    return user;
}

VARIANT TextVariant(const OwnedAutomationString& text) {
    VARIANT variant = {};
    variant.vt = VT_BSTR;
    variant.bstrVal = text.get();
    return variant;
}

std::wstring EndOf(const std::wstring& command, const std::wstring& directory) {
    const std::optional<DWORD> code = RunToItsEnd(command, directory, kSchtasksLimitMilliseconds);
    return code ? std::to_wstring(*code) : L"does not end";
}

// To be called inside of an apartment.
OwnedInterface<ITaskFolder> FolderOfAllTasks() {
    void* made = nullptr;
    RequireResult(CoCreateInstance(CLSID_TaskScheduler, nullptr, CLSCTX_INPROC_SERVER,
                                   IID_ITaskService, &made),
                  L"the Task Scheduler");
    const OwnedInterface<ITaskService> service(static_cast<ITaskService*>(made));
    const VARIANT none = {};
    RequireResult(service->Connect(none, none, none, none), L"connecting to the Task Scheduler");
    const OwnedAutomationString root(SysAllocString(L"\\"));
    ITaskFolder* opened = nullptr;
    RequireResult(service->GetFolder(root.get(), &opened), L"the folder of all tasks");
    return OwnedInterface<ITaskFolder>(opened);
}

// As the library registers a task, but for the flag: it is judged and not kept.
std::wstring Judged(const std::wstring& name, const std::wstring& definition) {
    const Apartment apartment;
    const OwnedInterface<ITaskFolder> folder = FolderOfAllTasks();
    const VARIANT none = {};
    const OwnedAutomationString path(SysAllocString(name.c_str()));
    const OwnedAutomationString xml(SysAllocString(definition.c_str()));
    const OwnedAutomationString user(SysAllocString(ThisUser().c_str()));
    const OwnedAutomationString security(SysAllocString(L""));
    IRegisteredTask* task = nullptr;
    const HRESULT result = folder->RegisterTask(
        path.get(), xml.get(), TASK_VALIDATE_ONLY | TASK_CREATE_OR_UPDATE, TextVariant(user), none,
        TASK_LOGON_INTERACTIVE_TOKEN, TextVariant(security), &task);
    const OwnedInterface<IRegisteredTask> given(task);
    // A service that keeps it all the same must not.
    folder->DeleteTask(path.get(), 0);
    return SUCCEEDED(result) ? L"accepted" : L"refused with " + CodeText(result);
}

// Any refusal is as good as another.
std::wstring WhetherAccepted(const std::wstring& outcome) {
    return outcome == L"accepted" ? outcome : L"refused";
}

std::wstring ElevatedTemplate(const ScratchPlace& place) {
    return Judged(place.UniqueName(),
                  halvard::ElevatedTaskXml(place.UniqueName(), L"C:\\Windows\\notepad.exe"));
}

std::wstring AgentTemplate(const ScratchPlace& place) {
    return Judged(place.UniqueName(),
                  halvard::AgentLogonTaskXml(place.UniqueName(), L"C:\\Windows\\notepad.exe"));
}

std::wstring MarkupInCommand(const ScratchPlace& place) {
    return WhetherAccepted(
        Judged(place.UniqueName(),
               halvard::ElevatedTaskXml(place.UniqueName(), L"C:\\a & b\\notepad.exe")));
}

std::wstring EmptyCommand(const ScratchPlace& place) {
    return WhetherAccepted(
        Judged(place.UniqueName(), halvard::ElevatedTaskXml(place.UniqueName(), L"")));
}

std::wstring MissingTaskDeleted(const ScratchPlace& place) {
    return EndOf(halvard::DeleteTaskCommand(place.UniqueName()), place.Folder());
}

std::wstring MissingTaskRun(const ScratchPlace& place) {
    return EndOf(halvard::RunTaskCommand(place.UniqueName()), place.Folder());
}

/// A task of this program's own, gone with the scope.
class OwnTask {
public:
    OwnTask(const ScratchPlace& place, const wchar_t* principal)
        : name_(place.UniqueName()), folder_(place.Folder()) {
        const std::wstring definition =
            L"\xFEFF<?xml version=\"1.0\" encoding=\"UTF-16\"?><Task version=\"1.2\" "
            L"xmlns=\"http://schemas.microsoft.com/windows/2004/02/mit/task\">"
            L"<RegistrationInfo><Author>halvard_run</Author></RegistrationInfo><Triggers/>"
            L"<Principals><Principal id=\"Author\">" +
            std::wstring(principal) +
            L"</Principal></Principals><Settings><Enabled>false</Enabled></Settings>"
            L"<Actions Context=\"Author\"><Exec><Command>C:\\former.exe</Command></Exec></Actions>"
            L"</Task>";
        const std::wstring file = place.File(L"task.xml");
        MakeFile(file, {reinterpret_cast<const char*>(definition.data()),
                        definition.size() * sizeof(wchar_t)});
        const std::wstring made = EndOf(*halvard::CreateTaskCommand(name_, file), folder_);
        if (made != L"0") {
            throw CannotBeAsked(L"schtasks /create ended with " + made);
        }
    }
    ~OwnTask() {
        // Throws where it cannot be started, which is no news here: it made the task.
        try {
            EndOf(halvard::DeleteTaskCommand(name_), folder_);
        } catch (const CannotBeAsked&) {
            return;
        }
    }
    OwnTask(const OwnTask&) = delete;
    OwnTask& operator=(const OwnTask&) = delete;

private:
    std::wstring name_;
    std::wstring folder_;
};

std::wstring Change(const ScratchPlace& place, const wchar_t* principal) {
    const OwnTask task(place, principal);
    const auto command =
        halvard::ChangeTaskCommand(place.UniqueName(), L"C:\\changed.exe", L"word");
    return EndOf(*command, place.Folder());
}

std::wstring ChangeOfGroup(const ScratchPlace& place) {
    return Change(place, L"<GroupId>S-1-5-32-545</GroupId>");
}

std::wstring ChangeOfUser(const ScratchPlace& place) {
    return Change(place, L"<LogonType>InteractiveToken</LogonType>");
}

} // namespace

std::vector<Fact> TaskFacts() {
    return {
        {L"elevated-template", ElevatedTemplate},      {L"agent-template", AgentTemplate},
        {L"markup-in-command", MarkupInCommand},       {L"empty-command", EmptyCommand},
        {L"missing-task-deleted", MissingTaskDeleted}, {L"missing-task-run", MissingTaskRun},
        {L"change-of-group-task", ChangeOfGroup},      {L"change-of-user-task", ChangeOfUser},
    };
}

bool TaskIsLeft(const std::wstring& scratch) {
    try {
        const Apartment apartment;
        const OwnedInterface<ITaskFolder> folder = FolderOfAllTasks();
        const OwnedAutomationString path(SysAllocString(scratch.c_str()));
        folder->DeleteTask(path.get(), 0);
        IRegisteredTask* task = nullptr;
        const bool isLeft = SUCCEEDED(folder->GetTask(path.get(), &task));
        const OwnedInterface<IRegisteredTask> given(task);
        return isLeft;
    } catch (const CannotBeAsked&) {
        return false; // a Task Scheduler that is not reached has taken no task either
    }
}

} // namespace halvard_runner
