#include "trace/hook.h"

#include "inherited_handles.h"
#include "runtime/owned.h"
#include "text.h"
#include "text_output.h"

#include <shellapi.h>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>

namespace halvard_runner {

namespace {

using namespace trace_words;
using halvard::OwnedHandle;

// Of what a program has printed.
constexpr std::size_t kMostBytes = 16384;
constexpr std::size_t kMostLines = 12;
// For programs that nobody has waited for, to end when the action has; milliseconds for all.
constexpr DWORD kLastWait = 5000;
// What a program is taken to end with that is not started.
constexpr DWORD kEndInDryRun = 0;

/// A program that the action has started.
struct Program {
    std::wstring name;
    double started = 0.0;
    /// Of this trace's own, for the library closes its handle.
    OwnedHandle process;
    /// The end that the library reads from; null where it reads nothing.
    HANDLE pipe = nullptr;
    /// What it prints, where the library gives it nothing to print to.
    OwnedHandle file;
    std::string printed;
    /// Whether it runs at all, or is one of a dry run.
    bool runs = true;
    bool asked = false;
};

using SharedProgram = std::shared_ptr<Program>;

// By the handle that the library has; of those that are left by nobody's.
auto& programs = NeverDestroyed<std::map<HANDLE, SharedProgram>>();
auto& left = NeverDestroyed<std::vector<SharedProgram>>();
// The end to read from, by that to write to.
auto& pipes = NeverDestroyed<std::map<HANDLE, HANDLE>>();
auto& lock = NeverDestroyed<std::mutex>();

SharedProgram FindProgram(HANDLE handle) {
    const std::lock_guard<std::mutex> guard(lock);
    const auto found = programs.find(handle);
    return found == programs.end() ? nullptr : found->second;
}

std::wstring LastLines(const std::string& bytes) {
    const std::wstring text = Widened(bytes.c_str());
    std::vector<std::wstring> lines;
    std::wstring line;
    for (const wchar_t c : text + L"\n") {
        if (c != L'\n') {
            line += c == L'\r' ? L"" : std::wstring(1, c);
        } else {
            if (line.find_first_not_of(L' ') != std::wstring::npos) {
                lines.push_back(line);
            }
            line.clear();
        }
    }
    std::wstring last;
    const std::size_t first = lines.size() - std::min(lines.size(), kMostLines);
    for (std::size_t i = first; i < lines.size(); ++i) {
        last += (last.empty() ? L"" : L"\n") + lines[i];
    }
    return last;
}

std::string ReadFileToEnd(HANDLE file) {
    LARGE_INTEGER size = {};
    GetFileSizeEx(file, &size);
    LARGE_INTEGER start = {};
    start.QuadPart = std::max<LONGLONG>(0, size.QuadPart - static_cast<LONGLONG>(kMostBytes));
    SetFilePointerEx(file, start, nullptr, FILE_BEGIN);
    std::string bytes(kMostBytes, '\0');
    DWORD read = 0;
    ReadFile(file, bytes.data(), static_cast<DWORD>(kMostBytes), &read, nullptr);
    bytes.resize(read);
    return bytes;
}

void AppendPrinted(Program& program, TraceDetails& details) {
    const std::string bytes = program.file ? ReadFileToEnd(program.file.get()) : program.printed;
    const std::wstring lines = LastLines(bytes);
    if (!lines.empty()) {
        details.emplace_back(kPrinted, lines);
    }
}

std::wstring Seconds(const Program& program) {
    return Tenths((TraceMilliseconds() - program.started) / 1000.0) + L" s";
}

/// Tells of a program what is known of it when nobody looks at it any more.
void TellEnd(Program& program, bool waitedFor) {
    TraceEvent event;
    event.group = TraceGroup::Program;
    event.target = program.name;
    // First the wait: one that ends meanwhile has another code before it.
    const DWORD waited = WaitForSingleObject(program.process.get(), 0);
    event.what = waited == WAIT_TIMEOUT ? kStillRuns : kEnds;
    DWORD code = 0;
    if (waited == WAIT_OBJECT_0 && GetExitCodeProcess(program.process.get(), &code) != FALSE) {
        event.code = code;
        event.result = code == 0 ? TraceResult::Done : TraceResult::Failed;
    } else if (waited != WAIT_TIMEOUT) {
        event.details.emplace_back(kAnswer, L"not known");
    }
    event.details.emplace_back(L"after", Seconds(program));
    if (!waitedFor) {
        event.details.emplace_back(L"waited for", L"no");
    }
    AppendPrinted(program, event.details);
    Tell(std::move(event));
}

HANDLE DuplicateOf(HANDLE handle) {
    HANDLE duplicate = nullptr;
    DuplicateHandle(GetCurrentProcess(), handle, GetCurrentProcess(), &duplicate, 0, FALSE,
                    DUPLICATE_SAME_ACCESS);
    return duplicate;
}

void Remember(HANDLE handle, SharedProgram program) {
    program->started = TraceMilliseconds();
    if (program->runs) {
        program->process.reset(DuplicateOf(handle));
    }
    const std::lock_guard<std::mutex> guard(lock);
    programs[handle] = std::move(program);
}

/// A handle that can be waited for like that of a program which has ended.
HANDLE EndedInDryRun() {
    return CreateEventW(nullptr, TRUE, TRUE, nullptr);
}

/// A file of this trace's own for what a program prints, gone when nobody has it open any more. One
/// handle is for the program to write to, the other for this trace to read from.
struct OutputFile {
    OwnedHandle write;
    OwnedHandle read;
};

OutputFile NewOutputFile() {
    wchar_t folder[MAX_PATH + 1] = {};
    wchar_t path[MAX_PATH + 1] = {};
    OutputFile file;
    if (GetTempPathW(MAX_PATH + 1, folder) == 0 || GetTempFileNameW(folder, L"hrt", 0, path) == 0) {
        return file;
    }
    SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
    file.read.reset(CreateFileW(path, GENERIC_READ | DELETE, kShareAll, nullptr, OPEN_EXISTING,
                                FILE_FLAG_DELETE_ON_CLOSE, nullptr));
    file.write.reset(
        CreateFileW(path, FILE_APPEND_DATA, kShareAll, &inherited, OPEN_EXISTING, 0, nullptr));
    if (!file.read) {
        DeleteFileW(path);
    }
    return file;
}

/// The start of a program to which the library gives nothing to print to: with a file for it, and
/// an input that is at its end. The program inherits these and nothing else. Where that cannot be
/// had, the call stays as it is.
class StartWithOutput {
public:
    StartWithOutput(HookedCall& call, const OwnedHandle& output)
        : input_(NoInput()), inherited_({output.get(), input_.get()}) {
        if (!output || !input_ || inherited_.Get() == nullptr) {
            return;
        }
        startup_.StartupInfo = *call.Parameter<const STARTUPINFOW*>(8);
        startup_.StartupInfo.cb = sizeof startup_;
        startup_.StartupInfo.dwFlags |= STARTF_USESTDHANDLES;
        startup_.StartupInfo.hStdInput = input_.get();
        startup_.StartupInfo.hStdOutput = output.get();
        startup_.StartupInfo.hStdError = output.get();
        startup_.lpAttributeList = inherited_.Get();
        call.arguments[4] = TRUE;
        call.arguments[5] |= EXTENDED_STARTUPINFO_PRESENT;
        call.arguments[8] = reinterpret_cast<std::uintptr_t>(&startup_);
    }

private:
    OwnedHandle input_;
    InheritedHandles inherited_;
    STARTUPINFOEXW startup_ = {};
};

TraceDetails FolderDetail(const std::wstring& folder) {
    return folder.empty() ? TraceDetails{} : TraceDetails{{kFolder, ShownPath(folder)}};
}

Word AnswerStart(HookedCall& call, SharedProgram program) {
    auto& started = *call.Parameter<PROCESS_INFORMATION*>(9);
    started.hProcess = EndedInDryRun();
    started.hThread = EndedInDryRun();
    program->runs = false;
    Remember(started.hProcess, std::move(program));
    return call.Answer(FailureSign::Zero, ERROR_SUCCESS);
}

Word StartProgram(HookedCall& call) {
    auto program = std::make_shared<Program>();
    // The function may write into the command line.
    program->name = call.Text(1).empty() ? call.Text(0) : call.Text(1);
    const TraceDetails folder = FolderDetail(call.Text(7));
    if (IsDryRun()) {
        TellNotMade(TraceGroup::Program, kStarts, program->name, ERROR_SUCCESS, folder);
        return AnswerStart(call, std::move(program));
    }
    const auto* const startup = call.Parameter<const STARTUPINFOW*>(8);
    Word result = 0;
    if ((startup->dwFlags & STARTF_USESTDHANDLES) != 0) {
        const std::lock_guard<std::mutex> guard(lock);
        const auto pipe = pipes.find(startup->hStdOutput);
        program->pipe = pipe == pipes.end() ? nullptr : pipe->second;
    }
    if ((startup->dwFlags & STARTF_USESTDHANDLES) == 0 &&
        (call.arguments[5] & EXTENDED_STARTUPINFO_PRESENT) == 0) {
        OutputFile output = NewOutputFile();
        const StartWithOutput start(call, output.write);
        result = call.Forward();
        program->file = std::move(output.read);
    } else {
        result = call.Forward();
    }
    Tell(TraceGroup::Program, kStarts, program->name, call.Code(FailureSign::Zero, result), folder);
    if (static_cast<BOOL>(result) != FALSE) {
        Remember(call.Parameter<const PROCESS_INFORMATION*>(9)->hProcess, std::move(program));
    }
    return result;
}

Word ExecuteProgram(HookedCall& call) {
    auto& execution = *call.Parameter<SHELLEXECUTEINFOW*>(0);
    auto program = std::make_shared<Program>();
    const std::wstring file = execution.lpFile == nullptr ? L"" : execution.lpFile;
    const std::wstring words = execution.lpParameters == nullptr ? L"" : execution.lpParameters;
    program->name = words.empty() ? file : file + L" " + words;
    TraceDetails details =
        FolderDetail(execution.lpDirectory == nullptr ? L"" : execution.lpDirectory);
    if (IsDryRun()) {
        TellNotMade(TraceGroup::Program, kStarts, program->name, ERROR_SUCCESS, details);
        execution.hProcess = EndedInDryRun();
        program->runs = false;
        Remember(execution.hProcess, std::move(program));
        return call.Answer(FailureSign::Zero, ERROR_SUCCESS);
    }
    const Word result = call.Forward();
    details.emplace_back(L"by", L"the shell, so what it prints is not known");
    Tell(TraceGroup::Program, kStarts, program->name, call.Code(FailureSign::Zero, result),
         std::move(details));
    if (static_cast<BOOL>(result) != FALSE && execution.hProcess != nullptr) {
        Remember(execution.hProcess, std::move(program));
    }
    return result;
}

Word WaitForProgram(HookedCall& call) {
    const SharedProgram program = FindProgram(call.Parameter<HANDLE>(0));
    const Word result = call.Forward();
    if (program != nullptr && program->runs) {
        program->asked = true;
        if (static_cast<DWORD>(result) == WAIT_TIMEOUT && call.Parameter<DWORD>(1) > 0) {
            Tell(TraceGroup::Program, kStillRuns, program->name, WAIT_TIMEOUT,
                 {{L"after", Seconds(*program)}});
        }
    }
    return result;
}

Word AskForExitCode(HookedCall& call) {
    const SharedProgram program = FindProgram(call.Parameter<HANDLE>(0));
    if (program != nullptr && !program->runs) {
        *call.Parameter<DWORD*>(1) = kEndInDryRun;
        return call.Answer(FailureSign::Zero, ERROR_SUCCESS);
    }
    if (program != nullptr) {
        program->asked = true;
    }
    return call.Forward();
}

Word MakePipe(HookedCall& call) {
    const Word result = call.Forward();
    if (static_cast<BOOL>(result) != FALSE) {
        const std::lock_guard<std::mutex> guard(lock);
        pipes[*call.Parameter<HANDLE*>(1)] = *call.Parameter<HANDLE*>(0);
    }
    return result;
}

/// What a program has printed, as the library reads it to drop it.
Word ReadPipe(HookedCall& call) {
    const Word result = call.Forward();
    const auto* const read = call.Parameter<const DWORD*>(3);
    if (static_cast<BOOL>(result) == FALSE || read == nullptr) {
        return result;
    }
    const std::lock_guard<std::mutex> guard(lock);
    for (const auto& [handle, program] : programs) {
        if (program->pipe != nullptr && program->pipe == call.Parameter<HANDLE>(0)) {
            std::string& printed = program->printed;
            printed.append(call.Parameter<const char*>(1), *read);
            printed.erase(0, printed.size() - std::min(printed.size(), kMostBytes));
        }
    }
    return result;
}

} // namespace

void ForgetProgramHandle(HANDLE handle) {
    SharedProgram program;
    {
        const std::lock_guard<std::mutex> guard(lock);
        pipes.erase(handle);
        const auto found = programs.find(handle);
        if (found == programs.end()) {
            return;
        }
        program = found->second;
        programs.erase(found);
        if (program->runs && !program->asked) {
            left.push_back(program);
        }
    }
    if (program->runs && program->asked) {
        TellEnd(*program, true);
    }
}

void TellOfLeftPrograms() {
    std::vector<std::pair<SharedProgram, bool>> all;
    {
        const std::lock_guard<std::mutex> guard(lock);
        for (const SharedProgram& program : left) {
            all.emplace_back(program, false);
        }
        for (const auto& [handle, program] : programs) {
            if (program->runs) {
                all.emplace_back(program, program->asked);
            }
        }
        left.clear();
        programs.clear();
    }
    const double end = TraceMilliseconds() + kLastWait;
    for (const auto& [program, waitedFor] : all) {
        const double rest = std::max(0.0, end - TraceMilliseconds());
        WaitForSingleObject(program->process.get(), static_cast<DWORD>(rest));
        TellEnd(*program, waitedFor);
    }
}

std::vector<Hook> ProgramHooks() {
    return {
        {"CreateProcessW", StartProgram},
        {"ShellExecuteExW", ExecuteProgram},
        {"WaitForSingleObject", WaitForProgram},
        {"GetExitCodeProcess", AskForExitCode},
        {"CreatePipe", MakePipe},
        {"ReadFile", ReadPipe},
    };
}

} // namespace halvard_runner
