#include "tasks/file_stream.h"

#include "import_hook.h"
#include "open_handles.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

using halvard::FileStream;
using halvard_tests::OpenHandleCount;

namespace {

constexpr wchar_t kFile[] = L"T:\\stream.bin";

// An interface that no stream has.
constexpr GUID kOtherInterface = {0x7279fc81, 0x709d, 0x4095, {0xb6, 0x3d, 1, 2, 3, 4, 5, 6}};

HRESULT Result(unsigned long code) {
    return static_cast<HRESULT>(code);
}

LARGE_INTEGER Move(LONGLONG distance) {
    LARGE_INTEGER move = {};
    move.QuadPart = distance;
    return move;
}

HANDLE Open(DWORD access = GENERIC_READ | GENERIC_WRITE) {
    return CreateFileW(kFile, access, FILE_SHARE_READ, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                       nullptr);
}

/// A stream over a file with the ten bytes "0123456789", used through its interface alone.
class StreamTest : public testing::Test {
protected:
    StreamTest() {
        handle_ = Open();
        DWORD written = 0;
        WriteFile(handle_, "0123456789", 10, &written, nullptr);
        SetFilePointer(handle_, 0, nullptr, FILE_BEGIN);
        stream_ = new FileStream(handle_);
    }
    ~StreamTest() override {
        if (stream_ != nullptr) {
            stream_->Release();
        }
        DeleteFileW(kFile);
    }

    ULONGLONG Position() const {
        ULARGE_INTEGER position = {};
        EXPECT_EQ(stream_->Seek(Move(0), STREAM_SEEK_CUR, &position), S_OK);
        return position.QuadPart;
    }

    HANDLE handle_;
    IStream* stream_;
};

} // namespace

TEST_F(StreamTest, KnowsItsThreeInterfacesAndAddsAReference) {
    for (const IID& interfaceId :
         {__uuidof(IUnknown), __uuidof(IStream), __uuidof(ISequentialStream)}) {
        void* found = nullptr;
        EXPECT_EQ(stream_->QueryInterface(interfaceId, &found), S_OK);
        EXPECT_EQ(found, stream_);
        EXPECT_EQ(stream_->Release(), 1U);
    }
}

TEST_F(StreamTest, RefusesOtherInterfacesAndLeavesNull) {
    for (const IID& interfaceId : {kOtherInterface, __uuidof(IDispatch), __uuidof(IPersist)}) {
        void* found = this;
        EXPECT_EQ(stream_->QueryInterface(interfaceId, &found), Result(0x80004002));
        EXPECT_EQ(found, nullptr);
    }
    EXPECT_EQ(stream_->AddRef(), 2U);
    EXPECT_EQ(stream_->Release(), 1U);
}

TEST_F(StreamTest, RefusesANullPlaceForTheInterface) {
    EXPECT_EQ(stream_->QueryInterface(__uuidof(IStream), nullptr), Result(0x80070057));
    EXPECT_EQ(stream_->QueryInterface(kOtherInterface, nullptr), Result(0x80070057));
    EXPECT_EQ(stream_->AddRef(), 2U);
    EXPECT_EQ(stream_->Release(), 1U);
}

TEST_F(StreamTest, CountsReferencesAndClosesItsHandleWithTheLast) {
    HANDLE closed = nullptr;
    HOOK(closing, CloseHandle, [&](HANDLE handle) {
        closed = handle;
        return closing.Original(handle);
    });
    EXPECT_EQ(stream_->AddRef(), 2U);
    EXPECT_EQ(stream_->AddRef(), 3U);
    EXPECT_EQ(stream_->Release(), 2U);
    EXPECT_EQ(stream_->Release(), 1U);
    EXPECT_EQ(closing.Calls(), 0);
    EXPECT_EQ(stream_->Release(), 0U);
    stream_ = nullptr;
    EXPECT_EQ(closing.Calls(), 1);
    EXPECT_EQ(closed, handle_);
}

