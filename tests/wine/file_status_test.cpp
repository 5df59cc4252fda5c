#include "runtime/file_status.h"

#include "file_system_error.h"
#include "files.h"
#include "import_hook.h"
#include "open_handles.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

using halvard::FileKind;
using halvard_tests::ExpectFileSystemError;
using halvard_tests::ScratchFolder;

namespace {

// The attributes of a path that is a folder and a reparse point.
DWORD AttributesOfAReparsePoint(LPCWSTR) {
    return FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
}

// The answers to looks at an open folder that is a reparse point with this tag; a failed look at
// the tag has no answer.
std::function<BOOL(HANDLE, FILE_INFO_BY_HANDLE_CLASS, LPVOID, DWORD)>
ReparsePoint(DWORD tag, DWORD tagError = ERROR_SUCCESS) {
    return
        [tag, tagError](HANDLE, FILE_INFO_BY_HANDLE_CLASS type, LPVOID data, DWORD size) -> BOOL {
            constexpr DWORD attributes = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
            if (type == FileBasicInfo) {
                EXPECT_EQ(size, sizeof(FILE_BASIC_INFO));
                static_cast<FILE_BASIC_INFO*>(data)->FileAttributes = attributes;
                return TRUE;
            }
            EXPECT_EQ(type, FileAttributeTagInfo);
            EXPECT_EQ(size, sizeof(FILE_ATTRIBUTE_TAG_INFO));
            SetLastError(tagError);
            *static_cast<FILE_ATTRIBUTE_TAG_INFO*>(data) = {attributes, tag};
            return tagError == ERROR_SUCCESS ? TRUE : FALSE;
        };
}

} // namespace

TEST(MeansMissing, KnowsTheFourCodes) {
    for (const DWORD code :
         {ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND, ERROR_BAD_NETPATH, ERROR_INVALID_NAME}) {
        EXPECT_TRUE(halvard::MeansMissing(code)) << code;
    }
    for (const DWORD code : {NO_ERROR, ERROR_ACCESS_DENIED, ERROR_SHARING_VIOLATION,
                             ERROR_DIRECTORY, ERROR_FILENAME_EXCED_RANGE}) {
        EXPECT_FALSE(halvard::MeansMissing(code)) << code;
    }
}

TEST(SystemPath, GivesTheExtendedLengthFormOfTheFullPath) {
    EXPECT_EQ(halvard::SystemPath(L"T:\\a\\..\\b\\"), L"\\\\?\\T:\\b");
    EXPECT_EQ(halvard::SystemPath(L"T:/a/b"), L"\\\\?\\T:\\a\\b");
    EXPECT_EQ(halvard::SystemPath(L"T:\\"), L"\\\\?\\T:\\");
    EXPECT_EQ(halvard::SystemPath(L"\\\\?\\T:\\a"), L"\\\\?\\T:\\a");
    EXPECT_EQ(halvard::SystemPath(L""), L"");
    const std::wstring longName(300, L'x');
    EXPECT_EQ(halvard::SystemPath(L"T:\\" + longName), L"\\\\?\\T:\\" + longName);
}

TEST(SystemPath, LeavesTheFormThatTheServiceManagerStoresDriversIn) {
    EXPECT_EQ(halvard::SystemPath(L"\\??\\T:\\folder. "), L"\\??\\T:\\folder. ");
}

TEST(SystemPath, SeesARelativePathFromTheCurrentDirectory) {
    const std::filesystem::path directory = halvard_tests::CurrentDirectory();
    EXPECT_EQ(halvard::SystemPath(L"XVR"), L"\\\\?\\" + (directory / L"XVR").wstring());
}

TEST(SystemPath, AsksAgainWhenTheAnswerHasGrown) {
    int call = 0;
    HOOK(asking, GetFullPathNameW, [&](LPCWSTR, DWORD size, LPWSTR buffer, LPWSTR*) -> DWORD {
        ++call;
        const std::wstring answer = call < 3 ? L"T:\\a" : L"T:\\long\\path";
        if (size <= answer.size()) {
            return static_cast<DWORD>(call == 2 ? 13 : answer.size() + 1);
        }
        if (call == 2) {
            return 13;
        }
        answer.copy(buffer, answer.size());
        buffer[answer.size()] = L'\0';
        return static_cast<DWORD>(answer.size());
    });
    EXPECT_EQ(halvard::SystemPath(L"a"), L"\\\\?\\T:\\long\\path");
    EXPECT_EQ(call, 3);
}

