#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace halvard_tests {

/// Expects `action` to throw a filesystem_error with this operation as its own text, this path and
/// this Win32 code in the system category.
template <class Action>
void ExpectFileSystemError(const Action& action, const std::string& operation,
                           const std::wstring& path, int code) {
    try {
        action();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::filesystem::filesystem_error& error) {
        const std::string what = error.what();
        EXPECT_NE(what.find(": " + operation + ": "), std::string::npos) << what;
        EXPECT_EQ(error.path1().wstring(), path);
        EXPECT_EQ(error.code(), std::error_code(code, std::system_category()));
    }
}

} // namespace halvard_tests
