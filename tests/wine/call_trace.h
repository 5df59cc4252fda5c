#pragma once

#include "import_hook.h"
#include "lines.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace halvard_tests {

/// What a trace may show; described_calls.cpp says which functions belong to a group and how the
/// line of each reads.
enum CallGroup : unsigned {
    kRegistry = 1U << 0U,        // keys and values: open, read, change, close
    kRegistryListing = 1U << 1U, // the counts and names below a key
    kFiles = 1U << 2U,           // ask for attributes by path, open, move, remove
    kFileQuestions = 1U << 3U,   // what an entry is and what a folder holds
    kFileContents = 1U << 4U,    // read, write, size, position
    kFolders = 1U << 5U,         // where the system's folders are; making one
    kProcesses = 1U << 6U,       // programs that are started
    kChildren = 1U << 7U,        // pipes to a program, waiting for it, its exit code
    kServices = 1U << 8U,        // the service control manager, the event log
    kInstaller = 1U << 9U,       // the records that a session is sent
    kProperties = 1U << 10U,     // the properties of a session
    kSecurity = 1U << 11U,       // access lists
    kCom = 1U << 12U,            // apartments, objects, identities
    kDevices = 1U << 13U,        // devices and their properties
    kClosing = 1U << 14U, // what gives back a handle or memory, keys, records and services apart
    kServiceClosing =
        1U << 15U,         // what closes a service, the service control manager, an event source
    kMessages = 1U << 16U, // what the debugger is told
    kSleeps = 1U << 17U,
    kPlatform = 1U << 18U, // the processor, and functions that are looked up
    kEveryCall = (1U << 19U) - 1,
};

/// The lines that begin with one of these texts.
Lines Beginning(const Lines& lines, const Lines& starts);

/// What a handle belongs to: numbers of one kind may be those of another.
enum class Resource { kernel, service, record, memory };

/// Watches the calls of some groups in their order, each as a line such as
/// "open HKLM\SOFTWARE\Zenvo 0xf003f", and lets them through but for one that is to fail. What a
/// hook calls itself is neither shown nor counted. Handles are named by what they were opened for.
///
///     const CallTrace trace(kRegistry | kServices);
///     CheckForClients(session);
///     EXPECT_EQ(trace.All(), (Lines{...}));
class CallTrace {
public:
    /// With `failing` not 0 the call of this number, counted from 1, is not made and gives `code`,
    /// in the form that its function has for failures. What gives something back never fails and
    /// does not count.
    explicit CallTrace(unsigned groups, std::size_t failing = 0, DWORD code = ERROR_ACCESS_DENIED);
    CallTrace(const CallTrace&) = delete;
    CallTrace& operator=(const CallTrace&) = delete;

    /// Makes the call number `nth`, counted from 1, of those whose lines begin with `start` fail; 0
    /// for each of them. `before` may say so of the call that is about to come. Only the last that
    /// was said holds, the constructor's included.
    void Fail(const std::wstring& start, DWORD code = ERROR_ACCESS_DENIED, std::size_t nth = 1);

    /// Called before each call that may fail, with its line.
    std::function<void(const std::wstring& line)> before;

    const Lines& All() const { return lines_; }

    Lines Of(const Lines& starts) const { return Beginning(lines_, starts); }

    /// What follows this text in the lines that begin with it.
    Lines Rests(const std::wstring& start) const;

    /// How many calls came that may fail.
    std::size_t Count() const { return count_; }

    /// What was opened and not given back, by the lines that opened it, in the order of texts.
    Lines LeftOpen() const;

    /// How many handles of the kernel are among it.
    int KernelHandlesLeft() const;

    /// What a handle was opened for: the whole path of a key or an entry, the name of a service.
    std::wstring Name(Resource kind, const void* handle) const;
    std::wstring Name(const void* handle) const { return Name(Resource::kernel, handle); }
    std::wstring Name(SC_HANDLE handle) const { return Name(Resource::service, handle); }

    // What follows is for the descriptions of functions.

    /// Notes a call. Whether it is to be made; FailureCode() says with which code it fails else.
    bool Comes(const std::wstring& line);
    DWORD FailureCode() const { return code_; }
    /// Notes a call that can neither fail nor open anything.
    void Passes(const std::wstring& line) { lines_.push_back(line); }
    /// Notes a call that gives back what a handle stands for.
    void Closes(const std::wstring& line, Resource kind, const void* handle);
    /// Notes what the call that came last has opened, and what that is for.
    void Opened(Resource kind, const void* handle, const std::wstring& name);

private:
    std::size_t failing_;
    DWORD code_;
    std::wstring failStart_;
    std::size_t failNth_ = 0;
    std::size_t failSeen_ = 0;
    std::size_t count_ = 0;
    Lines lines_;
    struct Opening {
        std::wstring line;
        std::wstring name;
    };
    std::map<std::pair<Resource, const void*>, Opening> open_;
    std::vector<std::shared_ptr<void>> hooks_;
};

/// A function of Windows that a trace can show.
struct DescribedCall {
    unsigned group;
    std::function<std::shared_ptr<void>(CallTrace&)> hook;
};

/// Every function that a trace can show.
const std::vector<DescribedCall>& DescribedCalls();

/// A handle that nobody may use or close: what a call that fails leaves in place of one.
inline const HANDLE kNoHandle = reinterpret_cast<HANDLE>(INT_PTR{0xBAD});

} // namespace halvard_tests
