// The probes of those differences between the engines that show in a process of the tests: each
// finds out what the engine at work does, by itself and not through the library. They have the
// names of tests/engines.toml.

#include "child_programs.h"
#include "engine_values.h"
#include "files.h"
#include "heap_check.h"
#include "installed_service.h"
#include "registry_key.h"

#include <gtest/gtest.h>

#include <windows.h>
#include <shellapi.h>
#include <shlwapi.h>
#include <xmllite.h>

#include <memory>
#include <string>

using namespace halvard_tests;
using namespace std::string_literals;

namespace {

constexpr wchar_t kService[] = L"HalvardTestService";

struct Releasing {
    void operator()(IUnknown* object) const { object->Release(); }
};

// Whether XmlLite comes to the end of a document.
bool IsReadWhole(const std::wstring& document) {
    const std::vector<BYTE> bytes = BytesOf(document);
    const std::unique_ptr<IStream, Releasing> stream(
        SHCreateMemStream(bytes.data(), static_cast<UINT>(bytes.size())));
    void* created = nullptr;
    if (FAILED(CreateXmlReader(__uuidof(IXmlReader), &created, nullptr))) {
        return false;
    }
    const std::unique_ptr<IXmlReader, Releasing> reader(static_cast<IXmlReader*>(created));
    reader->SetInput(stream.get());
    HRESULT result = S_OK;
    while (result == S_OK) {
        XmlNodeType type = XmlNodeType_None;
        result = reader->Read(&type);
    }
    return result == S_FALSE;
}

// The bytes of `value` of a key when it is asked for without a buffer.
DWORD SizeOf(const ScratchKey& key, const wchar_t* value, DWORD flags) {
    DWORD size = 0;
    EXPECT_EQ(RegGetValueW(key.Get(), L"", value, flags, nullptr, nullptr, &size), ERROR_SUCCESS);
    return size;
}

} // namespace

TEST(EngineOf, TakesTheNearestOlderReleaseForOneThatIsNotKnown) {
    EXPECT_EQ(EngineOf(nullptr), Engine::kWindows);
    EXPECT_EQ(EngineOf("8.0"), Engine::kWine8);
    EXPECT_EQ(EngineOf("8.0.2"), Engine::kWine8);
    EXPECT_EQ(EngineOf("10.0"), Engine::kWine10);
    EXPECT_EQ(EngineOf("7.22"), Engine::kWine8);
    EXPECT_EQ(EngineOf("9.0"), Engine::kWine8);
    EXPECT_EQ(EngineOf("11.3"), Engine::kWine10);
}

TEST(EngineProbe, ShellBackslashes) {
    const ScratchFolder scratch;
    const std::wstring folder = scratch.File(L"folder");
    CreateFolders(folder);
    const RecorderAt program(folder + L"\\program.exe");
    const std::wstring path = folder + L"\\\\program.exe";
    SHELLEXECUTEINFOW execution = {};
    execution.cbSize = sizeof(execution);
    execution.fMask = SEE_MASK_NOCLOSEPROCESS | SEE_MASK_NOASYNC | SEE_MASK_FLAG_NO_UI;
    execution.lpFile = path.c_str();
    ASSERT_NE(ShellExecuteExW(&execution), FALSE);
    WaitForSingleObject(execution.hProcess, INFINITE);
    CloseHandle(execution.hProcess);
    const std::vector<Recording> recordings = Recordings();
    ASSERT_EQ(recordings.size(), 1U);
    const std::wstring& line = recordings[0].commandLine;
    const std::size_t name = line.find(L"program.exe");
    ASSERT_NE(name, std::wstring::npos);
    EXPECT_EQ(name - line.find_last_not_of(L'\\', name - 1) - 1, Here(engines::kShellBackslashes));
}

TEST(EngineProbe, UnterminatedText) {
    const ScratchKey key;
    key.SetCharacters(L"Text", REG_SZ, L"abc"s);
    DWORD size = SizeOf(key, L"Text", RRF_RT_REG_SZ);
    std::wstring text(size, L'\0');
    const LSTATUS status =
        RegGetValueW(key.Get(), L"", L"Text", RRF_RT_REG_SZ, nullptr, text.data(), &size);
    EXPECT_EQ(static_cast<unsigned>(status), Here(engines::kUnterminatedText));
}

