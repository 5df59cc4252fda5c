#include "verify/verify.h"

#include "library.h"
#include "report.h"
#include "runner_error.h"
#include "text_output.h"
#include "verify/child.h"
#include "verify/fact.h"
#include "verify/installer.h"
#include "verify/place.h"
#include "version.h"

#include "runtime/owned.h"

#include <algorithm>
#include <cstring>
#include <map>

namespace halvard_runner {

namespace {

constexpr DWORD kFactLimitMilliseconds = 60000;

constexpr const wchar_t* kHelp = LR"(Checks on this machine what the library relies on.

  halvard_run --verify [--json]
  halvard_run --verify-installer [--yes] [--json]

--verify asks one fact after the other, in a folder below the temporary one and
in a key below HKEY_CURRENT_USER\Software, both with names of their own, and
removes them. Nothing else is changed, and no elevation is needed. It shows of
each fact what Windows is documented or assumed to do, what Wine 8 and Wine 10
do, what this machine does, and whether that agrees. It takes about a minute.

--verify-installer installs and removes a small package of its own. It needs
elevation, and asks before it begins; --yes answers that.

  --json       one JSON object, for scripts

Exit codes:
  0    nothing that could be asked differs from what is expected of Windows
  1    something differs
  2    the arguments are wrong
  20   something that was made could not be removed; it is named
  21   it could not be carried out, no fact could be asked, or it was not wanted
)";

bool IsElevated() {
    HANDLE opened = nullptr;
    if (OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &opened) == FALSE) {
        return false;
    }
    const halvard::OwnedHandle token(opened);
    TOKEN_ELEVATION elevation = {};
    DWORD size = sizeof(elevation);
    return GetTokenInformation(token.get(), TokenElevation, &elevation, size, &size) != FALSE &&
           elevation.TokenIsElevated != 0;
}

template <typename Function>
Function Exported(const char* name) {
    return reinterpret_cast<Function>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll"), name)));
}

AskedSystem ThisSystem() {
    AskedSystem system;
    system.program = L"halvard_run " HALVARD_VERSION_TEXT;
    OSVERSIONINFOW version = {};
    version.dwOSVersionInfoSize = sizeof(version);
    if (const auto ask = Exported<LONG(WINAPI*)(OSVERSIONINFOW*)>("RtlGetVersion")) {
        ask(&version);
    }
    system.windows = std::to_wstring(version.dwMajorVersion) + L"." +
                     std::to_wstring(version.dwMinorVersion) + L"." +
                     std::to_wstring(version.dwBuildNumber);
    if (const auto ask = Exported<const char*(CDECL*)()>("wine_get_version")) {
        system.wine = Widened(ask());
    }
    system.elevated = IsElevated();
    return system;
}

std::map<std::wstring, Fact> AllFacts() {
    std::map<std::wstring, Fact> facts;
    for (const auto& list : {ProcessFacts(), RegistryFacts(), FileFacts(), XmlFacts(), TaskFacts(),
                             SecurityFacts(), SessionFacts()}) {
        for (const Fact& fact : list) {
            facts.emplace(fact.name, fact);
        }
    }
    return facts;
}

std::wstring ResultFile(const std::wstring& folder, const std::wstring& name) {
    return folder + L"\\" + name + L".result";
}

// No box and no report of the system: whoever waits for this process reads its exit code.
LONG WINAPI EndAtOnce(EXCEPTION_POINTERS* pointers) {
    TerminateProcess(GetCurrentProcess(), pointers->ExceptionRecord->ExceptionCode);
    return EXCEPTION_EXECUTE_HANDLER;
}

void AskHere(const std::wstring& scratch, const Fact& fact, FactResult& result) {
    try {
        const ScratchPlace place(scratch, fact.name);
        result.outcome = fact.observe(place);
    } catch (const std::exception& error) {
        result.why = ReasonText(error);
    }
}

// One fact in a process of its own: what it ends with, and what it prints, harms no other.
int AskInChild(const std::wstring& name, const std::wstring& scratch, const std::wstring& folder) {
    SetUnhandledExceptionFilter(EndAtOnce);
    FactResult result;
    AskHere(scratch, AllFacts().at(name), result);
    WriteText(ResultFile(folder, name), AnswerText(result));
    return 0;
}

// Where actions run. In the scratch folder whatever a child starts might hold it.
std::wstring SystemFolder() {
    wchar_t folder[MAX_PATH] = {};
    GetSystemDirectoryW(folder, MAX_PATH);
    return folder;
}

void AskInProcess(const Scratch& scratch, FactResult& result) {
    const std::wstring name = result.text->name;
    const std::optional<DWORD> code =
        RunToItsEnd(L"\"" + ProgramPath() + L"\" " + kChildWord + L" fact " + name + L" " +
                        scratch.Name() + L" \"" + scratch.Folder() + L"\"",
                    SystemFolder(), kFactLimitMilliseconds);
    const std::wstring file = ResultFile(scratch.Folder(), name);
    if (!code) {
        result.outcome = L"does not end";
    } else if (*code != 0 || !IsThere(file)) {
        result.outcome = L"ends its process";
        result.why = L"exit code " + HexadecimalText(*code);
    } else {
        TakeAnswer(ReadText(file), result);
    }
}

