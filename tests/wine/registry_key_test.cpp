#include "registry_key.h"

#include <gtest/gtest.h>

using halvard_tests::AbsentKeys;
using halvard_tests::KeyExists;

TEST(AbsentKeys, AreAbsentAtTheStartAndAtTheEnd) {
    const std::wstring first = L"SOFTWARE\\HalvardAbsent";
    const std::wstring second = L"SOFTWARE\\HalvardAbsentToo";
    const auto make = [&](HKEY root) {
        for (const std::wstring& key : {first + L"\\below", second}) {
            const DWORD number = 1;
            ASSERT_EQ(RegSetKeyValueW(root, key.c_str(), L"Name", REG_DWORD, &number, 4),
                      ERROR_SUCCESS);
        }
    };
    make(HKEY_LOCAL_MACHINE);
    make(HKEY_CURRENT_USER);
    {
        const AbsentKeys ofMachine({first, second});
        EXPECT_FALSE(KeyExists(first));
        EXPECT_FALSE(KeyExists(second));
        const AbsentKeys ofUser({first, second}, HKEY_CURRENT_USER);
        EXPECT_EQ(halvard_tests::RegistryValueAt(HKEY_CURRENT_USER, second, L"Name"), std::nullopt);
        make(HKEY_LOCAL_MACHINE);
        make(HKEY_CURRENT_USER);
        ofMachine.Remove();
        EXPECT_FALSE(KeyExists(second));
        make(HKEY_LOCAL_MACHINE);
    }
    EXPECT_FALSE(KeyExists(first));
    EXPECT_FALSE(KeyExists(second));
    EXPECT_EQ(halvard_tests::RegistryValueAt(HKEY_CURRENT_USER, second, L"Name"), std::nullopt);
}
