// fault_actions: a custom-action library whose actions end, and speak, in ways that those of
// Halvard_CA do not show.

#include <windows.h>
#include <msi.h>
#include <msiquery.h>

#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>

namespace {

constexpr DWORD kVisualCppException = 0xE06D7363;
constexpr DWORD kCodeWithoutName = 0xE0000042;
// Above what an engine may keep in a part of the heap without marks.
constexpr std::size_t kBlockSize = 100000;

class OwnCategory : public std::error_category {
public:
    const char* name() const noexcept override { return "own"; }
    std::string message(int) const override { return "a text of its own"; }
};

struct NoStandardException {};

void Send(MSIHANDLE session, UINT type, const wchar_t* text) {
    const MSIHANDLE record = MsiCreateRecord(1);
    MsiRecordSetStringW(record, 0, text);
    MsiProcessMessage(session, static_cast<INSTALLMESSAGE>(type), record);
    MsiCloseHandle(record);
}

DWORD NumberProperty(MSIHANDLE session, const wchar_t* name) {
    wchar_t text[32] = {};
    DWORD length = 32;
    MsiGetPropertyW(session, name, text, &length);
    return std::wcstoul(text, nullptr, 10);
}

void ThrowAndForbidIt() noexcept {
    static_cast<void>(std::string().at(1));
}

int Deep(volatile int* above) {
    volatile int here[512] = {};
    here[0] = *above + 1;
    return here[0] < 0 ? 0 : Deep(here) + here[0];
}

// A block of the run-time or of the system; no compiler sees where a fault in it goes.
volatile char* NewBlock(bool ofTheSystem) {
    static char* volatile block;
    block = ofTheSystem ? static_cast<char*>(HeapAlloc(GetProcessHeap(), 0, kBlockSize))
                        : new char[kBlockSize];
    return block;
}

// A key that is open to the end of the process; null for none.
HKEY keptKey = nullptr;

DWORD WINAPI WriteToNullThread(void* /*parameter*/) {
    *static_cast<volatile int*>(nullptr) = 1;
    return 0;
}

} // namespace

#define ACTION(name) extern "C" __declspec(dllexport) UINT __stdcall name(MSIHANDLE session)

ACTION(ReturnResult) {
    return NumberProperty(session, L"RESULT");
}

ACTION(SendEachKind) {
    Send(session, INSTALLMESSAGE_INFO, L"first line\r\nsecond line\r\n");
    Send(session, INSTALLMESSAGE_WARNING, L"careful");
    Send(session, INSTALLMESSAGE_ERROR | MB_ICONERROR, L"\"quoted\" and \\");
    Send(session, INSTALLMESSAGE_USER | MB_OK, L"\u0416 \U0001F600");
    return ERROR_SUCCESS;
}

ACTION(LogAndWait) {
    Send(session, INSTALLMESSAGE_INFO, L"waiting");
    Sleep(NumberProperty(session, L"MILLISECONDS"));
    return ERROR_SUCCESS;
}

ACTION(LogCurrentDirectory) {
    wchar_t folder[MAX_PATH] = {};
    GetCurrentDirectoryW(MAX_PATH, folder);
    Send(session, INSTALLMESSAGE_INFO, folder);
    return ERROR_SUCCESS;
}

ACTION(ThrowOwnCategory) {
    static const OwnCategory category;
    Send(session, INSTALLMESSAGE_INFO, L"before");
    throw std::system_error(-7, category, "what was done");
}

ACTION(ThrowSystemText) {
    static_cast<void>(session);
    // Of the ANSI code page, and no UTF-8.
    throw std::runtime_error("caf\xE9");
}

ACTION(ThrowUtf8) {
    static_cast<void>(session);
    throw std::runtime_error("caf\xC3\xA9");
}

ACTION(ThrowNoMemory) {
    static_cast<void>(session);
    throw std::bad_alloc();
}

ACTION(ThrowNoStandardException) {
    static_cast<void>(session);
    throw NoStandardException();
}

ACTION(WriteToNull) {
    static_cast<void>(session);
    *static_cast<volatile int*>(nullptr) = 1;
    return ERROR_SUCCESS;
}

ACTION(WriteToNullInAnotherThread) {
    static_cast<void>(session);
    void* const thread = CreateThread(nullptr, 0, WriteToNullThread, nullptr, 0, nullptr);
    WaitForSingleObject(thread, INFINITE);
    CloseHandle(thread);
    return ERROR_SUCCESS;
}

