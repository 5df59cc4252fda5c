#pragma once

#include "runtime/registry.h"

#include "system_text.h"

#include <gtest/gtest.h>

#include <string>

namespace halvard_tests {

/// Expects `action` to throw a RegKeyError with this Win32 code in the system category, and with
/// this message, followed by the system's text for the code.
template <class Action>
void ExpectRegKeyError(const Action& action, const std::string& message, int code) {
    try {
        action();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const halvard::RegKeyError& error) {
        EXPECT_EQ(error.code(), std::error_code(code, std::system_category()));
        EXPECT_EQ(error.what(), message + ": " + SystemText(code));
    }
}

} // namespace halvard_tests