TEST_F(StreamTest, IsSafeToCountFromSeveralThreads) {
    constexpr int rounds = 20000;
    const LPTHREAD_START_ROUTINE count = [](LPVOID stream) -> DWORD {
        for (int round = 0; round < rounds; ++round) {
            static_cast<IStream*>(stream)->AddRef();
            static_cast<IStream*>(stream)->Release();
        }
        return 0;
    };
    HANDLE threads[2] = {CreateThread(nullptr, 0, count, stream_, 0, nullptr),
                         CreateThread(nullptr, 0, count, stream_, 0, nullptr)};
    WaitForMultipleObjects(2, threads, TRUE, INFINITE);
    CloseHandle(threads[0]);
    CloseHandle(threads[1]);
    EXPECT_EQ(stream_->AddRef(), 2U);
    EXPECT_EQ(stream_->Release(), 1U);
}

TEST(FileStream, LeavesAnInvalidHandleAlone) {
    COUNT_CALLS(closing, CloseHandle);
    IStream* const stream = new FileStream(INVALID_HANDLE_VALUE);
    EXPECT_EQ(stream->Release(), 0U);
    EXPECT_EQ(closing.Calls(), 0);
}

TEST_F(StreamTest, ReadsWhatIsAskedForAndReportsIt) {
    HOOK(reading, ReadFile,
         [&](HANDLE file, LPVOID buffer, DWORD size, LPDWORD read, LPOVERLAPPED overlapped) {
             EXPECT_EQ(file, handle_);
             EXPECT_EQ(overlapped, nullptr);
             return reading.Original(file, buffer, size, read, overlapped);
         });
    char buffer[16] = {};
    ULONG read = 99;
    EXPECT_EQ(stream_->Read(buffer, 4, &read), S_OK);
    EXPECT_EQ(read, 4U);
    EXPECT_STREQ(buffer, "0123");
    EXPECT_EQ(stream_->Read(buffer, 16, &read), S_OK);
    EXPECT_EQ(read, 6U);
    EXPECT_EQ(std::string(buffer, 6), "456789");
    EXPECT_EQ(stream_->Read(buffer, 16, &read), S_OK);
    EXPECT_EQ(read, 0U);
    EXPECT_EQ(reading.Calls(), 3);
}

TEST_F(StreamTest, ReadsAndWritesWithoutAPlaceForTheCount) {
    char buffer[4] = {};
    EXPECT_EQ(stream_->Read(buffer, 3, nullptr), S_OK);
    EXPECT_STREQ(buffer, "012");
    EXPECT_EQ(stream_->Write("x", 1, nullptr), S_OK);
    EXPECT_EQ(Position(), 4U);
}

TEST_F(StreamTest, WritesWhatItIsGivenAndReportsIt) {
    HOOK(writing, WriteFile,
         [&](HANDLE file, LPCVOID buffer, DWORD size, LPDWORD written, LPOVERLAPPED overlapped) {
             EXPECT_EQ(file, handle_);
             EXPECT_EQ(overlapped, nullptr);
             return writing.Original(file, buffer, size, written, overlapped);
         });
    ULONG written = 99;
    EXPECT_EQ(stream_->Write("abc", 3, &written), S_OK);
    EXPECT_EQ(written, 3U);
    EXPECT_EQ(stream_->Write("", 0, &written), S_OK);
    EXPECT_EQ(written, 0U);
    EXPECT_EQ(writing.Calls(), 2);

    char buffer[16] = {};
    ULONG read = 0;
    EXPECT_EQ(stream_->Seek(Move(0), STREAM_SEEK_SET, nullptr), S_OK);
    EXPECT_EQ(stream_->Read(buffer, 16, &read), S_OK);
    EXPECT_STREQ(buffer, "abc3456789");
}

TEST_F(StreamTest, SeeksFromTheBeginningTheCurrentPositionAndTheEnd) {
    ULARGE_INTEGER position = {};
    EXPECT_EQ(stream_->Seek(Move(4), 0, &position), S_OK);
    EXPECT_EQ(position.QuadPart, 4U);
    EXPECT_EQ(stream_->Seek(Move(-1), 1, &position), S_OK);
    EXPECT_EQ(position.QuadPart, 3U);
    EXPECT_EQ(stream_->Seek(Move(-2), 2, &position), S_OK);
    EXPECT_EQ(position.QuadPart, 8U);
    EXPECT_EQ(stream_->Seek(Move(1), 1, nullptr), S_OK);
    EXPECT_EQ(Position(), 9U);
}

