#include "registry_actions/camera_chains.h"

#include "runtime/session.h"

#include "allocation_failure.h"
#include "call_trace.h"
#include "current_session.h"
#include "import_hook.h"
#include "open_handles.h"
#include "registry_key.h"
#include "stand_in_session.h"

#include <gtest/gtest.h>

#include <algorithm>

using halvard::CleanCameraTransformChains;
using halvard::DeleteOptiqCameraGUID;
using halvard_tests::CallTrace;
using halvard_tests::KeyExists;
using halvard_tests::kRegistry;
using halvard_tests::OpenHandleCount;
using halvard_tests::RegistryValueAt;
using halvard_tests::ScratchKey;
using Bytes = std::vector<BYTE>;
using Value = ScratchKey::Value;
using namespace std::string_literals;

namespace {

const std::wstring kClass = L"SYSTEM\\CurrentControlSet\\Control\\DeviceClasses\\"
                            L"{e5323777-f976-4f5b-9b55-b94699c46e44}";
const std::wstring kDevice = kClass + L"\\##?#USB#VID_1&PID_2&MI_00#7&1&0&0000#{e5}";
const std::wstring kChain = L"CameraDeviceMftClsidChain";
const std::wstring kId = L"{55E09F33-D6B5-4A6D-99ED-87DC666C6710}";
const std::wstring kNull = L"\0"s;

// A chain of this transform and another, as it is stored, and after a run.
const std::wstring kHooked = kId + kNull + L"{other}\0\0"s;
const std::wstring kClean = L"{other}\0\0\0"s;

// One device of the class, with its interface key.
struct Camera {
    ScratchKey deviceClass{kClass};
    ScratchKey device{kDevice};

    void SetChain(const std::wstring& characters) const {
        device.SetCharacters(kChain, REG_MULTI_SZ, characters);
    }
};

Value MultiString(const std::wstring& characters) {
    return {REG_MULTI_SZ, halvard_tests::BytesOf(characters)};
}

void ExpectChain(const std::wstring& key, const std::wstring& characters) {
    EXPECT_EQ(RegistryValueAt(key, kChain), MultiString(characters));
}

bool Holds(const std::wstring& key, const std::wstring& name) {
    return RegistryValueAt(key, name).has_value();
}

} // namespace

struct StoredChain {
    const char* what;
    std::wstring stored;
    std::wstring afterOneRun;
};

void PrintTo(const StoredChain& chain, std::ostream* stream) {
    *stream << chain.what;
}

class TransformChain : public testing::TestWithParam<StoredChain> {};

TEST_P(TransformChain, LosesTheTransformAndGainsANullWithEveryRun) {
    const Camera camera;
    camera.SetChain(GetParam().stored);
    EXPECT_EQ(CleanCameraTransformChains(), 0U);
    ExpectChain(kDevice, GetParam().afterOneRun);
    EXPECT_EQ(CleanCameraTransformChains(), 0U);
    ExpectChain(kDevice, GetParam().afterOneRun + kNull);
}

INSTANTIATE_TEST_SUITE_P(
    CameraChains, TransformChain,
    testing::Values(
        StoredChain{"first of two", kHooked, kClean},
        StoredChain{"last of two", L"{other}\0"s + kId + L"\0\0"s, kClean},
        StoredChain{"alone", kId + L"\0\0"s, L"\0\0"s},
        StoredChain{"several times", kId + kNull + kId + L"\0{other}\0"s + kId + L"\0\0"s, kClean},
        StoredChain{"not in it", L"{b}\0{a}\0\0"s, L"{b}\0{a}\0\0\0"s},
        StoredChain{"in lower case", L"{55e09f33-d6b5-4a6d-99ed-87dc666c6710}\0\0"s,
                    L"{55e09f33-d6b5-4a6d-99ed-87dc666c6710}\0\0\0"s},
        StoredChain{"with one digit in lower case", L"{55e09F33-D6B5-4A6D-99ED-87DC666C6710}\0\0"s,
                    L"{55e09F33-D6B5-4A6D-99ED-87DC666C6710}\0\0\0"s},
        StoredChain{"as part of an element", kId + L"x\0x"s + kId + L"\0\0"s,
                    kId + L"x\0x"s + kId + L"\0\0\0"s},
        StoredChain{"after an empty element", L"\0"s + kId + L"\0\0"s, L"\0\0\0"s},
        StoredChain{"with 64 KB before it", std::wstring(32768, L'x') + kNull + kId + L"\0\0"s,
                    std::wstring(32768, L'x') + L"\0\0\0"s},
        StoredChain{"among 2000 others",
                    [] {
                        std::wstring chain;
                        for (int index = 0; index < 2000; ++index) {
                            chain += index == 1000 ? kId + kNull : L"{other}\0"s;
                        }
                        return chain + kNull;
                    }(),
                    [] {
                        std::wstring chain;
                        for (int index = 0; index < 1999; ++index) {
                            chain += L"{other}\0"s;
                        }
                        return chain + L"\0\0"s;
                    }()}));

