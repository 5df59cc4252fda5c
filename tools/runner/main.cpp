// halvard_run: calls one action of the library without a package. `halvard_run --help` tells how.

#include "action_call.h"
#include "arguments.h"
#include "bare_session.h"
#include "library.h"
#include "report.h"
#include "text_output.h"
#include "verify/verify.h"
#include "version.h"

#include <shellapi.h>

#include <optional>
#include <string>
#include <vector>

namespace {

using namespace halvard_runner;

std::vector<std::wstring> CommandLineArguments() {
    int count = 0;
    wchar_t** const words = CommandLineToArgvW(GetCommandLineW(), &count);
    std::vector<std::wstring> arguments(words + 1, words + count);
    LocalFree(words);
    return arguments;
}

/// The current directory of an action under the installer. Actions that are given no full path
/// would else look where the caller happens to be.
void GoToSystemFolder() {
    wchar_t folder[MAX_PATH] = {};
    GetSystemDirectoryW(folder, MAX_PATH);
    SetCurrentDirectoryW(folder);
}

ExitCode List(const Arguments& arguments) {
    const Library library(arguments.dll);
    const std::vector<std::wstring> actions = library.Exports();
    if (arguments.json) {
        Write(STD_OUTPUT_HANDLE, ListJson(library.Path(), actions));
        return ExitCode::Success;
    }
    for (const std::wstring& action : actions) {
        Write(STD_OUTPUT_HANDLE, action + L"\n");
    }
    return ExitCode::Success;
}

ExitCode Call(const Arguments& arguments) {
    const Library library(arguments.dll);
    const Action action = library.Find(arguments.action);
    GoToSystemFolder();

    std::vector<Message> messages;
    bool called = false;
    const BareSession session([&](const Message& message) {
        if (!called) {
            return; // of the session's own making
        }
        messages.push_back(message);
        if (!arguments.json) {
            Write(STD_OUTPUT_HANDLE, MessageLines(message));
        }
    });
    for (const Property& property : arguments.properties) {
        session.SetProperty(property);
    }
    called = true;
    Outcome outcome = CallAction(action, session.Get());
    outcome.messages = messages;
    Write(STD_OUTPUT_HANDLE,
          arguments.json ? OutcomeJson(arguments, library.Path(), outcome) : EndLines(outcome));
    return ExitCodeOf(outcome);
}

ExitCode Run(const Arguments& arguments) {
    switch (arguments.request) {
    case Request::Help:
        Write(STD_OUTPUT_HANDLE, HelpText());
        return ExitCode::Success;
    case Request::Version:
        Write(STD_OUTPUT_HANDLE, L"halvard_run " HALVARD_VERSION_TEXT "\n");
        return ExitCode::Success;
    case Request::List:
        return List(arguments);
    case Request::Call:
        break;
    }
    return Call(arguments);
}

} // namespace

int main() {
    const std::vector<std::wstring> arguments = CommandLineArguments();
    try {
        if (const std::optional<int> verified = Verify(arguments)) {
            return *verified;
        }
        return static_cast<int>(Run(ParseArguments(arguments)));
    } catch (const RunnerError& error) {
        const std::wstring hint =
            error.Code() == ExitCode::WrongArguments ? L"halvard_run --help tells how\n" : L"";
        if (WantsJson(arguments)) {
            Write(STD_OUTPUT_HANDLE, ErrorJson(error));
        } else {
            Write(STD_ERROR_HANDLE, L"halvard_run: " + error.Text() + L"\n" + hint);
        }
        return static_cast<int>(error.Code());
    }
}
