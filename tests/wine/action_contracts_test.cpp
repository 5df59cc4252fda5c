#include "action_contracts.h"

#include "runtime/registry.h"
#include "runtime/session.h"

#include "action_outcomes.h"
#include "allocation_failure.h"
#include "begins.h"
#include "call_trace.h"
#include "current_session.h"
#include "open_handles.h"
#include "played_programs.h"
#include "stand_in_clock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <system_error>

using halvard_tests::AllocationFailure;
using halvard_tests::Begins;
using halvard_tests::CallTrace;
using halvard_tests::Contract;
using halvard_tests::Contracts;
using halvard_tests::CurrentSessionScope;
using halvard_tests::kEveryCall;
using halvard_tests::kOutcomes;
using halvard_tests::OpenHandleCount;
using halvard_tests::Outcomes;
using halvard_tests::PlayedPrograms;
using halvard_tests::StandInClock;
using halvard_tests::StandInSession;

namespace {

constexpr MSIHANDLE kFormerSession = 99;
const std::string kNoMemory = "std::bad_alloc";
// The one action that std::bad_alloc does not leave where it cleans a value: one that it cannot
// clean, whatever the reason, it deletes.
const std::string kGoesOnWithoutMemory = "DeleteOptiqCameraGUID";

// None when the table has no such action.
const Outcomes* OutcomesOf(const Contract& contract) {
    const auto found = std::find_if(kOutcomes.begin(), kOutcomes.end(), [&](const Outcomes& each) {
        return std::string(each.action) == contract.action;
    });
    return found == kOutcomes.end() ? nullptr : &*found;
}

/// What an action answered, or the type of the exception that left it.
struct Outcome {
    UINT result = 0;
    std::string exception;
};

template <class Action>
Outcome OutcomeOf(Action action) {
    try {
        return {action(), ""};
    } catch (const halvard::RegKeyError&) {
        return {0, "RegKeyError"};
    } catch (const std::filesystem::filesystem_error&) {
        return {0, "std::filesystem::filesystem_error"};
    } catch (const std::system_error&) {
        return {0, "std::system_error"};
    } catch (const std::out_of_range&) {
        return {0, "std::out_of_range"};
    } catch (const std::length_error&) {
        return {0, "std::length_error"};
    } catch (const std::bad_alloc&) {
        return {0, kNoMemory};
    } catch (...) {
        return {0, "an exception of another type"};
    }
}

/// One run of an action on the machine of its contract. No program is started, and no wait takes
/// time.
struct ActionRun {
    Outcome outcome;
    Lines lines;
    std::size_t calls = 0;
    Lines leftOpen;
    /// Handles of the process that no call tells of.
    int handlesLeft = 0;
    bool allocationFailed = false;
    /// The session that is stored when the first call is made, and in the end.
    std::optional<MSIHANDLE> sessionAtFirst;
    MSIHANDLE sessionThen = 0;
    MSIHANDLE session = 0;
    /// The records that were made, for whichever session, and the messages that came to its own.
    std::size_t records = 0;
    std::size_t messages = 0;
};

// With `failingCall` or `failingAllocation` not 0 the one of this number fails, a call with this
// code.
ActionRun RunOf(const Contract& contract, std::size_t failingCall, int failingAllocation,
                DWORD code = ERROR_ACCESS_DENIED) {
    ActionRun run;
    const StandInSession session;
    const CurrentSessionScope current(kFormerSession);
    const PlayedPrograms programs;
    const StandInClock clock;
    const std::shared_ptr<void> machine = contract.arrange(session);
    const int before = OpenHandleCount();
    CallTrace trace(kEveryCall, failingCall, code);
    trace.before = [&](const std::wstring&) {
        if (!run.sessionAtFirst) {
            run.sessionAtFirst = halvard::CurrentSession();
        }
    };
    {
        const AllocationFailure failure(failingAllocation);
        run.outcome = OutcomeOf([&] { return contract.run(session.Get()); });
        run.allocationFailed = failure.Happened();
    }
    run.lines = trace.All();
    run.calls = trace.Count();
    run.leftOpen = trace.LeftOpen();
    run.handlesLeft = OpenHandleCount() - before - trace.KernelHandlesLeft();
    run.sessionThen = halvard::CurrentSession();
    run.session = session.Get();
    run.records = trace.Of({L"create record"}).size();
    run.messages = session.Messages().size();
    return run;
}

// Whether each of `lines` begins as one of `starts`, another one for each.
bool AreAmong(const Lines& lines, Lines starts) {
    for (const std::wstring& line : lines) {
        const auto found =
            std::find_if(starts.begin(), starts.end(),
                         [&](const std::wstring& start) { return Begins(line, start); });
        if (found == starts.end()) {
            return false;
        }
        starts.erase(found);
    }
    return true;
}

void ExpectLeftOpenAsKnown(const Contract& contract, const ActionRun& run,
                           const std::string& what) {
    EXPECT_TRUE(AreAmong(run.leftOpen, contract.leavesOpen))
        << what << " " << testing::PrintToString(run.leftOpen);
    // A list of devices holds keys that no call tells of.
    const bool holdsMore =
        std::any_of(run.leftOpen.begin(), run.leftOpen.end(),
                    [](const std::wstring& line) { return Begins(line, L"list devices"); });
    EXPECT_TRUE(run.handlesLeft == 0 || (holdsMore && run.handlesLeft > 0))
        << what << " " << run.handlesLeft;
}

std::string NameOf(const testing::TestParamInfo<Contract>& contract) {
    return contract.param.action;
}

class ActionContract : public testing::TestWithParam<Contract> {
protected:
    ActionContract() {
        // What the first call of a function loads and keeps.
        RunOf(GetParam(), 0, 0);
    }

