// What halvard_run makes of writes, answers of the installer and programs that fail.

#include "call_process.h"
#include "check/package_reader.h"
#include "child_programs.h"
#include "import_hook.h"
#include "files.h"
#include "pipe_bytes.h"
#include "stand_in_session.h"
#include "verify/child.h"

#include <msiquery.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

using halvard_runner::ExitCode;
using halvard_runner::ReaderHasGone;
using halvard_runner::WriteAll;
using halvard_runner::WriteAllToConsole;

namespace {

/// In the place of the process that would call the action: a program that ends without a word.
class SilentProgram {
public:
    SilentProgram()
        : program_(halvard_tests::BesideTestProgram(L"..\\support\\recorder.exe")),
          record_(L"HALVARD_RECORD", folder_.File(L"record")), code_(L"HALVARD_RECORD_EXIT", L"10"),
          naming_("GetModuleFileNameW", [this](HMODULE, wchar_t* path, DWORD) {
              program_.copy(path, program_.size());
              return static_cast<DWORD>(program_.size());
          }) {}

private:
    std::wstring program_;
    halvard_tests::ScratchFolder folder_;
    halvard_tests::EnvironmentVariable record_;
    halvard_tests::EnvironmentVariable code_;
    halvard_tests::ImportHook<&GetModuleFileNameW> naming_;
};

/// What a call that comes to nothing is refused with, and the text.
std::pair<ExitCode, std::wstring> RefusalOfACall() {
    const SilentProgram silent;
    halvard_runner::Arguments arguments;
    arguments.action = L"Action";
    try {
        halvard_runner::CallInProcess(arguments, {[](const halvard_runner::Message&) {},
                                                  [](const halvard_runner::TraceEvent&) {},
                                                  [](halvard_runner::Stream, const std::wstring&) {
                                                  }});
    } catch (const halvard_runner::RunnerError& error) {
        return {error.Code(), error.Text()};
    }
    return {ExitCode::Success, L"(not refused)"};
}

/// A call is refused as one that cannot be prepared, by a text that begins so.
void ExpectNoCall(const std::wstring& beginning) {
    const auto [code, text] = RefusalOfACall();
    EXPECT_EQ(code, ExitCode::NoSession);
    EXPECT_EQ(text.rfind(beginning, 0), 0U) << text;
}

} // namespace

TEST(CallInProcess, SaysThatAPipeCannotBeInherited) {
    FAIL_CALL(inheriting, SetHandleInformation, 2, FALSE, ERROR_ACCESS_DENIED);
    COUNT_CALLS(starting, CreateProcessW);
    ExpectNoCall(L"no pipe for the call: Win32 error 5 ");
    EXPECT_EQ(starting.Calls(), 0);
}

TEST(CallInProcess, SaysThatThereIsNoInput) {
    HOOK(opening, CreateFileW,
         [&](const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security,
             DWORD disposition, DWORD flags, HANDLE pattern) -> HANDLE {
             if (std::wstring(path) == L"NUL") {
                 SetLastError(ERROR_ACCESS_DENIED);
                 return INVALID_HANDLE_VALUE;
             }
             return opening.Original(path, access, share, security, disposition, flags, pattern);
         });
    COUNT_CALLS(starting, CreateProcessW);
    ExpectNoCall(L"no input for the call: Win32 error 5 ");
    EXPECT_EQ(starting.Calls(), 0);
}

TEST(CallInProcess, SaysThatThereIsNoListOfHandles) {
    FAIL_CALL(listing, UpdateProcThreadAttribute, 0, FALSE, ERROR_NOT_ENOUGH_MEMORY);
    COUNT_CALLS(freeing, DeleteProcThreadAttributeList);
    ExpectNoCall(L"no process for the call: Win32 error 8 ");
    EXPECT_EQ(freeing.Calls(), 1);
}

TEST(CallInProcess, TakesTheEndOfItsProcessBeforeTheCallForItsOwnFailure) {
    const auto [code, text] = RefusalOfACall();
    EXPECT_EQ(code, ExitCode::RunnerFailed);
    EXPECT_EQ(text, L"halvard_run itself failed before the call: ended process, code 10");
}

TEST(CallInProcess, SaysThatWhatIsLeftRunningEndsWithIt) {
    FAIL_CALL(limiting, SetInformationJobObject, 2, FALSE, ERROR_ACCESS_DENIED);
    std::string told;
    HOOK(writing, WriteFile,
         [&](HANDLE file, const void* bytes, DWORD size, DWORD* done, OVERLAPPED* at) -> BOOL {
             if (file != GetStdHandle(STD_ERROR_HANDLE)) {
                 return writing.Original(file, bytes, size, done, at);
             }
             told.append(static_cast<const char*>(bytes), size);
             *done = size;
             return TRUE;
         });
    RefusalOfACall();
    const std::string expected =
        "halvard_run: what the action has left running ends with it: Win32 error 5 ";
    EXPECT_EQ(told.rfind(expected, 0), 0U) << told;
}

