// sweep: calls one action of a library many times, and lets another call of it fail each time.
//
//     sweep LIBRARY SCENE FUNCTIONS PLAN FIRST
//
// FUNCTIONS is a file with a line for each function that is known: its name and how it tells that
// it failed. PLAN is one with a line for each run: the function that fails ("-" for none), the
// number of its call, and why ("access" or "memory"). FIRST is the number of the first run, counted
// from 0. Standard output tells each run when its action is called and when it has ended:
//
//     call <tab> number
//     ended <tab> number
//     run <tab> number <tab> whether the call was reached <tab> how it ended <tab> what is kept
//         <tab> what changed <tab> programs started
//     calls <tab> function <tab> how often, behind a run in which nothing fails
//
// The lists are separated by "|". Without arguments it does nothing: it is its own ended child.

#include "imports.h"
#include "scenes.h"
#include "stand_ins.h"
#include "watched.h"

#include "action_call.h"
#include "prefix_guard.h"
#include "stand_in_session.h"
#include "text_output.h"

#include <objbase.h>
#include <shellapi.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace {

using namespace halvard_sweep;
using halvard_runner::Utf8;

const std::map<std::string, FailureSign>& Signs() {
    static const std::map<std::string, FailureSign> signs = {
        {"none", FailureSign::None},        {"zero", FailureSign::Zero},
        {"all-ones", FailureSign::AllOnes}, {"status", FailureSign::Status},
        {"hresult", FailureSign::HResult},  {"ntstatus", FailureSign::NtStatus},
        {"null", FailureSign::Null},        {"minus-one", FailureSign::MinusOne},
    };
    return signs;
}

FunctionTable ReadFunctions(const std::string& file) {
    std::ifstream lines(file);
    FunctionTable table;
    std::string name;
    std::string sign;
    while (lines >> name >> sign) {
        table[name] = Signs().at(sign);
    }
    return table;
}

std::vector<Failure> ReadPlan(const std::string& file) {
    std::ifstream lines(file);
    std::vector<Failure> plan;
    Failure failure;
    std::string code;
    while (lines >> failure.function >> failure.position >> code) {
        if (failure.function == "-") {
            failure.function.clear();
        }
        failure.code = code == "memory" ? FailureCode::OutOfMemory : FailureCode::AccessDenied;
        plan.push_back(failure);
    }
    return plan;
}

halvard_runner::Action actionOfRun = nullptr;

// In the thread of the call, whose calls are those that count.
UINT __stdcall CallCounted(MSIHANDLE session) {
    struct Counting {
        Counting() { WatchedImports::BeginInThisThread(); }
        ~Counting() { WatchedImports::End(); }
    };
    const Counting counting;
    return actionOfRun(session);
}

std::string HowItEnded(const halvard_runner::Outcome& outcome) {
    if (outcome.result) {
        return "result " + std::to_string(*outcome.result);
    }
    const halvard_runner::EscapedException& exception = *outcome.exception;
    std::string text = Utf8(exception.kind);
    if (!exception.type.empty()) {
        text += " " + Utf8(exception.type);
    }
    if (exception.code && exception.category.empty()) {
        text += " " +
                Utf8(halvard_runner::HexadecimalText(static_cast<std::uint64_t>(*exception.code)));
    }
    // Where a fault happened.
    std::fprintf(stderr, "%s: %s\n", text.c_str(), Utf8(exception.text).c_str());
    return text;
}

std::string Joined(const std::vector<std::wstring>& texts) {
    std::string joined;
    for (const std::wstring& text : texts) {
        joined += (joined.empty() ? "" : "|") + Utf8(text);
    }
    return joined;
}

std::string Shown(const std::map<std::string, int>& counts) {
    std::string shown;
    for (const auto& [name, count] : counts) {
        shown += (shown.empty() ? "" : "|") + name + " " + std::to_string(count);
    }
    return shown;
}