TEST_F(StreamTest, SeeksWith64Bits) {
    ULARGE_INTEGER position = {};
    EXPECT_EQ(stream_->Seek(Move(0x123456789AB), STREAM_SEEK_SET, &position), S_OK);
    EXPECT_EQ(position.QuadPart, 0x123456789ABU);
}

TEST_F(StreamTest, RefusesOtherOriginsAndDoesNotMove) {
    COUNT_CALLS(moving, SetFilePointerEx);
    for (const DWORD origin : {3UL, 4UL, 0xFFFFFFFFUL}) {
        ULARGE_INTEGER position = {};
        position.QuadPart = 77;
        EXPECT_EQ(stream_->Seek(Move(5), origin, &position), Result(0x80030001));
        EXPECT_EQ(position.QuadPart, 77U);
    }
    EXPECT_EQ(moving.Calls(), 0);
    EXPECT_EQ(Position(), 0U);
}

TEST_F(StreamTest, ASeekBeforeTheBeginningFails) {
    // ERROR_NEGATIVE_SEEK.
    EXPECT_EQ(stream_->Seek(Move(-1), STREAM_SEEK_SET, nullptr), Result(0x80070083));
}

TEST_F(StreamTest, StatFillsInTheSizeAndNothingElse) {
    STATSTG expected;
    std::memset(&expected, 0xA5, sizeof(expected));
    STATSTG status = expected;
    EXPECT_EQ(stream_->Stat(&status, STATFLAG_DEFAULT), S_OK);
    EXPECT_EQ(status.cbSize.QuadPart, 10U);
    status.cbSize = expected.cbSize;
    EXPECT_EQ(std::memcmp(&status, &expected, sizeof(status)), 0);
    EXPECT_EQ(stream_->Stat(&status, STATFLAG_NONAME), S_OK);
    EXPECT_EQ(status.cbSize.QuadPart, 10U);
}

TEST_F(StreamTest, StatTellsTheSizeWith64Bits) {
    HOOK(sizing, GetFileSizeEx, [](HANDLE, PLARGE_INTEGER size) {
        size->QuadPart = 0x123456789AB;
        return TRUE;
    });
    STATSTG status = {};
    EXPECT_EQ(stream_->Stat(&status, STATFLAG_NONAME), S_OK);
    EXPECT_EQ(status.cbSize.QuadPart, 0x123456789ABU);
    EXPECT_EQ(sizing.Calls(), 1);
}

TEST_F(StreamTest, EverythingElseIsNotImplemented) {
    const ULARGE_INTEGER size = {};
    ULARGE_INTEGER count = {};
    IStream* copy = nullptr;
    EXPECT_EQ(stream_->SetSize(size), Result(0x80004001));
    EXPECT_EQ(stream_->CopyTo(stream_, size, &count, &count), Result(0x80004001));
    EXPECT_EQ(stream_->Commit(STGC_DEFAULT), Result(0x80004001));
    EXPECT_EQ(stream_->Revert(), Result(0x80004001));
    EXPECT_EQ(stream_->LockRegion(size, size, LOCK_WRITE), Result(0x80004001));
    EXPECT_EQ(stream_->UnlockRegion(size, size, LOCK_WRITE), Result(0x80004001));
    EXPECT_EQ(stream_->Clone(&copy), Result(0x80004001));
    EXPECT_EQ(copy, nullptr);
}

