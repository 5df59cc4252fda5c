#pragma once

#include "runtime/session.h"

namespace halvard_tests {

/// Makes this the current session, which an action may replace; there is none at the end.
class CurrentSessionScope {
public:
    explicit CurrentSessionScope(MSIHANDLE session = 0) { halvard::SetCurrentSession(session); }
    ~CurrentSessionScope() { halvard::SetCurrentSession(0); }
    CurrentSessionScope(const CurrentSessionScope&) = delete;
    CurrentSessionScope& operator=(const CurrentSessionScope&) = delete;
};

} // namespace halvard_tests
