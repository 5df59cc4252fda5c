#include "call_process.h"

#include "bare_session.h"
#include "call_messages.h"
#include "inherited_handles.h"
#include "library.h"
#include "pipe_bytes.h"
#include "runtime/owned.h"
#include "text_output.h"

#include <chrono>
#include <cstdint>

namespace halvard_runner {

namespace {

using Clock = std::chrono::steady_clock;
using halvard::OwnedHandle;

// Milliseconds.
constexpr DWORD kPoll = 5;
// For the process to end when its action has, and for one that was told to end.
constexpr DWORD kEnd = 5000;
// Besides, for a trace to see the end of programs that nobody waits for.
constexpr DWORD kEndOfTrace = 10000;

constexpr UINT kEndedByLimit = static_cast<UINT>(ExitCode::OverTheLimit);

[[noreturn]] void RefuseForLastError(const std::wstring& what) {
    const DWORD code = GetLastError();
    throw RunnerError(ExitCode::NoSession, what + L": " + ErrorText(code));
}

struct Pipe {
    OwnedHandle read;
    OwnedHandle write;
};

enum class Inherited { Read, Write };

Pipe NewPipe(Inherited end) {
    HANDLE read = nullptr;
    HANDLE write = nullptr;
    if (CreatePipe(&read, &write, nullptr, 0) == FALSE) {
        RefuseForLastError(L"no pipe for the call");
    }
    Pipe pipe{OwnedHandle(read), OwnedHandle(write)};
    if (SetHandleInformation(end == Inherited::Read ? read : write, HANDLE_FLAG_INHERIT,
                             HANDLE_FLAG_INHERIT) == FALSE) {
        RefuseForLastError(L"no pipe for the call");
    }
    return pipe;
}

/// What is there now; nothing at the end and for a pipe without a writer.
std::string ReadAvailable(HANDLE pipe) {
    DWORD available = 0;
    if (PeekNamedPipe(pipe, nullptr, 0, nullptr, &available, nullptr) == FALSE || available == 0) {
        return {};
    }
    std::string bytes(available, '\0');
    DWORD read = 0;
    if (ReadFile(pipe, bytes.data(), available, &read, nullptr) == FALSE) {
        return {};
    }
    bytes.resize(read);
    return bytes;
}

/// The lines of a stream as they come; the last one may have no end.
class Lines {
public:
    explicit Lines(std::function<void(const std::wstring&)> take) : take_(std::move(take)) {}

    void Add(const std::string& bytes) {
        rest_ += bytes;
        for (std::size_t end = rest_.find('\n'); end != std::string::npos; end = rest_.find('\n')) {
            Take(rest_.substr(0, end));
            rest_.erase(0, end + 1);
        }
    }

    void End() {
        if (!rest_.empty()) {
            Take(rest_);
            rest_.clear();
        }
    }

private:
    void Take(std::string line) {
        line.resize(line.find_last_not_of('\r') + 1);
        // A text of the C++ run-time ends at its first null.
        take_(Widened(line.c_str()));
    }

    std::function<void(const std::wstring&)> take_;
    std::string rest_;
};

/// All that the process of a call starts, itself included. Ends with this program, should that be
/// ended while it waits.
class ProcessTree {
public:
    ProcessTree() : job_(CreateJobObjectW(nullptr, nullptr)) {
        if (!job_ || !SetLimits(JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE)) {
            RefuseForLastError(L"no job object for the call");
        }
    }

    void Add(HANDLE process) {
        if (AssignProcessToJobObject(job_.get(), process) == FALSE) {
            const DWORD code = GetLastError();
            TerminateProcess(process, kEndedByLimit);
            SetLastError(code);
            RefuseForLastError(L"the process of the call cannot be put into a job object");
        }
    }

