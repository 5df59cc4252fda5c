#pragma once

#include "registry_key.h"

#include <windows.h>

#include <setupapi.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace halvard_tests {

inline constexpr GUID kDisplayAdapters = {
    0x4D36E968, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};

/// Makes a display adapter present under this name. The code with which it was refused, or
/// NO_ERROR.
inline DWORD RegisterAdapter(HDEVINFO adapters, const std::wstring& instance,
                             SP_DEVINFO_DATA& adapter) {
    adapter.cbSize = sizeof(adapter);
    const bool made =
        SetupDiCreateDeviceInfoW(adapters, instance.c_str(), &kDisplayAdapters, nullptr, nullptr, 0,
                                 &adapter) != FALSE &&
        SetupDiRegisterDeviceInfo(adapters, &adapter, 0, nullptr, nullptr, nullptr) != FALSE;
    return made ? DWORD{NO_ERROR} : GetLastError();
}

inline bool SetAdapterProperty(HDEVINFO adapters, SP_DEVINFO_DATA& adapter, DWORD property,
                               const std::vector<BYTE>& bytes) {
    return SetupDiSetDeviceRegistryPropertyW(adapters, &adapter, property, bytes.data(),
                                             static_cast<DWORD>(bytes.size())) != FALSE;
}

inline bool SetAdapterText(HDEVINFO adapters, SP_DEVINFO_DATA& adapter, DWORD property,
                           const std::wstring& text) {
    return SetAdapterProperty(adapters, adapter, property, BytesOf(text + L'\0'));
}

/// A present display adapter for the length of a scope, at first without any property.
class DisplayAdapter {
public:
    DisplayAdapter() : adapters_(SetupDiCreateDeviceInfoList(&kDisplayAdapters, nullptr)) {
        static int count = 0;
        instance_ = L"ROOT\\HALVARDTEST\\" + std::to_wstring(1000 + ++count);
        if (RegisterAdapter(adapters_, instance_, adapter_) != NO_ERROR) {
            throw std::runtime_error("a display adapter cannot be made");
        }
    }
    DisplayAdapter(const std::wstring& manufacturer, const std::wstring& driver)
        : DisplayAdapter() {
        SetManufacturer(manufacturer);
        SetDriver(driver);
    }
    ~DisplayAdapter() {
        SetupDiRemoveDevice(adapters_, &adapter_);
        SetupDiDestroyDeviceInfoList(adapters_);
    }
    DisplayAdapter(const DisplayAdapter&) = delete;
    DisplayAdapter& operator=(const DisplayAdapter&) = delete;

    void SetManufacturer(const std::wstring& text) { Set(SPDRP_MFG, BytesOf(text + L'\0')); }
    void SetDriver(const std::wstring& text) { Set(SPDRP_DRIVER, BytesOf(text + L'\0')); }
    void Set(DWORD property, const std::vector<BYTE>& bytes) {
        if (!SetAdapterProperty(adapters_, adapter_, property, bytes)) {
            throw std::runtime_error("a property of a display adapter cannot be set");
        }
    }

    /// Sets a property where the registry keeps it, under any type.
    void Store(DWORD property, DWORD type, const std::vector<BYTE>& bytes) const {
        if (RegSetKeyValueW(HKEY_LOCAL_MACHINE,
                            (L"SYSTEM\\CurrentControlSet\\Enum\\" + instance_).c_str(),
                            property == SPDRP_MFG ? L"Mfg" : L"Driver", type, bytes.data(),
                            static_cast<DWORD>(bytes.size())) != ERROR_SUCCESS) {
            throw std::runtime_error("a property of a display adapter cannot be stored");
        }
    }

private:
    HDEVINFO adapters_;
    SP_DEVINFO_DATA adapter_ = {};
    std::wstring instance_;
};

} // namespace halvard_tests
