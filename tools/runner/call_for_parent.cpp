#include "action_call.h"
#include "bare_session.h"
#include "call_messages.h"
#include "call_process.h"
#include "library.h"
#include "pipe_bytes.h"
#include "runtime/owned.h"
#include "text_output.h"
#include "trace/tracer.h"

#include <cstdint>
#include <cstring>
#include <cwchar>
#include <exception>
#include <memory>
#include <mutex>
#include <utility>

namespace halvard_runner {

namespace {

using halvard::OwnedHandle;

/// A handle by its number; nothing that the action starts inherits it. None where the number is
/// that of none.
OwnedHandle HandleOf(const std::wstring& word) {
    const std::uintptr_t number = std::wcstoull(word.c_str(), nullptr, 10);
    HANDLE handle = nullptr;
    static_assert(sizeof handle == sizeof number);
    std::memcpy(&handle, &number, sizeof handle);
    const bool isHandle = SetHandleInformation(handle, HANDLE_FLAG_INHERIT, 0) != FALSE;
    return OwnedHandle(isHandle ? handle : nullptr);
}

/// To the process that asked for the call, from whatever thread.
class Reporter {
public:
    explicit Reporter(OwnedHandle pipe) : pipe_(std::move(pipe)) {}

    void Tell(const CallReport& report) {
        const std::lock_guard<std::mutex> lock(lock_);
        // Without a reader there is nobody to tell that nobody was told.
        WriteAll(pipe_.get(), Encoded(report));
    }

private:
    OwnedHandle pipe_;
    std::mutex lock_;
};

/// The current directory of an action under the installer. Actions that are given no full path
/// would else look where the caller happens to be.
void GoToSystemFolder() {
    wchar_t folder[MAX_PATH] = {};
    GetSystemDirectoryW(folder, MAX_PATH);
    SetCurrentDirectoryW(folder);
}

// Shared with what goes on to the end of the process.
using SharedReporter = std::shared_ptr<Reporter>;

void Call(const CallRequest& request, const SharedReporter& reporter) {
    reporter->Tell(CallStage::Loads);
    const Library library(request.dll);
    const Action action = library.Find(request.action);
    reporter->Tell(CallStage::Found);
    GoToSystemFolder();

    bool called = false;
    const BareSession session(
        [&](const Message& message) {
            if (called) { // else of the session's own making
                reporter->Tell(message);
            }
        },
        request.package);
    for (const Property& property : request.properties) {
        session.SetProperty(property);
    }
    called = true;
    if (request.trace != TraceMode::None) {
        StartTrace(library.Module(), request.trace,
                   [reporter](const TraceEvent& event) { reporter->Tell(event); });
    }
    reporter->Tell(CallStage::Calls);
    const Outcome outcome = CallAction(action, session.Get());
    // First the outcome, for a limit is that of the action.
    reporter->Tell(outcome);
    EndTrace();
}

} // namespace

int CallForParent(const std::vector<std::wstring>& words) {
    if (words.size() != 2) {
        return static_cast<int>(ExitCode::WrongArguments);
    }
    OwnedHandle source = HandleOf(words[0]);
    OwnedHandle reports = HandleOf(words[1]);
    const std::optional<CallRequest> request = DecodedRequest(ReadToEnd(source.get()));
    source.reset();
    if (!request || !reports) {
        return static_cast<int>(ExitCode::WrongArguments);
    }
    const auto reporter = std::make_shared<Reporter>(std::move(reports));
    try {
        Call(*request, reporter);
    } catch (const RunnerError& error) {
        reporter->Tell(Refusal{error.Code(), error.Text()});
    } catch (const std::exception& error) {
        reporter->Tell(Refusal{ExitCode::RunnerFailed,
                               L"halvard_run itself failed: " + Widened(error.what())});
    }
    return 0;
}

} // namespace halvard_runner
