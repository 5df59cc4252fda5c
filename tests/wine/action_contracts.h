#pragma once

#include "lines.h"
#include "stand_in_session.h"

#include <windows.h>
#include <msi.h>

#include <functional>
#include <memory>
#include <ostream>
#include <vector>

namespace halvard_tests {

/// What is known of an action beside its results and exceptions, which actions.toml has.
struct Contract {
    const char* action;
    UINT(__stdcall* run)(MSIHANDLE);

    /// Makes a machine on which the action goes all the way, and tells the session what the action
    /// reads there. The machine lasts as long as what is returned.
    std::function<std::shared_ptr<void>(const StandInSession& session)> arrange;

    /// What the action answers on that machine.
    UINT result;
    /// How the lines of its calls begin there: these in this order, among others.
    Lines calls;
    /// The lines of what it leaves open there, as they begin.
    Lines leavesOpen;
    /// Whether its session is the current one afterwards.
    bool storesSession;
    /// How many lines it sends to the installer's log there.
    std::size_t logLines;
};

inline void PrintTo(const Contract& contract, std::ostream* stream) {
    *stream << contract.action;
}

/// One for each export.
const std::vector<Contract>& Contracts();

} // namespace halvard_tests
