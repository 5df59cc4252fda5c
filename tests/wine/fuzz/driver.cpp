// In the place of libFuzzer, which there is none of for Windows programs: the same options and the
// same words for what becomes of a run, but inputs by chance alone and nothing that guides them.

#include "fuzz_input.h"

#include "heap_check.h"
#include "prefix_guard.h"

#include <windows.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size);

namespace {

using Bytes = std::vector<std::uint8_t>;
using Clock = std::chrono::steady_clock;

constexpr int kFinding = 77;

struct Options {
    std::uint64_t runs = 0;
    std::uint64_t seed = 1;
    std::uint64_t seconds = 0;
    std::size_t longest = 512;
    std::string artifacts;
    std::vector<Bytes> seeds;
};

// Of the one run of this program: the handler of a fault is told nothing.
Bytes current;
std::string artifactPrefix;
std::uint64_t seedOfAll = 0;
std::uint64_t done = 0;

bool Take(const std::string& argument, const std::string& option, std::string& value) {
    const bool taken = argument.rfind(option, 0) == 0;
    if (taken) {
        value = argument.substr(option.size());
    }
    return taken;
}

Bytes ReadFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

Options Parsed(const std::vector<std::string>& arguments) {
    Options options;
    std::string value;
    for (const std::string& argument : arguments) {
        if (Take(argument, "-runs=", value)) {
            options.runs = std::stoull(value);
        } else if (Take(argument, "-seed=", value)) {
            options.seed = std::stoull(value);
        } else if (Take(argument, "-max_total_time=", value)) {
            options.seconds = std::stoull(value);
        } else if (Take(argument, "-max_len=", value)) {
            options.longest = std::stoull(value);
        } else if (!Take(argument, "-artifact_prefix=", options.artifacts)) {
            // A folder lists its files in any order.
            std::set<std::filesystem::path> files;
            for (const auto& entry : std::filesystem::directory_iterator(argument)) {
                files.insert(entry.path());
            }
            for (const std::filesystem::path& file : files) {
                options.seeds.push_back(ReadFile(file));
            }
        }
    }
    return options;
}

[[noreturn]] void EndWithAFinding(const char* what) {
    const std::string path =
        artifactPrefix + "crash-" + std::to_string(seedOfAll) + "-" + std::to_string(done);
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(current.data()),
               static_cast<std::streamsize>(current.size()));
    std::printf("#%llu ERROR: %s, written to %s\n", static_cast<unsigned long long>(done), what,
                path.c_str());
    std::fflush(stdout);
    // Without the end of anything that the input has left half done.
    TerminateProcess(GetCurrentProcess(), kFinding);
    std::abort();
}

LONG WINAPI OnFault(EXCEPTION_POINTERS* fault) {
    switch (fault->ExceptionRecord->ExceptionCode) {
    case halvard_tests::kBrokenProperty:
        EndWithAFinding("a property does not hold");
    case EXCEPTION_ILLEGAL_INSTRUCTION:
        EndWithAFinding("arithmetic that is not defined");
    default:
        EndWithAFinding("a fault");
    }
}

// Of an assertion of the run-time, for one.
void OnAbort(int /*signal*/) {
    EndWithAFinding("an abort");
}

// Of an exception that is none of the standard ones.
[[noreturn]] void OnTerminate() {
    EndWithAFinding("an exception that nothing catches");
}

void Run(const Bytes& input) {
    current = input;
    ++done;
    try {
        LLVMFuzzerTestOneInput(current.data(), current.size());
    } catch (const std::exception& error) {
        EndWithAFinding(error.what());
    }
    if (halvard_tests::TakeDamagedBlocks() != 0) {
        EndWithAFinding("memory was written outside a block");
    }
}

Bytes NextInput(std::mt19937_64& random, const Options& options) {
    Bytes input;
    if (!options.seeds.empty() && random() % 4 == 0) {
        input = options.seeds[random() % options.seeds.size()];
        for (std::uint64_t changes = 1 + random() % 8; changes > 0 && !input.empty(); --changes) {
            input[random() % input.size()] = static_cast<std::uint8_t>(random());
        }
    }
    const std::size_t length = random() % (options.longest + 1);
    while (input.size() < length) {
        input.push_back(static_cast<std::uint8_t>(random()));
    }
    return input;
}

void RunAll(const Options& options) {
    const Clock::time_point start = Clock::now();
    for (const Bytes& seed : options.seeds) {
        Run(seed);
    }
    std::printf("#%llu INITED\n", static_cast<unsigned long long>(done));
    std::mt19937_64 random(options.seed);
    const auto isOver = [&] {
        return (options.runs != 0 && done >= options.runs) ||
               (options.seconds != 0 &&
                Clock::now() - start >= std::chrono::seconds(options.seconds));
    };
    while (!isOver()) {
        Run(NextInput(random, options));
        if ((done & (done - 1)) == 0) {
            std::printf("#%llu pulse\n", static_cast<unsigned long long>(done));
            std::fflush(stdout);
        }
    }
    std::printf("#%llu DONE\n", static_cast<unsigned long long>(done));
}

} // namespace

int main(int argc, char** argv) {
    const std::wstring danger = halvard_tests::PrefixDanger();
    if (!danger.empty()) {
        std::fwprintf(stderr, L"unsafe prefix, nothing is run: %ls\n", danger.c_str());
        return 1;
    }
    const Options options = Parsed({argv + 1, argv + argc});
    artifactPrefix = options.artifacts;
    seedOfAll = options.seed;
    SetUnhandledExceptionFilter(OnFault);
    std::signal(SIGABRT, OnAbort);
    std::set_terminate(OnTerminate);
    RunAll(options);
    return 0;
}
