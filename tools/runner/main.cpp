// halvard_run: calls one action of the library without a package, checks a package, or asks a
// machine for what the library relies on. `halvard_run --help` tells how.

#include "action_page.h"
#include "arguments.h"
#include "call_process.h"
#include "check/check_report.h"
#include "check/package_reader.h"
#include "library.h"
#include "names.h"
#include "report.h"
#include "text_output.h"
#include "trace/dry_run.h"
#include "verify/verify.h"
#include "version.h"

#include <shellapi.h>

#include <cwchar>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace {

using namespace halvard_runner;

constexpr int kNotChecked = static_cast<int>(CheckExit::NotChecked);

std::vector<std::wstring> CommandLineArguments() {
    int count = 0;
    wchar_t** const words = CommandLineToArgvW(GetCommandLineW(), &count);
    if (words == nullptr) {
        throw std::system_error(static_cast<int>(GetLastError()), std::system_category());
    }
    std::vector<std::wstring> arguments(words + 1, words + count);
    LocalFree(words);
    return arguments;
}

ExitCode List(const Arguments& arguments) {
    const Library library(arguments.dll);
    const std::vector<std::wstring> actions = library.Exports();
    if (arguments.json) {
        Write(STD_OUTPUT_HANDLE, ListJson(library.Path(), actions));
    } else {
        Write(STD_OUTPUT_HANDLE, ListLines(actions));
    }
    return ExitCode::Success;
}

ExitCode Help(const Arguments& arguments) {
    if (arguments.action.empty()) {
        Write(STD_OUTPUT_HANDLE, arguments.json ? HelpJson() : HelpText());
        return ExitCode::Success;
    }
    const ActionFacts* const facts = FindFacts(arguments.action);
    if (facts == nullptr) {
        throw RunnerError(ExitCode::NoSuchAction, L"the table of actions has no " +
                                                      arguments.action +
                                                      MeantText(arguments.action, TableNames()));
    }
    Write(STD_OUTPUT_HANDLE, arguments.json ? ActionPageJson(*facts) : ActionPage(*facts));
    return ExitCode::Success;
}

ExitCode Call(const Arguments& arguments) {
    const auto tell = [&](const std::wstring& lines) {
        if (!arguments.json) {
            Write(STD_OUTPUT_HANDLE, lines);
        }
    };
    // With a trace what is written to a stream comes behind it: there it has its place already.
    const bool traced = arguments.trace != TraceMode::None;
    const auto tellLine = [&](Stream stream, const std::wstring& line) {
        tell(StreamLine(stream, line));
    };
    const Outcome outcome =
        CallInProcess(arguments, {[&](const Message& message) { tell(MessageLines(message)); },
                                  [&](const TraceEvent& event) { tell(TraceLines(event)); },
                                  [&](Stream stream, const std::wstring& line) {
                                      if (!traced) {
                                          tellLine(stream, line);
                                      }
                                  }});
    if (traced) {
        for (const std::wstring& line : LinesWithoutEvent(outcome)) {
            tellLine(Stream::Output, line);
        }
        for (const std::wstring& line : outcome.standardError) {
            tellLine(Stream::Error, line);
        }
    }
    Write(STD_OUTPUT_HANDLE, arguments.json
                                 ? OutcomeJson(arguments, LibraryPath(arguments.dll), outcome)
                                 : EndLines(outcome));
    if (arguments.trace == TraceMode::DryRun) {
        tell(DryRunLines(DryRunOf(arguments.action, outcome.trace)));
    }
    return ExitCodeOf(outcome);
}

CheckExit CheckPackage(const Arguments& arguments) {
    const std::wstring path = FullPath(arguments.package);
    const std::vector<Finding> findings =
        Findings(ReadPackage(path), L"" HALVARD_VERSION_TEXT, arguments.skipped);
    Write(STD_OUTPUT_HANDLE, arguments.json ? CheckJson(path, findings, arguments.skipped)
                                            : CheckLines(path, findings));
    return CheckExitCode(findings);
}

int Run(const Arguments& arguments) {
    switch (arguments.request) {
    case Request::Help:
        return static_cast<int>(Help(arguments));
    case Request::Version:
        Write(STD_OUTPUT_HANDLE, arguments.json ? VersionJson(L"" HALVARD_VERSION_TEXT)
                                                : L"halvard_run " HALVARD_VERSION_TEXT "\n");
        return static_cast<int>(ExitCode::Success);
    case Request::List:
        return static_cast<int>(List(arguments));
    case Request::Check:
        return static_cast<int>(CheckPackage(arguments));
    case Request::Call:
        break;
    }
    return static_cast<int>(Call(arguments));
}

int TellError(bool json, int code, const std::wstring& text, const wchar_t* hint = L"") {
    if (json) {
        Write(STD_OUTPUT_HANDLE, ErrorJson(text, code));
    } else {
        Write(STD_ERROR_HANDLE, L"halvard_run: " + text + L"\n" + hint);
    }
    return code;
}

int RunAndTell(const std::vector<std::wstring>& arguments) {
    try {
        if (const std::optional<int> verified = Verify(arguments)) {
            return *verified;
        }
        return Run(ParseArguments(arguments));
    } catch (const PackageError& error) {
        return TellError(WantsJson(arguments), kNotChecked, error.Text());
    } catch (const RunnerError& error) {
        const int code = WantsCheck(arguments) ? kNotChecked : static_cast<int>(error.Code());
        const wchar_t* const hint =
            error.Code() == ExitCode::WrongArguments ? L"halvard_run --help tells how\n" : L"";
        return TellError(WantsJson(arguments), code, error.Text(), hint);
    }
}

int RunWhole() {
    std::vector<std::wstring> arguments = CommandLineArguments();
    if (!arguments.empty() && arguments.front() == kCallWord) {
        arguments.erase(arguments.begin());
        return CallForParent(arguments);
    }
    const int code = RunAndTell(arguments);
    const std::wstring failure = WriteFailure();
    if (!failure.empty()) {
        Write(STD_ERROR_HANDLE, L"halvard_run: not all could be written: " + failure + L"\n");
        return static_cast<int>(ExitCode::NotWritten);
    }
    return code;
}

// What it failed for may be memory: nothing here asks for any.
int TellFailure() noexcept {
    static_assert(static_cast<int>(ExitCode::RunnerFailed) == 10);
    if (std::wcsstr(GetCommandLineW(), L"--json") != nullptr) {
        WriteAsItIs(STD_OUTPUT_HANDLE,
                    "{\"error\": \"halvard_run itself failed, as for want of memory\", "
                    "\"exit_code\": 10}\n");
    } else {
        WriteAsItIs(STD_ERROR_HANDLE,
                    "halvard_run: halvard_run itself failed, as for want of memory\n");
    }
    return static_cast<int>(ExitCode::RunnerFailed);
}

} // namespace

int main() {
    try {
        return RunWhole();
    } catch (...) {
        return TellFailure();
    }
}
