#pragma once

#include "trace/event.h"

#include <cstdint>
#include <string>
#include <vector>

namespace halvard_runner {

enum class Request { Help, Version, List, Call, Check };

struct Property {
    std::wstring name;
    std::wstring value;
};

bool operator==(const Property& left, const Property& right);

/// What the user asks for.
struct Arguments {
    Request request = Request::Call;
    std::wstring action;
    std::vector<Property> properties;
    /// Empty for the library beside the program.
    std::wstring dll;
    /// The package to check, and the rules that are left out.
    std::wstring package;
    std::vector<int> skipped;
    /// Seconds; 0 for none.
    std::uint32_t limit = 600;
    TraceMode trace = TraceMode::None;
    bool json = false;
};

/// Reads the arguments behind the program's name. `--help` and `--version` win over all the rest;
/// an action that is named with `--help` is the one to tell of.
///
/// Throws RunnerError (WrongArguments) for an unknown option, a missing action or path, for a
/// property without "=", with a name that the installer would not take, or given twice, for a value
/// with a quote that is not said to be meant, and for a dry run of an action that has none.
Arguments ParseArguments(const std::vector<std::wstring>& arguments);

/// Whether a package is to be checked, also when the arguments cannot be read: then other exit
/// codes count.
bool WantsCheck(const std::vector<std::wstring>& arguments);

/// Whether errors are to be told as JSON: also when the arguments cannot be read, and when a quote
/// has taken the option into the value before it.
bool WantsJson(const std::vector<std::wstring>& arguments);

/// What `--help` prints.
std::wstring HelpText();
std::wstring HelpJson();

} // namespace halvard_runner
