#include "arguments.h"

#include "json.h"
#include "runner_error.h"
#include "text.h"
#include "trace/dry_run.h"

#include <algorithm>
#include <optional>

namespace halvard_runner {

namespace {

struct ExitMeaning {
    ExitCode code;
    const wchar_t* means;
};

constexpr const wchar_t* kHelp = LR"(Calls one action of Halvard_CA.dll without a package.

  halvard_run list [--dll PATH] [--json]
  halvard_run ACTION --help [--json]
  halvard_run ACTION [Property=Value...] [--dll PATH] [--limit SECONDS]
                     [--trace | --dry-run] [--quotes] [--json]
  halvard_run --check PACKAGE.msi [--skip NUMBER,NUMBER...] [--json]
  halvard_run --verify [--json]
  halvard_run --verify-installer [--yes] [--json]

The action runs for real: on this machine, with the rights of the caller, in the
system folder as under the installer. It gets an installer session of its own
that holds the given properties, such as CustomActionData="Key=value;Key=value",
and nothing of a package. Property names keep their case; a value is taken as it
is, and square brackets in it are not replaced. A backslash right before a
closing quote has to be doubled, or the quote becomes part of the value.

  list         the actions that the library exports, each with its declaration
               and what it does
  ACTION --help
               what to know of one action: declaration, place, data,
               properties, keys of the registry, results, what it throws
  --verify     checks on this machine what the library relies on, and
               --verify-installer what it relies on in an installation; --help
               behind either tells more
  --dll PATH   the library; Halvard_CA.dll beside this program without it
  --limit SECONDS
               how long the action may take, 600 without it and 0 for as long as
               it likes; then it is ended with all that it has started
  --trace      what the action does, line by line as it happens: programs, the
               registry, files, services, tasks, properties, and the lines that
               no log ever has, each with its time and its answer
  --dry-run    a trace of an action that removes, for which nothing is removed,
               written or started; ends with what would go, what would stay
               and why, and what was probably meant to stay
  --quotes     the quotes in the values are meant; without it a value that holds
               one is refused, for a backslash before a closing quote makes one
  --check PACKAGE.msi
               what is wrong with a package that carries the library, by rules,
               of which --skip leaves out some by their numbers
  --json       exactly one JSON object, for scripts, whatever becomes of the
               action: action, dll, properties, log, messages (kind, type,
               text), standard_output, standard_error, result, result_name,
               if_checked, exception (kind, type, code, category, text),
               milliseconds, exit_code; trace with --trace, dry_run with
               --dry-run; error and exit_code where nothing was called; the
               others have one as well
  -h, --help   this text
  --version    the version of this program

The call is made in a process of its own. This program prints what the action
sends to the installer, line by line as it comes ("log" for the verbose log,
"user" for a box, which is not shown but answered with OK), what it writes to
standard output and standard error ("stdout", "stderr"), then the result, or how
the action ended without one: an exception that left it, a process that it ended
or that crashed, the limit. What it has started and left running stays, but for
the limit.

Exit codes of --check: 0 no finding but hints, 1 warnings, 2 errors, 4 nothing
was checked: the package cannot be read, or the arguments are wrong; 9 and 10 as
below.

Exit codes:
)";

constexpr ExitMeaning kExitMeanings[] = {
    {ExitCode::Success, L"the action returned 0, or list, --help or --version was done"},
    {ExitCode::OtherResult, L"the action returned another result"},
    {ExitCode::WrongArguments, L"the arguments are wrong, a malformed property among them"},
    {ExitCode::NoLibrary, L"the library is missing or cannot be loaded"},
    {ExitCode::NoSuchAction, L"the library has no such action"},
    {ExitCode::NoSession, L"no installer session or process, or a property was refused"},
    {ExitCode::Exception, L"the action ended without a result: exception, abort, crash"},
    {ExitCode::OverTheLimit, L"the action did not end within the limit"},
    {ExitCode::NotWritten, L"something could not be written to standard output"},
    {ExitCode::RunnerFailed, L"this program itself failed, as for want of memory"},
};

constexpr std::uint32_t kGreatestLimit = 1000000;
constexpr const wchar_t* kCheck = L"--check";
constexpr int kGreatestRule = 9999;

[[noreturn]] void Refuse(const std::wstring& text) {
    throw RunnerError(ExitCode::WrongArguments, text);
}

bool IsLetter(wchar_t c) {
    return (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z');
}

bool IsPropertyName(const std::wstring& name) {
    const auto fits = [](wchar_t c) {
        return IsLetter(c) || (c >= L'0' && c <= L'9') || c == L'_' || c == L'.';
    };
    return !name.empty() && (IsLetter(name.front()) || name.front() == L'_') &&
           std::all_of(name.begin(), name.end(), fits);
}

Property ParseProperty(const std::wstring& argument, const std::vector<Property>& before) {
    const std::size_t equals = argument.find(L'=');
    if (equals == std::wstring::npos) {
        Refuse(L"\"" + argument + L"\" is no property: Property=Value is expected");
    }
    Property property = {argument.substr(0, equals), argument.substr(equals + 1)};
    if (!IsPropertyName(property.name)) {
        Refuse(L"\"" + property.name +
               L"\" is no name of a property: letters, digits, \"_\" and \".\", "
               L"no digit or \".\" in front");
    }
    const auto same = [&](const Property& other) {
        return other.name == property.name;
    };
    if (std::any_of(before.begin(), before.end(), same)) {
        Refuse(L"the property " + property.name + L" is given twice");
    }
    return property;
}

bool Contains(const std::vector<std::wstring>& arguments, const wchar_t* wanted) {
    return std::find(arguments.begin(), arguments.end(), wanted) != arguments.end();
}

/// The action that is named, where arguments need not be right; empty without one.
std::wstring NamedAction(const std::vector<std::wstring>& arguments) {
    for (std::size_t position = 0; position < arguments.size(); ++position) {
        const std::wstring& argument = arguments[position];
        if (argument == L"--dll" || argument == L"--limit" || argument == kCheck ||
            argument == L"--skip") {
            ++position;
        } else if (!argument.empty() && argument.front() != L'-') {
            return argument == L"list" || argument.find(L'=') != std::wstring::npos ? L""
                                                                                    : argument;
        }
    }
    return {};
}

/// Takes an option with its value, as `--name VALUE` or `--name=VALUE`, whose value is empty where
/// there is none. `position` ends at the last argument that was taken.
std::optional<std::wstring> TakeOption(const std::vector<std::wstring>& arguments,
                                       std::size_t& position, const std::wstring& option) {
    const std::wstring& argument = arguments[position];
    if (argument == option) {
        return position + 1 < arguments.size() ? arguments[++position] : L"";
    }
    if (argument.rfind(option + L"=", 0) == 0) {
        return argument.substr(option.size() + 1);
    }
    return std::nullopt;
}

bool TakeLibrary(const std::vector<std::wstring>& arguments, std::size_t& position,
                 Arguments& parsed) {
    const std::optional<std::wstring> path = TakeOption(arguments, position, L"--dll");
    if (!path) {
        return false;
    }
    if (path->empty()) {
        Refuse(L"--dll needs the path of a library");
    }
    if (!parsed.dll.empty()) {
        Refuse(L"--dll is given twice");
    }
    parsed.dll = *path;
    return true;
}

bool TakeLimit(const std::vector<std::wstring>& arguments, std::size_t& position,
               Arguments& parsed) {
    const std::optional<std::wstring> text = TakeOption(arguments, position, L"--limit");
    if (!text) {
        return false;
    }
    std::uint32_t seconds = 0;
    bool fits = !text->empty();
    for (const wchar_t c : *text) {
        fits = fits && c >= L'0' && c <= L'9';
        seconds = fits ? seconds * 10 + static_cast<std::uint32_t>(c - L'0') : 0;
        fits = fits && seconds <= kGreatestLimit;
    }
    if (!fits) {
        Refuse(L"--limit needs a whole number of seconds, at most " +
               std::to_wstring(kGreatestLimit));
    }
    parsed.limit = seconds;
    return true;
}

bool TakeTrace(const std::wstring& argument, Arguments& parsed) {
    if (argument == L"--dry-run") {
        parsed.trace = TraceMode::DryRun;
    } else if (argument == L"--trace") {
        parsed.trace = std::max(parsed.trace, TraceMode::Trace);
    } else {
        return false;
    }
    return true;
}

/// What is looked at must be an action, and one that has a dry run where one is asked for.
void CheckTrace(const Arguments& parsed) {
    if (parsed.trace == TraceMode::None) {
        return;
    }
    if (parsed.request != Request::Call) {
        Refuse(L"--trace and --dry-run belong to an action");
    }
    if (parsed.trace == TraceMode::DryRun && !HasDryRun(parsed.action)) {
        Refuse(parsed.action + L" has no dry run: it does more than remove. These have one: " +
               Joined(DryRunActions(), L", "));
    }
}

bool TakePackage(const std::vector<std::wstring>& arguments, std::size_t& position,
                 Arguments& parsed) {
    const std::optional<std::wstring> package = TakeOption(arguments, position, kCheck);
    if (!package) {
        return false;
    }
    if (package->empty() || package->rfind(L"--", 0) == 0 || !parsed.package.empty()) {
        Refuse(L"--check needs the path of one package");
    }
    parsed.package = *package;
    return true;
}

bool TakeSkipped(const std::vector<std::wstring>& arguments, std::size_t& position,
                 Arguments& parsed) {
    const std::optional<std::wstring> numbers = TakeOption(arguments, position, L"--skip");
    if (!numbers) {
        return false;
    }
    int number = 0;
    for (const wchar_t c : *numbers + L",") {
        if (c >= L'0' && c <= L'9' && number < (kGreatestRule + 1) / 10) {
            number = number * 10 + (c - L'0');
        } else if (c == L',' && number > 0) {
            parsed.skipped.push_back(number);
            number = 0;
        } else {
            Refuse(L"--skip needs numbers of rules, with commas between them");
        }
    }
    return true;
}

[[noreturn]] void RefuseQuote(const std::wstring& where, const std::wstring& remedy) {
    Refuse(where +
           L" holds a quote. A backslash right before a closing quote makes one, and takes "
           L"what follows into the value: double that backslash, as in "
           L"\"CustomActionData=InstallDir=C:\\my folder\\\\\"" +
           remedy);
}

void CheckQuotes(const Arguments& parsed, bool quotesAreMeant) {
    const auto holdsQuote = [](const std::wstring& text) {
        return text.find(L'"') != std::wstring::npos;
    };
    if (holdsQuote(parsed.dll)) {
        RefuseQuote(L"the path of --dll", L"");
    }
    for (const Property& property : parsed.properties) {
        if (!quotesAreMeant && holdsQuote(property.value)) {
            RefuseQuote(L"the value of " + property.name,
                        L"; where the quote is meant, add --quotes");
        }
    }
}

} // namespace

bool operator==(const Property& left, const Property& right) {
    return left.name == right.name && left.value == right.value;
}

Arguments ParseArguments(const std::vector<std::wstring>& arguments) {
    Arguments parsed;
    parsed.json = WantsJson(arguments);
    if (Contains(arguments, L"--help") || Contains(arguments, L"-h")) {
        parsed.request = Request::Help;
        parsed.action = NamedAction(arguments);
        return parsed;
    }
    if (Contains(arguments, L"--version")) {
        parsed.request = Request::Version;
        return parsed;
    }
    bool quotesAreMeant = false;
    for (std::size_t position = 0; position < arguments.size(); ++position) {
        const std::wstring& argument = arguments[position];
        if (argument == L"--json" || TakeLibrary(arguments, position, parsed) ||
            TakeLimit(arguments, position, parsed) || TakePackage(arguments, position, parsed) ||
            TakeSkipped(arguments, position, parsed) || TakeTrace(argument, parsed)) {
            continue;
        }
        if (argument == L"--quotes") {
            quotesAreMeant = true;
            continue;
        }
        if (argument.rfind(L'-', 0) == 0) {
            Refuse(L"unknown option " + argument);
        }
        if (!parsed.action.empty()) {
            parsed.properties.push_back(ParseProperty(argument, parsed.properties));
        } else if (argument.empty() || argument.find(L'=') != std::wstring::npos) {
            Refuse(L"\"" + argument + L"\" stands where the name of an action is expected");
        } else {
            parsed.action = argument;
        }
    }
    CheckQuotes(parsed, quotesAreMeant);
    if (!parsed.package.empty()) {
        parsed.request = Request::Check;
        if (!parsed.action.empty() || !parsed.dll.empty()) {
            Refuse(L"--check takes a package and no action or library");
        }
        CheckTrace(parsed);
        return parsed;
    }
    if (!parsed.skipped.empty()) {
        Refuse(L"--skip belongs to --check");
    }
    if (parsed.action.empty()) {
        Refuse(L"no action is named; halvard_run list shows them");
    }
    if (parsed.action == L"list") {
        parsed.request = Request::List;
        if (!parsed.properties.empty()) {
            Refuse(L"list takes no properties");
        }
    }
    CheckTrace(parsed);
    return parsed;
}

bool WantsCheck(const std::vector<std::wstring>& arguments) {
    return std::any_of(arguments.begin(), arguments.end(), [](const std::wstring& argument) {
        return argument == kCheck || argument.rfind(kCheck + std::wstring(L"="), 0) == 0;
    });
}

bool WantsJson(const std::vector<std::wstring>& arguments) {
    const auto swallows = [](const std::wstring& argument) {
        const std::size_t quote = argument.find(L'"');
        return quote != std::wstring::npos &&
               argument.find(L" --json", quote) != std::wstring::npos;
    };
    return Contains(arguments, L"--json") ||
           std::any_of(arguments.begin(), arguments.end(), swallows);
}

std::wstring HelpText() {
    std::wstring text = kHelp;
    for (const ExitMeaning& exit : kExitMeanings) {
        std::wstring code = std::to_wstring(static_cast<int>(exit.code));
        code.resize(4, L' ');
        text += L"  " + code + exit.means + L"\n";
    }
    return text;
}

std::wstring HelpJson() {
    const auto exitCode = [](const ExitMeaning& exit) {
        return JsonObject({{L"code", std::to_wstring(static_cast<int>(exit.code))},
                           {L"means", JsonString(exit.means)}});
    };
    return JsonObject({{L"help", JsonString(HelpText())},
                       {L"exit_codes", JsonArray(kExitMeanings, exitCode)},
                       {L"exit_code", L"0"}}) +
           L"\n";
}

} // namespace halvard_runner
