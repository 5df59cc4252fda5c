#include "command_line_words.h"

#include "arguments.h"
#include "runner_error.h"

#include <map>
#include <optional>

namespace {

using halvard_runner::Arguments;
using halvard_runner::Request;
using halvard_tests::Require;
using halvard_tests::Texts;

bool Begins(const std::wstring& text, const std::wstring& start) {
    return text.substr(0, start.size()) == start;
}

bool IsName(const std::wstring& name) {
    const std::wstring letters = L"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_";
    return !name.empty() && letters.find(name[0]) != std::wstring::npos &&
           name.find_first_not_of(letters + L"0123456789.") == std::wstring::npos;
}

// What the arguments mean, by the rules that `--help` and the header tell; nothing when they are
// refused.
std::optional<Arguments> Meaning(const Texts& given) {
    Arguments meaning;
    for (const std::wstring& each : given) {
        meaning.json |= each == L"--json";
        if (each == L"--help" || each == L"-h") {
            meaning.request = Request::Help;
        } else if (each == L"--version" && meaning.request != Request::Help) {
            meaning.request = Request::Version;
        }
    }
    if (meaning.request != Request::Call) {
        return meaning;
    }
    Texts libraries;
    Texts words;
    for (auto each = given.begin(); each != given.end(); ++each) {
        if (*each == L"--dll") {
            if (++each == given.end()) {
                return std::nullopt;
            }
            libraries.push_back(*each);
        } else if (Begins(*each, L"--dll=")) {
            libraries.push_back(each->substr(6));
        } else if (Begins(*each, L"-") && *each != L"--json") {
            return std::nullopt;
        } else if (*each != L"--json") {
            words.push_back(*each);
        }
    }
    const bool namesAction =
        !words.empty() && !words[0].empty() && words[0].find(L'=') == std::wstring::npos;
    if (libraries.size() > 1 || (libraries.size() == 1 && libraries[0].empty()) || !namesAction) {
        return std::nullopt;
    }
    meaning.dll = libraries.empty() ? L"" : libraries[0];
    meaning.action = words[0];
    std::map<std::wstring, int> times;
    for (auto each = words.begin() + 1; each != words.end(); ++each) {
        const std::size_t equals = each->find(L'=');
        const std::wstring name = each->substr(0, equals);
        if (equals == std::wstring::npos || !IsName(name) || ++times[name] > 1) {
            return std::nullopt;
        }
        meaning.properties.push_back({name, each->substr(equals + 1)});
    }
    if (meaning.action == L"list") {
        meaning.request = Request::List;
        if (!meaning.properties.empty()) {
            return std::nullopt;
        }
    }
    return meaning;
}

void Check(const Texts& given) {
    const std::optional<Arguments> expected = Meaning(given);
    Require(halvard_runner::WantsJson(given) ==
            (std::find(given.begin(), given.end(), L"--json") != given.end()));
    try {
        const Arguments parsed = halvard_runner::ParseArguments(given);
        Require(expected.has_value());
        Require(parsed.request == expected->request && parsed.action == expected->action);
        Require(parsed.properties == expected->properties && parsed.dll == expected->dll);
        Require(parsed.json == expected->json);
    } catch (const halvard_runner::RunnerError& error) {
        Require(!expected.has_value());
        Require(error.Code() == halvard_runner::ExitCode::WrongArguments && !error.Text().empty());
    }
}

} // namespace

// A command line, without the program's name.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const Texts words = {
        L"--json ", L"--dll ", L"--dll=", L"LaunchPV ", L"list ", L"Name=", L" A=1 ",
        L"--help ", L"-h",     L" \"\" ", L"--version", L"=",     L" A=2 ", L"_b.9=\"x y\" ",
    };
    Check(halvard_tests::ArgumentWords(halvard_tests::Text(bytes, size, words)));
    return 0;
}
