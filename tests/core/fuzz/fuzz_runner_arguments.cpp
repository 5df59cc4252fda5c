#include "begins.h"
#include "command_line_words.h"

#include "arguments.h"
#include "runner_error.h"
#include "trace/dry_run.h"

#include <algorithm>
#include <map>
#include <optional>

namespace {

using halvard_runner::Arguments;
using halvard_runner::Request;
using halvard_runner::TraceMode;
using halvard_tests::Begins;
using halvard_tests::Require;
using halvard_tests::Texts;

bool IsName(const std::wstring& name) {
    const std::wstring letters = L"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_";
    return !name.empty() && letters.find(name[0]) != std::wstring::npos &&
           name.find_first_not_of(letters + L"0123456789.") == std::wstring::npos;
}

// The options that take a value, and those without.
const Texts kWithValue = {L"--dll", L"--limit", L"--check", L"--skip"};
const Texts kAlone = {L"--json", L"--quotes", L"--trace", L"--dry-run"};

bool Holds(const Texts& texts, const std::wstring& text) {
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

// What stands behind each option that takes a value, and the words that belong to none.
struct Sorted {
    std::map<std::wstring, Texts> values;
    Texts words;
    bool known = true;
};

Sorted SortedOf(const Texts& given) {
    Sorted sorted;
    for (std::size_t index = 0; index < given.size(); ++index) {
        const std::wstring& each = given[index];
        const std::size_t equals = each.find(L'=');
        if (Holds(kWithValue, each)) {
            sorted.values[each].push_back(++index < given.size() ? given[index] : L"");
        } else if (equals != std::wstring::npos && Holds(kWithValue, each.substr(0, equals))) {
            sorted.values[each.substr(0, equals)].push_back(each.substr(equals + 1));
        } else if (!Begins(each, L"-")) {
            sorted.words.push_back(each);
        } else {
            sorted.known = sorted.known && Holds(kAlone, each);
        }
    }
    return sorted;
}

// At most a million.
std::optional<std::uint32_t> Seconds(const std::wstring& text) {
    const bool isNumber =
        !text.empty() && text.find_first_not_of(L"0123456789") == std::wstring::npos;
    const std::size_t digits = text.size() - std::min(text.size(), text.find_first_not_of(L'0'));
    if (!isNumber || digits > 9 || std::stoul(text) > 1000000) {
        return std::nullopt;
    }
    return std::stoul(text);
}

// Numbers of one to four digits that are not 0, cut by commas.
std::optional<std::vector<int>> Rules(const std::wstring& text) {
    std::vector<int> rules;
    std::wstring rest = text + L",";
    while (!rest.empty()) {
        const std::wstring number = rest.substr(0, rest.find(L','));
        rest = rest.substr(number.size() + 1);
        const std::size_t zeros = std::min(number.size(), number.find_first_not_of(L'0'));
        const std::wstring digits = number.substr(zeros);
        if (digits.empty() || digits.find_first_not_of(L"0123456789") != std::wstring::npos ||
            digits.size() > 4) {
            return std::nullopt;
        }
        rules.push_back(std::stoi(digits));
    }
    return rules;
}

// The action that --help is to tell of: the first word, also where an option's value is missing.
std::wstring HelpedAction(const Texts& given) {
    for (std::size_t index = 0; index < given.size(); ++index) {
        if (Holds(kWithValue, given[index])) {
            ++index;
        } else if (!given[index].empty() && given[index][0] != L'-') {
            const bool isAction =
                given[index] != L"list" && given[index].find(L'=') == std::wstring::npos;
            return isAction ? given[index] : L"";
        }
    }
    return L"";
}

bool WantsJson(const Texts& given) {
    return std::any_of(given.begin(), given.end(), [](const std::wstring& each) {
        const std::size_t quote = each.find(L'"');
        return each == L"--json" || (quote != std::wstring::npos &&
                                     each.substr(quote).find(L" --json") != std::wstring::npos);
    });
}

// What the arguments mean, by the rules that `--help` and the header tell; nothing when they are
// refused.
std::optional<Arguments> MeaningWithoutTrace(const Texts& given) {
    Arguments meaning;
    meaning.json = WantsJson(given);
    if (Holds(given, L"--help") || Holds(given, L"-h")) {
        meaning.request = Request::Help;
        meaning.action = HelpedAction(given);
        return meaning;
    }
    if (Holds(given, L"--version")) {
        meaning.request = Request::Version;
        return meaning;
    }
    Sorted sorted = SortedOf(given);
    Texts& libraries = sorted.values[L"--dll"];
    Texts& packages = sorted.values[L"--check"];
    if (!sorted.known || libraries.size() > 1 || packages.size() > 1 || Holds(libraries, L"") ||
        Holds(packages, L"")) {
        return std::nullopt;
    }
    for (const std::wstring& text : sorted.values[L"--limit"]) {
        const std::optional<std::uint32_t> seconds = Seconds(text);
        if (!seconds) {
            return std::nullopt;
        }
        meaning.limit = *seconds;
    }
    for (const std::wstring& text : sorted.values[L"--skip"]) {
        const std::optional<std::vector<int>> rules = Rules(text);
        if (!rules) {
            return std::nullopt;
        }
        meaning.skipped.insert(meaning.skipped.end(), rules->begin(), rules->end());
    }
    meaning.dll = libraries.empty() ? L"" : libraries[0];
    meaning.package = packages.empty() ? L"" : packages[0];
    const Texts& words = sorted.words;
    if (!words.empty() && (words[0].empty() || words[0].find(L'=') != std::wstring::npos)) {
        return std::nullopt;
    }
    meaning.action = words.empty() ? L"" : words[0];
    std::map<std::wstring, int> times;
    for (std::size_t index = 1; index < words.size(); ++index) {
        const std::size_t equals = words[index].find(L'=');
        const std::wstring name = words[index].substr(0, equals);
        const bool isQuoted = words[index].find(L'"') != std::wstring::npos;
        if (equals == std::wstring::npos || !IsName(name) || ++times[name] > 1 ||
            (isQuoted && !Holds(given, L"--quotes"))) {
            return std::nullopt;
        }
        meaning.properties.push_back({name, words[index].substr(equals + 1)});
    }
    if (meaning.dll.find(L'"') != std::wstring::npos) {
        return std::nullopt;
    }
    if (!meaning.package.empty()) {
        meaning.request = Request::Check;
        const bool isAlone = words.empty() && libraries.empty();
        return isAlone && !Begins(meaning.package, L"--") ? std::optional(meaning) : std::nullopt;
    }
    if (words.empty() || !meaning.skipped.empty()) {
        return std::nullopt;
    }
    if (meaning.action == L"list") {
        meaning.request = Request::List;
        return meaning.properties.empty() ? std::optional(meaning) : std::nullopt;
    }
    return meaning;
}

std::optional<Arguments> Meaning(const Texts& given) {
    std::optional<Arguments> meaning = MeaningWithoutTrace(given);
    const bool isOver =
        !meaning || meaning->request == Request::Help || meaning->request == Request::Version;
    if (isOver) {
        return meaning;
    }
    const auto isAsked = [&](const wchar_t* option) {
        // Behind an option that takes a value the word is that value.
        for (std::size_t index = 0; index < given.size(); ++index) {
            if (Holds(kWithValue, given[index])) {
                ++index;
            } else if (given[index] == option) {
                return true;
            }
        }
        return false;
    };
    const bool dry = isAsked(L"--dry-run");
    meaning->trace = dry                   ? TraceMode::DryRun
                     : isAsked(L"--trace") ? TraceMode::Trace
                                           : TraceMode::None;
    const bool isCall = meaning->request == Request::Call;
    const bool fits = meaning->trace == TraceMode::None || isCall;
    const bool hasOne = !dry || halvard_runner::HasDryRun(meaning->action);
    return fits && hasOne ? meaning : std::nullopt;
}

void Check(const Texts& given) {
    const std::optional<Arguments> expected = Meaning(given);
    Require(halvard_runner::WantsJson(given) == WantsJson(given));
    try {
        const Arguments parsed = halvard_runner::ParseArguments(given);
        Require(expected.has_value());
        Require(parsed.request == expected->request && parsed.action == expected->action);
        Require(parsed.properties == expected->properties && parsed.dll == expected->dll);
        Require(parsed.package == expected->package && parsed.skipped == expected->skipped);
        Require(parsed.trace == expected->trace);
        Require(parsed.limit == expected->limit && parsed.json == expected->json);
    } catch (const halvard_runner::RunnerError& error) {
        Require(!expected.has_value());
        Require(error.Code() == halvard_runner::ExitCode::WrongArguments && !error.Text().empty());
    }
}

} // namespace

// A command line, without the program's name.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const Texts words = {
        L"--json ",         L"--dll ",        L"--dll=",
        L"LaunchPV ",       L"list ",         L"Name=",
        L" A=1 ",           L"--help ",       L"-h",
        L" \"\" ",          L"--version",     L"=",
        L" A=2 ",           L"_b.9=\"x y\" ", L"--limit ",
        L"--quotes ",       L"--check ",      L"--skip ",
        L"P.msi ",          L"1000000 ",      L"101,702 ",
        L"B=\\\" --json",   L"--trace ",      L"--dry-run ",
        L"DeletePVFolder ",
    };
    Check(halvard_tests::ArgumentWords(halvard_tests::Text(bytes, size, words)));
    return 0;
}
