#include "command_line_words.h"

#include "com_server/registration_commands.h"
#include "launch/context_menu_commands.h"
#include "launch/install_proxy_command.h"
#include "processes/process_commands.h"
#include "runtime/launch_text.h"
#include "tasks/schtasks_commands.h"

namespace {

using halvard_tests::ArgumentWords;
using halvard_tests::CommandLineWords;
using halvard_tests::IsBlank;
using halvard_tests::Require;
using halvard_tests::Texts;

// In wide characters, terminators included.
constexpr std::size_t kTaskLimit = 260;
constexpr std::size_t kLaunchLimit = 519;

// The pattern with each "%s" filled in, in order.
std::wstring Filled(const std::wstring& pattern, const Texts& values) {
    std::wstring text;
    std::size_t start = 0;
    for (const std::wstring& value : values) {
        const std::size_t place = pattern.find(L"%s", start);
        Require(place != std::wstring::npos);
        text += pattern.substr(start, place - start) + value;
        start = place + 2;
    }
    return text + pattern.substr(start);
}

bool HasNoQuote(const std::wstring& text) {
    return text.find(L'"') == std::wstring::npos;
}

// Between quotes such a text stays one word and unchanged.
bool StaysInQuotes(const std::wstring& text) {
    return HasNoQuote(text) && (text.empty() || text.back() != L'\\');
}

bool IsWord(const std::wstring& text) {
    return HasNoQuote(text) && !text.empty() && std::none_of(text.begin(), text.end(), IsBlank);
}

bool EndsInSlash(const std::wstring& text) {
    return !text.empty() && (text.back() == L'\\' || text.back() == L'/');
}

void RequireText(const std::wstring& command, const std::wstring& expected) {
    Require(command == expected);
}

void RequireText(const std::optional<std::wstring>& command, const std::wstring& expected,
                 std::size_t limit) {
    Require(command.has_value() == (expected.size() + 1 <= limit));
    Require(!command || *command == expected);
}

// What a program is told by a command that fits.
void RequireWords(const std::optional<std::wstring>& command, const Texts& expected) {
    Require(!command || CommandLineWords(*command) == expected);
}

void CheckTaskCommands(const std::wstring& name, const std::wstring& path,
                       const std::wstring& argument) {
    const auto create = halvard::CreateTaskCommand(name, path);
    RequireText(create, Filled(LR"(schtasks /Create /TN "%s" /XML "%s")", {name, path}),
                kTaskLimit);
    const auto change = halvard::ChangeTaskCommand(name, path, argument);
    RequireText(change,
                Filled(LR"(schtasks /change /TN "%s" /TR "\"%s\" %s")", {name, path, argument}),
                kTaskLimit);
    const std::wstring remove = halvard::DeleteTaskCommand(name);
    RequireText(remove, Filled(LR"(schtasks /delete /TN "%s" /F)", {name}));
    const std::wstring run = halvard::RunTaskCommand(name);
    RequireText(run, Filled(LR"(schtasks /run /TN "%s")", {name}));
    const std::wstring parameters = halvard::RunTaskParameters(name);
    RequireText(parameters, Filled(L" /run /TN %s", {name}));
    if (IsWord(name)) {
        Require(ArgumentWords(parameters) == Texts{L"/run", L"/TN", name});
    }
    if (!StaysInQuotes(name)) {
        return;
    }
    RequireWords(remove, {L"schtasks", L"/delete", L"/TN", name, L"/F"});
    RequireWords(run, {L"schtasks", L"/run", L"/TN", name});
    if (!StaysInQuotes(path)) {
        return;
    }
    RequireWords(create, {L"schtasks", L"/Create", L"/TN", name, L"/XML", path});
    if (StaysInQuotes(argument)) {
        const std::wstring started = Filled(LR"("%s" %s)", {path, argument});
        RequireWords(change, {L"schtasks", L"/change", L"/TN", name, L"/TR", started});
        // That is the command line with which the task starts its program.
        Require(CommandLineWords(started)[0] == path);
    }
}

void CheckProcessCommands(const std::wstring& folder, const std::wstring& image) {
    const auto exit = halvard::ExitCommand(folder);
    RequireText(exit, Filled(LR"("%s" exit)", {folder}), kLaunchLimit);
    if (HasNoQuote(folder)) {
        RequireWords(exit, {folder, L"exit"});
    }
    for (const wchar_t* const end : {L"", L"\""}) {
        const auto kill = halvard::TaskKillCommand(folder, image, end);
        RequireText(kill, Filled(LR"("%s\TaskKill.exe" /IM %s /F%s)", {folder, image, end}),
                    kLaunchLimit);
        if (HasNoQuote(folder) && IsWord(image)) {
            RequireWords(kill, {folder + L"\\TaskKill.exe", L"/IM", image, L"/F"});
        }
    }
}

void CheckProxyCommand(const std::wstring& location, const std::wstring& directory) {
    const std::wstring tool = halvard::FrameworkToolPath(location);
    RequireText(tool, Filled(EndsInSlash(location) ? L"%sCLI.exe" : L"%s\\CLI.exe", {location}));
    const std::wstring proxy = halvard::InstallProxyPath(directory);
    RequireText(proxy, Filled(EndsInSlash(directory)
                                  ? LR"(%s\Kiln-InstallProxy-Net4\Kiln.InstallProxy.exe)"
                                  : LR"(%s\\Kiln-InstallProxy-Net4\Kiln.InstallProxy.exe)",
                              {directory}));
    const auto install = halvard::InstallProxyCommand(tool, proxy);
    RequireText(install, Filled(LR"("%s" Install %s)", {tool, proxy}), kLaunchLimit);
    if (install && HasNoQuote(location) && HasNoQuote(directory)) {
        // The proxy's path is cut at its blanks.
        Texts words = {tool, L"Install"};
        std::wstring word;
        for (const wchar_t character : proxy + L' ') {
            if (!IsBlank(character)) {
                word += character;
            } else if (!word.empty()) {
                words.push_back(word);
                word.clear();
            }
        }
        RequireWords(install, words);
    }
}

// The command as the command interpreter runs it.
std::wstring Interpreted(const std::wstring& command) {
    const std::wstring line = halvard::CmdCommandLine(command);
    const std::wstring start = L"cmd.exe /C ";
    Require(line.compare(0, start.size(), start) == 0);
    return halvard_tests::RunByCommandInterpreter(line.substr(start.size()));
}

void CheckServerCommands(const std::wstring& given, const std::wstring& name) {
    std::wstring path = given;
    halvard::DropTrailingSlash(path);
    Require(path == (EndsInSlash(given) ? given.substr(0, given.size() - 1) : given));

    const std::wstring owner = halvard::OwnerCommand(path, name);
    RequireText(owner, Filled(LR"(icacls "%s" /setowner %s)", {path, name}));
    const std::wstring grant = halvard::GrantCommand(path);
    RequireText(grant, Filled(LR"(icacls "%s" /grant Users:F)", {path}));
    const std::wstring leave = halvard::UnregisterCommand(given, name);
    RequireText(leave, Filled(LR"(regsvr32.exe /u /s "%s%s")", {given, name}));
    const std::wstring enter = halvard::RegisterCommand(given, name);
    RequireText(enter, Filled(LR"(regsvr32.exe /s "%s\%s")", {given, name}));
    for (const std::wstring& command : {owner, grant, leave, enter, given}) {
        Require(Interpreted(command) == command);
    }
    if (StaysInQuotes(path)) {
        RequireWords(grant, {L"icacls", path, L"/grant", L"Users:F"});
        if (IsWord(name)) {
            RequireWords(owner, {L"icacls", path, L"/setowner", name});
        }
    }
    if (HasNoQuote(given) && StaysInQuotes(name) && !name.empty()) {
        RequireWords(leave, {L"regsvr32.exe", L"/u", L"/s", given + name});
        RequireWords(enter, {L"regsvr32.exe", L"/s", given + L"\\" + name});
    }
}

void CheckPowerShellCommands(const std::wstring& path) {
    const std::wstring program = LR"(%SYSTEMROOT%\System32\WindowsPowerShell\v1.0\powershell.exe)";
    Require(halvard::ContextMenuFolder(path) == path + L"Program Files\\ContextMenuDemo\\");
    const std::wstring trust = Filled(
        L"Import-Certificate -FilePath '%s' -CertStoreLocation Cert:\\LocalMachine\\Root", {path});
    const std::wstring add = Filled(L"Add-AppxPackage -Path '%s'", {path});
    const std::wstring quoted = L"\"" + program + L"\" \"%s\"";
    RequireText(halvard::ImportCertificateCommand(path), Filled(quoted, {trust}));
    RequireText(halvard::AddPackageCommand(path), Filled(quoted, {add}));
    if (HasNoQuote(path)) {
        RequireWords(halvard::ImportCertificateCommand(path), {program, trust});
        RequireWords(halvard::AddPackageCommand(path), {program, add});
    }
}

void CheckLaunchTexts(const std::wstring& text, std::size_t limit) {
    RequireText(halvard::CommandIfItFits(text, limit), text, limit);
    const auto code = static_cast<std::uint32_t>(limit * 0x9E3779B9U);
    RequireText(
        halvard::FailedLaunchText(text, code),
        Filled(L"\nFailed to lauch >%s<\n Last error return: %s\n", {text, std::to_wstring(code)}));
}

} // namespace

// A byte that chooses the commands, then three texts, one a line: they stand for names, folders,
// paths and arguments in turn.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const Texts words = {
        std::wstring(60, L'x'),
        L"C:\\Program Files\\",
        L"\\\\",
        L"\"",
        L" ",
        L"\\\"",
        L"%SYSTEMROOT%",
        L"StartPV",
        L"vs.exe",
        L"-a \"b c\"",
    };
    if (size == 0) {
        return 0;
    }
    Texts texts = halvard_tests::Lines(halvard_tests::Text(bytes + 1, size - 1, words));
    texts.resize(3);
    switch (bytes[0] % 6) {
    case 0:
        CheckTaskCommands(texts[0], texts[1], texts[2]);
        break;
    case 1:
        CheckProcessCommands(texts[0], texts[1]);
        break;
    case 2:
        CheckProxyCommand(texts[0], texts[1]);
        break;
    case 3:
        CheckServerCommands(texts[0], texts[1]);
        break;
    case 4:
        CheckPowerShellCommands(texts[0]);
        break;
    default:
        CheckLaunchTexts(texts[0], texts[1].size());
    }
    return 0;
}
