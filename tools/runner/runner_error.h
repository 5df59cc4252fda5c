#pragma once

#include <exception>
#include <memory>
#include <string>

namespace halvard_runner {

/// What a script may rely on. 3 is left out: the run-time ends a process that gives up with it.
enum class ExitCode {
    Success = 0,
    OtherResult = 1,
    WrongArguments = 2,
    NoLibrary = 4,
    NoSuchAction = 5,
    NoSession = 6,
    Exception = 7,
    OverTheLimit = 8,
    NotWritten = 9,
    /// Of whatever was asked for: this program could not go on.
    RunnerFailed = 10,
};

/// Why no action was called.
class RunnerError : public std::exception {
public:
    RunnerError(ExitCode code, std::wstring text)
        : code_(code), text_(std::make_shared<const std::wstring>(std::move(text))) {}

    [[nodiscard]] const char* what() const noexcept override {
        return "halvard_run cannot call the action";
    }
    [[nodiscard]] ExitCode Code() const noexcept { return code_; }
    [[nodiscard]] const std::wstring& Text() const noexcept { return *text_; }

private:
    ExitCode code_;
    std::shared_ptr<const std::wstring> text_;
};

} // namespace halvard_runner
