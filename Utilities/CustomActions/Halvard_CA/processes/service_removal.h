#pragma once

#include <windows.h>
#include <msi.h>

#include <string>

namespace halvard {

/// Stops and deletes a service when its program lies directly in `directory`; a service of this
/// name that runs from elsewhere is left alone. The folders are compared by identity, however they
/// are spelled.
///
/// The configured binary path is taken as it is stored, quotes and arguments included. A service
/// that can be stopped gets about 3 seconds; then it is marked for deletion, and the system removes
/// it when it stops. Every outcome is composed as a log line, which no session receives.
///
/// Throws std::system_error in the system category ("Unable to call QueryServiceConfig"),
/// std::filesystem::filesystem_error ("equivalent") when the program's folder or `directory` leads
/// nowhere, and std::bad_alloc. Everything else that fails is passed over.
void RemoveServiceInDirectory(const std::wstring& serviceName, const std::wstring& directory);

extern "C" {

/// Stops and deletes a service, but only when its program lies directly in a given folder.
///
/// Deferred action, result ignored. Inputs: the items ServiceName= (the service's key name) and
/// DirectoryOfBinary= of CustomActionData. An absent item is not detected: its value is then the
/// data from index 11 (ServiceName=) or 17 (DirectoryOfBinary=) onward. Of a configured
/// binary path with quotes around it, which is how Windows Installer stores one (assumed), or with
/// arguments that have a slash in them, the folder leads nowhere as a rule, which throws.
/// Stores its session as the current session, but of what it does only CustomActionData shows in
/// the log. Blocks for about 3 seconds when the service does not stop.
/// Results: 0, whatever became of the service.
/// Throws std::out_of_range when the data has fewer than 17 characters, and std::system_error,
/// std::filesystem::filesystem_error and std::bad_alloc as RemoveServiceInDirectory does; the
/// service is as before then.
UINT __stdcall DeleteServiceIfBinaryIsInDirectory(MSIHANDLE session);

} // extern "C"

} // namespace halvard
