// What halvard_run makes of writes, answers of the installer and programs that fail.

#include "check/package_reader.h"
#include "import_hook.h"
#include "pipe_bytes.h"
#include "files.h"
#include "stand_in_session.h"
#include "verify/child.h"

#include <msiquery.h>

#include <gtest/gtest.h>

#include <algorithm>

using halvard_runner::ReaderHasGone;
using halvard_runner::WriteAll;
using halvard_runner::WriteAllToConsole;

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
