#include "cleanup/folder_actions.h"

#include "runtime/registry.h"
#include "runtime/session.h"

#include "call_trace.h"
#include "child_programs.h"
#include "current_session.h"
#include "files.h"
#include "import_hook.h"
#include "pivot_installation.h"
#include "played_programs.h"
#include "removal_calls.h"
#include "stand_in_session.h"

#include <shlwapi.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <stdexcept>
#include <typeinfo>
#include <utility>
#include <vector>

using halvard::DeleteDMFTDirectory;
using halvard::DeletePVFolder;
using halvard::DeletePVINSTALLDIRFolder;
using halvard::DeletePVSlimINSTALLDIRFolder;
using halvard::DeleteXVRFolder;
using halvard::RegKeyError;
using halvard_tests::CallTrace;
using halvard_tests::CreateFolders;
using halvard_tests::CurrentDirectoryScope;
using halvard_tests::CurrentSessionScope;
using halvard_tests::EnvironmentVariable;
using halvard_tests::IsThere;
using halvard_tests::kInstallKey;
using halvard_tests::PivotInstallation;
using halvard_tests::ReadingOf;
using halvard_tests::ReadWholeFile;
using halvard_tests::RecorderAt;
using halvard_tests::Recording;
using halvard_tests::Recordings;
using halvard_tests::ScratchFolder;
using halvard_tests::SetRegistryString;
using halvard_tests::StandInSession;
using halvard_tests::WriteWholeFile;
using namespace std::string_literals;

namespace {

using Action = UINT(__stdcall*)(MSIHANDLE);

constexpr wchar_t kRecorderKey[] = L"SOFTWARE\\Qorta Technologies\\Install\\XVR64";
constexpr wchar_t kSlimKey[] = L"SOFTWARE\\Qorta\\Sable\\Packages\\Core-Static";
constexpr wchar_t kSlimKeyOf32Bits[] =
    L"SOFTWARE\\WOW6432Node\\Qorta\\Sable\\Packages\\Core-Static";
constexpr wchar_t kPowerShell[] = L"C:\\windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe";
constexpr wchar_t kPowerShellName[] =
    L"%SYSTEMROOT%\\System32\\WindowsPowerShell\\v1.0\\powershell.exe";
constexpr wchar_t kPowerShellArguments[] =
    L"Get-AppxPackage ZenvoCorporationInc-VSXCM* | Remove-AppxPackage -AllUsers";
// How lines of calls begin.
const std::wstring kOpenKey = L"open HKLM";
const std::wstring kLook = L"attributes of ";
const Lines kRemovals = {L"remove ", L"change entry "};

std::string Before(const std::string& text, const std::string& end) {
    return text.substr(0, text.find(end));
}

std::string CodeText(const std::error_code& code) {
    return std::to_string(code.value()) +
           (code.category() == std::system_category() ? "" : " of another category");
}

// What became of an action: its result, or the type, text, code and path of what it threw.
std::string OutcomeOf(const std::function<UINT()>& action) {
    try {
        return std::to_string(action());
    } catch (const std::filesystem::filesystem_error& error) {
        const std::string start = "filesystem error: ";
        const std::string text = error.what();
        return "filesystem_error " + Before(text.substr(start.size()), ": ") + " " +
               CodeText(error.code()) + " " + error.path1().string();
    } catch (const std::system_error& error) {
        const char* const type = typeid(error) == typeid(RegKeyError)         ? "RegKeyError"
                                 : typeid(error) == typeid(std::system_error) ? "system_error"
                                                                              : "other error";
        return std::string(type) + " " + Before(error.what(), ": ") + " " + CodeText(error.code());
    } catch (const std::out_of_range&) {
        return "out_of_range";
    }
}

const std::wstring kDrive = L"\\\\?\\T:\\";

bool IsDriveEmpty() {
    WIN32_FIND_DATAW entry = {};
    const HANDLE search = FindFirstFileW(L"T:\\*", &entry);
    if (search == INVALID_HANDLE_VALUE) {
        return true;
    }
    FindClose(search);
    return false;
}

std::wstring FinalPath(HANDLE file) {
    wchar_t path[1024] = {};
    GetFinalPathNameByHandleW(file, path, 1024, FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
    return path;
}

// Plays the programs, a system that knows no deletion with flags, and a drive that stays: it would
// really go here, with the folder that every other test needs.
class StandIns {
    halvard_tests::PlayedPrograms programs_;

    HOOK(removingFolder_, RemoveDirectoryW, [this](LPCWSTR path) {
        if (path != kDrive || !IsDriveEmpty()) {
            return removingFolder_.Original(path);
        }
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    });
    HOOK(removingEntry_, SetFileInformationByHandle,
         [this](HANDLE file, FILE_INFO_BY_HANDLE_CLASS type, LPVOID data, DWORD size) {
             const bool hasFlags = type == halvard_tests::kDispositionWithFlags;
             if (!hasFlags && FinalPath(file) != kDrive) {
                 return removingEntry_.Original(file, type, data, size);
             }
             SetLastError(hasFlags ? ERROR_INVALID_PARAMETER : ERROR_ACCESS_DENIED);
             return FALSE;
         });
};

void SetValue(const std::wstring& key, const std::wstring& name, DWORD type, const void* bytes,
              std::size_t size) {
    ASSERT_EQ(RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), name.c_str(), type, bytes,
                              static_cast<DWORD>(size)),
              ERROR_SUCCESS);
}

// A machine with the folder T:\Scratch, a session, and no registry entries of the suite; all that
// is put there goes at the end.
class Machine {
public:
    Machine() = default;
    ~Machine() {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Qorta Technologies");
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Qorta");
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\WOW6432Node\\Qorta");
    }
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    std::wstring File(const std::wstring& name) const { return scratch.File(name); }

    /// A folder of the throw-away folder with a file, and a folder that holds another.
    std::wstring Folder(const std::wstring& name) const {
        CreateFolders(File(name) + L"\\sub");
        WriteWholeFile(File(name) + L"\\file", "x"s);
        WriteWholeFile(File(name) + L"\\sub\\file", "x"s);
        return File(name);
    }
    std::wstring EmptyFolder(const std::wstring& name) const {
        CreateFolders(File(name));
        return File(name);
    }
    bool Has(const std::wstring& name) const { return IsThere(File(name)); }
    bool IsWhole(const std::wstring& name) const {
        return Has(name + L"\\file") && Has(name + L"\\sub\\file");
    }

    void SetPivotLocation(const std::wstring& folder) const {
        SetRegistryString(HKEY_LOCAL_MACHINE, kInstallKey, L"Location", folder);
    }
    void SetSlimLocation(const std::wstring& folder) const {
        SetRegistryString(HKEY_LOCAL_MACHINE, kSlimKeyOf32Bits, L"Location", folder);
    }