class LoadedLibrary {
public:
    explicit LoadedLibrary(const std::wstring& path) : module_(LoadLibraryW(path.c_str())) {
        if (module_ == nullptr) {
            throw std::runtime_error("the library cannot be loaded");
        }
    }
    ~LoadedLibrary() { FreeLibrary(module_); }
    LoadedLibrary(const LoadedLibrary&) = delete;
    LoadedLibrary& operator=(const LoadedLibrary&) = delete;

    HMODULE Get() const { return module_; }
    halvard_runner::Action Find(const std::string& name) const {
        FARPROC const address = GetProcAddress(module_, name.c_str());
        if (address == nullptr) {
            throw std::runtime_error("no such action: " + name);
        }
        halvard_runner::Action action = nullptr;
        std::memcpy(&action, &address, sizeof(action));
        return action;
    }

private:
    HMODULE module_;
};

void Run(const std::wstring& path, const Scene& scene, const FunctionTable& functions,
         const Failure& failure, std::size_t number, MSIHANDLE session) {
    Make(scene);
    ResetStandIns(scene.servicesRun ? SERVICE_RUNNING : SERVICE_STOPPED);
    const Machine before = LookAtMachine();

    const LoadedLibrary library(path);
    actionOfRun = library.Find(scene.Action());
    const WatchedImports watched(library.Get(), functions, failure);
    // The action may have written to standard output, and not to the end of a line.
    std::printf("\ncall\t%zu\n", number);
    std::fflush(stdout);
    const halvard_runner::Outcome outcome = halvard_runner::CallAction(CallCounted, session);
    std::printf("\nended\t%zu\n", number);
    std::fflush(stdout);
    const std::map<std::string, int> kept = WatchedImports::TakeKept();
    if (!WatchedImports::Unknown().empty()) {
        throw std::runtime_error("the table does not know how it fails: " +
                                 WatchedImports::Unknown());
    }

    std::printf("\nrun\t%zu\t%d\t%s\t%s\t%s\t%s\n", number, WatchedImports::HasFailed() ? 1 : 0,
                HowItEnded(outcome).c_str(), Shown(kept).c_str(),
                Joined(Differences(before, LookAtMachine())).c_str(),
                Joined(StartedPrograms()).c_str());
    if (failure.function.empty()) {
        for (const auto& [function, calls] : WatchedImports::Calls()) {
            std::printf("calls\t%s\t%d\n", function.c_str(), calls);
        }
    }
    std::fflush(stdout);
}

int Sweep(const std::vector<std::wstring>& arguments) {
    const Scene scene = SceneNamed(Utf8(arguments.at(2)));
    const FunctionTable functions = ReadFunctions(Utf8(arguments.at(3)));
    const std::vector<Failure> plan = ReadPlan(Utf8(arguments.at(4)));
    const halvard_tests::StandInSession session;
    for (const auto& [name, value] : scene.properties) {
        session.SetProperty(name, value);
    }
    // Apartments of actions are no first ones, whose end would take the libraries of objects along.
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    for (std::size_t number = std::stoul(arguments.at(5)); number < plan.size(); ++number) {
        Run(arguments.at(1), scene, functions, plan[number], number, session.Get());
    }
    ClearMachine();
    std::printf("\ndone\n");
    return 0;
}

} // namespace

int main() {
    int count = 0;
    wchar_t** const words = CommandLineToArgvW(GetCommandLineW(), &count);
    const std::vector<std::wstring> arguments(words, words + count);
    LocalFree(words);
    if (arguments.size() < 2) {
        return 0;
    }
    try {
        const std::wstring danger = halvard_tests::PrefixDanger();
        if (!danger.empty()) {
            throw std::runtime_error("unsafe prefix: " + Utf8(danger));
        }
        return Sweep(arguments);
    } catch (const std::exception& error) {
        std::printf("\nerror\t%s\n", error.what());
        return 1;
    }
}