    void EndAll() { TerminateJobObject(job_.get(), kEndedByLimit); }
    [[nodiscard]] bool LetLive() { return SetLimits(0); }

private:
    bool SetLimits(DWORD flags) {
        JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
        limits.BasicLimitInformation.LimitFlags = flags;
        return SetInformationJobObject(job_.get(), JobObjectExtendedLimitInformation, &limits,
                                       sizeof limits) != FALSE;
    }

    OwnedHandle job_;
};

std::wstring HandleText(HANDLE handle) {
    return std::to_wstring(reinterpret_cast<std::uintptr_t>(handle));
}

class CallingProcess {
public:
    CallingProcess() {
        const OwnedHandle input = NoInput();
        if (!input) {
            RefuseForLastError(L"no input for the call");
        }
        Pipe request = NewPipe(Inherited::Read);
        Pipe report = NewPipe(Inherited::Write);
        Pipe output = NewPipe(Inherited::Write);
        Pipe errors = NewPipe(Inherited::Write);

        const InheritedHandles inherited({input.get(), request.read.get(), report.write.get(),
                                          output.write.get(), errors.write.get()});
        if (inherited.Get() == nullptr) {
            RefuseForLastError(L"no process for the call");
        }
        STARTUPINFOEXW startup = {};
        startup.StartupInfo.cb = sizeof startup;
        startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
        startup.StartupInfo.hStdInput = input.get();
        startup.StartupInfo.hStdOutput = output.write.get();
        startup.StartupInfo.hStdError = errors.write.get();
        startup.lpAttributeList = inherited.Get();

        const std::wstring program = ProgramPath();
        std::wstring line = L"\"" + program + L"\" " + kCallWord + L" " +
                            HandleText(request.read.get()) + L" " + HandleText(report.write.get());
        PROCESS_INFORMATION started = {};
        if (CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, TRUE,
                           CREATE_SUSPENDED | EXTENDED_STARTUPINFO_PRESENT, nullptr, nullptr,
                           &startup.StartupInfo, &started) == FALSE) {
            RefuseForLastError(L"no process for the call");
        }
        process_.reset(started.hProcess);
        const OwnedHandle thread(started.hThread);
        tree_.Add(process_.get());
        ResumeThread(thread.get());

        request_ = std::move(request.write);
        report_ = std::move(report.read);
        output_ = std::move(output.read);
        errors_ = std::move(errors.read);
    }

    void Tell(const CallRequest& request) {
        // One that has ended tells its reason by its code.
        WriteAll(request_.get(), Encoded(request));
        request_.reset();
    }

    [[nodiscard]] std::string Report() const { return ReadAvailable(report_.get()); }
    [[nodiscard]] std::string Output() const { return ReadAvailable(output_.get()); }
    [[nodiscard]] std::string Errors() const { return ReadAvailable(errors_.get()); }

    [[nodiscard]] bool EndsWithin(DWORD milliseconds) const {
        return WaitForSingleObject(process_.get(), milliseconds) == WAIT_OBJECT_0;
    }

    [[nodiscard]] DWORD Code() const {
        DWORD code = 0;
        GetExitCodeProcess(process_.get(), &code);
        return code;
    }

    void End() {
        TerminateProcess(process_.get(), kEndedByLimit);
        WaitForSingleObject(process_.get(), kEnd);
    }

    void EndTree() {
        tree_.EndAll();
        WaitForSingleObject(process_.get(), kEnd);
    }

