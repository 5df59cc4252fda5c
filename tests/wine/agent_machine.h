#pragma once

#include "files.h"
#include "installed_service.h"
#include "registry_key.h"
#include "task_store.h"

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

namespace halvard_tests {

inline constexpr wchar_t kTeloKey[] = L"SOFTWARE\\Telo";
inline constexpr wchar_t kCountersKey[] =
    L"SYSTEM\\CurrentControlSet\\Services\\PerfOS\\Performance";
inline constexpr wchar_t kOlderService[] = L"UPAL";
inline constexpr wchar_t kAgentService[] = L"TeloLauncher";

/// Where the agent's folders lie in the tests: on the throw-away drive.
class AgentFolders {
public:
    /// What stands for Program Files and for the common application data folder.
    std::wstring Programs() const { return root_ + L"\\Programs"; }
    std::wstring Data() const { return root_ + L"\\Data"; }

    std::wstring Folder() const { return Programs() + L"\\Zenvo\\Usage Profile Agent"; }
    std::wstring File(const std::wstring& name) const { return Folder() + L"\\" + name; }
    std::wstring DataFolder() const { return Data() + L"\\Zenvo\\UPA"; }

private:
    std::wstring root_ = L"T:\\Scratch";
};

/// What the usage-profile agent leaves on a machine, gone at the start and at the end: its folders,
/// its keys, its services and its task. The install manager is there, beside the agent's folder.
class AgentMachine : public AgentFolders {
public:
    explicit AgentMachine(const ServiceBehavior& behavior = {}) : behavior_(behavior) {
        ForgetKeys();
        CreateFolders(Programs());
        manager_.SetString(L"InstallDir", Programs() + L"\\Zenvo\\Manager");
        StartAnew();
    }
    ~AgentMachine() {
        service_.reset();
        older_.reset();
        ForgetKeys();
        RemoveForGood(Programs());
    }
    AgentMachine(const AgentMachine&) = delete;
    AgentMachine& operator=(const AgentMachine&) = delete;

    /// Copies the agent's files, as the installer does.
    void CopyAgent() const {
        CreateFolders(Folder());
        CreateFolders(DataFolder());
        CopyTestService(File(L"TeloDU.exe"));
        WriteFileAt(File(L"TeloUF.exe"));
    }

    const ServiceScope& OlderService() const { return *older_; }
    const ServiceScope& Service() const { return *service_; }
    const StoredTask& Task() const { return *task_; }
    const ScratchKey& InstallManager() const { return manager_; }

    /// The machine's identity; empty without one.
    std::wstring Identity() const {
        const auto value = RegistryValueAt(kTeloKey, L"GUID");
        if (!value || value->type != REG_SZ) {
            return {};
        }
        const auto* const first = reinterpret_cast<const wchar_t*>(value->bytes.data());
        return first;
    }
    void SetIdentity(const std::wstring& identity) const {
        const auto* const first = reinterpret_cast<const BYTE*>(identity.c_str());
        SetIdentity(REG_SZ, {first, first + (identity.size() + 1) * sizeof(wchar_t)});
    }
    void SetIdentity(DWORD type, const std::vector<BYTE>& bytes) const {
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, kTeloKey, L"GUID", type, bytes.data(),
                        static_cast<DWORD>(bytes.size()));
    }

    /// The status of a client product; 0 without one.
    DWORD Status(const std::wstring& name) const {
        const auto value = RegistryValueAt(kTeloKey, name);
        return value && value->type == REG_DWORD ? value->bytes.at(0) : 0U;
    }
    void SetStatus(const std::wstring& name, DWORD status) const {
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, kTeloKey, name.c_str(), REG_DWORD, &status,
                        sizeof(status));
    }

    /// Forgets keys, services and task, as if the agent had never been set up; its files stay.
    void Reset() {
        service_.reset();
        older_.reset();
        task_.reset();
        ForgetKeys();
        StartAnew();
    }

private:
    void ForgetKeys() const {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, kTeloKey);
        if (!hadCounters_) {
            RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Services\\PerfOS");
        }
    }

    void StartAnew() {
        task_.emplace(L"HalvardAgentTask");
        older_.emplace(kOlderService, behavior_);
        service_.emplace(kAgentService, behavior_);
    }

    ServiceBehavior behavior_;
    bool hadCounters_ = KeyExists(L"SYSTEM\\CurrentControlSet\\Services\\PerfOS");
    ScratchFolder scratch_;
    ScratchKey manager_{L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\"
                        L"Zenvo Meridian Install Manager"};
    std::optional<StoredTask> task_;
    std::optional<ServiceScope> older_;
    std::optional<ServiceScope> service_;
};

} // namespace halvard_tests
