#include "processes/service_removal.h"

#include "runtime/file_paths.h"
#include "runtime/custom_action_data.h"
#include "runtime/file_status.h"
#include "runtime/open_service_manager.h"
#include "runtime/session.h"

#include <system_error>
#include <vector>

namespace halvard {

namespace {

// SERVICE_ALL_ACCESS without the rights to pause, to interrogate and to send controls of its own: a
// service that withholds those from administrators can be removed all the same.
constexpr DWORD kServiceAccess =
    SERVICE_ALL_ACCESS &
    ~(SERVICE_PAUSE_CONTINUE | SERVICE_INTERROGATE | SERVICE_USER_DEFINED_CONTROL);

constexpr DWORD kStopLimitMilliseconds = 3000;
constexpr DWORD kPollMilliseconds = 101;

std::wstring ReadBinaryPath(SC_HANDLE service) {
    std::vector<BYTE> buffer;
    DWORD size = 0;
    // Asked again for as long as it grows: someone else may change the configuration in between.
    while (QueryServiceConfigW(service, reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data()),
                               static_cast<DWORD>(buffer.size()), &size) == FALSE) {
        const DWORD code = GetLastError();
        // One that wants no more room than it had would be asked for ever.
        if (code != ERROR_INSUFFICIENT_BUFFER || size <= buffer.size()) {
            throw std::system_error(static_cast<int>(code), std::system_category(),
                                    "Unable to call QueryServiceConfig");
        }
        buffer.resize(size);
    }
    const wchar_t* const path =
        reinterpret_cast<const QUERY_SERVICE_CONFIGW*>(buffer.data())->lpBinaryPathName;
    return path == nullptr ? L"" : path;
}

bool IsInDirectory(const std::wstring& binaryPath, const std::wstring& directory) {
    const std::wstring parent = ParentFolder(binaryPath);
    LogMessage(kNoSession, L"Parent path of %s is %s", binaryPath.c_str(), parent.c_str());
    return AreEquivalent(parent, directory);
}

void StopWithinLimit(SC_HANDLE service) {
    SERVICE_STATUS status = {};
    if (ControlService(service, SERVICE_CONTROL_STOP, &status) == FALSE) {
        return;
    }
    DWORD state = status.dwCurrentState;
    DWORD waited = 0;
    while (state != SERVICE_STOPPED && waited <= kStopLimitMilliseconds) {
        LogMessage(kNoSession, L"Waiting for service to stop.");
        Sleep(kPollMilliseconds);
        waited += kPollMilliseconds;
        if (QueryServiceStatus(service, &status) != FALSE) {
            state = status.dwCurrentState;
        }
    }
}

} // namespace

void RemoveServiceInDirectory(const std::wstring& serviceName, const std::wstring& directory) {
    if (serviceName.empty()) {
        LogMessage(kNoSession, L"Empty service name provided");
        return;
    }

    const OwnedService manager = OpenServiceManager(SERVICES_ACTIVE_DATABASEW);
    if (!manager) {
        LogMessage(kNoSession, L"Unable call  OpenSCManager. Error code: %d", GetLastError());
        return;
    }
    const OwnedService service(OpenServiceW(manager.get(), serviceName.c_str(), kServiceAccess));
    if (!service) {
        LogMessage(kNoSession, L"Unable to open service %s. Error code: %d", serviceName.c_str(),
                   GetLastError());
        return;
    }

    const std::wstring binaryPath = ReadBinaryPath(service.get());
    LogMessage(kNoSession, L"binary path = %s\n", binaryPath.c_str());
    if (!IsInDirectory(binaryPath, directory)) {
        LogMessage(kNoSession, L"%s is not in directory %s", binaryPath.c_str(), directory.c_str());
        return;
    }

    StopWithinLimit(service.get());
    if (DeleteService(service.get()) != FALSE) {
        LogMessage(kNoSession, L"Successfully deleted %s", serviceName.c_str());
    } else {
        LogMessage(kNoSession, L"Unable to delete %s. Error code: %d", serviceName.c_str(),
                   GetLastError());
    }
}

UINT __stdcall DeleteServiceIfBinaryIsInDirectory(MSIHANDLE session) {
    SetCurrentSession(session);
    const std::wstring data = ReadCustomActionData(session);
    const std::wstring serviceName = GetDataValue(data, L"ServiceName=");
    const std::wstring directory = GetDataValue(data, L"DirectoryOfBinary=");
    RemoveServiceInDirectory(serviceName, directory);
    return ERROR_SUCCESS;
}

} // namespace halvard
