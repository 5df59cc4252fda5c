#pragma once

#include "imports.h"

#include <functional>
#include <optional>

// What takes too long to be done some thousand times. Programs that are started have ended with 0
// and written a line; services change their state when they are asked to; time passes at once.

namespace halvard_sweep {

using halvard_runner::Word;

/// What a function was called with.
using Arguments = const halvard_runner::Words&;

/// The result of a function in whose place something stands; nothing for any other.
std::optional<Word> StandIn(const std::string& function, Arguments arguments);

/// Whether something stands in its place.
bool HasStandIn(const std::string& function);

/// For a new run: no program was started, and every service is in this state.
void ResetStandIns(DWORD serviceState);

/// The command lines of the programs that were started since.
std::vector<std::wstring> StartedPrograms();

} // namespace halvard_sweep