TEST(QueryKind, TellsFilesFoldersAndWhatIsMissing) {
    const ScratchFolder scratch;
    halvard_tests::WriteWholeFile(scratch.File(L"file"), std::string("x"));
    EXPECT_EQ(halvard::QueryKind(scratch.Path(), "status"), FileKind::Directory);
    EXPECT_EQ(halvard::QueryKind(scratch.Path() + L"\\", "status"), FileKind::Directory);
    EXPECT_EQ(halvard::QueryKind(scratch.File(L"file"), "status"), FileKind::File);
    EXPECT_EQ(halvard::QueryKind(scratch.File(L"file\\"), "status"), FileKind::Missing);
    EXPECT_EQ(halvard::QueryKind(scratch.File(L"file/"), "status"), FileKind::Missing);
    EXPECT_EQ(halvard::QueryKind(scratch.File(L"missing"), "status"), FileKind::Missing);
    EXPECT_EQ(halvard::QueryKind(scratch.File(L"missing\\file"), "status"), FileKind::Missing);
    EXPECT_EQ(halvard::QueryKind(L"", "status"), FileKind::Missing);
    EXPECT_EQ(halvard::QueryKind(L"T:\\", "status"), FileKind::Directory);
}

TEST(QueryKind, FollowsALink) {
    const ScratchFolder scratch;
    halvard_tests::CreateFolders(scratch.File(L"target"));
    const halvard_tests::Link link(scratch.Path(), L"link", L"target");
    EXPECT_EQ(halvard::QueryKind(scratch.File(L"link"), "status"), FileKind::Directory);
    RemoveDirectoryW(scratch.File(L"target").c_str());
    EXPECT_EQ(halvard::QueryKind(scratch.File(L"link"), "status"), FileKind::Missing);
    halvard_tests::CreateFolders(scratch.File(L"target"));
}

// A folder that grants nothing itself tells its attributes all the same, for the one above does.
TEST(QueryKind, OpensNothingButAReparsePoint) {
    const ScratchFolder scratch;
    halvard_tests::WriteWholeFile(scratch.File(L"file"), std::string("x"));
    FAIL_CALL(opening, CreateFileW, 0, INVALID_HANDLE_VALUE, ERROR_ACCESS_DENIED);
    EXPECT_EQ(halvard::QueryKind(scratch.Path(), "status"), FileKind::Directory);
    EXPECT_EQ(halvard::QueryKind(scratch.File(L"file"), "status"), FileKind::File);
    EXPECT_EQ(halvard::QueryKind(scratch.File(L"missing"), "status"), FileKind::Missing);
    EXPECT_EQ(opening.Calls(), 0);
    HOOK(asking, GetFileAttributesW, AttributesOfAReparsePoint);
    ExpectFileSystemError([&] { halvard::ExistsOrThrow(scratch.Path()); }, "exists", scratch.Path(),
                          ERROR_ACCESS_DENIED);
    EXPECT_EQ(opening.Calls(), 1);
}

TEST(QueryKind, AsksForTheAttributesOfTheExtendedLengthForm) {
    HOOK(asking, GetFileAttributesW, [](LPCWSTR path) -> DWORD {
        EXPECT_EQ(std::wstring(path), L"\\\\?\\T:\\folder");
        return FILE_ATTRIBUTE_DIRECTORY;
    });
    EXPECT_EQ(halvard::QueryKind(L"T:/folder", "status"), FileKind::Directory);
    EXPECT_EQ(asking.Calls(), 1);
}

TEST(QueryKind, OpensAReparsePointWithEverySharingMode) {
    HOOK(asking, GetFileAttributesW, AttributesOfAReparsePoint);
    HOOK(opening, CreateFileW,
         [](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES, DWORD disposition,
            DWORD flags, HANDLE) -> HANDLE {
             EXPECT_EQ(std::wstring(path), L"\\\\?\\T:\\folder");
             EXPECT_EQ(access, static_cast<DWORD>(FILE_READ_ATTRIBUTES));
             EXPECT_EQ(share, 7U);
             EXPECT_EQ(disposition, static_cast<DWORD>(OPEN_EXISTING));
             EXPECT_EQ(flags, static_cast<DWORD>(FILE_FLAG_BACKUP_SEMANTICS));
             SetLastError(ERROR_PATH_NOT_FOUND);
             return INVALID_HANDLE_VALUE;
         });
    EXPECT_EQ(halvard::QueryKind(L"T:\\folder", "status"), FileKind::Missing);
    EXPECT_EQ(opening.Calls(), 1);
}