TEST(CleanCameraTransformChains, CleansEveryKeyOfTheClassAndNoOther) {
    const Camera camera;
    const ScratchKey second(kClass + L"\\second");
    const ScratchKey deeper(second.Path() + L"\\#GLOBAL");
    const ScratchKey deepest(deeper.Path() + L"\\Device Parameters");
    const ScratchKey otherClass(L"SYSTEM\\CurrentControlSet\\Control\\DeviceClasses\\{other}");
    for (const ScratchKey* key :
         {&camera.deviceClass, &camera.device, &second, &deepest, &otherClass}) {
        key->SetCharacters(kChain, REG_MULTI_SZ, kHooked);
    }
    otherClass.SetString(L"CLSID", kId);
    EXPECT_EQ(CleanCameraTransformChains(), 0U);
    for (const std::wstring& key : {kClass, kDevice, second.Path(), deepest.Path()}) {
        ExpectChain(key, kClean);
    }
    EXPECT_FALSE(Holds(deeper.Path(), kChain));
    ExpectChain(otherClass.Path(), kHooked);
    EXPECT_TRUE(Holds(otherClass.Path(), L"CLSID"));
}

TEST(CleanCameraTransformChains, FindsItsValuesInEitherCaseAndLeavesOthersAlone) {
    const Camera camera;
    const ScratchKey second(kClass + L"\\second");
    camera.device.SetString(L"clsid", kId);
    second.SetString(L"ClSiD", kId);
    second.SetCharacters(L"CAMERADEVICEMFTCLSIDCHAIN", REG_MULTI_SZ, kHooked);
    const Lines others = {
        L"", L"CLSID2", L"CLSI", L"xCLSID", L"CameraDeviceMftClsidChain2", L"FriendlyName"};
    for (const std::wstring& name : others) {
        camera.device.SetString(name, kId);
        second.SetCharacters(name, REG_MULTI_SZ, kHooked);
    }
    EXPECT_EQ(CleanCameraTransformChains(), 0U);
    EXPECT_FALSE(Holds(kDevice, L"CLSID"));
    EXPECT_FALSE(Holds(second.Path(), L"CLSID"));
    ExpectChain(second.Path(), kClean);
    for (const std::wstring& name : others) {
        EXPECT_EQ(camera.device.ReadCharacters(name), kId + kNull);
        EXPECT_EQ(second.ReadCharacters(name), kHooked);
    }
}

TEST(CleanCameraTransformChains, DeletesAValueOfAnyOtherTypeWhateverItsLength) {
    const Camera camera;
    std::size_t deleted = 0;
    for (const DWORD type : {REG_NONE, REG_SZ, REG_EXPAND_SZ, REG_BINARY, REG_DWORD,
                             REG_DWORD_BIG_ENDIAN, REG_LINK, REG_RESOURCE_LIST, REG_QWORD, 4711}) {
        for (const std::size_t length : {0, 1, 2, 3, 4, 8, 77, 78, 65535, 65536}) {
            // The engine's RegGetValueW writes behind its own block for such a value.
            if (type == REG_EXPAND_SZ && length == 1) {
                continue;
            }
            for (const std::wstring& name : {L"CLSID"s, kChain}) {
                camera.device.SetBytes(name, type, Bytes(length, '{'));
                EXPECT_EQ(CleanCameraTransformChains(), 0U);
                EXPECT_FALSE(Holds(kDevice, name)) << "type " << type << ", " << length << " bytes";
                ++deleted;
            }
        }
    }
    EXPECT_EQ(deleted, 198U);
}

