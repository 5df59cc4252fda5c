#include "registry_actions/display_log.h"

#include "registry_actions/display_log_text.h"
#include "runtime/registry.h"

#include <setupapi.h>
#include <shlobj.h>

#include <optional>
#include <string>

namespace halvard {

namespace {

constexpr GUID kDisplayAdapters = {
    0x4D36E968, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};
constexpr DWORD kTemporaryFolderCapacity = 1024;
constexpr DWORD kPropertyBytes = 4096;

// Empty when Windows does not tell it or it does not fit.
std::wstring TemporaryFolder() {
    wchar_t folder[kTemporaryFolderCapacity] = {};
    const DWORD length = GetTempPathW(kTemporaryFolderCapacity, folder);
    return length < kTemporaryFolderCapacity ? std::wstring(folder, length) : std::wstring();
}

// The property's bytes taken for text, whatever their type; nothing when it cannot be read.
std::optional<std::wstring> ReadProperty(HDEVINFO adapters, SP_DEVINFO_DATA& adapter,
                                         DWORD property) {
    BoundedText<kPropertyBytes> text;
    // The last error alone tells whether there is a property, and a success need not clear it.
    SetLastError(NO_ERROR);
    SetupDiGetDeviceRegistryPropertyW(adapters, &adapter, property, nullptr,
                                      reinterpret_cast<BYTE*>(text.characters), kPropertyBytes,
                                      nullptr);
    if (GetLastError() != NO_ERROR) {
        return std::nullopt;
    }
    return text.characters;
}

void WriteLogFile(const std::wstring& classKey, const std::wstring& logFile) {
    // Never closed.
    HKEY driver = OpenKey(HKEY_LOCAL_MACHINE, classKey.c_str(), KEY_ALL_ACCESS).release();
    if (driver == nullptr) {
        return;
    }
    SetText(driver, L"DalDCELogFilePath", logFile);
    // As many bytes as the path has, zeros behind the text: readers see it up to its first null
    // character, and the size is part of what the value is known to have.
    std::wstring size = L"260";
    size.resize(logFile.size());
    SetText(driver, L"DalDCEFilePathSize", size);
}

} // namespace

UINT __stdcall SetDCLogFileRegistry(MSIHANDLE /*session*/) {
    const std::optional<DisplayLogPaths> paths = DisplayLogPathsIn(TemporaryFolder());
    if (!paths) {
        return ERROR_SUCCESS;
    }
    SHCreateDirectoryExW(nullptr, paths->folder.c_str(), nullptr);

    // Never destroyed, like the keys.
    const HDEVINFO adapters =
        SetupDiGetClassDevsW(&kDisplayAdapters, nullptr, nullptr, DIGCF_PRESENT);
    if (adapters == INVALID_HANDLE_VALUE) {
        return ERROR_SUCCESS;
    }
    SP_DEVINFO_DATA adapter = {};
    adapter.cbSize = sizeof(adapter);
    for (DWORD index = 0; SetupDiEnumDeviceInfo(adapters, index, &adapter) != FALSE; ++index) {
        const auto manufacturer = ReadProperty(adapters, adapter, SPDRP_MFG);
        if (!manufacturer || !IsMadeByTheMaker(*manufacturer)) {
            continue;
        }
        const auto driverKeyName = ReadProperty(adapters, adapter, SPDRP_DRIVER);
        const auto classKey = driverKeyName ? DriverClassKey(*driverKeyName) : std::nullopt;
        if (classKey) {
            WriteLogFile(*classKey, paths->file);
        }
    }
    return ERROR_SUCCESS;
}

} // namespace halvard
