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

/// A present display adapter for the length of a scope, at first without any property.
class DisplayAdapter {
public:
    DisplayAdapter() : adapters_(SetupDiCreateDeviceInfoList(&kDisplayAdapters, nullptr)) {
        static int count = 0;
        instance_ = L"ROOT\\HALVARDTEST\\" + std::to_wstring(1000 + ++count);
        adapter_.cbSize = sizeof(adapter_);
        if (SetupDiCreateDeviceInfoW(adapters_, instance_.c_str(), &kDisplayAdapters, nullptr,
                                     nullptr, 0, &adapter_) == FALSE ||
            SetupDiRegisterDeviceInfo(adapters_, &adapter_, 0, nullptr, nullptr, nullptr) ==
                FALSE) {
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
        if (SetupDiSetDeviceRegistryPropertyW(adapters_, &adapter_, property, bytes.data(),
                                              static_cast<DWORD>(bytes.size())) == FALSE) {
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