// Whether the last string of a chain that is not terminated survives is up to the system.
TEST(CleanCameraTransformChains, MultiStringsOfEveryLengthEndWithoutTheTransform) {
    const Camera camera;
    for (const std::wstring& stored :
         {L""s, L"\0"s, L"x"s, kId, kId + kNull, L"{other}\0"s + kId, std::wstring(32767, L'x')}) {
        for (const bool odd : {false, true}) {
            Bytes bytes = MultiString(stored).bytes;
            if (odd) {
                bytes.push_back('x');
            }
            camera.device.SetBytes(kChain, REG_MULTI_SZ, bytes);
            EXPECT_EQ(CleanCameraTransformChains(), 0U);
            const Value left = camera.device.Read(kChain);
            EXPECT_EQ(left.type, static_cast<DWORD>(REG_MULTI_SZ));
            EXPECT_EQ(left.bytes.size() % 2, 0U);
            const std::wstring characters = camera.device.ReadCharacters(kChain);
            EXPECT_EQ(characters.back(), L'\0');
            EXPECT_EQ(characters.find(kId), std::wstring::npos);
            EXPECT_EQ(characters.find(L"{other}\0"s) == 0, stored[0] == L'{' && stored[1] == L'o');
        }
    }
}

TEST(CleanCameraTransformChains, WritesTheListOfAnotherValueUnderTheNameOfTheChain) {
    const Camera camera;
    camera.device.SetCharacters(L"clsid", REG_MULTI_SZ, kHooked);
    EXPECT_EQ(CleanCameraTransformChains(), 0U);
    EXPECT_EQ(camera.device.ReadCharacters(L"clsid"), kHooked);
    ExpectChain(kDevice, kClean);
}

TEST(CleanCameraTransformChains, WorksOnTheValuesInTheOrderFound) {
    const Camera camera;
    const ScratchKey second(kClass + L"\\second");
    camera.deviceClass.SetString(L"CLSID", L"x");
    camera.device.SetCharacters(L"CLSID", REG_MULTI_SZ, L"{from CLSID}\0\0"s);
    camera.SetChain(kHooked);
    second.SetString(L"CLSID", L"x");
    const auto startsWith = [](const std::wstring& line, const std::wstring& start) {
        return line.compare(0, start.size(), start) == 0;
    };
    Lines found;
    Lines done;
    {
        const CallTrace calls(kRegistry);
        HOOK(listing, RegEnumValueW,
             [&](HKEY key, DWORD index, LPWSTR name, LPDWORD length, LPDWORD reserved, LPDWORD type,
                 LPBYTE data, LPDWORD size) {
                 const LSTATUS status =
                     listing.Original(key, index, name, length, reserved, type, data, size);
                 found.push_back(L"size of " + calls.Name(key) + L" " + name + L" 0x20");
                 return status;
             });
        EXPECT_EQ(CleanCameraTransformChains(), 0U);
        for (const std::wstring& line : calls.All()) {
            if (startsWith(line, L"size of ")) {
                done.push_back(line);
            }
        }
    }
    EXPECT_EQ(found.size(), 4U);
    EXPECT_EQ(done, found);
    // Both lists of the device went into one value: the later one is left.
    const std::wstring ofDevice = L"size of HKLM\\" + kDevice + L" ";
    const auto chain = std::find(done.begin(), done.end(), ofDevice + kChain + L" 0x20");
    const auto other = std::find(done.begin(), done.end(), ofDevice + L"CLSID 0x20");
    const bool chainWasLast = chain > other;
    ExpectChain(kDevice, chainWasLast ? kClean : L"{from CLSID}\0\0\0"s);
}

TEST(CleanCameraTransformChains, ABackslashInTheNameOfAValueLeadsToAnotherKey) {
    const Camera camera;
    camera.device.SetCharacters(L"sub\\" + kChain, REG_MULTI_SZ, kHooked);
    // No such key to read, write or delete in.
    EXPECT_EQ(CleanCameraTransformChains(), 1603U);
    EXPECT_EQ(camera.device.ReadCharacters(L"sub\\" + kChain), kHooked);
    EXPECT_FALSE(KeyExists(kDevice + L"\\sub"));

    // A key, but no such value in it.
    camera.device.CreateSubkey(L"sub");
    EXPECT_EQ(CleanCameraTransformChains(), 1603U);
    EXPECT_EQ(camera.device.ReadCharacters(L"sub\\" + kChain), kHooked);
    EXPECT_FALSE(Holds(kDevice + L"\\sub", kChain));

    // The key's own value of that path is worked on, once.
    const ScratchKey sub(kDevice + L"\\sub");
    sub.SetCharacters(kChain, REG_MULTI_SZ, kHooked);
    EXPECT_EQ(CleanCameraTransformChains(), 0U);
    EXPECT_EQ(camera.device.ReadCharacters(L"sub\\" + kChain), kHooked);
    ExpectChain(sub.Path(), kClean);
}