    bool IsKnown(const Outcome& outcome) const {
        const Outcomes* const known = OutcomesOf(GetParam());
        if (known == nullptr) {
            ADD_FAILURE() << "no outcomes are known of " << GetParam().action;
            return false;
        }
        return outcome.exception.empty()
                   ? known->anyResult || known->results.count(outcome.result) != 0
                   : known->exceptions.count(outcome.exception) != 0;
    }

    void ExpectKnownWithEachCallFailing(DWORD code) const {
        const Contract& contract = GetParam();
        bool failed = true;
        for (std::size_t failing = 1; failed; ++failing) {
            const ActionRun run = RunOf(contract, failing, 0, code);
            failed = run.calls >= failing;
            const std::string what = "call " + std::to_string(failing);
            EXPECT_TRUE(IsKnown(run.outcome))
                << what << ": " << run.outcome.result << run.outcome.exception << " "
                << testing::PrintToString(run.lines);
            ExpectLeftOpenAsKnown(contract, run, what);
            EXPECT_EQ(run.sessionThen, contract.storesSession ? run.session : kFormerSession)
                << what;
            EXPECT_TRUE(contract.logLines > 0 || run.records == 0) << what;
        }
    }
};

} // namespace

TEST(ActionContracts, ThereIsOneForEachAction) {
    ASSERT_EQ(Contracts().size(), kOutcomes.size());
    for (std::size_t index = 0; index < kOutcomes.size(); ++index) {
        EXPECT_STREQ(Contracts()[index].action, kOutcomes[index].action);
    }
}

TEST_P(ActionContract, GoesAllTheWay) {
    const Contract& contract = GetParam();
    const ActionRun run = RunOf(contract, 0, 0);
    EXPECT_EQ(run.outcome.exception, "");
    EXPECT_EQ(run.outcome.result, contract.result);
    EXPECT_TRUE(IsKnown(run.outcome));
    auto expected = contract.calls.begin();
    for (const std::wstring& line : run.lines) {
        expected += expected != contract.calls.end() && Begins(line, *expected) ? 1 : 0;
    }
    EXPECT_EQ(expected - contract.calls.begin(), static_cast<std::ptrdiff_t>(contract.calls.size()))
        << testing::PrintToString(run.lines);
    EXPECT_EQ(run.leftOpen.size(), contract.leavesOpen.size());
    ExpectLeftOpenAsKnown(contract, run, "");
    const MSIHANDLE stored = contract.storesSession ? run.session : kFormerSession;
    EXPECT_EQ(run.sessionAtFirst.value_or(stored), stored);
    EXPECT_EQ(run.sessionThen, stored);
    EXPECT_EQ(run.messages, contract.logLines);
    EXPECT_EQ(run.records == 0, contract.logLines == 0);
}

TEST_P(ActionContract, WithEachCallRefused) {
    ExpectKnownWithEachCallFailing(ERROR_ACCESS_DENIED);
}

TEST_P(ActionContract, WithEachThingMissing) {
    ExpectKnownWithEachCallFailing(ERROR_FILE_NOT_FOUND);
}

TEST_P(ActionContract, WithoutMemory) {
    const Contract& contract = GetParam();
    bool failed = true;
    for (int failing = 1; failed; ++failing) {
        const ActionRun run = RunOf(contract, 0, failing);
        failed = run.allocationFailed;
        const std::string what = "allocation " + std::to_string(failing);
        const bool isCaught = kGoesOnWithoutMemory == contract.action;
        EXPECT_TRUE(run.outcome.exception == kNoMemory
                        ? failed
                        : (!failed || isCaught) && IsKnown(run.outcome))
            << what << ": " << run.outcome.result << run.outcome.exception;
        ExpectLeftOpenAsKnown(contract, run, what);
    }
}

INSTANTIATE_TEST_SUITE_P(Actions, ActionContract, testing::ValuesIn(Contracts()), NameOf);
