#pragma once

#include <windows.h>

#include <string>

// Services of the tests, whose program is test_service.

namespace halvard_tests {

/// What the test service does when it is started and stopped; test_service.cpp says it at length.
struct ServiceBehavior {
    DWORD startFailure = NO_ERROR;
    DWORD startPending = 0;
    bool stopIgnored = false;
    DWORD stopPending = 0;
    DWORD waitHint = 0;
    DWORD checkpointInterval = 0;
    DWORD stoppedWaitHint = 0;
};

/// Copies the program to a path.
void CopyTestService(const std::wstring& path);

/// Sets what a service does that has, or will have, this name, for the length of a scope; whoever
/// creates it. No service of this name is left at the end: one that still runs is ended with its
/// process.
class ServiceScope {
public:
    explicit ServiceScope(const std::wstring& name, const ServiceBehavior& behavior = {});
    ~ServiceScope();
    ServiceScope(const ServiceScope&) = delete;
    ServiceScope& operator=(const ServiceScope&) = delete;

    const std::wstring& Name() const { return name_; }

    /// Whether there is a service of this name, one that waits for its deletion included.
    bool Exists() const;

    /// Whether it is marked for deletion.
    bool IsBeingDeleted() const;

    /// All zeros when there is no such service.
    SERVICE_STATUS_PROCESS Status() const;

    /// SERVICE_STOPPED and so on; 0 when there is no such service.
    DWORD State() const { return Status().dwCurrentState; }

    /// Waits until the state is this one, for up to 20 seconds. Throws std::runtime_error when it
    /// does not become so.
    void WaitForState(DWORD state) const;

    /// Waits, as WaitForState does, until the checkpoint is another than `checkpoint`.
    void WaitForProgress(DWORD checkpoint) const;

    /// Starts the service and returns at once.
    void RequestStart() const;

    /// Asks the service to stop and returns at once.
    void RequestStop() const;

    /// Marks the service for deletion.
    void Delete() const;

    /// Ends the change that is pending, or the next one, at once.
    void Proceed() const;

    /// Ends the process of the service, if there is one, and waits until it is gone.
    void EndProcess() const;

    /// Waits until there is no service of this name, for up to 20 seconds; false when it stays.
    bool WaitUntilGone() const;

private:
    std::wstring name_;
    HANDLE proceed_ = nullptr;
};

/// A service that is there, stopped, for the length of a scope.
class InstalledService : public ServiceScope {
public:
    /// `binaryPath` is stored as it is.
    InstalledService(const std::wstring& name, const std::wstring& binaryPath,
                     const ServiceBehavior& behavior = {});
    ~InstalledService();
    InstalledService(const InstalledService&) = delete;
    InstalledService& operator=(const InstalledService&) = delete;

    /// Returns when it runs. Throws std::runtime_error when it does not.
    void Start();

    /// Waits until the process that was started has ended; false when it still runs after 20
    /// seconds.
    bool WaitForProcess() const;

private:
    HANDLE process_ = nullptr;
};

} // namespace halvard_tests
