#include "registry_actions/camera_chains.h"

#include "registry_key.h"
#include "time_of.h"

#include <gtest/gtest.h>

using halvard_tests::Duration;
using halvard_tests::Growth;
using halvard_tests::OneOfTen;
using halvard_tests::ScratchKey;
using halvard_tests::TimeOf;
using namespace std::string_literals;

namespace {

constexpr wchar_t kDeviceClass[] = L"SYSTEM\\CurrentControlSet\\Control\\DeviceClasses\\"
                                   L"{e5323777-f976-4f5b-9b55-b94699c46e44}";

void MakeDevices(const ScratchKey& deviceClass, int count) {
    for (int index = 0; index < count; ++index) {
        const std::wstring device = L"device " + std::to_wstring(index);
        deviceClass.CreateSubkey(device);
        const std::wstring chain = L"{55E09F33-D6B5-4A6D-99ED-87DC666C6710}\0{other}\0\0"s;
        RegSetKeyValueW(deviceClass.Get(), device.c_str(), L"CameraDeviceMftClsidChain",
                        REG_MULTI_SZ, chain.data(), static_cast<DWORD>(2 * chain.size()));
    }
}

// The time of one run among so many devices.
Duration CleaningTime(int devices) {
    const ScratchKey deviceClass(kDeviceClass);
    MakeDevices(deviceClass, devices);
    const Duration time = TimeOf([] { EXPECT_EQ(halvard::CleanCameraTransformChains(), 0U); });
    const auto last = halvard_tests::RegistryValueAt(deviceClass.Path() + L"\\device " +
                                                         std::to_wstring(devices - 1),
                                                     L"CameraDeviceMftClsidChain");
    EXPECT_TRUE(last.has_value() && last->bytes.size() == 2 * (L"{other}\0\0"s.size() + 1));
    return time;
}

} // namespace

TEST(CameraChainsTime, GrowsLinearlyWithTheDevices) {
    const auto few = [] {
        return OneOfTen([] { return CleaningTime(300); });
    };
    EXPECT_LE(Growth(
                  few, [] { return CleaningTime(3000); }, 12),
              12);
}
