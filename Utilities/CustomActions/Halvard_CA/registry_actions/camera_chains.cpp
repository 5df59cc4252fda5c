#include "registry_actions/camera_chains.h"

#include "registry_actions/camera_chain_text.h"
#include "runtime/registry.h"
#include "runtime/registry_walk.h"
#include "runtime/session.h"
#include "runtime/value_path.h"

#include <exception>

namespace halvard {

namespace {

constexpr wchar_t kDeviceClassKey[] = L"SYSTEM\\CurrentControlSet\\Control\\DeviceClasses\\"
                                      L"{e5323777-f976-4f5b-9b55-b94699c46e44}";
constexpr wchar_t kChainName[] = L"CameraDeviceMftClsidChain";

std::list<std::wstring> ReadChain(const RegistryValue& value) {
    const OwnedKey key = OpenRegistryKey(value.subkey);
    return ReadMultiString(key.get(), value.name);
}

void WriteChain(const std::wstring& subkey, const std::list<std::wstring>& transforms) {
    const OwnedKey key = OpenRegistryKey(subkey);
    WriteMultiString(key.get(), kChainName, transforms);
}

void RewriteChain(const RegistryValue& value) {
    std::list<std::wstring> transforms = ReadChain(value);
    RemoveTransformId(transforms);
    WriteChain(value.subkey, transforms);
}

bool DeleteValue(const RegistryValue& value) {
    return RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, value.subkey.c_str(), value.name.c_str()) ==
           ERROR_SUCCESS;
}

} // namespace

UINT CleanCameraTransformChains() {
    std::vector<std::wstring> keyPaths;
    std::vector<std::wstring> valuePaths;
    EnumerateKeyTree(HKEY_LOCAL_MACHINE, kDeviceClassKey, keyPaths, valuePaths,
                     {L"CLSID", kChainName});

    UINT result = ERROR_SUCCESS;
    for (const std::wstring& path : valuePaths) {
        const RegistryValue value = SplitValuePath(path);
        try {
            RewriteChain(value);
        } catch (const std::exception&) {
            // The system loads what such a value names, so one that cannot be cleaned must not
            // stay.
            if (!DeleteValue(value)) {
                result = ERROR_INSTALL_FAILURE;
            }
        }
    }
    return result;
}

UINT __stdcall DeleteOptiqCameraGUID(MSIHANDLE session) {
    SetCurrentSession(session);
    // The wrong way round, and packages count on it.
    return CleanCameraTransformChains() == ERROR_SUCCESS ? ERROR_INSTALL_FAILURE : ERROR_SUCCESS;
}

} // namespace halvard
