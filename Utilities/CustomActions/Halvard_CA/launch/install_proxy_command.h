#pragma once

#include <optional>
#include <string>

// How the application framework's command-line tool is told to install the proxy. Values are pasted
// in as they are.

namespace halvard {

/// The path of the framework's tool in the framework's folder.
std::wstring FrameworkToolPath(const std::wstring& location);

/// The path of the proxy below the package's install directory, with two backslashes in front of
/// the proxy's folder, or one behind a slash of the other kind: Windows takes them for one
/// (assumed).
std::wstring InstallProxyPath(const std::wstring& installDirectory);

/// Lets the tool install the proxy; nothing when the command does not fit
/// kLaunchCommandLimit. The proxy's path is not quoted: with blanks in it, it reaches the
/// tool as several arguments.
std::optional<std::wstring> InstallProxyCommand(const std::wstring& toolPath,
                                                const std::wstring& proxyPath);

} // namespace halvard
