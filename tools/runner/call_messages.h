#pragma once

#include "arguments.h"
#include "report.h"
#include "runner_error.h"

#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace halvard_runner {

/// What the process that calls an action is told by the one that reports.
struct CallRequest {
    std::wstring action;
    std::vector<Property> properties;
    /// Empty for the library beside the program.
    std::wstring dll;
    /// The file for the package of the session.
    std::wstring package;
    TraceMode trace = TraceMode::None;
};

/// How far the process of a call has come: it loads the library, has found the action in it, calls.
enum class CallStage { Begun, Loads, Found, Calls };

/// Why no action was called.
struct Refusal {
    ExitCode code;
    std::wstring text;
};

/// Whose fault it is when that process ends at a stage and tells no more; nothing when it is the
/// action's. `end` is how it ended.
std::optional<Refusal> RefusalAt(CallStage stage, const std::wstring& library,
                                 const EscapedException& end);

/// What that process tells, one after the other. The outcome is without messages and trace; events
/// and a refusal may come behind it.
using CallReport = std::variant<CallStage, Message, Refusal, Outcome, TraceEvent>;

std::string Encoded(const CallRequest& request);

/// Nothing for bytes that are no request.
std::optional<CallRequest> DecodedRequest(const std::string& bytes);

std::string Encoded(const CallReport& report);

/// Takes the bytes of reports as they come, and gives the reports.
class ReportReader {
public:
    void Add(const std::string& bytes) { bytes_ += bytes; }

    /// Nothing where no whole report is there, and for bytes that are none.
    std::optional<CallReport> Next();

private:
    std::string bytes_;
};

} // namespace halvard_runner
