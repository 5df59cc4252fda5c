#include "trace/dry_run.h"

#include "json.h"
#include "text.h"

#include <algorithm>
#include <set>
#include <string_view>

namespace halvard_runner {

namespace {

constexpr const wchar_t* kActions[] = {
    L"DeleteandRetainValues",        L"DeletePVFolder",      L"DeletePVINSTALLDIRFolder",
    L"DeletePVSlimINSTALLDIRFolder", L"DeleteDMFTDirectory", L"DeleteXVRFolder",
    L"DeleteAnalyticsKey",           L"DeleteQortaKey",      L"DelInstallProxyKey",
};

constexpr const wchar_t* kBrandingAction = L"DeleteandRetainValues";
constexpr std::wstring_view kRetainKey = L"\\SOFTWARE\\ZenvoBranding";
constexpr const wchar_t* kSkins = L"Skins";
constexpr std::size_t kFilePathCapacity = 256;
// Codes of Windows.
constexpr std::int64_t kMoreData = 234;
constexpr std::int64_t kNoMoreItems = 259;

/// A path with one kind of slashes, and in the form in which events name it.
std::wstring WithSlashes(const std::wstring& written) {
    std::wstring path = ShownPath(written);
    std::replace(path.begin(), path.end(), L'\\', L'/');
    return path;
}

std::wstring LastPart(const std::wstring& path) {
    return path.substr(path.find_last_of(L"\\/") + 1);
}

bool IsOneOf(const std::wstring& what, std::initializer_list<const wchar_t*> words) {
    return std::any_of(words.begin(), words.end(),
                       [&](const wchar_t* word) { return what == word; });
}

bool Removes(const TraceEvent& event) {
    using namespace trace_words;
    return IsOneOf(event.what, {kRemoves, kDeletesKey, kDeletesKeyTree, kDeletesValue});
}

std::wstring WhyRefused(const TraceEvent& event) {
    std::wstring why = event.code ? L"refused with " + std::to_wstring(*event.code) : L"refused";
    for (const auto& [name, text] : event.details) {
        why += name == trace_words::kMeans ? L"" : L"; " + name;
        why += L": " + text;
    }
    return why;
}

/// What the branding folder's key names to stay: what the action reads, and what it cannot read.
struct RetainList {
    std::vector<std::wstring> texts;
    std::vector<Reasoned> unread;
};

std::wstring TextOf(const TraceEvent& event, const wchar_t* detail) {
    const std::wstring* const text = FindDetail(event, detail);
    return text == nullptr ? L"" : *text;
}

RetainList RetainListOf(const std::vector<TraceEvent>& trace) {
    RetainList list;
    for (const TraceEvent& event : trace) {
        const std::size_t key = event.target.find(kRetainKey);
        if (key == std::wstring::npos) {
            continue;
        }
        if (event.what == trace_words::kListsKey && event.result != TraceResult::Failed) {
            // Behind the key's name and a backslash.
            list.texts.push_back(event.target.substr(key + kRetainKey.size() + 1));
        } else if (event.what == trace_words::kListsValue) {
            const std::wstring type = TextOf(event, trace_words::kType);
            const std::wstring data = TextOf(event, trace_words::kData);
            if (event.code == kNoMoreItems) {
                continue;
            }
            if (event.code == kMoreData) {
                list.unread.push_back({data, L"too long to be read: " +
                                                 TextOf(event, trace_words::kBytes) +
                                                 L" bytes, of which 260 are the most"});
            } else if (event.result == TraceResult::Failed) {
                list.unread.push_back({event.target, L"cannot be read: " + WhyRefused(event)});
            } else if (type != L"REG_SZ") {
                list.unread.push_back({data, L"of type " + type + L": REG_SZ alone is read"});
            } else {
                list.texts.push_back(data);
            }
        }
    }
    return list;
}

/// Why an entry stays that nothing has tried to remove.
std::wstring WhyKept(const std::wstring& entry, bool isFile, const RetainList& retained) {
    const auto holds = [&](const std::wstring& text) {
        return std::any_of(retained.texts.begin(), retained.texts.end(),
                           [&](const std::wstring& each) { return WithSlashes(each) == text; });
    };
    if (holds(entry)) {
        return L"named to stay";
    }
    if (holds(kSkins) && entry.find(kSkins) != std::wstring::npos) {
        return L"Skins are named to stay, and its path has that word";
    }
    if (entry.back() == L'.' || entry.back() == L' ') {
        return L"a name that ends in a dot or a blank is left alone";
    }
    if (isFile && entry.size() >= kFilePathCapacity) {
        return L"a file with a path of 256 characters and more is left alone";
    }
    return L"not reached";
}

/// Why a text keeps nothing that was probably meant to; empty where it keeps something, or nothing
/// comes near. `touched` are those entries that go, with slashes.
std::wstring WhyMissed(const std::wstring& text, const std::vector<std::wstring>& entries,
                       const std::set<std::wstring>& touched) {
    if (text == kSkins || text.empty()) {
        return {};
    }
    if (LowerCase(text) == LowerCase(kSkins)) {
        return L"equal to Skins but for case";
    }
    const auto isText = [&](const std::wstring& entry) {
        return WithSlashes(entry) == WithSlashes(text);
    };
    const auto same = std::find_if(entries.begin(), entries.end(), isText);
    if (same != entries.end()) {
        return touched.count(WithSlashes(*same)) == 0 ? L""
                                                      : L"written in another form than " + *same;
    }
    const std::wstring lower = LowerCase(WithSlashes(text));
    for (const std::wstring& entry : entries) {
        const std::wstring lowerEntry = LowerCase(WithSlashes(entry));
        if (lower == lowerEntry) {
            return L"equal but for case to " + entry;
        }
        if (lower == lowerEntry + L"/") {
            return L"ends in a slash, which " + entry + L" does not";
        }
        if (lower.rfind(lowerEntry + L"/", 0) == 0) {
            return L"names something below " + entry +
                   L", and only entries of the folder itself can stay";
        }
        if (lower == LastPart(lowerEntry)) {
            return L"a name without its folder: " + entry + L" would have to be written out";
        }
    }
    return {};
}

void TellOfBranding(const std::vector<TraceEvent>& trace, DryRun& dryRun) {
    const RetainList retained = RetainListOf(trace);
    std::set<std::wstring> touched;
    for (const TraceEvent& event : trace) {
        if (Removes(event) || event.what == trace_words::kOpensToRemove) {
            touched.insert(WithSlashes(event.target));
        }
    }
    std::vector<std::wstring> entries;
    for (const TraceEvent& event : trace) {
        if (event.what != trace_words::kLists || event.result == TraceResult::Failed) {
            continue;
        }
        const std::wstring entry = WithSlashes(event.target);
        entries.push_back(event.target);
        if (touched.count(entry) == 0) {
            const bool isFile = TextOf(event, trace_words::kKind) == L"file";
            dryRun.wouldStay.push_back({event.target, WhyKept(entry, isFile, retained)});
        }
    }
    dryRun.nearMisses = retained.unread;
    for (const std::wstring& text : retained.texts) {
        const std::wstring why = WhyMissed(text, entries, touched);
        if (!why.empty()) {
            dryRun.nearMisses.push_back({text, why});
        }
    }
}

std::wstring ReasonedJson(const Reasoned& reasoned) {
    return JsonObject({{L"name", JsonString(reasoned.name)}, {L"why", JsonString(reasoned.why)}});
}

std::wstring Lines(const wchar_t* label, const std::vector<Reasoned>& all) {
    std::wstring lines;
    for (const Reasoned& each : all) {
        lines += std::wstring(label) + each.name + (each.why.empty() ? L"" : L": " + each.why);
        lines += L"\n";
    }
    return lines;
}

} // namespace

std::vector<std::wstring> DryRunActions() {
    return {std::begin(kActions), std::end(kActions)};
}

bool HasDryRun(const std::wstring& action) {
    const std::vector<std::wstring> actions = DryRunActions();
    return std::find(actions.begin(), actions.end(), action) != actions.end();
}

DryRun DryRunOf(const std::wstring& action, const std::vector<TraceEvent>& trace) {
    DryRun dryRun;
    std::set<std::wstring> gone;
    std::set<std::wstring> listed;
    for (const TraceEvent& event : trace) {
        if (event.what == trace_words::kLists) {
            listed.insert(WithSlashes(event.target));
        }
        if (Removes(event) && event.result == TraceResult::NotMade) {
            dryRun.wouldGo.push_back(event.target);
            gone.insert(event.target);
        }
    }
    for (const TraceEvent& event : trace) {
        const bool isTried = Removes(event) || event.what == trace_words::kOpensToRemove;
        // What is not there does not stay.
        if (isTried && !MeansMissing(event.code.value_or(0)) &&
            event.result == TraceResult::Failed && gone.count(event.target) == 0) {
            dryRun.wouldStay.push_back({event.target, WhyRefused(event)});
            // A file of the branding folder itself that stays ends nothing.
            const bool goesOn =
                action == kBrandingAction && listed.count(WithSlashes(event.target)) > 0;
            dryRun.endsEarly = dryRun.endsEarly || (event.group == TraceGroup::File && !goesOn);
        }
    }
    if (action == kBrandingAction) {
        TellOfBranding(trace, dryRun);
    }
    return dryRun;
}

std::wstring DryRunLines(const DryRun& dryRun) {
    std::wstring lines = L"\ndry run     nothing was removed, written or started\n";
    for (const std::wstring& each : dryRun.wouldGo) {
        lines += L"would go    " + each + L"\n";
    }
    if (dryRun.wouldGo.empty()) {
        lines += L"would go    nothing\n";
    }
    lines += Lines(L"would stay  ", dryRun.wouldStay);
    lines += Lines(L"near miss   ", dryRun.nearMisses);
    if (dryRun.endsEarly) {
        lines +=
            L"            A folder's first refusal ends its removal: what is not named stays.\n";
    }
    return lines;
}

std::wstring DryRunJson(const DryRun& dryRun) {
    return JsonObject({
        {L"would_go", JsonArray(dryRun.wouldGo, JsonString)},
        {L"would_stay", JsonArray(dryRun.wouldStay, ReasonedJson)},
        {L"near_misses", JsonArray(dryRun.nearMisses, ReasonedJson)},
        {L"ends_early", JsonBool(dryRun.endsEarly)},
    });
}

} // namespace halvard_runner
