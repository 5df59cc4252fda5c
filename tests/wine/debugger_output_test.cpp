#include "debugger_output.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <stdexcept>

using halvard_tests::DebuggerOutputOf;

TEST(DebuggerOutputOf, IsWhatThisProcessSendsInItsOrder) {
    const std::vector<std::string> texts = DebuggerOutputOf([] {
        OutputDebugStringW(L"one\n");
        OutputDebugStringA("two");
        OutputDebugStringW(L"");
        OutputDebugStringW(L"one\n");
    });
    EXPECT_EQ(texts, (std::vector<std::string>{"one\n", "two", "", "one\n"}));
    EXPECT_EQ(DebuggerOutputOf([] {}), std::vector<std::string>{});
}

TEST(DebuggerOutputOf, HasOneListenerAtATime) {
    EXPECT_EQ(DebuggerOutputOf([] {
                  EXPECT_THROW(DebuggerOutputOf([] {}), std::runtime_error);
                  OutputDebugStringW(L"text");
              }),
              std::vector<std::string>{"text"});
}