    [[nodiscard]] bool LetTreeLive() { return tree_.LetLive(); }

private:
    OwnedHandle process_;
    OwnedHandle request_;
    OwnedHandle report_;
    OwnedHandle output_;
    OwnedHandle errors_;
    ProcessTree tree_;
};

/// What is known of a call at some time.
struct Progress {
    CallStage stage = CallStage::Begun;
    std::vector<Message> messages;
    std::vector<TraceEvent> trace;
    std::optional<Refusal> refusal;
    std::optional<Outcome> outcome;
};

void Take(Progress& progress, const CallReport& report, const CallWatcher& watcher) {
    if (const auto* const message = std::get_if<Message>(&report)) {
        progress.messages.push_back(*message);
        watcher.message(*message);
    } else if (const auto* const event = std::get_if<TraceEvent>(&report)) {
        progress.trace.push_back(*event);
        watcher.event(*event);
    } else if (const auto* const refusal = std::get_if<Refusal>(&report)) {
        progress.refusal = *refusal;
    } else if (const auto* const outcome = std::get_if<Outcome>(&report)) {
        progress.outcome = *outcome;
    } else {
        progress.stage = std::get<CallStage>(report);
    }
}

/// The end of a process that has not told how its action ended.
Outcome EndOf(const CallingProcess& process, bool overTheLimit, std::uint32_t limit) {
    Outcome outcome;
    outcome.exception = overTheLimit ? OverTheLimit(limit)
                                     : EndedProcess(static_cast<std::uint32_t>(process.Code()));
    return outcome;
}

} // namespace

Outcome CallInProcess(const Arguments& arguments, const CallWatcher& watcher) {
    const TemporaryFile package;
    const Clock::time_point start = Clock::now();
    CallingProcess process;
    process.Tell({arguments.action, arguments.properties, LibraryPath(arguments.dll),
                  package.Path(), arguments.trace});

    Progress progress;
    ReportReader reports;
    Outcome told;
    Lines output([&](const std::wstring& line) {
        told.standardOutput.push_back(line);
        watcher.line(Stream::Output, line);
    });
    Lines errors([&](const std::wstring& line) {
        told.standardError.push_back(line);
        watcher.line(Stream::Error, line);
    });
    // Whether something came: a trace has much to tell, and waits while nobody reads.
    const auto readAll = [&] {
        output.Add(process.Output());
        errors.Add(process.Errors());
        const std::string bytes = process.Report();
        reports.Add(bytes);
        while (const std::optional<CallReport> report = reports.Next()) {
            Take(progress, *report, watcher);
        }
        return !bytes.empty();
    };
    const auto isOver = [&] {
        return arguments.limit > 0 && Clock::now() - start >= std::chrono::seconds(arguments.limit);
    };

    bool overTheLimit = false;
    bool came = false;
    while (!process.EndsWithin(came ? 0 : kPoll)) {
        came = readAll();
        if (progress.outcome || progress.refusal) {
            // The action may have left a heap or a lock without which no process ends.
            const DWORD more = arguments.trace == TraceMode::None ? 0 : kEndOfTrace;
            const Clock::time_point end = Clock::now() + std::chrono::milliseconds(kEnd + more);
            while (Clock::now() < end && !process.EndsWithin(kPoll)) {
                readAll();
            }
            process.End();
            break;
        }
        if (isOver()) {
            process.EndTree();
            overTheLimit = true;
            break;
        }
    }
    readAll();
    output.End();
    errors.End();
    if (!process.LetTreeLive()) {
        const DWORD code = GetLastError();
        Write(STD_ERROR_HANDLE, L"halvard_run: what the action has left running ends with it: " +
                                    ErrorText(code) + L"\n");
    }

    // The outcome stands, whatever came behind it.
    if (progress.refusal && !progress.outcome) {
        throw RunnerError(progress.refusal->code, progress.refusal->text);
    }
    if (!progress.outcome) {
        progress.outcome = EndOf(process, overTheLimit, arguments.limit);
        progress.outcome->milliseconds =
            std::chrono::duration<double, std::milli>(Clock::now() - start).count();
        const std::optional<Refusal> refusal =
            overTheLimit ? std::nullopt
                         : RefusalAt(progress.stage, LibraryPath(arguments.dll),
                                     *progress.outcome->exception);
        if (refusal) {
            throw RunnerError(refusal->code, refusal->text);
        }
    }
    Outcome outcome = *progress.outcome;
    outcome.messages = progress.messages;
    outcome.trace = progress.trace;
    outcome.standardOutput = told.standardOutput;
    outcome.standardError = told.standardError;
    return outcome;
}

} // namespace halvard_runner