    /// What becomes of an action that is really run.
    std::string RunForReal(Action action) const {
        return OutcomeOf([&] { return action(session.Get()); });
    }

    /// The same with programs that are played, where the call number `nth` of those whose lines
    /// begin with `failing` fails.
    std::string Run(Action action, const std::wstring& failing = L"nothing",
                    DWORD code = ERROR_ACCESS_DENIED, std::size_t nth = 1) {
        using namespace halvard_tests;
        const StandIns standIns;
        CallTrace trace(kRegistry | kFiles | kFileQuestions | kProcesses | kChildren | kClosing);
        trace.Fail(failing, code, nth);
        std::string outcome = RunForReal(action);
        calls = trace.All();
        leftOpen = trace.LeftOpen();
        return outcome;
    }

    Lines Of(const Lines& starts) const { return halvard_tests::Beginning(calls, starts); }
    Lines Removals() const { return Of(kRemovals); }

    /// The calls of the action that was run last, and what it left open.
    Lines calls;
    Lines leftOpen;
    CurrentSessionScope current{99};
    ScratchFolder scratch;
    StandInSession session;
};

// The actions that remove one folder, and how each is told which.
struct FolderAction {
    const char* name;
    Action run;
    void (*pointTo)(const Machine& machine, const std::wstring& folder);

    bool MissingIsTheKey() const { return run == DeletePVFolder; }
};

void PrintTo(const FolderAction& action, std::ostream* stream) {
    *stream << action.name;
}

template <class Each>
std::string NameOf(const testing::TestParamInfo<Each>& info) {
    return info.param.name;
}

void PointPivotTo(const Machine& machine, const std::wstring& folder) {
    machine.SetPivotLocation(folder);
}

void PointSlimTo(const Machine& machine, const std::wstring& folder) {
    machine.SetSlimLocation(folder);
}

void NameInData(const Machine& machine, const std::wstring& folder) {
    machine.session.SetProperty(L"CustomActionData", L"InstallDir=" + folder);
}

const FolderAction kPivot = {"DeletePVFolder", DeletePVFolder, PointPivotTo};
const FolderAction kPivotInstallDir = {"DeletePVINSTALLDIRFolder", DeletePVINSTALLDIRFolder,
                                       PointPivotTo};
const FolderAction kSlim = {"DeletePVSlimINSTALLDIRFolder", DeletePVSlimINSTALLDIRFolder,
                            PointSlimTo};
const FolderAction kNamed = {"DeleteDMFTDirectory", DeleteDMFTDirectory, NameInData};

// The result of an action whose folder is not there; nothing is removed.
void ExpectMissing(const FolderAction& action, Machine& machine) {
    HKEY last = nullptr;
    HOOK(opening, RegOpenKeyExW,
         [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY opened) {
             const LSTATUS status = opening.Original(root, subkey, options, access, opened);
             last = *opened;
             return status;
         });
    const std::string outcome = machine.Run(action.run);
    const auto number = static_cast<UINT>(reinterpret_cast<ULONG_PTR>(last));
    EXPECT_EQ(outcome, action.MissingIsTheKey() ? std::to_string(number) : "0");
    EXPECT_TRUE(number != 0 || !action.MissingIsTheKey());
    EXPECT_EQ(machine.Removals(), Lines{});
}

class RemoveFolderAction : public testing::TestWithParam<FolderAction> {
protected:
    void PointTo(const std::wstring& folder) const { GetParam().pointTo(machine, folder); }
    std::string Run(const std::wstring& failing = L"nothing", std::size_t nth = 1) {
        return machine.Run(GetParam().run, failing, ERROR_ACCESS_DENIED, nth);
    }

    Machine machine;
};

} // namespace

TEST_P(RemoveFolderAction, RemovesTheFolderWithAllItHoldsAndNothingElse) {
    machine.Folder(L"other");
    const std::wstring longName(200, L'l');
    // With what the folder is called, and how the action is told.
    const std::pair<std::wstring, std::wstring> spellings[] = {
        {L"app", machine.File(L"app")},
        {L"Program Files", machine.File(L"Program Files")},
        {L"\u0416\u00e9", machine.File(L"\u0416\u00e9")},
        {longName + L"\\" + longName, machine.File(longName + L"\\" + longName)},
        {L"app", L"T:/Scratch/app"},
        {L"app", L"T:\\Scratch\\app\\"},
        {L"app", L"T:/Scratch\\app//"}};
    for (const auto& [name, spelled] : spellings) {
        machine.Folder(name);
        PointTo(spelled);
        EXPECT_EQ(Run(), "0");
        EXPECT_FALSE(machine.Has(name));
        EXPECT_TRUE(machine.IsWhole(L"other"));
    }
}

TEST_P(RemoveFolderAction, AMissingFolder) {
    PointTo(machine.File(L"missing"));
    ExpectMissing(GetParam(), machine);
}

TEST_P(RemoveFolderAction, AnEmptyPathIsNoFolderNeitherTheCurrentOne) {
    const CurrentDirectoryScope directory(machine.Folder(L"here"));
    PointTo(L"");
    ExpectMissing(GetParam(), machine);
    EXPECT_TRUE(machine.IsWhole(L"here"));
}

TEST_P(RemoveFolderAction, AFileIsLeft) {
    WriteWholeFile(machine.File(L"file"), "x"s);
    PointTo(machine.File(L"file"));
    EXPECT_EQ(Run(), "0");
    EXPECT_EQ(ReadWholeFile(machine.File(L"file")), "x");
    EXPECT_EQ(machine.Removals(), Lines{});
}

TEST_P(RemoveFolderAction, ARelativePathIsSeenFromTheCurrentDirectory) {
    machine.Folder(L"app");
    machine.Folder(L"here\\app");
    const CurrentDirectoryScope directory(machine.File(L"here"));
    PointTo(L"app");
    EXPECT_EQ(Run(), "0");
    EXPECT_FALSE(machine.Has(L"here\\app"));
    EXPECT_TRUE(machine.Has(L"here"));
    EXPECT_TRUE(machine.IsWhole(L"app"));
}

TEST_P(RemoveFolderAction, ADriveThatRefusesToGoKeepsAllItHolds) {
    machine.Folder(L"app");
    PointTo(L"T:\\");
    EXPECT_EQ(Run(L"remove "), "filesystem_error remove_all 5 T:\\");
    EXPECT_EQ(machine.Removals(), Lines{L"remove " + kDrive});
    EXPECT_TRUE(machine.IsWhole(L"app"));
}