TEST(CleanCameraTransformChains, TakesKeyNamesWithEveryLegalCharacter) {
    const ScratchKey deviceClass(kClass);
    Lines names(1);
    for (int character = 1; character <= 0xFFFF; ++character) {
        if (character == L'\\') {
            continue;
        }
        if (names.back().size() == 254) {
            names.emplace_back();
        }
        names.back() += static_cast<wchar_t>(character);
    }
    for (const std::wstring& name : names) {
        deviceClass.CreateSubkey(name);
        RegSetKeyValueW(deviceClass.Get(), name.c_str(), kChain.c_str(), REG_MULTI_SZ,
                        kHooked.data(), static_cast<DWORD>(2 * kHooked.size()));
    }
    EXPECT_EQ(CleanCameraTransformChains(), 0U);
    EXPECT_EQ(names.size(), 259U);
    for (const std::wstring& name : names) {
        ExpectChain(kClass + L"\\" + name, kClean);
    }
}

TEST(CleanCameraTransformChains, MakesTheseCalls) {
    const Camera camera;
    camera.SetChain(kHooked);
    camera.device.SetString(L"clsid", kId);
    Lines lines;
    {
        const CallTrace calls(kRegistry);
        EXPECT_EQ(CleanCameraTransformChains(), 0U);
        lines = calls.All();
    }
    const std::wstring root = L"HKLM\\" + kClass;
    const std::wstring device = L"HKLM\\" + kDevice;
    EXPECT_EQ(lines, (Lines{
                         L"open " + root + L" 0x20019",
                         L"open " + device + L" 0x20019",
                         L"close " + device,
                         L"close " + root,
                         L"open " + device + L" 0x2001f",
                         L"size of " + device + L" " + kChain + L" 0x20",
                         L"get " + device + L" " + kChain + L" 0x20",
                         L"close " + device,
                         L"open " + device + L" 0x2001f",
                         L"set " + device + L" " + kChain + L" 7 20 bytes",
                         L"close " + device,
                         L"open " + device + L" 0x2001f",
                         L"size of " + device + L" clsid 0x20",
                         L"close " + device,
                         L"delete value " + device + L" clsid",
                     }));
}

TEST(CleanCameraTransformChains, NeedsNoKeyOfTheClass) {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kClass.c_str());
    EXPECT_EQ(CleanCameraTransformChains(), 0U);
    EXPECT_FALSE(KeyExists(kClass));
    const Camera camera;
    EXPECT_EQ(CleanCameraTransformChains(), 0U);
    camera.device.SetString(L"FriendlyName", L"x");
    EXPECT_EQ(CleanCameraTransformChains(), 0U);
    EXPECT_EQ(camera.device.ReadCharacters(L"FriendlyName"), L"x\0"s);
}

TEST(CleanCameraTransformChains, EachCallRefusedInTurn) {
    enum class Left { Unchanged, Cleaned, Emptied, Nothing };
    struct Refusal {
        const char* what;
        Left left;
    };
    // The calls of MakesTheseCalls for one chain. The reader does not check its second call, and
    // its buffer is then as long as the value, and empty.
    const Refusal refusals[] = {
        {"walk of the class", Left::Unchanged},
        {"walk of the device", Left::Unchanged},
        {"open for reading", Left::Nothing},
        {"size", Left::Nothing},
        {"read", Left::Emptied},
        {"open for writing", Left::Nothing},
        {"write", Left::Nothing},
        {"none", Left::Cleaned},
    };
    CleanCameraTransformChains();
    std::size_t number = 0;
    for (const Refusal& refusal : refusals) {
        const Camera camera;
        camera.SetChain(kHooked);
        const int before = OpenHandleCount();
        {
            const CallTrace calls(kRegistry, ++number);
            EXPECT_EQ(CleanCameraTransformChains(), 0U) << refusal.what;
        }
        EXPECT_EQ(OpenHandleCount(), before) << refusal.what;
        switch (refusal.left) {
        case Left::Unchanged:
            ExpectChain(kDevice, kHooked);
            break;
        case Left::Cleaned:
            ExpectChain(kDevice, kClean);
            break;
        case Left::Emptied:
            ExpectChain(kDevice, std::wstring(kHooked.size() + 1, L'\0'));
            break;
        case Left::Nothing:
            EXPECT_FALSE(Holds(kDevice, kChain)) << refusal.what;
            break;
        }
    }
}

