#include "arguments.h"

#include "runner_error.h"

#include <algorithm>

namespace halvard_runner {

namespace {

constexpr const wchar_t* kHelp = LR"(Calls one action of Halvard_CA.dll without a package.

  halvard_run list [--dll PATH] [--json]
  halvard_run ACTION [Property=Value...] [--dll PATH] [--json]
  halvard_run --verify [--json]
  halvard_run --verify-installer [--yes] [--json]

The action runs for real: on this machine, with the rights of the caller, in the
system folder as under the installer. It gets an installer session of its own
that holds the given properties, such as CustomActionData="Key=value;Key=value",
and nothing of a package. Property names keep their case; a value is taken as it
is, and square brackets in it are not replaced. A backslash right before a
closing quote has to be doubled, or the quote becomes part of the value.

  list         the names that the library exports, one a line
  --verify     checks on this machine what the library relies on, and
               --verify-installer what it relies on in an installation; --help
               behind either tells more
  --dll PATH   the library; Halvard_CA.dll beside this program without it
  --json       one JSON object, for scripts: action, dll, properties, log,
               messages (kind, type, text), result, result_name, exception
               (kind, type, code, category, text), milliseconds, exit_code;
               dll and actions for list; error and exit_code where nothing
               was called
  -h, --help   this text
  --version    the version of this program

It prints what the action sends to the installer, line by line as it comes
("log" for the verbose log, "user" for a box, which is not shown but answered
with OK), then the result, or the exception that left the action.

Exit codes:
  0   the action returned 0, or list, --help or --version was done
  1   the action returned another result
  2   the arguments are wrong, a malformed property among them
  4   the library is missing or cannot be loaded
  5   the library has no such action
  6   no installer session, or the session refused a property
  7   an exception left the action, or the action gave up (abort)
)";

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

/// Takes `--dll PATH` or `--dll=PATH`; `position` ends at the last argument that was taken.
bool TakeLibrary(const std::vector<std::wstring>& arguments, std::size_t& position,
                 Arguments& parsed) {
    const std::wstring option = L"--dll";
    const std::wstring& argument = arguments[position];
    std::wstring path;
    if (argument == option) {
        if (position + 1 < arguments.size()) {
            path = arguments[++position];
        }
    } else if (argument.rfind(option + L"=", 0) == 0) {
        path = argument.substr(option.size() + 1);
    } else {
        return false;
    }
    if (path.empty()) {
        Refuse(L"--dll needs the path of a library");
    }
    if (!parsed.dll.empty()) {
        Refuse(L"--dll is given twice");
    }
    parsed.dll = path;
    return true;
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
        return parsed;
    }
    if (Contains(arguments, L"--version")) {
        parsed.request = Request::Version;
        return parsed;
    }
    for (std::size_t position = 0; position < arguments.size(); ++position) {
        const std::wstring& argument = arguments[position];
        if (argument == L"--json" || TakeLibrary(arguments, position, parsed)) {
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
    if (parsed.action.empty()) {
        Refuse(L"no action is named; halvard_run list shows them");
    }
    if (parsed.action == L"list") {
        parsed.request = Request::List;
        if (!parsed.properties.empty()) {
            Refuse(L"list takes no properties");
        }
    }
    return parsed;
}

bool WantsJson(const std::vector<std::wstring>& arguments) {
    return Contains(arguments, L"--json");
}

const wchar_t* HelpText() {
    return kHelp;
}

} // namespace halvard_runner