TEST_P(RemoveFolderAction, ADriveIsEmptiedWhenItSaysThatItIsNotEmpty) {
    machine.Folder(L"app");
    WriteWholeFile(L"T:\\recorded.txt", "x"s);
    PointTo(L"T:\\");
    EXPECT_EQ(Run(), "filesystem_error remove_all 5 T:\\");
    EXPECT_TRUE(IsDriveEmpty());
    const Lines removals = machine.Removals();
    ASSERT_GE(removals.size(), 2U);
    EXPECT_EQ(removals.front(), L"remove " + kDrive);
    EXPECT_EQ(removals.back(), L"change entry T:\\ 4");
}

TEST_P(RemoveFolderAction, ALinkIsNeitherEnteredNorRemoved) {
    machine.Folder(L"target");
    const halvard_tests::Link link(machine.scratch.Path(), L"link", L"target");
    PointTo(machine.File(L"link"));
    EXPECT_EQ(Run(), "filesystem_error remove_all 145 T:\\Scratch\\link");
    EXPECT_TRUE(machine.IsWhole(L"target"));
    EXPECT_TRUE(machine.IsWhole(L"link"));
}

TEST_P(RemoveFolderAction, ALinkInTheFolderIsNotEntered) {
    machine.Folder(L"target");
    const halvard_tests::Link link(machine.EmptyFolder(L"app"), L"link", L"../target");
    PointTo(machine.File(L"app"));
    EXPECT_EQ(Run(), "filesystem_error remove_all 145 T:\\Scratch\\app");
    EXPECT_TRUE(machine.IsWhole(L"target"));
}

TEST_P(RemoveFolderAction, AFileInUseOrReadOnlyEndsTheRemoval) {
    PointTo(machine.Folder(L"app"));
    const std::wstring file = machine.File(L"app\\sub\\file");
    SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_READONLY);
    EXPECT_EQ(Run(), "filesystem_error remove_all 5 T:\\Scratch\\app");
    EXPECT_TRUE(IsThere(file));
    SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_NORMAL);

    const HANDLE held = CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    EXPECT_EQ(Run(), "filesystem_error remove_all 32 T:\\Scratch\\app");
    CloseHandle(held);
    EXPECT_TRUE(IsThere(file));
}

TEST_P(RemoveFolderAction, AFolderThatCannotBeAskedIsNotRemoved) {
    PointTo(machine.Folder(L"app"));
    // DeletePVFolder asks once more than the others.
    const std::vector<std::string> operations =
        GetParam().MissingIsTheKey() ? std::vector<std::string>{"exists", "exists", "status"}
                                     : std::vector<std::string>{"exists", "status"};
    for (std::size_t nth = 1; nth <= operations.size(); ++nth) {
        EXPECT_EQ(Run(kLook, nth),
                  "filesystem_error " + operations[nth - 1] + " 5 T:\\Scratch\\app");
        EXPECT_EQ(machine.Of({kLook}).size(), nth);
        EXPECT_EQ(machine.Removals(), Lines{});
    }
    EXPECT_TRUE(machine.IsWhole(L"app"));
}

TEST_P(RemoveFolderAction, EachRemovalFailingInTurnEndsTheRemoval) {
    // The folder, what it holds, the folder again. Whether flags are known is asked once.
    const Lines order = {
        L"remove \\\\?\\T:\\Scratch\\app", L"change entry T:\\Scratch\\app\\file 21",
        L"change entry T:\\Scratch\\app\\file 4", L"change entry T:\\Scratch\\app 4"};
    for (std::size_t nth = 1; nth <= order.size(); ++nth) {
        PointTo(machine.EmptyFolder(L"app"));
        WriteWholeFile(machine.File(L"app\\file"), "x"s);
        EXPECT_EQ(Run(order[nth - 1]), "filesystem_error remove_all 5 T:\\Scratch\\app");
        EXPECT_EQ(machine.Removals(),
                  Lines(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(nth)));
        EXPECT_TRUE(machine.Has(L"app"));
        EXPECT_EQ(machine.Has(L"app\\file"), nth < 4);
    }
}

INSTANTIATE_TEST_SUITE_P(All, RemoveFolderAction,
                         testing::Values(kPivot, kPivotInstallDir, kSlim, kNamed),
                         NameOf<FolderAction>);

namespace {

const std::wstring kPivotKey = L"HKLM\\"s + kInstallKey;

// How a program is started, waited for and asked.
Lines StartOf(const std::wstring& program, const std::wstring& arguments,
              const std::wstring& limit) {
    return {L"execute " + program + L"|" + arguments, L"wait for " + program + L" " + limit,
            L"exit code of " + program, L"close handle"};
}

const Lines kExit = ReadingOf(kPivotKey + L"\\", L"Location", L"0x2001f") +
                    StartOf(L"T:\\Scratch\\app\\pvcmd.exe", L"exit", L"30000");

const Lines kReadPivotLocation = ReadingOf(kPivotKey, L"Location", L"0x2001f");

// The calls of a question about a folder, and of the removal of an empty one.
Lines QuestionOf(const std::wstring& folder) {
    return {L"full path of " + folder, L"full path of " + folder, kLook + L"\\\\?\\" + folder};
}

Lines RemovalOf(const std::wstring& folder) {
    return QuestionOf(folder) + QuestionOf(folder) +
           Lines{L"full path of " + folder, L"full path of " + folder, L"remove \\\\?\\" + folder};
}

// The calls of an action on an empty folder T:\Scratch\app.
Lines CallsOf(const FolderAction& action) {
    Machine machine;
    action.pointTo(machine, machine.EmptyFolder(L"app"));
    EXPECT_EQ(machine.Run(action.run), "0");
    return machine.calls;
}

UINT __stdcall ExitAlone(MSIHANDLE /*session*/) {
    halvard::ExitPivotCommandProcessor();
    return 0;
}

} // namespace

TEST(ExitPivotCommandProcessor, MakesItsCallsInThisOrder) {
    Machine machine;
    machine.SetPivotLocation(machine.File(L"app"));
    machine.Run(ExitAlone);
    EXPECT_EQ(machine.calls, kExit);
}

TEST(ExitPivotCommandProcessor, PutsTheNameOfTheToolDirectlyBehindTheLocation) {
    Machine machine;
    for (const std::wstring& location :
         {L""s, L"app"s, L"T:\\"s, L"T:\\Scratch\\app\\"s, L"T:/Scratch/app/"s, L"T:\\a b"s}) {
        machine.SetPivotLocation(location);
        machine.Run(ExitAlone);
        EXPECT_EQ(machine.Of({L"execute"}), Lines{L"execute " + location + L"\\pvcmd.exe|exit"});
    }
}

TEST(DeletePVFolder, MakesItsCallsInThisOrder) {
    EXPECT_EQ(CallsOf(kPivot), kExit + kReadPivotLocation + QuestionOf(L"T:\\Scratch\\app") +
                                   RemovalOf(L"T:\\Scratch\\app"));
}

