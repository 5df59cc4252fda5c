#include "launch/install_proxy_command.h"

#include "runtime/file_paths.h"
#include "runtime/launch_text.h"

namespace halvard {

std::wstring FrameworkToolPath(const std::wstring& location) {
    return FileInFolder(location, L"CLI.exe");
}

std::wstring InstallProxyPath(const std::wstring& installDirectory) {
    // The folder's name brings a backslash of its own.
    const std::wstring folder = FileInFolder(installDirectory, L"\\Kiln-InstallProxy-Net4");
    return FileInFolder(folder, L"Kiln.InstallProxy.exe");
}

std::optional<std::wstring> InstallProxyCommand(const std::wstring& toolPath,
                                                const std::wstring& proxyPath) {
    return CommandIfItFits(L"\"" + toolPath + L"\" Install " + proxyPath, kLaunchCommandLimit);
}

} // namespace halvard