TEST_F(StreamTest, AFailedCallGivesItsWin32CodeAsAResult) {
    // A code is cut to 16 bits; none, and one that is negative already, pass unchanged.
    const std::pair<DWORD, unsigned long> codes[] = {
        {ERROR_ACCESS_DENIED, 0x80070005},
        {ERROR_DISK_FULL, 0x80070070},
        {0x12345, 0x80072345},
        {NO_ERROR, 0},
        {0x80030005, 0x80030005},
    };
    char buffer[4] = {};
    for (const auto& [code, expected] : codes) {
        ULONG count = 0;
        ULARGE_INTEGER position = {};
        STATSTG status = {};
        status.cbSize.QuadPart = 77;
        FAIL_CALL(reading, ReadFile, 1, FALSE, code);
        FAIL_CALL(writing, WriteFile, 1, FALSE, code);
        FAIL_CALL(moving, SetFilePointerEx, 1, FALSE, code);
        FAIL_CALL(sizing, GetFileSizeEx, 1, FALSE, code);
        EXPECT_EQ(stream_->Read(buffer, 4, &count), Result(expected));
        EXPECT_EQ(stream_->Write(buffer, 4, &count), Result(expected));
        EXPECT_EQ(stream_->Seek(Move(0), STREAM_SEEK_SET, &position), Result(expected));
        EXPECT_EQ(stream_->Stat(&status, STATFLAG_NONAME), Result(expected));
        EXPECT_EQ(status.cbSize.QuadPart, 77U);
    }
}

TEST(FileStream, AFileOpenForReadingRefusesToBeWritten) {
    CloseHandle(Open());
    const int before = OpenHandleCount();
    IStream* const stream = new FileStream(Open(GENERIC_READ));
    ULONG written = 99;
    EXPECT_EQ(stream->Write("x", 1, &written), Result(0x80070005));
    EXPECT_EQ(written, 0U);
    stream->Release();
    EXPECT_EQ(OpenHandleCount(), before);
    DeleteFileW(kFile);
}

TEST_F(StreamTest, HasItsOperationsInTheOrderOfTheInterface) {
    // By slot, as a caller in another language finds them.
    using Slot = HRESULT(STDMETHODCALLTYPE*)(IStream*);
    void* const* const slots = *reinterpret_cast<void* const* const*>(stream_);
    const auto call = [&](int slot) {
        return reinterpret_cast<Slot>(slots[slot])(stream_);
    };
    EXPECT_EQ(call(1), 2);
    EXPECT_EQ(call(2), 1);

    IStream* same = nullptr;
    const auto query =
        reinterpret_cast<HRESULT(STDMETHODCALLTYPE*)(IStream*, REFIID, void**)>(slots[0]);
    EXPECT_EQ(query(stream_, __uuidof(IStream), reinterpret_cast<void**>(&same)), S_OK);
    EXPECT_EQ(same, stream_);
    EXPECT_EQ(call(2), 1);

    char text[4] = {};
    ULONG count = 0;
    const auto read =
        reinterpret_cast<HRESULT(STDMETHODCALLTYPE*)(IStream*, void*, ULONG, ULONG*)>(slots[3]);
    EXPECT_EQ(read(stream_, text, 3, &count), S_OK);
    EXPECT_EQ(count, 3U);
    EXPECT_STREQ(text, "012");

    const auto write =
        reinterpret_cast<HRESULT(STDMETHODCALLTYPE*)(IStream*, const void*, ULONG, ULONG*)>(
            slots[4]);
    EXPECT_EQ(write(stream_, "xy", 2, &count), S_OK);
    EXPECT_EQ(count, 2U);
    EXPECT_EQ(Position(), 5U);

    ULARGE_INTEGER position = {};
    const auto seek = reinterpret_cast<HRESULT(STDMETHODCALLTYPE*)(IStream*, LARGE_INTEGER, DWORD,
                                                                   ULARGE_INTEGER*)>(slots[5]);
    EXPECT_EQ(seek(stream_, Move(3), STREAM_SEEK_SET, &position), S_OK);
    EXPECT_EQ(position.QuadPart, 3U);
    EXPECT_EQ(read(stream_, text, 3, &count), S_OK);
    EXPECT_STREQ(text, "xy5");

    STATSTG status = {};
    const auto stat =
        reinterpret_cast<HRESULT(STDMETHODCALLTYPE*)(IStream*, STATSTG*, DWORD)>(slots[12]);
    EXPECT_EQ(stat(stream_, &status, STATFLAG_NONAME), S_OK);
    EXPECT_EQ(status.cbSize.QuadPart, 10U);
    for (const int slot : {6, 7, 8, 9, 10, 11, 13}) {
        EXPECT_EQ(call(slot), Result(0x80004001)) << slot;
    }
}