TEST(DeletePVINSTALLDIRFolder, MakesItsCallsInThisOrder) {
    EXPECT_EQ(CallsOf(kPivotInstallDir),
              StartOf(kPowerShellName, kPowerShellArguments, L"4294967295") + kReadPivotLocation +
                  RemovalOf(L"T:\\Scratch\\app"));
}

TEST(DeletePVSlimINSTALLDIRFolder, MakesItsCallsInThisOrder) {
    EXPECT_EQ(CallsOf(kSlim), ReadingOf(L"HKLM\\"s + kSlimKey, L"Location", L"0xf023f") +
                                  RemovalOf(L"T:\\Scratch\\app"));
}

TEST(DeleteDMFTDirectory, MakesItsCallsInThisOrder) {
    EXPECT_EQ(CallsOf(kNamed), RemovalOf(L"T:\\Scratch\\app"));
}

namespace {

// The actions that ask the command tool to exit before they look at a folder.
struct ExitingAction {
    const char* name;
    Action run;
};

void PrintTo(const ExitingAction& action, std::ostream* stream) {
    *stream << action.name;
}

class ExitingFolderAction : public testing::TestWithParam<ExitingAction> {
protected:
    ExitingFolderAction() {
        machine.SetPivotLocation(machine.Folder(L"app"));
        SetRegistryString(HKEY_LOCAL_MACHINE, kRecorderKey, L"InstallDir", machine.File(L"rec\\"));
        machine.Folder(L"rec\\XVR");
    }

    // Runs with one call failing: nothing is looked at or removed.
    std::string RunFailing(const std::wstring& start) {
        const std::string outcome = machine.Run(GetParam().run, start);
        EXPECT_EQ(machine.Of(kRemovals + Lines{kLook, L"is there ", L"query "}), Lines{});
        EXPECT_EQ(machine.Of({kOpenKey}).size(), 1U);
        EXPECT_TRUE(machine.IsWhole(L"app"));
        EXPECT_TRUE(machine.IsWhole(L"rec\\XVR"));
        return outcome;
    }

    Machine machine;
};

} // namespace

TEST_P(ExitingFolderAction, FailsWithoutTheInstallKey) {
    EXPECT_EQ(RunFailing(kOpenKey), "RegKeyError Unable to open registry key 5");
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Qorta Technologies\\Install\\Pivot");
    EXPECT_EQ(RunFailing(L"nothing"), "RegKeyError Unable to open registry key 2");
}

TEST_P(ExitingFolderAction, FailsWithoutItsLocation) {
    // Vanished between size and text.
    EXPECT_EQ(RunFailing(L"get "), "RegKeyError Unable to get registry value 0");
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kInstallKey, L"Location");
    EXPECT_EQ(RunFailing(L"nothing"), "RegKeyError Unable to get registry value 2");
    SetValue(kInstallKey, L"Location", REG_DWORD, "abc", 4);
    EXPECT_EQ(RunFailing(L"nothing"), "RegKeyError Unable to get registry value 1630");
}

TEST_P(ExitingFolderAction, FailsWhenTheToolCannotBeStartedOrAsked) {
    EXPECT_EQ(RunFailing(L"execute "), "system_error Unable to create process 5");
    EXPECT_EQ(RunFailing(L"exit code "), "system_error Unable to process exit code 5");
}

INSTANTIATE_TEST_SUITE_P(All, ExitingFolderAction,
                         testing::Values(ExitingAction{"Alone", ExitAlone},
                                         ExitingAction{"DeletePVFolder", DeletePVFolder},
                                         ExitingAction{"DeleteXVRFolder", DeleteXVRFolder}),
                         NameOf<ExitingAction>);

TEST(DeletePVFolder, ReturnsTheLowHalfOfTheKeyOfItsOwnReadAndNever0) {
    const Machine machine;
    machine.SetPivotLocation(machine.File(L"missing"));
    const StandIns standIns;
    const std::pair<ULONG_PTR, UINT> keys[] = {{0x1234, 0x1234},
                                               {0x500001238, 0x1238},
                                               {0xFFFFFFFFFFFFFFF4, 0xFFFFFFF4},
                                               {0x100000000, 1603}};
    for (const auto& [key, expected] : keys) {
        HKEY real = nullptr;
        HOOK(opening, RegOpenKeyExW,
             [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY opened) {
                 const LSTATUS status = opening.Original(root, subkey, options, access, opened);
                 if (opening.Calls() == 2) {
                     real = *opened;
                     *opened = reinterpret_cast<HKEY>(key);
                 }
                 return status;
             });
        HOOK(reading, RegGetValueW,
             [&](HKEY from, LPCWSTR subkey, LPCWSTR name, DWORD flags, LPDWORD type, PVOID data,
                 LPDWORD size) {
                 return reading.Original(opening.Calls() == 2 ? real : from, subkey, name, flags,
                                         type, data, size);
             });
        HOOK(closing, RegCloseKey, [&](HKEY closed) {
            return closing.Original(closed == reinterpret_cast<HKEY>(key) ? real : closed);
        });
        EXPECT_EQ(DeletePVFolder(machine.session.Get()), expected);
        EXPECT_EQ(opening.Calls(), 2);
        EXPECT_EQ(closing.Calls(), 2);
    }
}

TEST(DeletePVFolder, FailsWhenTheRegistryFailsBehindTheExitOfTheTool) {
    Machine machine;
    machine.SetPivotLocation(machine.Folder(L"app"));
    const std::pair<std::wstring, const char*> cases[] = {
        {kOpenKey, "RegKeyError Unable to open registry key 5"},
        {L"get ", "RegKeyError Unable to get registry value 0"}};
    for (const auto& [failing, outcome] : cases) {
        EXPECT_EQ(machine.Run(DeletePVFolder, failing, ERROR_ACCESS_DENIED, 2), outcome);
        EXPECT_EQ(machine.Of({L"execute "}).size(), 1U);
        EXPECT_EQ(machine.Of(kRemovals + Lines{kLook}), Lines{});
    }
    EXPECT_TRUE(machine.IsWhole(L"app"));
}

TEST(DeletePVINSTALLDIRFolder, FailsBeforeTheRegistryIsReadWhenPowerShellFails) {
    Machine machine;
    machine.SetPivotLocation(machine.Folder(L"app"));
    const std::pair<const wchar_t*, const char*> cases[] = {
        {L"execute ", "system_error Unable to create process 5"},
        {L"exit code ", "system_error Unable to process exit code 5"}};
    for (const auto& [failing, outcome] : cases) {
        EXPECT_EQ(machine.Run(DeletePVINSTALLDIRFolder, failing), outcome);
        EXPECT_EQ(machine.Of(kRemovals + Lines{kOpenKey}), Lines{});
    }
    EXPECT_TRUE(machine.IsWhole(L"app"));
}

