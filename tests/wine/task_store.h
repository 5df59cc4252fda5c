#pragma once

#include <windows.h>
#include <taskschd.h>

#include <string>
#include <thread>

namespace halvard_tests {

/// A name in the root folder of the system's Task Scheduler for the length of a scope: no task has
/// it at the start, and what was registered under it is deleted at the end.
class StoredTask {
public:
    explicit StoredTask(const std::wstring& name)
        : name_(name), path_(L"C:\\windows\\system32\\tasks\\" + name) {
        DeleteTask();
    }
    ~StoredTask() { DeleteTask(); }
    StoredTask(const StoredTask&) = delete;
    StoredTask& operator=(const StoredTask&) = delete;

    const std::wstring& Name() const { return name_; }
    bool Exists() const { return GetFileAttributesW(path_.c_str()) != INVALID_FILE_ATTRIBUTES; }

    /// The definition as the task store keeps it. Under Wine that is its registration information
    /// and settings, in UTF-8; triggers, principal and command are not kept.
    std::string Definition() const {
        const HANDLE file = CreateFileW(path_.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                        OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (file == INVALID_HANDLE_VALUE) {
            return {};
        }
        std::string text(GetFileSize(file, nullptr), '\0');
        DWORD read = 0;
        ReadFile(file, text.data(), static_cast<DWORD>(text.size()), &read, nullptr);
        CloseHandle(file);
        text.resize(read);
        return text;
    }

    bool Holds(const std::string& text) const {
        return Definition().find(text) != std::string::npos;
    }

private:
    // In an apartment of its own, whatever has become of the caller's.
    void DeleteTask() const {
        std::thread([this] {
            CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            DeleteTaskHere();
            CoUninitialize();
        }).join();
    }

    void DeleteTaskHere() const {
        ITaskService* service = nullptr;
        if (FAILED(CoCreateInstance(CLSID_TaskScheduler, nullptr, CLSCTX_INPROC_SERVER,
                                    IID_ITaskService, reinterpret_cast<void**>(&service)))) {
            return;
        }
        const VARIANT none = {};
        service->Connect(none, none, none, none);
        const BSTR path = SysAllocString(L"\\");
        const BSTR name = SysAllocString(name_.c_str());
        ITaskFolder* folder = nullptr;
        if (SUCCEEDED(service->GetFolder(path, &folder))) {
            folder->DeleteTask(name, 0);
            folder->Release();
        }
        SysFreeString(path);
        SysFreeString(name);
        service->Release();
    }

    std::wstring name_;
    std::wstring path_;
};

} // namespace halvard_tests
