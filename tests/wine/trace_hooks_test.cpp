// The hooks of halvard_run's trace, called by themselves: what they tell where calls fail.

#include "files.h"
#include "import_hook.h"
#include "registry_key.h"
#include "stand_in_session.h"
#include "text_output.h"
#include "trace/hook.h"
#include "trace/tracer.h"

#include <shellapi.h>
#include <winternl.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

using halvard_runner::FailureResult;
using halvard_runner::FailureSign;
using halvard_runner::FindDetail;
using halvard_runner::Hook;
using halvard_runner::TraceDetails;
using halvard_runner::TraceEvent;
using halvard_runner::TraceMode;
using halvard_runner::TraceResult;
using halvard_runner::Word;
using halvard_runner::Words;
using halvard_tests::ScratchFolder;
using halvard_tests::ScratchKey;
namespace words = halvard_runner::trace_words;

namespace {

template <class Type>
Word WordOf(Type value) {
    if constexpr (std::is_pointer_v<Type>) {
        return reinterpret_cast<std::uintptr_t>(value);
    } else {
        return static_cast<Word>(value);
    }
}

/// A trace of no library: the hooks are called by their names.
class Trace {
public:
    explicit Trace(TraceMode mode) {
        // The system's own library imports nothing, so nothing is redirected.
        halvard_runner::StartTrace(
            GetModuleHandleW(L"ntdll.dll"), mode,
            [events = events_](const TraceEvent& event) { events->push_back(event); });
        for (auto* const group : {halvard_runner::ProgramHooks, halvard_runner::FileHooks,
                                  halvard_runner::RegistryHooks, halvard_runner::OtherHooks}) {
            for (Hook& hook : group()) {
                hooks_.push_back(std::move(hook));
            }
        }
    }

    /// What a library would be answered that calls `original` by this name.
    template <class Function, class... Arguments>
    Word Call(const char* name, Function* original, Arguments... arguments) const {
        const auto hook = std::find_if(hooks_.begin(), hooks_.end(), [&](const Hook& each) {
            return std::string(each.function) == name;
        });
        if (hook == hooks_.end()) {
            throw std::runtime_error(std::string("there is no hook for ") + name);
        }
        const Words given = {WordOf(arguments)...};
        halvard_runner::HookedCall call(reinterpret_cast<void*>(original), given, GetLastError());
        const Word result = hook->run(call);
        SetLastError(call.LastError());
        return result;
    }

    [[nodiscard]] const std::vector<TraceEvent>& Events() const { return *events_; }

    /// The last event; one without words where there is none.
    [[nodiscard]] TraceEvent Last() const {
        return events_->empty() ? TraceEvent{} : events_->back();
    }

private:
    std::shared_ptr<std::vector<TraceEvent>> events_ = std::make_shared<std::vector<TraceEvent>>();
    std::vector<Hook> hooks_;
};

HANDLE startedByShell = nullptr;

BOOL WINAPI StartByShell(SHELLEXECUTEINFOW* execution) {
    execution->hProcess = startedByShell;
    return TRUE;
}

/// A program that runs until it is told to end.
class RunningProgram {
public:
    RunningProgram() {
        std::wstring program = halvard_tests::BesideTestProgram(L"..\\support\\recorder.exe");
        STARTUPINFOW startup = {};
        startup.cb = sizeof startup;
        EXPECT_TRUE(CreateProcessW(program.c_str(), nullptr, nullptr, nullptr, FALSE,
                                   CREATE_SUSPENDED, nullptr, nullptr, &startup, &started_));
    }
    ~RunningProgram() {
        End(0);
        CloseHandle(started_.hThread);
        CloseHandle(started_.hProcess);
    }
    RunningProgram(const RunningProgram&) = delete;
    RunningProgram& operator=(const RunningProgram&) = delete;

    void End(UINT code) const {
        TerminateProcess(started_.hProcess, code);
        WaitForSingleObject(started_.hProcess, INFINITE);
    }
    [[nodiscard]] HANDLE Get() const { return started_.hProcess; }

private:
    PROCESS_INFORMATION started_ = {};
};

BOOL WINAPI DoNotClose(HANDLE /*handle*/) {
    return TRUE;
}

/// The event of the end of a program that the library starts, asks for its code and lets go.
TraceEvent EndOf(const Trace& trace, HANDLE program) {
    startedByShell = program;
    SHELLEXECUTEINFOW execution = {};
    execution.lpFile = L"a.exe";
    trace.Call("ShellExecuteExW", StartByShell, &execution);
    DWORD code = 0;
    trace.Call("GetExitCodeProcess", GetExitCodeProcess, program, &code);
    trace.Call("CloseHandle", DoNotClose, program);
    return trace.Last();
}

/// How a program was started; nothing of it is kept to ask for.
struct Start {
    BOOL inherits = FALSE;
    DWORD flags = 0;
};

Start lastStart;

BOOL WINAPI NoteStart(const wchar_t* /*program*/, wchar_t* /*line*/,
                      SECURITY_ATTRIBUTES* /*process*/, SECURITY_ATTRIBUTES* /*thread*/,
                      BOOL inherits, DWORD flags, void* /*environment*/, const wchar_t* /*folder*/,
                      STARTUPINFOW* /*startup*/, PROCESS_INFORMATION* /*started*/) {
    lastStart = {inherits, flags};
    SetLastError(ERROR_FILE_NOT_FOUND);
    return FALSE;
}

/// How a program starts that the library starts without anything to print to.
Start StartOf(const Trace& trace) {
    wchar_t line[] = L"a.exe";
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION started = {};
    auto* const none = static_cast<SECURITY_ATTRIBUTES*>(nullptr);
    auto* const noText = static_cast<wchar_t*>(nullptr);
    trace.Call("CreateProcessW", NoteStart, noText, line, none, none, FALSE, CREATE_NO_WINDOW,
               static_cast<void*>(nullptr), noText, &startup, &started);
    return lastStart;
}

LSTATUS WINAPI RefuseToList(HKEY, DWORD, wchar_t*, DWORD*, DWORD*, DWORD*, BYTE*, DWORD*) {
    return ERROR_ACCESS_DENIED;
}

BOOL WINAPI FindAnother(HANDLE /*search*/, WIN32_FIND_DATAW* found) {
    *found = {};
    found->cFileName[0] = L'x';
    return TRUE;
}

} // namespace