TEST(DeletePVINSTALLDIRFolder, FailsWithoutKeyOrLocationOnceThePowerShellHasRun) {
    Machine machine;
    const auto expect = [&](const std::wstring& failing, const std::string& outcome) {
        EXPECT_EQ(machine.Run(DeletePVINSTALLDIRFolder, failing), outcome);
        EXPECT_EQ(machine.calls[0], L"execute "s + kPowerShellName + L"|" + kPowerShellArguments);
        EXPECT_EQ(machine.Of(kRemovals + Lines{kLook}), Lines{});
    };
    expect(L"nothing", "RegKeyError Unable to open registry key 2");
    machine.SetPivotLocation(machine.Folder(L"app"));
    expect(kOpenKey, "RegKeyError Unable to open registry key 5");
    expect(L"get ", "RegKeyError Unable to get registry value 0");
    EXPECT_TRUE(machine.IsWhole(L"app"));
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kInstallKey, L"Location");
    expect(L"nothing", "RegKeyError Unable to get registry value 2");
}

TEST(DeletePVSlimINSTALLDIRFolder, FailsWithoutItsKey) {
    Machine machine;
    EXPECT_EQ(machine.Run(DeletePVSlimINSTALLDIRFolder),
              "RegKeyError Unable to open registry key 2");
    // The same path in the 64-bit view is another key.
    SetRegistryString(HKEY_LOCAL_MACHINE, kSlimKey, L"Location", machine.Folder(L"app"));
    EXPECT_EQ(machine.Run(DeletePVSlimINSTALLDIRFolder),
              "RegKeyError Unable to open registry key 2");
    EXPECT_TRUE(machine.IsWhole(L"app"));

    machine.SetSlimLocation(machine.File(L"app"));
    EXPECT_EQ(machine.Run(DeletePVSlimINSTALLDIRFolder, kOpenKey),
              "RegKeyError Unable to open registry key 5");
    EXPECT_EQ(machine.Of(kRemovals + Lines{L"open ", L"size of ", L"get ", kLook}).size(), 1U);
    EXPECT_TRUE(machine.IsWhole(L"app"));
}

TEST(DeletePVSlimINSTALLDIRFolder, RemovesNothingWithoutALocation) {
    Machine machine;
    const CurrentDirectoryScope directory(machine.Folder(L"here"));
    machine.SetSlimLocation(machine.File(L"here"));
    EXPECT_EQ(machine.Run(DeletePVSlimINSTALLDIRFolder, L"get "), "0");
    EXPECT_EQ(machine.Removals(), Lines{});
    SetValue(kSlimKeyOf32Bits, L"Location", REG_BINARY, L"T:\\Scratch\\here", 32);
    ExpectMissing(kSlim, machine);
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kSlimKeyOf32Bits, L"Location");
    ExpectMissing(kSlim, machine);
    EXPECT_TRUE(machine.IsWhole(L"here"));
}

TEST(DeleteDMFTDirectory, LogsItsDataOnceAndLeavesTheCurrentSession) {
    Machine machine;
    const std::wstring data = L"First=1;InstallDir=" + machine.Folder(L"app") + L";Last=2";
    machine.session.SetProperty(L"CustomActionData", data);
    EXPECT_EQ(machine.RunForReal(DeleteDMFTDirectory), "0");
    EXPECT_FALSE(machine.Has(L"app"));
    EXPECT_EQ(machine.session.LogLines(), Lines{L"CustomActionData: " + data});
    EXPECT_EQ(machine.session.Messages().size(), 1U);
    EXPECT_EQ(halvard::CurrentSession(), 99U);
}

TEST(DeleteDMFTDirectory, RemovesNothingWithoutItsItem) {
    Machine machine;
    machine.Folder(L"app");
    const CurrentDirectoryScope directory(machine.Folder(L"here"));
    // The text from index 10 onward, which an absent key of this length would yield, is a folder.
    for (const wchar_t* data : {L"", L"Install", L"InstallDir", L"0123456789here", L"0123456789",
                                L"Folder=1;;T:\\Scratch\\app", L"installdir=T:\\Scratch\\app",
                                L"InstallDi=T:\\Scratch\\app", L"InstallDirT:\\Scratch\\app",
                                L"DLLName=a;T:\\Scratch\\app;"}) {
        machine.session.SetProperty(L"CustomActionData", data);
        ExpectMissing(kNamed, machine);
    }
    EXPECT_TRUE(machine.IsWhole(L"app"));
    EXPECT_TRUE(machine.IsWhole(L"here"));
}

TEST(DeleteDMFTDirectory, AMissingPropertyIsEmptyData) {
    Machine machine;
    ExpectMissing(kNamed, machine);
    EXPECT_EQ(machine.session.LogLines(), Lines{L"CustomActionData: "});
}

namespace {

// The recorder's entry, with a command tool that is asked to exit.
class Recorder : public Machine {
public:
    Recorder() { SetPivotLocation(File(L"app")); }

    void SetInstallDir(const std::wstring& text) const {
        SetRegistryString(HKEY_LOCAL_MACHINE, kRecorderKey, L"InstallDir", text);
    }
    void SetInstallDir(DWORD type, const void* bytes, std::size_t size) const {
        SetValue(kRecorderKey, L"InstallDir", type, bytes, size);
    }

    std::string Run(const std::wstring& failing = L"nothing", DWORD code = ERROR_ACCESS_DENIED,
                    std::size_t nth = 1) {
        return Machine::Run(DeleteXVRFolder, failing, code, nth);
    }

    /// The path that the action asks for, and its result.
    std::wstring PathAndResult() {
        const std::string outcome = Run();
        const Lines asked = Of({L"is there "});
        return (asked.size() == 1 ? asked[0] : L"not asked once") + L" " +
               std::wstring(outcome.begin(), outcome.end());
    }
};

} // namespace

TEST(DeleteXVRFolder, RemovesItsFolderAndTheOneAboveThatIsEmptyThen) {
    Recorder recorder;
    recorder.Folder(L"other");
    recorder.Folder(L"rec\\XVR");
    recorder.SetInstallDir(recorder.File(L"rec\\"));
    EXPECT_EQ(recorder.Run(), "0");
    EXPECT_FALSE(recorder.Has(L"rec"));
    EXPECT_TRUE(recorder.IsWhole(L"other"));
}

