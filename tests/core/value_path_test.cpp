#include "runtime/value_path.h"

#include <gtest/gtest.h>

using halvard::RegistryValue;
using halvard::SplitValuePath;
using halvard::ValueNameStart;

namespace {

void ExpectSplit(const std::wstring& path, const std::wstring& subkey, const std::wstring& name) {
    const RegistryValue value = SplitValuePath(path);
    EXPECT_EQ(value.subkey, subkey);
    EXPECT_EQ(value.name, name);
}

} // namespace

TEST(ValueNameStart, StandsBehindTheLastBackslash) {
    EXPECT_EQ(ValueNameStart(L"HKEY_LOCAL_MACHINE\\A key\\CLSID"), 25U);
    EXPECT_EQ(ValueNameStart(L"A/b\\"), 4U);
    EXPECT_EQ(ValueNameStart(L"CLSID"), 0U);
    EXPECT_EQ(ValueNameStart(L""), 0U);
}

TEST(SplitValuePath, CutsBehindTheRootAndBeforeTheName) {
    ExpectSplit(L"HKEY_LOCAL_MACHINE\\SYSTEM\\A key\\CLSID", L"SYSTEM\\A key", L"CLSID");
    ExpectSplit(L"HKEY_LOCAL_MACHINE\\SYSTEM\\CLSID", L"SYSTEM", L"CLSID");
    ExpectSplit(L"HKEY_LOCAL_MACHINE\\A/b\\##?#USB#VID_1\\#GLOBAL\\\u0416",
                L"A/b\\##?#USB#VID_1\\#GLOBAL", L"\u0416");
}

TEST(SplitValuePath, TakesABackslashInTheNameForOneBetweenKeys) {
    ExpectSplit(L"HKEY_LOCAL_MACHINE\\SYSTEM\\a\\CLSID", L"SYSTEM\\a", L"CLSID");
    ExpectSplit(L"HKEY_LOCAL_MACHINE\\SYSTEM\\\\CLSID", L"SYSTEM\\", L"CLSID");
    ExpectSplit(L"HKEY_LOCAL_MACHINE\\SYSTEM\\a\\", L"SYSTEM\\a", L"");
}

TEST(SplitValuePath, APathWithoutAKeyHasAnEmptySubkey) {
    ExpectSplit(L"HKEY_LOCAL_MACHINE\\CLSID", L"", L"CLSID");
    ExpectSplit(L"\\", L"", L"");
    ExpectSplit(L"\\\\", L"", L"");
    ExpectSplit(L"CLSID", L"", L"CLSID");
    ExpectSplit(L"", L"", L"");
}