TEST(CleanCameraTransformChains, SkipsWhatTheWalkCannotList) {
    const Camera camera;
    camera.SetChain(kHooked);
    camera.device.SetString(L"CLSID", L"x");
    {
        FAIL_CALL(asking, RegQueryInfoKeyW, 0, ERROR_ACCESS_DENIED, NO_ERROR);
        EXPECT_EQ(CleanCameraTransformChains(), 0U);
    }
    {
        FAIL_CALL(listing, RegEnumKeyExW, 0, ERROR_ACCESS_DENIED, NO_ERROR);
        EXPECT_EQ(CleanCameraTransformChains(), 0U);
    }
    {
        FAIL_CALL(listing, RegEnumValueW, 0, ERROR_ACCESS_DENIED, NO_ERROR);
        EXPECT_EQ(CleanCameraTransformChains(), 0U);
    }
    ExpectChain(kDevice, kHooked);
    EXPECT_TRUE(Holds(kDevice, L"CLSID"));
}

TEST(CleanCameraTransformChains, CountsAFailedDeletionAndGoesOn) {
    const Camera camera;
    const ScratchKey first(kClass + L"\\#1");
    const ScratchKey last(kClass + L"\\last");
    for (const ScratchKey* key : {&first, &camera.device, &last}) {
        key->SetString(L"CLSID", L"x");
        key->SetCharacters(kChain, REG_MULTI_SZ, kHooked);
    }
    for (const int failing : {1, 2, 3}) {
        for (const ScratchKey* key : {&first, &camera.device, &last}) {
            key->SetString(L"CLSID", L"x");
            key->SetCharacters(kChain, REG_MULTI_SZ, kHooked);
        }
        FAIL_CALL(deleting, RegDeleteKeyValueW, failing, ERROR_ACCESS_DENIED, NO_ERROR);
        EXPECT_EQ(CleanCameraTransformChains(), 1603U);
        EXPECT_EQ(deleting.Calls(), 3);
        int left = 0;
        for (const ScratchKey* key : {&first, &camera.device, &last}) {
            left += Holds(key->Path(), L"CLSID") ? 1 : 0;
            ExpectChain(key->Path(), kClean);
        }
        EXPECT_EQ(left, 1);
    }
    EXPECT_EQ(CleanCameraTransformChains(), 0U);
}

// The third call is the first behind the walk; the sixth opens the key for writing.
TEST(CleanCameraTransformChains, AChangeBetweenTheWalkAndTheRewrite) {
    struct Change {
        const char* what;
        std::size_t beforeCall;
        void (*apply)(const ScratchKey& device);
        UINT result;
        std::optional<std::wstring> left;
    };
    const auto deleteValue = [](const ScratchKey& device) {
        RegDeleteValueW(device.Get(), kChain.c_str());
    };
    const auto deleteKey = [](const ScratchKey&) {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, kDevice.c_str());
    };
    const auto changeType = [](const ScratchKey& device) {
        device.SetString(kChain, kId);
    };
    const auto changeList = [](const ScratchKey& device) {
        device.SetCharacters(kChain, REG_MULTI_SZ, L"{new}\0"s + kId + L"\0{newer}\0\0"s);
    };
    const auto shorten = [](const ScratchKey& device) {
        device.SetCharacters(kChain, REG_MULTI_SZ, L"{n}\0\0"s);
    };
    const Change changes[] = {
        {"value deleted", 3, deleteValue, 1603, std::nullopt},
        {"key deleted", 3, deleteKey, 1603, std::nullopt},
        {"type changed", 3, changeType, 0, std::nullopt},
        {"list changed", 3, changeList, 0, L"{new}\0{newer}\0\0\0"s},
        {"value deleted behind the open", 4, deleteValue, 1603, std::nullopt},
        {"type changed behind the open", 4, changeType, 0, std::nullopt},
        {"list changed behind the open", 4, changeList, 0, L"{new}\0{newer}\0\0\0"s},
        // Longer than the reader's buffer: an empty list of the length asked for.
        {"list grown within the read", 5,
         [](const ScratchKey& device) {
             device.SetCharacters(kChain, REG_MULTI_SZ, std::wstring(100, L'x') + L"\0\0"s);
         },
         0, std::wstring(103, L'\0')},
        {"list shortened within the read", 5, shorten, 0, L"{n}\0\0\0"s},
        {"value deleted behind the read", 6, deleteValue, 0, kClean},
        {"list changed behind the read", 6, changeList, 0, kClean},
        {"type changed behind the read", 6, changeType, 0, kClean},
        {"key deleted behind the read", 6, deleteKey, 1603, std::nullopt},
        {"key deleted behind the second open", 7, deleteKey, 1603, std::nullopt},
    };
    for (const Change& change : changes) {
        const Camera camera;
        camera.SetChain(kHooked);
        {
            CallTrace calls(kRegistry);
            calls.before = [&](const std::wstring&) {
                if (calls.Count() == change.beforeCall) {
                    change.apply(camera.device);
                }
            };
            EXPECT_EQ(CleanCameraTransformChains(), change.result) << change.what;
            EXPECT_GE(calls.Count(), change.beforeCall) << change.what;
        }
        const std::optional<Value> left = RegistryValueAt(kDevice, kChain);
        EXPECT_EQ(left.has_value(), change.left.has_value()) << change.what;
        if (left && change.left) {
            EXPECT_EQ(*left, MultiString(*change.left)) << change.what;
        }
    }
}