TEST(DeleteXVRFolder, LeavesTheFolderAboveThatHoldsMore) {
    Recorder recorder;
    recorder.SetInstallDir(recorder.File(L"rec\\"));
    for (const bool asFile : {true, false}) {
        recorder.Folder(L"rec\\XVR");
        const std::wstring more = recorder.File(L"rec\\more");
        asFile ? WriteWholeFile(more, "x"s) : CreateFolders(more);
        EXPECT_EQ(recorder.Run(), "0");
        EXPECT_FALSE(recorder.Has(L"rec\\XVR"));
        EXPECT_TRUE(IsThere(more));
        EXPECT_EQ(recorder.Of({L"remove \\\\?\\T:\\Scratch\\rec"}),
                  Lines{L"remove \\\\?\\T:\\Scratch\\rec\\XVR"});
        DeleteFileW(more.c_str());
    }
}

TEST(DeleteXVRFolder, MakesItsCallsInThisOrder) {
    Recorder recorder;
    recorder.EmptyFolder(L"rec\\XVR");
    recorder.SetInstallDir(recorder.File(L"rec\\"));
    EXPECT_EQ(recorder.Run(), "0");
    const std::wstring key = L"HKLM\\"s + kRecorderKey;
    const Lines readInstallDir = {L"open " + key + L" 0x20019",
                                  L"query " + key + L" InstallDir 520 bytes",
                                  L"is there T:\\Scratch\\rec\\XVR"};
    const Lines removeFolderAbove = {L"is empty T:\\Scratch\\rec", L"full path of T:\\Scratch\\rec",
                                     L"full path of T:\\Scratch\\rec",
                                     L"remove \\\\?\\T:\\Scratch\\rec"};
    EXPECT_EQ(recorder.calls,
              kExit + readInstallDir + RemovalOf(L"T:\\Scratch\\rec\\XVR") + removeFolderAbove);
}

TEST(DeleteXVRFolder, AddsNoBackslash) {
    Recorder recorder;
    recorder.Folder(L"apps\\recXVR");
    recorder.Folder(L"apps\\rec\\XVR");
    recorder.SetInstallDir(recorder.File(L"apps\\rec"));
    EXPECT_EQ(recorder.Run(), "0");
    EXPECT_FALSE(recorder.Has(L"apps\\recXVR"));
    EXPECT_TRUE(recorder.IsWhole(L"apps\\rec\\XVR"));
}

TEST(DeleteXVRFolder, ReturnsTheTypeOfTheValueWhenThereIsNoSuchFolder) {
    Recorder recorder;
    const std::wstring text = recorder.EmptyFolder(L"rec") + L"\\";
    for (const DWORD type : {REG_NONE, REG_SZ, REG_EXPAND_SZ, REG_BINARY, REG_DWORD, REG_LINK,
                             REG_MULTI_SZ, REG_QWORD}) {
        const std::size_t size = type == REG_DWORD ? 4U : type == REG_QWORD ? 8U : 36U;
        recorder.SetInstallDir(type, text.c_str(), size);
        EXPECT_EQ(recorder.Run(), std::to_string(type));
        EXPECT_EQ(recorder.Of(kRemovals + Lines{kLook, L"is empty "}), Lines{});
    }
    EXPECT_TRUE(recorder.Has(L"rec"));
}

TEST(DeleteXVRFolder, TakesTheBytesOfAnyTypeForTextUpToANull) {
    Recorder recorder;
    for (const DWORD type : {REG_SZ, REG_EXPAND_SZ, REG_MULTI_SZ, REG_BINARY, REG_NONE}) {
        for (const std::wstring& text :
             {L"T:\\Scratch\\rec\\\0"s, L"T:\\Scratch\\rec\\\0more\\"s, L"T:\\Scratch\\rec\\"s}) {
            recorder.Folder(L"rec\\XVR");
            recorder.SetInstallDir(type, text.data(), text.size() * sizeof(wchar_t));
            EXPECT_EQ(recorder.Run(), "0") << type;
            EXPECT_FALSE(recorder.Has(L"rec"));
        }
    }
}

TEST(DeleteXVRFolder, ValuesOfOddForms) {
    Recorder recorder;
    const std::wstring full = L"T:\\" + std::wstring(257, L'l');
    const std::wstring tooLong(261, L'l');
    const struct {
        DWORD type;
        std::wstring value;
        std::size_t size;
        std::wstring asked;
    } cases[] = {
        {REG_DWORD, L"AB", 4, L"ABXVR 4"},
        // The last byte is half a character.
        {REG_BINARY, L"ABC", 5, L"ABCXVR 3"},
        {REG_BINARY, L"A", 1, L"AXVR 3"},
        {REG_SZ, L"", 0, L"XVR 1"},
        {REG_SZ, L"\0behind"s, 16, L"XVR 1"},
        // A text that fills its buffer ends there.
        {REG_BINARY, full, 518, full.substr(0, 259) + L"XVR 3"},
        {REG_BINARY, full, 519, full + L"XVR 3"},
        {REG_BINARY, full, 520, full + L"XVR 3"},
        // A longer value counts as absent.
        {REG_SZ, tooLong, 521, L"XVR 0"},
        {REG_SZ, tooLong, 522, L"XVR 0"},
    };
    for (const auto& each : cases) {
        recorder.SetInstallDir(each.type, each.value.data(), each.size);
        EXPECT_EQ(recorder.PathAndResult(), L"is there " + each.asked) << each.size;
    }
}

