#pragma once

#include <windows.h>
#include <msi.h>

namespace halvard {

using IsWow64ProcessFunction = BOOL(WINAPI*)(HANDLE process, BOOL* wow64);

/// Whether this process runs under WOW64, as the function of Windows tells; it does not when
/// Windows has no such function (null) or the function fails.
bool RunsUnderWow64(IsWow64ProcessFunction function);

extern "C" {

/// Finds the application framework's command-line tool and has it install the proxy from the
/// package's install directory. The working directory handed over is the command line itself, which
/// Windows refuses (assumed), so in practice the tool does not start.
///
/// Deferred action, result ignored. Inputs: CustomActionData (the install directory and nothing
/// else, at most 259 wide characters; one that cannot be read is logged and taken for what the
/// engine left of it); HKLM "SOFTWARE\Qorta\Sable\Packages\Core-Static", REG_SZ "Location" (the
/// framework's folder). Stores its session as the current session.
/// Results: 0, 1. The latter when the tool was started, which is waited for without a limit; 0 when
/// it was not or when the framework's folder does not exist. The reverse of the installer's codes.
/// Throws RegKeyError when the key or the value is missing, std::filesystem::filesystem_error
/// ("exists") when Windows does not tell whether the framework's folder exists. A command line of
/// 519 wide characters and more ends the process.
UINT __stdcall LaunchInstallProxyPV(MSIHANDLE session);

/// Removes the proxy's installation key from the 32-bit view, unless it has subkeys.
///
/// Deferred action, result ignored, without CustomActionData. Inputs: HKLM
/// "SOFTWARE\Wow6432Node\Qorta\Sable\Settings\Kiln\Install". Stores its session as the current
/// session.
/// Results: 0, 1. The latter when the key was deleted, 0 when it was not. The reverse of the
/// installer's codes. Throws nothing.
UINT __stdcall DelInstallProxyKey(MSIHANDLE session);

} // extern "C"

} // namespace halvard