TEST(TracedProgram, HasTheCodeOfAnEndThatComesMeanwhile) {
    const Trace trace(TraceMode::Trace);
    const RunningProgram program;
    HOOK(waiting, WaitForSingleObject, [&](HANDLE handle, DWORD milliseconds) {
        if (milliseconds == 0) {
            program.End(7);
        }
        return waiting.Original(handle, milliseconds);
    });
    const TraceEvent end = EndOf(trace, program.Get());
    EXPECT_EQ(end.what, words::kEnds);
    EXPECT_EQ(end.code, 7);
    EXPECT_EQ(end.result, TraceResult::Failed);
}

TEST(TracedProgram, HasAnUnknownEndWhereItCannotBeAskedFor) {
    const Trace trace(TraceMode::Trace);
    const RunningProgram program;
    FAIL_CALL(duplicating, DuplicateHandle, 0, FALSE, ERROR_ACCESS_DENIED);
    const TraceEvent end = EndOf(trace, program.Get());
    EXPECT_EQ(duplicating.Calls(), 1);
    EXPECT_EQ(end.what, words::kEnds);
    EXPECT_FALSE(end.code.has_value());
    const std::wstring* const answer = FindDetail(end, words::kAnswer);
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(*answer, L"not known");
}

TEST(TracedProgram, StillRunsWhereItDoes) {
    const Trace trace(TraceMode::Trace);
    const RunningProgram program;
    const TraceEvent end = EndOf(trace, program.Get());
    EXPECT_EQ(end.what, words::kStillRuns);
    EXPECT_FALSE(end.code.has_value());
}

TEST(TracedProgram, StartsAsItIsWhereItsOutputCannotBeHad) {
    const Trace trace(TraceMode::Trace);
    const Start heard = StartOf(trace);
    EXPECT_EQ(heard.inherits, TRUE);
    EXPECT_EQ(heard.flags, DWORD{CREATE_NO_WINDOW | EXTENDED_STARTUPINFO_PRESENT});
    const auto expectAsItIs = [&] {
        const Start start = StartOf(trace);
        EXPECT_EQ(start.inherits, FALSE);
        EXPECT_EQ(start.flags, DWORD{CREATE_NO_WINDOW});
    };
    {
        FAIL_CALL(listing, UpdateProcThreadAttribute, 0, FALSE, ERROR_NOT_ENOUGH_MEMORY);
        expectAsItIs();
    }
    FAIL_CALL(opening, CreateFileW, 0, INVALID_HANDLE_VALUE, ERROR_ACCESS_DENIED);
    expectAsItIs();
}