TEST(QueryKind, KnowsALinkThatCannotBeFollowedByItsTag) {
    const ScratchFolder scratch;
    HOOK(asking, GetFileAttributesW, AttributesOfAReparsePoint);
    {
        HOOK(tag, GetFileInformationByHandleEx, ReparsePoint(IO_REPARSE_TAG_SYMLINK));
        EXPECT_EQ(halvard::QueryKind(scratch.Path(), "status"), FileKind::SymbolicLink);
        EXPECT_FALSE(halvard::IsDirectory(scratch.Path()));
    }
    {
        HOOK(tag, GetFileInformationByHandleEx, ReparsePoint(IO_REPARSE_TAG_MOUNT_POINT));
        EXPECT_EQ(halvard::QueryKind(scratch.Path(), "status"), FileKind::Junction);
    }
    {
        HOOK(tag, GetFileInformationByHandleEx, ReparsePoint(IO_REPARSE_TAG_DEDUP));
        EXPECT_EQ(halvard::QueryKind(scratch.Path(), "status"), FileKind::Directory);
    }
}

TEST(QueryKind, AReparsePointThatIsOneNoMoreIsWhatItHasBecome) {
    const ScratchFolder scratch;
    HOOK(listed, GetFileAttributesW, AttributesOfAReparsePoint);
    HOOK(asking, GetFileInformationByHandleEx,
         [&](HANDLE file, FILE_INFO_BY_HANDLE_CLASS type, LPVOID data, DWORD size) {
             const BOOL done = asking.Original(file, type, data, size);
             if (type == FileBasicInfo) {
                 static_cast<FILE_BASIC_INFO*>(data)->FileAttributes |=
                     FILE_ATTRIBUTE_REPARSE_POINT;
             }
             return done;
         });
    EXPECT_EQ(halvard::QueryKind(scratch.Path(), "status"), FileKind::Directory);
    EXPECT_EQ(asking.Calls(), 2);
}

TEST(QueryKind, FourCodesMeanMissingAndOthersThrow) {
    for (const DWORD code : {2U, 3U, 53U, 123U}) {
        FAIL_CALL(asking, GetFileAttributesW, 0, INVALID_FILE_ATTRIBUTES, code);
        EXPECT_EQ(halvard::QueryKind(L"T:\\folder", "exists"), FileKind::Missing) << code;
    }
    // What a reparse point leads to.
    for (const DWORD code : {2U, 3U, 53U, 123U}) {
        HOOK(asking, GetFileAttributesW, AttributesOfAReparsePoint);
        FAIL_CALL(opening, CreateFileW, 0, INVALID_HANDLE_VALUE, code);
        EXPECT_EQ(halvard::QueryKind(L"T:\\folder", "exists"), FileKind::Missing) << code;
    }
    for (const DWORD code : {5U, 32U, 206U}) {
        FAIL_CALL(asking, GetFileAttributesW, 0, INVALID_FILE_ATTRIBUTES, code);
        ExpectFileSystemError([] { halvard::ExistsOrThrow(L"T:\\folder"); }, "exists",
                              L"T:\\folder", static_cast<int>(code));
        ExpectFileSystemError([] { halvard::IsDirectory(L"T:\\folder"); }, "status", L"T:\\folder",
                              static_cast<int>(code));
    }
}

TEST(QueryKind, AFailedLookAtAnOpenFileThrowsAndClosesIt) {
    const ScratchFolder scratch;
    HOOK(asking, GetFileAttributesW, AttributesOfAReparsePoint);
    const auto query = [&] {
        halvard::QueryKind(scratch.Path(), "status");
    };
    {
        FAIL_CALL(reading, GetFileInformationByHandleEx, 1, FALSE, ERROR_GEN_FAILURE);
        ExpectFileSystemError(query, "status", scratch.Path(), ERROR_GEN_FAILURE);
    }
    const int before = halvard_tests::OpenHandleCount();
    {
        FAIL_CALL(reading, GetFileInformationByHandleEx, 1, FALSE, ERROR_GEN_FAILURE);
        ExpectFileSystemError(query, "status", scratch.Path(), ERROR_GEN_FAILURE);
    }
    {
        HOOK(tag, GetFileInformationByHandleEx, ReparsePoint(0, ERROR_INVALID_FUNCTION));
        ExpectFileSystemError(query, "status", scratch.Path(), ERROR_INVALID_FUNCTION);
    }
    // As on a network whose server has gone meanwhile.
    for (const DWORD code : {2U, 3U, 53U, 123U}) {
        FAIL_CALL(reading, GetFileInformationByHandleEx, 1, FALSE, code);
        EXPECT_EQ(halvard::QueryKind(scratch.Path(), "status"), FileKind::Missing) << code;
        EXPECT_EQ(reading.Calls(), 1);
    }
    EXPECT_EQ(halvard_tests::OpenHandleCount(), before);
}