TEST(DeleteXVRFolder, ExpandsNoVariables) {
    Recorder recorder;
    const EnvironmentVariable variable(L"HALVARD_PLACE", L"other");
    recorder.Folder(L"%HALVARD_PLACE%\\XVR");
    recorder.Folder(L"other\\XVR");
    const std::wstring text = recorder.File(L"%HALVARD_PLACE%\\");
    recorder.SetInstallDir(REG_EXPAND_SZ, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
    EXPECT_EQ(recorder.Run(), "0");
    EXPECT_FALSE(recorder.Has(L"%HALVARD_PLACE%"));
    EXPECT_TRUE(recorder.IsWhole(L"other\\XVR"));
}

TEST(DeleteXVRFolder, WithoutAReadableValueItIsXvrInTheCurrentDirectory) {
    Recorder recorder;
    const CurrentDirectoryScope directory(recorder.Folder(L"here"));
    EXPECT_EQ(recorder.PathAndResult(), L"is there XVR 0"); // no key
    SetRegistryString(HKEY_LOCAL_MACHINE, kRecorderKey, L"Other", L"x");
    EXPECT_EQ(recorder.PathAndResult(), L"is there XVR 0"); // no value

    recorder.Folder(L"rec\\XVR");
    recorder.SetInstallDir(recorder.File(L"rec\\"));
    EXPECT_EQ(recorder.Run(kOpenKey, ERROR_ACCESS_DENIED, 2), "0");
    EXPECT_EQ(recorder.Run(L"query ", ERROR_MORE_DATA), "0");
    EXPECT_TRUE(recorder.IsWhole(L"rec\\XVR"));
    EXPECT_TRUE(recorder.IsWhole(L"here"));
}

TEST(DeleteXVRFolder, ARelativeFolderGoesAndThenItHasNoFolderAbove) {
    Recorder recorder;
    const CurrentDirectoryScope directory(recorder.Folder(L"here"));
    recorder.Folder(L"here\\XVR");
    EXPECT_EQ(recorder.Run(), "out_of_range"); // no key
    EXPECT_EQ(recorder.Of({L"is empty "}), Lines{});
    EXPECT_FALSE(recorder.Has(L"here\\XVR"));
    recorder.Folder(L"here\\recXVR");
    recorder.SetInstallDir(L"rec");
    EXPECT_EQ(recorder.Run(), "out_of_range");
    EXPECT_FALSE(recorder.Has(L"here\\recXVR"));
    recorder.Folder(L"here\\rec\\XVR");
    recorder.SetInstallDir(L"rec\\");
    EXPECT_EQ(recorder.Run(), "0");
    EXPECT_FALSE(recorder.Has(L"here\\rec"));
    EXPECT_TRUE(recorder.IsWhole(L"here"));
}

TEST(DeleteXVRFolder, OnlyBackslashesCutThePath) {
    Recorder recorder;
    recorder.Folder(L"rec\\XVR");
    recorder.SetInstallDir(L"T:/Scratch/rec/");
    EXPECT_EQ(recorder.Run(), "out_of_range");
    EXPECT_EQ(recorder.Of({L"is empty "}), Lines{});
    EXPECT_FALSE(recorder.Has(L"rec\\XVR"));
    EXPECT_TRUE(recorder.Has(L"rec"));

    recorder.Folder(L"rec\\XVR");
    recorder.SetInstallDir(L"T:\\Scratch/rec/");
    EXPECT_EQ(recorder.Run(), "0");
    EXPECT_EQ(recorder.Of({L"is empty "}), Lines{L"is empty T:"});
    EXPECT_FALSE(recorder.Has(L"rec\\XVR"));
    EXPECT_TRUE(recorder.Has(L"rec"));
}

TEST(DeleteXVRFolder, AFileOfThatNameIsLeftWithItsFolder) {
    Recorder recorder;
    recorder.EmptyFolder(L"rec");
    WriteWholeFile(recorder.File(L"rec\\XVR"), "x"s);
    recorder.SetInstallDir(recorder.File(L"rec\\"));
    EXPECT_EQ(recorder.Run(), "0");
    EXPECT_EQ(ReadWholeFile(recorder.File(L"rec\\XVR")), "x");
    EXPECT_EQ(recorder.Removals(), Lines{});
}

TEST(DeleteXVRFolder, ALinkOfThatNameIsNeitherEnteredNorRemoved) {
    Recorder recorder;
    recorder.Folder(L"target");
    const halvard_tests::Link link(recorder.EmptyFolder(L"rec"), L"XVR", L"../target");
    recorder.SetInstallDir(recorder.File(L"rec\\"));
    EXPECT_EQ(recorder.Run(), "filesystem_error remove_all 145 T:\\Scratch\\rec\\XVR");
    EXPECT_EQ(recorder.Of({L"is empty "}), Lines{});
    EXPECT_TRUE(recorder.IsWhole(L"target"));
}

TEST(DeleteXVRFolder, AFolderThatCannotBeAskedOrRemovedKeepsTheOneAbove) {
    Recorder recorder;
    recorder.EmptyFolder(L"rec\\XVR");
    recorder.SetInstallDir(recorder.File(L"rec\\"));
    const struct {
        std::wstring failing;
        std::size_t nth;
        const char* operation;
    } cases[] = {{kLook, 1, "exists"}, {kLook, 2, "status"}, {L"remove ", 1, "remove_all"}};
    for (const auto& each : cases) {
        EXPECT_EQ(recorder.Run(each.failing, ERROR_ACCESS_DENIED, each.nth),
                  "filesystem_error "s + each.operation + " 5 T:\\Scratch\\rec\\XVR");
        EXPECT_EQ(recorder.Of({L"is empty "}), Lines{});
        EXPECT_TRUE(recorder.Has(L"rec\\XVR"));
    }
    WriteWholeFile(recorder.File(L"rec\\XVR\\file"), "x"s);
    const HANDLE held = CreateFileW(recorder.File(L"rec\\XVR\\file").c_str(), GENERIC_READ, 0,
                                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    EXPECT_EQ(recorder.Run(), "filesystem_error remove_all 32 T:\\Scratch\\rec\\XVR");
    CloseHandle(held);
}

TEST(DeleteXVRFolder, TheFolderAboveThatCannotBeRemoved) {
    Recorder recorder;
    recorder.SetInstallDir(recorder.File(L"rec\\"));
    recorder.EmptyFolder(L"rec\\XVR");
    EXPECT_EQ(recorder.Run(L"remove ", ERROR_ACCESS_DENIED, 2),
              "filesystem_error remove 5 T:\\Scratch\\rec");
    EXPECT_TRUE(recorder.Has(L"rec"));
    EXPECT_FALSE(recorder.Has(L"rec\\XVR"));
    // Gone already is as good.
    recorder.EmptyFolder(L"rec\\XVR");
    EXPECT_EQ(recorder.Run(L"remove ", ERROR_FILE_NOT_FOUND, 2), "0");

    recorder.EmptyFolder(L"rec\\XVR");
    const CurrentDirectoryScope directory(recorder.File(L"rec")); // in use
    EXPECT_EQ(recorder.Run(), "filesystem_error remove 32 T:\\Scratch\\rec");
}

TEST(DeleteXVRFolder, TheFolderAboveGoesAloneOrNotAtAll) {
    Recorder recorder;
    recorder.SetInstallDir(recorder.File(L"rec\\"));
    recorder.Folder(L"rec\\XVR");
    recorder.Folder(L"rec");
    // As when another program fills it behind the question.
    FAIL_CALL(emptying, PathIsDirectoryEmptyW, 0, TRUE, NO_ERROR);
    EXPECT_EQ(recorder.Run(), "filesystem_error remove 145 T:\\Scratch\\rec");
    EXPECT_TRUE(recorder.IsWhole(L"rec"));
    EXPECT_FALSE(recorder.Has(L"rec\\XVR"));
}

TEST(DeleteXVRFolder, OnADriveItsFolderGoesAndTheDriveStays) {
    Recorder recorder;
    recorder.SetInstallDir(L"T:\\");
    CreateFolders(L"T:\\XVR");
    EXPECT_EQ(recorder.Run(), "0");
    EXPECT_EQ(recorder.Of({L"is empty "}), Lines{L"is empty T:"});
    EXPECT_EQ(recorder.Removals(), Lines{L"remove " + kDrive + L"XVR"});
    EXPECT_FALSE(IsThere(L"T:\\XVR"));
    // A drive that counts as an empty folder is tried like any other.
    CreateFolders(L"T:\\XVR");
    FAIL_CALL(emptying, PathIsDirectoryEmptyW, 0, TRUE, NO_ERROR);
    EXPECT_EQ(recorder.Run(L"remove " + kDrive, ERROR_ACCESS_DENIED, 2),
              "filesystem_error remove 5 T:");
    EXPECT_EQ(recorder.Removals(), (Lines{L"remove " + kDrive + L"XVR", L"remove " + kDrive}));
    EXPECT_TRUE(IsThere(recorder.scratch.Path()));
}

TEST(DeleteXVRFolder, ALoneBackslashIsTheDriveOfTheCurrentDirectoryWithoutAFolderAbove) {
    Recorder recorder;
    const CurrentDirectoryScope directory(recorder.Folder(L"here"));
    recorder.SetInstallDir(L"\\");
    CreateFolders(L"T:\\XVR\\below");
    EXPECT_EQ(recorder.Run(), "0");
    EXPECT_EQ(recorder.Of({L"is there ", L"is empty "}), (Lines{L"is there \\XVR", L"is empty "}));
    EXPECT_FALSE(IsThere(L"T:\\XVR"));
    EXPECT_TRUE(recorder.IsWhole(L"here"));
    EXPECT_TRUE(IsThere(recorder.scratch.Path()));
}

TEST(DeleteXVRFolder, LeavesItsOwnKeyOpenOnPurposeAndNothingElse) {
    Recorder recorder;
    const auto leftOpen = [&](const std::wstring& failing, std::size_t nth) {
        recorder.EmptyFolder(L"rec\\XVR");
        recorder.Run(failing, ERROR_ACCESS_DENIED, nth);
        return recorder.leftOpen;
    };
    EXPECT_EQ(leftOpen(L"nothing", 1), Lines{}); // no key
    recorder.SetInstallDir(recorder.File(L"rec\\"));
    const Lines itsKey = {L"open HKLM\\"s + kRecorderKey + L" 0x20019"};
    EXPECT_EQ(leftOpen(L"nothing", 1), itsKey);
    for (const std::wstring& failing : {L"query "s, L"is there "s, kLook, L"remove "s}) {
        EXPECT_EQ(leftOpen(failing, 1), itsKey);
    }
    EXPECT_EQ(leftOpen(kLook, 2), itsKey);
    EXPECT_EQ(leftOpen(L"remove ", 2), itsKey);
    for (const std::wstring& failing : {kOpenKey, L"get "s, L"execute "s, L"exit code "s}) {
        EXPECT_EQ(leftOpen(failing, 1), Lines{});
    }
    EXPECT_EQ(leftOpen(kOpenKey, 2), Lines{});
}

namespace {

// The one call of an action by which a program was really started.
void ExpectOneRun(const std::wstring& program, const std::wstring& commandLine) {
    EXPECT_EQ(Recordings(),
              (std::vector<Recording>{{program, halvard_tests::CurrentDirectory(), commandLine}}));
}

} // namespace

TEST(FolderActions, ReallyAskTheCommandToolToExitWhateverItAnswers) {
    const Machine machine;
    const EnvironmentVariable exitCode(L"HALVARD_RECORD_EXIT", L"7");
    for (const wchar_t* location : {L"T:\\Apps\\Pivot", L"T:\\Apps\\With blanks"}) {
        for (const Action run : {DeletePVFolder, DeleteXVRFolder}) {
            machine.EmptyFolder(L"rec\\XVR");
            const PivotInstallation pivot(location);
            const RecorderAt tool(pivot.File(L"pvcmd.exe"));
            SetRegistryString(HKEY_LOCAL_MACHINE, kRecorderKey, L"InstallDir",
                              machine.File(L"rec\\"));
            EXPECT_EQ(machine.RunForReal(run), "0");
            ExpectOneRun(L"pvcmd.exe", L"\""s + location + L"\\pvcmd.exe\" exit");
            EXPECT_EQ(IsThere(pivot.Location()), run == DeleteXVRFolder);
        }
    }
}

TEST(FolderActions, GoOnWhenTheCommandToolDoesNotEndInTime) {
    const Machine machine;
    machine.EmptyFolder(L"rec\\XVR");
    const EnvironmentVariable delay(L"HALVARD_RECORD_DELAY", L"1500");
    const PivotInstallation pivot;
    SetRegistryString(HKEY_LOCAL_MACHINE, kRecorderKey, L"InstallDir", machine.File(L"rec\\"));
    const RecorderAt tool(pivot.File(L"pvcmd.exe"));
    std::vector<DWORD> timeouts;
    HOOK(waiting, WaitForSingleObject, [&](HANDLE handle, DWORD timeout) -> DWORD {
        if (timeout == INFINITE) {
            return waiting.Original(handle, timeout); // of the test framework
        }
        timeouts.push_back(timeout);
        return WAIT_TIMEOUT;
    });
    EXPECT_EQ(machine.RunForReal(DeleteXVRFolder), "0");
    EXPECT_FALSE(machine.Has(L"rec"));
    // A tool that still runs is in use, and so its folder stays.
    EXPECT_EQ(machine.RunForReal(DeletePVFolder), "filesystem_error remove_all 5 T:\\Apps\\Pivot");
    EXPECT_TRUE(IsThere(pivot.File(L"pvcmd.exe")));
    EXPECT_EQ(timeouts, (std::vector<DWORD>{30000, 30000}));
    halvard_tests::WaitForRecordings(2);
}

TEST(FolderActions, FailWithoutACommandToolBeforeTheirFolderIsLookedAt) {
    const Machine machine;
    machine.EmptyFolder(L"rec\\XVR");
    const PivotInstallation pivot;
    SetRegistryString(HKEY_LOCAL_MACHINE, kRecorderKey, L"InstallDir", machine.File(L"rec\\"));
    for (const Action run : {DeletePVFolder, DeleteXVRFolder}) {
        EXPECT_EQ(machine.RunForReal(run), "system_error Unable to create process 2");
    }
    EXPECT_TRUE(IsThere(pivot.Location()));
    EXPECT_TRUE(machine.Has(L"rec\\XVR"));
}

TEST(DeletePVINSTALLDIRFolder, ReallyRunsPowerShellWhateverItAnswers) {
    const Machine machine;
    machine.SetPivotLocation(machine.Folder(L"app"));
    const EnvironmentVariable exitCode(L"HALVARD_RECORD_EXIT", L"7");
    const RecorderAt powerShell(kPowerShell);
    EXPECT_EQ(machine.RunForReal(DeletePVINSTALLDIRFolder), "0");
    ExpectOneRun(L"powershell.exe", L"\""s + kPowerShell + L"\" " + kPowerShellArguments);
    EXPECT_FALSE(machine.Has(L"app"));
}
