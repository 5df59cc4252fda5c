#pragma once

#include "arguments.h"
#include "json.h"
#include "runner_error.h"
#include "trace/event.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace halvard_runner {

/// What an action sent to the installer: the engine's type with its flags, and the formatted text.
struct Message {
    std::uint32_t type;
    std::wstring text;
};

/// How an action ended that did not return.
struct EscapedException {
    /// "C++ exception", "foreign C++ exception" (of another compiler), "structured exception",
    /// "abort", "ended thread", "ended process" or "over the limit".
    std::wstring kind;
    /// The class of a C++ exception or the name of a structured one; empty when it is not known.
    std::wstring type;
    /// The code of a std::system_error or of a structured exception.
    std::optional<std::int64_t> code;
    /// The category of that code, by its name; empty without one.
    std::wstring category;
    std::wstring text;
};

enum class Stream { Output, Error };

/// What came of a call: a result or an exception.
struct Outcome {
    std::vector<Message> messages;
    /// What the action, or what it started, wrote to standard output and standard error, in lines.
    std::vector<std::wstring> standardOutput;
    std::vector<std::wstring> standardError;
    std::optional<std::uint32_t> result;
    std::optional<EscapedException> exception;
    double milliseconds = 0.0;
    std::vector<TraceEvent> trace;
};

/// "0x" and the digits, without zeros in front.
std::wstring HexadecimalText(std::uint64_t number);

ExitCode ExitCodeOf(const Outcome& outcome);

/// How a call ended whose process has ended with this code and told no more.
EscapedException EndedProcess(std::uint32_t code);

/// How a call ended that did not end within so many seconds.
EscapedException OverTheLimit(std::uint32_t seconds);

/// One message for a reader: its kind and its text, without the line ends behind it; further lines
/// are indented.
std::wstring MessageLines(const Message& message);

/// A line of a stream of the action, for a reader.
std::wstring StreamLine(Stream stream, const std::wstring& line);

/// An exception in one line.
std::wstring ExceptionText(const EscapedException& exception);

/// What was written to standard output and is not told as an event of a trace.
std::vector<std::wstring> LinesWithoutEvent(const Outcome& outcome);

/// How the action ended, for a reader.
std::wstring EndLines(const Outcome& outcome);

/// A call for scripts: one JSON object, with a line end.
std::wstring OutcomeJson(const Arguments& arguments, const std::wstring& library,
                         const Outcome& outcome);

std::wstring VersionJson(const std::wstring& version);
std::wstring ErrorJson(const std::wstring& error, int exitCode);

} // namespace halvard_runner