TEST(ThrowFileSystemError, TakesPathsThatAreNoText) {
    const std::wstring path = {L'T', L':', L'\\', static_cast<wchar_t>(0xD800)};
    ExpectFileSystemError([&] { halvard::ThrowFileSystemError("remove", path, 5); }, "remove",
                          L"T:\\\xFFFD", 5);
}

TEST(AreEquivalent, ComparesIdentitiesAndNotSpellings) {
    const ScratchFolder scratch;
    halvard_tests::CreateFolders(scratch.File(L"Svc"));
    halvard_tests::CreateFolders(scratch.File(L"Other"));
    EXPECT_TRUE(halvard::AreEquivalent(scratch.File(L"Svc"), L"t:/scratch/svc/../SVC/"));
    EXPECT_FALSE(halvard::AreEquivalent(scratch.File(L"Svc"), scratch.File(L"Other")));
    EXPECT_FALSE(halvard::AreEquivalent(scratch.File(L"Svc"), L"C:\\windows"));
}

TEST(AreEquivalent, FallsBackToTheIdentityOf64Bits) {
    const ScratchFolder scratch;
    halvard_tests::CreateFolders(scratch.File(L"Svc"));
    halvard_tests::CreateFolders(scratch.File(L"Other"));
    FAIL_CALL(wide, GetFileInformationByHandleEx, 0, FALSE, ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(halvard::AreEquivalent(scratch.File(L"Svc"), scratch.File(L"SVC")));
    EXPECT_FALSE(halvard::AreEquivalent(scratch.File(L"Svc"), scratch.File(L"Other")));
    FAIL_CALL(narrow, GetFileInformationByHandle, 0, FALSE, ERROR_GEN_FAILURE);
    ExpectFileSystemError(
        [&] { halvard::AreEquivalent(scratch.File(L"Svc"), scratch.File(L"Other")); }, "equivalent",
        scratch.File(L"Svc"), ERROR_GEN_FAILURE);
}

TEST(AreEquivalent, DiffersByVolumeAloneAndByFileAlone) {
    int call = 0;
    ULONGLONG volumes[2] = {};
    BYTE files[2] = {};
    HOOK(identity, GetFileInformationByHandleEx,
         [&](HANDLE, FILE_INFO_BY_HANDLE_CLASS type, LPVOID data, DWORD) -> BOOL {
             EXPECT_EQ(type, FileIdInfo);
             FILE_ID_INFO info = {};
             info.VolumeSerialNumber = volumes[call % 2];
             info.FileId.Identifier[15] = files[call % 2];
             *static_cast<FILE_ID_INFO*>(data) = info;
             ++call;
             return TRUE;
         });
    EXPECT_TRUE(halvard::AreEquivalent(L"T:\\", L"T:\\"));
    volumes[1] = 1;
    EXPECT_FALSE(halvard::AreEquivalent(L"T:\\", L"T:\\"));
    volumes[1] = 0;
    files[0] = 1;
    EXPECT_FALSE(halvard::AreEquivalent(L"T:\\", L"T:\\"));
}

TEST(AreEquivalent, ThrowsWhenEitherLeadsNowhere) {
    const ScratchFolder scratch;
    const std::wstring missing = scratch.File(L"missing");
    ExpectFileSystemError([&] { halvard::AreEquivalent(missing, scratch.Path()); }, "equivalent",
                          missing, ERROR_FILE_NOT_FOUND);
    ExpectFileSystemError([&] { halvard::AreEquivalent(scratch.Path(), missing); }, "equivalent",
                          scratch.Path(), ERROR_FILE_NOT_FOUND);
    ExpectFileSystemError([&] { halvard::AreEquivalent(scratch.Path(), L""); }, "equivalent",
                          scratch.Path(), ERROR_PATH_NOT_FOUND);
}