TEST(CleanCameraTransformChains, AValueThatCannotBeHeldInMemoryIsDeleted) {
    CleanCameraTransformChains();
    const Camera camera;
    const int before = OpenHandleCount();
    int thrown = 0;
    int deleted = 0;
    const int reached = halvard_tests::FailEachAllocation(
        [&] { camera.SetChain(kHooked); }, [] { EXPECT_EQ(CleanCameraTransformChains(), 0U); },
        [&](bool threw) {
            EXPECT_EQ(OpenHandleCount(), before);
            thrown += threw ? 1 : 0;
            deleted += Holds(kDevice, kChain) ? 0 : 1;
            if (threw) {
                ExpectChain(kDevice, kHooked);
                EXPECT_EQ(deleted, 0) << "the walk comes first";
            }
        });
    ExpectChain(kDevice, kClean);
    EXPECT_GT(thrown, 0);
    EXPECT_GT(deleted, 0);
    EXPECT_EQ(thrown + deleted, reached);
}

TEST(CleanCameraTransformChains, LetsExceptionsOfOtherKindsPass) {
    const Camera camera;
    camera.SetChain(kHooked);
    const int before = OpenHandleCount();
    {
        HOOK(reading, RegGetValueW,
             [&](HKEY, LPCWSTR, LPCWSTR, DWORD, LPDWORD, PVOID, LPDWORD) -> LSTATUS { throw 1; });
        EXPECT_THROW(CleanCameraTransformChains(), int);
    }
    EXPECT_EQ(OpenHandleCount(), before);
    ExpectChain(kDevice, kHooked);
}

TEST(DeleteOptiqCameraGUID, ReportsTheReverseOfWhatHappened) {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kClass.c_str());
    EXPECT_EQ(DeleteOptiqCameraGUID(0), 1603U);
    const Camera camera;
    EXPECT_EQ(DeleteOptiqCameraGUID(0), 1603U);
    camera.SetChain(kHooked);
    camera.device.SetString(L"CLSID", L"x");
    {
        FAIL_CALL(deleting, RegDeleteKeyValueW, 0, ERROR_ACCESS_DENIED, NO_ERROR);
        EXPECT_EQ(DeleteOptiqCameraGUID(0), 0U);
    }
    ExpectChain(kDevice, kClean);
    EXPECT_TRUE(Holds(kDevice, L"CLSID"));
    EXPECT_EQ(DeleteOptiqCameraGUID(0), 1603U);
    EXPECT_FALSE(Holds(kDevice, L"CLSID"));
}

TEST(DeleteOptiqCameraGUID, StoresItsSessionBeforeAnythingElseAndLogsNothing) {
    const Camera camera;
    camera.device.SetString(L"CLSID", L"x");
    const halvard_tests::CurrentSessionScope current;
    const halvard_tests::StandInSession session;
    {
        const halvard_tests::CallTrace records(halvard_tests::kInstaller);
        HOOK(opening, RegOpenKeyExW,
             [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY opened) {
                 EXPECT_EQ(halvard::CurrentSession(), session.Get());
                 return opening.Original(root, subkey, options, access, opened);
             });
        DeleteOptiqCameraGUID(session.Get());
        FAIL_CALL(deleting, RegDeleteKeyValueW, 0, ERROR_ACCESS_DENIED, NO_ERROR);
        camera.device.SetString(L"CLSID", L"x");
        DeleteOptiqCameraGUID(session.Get());
        EXPECT_GT(opening.Calls(), 0);
        EXPECT_EQ(records.All(), Lines{});
    }
    EXPECT_EQ(session.Messages().size(), 0U);
}
