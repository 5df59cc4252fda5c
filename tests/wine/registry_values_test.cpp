#include "runtime/registry_values.h"

#include "call_trace.h"
#include "open_handles.h"
#include "registry_key.h"

#include <gtest/gtest.h>

using halvard::ReadRegistryDword;
using halvard::WriteRegistryDword;
using halvard::WriteRegistryString;
using halvard_tests::CallTrace;
using halvard_tests::KeyExists;
using halvard_tests::kRegistry;
using halvard_tests::OpenHandleCount;
using halvard_tests::RegistryValueAt;
using halvard_tests::ScratchKey;
using Bytes = std::vector<BYTE>;
using Value = ScratchKey::Value;

namespace {

constexpr DWORD kUntouched = 0xABCD1234;

// What ReadRegistryDword leaves in a variable that held kUntouched.
DWORD NumberIn(const ScratchKey& key) {
    DWORD number = kUntouched;
    EXPECT_TRUE(ReadRegistryDword(key.Path(), L"Number", number));
    return number;
}

} // namespace

TEST(ReadRegistryDword, ReadsAValueThroughAKeyOpenedWithAllAccess) {
    const ScratchKey key;
    key.SetBytes(L"Number", REG_DWORD, {0x78, 0x56, 0x34, 0x12});
    DWORD number = kUntouched;
    const CallTrace calls(kRegistry);
    EXPECT_TRUE(ReadRegistryDword(key.Path(), L"Number", number));
    EXPECT_EQ(number, 0x12345678U);
    EXPECT_EQ(calls.All(), (Lines{L"open HKLM\\" + key.Path() + L" 0xf003f",
                                  L"query HKLM\\" + key.Path() + L" Number 4 bytes",
                                  L"close HKLM\\" + key.Path()}));
}

TEST(ReadRegistryDword, TakesUpTo4BytesOfAnyType) {
    const ScratchKey key;
    for (const DWORD type : {REG_DWORD, REG_BINARY, REG_NONE, 4711}) {
        key.SetBytes(L"Number", type, {1, 2, 3, 4});
        EXPECT_EQ(NumberIn(key), 0x04030201U);
        key.SetBytes(L"Number", type, {1, 2, 3});
        EXPECT_EQ(NumberIn(key), 0x030201U);
        key.SetBytes(L"Number", type, {1});
        EXPECT_EQ(NumberIn(key), 1U);
        key.SetBytes(L"Number", type, {});
        EXPECT_EQ(NumberIn(key), 0U);
    }
    key.SetString(L"Number", L"1");
    EXPECT_EQ(NumberIn(key), L'1');
}

TEST(ReadRegistryDword, LeavesTheVariableWhenItCannotRead) {
    const ScratchKey key;
    DWORD number = kUntouched;
    EXPECT_FALSE(ReadRegistryDword(key.Path(), L"Number", number));
    EXPECT_FALSE(ReadRegistryDword(key.Path() + L"\\absent", L"Number", number));
    for (const std::size_t length : {5, 8, 65536}) {
        key.SetBytes(L"Number", REG_BINARY, Bytes(length, 1));
        EXPECT_FALSE(ReadRegistryDword(key.Path(), L"Number", number));
    }
    EXPECT_EQ(number, kUntouched);

    key.SetBytes(L"Number", REG_DWORD, {1, 0, 0, 0});
    {
        // As Windows may do it with a value that does not fit.
        HOOK(query, RegQueryValueExW,
             [](HKEY, LPCWSTR, LPDWORD, LPDWORD, LPBYTE data, LPDWORD) -> LSTATUS {
                 data[0] = 1;
                 return ERROR_MORE_DATA;
             });
        EXPECT_FALSE(ReadRegistryDword(key.Path(), L"Number", number));
    }
    const CallTrace calls(kRegistry, 1);
    EXPECT_FALSE(ReadRegistryDword(key.Path(), L"Number", number));
    EXPECT_EQ(number, kUntouched);
    EXPECT_EQ(calls.All().size(), 1U);
}

TEST(WriteRegistryDword, WritesIntoAKeyThatIsThereWhateverTheValueWas) {
    const ScratchKey key;
    key.SetString(L"Number", L"a text");
    const CallTrace calls(kRegistry);
    EXPECT_TRUE(WriteRegistryDword(key.Path(), L"Number", 0x12345678));
    EXPECT_EQ(key.Read(L"Number"), (Value{REG_DWORD, {0x78, 0x56, 0x34, 0x12}}));
    EXPECT_EQ(
        Lines(calls.All().begin(), calls.All().begin() + 3),
        (Lines{L"open HKLM\\" + key.Path() + L" 0xf003f",
               L"set HKLM\\" + key.Path() + L" Number 4 4 bytes", L"close HKLM\\" + key.Path()}));
}