TEST(EngineProbe, EmptyList) {
    const ScratchKey key;
    key.SetBytes(L"List", REG_MULTI_SZ, {});
    EXPECT_EQ(SizeOf(key, L"List", RRF_RT_REG_MULTI_SZ), Here(engines::kEmptyList));
}

TEST(EngineProbe, SmallHeapBlocks) {
    EXPECT_EQ(SeesAWriteBehind(10), Here(engines::kSmallHeapBlocks));
}

TEST(EngineProbe, StateWithoutProcess) {
    const ScratchFolder scratch;
    const std::wstring program = scratch.File(L"service.exe");
    CopyTestService(program);
    InstalledService service(kService, program);
    service.Start();
    service.EndProcess();
    EXPECT_EQ(service.State(), Here(engines::kStateWithoutProcess));
}

TEST(EngineProbe, LongXml) {
    const auto document = [](std::size_t elements) {
        std::wstring text = L"\xFEFF<?xml version=\"1.0\" encoding=\"UTF-16\"?><a>";
        for (std::size_t element = 0; element < elements; ++element) {
            text += L"<b/>";
        }
        return text + L"</a>";
    };
    EXPECT_TRUE(IsReadWhole(document(500)));
    EXPECT_EQ(IsReadWhole(document(2000)), Here(engines::kLongXml));
}

TEST(EngineProbe, LinkTag) {
    const ScratchFolder scratch;
    CreateFolders(scratch.File(L"target"));
    CreateFolders(scratch.File(L"folder"));
    const Link link(scratch.File(L"folder"), L"link", L"../target");
    WIN32_FIND_DATAW entry = {};
    const HANDLE search = FindFirstFileW(scratch.File(L"folder\\link").c_str(), &entry);
    ASSERT_NE(search, INVALID_HANDLE_VALUE);
    FindClose(search);
    EXPECT_NE(entry.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT, 0U);
    EXPECT_EQ(entry.dwReserved0, Here(engines::kLinkTag));
}

TEST(EngineProbe, LinkRemoval) {
    const ScratchFolder scratch;
    CreateFolders(scratch.File(L"target"));
    WriteFileAt(scratch.File(L"target\\file"));
    CreateFolders(scratch.File(L"folder"));
    const Link link(scratch.File(L"folder"), L"link", L"../target");
    const bool removed = RemoveDirectoryW(scratch.File(L"folder\\link").c_str()) != FALSE;
    EXPECT_EQ(removed ? NO_ERROR : GetLastError(), Here(engines::kLinkRemoval));
}

TEST(EngineProbe, NetStop) {
    const ScratchFolder scratch;
    const std::wstring program = scratch.File(L"service.exe");
    CopyTestService(program);
    ServiceBehavior behavior;
    behavior.stopPending = 5000;
    InstalledService service(kService, program, behavior);
    service.Start();
    std::wstring line = L"net.exe stop "s + kService;
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION net = {};
    ASSERT_NE(CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW,
                             nullptr, nullptr, &startup, &net),
              FALSE);
    WaitForSingleObject(net.hProcess, INFINITE);
    const DWORD state = service.State();
    CloseHandle(net.hThread);
    CloseHandle(net.hProcess);
    service.Proceed();
    EXPECT_TRUE(service.WaitForProcess());
    EXPECT_EQ(state == SERVICE_STOPPED, Here(engines::kNetStop)) << state;
}

TEST(EngineProbe, FailFastCode) {
    EXCEPTION_RECORD error = {};
    error.ExceptionCode = STATUS_INVALID_CRUNTIME_PARAMETER;
    error.ExceptionFlags = EXCEPTION_NONCONTINUABLE;
    EXPECT_EXIT(RaiseFailFastException(&error, nullptr, 0),
                testing::ExitedWithCode(static_cast<int>(Here(engines::kFailFastCode))), "");
}