// What keeps one fact from being asked keeps no other.
void Ask(const Scratch& scratch, FactResult& result) {
    try {
        AskInProcess(scratch, result);
    } catch (const CannotBeAsked& reason) {
        result.why = reason.Why();
    }
}

double Seconds() {
    LARGE_INTEGER now = {};
    LARGE_INTEGER frequency = {};
    QueryPerformanceCounter(&now);
    QueryPerformanceFrequency(&frequency);
    return static_cast<double>(now.QuadPart) / static_cast<double>(frequency.QuadPart);
}

bool IsOfInstaller(const FactText& text) {
    return std::wstring(text.subject) == kInstallerSubject;
}

std::vector<FactResult> AskAll(const Scratch& scratch) {
    std::vector<FactResult> results;
    for (const FactText& text : FactTexts()) {
        if (IsOfInstaller(text)) {
            continue;
        }
        FactResult result;
        result.text = &text;
        const double began = Seconds();
        Ask(scratch, result);
        result.milliseconds = (Seconds() - began) * 1000;
        results.push_back(result);
    }
    return results;
}

int Tell(bool json, const AskedSystem& system, const std::vector<FactResult>& results,
         const std::vector<std::wstring>& left) {
    Write(STD_OUTPUT_HANDLE,
          json ? FactJson(system, results, left) : FactTable(system, results, left));
    return static_cast<int>(ExitOf(results, left));
}

int VerifyFacts(bool json) {
    const AskedSystem system = ThisSystem();
    const Scratch scratch;
    const std::vector<FactResult> results = AskAll(scratch);
    const std::vector<std::wstring> left = scratch.Remove();
    return Tell(json, system, results, left);
}

int NotCarriedOut(bool json, const std::wstring& why) {
    constexpr int kCode = static_cast<int>(VerifyExit::NotCarriedOut);
    Write(json ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE,
          json ? ErrorJson(why, kCode) : L"halvard_run: " + why + L"\n");
    return kCode;
}

bool UserAgrees() {
    Write(STD_ERROR_HANDLE,
          L"This installs a package of its own on this machine four times, with a service that is\n"
          L"never started, and removes it each time. Go on? Type yes: ");
    char answer[16] = {};
    DWORD read = 0;
    ReadFile(GetStdHandle(STD_INPUT_HANDLE), answer, sizeof(answer) - 1, &read, nullptr);
    return std::string(answer, read).rfind("yes", 0) == 0;
}

int VerifyInstaller(bool json, bool agreed) {
    const AskedSystem system = ThisSystem();
    if (!system.elevated) {
        return NotCarriedOut(json, L"--verify-installer needs elevation");
    }
    if (!agreed && !UserAgrees()) {
        return NotCarriedOut(json, L"nothing was installed");
    }
    std::vector<const FactText*> texts;
    for (const FactText& text : FactTexts()) {
        if (IsOfInstaller(text)) {
            texts.push_back(&text);
        }
    }
    const InstallerAnswer answer = AskInstaller(texts);
    return Tell(json, system, answer.results, answer.left);
}

int RunChild(const std::vector<std::wstring>& arguments) {
    if (arguments[0] == kInstallWord) {
        return RunInstallerSession({arguments.begin() + 1, arguments.end()});
    }
    const bool asks = arguments[0] == L"fact" && arguments.size() == 4;
    return asks ? AskInChild(arguments[1], arguments[2], arguments[3]) : RunStandIn(arguments);
}

bool TakeWord(std::vector<std::wstring>& words, const wchar_t* word) {
    const auto found = std::find(words.begin(), words.end(), word);
    const bool isThere = found != words.end();
    if (isThere) {
        words.erase(found);
    }
    return isThere;
}

} // namespace

std::optional<int> Verify(const std::vector<std::wstring>& arguments) {
    if (arguments.size() > 2 && arguments[0] == kChildWord) {
        return RunChild({arguments.begin() + 1, arguments.end()});
    }
    std::vector<std::wstring> words = arguments;
    const bool installer = TakeWord(words, L"--verify-installer");
    if (!installer && !TakeWord(words, L"--verify")) {
        return std::nullopt;
    }
    const bool json = TakeWord(words, L"--json");
    if (TakeWord(words, L"--help") || TakeWord(words, L"-h")) {
        const JsonMembers help = {{L"help", JsonString(kHelp)}, {L"exit_code", L"0"}};
        Write(STD_OUTPUT_HANDLE, json ? JsonObject(help) + L"\n" : kHelp);
        return 0;
    }
    const bool agreed = installer && TakeWord(words, L"--yes");
    if (!words.empty()) {
        throw RunnerError(ExitCode::WrongArguments,
                          (installer ? L"--verify-installer takes no " : L"--verify takes no ") +
                              words[0]);
    }
    try {
        return installer ? VerifyInstaller(json, agreed) : VerifyFacts(json);
    } catch (const CannotBeAsked& reason) {
        return NotCarriedOut(json, reason.Why());
    }
}

} // namespace halvard_runner
