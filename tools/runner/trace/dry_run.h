#pragma once

#include "trace/event.h"

#include <string>
#include <vector>

// What an action that removes would have done, told from the trace of a call for which nothing was
// changed.

namespace halvard_runner {

/// Something, and what there is to say of it.
struct Reasoned {
    std::wstring name;
    std::wstring why;
};

struct DryRun {
    std::vector<std::wstring> wouldGo;
    std::vector<Reasoned> wouldStay;
    /// Texts that keep nothing and were probably meant to.
    std::vector<Reasoned> nearMisses;
    /// Whether a refusal would end the action before it has come to all.
    bool endsEarly = false;
};

/// The actions that do nothing else than remove, end a program of their own or ask one to.
std::vector<std::wstring> DryRunActions();
bool HasDryRun(const std::wstring& action);

DryRun DryRunOf(const std::wstring& action, const std::vector<TraceEvent>& trace);

/// For a reader.
std::wstring DryRunLines(const DryRun& dryRun);

/// One object for scripts.
std::wstring DryRunJson(const DryRun& dryRun);

} // namespace halvard_runner