ACTION(RaiseAsVisualCpp) {
    static_cast<void>(session);
    RaiseException(kVisualCppException, EXCEPTION_NONCONTINUABLE, 0, nullptr);
    return ERROR_SUCCESS;
}

ACTION(RaiseCodeWithoutName) {
    static_cast<void>(session);
    RaiseException(kCodeWithoutName, 0, 0, nullptr);
    return ERROR_SUCCESS;
}

ACTION(OverflowTheStack) {
    static_cast<void>(session);
    volatile int start = 0;
    return static_cast<UINT>(Deep(&start));
}

ACTION(ThrowWhereItIsForbidden) {
    static_cast<void>(session);
    ThrowAndForbidIt();
    return ERROR_SUCCESS;
}

ACTION(EndOwnThread) {
    static_cast<void>(session);
    ExitThread(12);
}

ACTION(Abort) {
    static_cast<void>(session);
    std::abort();
}

ACTION(EndOwnProcess) {
    Send(session, INSTALLMESSAGE_INFO, L"before");
    ExitProcess(NumberProperty(session, L"CODE"));
}

ACTION(EndOwnProcessAtOnce) {
    // Past what a run-time does at the end, as the system does it after damage.
    TerminateProcess(GetCurrentProcess(), NumberProperty(session, L"CODE"));
    return ERROR_SUCCESS;
}

ACTION(FailFast) {
    static_cast<void>(session);
    EXCEPTION_RECORD error = {};
    error.ExceptionCode = kCodeWithoutName;
    error.ExceptionFlags = EXCEPTION_NONCONTINUABLE;
    RaiseFailFastException(&error, nullptr, 0);
    return ERROR_SUCCESS;
}

ACTION(WriteToStreams) {
    std::printf("one\r\n\ntwo caf\xC3\xA9");
    std::fflush(stdout);
    std::fprintf(stderr, "three \"quoted\"\n");
    Send(session, INSTALLMESSAGE_INFO, L"logged");
    return ERROR_SUCCESS;
}

ACTION(WriteWithoutFlushing) {
    static_cast<void>(session);
    std::printf("kept back");
    return ERROR_SUCCESS;
}

// At the end of the process, when nothing is left of what a program destroys there.
ACTION(WorkAtTheEndOfTheProcess) {
    static_cast<void>(session);
    return static_cast<UINT>(RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE", 0, KEY_READ, &keptKey));
}

BOOL WINAPI DllMain(HINSTANCE /*library*/, DWORD reason, void* /*reserved*/) {
    if (reason == DLL_PROCESS_DETACH && keptKey != nullptr) {
        RegQueryValueExW(keptKey, L"of the end", nullptr, nullptr, nullptr, nullptr);
        OutputDebugStringW(L"the end");
    }
    return TRUE;
}

// Starts this program once more, with an action that waits, which starts a process in its turn.
ACTION(StartOthersAndWait) {
    wchar_t program[MAX_PATH] = {};
    wchar_t library[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    GetModuleFileNameW(GetModuleHandleW(L"fault_actions.dll"), library, MAX_PATH);
    std::wstring line = std::wstring(L"\"") + program +
                        L"\" LogAndWait MILLISECONDS=600000 --dll \"" + library + L"\"";
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION started = {};
    if (CreateProcessW(program, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                       &started) == FALSE) {
        return GetLastError();
    }
    Sleep(NumberProperty(session, L"MILLISECONDS"));
    return ERROR_SUCCESS;
}

// Faults that a check of the heap has to report. The result ends the session, which has nothing
// else to do.

ACTION(WriteBehindABlock) {
    static_cast<void>(session);
    volatile char* const block = NewBlock(false);
    block[kBlockSize] = 1;
    delete[] block;
    return ERROR_INSTALL_FAILURE;
}

ACTION(WriteBehindAKeptBlock) {
    static_cast<void>(session);
    NewBlock(false)[kBlockSize] = 1;
    return ERROR_INSTALL_FAILURE;
}

ACTION(WriteBehindABlockOfTheSystem) {
    static_cast<void>(session);
    volatile char* const block = NewBlock(true);
    const char former = block[kBlockSize];
    block[kBlockSize] = static_cast<char>(former ^ 1);
    HeapValidate(GetProcessHeap(), 0, nullptr);
    // Whole again: the host may come to no end with a heap that stays damaged.
    block[kBlockSize] = former;
    return ERROR_INSTALL_FAILURE;
}

ACTION(WriteIntoAFreeBlock) {
    static_cast<void>(session);
    volatile char* const block = NewBlock(false);
    delete[] block;
    block[0] = 1;
    return ERROR_INSTALL_FAILURE;
}