TEST(WriteAll, GoesOnBehindWhatWasWritten) {
    std::string written;
    HOOK(writing, WriteFile,
         [&](HANDLE, const void* bytes, DWORD size, DWORD* done, OVERLAPPED*) -> BOOL {
             *done = std::min<DWORD>(size, 2);
             written.append(static_cast<const char*>(bytes), *done);
             return TRUE;
         });
    EXPECT_EQ(WriteAll(nullptr, "12345"), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(written, "12345");
    EXPECT_EQ(writing.Calls(), 3);
}

TEST(WriteAll, TakesNothingWrittenForAFailure) {
    HOOK(writing, WriteFile, [&](HANDLE, const void*, DWORD, DWORD* done, OVERLAPPED*) -> BOOL {
        *done = 0;
        return writing.Calls() < 10 ? TRUE : FALSE;
    });
    EXPECT_EQ(WriteAll(nullptr, "12345"), DWORD{ERROR_WRITE_FAULT});
    EXPECT_EQ(writing.Calls(), 1);
}

TEST(WriteAll, TellsAFailureWithoutACode) {
    FAIL_CALL(writing, WriteFile, 0, FALSE, NO_ERROR);
    EXPECT_EQ(WriteAll(nullptr, "12345"), DWORD{ERROR_WRITE_FAULT});
}

TEST(WriteAll, TellsTheCodeOfAFailure) {
    FAIL_CALL(writing, WriteFile, 0, FALSE, ERROR_DISK_FULL);
    EXPECT_EQ(WriteAll(nullptr, "12345"), DWORD{ERROR_DISK_FULL});
}

TEST(WriteAllToConsole, WritesInBlocksThatCutNoCharacter) {
    std::wstring written;
    bool isCut = false;
    HOOK(writing, WriteConsoleW,
         [&](HANDLE, const void* text, DWORD size, DWORD* done, void*) -> BOOL {
             EXPECT_LE(size, 8000U);
             *done = size;
             written.append(static_cast<const wchar_t*>(text), size);
             isCut = isCut || (written.back() >= 0xD800 && written.back() <= 0xDBFF);
             return TRUE;
         });
    const std::wstring text =
        std::wstring(7999, L'a') + L"\xD83D\xDE00" + std::wstring(20000, L'b');
    EXPECT_EQ(WriteAllToConsole(nullptr, text), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(written, text);
    EXPECT_FALSE(isCut);
    EXPECT_GT(writing.Calls(), 3);
}

TEST(WriteAllToConsole, TellsWhatIsNotWritten) {
    HOOK(writing, WriteConsoleW, [&](HANDLE, const void*, DWORD, DWORD* done, void*) -> BOOL {
        *done = writing.Calls() == 1 ? 1 : 0;
        return TRUE;
    });
    EXPECT_EQ(WriteAllToConsole(nullptr, L"12345"), DWORD{ERROR_WRITE_FAULT});
    EXPECT_EQ(writing.Calls(), 2);
}

TEST(ReaderHasGone, MeansPipesAlone) {
    HOOK(asking, GetFileType,
         [&](HANDLE file) -> DWORD { return file == nullptr ? FILE_TYPE_PIPE : FILE_TYPE_DISK; });
    HANDLE const ofADisk = INVALID_HANDLE_VALUE;
    EXPECT_TRUE(ReaderHasGone(nullptr, ERROR_BROKEN_PIPE));
    EXPECT_TRUE(ReaderHasGone(nullptr, ERROR_NO_DATA));
    EXPECT_TRUE(ReaderHasGone(nullptr, ERROR_PIPE_NOT_CONNECTED));
    EXPECT_FALSE(ReaderHasGone(nullptr, ERROR_DISK_FULL));
    EXPECT_FALSE(ReaderHasGone(ofADisk, ERROR_BROKEN_PIPE));
    EXPECT_FALSE(ReaderHasGone(ofADisk, ERROR_NO_DATA));
}

TEST(ReadPackage, SaysThatATableCannotBeLookedFor) {
    HOOK(looking, MsiDatabaseIsTablePersistentW, [&](MSIHANDLE database, const wchar_t* table) {
        return std::wstring(table) == L"Registry" ? MSICONDITION_ERROR
                                                  : looking.Original(database, table);
    });
    try {
        halvard_runner::ReadPackage(halvard_tests::BesideTestProgram(L"..\\support\\stand_in.msi"));
        ADD_FAILURE() << "the package was read";
    } catch (const halvard_runner::PackageError& error) {
        EXPECT_EQ(error.Text(), L"the table Registry cannot be looked for");
    }
}

TEST(WaitingChild, IsNoneWhereTheProgramEnds) {
    const std::wstring folder = L"T:\\waiting_child";
    halvard_tests::CreateFolders(folder);
    const std::wstring program = halvard_tests::BesideTestProgram(L"..\\support\\recorder.exe");
    std::wstring why;
    try {
        const halvard_runner::WaitingChild child(program, folder + L"\\sign", folder);
    } catch (const halvard_runner::CannotBeAsked& reason) {
        why = reason.Why();
    }
    EXPECT_EQ(why, L"the program that was to wait does not run: " + program);
    halvard_tests::RemoveTree(folder);
}
