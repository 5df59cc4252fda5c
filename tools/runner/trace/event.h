#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace halvard_runner {

/// How much is told of a call. A dry run is told like a trace, and changes nothing.
enum class TraceMode { None, Trace, DryRun };

enum class TraceGroup { Program, Registry, File, Service, Task, Property, Lost };

/// NotMade: a call that would have changed something, answered in its place.
enum class TraceResult { Done, Failed, NotMade };

using TraceDetails = std::vector<std::pair<std::wstring, std::wstring>>;

/// One thing that an action did.
struct TraceEvent {
    /// Since the call began.
    double milliseconds = 0.0;
    TraceGroup group = TraceGroup::Program;
    /// In a word or two, of those below.
    std::wstring what;
    /// A key, a path, a command line, a name; of a lost line its text.
    std::wstring target;
    TraceResult result = TraceResult::Done;
    /// Of Windows, or the exit code of a program that ended.
    std::optional<std::int64_t> code;
    TraceDetails details;
};

namespace trace_words {

constexpr const wchar_t* kStarts = L"starts";
constexpr const wchar_t* kEnds = L"ends";
constexpr const wchar_t* kOpensKey = L"opens key";
constexpr const wchar_t* kStillRuns = L"still runs";
constexpr const wchar_t* kListsKey = L"lists key";
constexpr const wchar_t* kListsValue = L"lists value";
constexpr const wchar_t* kDeletesKey = L"deletes key";
constexpr const wchar_t* kDeletesKeyTree = L"deletes keys";
constexpr const wchar_t* kDeletesValue = L"deletes value";
constexpr const wchar_t* kLists = L"lists";
constexpr const wchar_t* kRemoves = L"removes";
constexpr const wchar_t* kOpensToRemove = L"opens to remove";

// Details.
constexpr const wchar_t* kPrinted = L"printed";
constexpr const wchar_t* kMeans = L"means";
constexpr const wchar_t* kType = L"type";
constexpr const wchar_t* kData = L"data";
constexpr const wchar_t* kBytes = L"bytes";
constexpr const wchar_t* kKind = L"kind";
constexpr const wchar_t* kFolder = L"folder";
constexpr const wchar_t* kAnswer = L"answer";
constexpr const wchar_t* kToStandardOutput = L"to stdout";

} // namespace trace_words

/// Nothing where there is none of this name.
const std::wstring* FindDetail(const TraceEvent& event, const std::wstring& name);

/// Whether a code of Windows says that nothing is there.
bool MeansMissing(std::int64_t code);

/// A path as users write it: without the prefix of the extended-length form.
std::wstring ShownPath(const std::wstring& path);

/// One line for a reader, and what a program printed in lines of its own.
std::wstring TraceLines(const TraceEvent& event);

/// One object for scripts.
std::wstring TraceJson(const TraceEvent& event);

} // namespace halvard_runner