TEST(TracedKey, IsOpenedByADryRunWhereItIsThere) {
    const ScratchKey key;
    const Trace trace(TraceMode::DryRun);
    const auto create = [&](const std::wstring& path) {
        HKEY opened = nullptr;
        DWORD disposition = 0;
        const Word code =
            trace.Call("RegCreateKeyExW", RegCreateKeyExW, HKEY_LOCAL_MACHINE, path.c_str(), 0,
                       static_cast<wchar_t*>(nullptr), 0, KEY_READ,
                       static_cast<SECURITY_ATTRIBUTES*>(nullptr), &opened, &disposition);
        if (opened != nullptr) {
            trace.Call("RegCloseKey", RegCloseKey, opened);
        }
        return static_cast<DWORD>(code);
    };
    EXPECT_EQ(create(key.Path()), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(trace.Last().what, words::kOpensKey);
    EXPECT_EQ(trace.Last().target, key.FullPath());
    EXPECT_EQ(trace.Last().result, TraceResult::Done);

    EXPECT_EQ(create(key.Path() + L"\\missing"), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(trace.Last().what, L"creates key");
    EXPECT_EQ(trace.Last().result, TraceResult::NotMade);
    EXPECT_FALSE(halvard_tests::KeyExists(key.Path() + L"\\missing"));

    FAIL_CALL(opening, RegOpenKeyExW, 0, ERROR_SHARING_VIOLATION, NO_ERROR);
    EXPECT_EQ(create(key.Path()), DWORD{ERROR_SHARING_VIOLATION});
    EXPECT_EQ(trace.Last().what, words::kOpensKey);
    EXPECT_EQ(trace.Last().code, ERROR_SHARING_VIOLATION);
}

TEST(TracedValue, IsToldByItsNumberWhereItCannotBeListed) {
    const ScratchKey key;
    const Trace trace(TraceMode::Trace);
    wchar_t name[8] = {};
    BYTE data[8] = {};
    DWORD length = 8;
    DWORD type = 0;
    DWORD size = 8;
    trace.Call("RegEnumValueW", RefuseToList, key.Get(), 1, name, &length,
               static_cast<DWORD*>(nullptr), &type, data, &size);
    EXPECT_EQ(trace.Last().code, ERROR_ACCESS_DENIED);
    EXPECT_NE(trace.Last().target.find(L" : (number 1)"), std::wstring::npos);
    EXPECT_EQ(trace.Last().details,
              (TraceDetails{{words::kMeans, halvard_runner::MeaningOf(ERROR_ACCESS_DENIED)}}));
}

TEST(TracedValue, IsGoneForADryRunWhereItIsNotThere) {
    const ScratchKey key;
    key.SetString(L"there", L"text");
    const Trace trace(TraceMode::DryRun);
    const auto remove = [&](const wchar_t* name) {
        return static_cast<DWORD>(trace.Call("RegDeleteValueW", RegDeleteValueW, key.Get(), name));
    };
    EXPECT_EQ(remove(L"there"), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(trace.Last().result, TraceResult::NotMade);
    EXPECT_EQ(remove(L"missing"), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(trace.Last().code, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(key.ReadCharacters(L"there").substr(0, 4), L"text");
}

TEST(TracedListing, NamesPathsAsUsersWriteThem) {
    const ScratchFolder folder;
    halvard_tests::WriteFileAt(folder.File(L"one"));
    const Trace trace(TraceMode::Trace);
    const std::wstring pattern = L"\\\\?\\" + folder.Path() + L"\\*";
    WIN32_FIND_DATAW found = {};
    const Word search = trace.Call("FindFirstFileW", FindFirstFileW, pattern.c_str(), &found);
    while (trace.Call("FindNextFileW", FindNextFileW, search, &found) != 0) {
    }
    trace.Call("FindClose", FindClose, search);
    ASSERT_EQ(trace.Events().size(), 1U);
    EXPECT_EQ(trace.Last().what, words::kLists);
    EXPECT_EQ(trace.Last().target, folder.File(L"one"));
}

TEST(TracedListing, IsForgottenWithItsEnd) {
    const ScratchFolder folder;
    const Trace trace(TraceMode::Trace);
    WIN32_FIND_DATAW found = {};
    const std::wstring pattern = folder.Path() + L"\\*";
    const Word search = trace.Call("FindFirstFileW", FindFirstFileW, pattern.c_str(), &found);
    trace.Call("FindNextFileW", FindAnother, search, &found);
    EXPECT_EQ(trace.Last().target, folder.File(L"x"));
    trace.Call("FindClose", FindClose, search);
    trace.Call("FindNextFileW", FindAnother, search, &found);
    EXPECT_EQ(trace.Last().target, L"(unknown)x");
}

TEST(HookedCall, AnswersWithTheCodeThatItIsGiven) {
    halvard_runner::HookedCall call(nullptr, {}, ERROR_SUCCESS);
    for (const DWORD code :
         {ERROR_ACCESS_DENIED, ERROR_NOT_ENOUGH_MEMORY, ERROR_SHARING_VIOLATION}) {
        const Word status = call.Answer(FailureSign::NtStatus, code);
        EXPECT_EQ(RtlNtStatusToDosError(static_cast<NTSTATUS>(status)), code);
        EXPECT_EQ(call.LastError(), DWORD{ERROR_SUCCESS});
        EXPECT_EQ(call.Answer(FailureSign::Status, code), code);
        EXPECT_EQ(static_cast<HRESULT>(call.Answer(FailureSign::HResult, code)),
                  HRESULT_FROM_WIN32(code));
        EXPECT_EQ(call.Answer(FailureSign::MinusOne, code), ~Word{0});
        EXPECT_EQ(call.LastError(), code);
        call.Answer(FailureSign::Zero, ERROR_DISK_FULL);
        EXPECT_EQ(call.LastError(), DWORD{ERROR_DISK_FULL});
        call = halvard_runner::HookedCall(nullptr, {}, ERROR_SUCCESS);
    }
    EXPECT_EQ(FailureResult(FailureSign::NtStatus, ERROR_ACCESS_DENIED), 0xC0000022U);
    EXPECT_EQ(FailureResult(FailureSign::NtStatus, ERROR_NOT_ENOUGH_MEMORY), 0xC0000017U);
    EXPECT_THROW(FailureResult(FailureSign::None, ERROR_ACCESS_DENIED), std::logic_error);
}