TEST(WriteRegistryDword, CreatesAKeyThatCannotBeOpened) {
    const ScratchKey scratch;
    const std::wstring path = scratch.Path() + L"\\some\\key";
    const CallTrace calls(kRegistry);
    EXPECT_TRUE(WriteRegistryDword(path, L"", 2));
    EXPECT_EQ(calls.All(),
              (Lines{L"open HKLM\\" + path + L" 0xf003f", L"create HKLM\\" + path + L" 0x2",
                     L"set HKLM\\" + path + L"  4 4 bytes", L"close HKLM\\" + path}));
    EXPECT_EQ(RegistryValueAt(path, L""), (Value{REG_DWORD, {2, 0, 0, 0}}));
}

TEST(WriteRegistryString, WritesTheTextWithItsTerminator) {
    const ScratchKey scratch;
    const std::wstring path = scratch.Path() + L"\\key";
    for (const std::wstring& text :
         {std::wstring(), std::wstring(L"text"), std::wstring(1000, L'x')}) {
        EXPECT_TRUE(WriteRegistryString(path, L"Name", text));
        const auto value = RegistryValueAt(path, L"Name");
        ASSERT_TRUE(value.has_value());
        EXPECT_EQ(value->type, static_cast<DWORD>(REG_SZ));
        EXPECT_EQ(value->bytes.size(), 2 * text.size() + 2);
        EXPECT_EQ(reinterpret_cast<const wchar_t*>(value->bytes.data()), text);
    }
    const CallTrace calls(kRegistry);
    EXPECT_TRUE(WriteRegistryString(path, L"Name", L"0"));
    EXPECT_TRUE(WriteRegistryString(path + L"\\below", L"Name", L"0"));
    const std::wstring key = L"HKLM\\" + path;
    EXPECT_EQ(
        calls.All(),
        (Lines{L"open " + key + L" 0xf003f", L"set " + key + L" Name 1 4 bytes", L"close " + key,
               L"open " + key + L"\\below 0xf003f", L"create " + key + L"\\below 0x2",
               L"set " + key + L"\\below Name 1 4 bytes", L"close " + key + L"\\below"}));
}

TEST(WriteRegistryString, WritesBelowAnotherRoot) {
    const std::wstring path = L"SOFTWARE\\HalvardTests";
    RegDeleteTreeW(HKEY_CURRENT_USER, path.c_str());
    {
        const CallTrace calls(kRegistry);
        EXPECT_TRUE(WriteRegistryString(HKEY_CURRENT_USER, path, L"Name", L"text"));
        const std::wstring key = L"HKCU\\" + path;
        EXPECT_EQ(calls.All(), (Lines{L"open " + key + L" 0xf003f", L"create " + key + L" 0x2",
                                      L"set " + key + L" Name 1 10 bytes", L"close " + key}));
    }
    wchar_t text[5] = {};
    DWORD size = sizeof(text);
    EXPECT_EQ(
        RegGetValueW(HKEY_CURRENT_USER, path.c_str(), L"Name", RRF_RT_REG_SZ, nullptr, text, &size),
        ERROR_SUCCESS);
    EXPECT_STREQ(text, L"text");
    EXPECT_FALSE(KeyExists(path));
    RegDeleteTreeW(HKEY_CURRENT_USER, path.c_str());
}

TEST(RegistryWriters, TellWhetherThereWasAKeyAndNotWhetherTheValueWasWritten) {
    const ScratchKey scratch;
    const std::wstring path = scratch.Path() + L"\\key";
    const auto writeNumber = [&] {
        return WriteRegistryDword(path, L"Number", 1);
    };
    const auto writeText = [&] {
        return WriteRegistryString(path, L"Text", L"1");
    };
    const int before = OpenHandleCount();
    {
        // Neither opened, for it is not there, nor created.
        const CallTrace calls(kRegistry, 2);
        EXPECT_FALSE(writeNumber());
        EXPECT_EQ(calls.All().size(), 2U);
    }
    {
        const CallTrace calls(kRegistry, 2);
        EXPECT_FALSE(writeText());
        EXPECT_EQ(calls.All().size(), 2U);
    }
    EXPECT_FALSE(KeyExists(path));
    {
        const CallTrace calls(kRegistry, 3);
        EXPECT_TRUE(writeNumber());
    }
    {
        const CallTrace calls(kRegistry, 2);
        EXPECT_TRUE(writeText());
    }
    EXPECT_TRUE(KeyExists(path));
    EXPECT_EQ(RegistryValueAt(path, L"Number"), std::nullopt);
    EXPECT_EQ(RegistryValueAt(path, L"Text"), std::nullopt);
    {
        // What cannot be opened with all access may still be opened for setting by its creation.
        const CallTrace calls(kRegistry, 1);
        EXPECT_TRUE(writeNumber());
    }
    {
        const CallTrace calls(kRegistry, 1);
        EXPECT_TRUE(writeText());
    }
    EXPECT_EQ(RegistryValueAt(path, L"Number"), (Value{REG_DWORD, {1, 0, 0, 0}}));
    EXPECT_EQ(RegistryValueAt(path, L"Text"), (Value{REG_SZ, {'1', 0, 0, 0}}));
    EXPECT_EQ(OpenHandleCount(), before);
}
