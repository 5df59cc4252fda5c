#include "verify/installer.h"

#include "verify/child.h"
#include "verify/package.h"
#include "verify/place.h"

#include "library.h"
#include "text.h"

#include "runtime/launch.h"
#include "runtime/owned.h"

#include <shlobj.h>

#include <algorithm>
#include <cwchar>
#include <map>
#include <optional>

namespace halvard_runner {

namespace {

constexpr int kImmediate = 1;
constexpr int kAsUser = 0x401;
constexpr int kDeferred = 0xC01;
constexpr int kIgnored = 0x40;
constexpr int kRollback = 0xD01;
constexpr wchar_t kProbe[] = L"Probe";
constexpr wchar_t kLibrary[] = L"Library";
constexpr WORD kProbeResource = 2;
constexpr DWORD kSessionLimitMilliseconds = 300000;

const std::vector<PackagedAction>& Actions() {
    static const std::vector<PackagedAction> actions = {
        {L"LookAtOnce", kImmediate, kProbe, L"Look", L"plain", 1110},
        {L"MarkBefore", kImmediate, kProbe, L"Mark", L"plain", 1120},
        {L"CallLibrary", kImmediate, kLibrary, L"LaunchedFromMIM", L"plain", 1130},
        {L"MarkAfter", kImmediate, kProbe, L"Mark", L"plain", 1140},
        {L"LookDeferred", kDeferred, kProbe, L"Look", L"plain", 5910},
        {L"LookAgain", kDeferred, kProbe, L"Look", L"plain", 5920},
        {L"LookAsUser", kAsUser, kProbe, L"Look", L"plain", 5930},
        {L"MarkFirst", kDeferred, kProbe, L"Mark", L"plain", 5940},
        {L"MarkSecond", kDeferred, kProbe, L"Mark", L"plain", 5950},
        {L"BeforeSkip", kDeferred, kProbe, L"Mark", L"skip", 5910},
        {L"Skip", kDeferred, kProbe, L"SkipTheRest", L"skip", 5920},
        {L"BehindSkip", kDeferred, kProbe, L"Mark", L"skip", 5930},
        {L"BeforeThrow", kDeferred, kProbe, L"Mark", L"throw", 5910},
        {L"Throw", kDeferred | kIgnored, kProbe, L"Throw", L"throw", 5920},
        {L"BehindThrow", kDeferred | kIgnored, kProbe, L"Mark", L"throw", 5930},
        {L"UndoBefore", kRollback, kProbe, L"Mark", L"rollback", 5910},
        {L"FailHere", kDeferred, kProbe, L"Fail", L"rollback", 5920},
        {L"UndoBehind", kRollback, kProbe, L"Mark", L"rollback", 5930},
    };
    return actions;
}

// What the probe told, as "Action.What" and value.
using Report = std::map<std::wstring, std::wstring>;

Report ReadReport(const std::wstring& path) {
    Report report;
    if (!IsThere(path)) {
        return report;
    }
    const std::wstring text = ReadText(path);
    std::size_t start = 0;
    while (start < text.size()) {
        const std::size_t end = std::min(text.find(L'\n', start), text.size());
        const std::wstring line = text.substr(start, end - start);
        const std::size_t equals = line.find(L'=');
        if (equals != std::wstring::npos) {
            report.emplace(line.substr(0, equals), line.substr(equals + 1));
        }
        start = end + 1;
    }
    return report;
}

std::wstring ValueOf(const Report& report, const wchar_t* name) {
    const auto found = report.find(name);
    return found == report.end() ? L"" : found->second;
}

void WriteProbe(const std::wstring& path) {
    auto* const found = FindResourceW(nullptr, MAKEINTRESOURCEW(kProbeResource), RT_RCDATA);
    Require(found != nullptr, L"finding the probe in this program");
    const auto* const bytes = static_cast<const char*>(LockResource(LoadResource(nullptr, found)));
    MakeFile(path, std::string(bytes, SizeofResource(nullptr, found)));
}

DWORD SizeOfFile(const std::wstring& path) {
    WIN32_FILE_ATTRIBUTE_DATA data = {};
    Require(GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data) != FALSE,
            L"the size of " + path);
    return data.nFileSizeLow;
}

halvard::OwnedService OpenManager() {
    return halvard::OwnedService(
        OpenSCManagerW(nullptr, SERVICES_ACTIVE_DATABASEW, SC_MANAGER_CONNECT));
}

halvard::OwnedService OpenOwnService(const halvard::OwnedService& manager, const std::wstring& name,
                                     DWORD access) {
    return halvard::OwnedService(OpenServiceW(manager.get(), name.c_str(), access));
}

// Empty where there is no such service.
std::wstring StoredPath(const std::wstring& service) {
    const halvard::OwnedService manager = OpenManager();
    const halvard::OwnedService opened = OpenOwnService(manager, service, SERVICE_QUERY_CONFIG);
    alignas(QUERY_SERVICE_CONFIGW) BYTE buffer[8192] = {};
    auto* const config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer);
    DWORD size = sizeof(buffer);
    if (!opened || QueryServiceConfigW(opened.get(), config, size, &size) == FALSE ||
        config->lpBinaryPathName == nullptr) {
        return {};
    }
    return config->lpBinaryPathName;
}

bool ServiceIsThere(const std::wstring& name) {
    const halvard::OwnedService manager = OpenManager();
    return static_cast<bool>(OpenOwnService(manager, name, SERVICE_QUERY_STATUS));
}

void DeleteOwnService(const std::wstring& name) {
    const halvard::OwnedService manager = OpenManager();
    const halvard::OwnedService service = OpenOwnService(manager, name, DELETE);
    if (service) {
        DeleteService(service.get());
    }
}

/// The product of this program's own. Whoever installs it takes it away again.
class OwnProduct {
public:
    explicit OwnProduct(const Scratch& scratch)
        : scratch_(scratch), package_(scratch.Folder() + L"\\probe.msi") {
        parts_.productCode = NewCode();
        parts_.componentCode = NewCode();
        parts_.packageCode = NewCode();
        parts_.folder = L"Halvard verify " + scratch.Name().substr(scratch.Name().rfind(L'_') + 1);
        parts_.service = scratch.Name();
        parts_.program = L"probe.exe";
        parts_.actions = Actions();
        const std::wstring program = ChildAt(scratch.Folder() + L"\\" + parts_.program);
        parts_.programSize = SizeOfFile(program);
        const std::wstring probe = scratch.Folder() + L"\\probe.dll";
        WriteProbe(probe);
        const std::wstring self = ProgramPath();
        parts_.binaries = {{kProbe, probe},
                           {kLibrary, self.substr(0, self.rfind(L'\\') + 1) + L"Halvard_CA.dll"}};
        WritePackage(package_, parts_);
    }
    struct Session {
        UINT result = 0;
        Report report;
        std::wstring servicePath;
    };

    [[nodiscard]] Session Install(const std::wstring& mode) const {
        const std::wstring report = scratch_.Folder() + L"\\" + mode + L".txt";
        Session session;
        session.result = RunSession({L"MODE", mode, L"REPORTFILE", report});
        session.servicePath = StoredPath(parts_.service);
        session.report = ReadReport(report);
        TakeAway();
        if (IsInstalled()) {
            throw CannotBeAsked(L"what was installed could not be removed");
        }
        return session;
    }

    /// What a removal leaves under some engines goes as well, also where the removal itself cannot
    /// be carried out; then throws CannotBeAsked.
    void TakeAway() const {
        std::optional<CannotBeAsked> failure;
        try {
            if (IsInstalled()) {
                static_cast<void>(RunSession({L"REMOVE", L"ALL"}));
            }
        } catch (const CannotBeAsked& error) {
            failure = error;
        }
        DeleteOwnService(parts_.service);
        RemoveAnything(Extended(Folder()));
        if (failure) {
            throw CannotBeAsked(*failure);
        }
    }

    [[nodiscard]] std::vector<std::wstring> Left() const {
        std::vector<std::wstring> left;
        if (IsInstalled()) {
            left.push_back(L"the product " + parts_.productCode);
        }
        if (ServiceIsThere(parts_.service)) {
            left.push_back(L"the service " + parts_.service);
        }
        if (IsThere(Folder())) {
            left.push_back(Folder());
        }
        return left;
    }

    [[nodiscard]] std::wstring Folder() const {
        return halvard::ShellFolderOrEmpty(CSIDL_PROGRAM_FILES) + L"\\" + parts_.folder;
    }

private:
    // In a process of its own: after an exception in an action some engines are good for nothing in
    // the process that began the session.
    [[nodiscard]] UINT RunSession(const std::vector<std::wstring>& namesAndValues) const {
        std::wstring command = L"\"" + ProgramPath() + L"\" " + kChildWord + L" " + kInstallWord +
                               L" \"" + package_ + L"\"";
        for (const std::wstring& each : namesAndValues) {
            command += L" \"" + each + L"\"";
        }
        const std::optional<DWORD> code = RunToItsEnd(
            command, halvard::ShellFolderOrEmpty(CSIDL_SYSTEM), kSessionLimitMilliseconds);
        if (!code) {
            throw CannotBeAsked(L"an installation did not end");
        }
        return *code;
    }

    [[nodiscard]] bool IsInstalled() const {
        const INSTALLSTATE state = MsiQueryProductStateW(parts_.productCode.c_str());
        return state != INSTALLSTATE_UNKNOWN && state != INSTALLSTATE_INVALIDARG;
    }

    const Scratch& scratch_;
    std::wstring package_;
    PackageParts parts_;
};

/// All sessions, one after the other.
struct Sessions {
    explicit Sessions(const OwnProduct& product)
        : plain(product.Install(L"plain")), skip(product.Install(L"skip")),
          thrown(product.Install(L"throw")), rollback(product.Install(L"rollback")) {}

    OwnProduct::Session plain;
    OwnProduct::Session skip;
    OwnProduct::Session thrown;
    OwnProduct::Session rollback;
};

std::wstring Told(const Report& report, const wchar_t* name) {
    std::wstring value = ValueOf(report, name);
    if (value.empty()) {
        throw CannotBeAsked(L"the action told nothing of " + std::wstring(name));
    }
    return value;
}

bool Ran(const Report& report, const wchar_t* action) {
    return report.count(action + std::wstring(L".time")) > 0;
}

void RequireRun(const OwnProduct::Session& session, const wchar_t* action) {
    if (!Ran(session.report, action)) {
        throw CannotBeAsked(std::wstring(action) + L" did not run, the session ended with " +
                            std::to_wstring(session.result));
    }
}

std::wstring Skipped(const Sessions& sessions) {
    RequireRun(sessions.skip, L"BeforeSkip");
    return std::to_wstring(sessions.skip.result) +
           (Ran(sessions.skip.report, L"BehindSkip") ? L", goes on" : L", skips the rest");
}

std::wstring BehindException(const Sessions& sessions) {
    RequireRun(sessions.thrown, L"BeforeThrow");
    return std::to_wstring(sessions.thrown.result) +
           (Ran(sessions.thrown.report, L"BehindThrow") ? L", goes on" : L", does not run");
}

std::wstring ServicePath(const Sessions& sessions) {
    const std::wstring& path = sessions.plain.servicePath;
    if (path.empty()) {
        throw CannotBeAsked(L"there was no service");
    }
    return path[0] == L'"' ? L"quoted" : L"plain";
}

std::wstring OrdinaryProperty(const Sessions& sessions) {
    static_cast<void>(Told(sessions.plain.report, L"LookDeferred.CustomActionData"));
    return ValueOf(sessions.plain.report, L"LookDeferred.ProductName").empty() ? L"empty" : L"read";
}

std::wstring DeferredProperties(const Sessions& sessions) {
    std::wstring seen;
    for (const wchar_t* const name : {L"CustomActionData", L"ProductCode", L"UserSID"}) {
        if (!ValueOf(sessions.plain.report, (L"LookDeferred." + std::wstring(name)).c_str())
                 .empty()) {
            seen += seen.empty() ? name : L", " + std::wstring(name);
        }
    }
    return seen.empty() ? L"none" : seen;
}

std::wstring RollbackActions(const Sessions& sessions) {
    const bool before = Ran(sessions.rollback.report, L"UndoBefore");
    const bool behind = Ran(sessions.rollback.report, L"UndoBehind");
    if (before && behind) {
        return L"both";
    }
    return before ? L"that before" : behind ? L"that behind" : L"none";
}

std::wstring FileNameOf(const std::wstring& path) {
    return LowerCase(path.substr(path.rfind(L'\\') + 1));
}

std::wstring HostProgram(const Sessions& sessions) {
    return FileNameOf(Told(sessions.plain.report, L"LookDeferred.host"));
}

bool BeginsWith(const std::wstring& path, const std::wstring& folder) {
    return path.size() >= folder.size() &&
           CompareStringOrdinal(path.c_str(), static_cast<int>(folder.size()), folder.c_str(),
                                static_cast<int>(folder.size()), TRUE) == CSTR_EQUAL;
}

std::wstring PlaceOf(const std::wstring& path) {
    wchar_t windows[MAX_PATH] = {};
    GetWindowsDirectoryW(windows, MAX_PATH);
    wchar_t temporary[MAX_PATH + 1] = {};
    GetTempPathW(MAX_PATH + 1, temporary);
    const std::pair<std::wstring, const wchar_t*> places[] = {
        {windows + std::wstring(L"\\Installer\\"), L"Installer folder"},
        {windows + std::wstring(L"\\system32"), L"system folder"},
        {windows + std::wstring(L"\\"), L"Windows folder"},
        {temporary, L"folder of the user"},
    };
    for (const auto& [folder, name] : places) {
        if (BeginsWith(path, folder)) {
            return name;
        }
    }
    return L"elsewhere";
}

std::wstring HostDirectory(const Sessions& sessions) {
    return PlaceOf(Told(sessions.plain.report, L"LookDeferred.directory"));
}

std::wstring HostTemporary(const Sessions& sessions) {
    return PlaceOf(Told(sessions.plain.report, L"LookDeferred.temporary"));
}

std::wstring UserTemporary(const Sessions& sessions) {
    return PlaceOf(Told(sessions.plain.report, L"LookAsUser.temporary"));
}

std::wstring ExtractedTo(const Sessions& sessions) {
    return PlaceOf(Told(sessions.plain.report, L"LookDeferred.library"));
}

std::wstring ExtractedAnew(const Sessions& sessions) {
    const bool same = Told(sessions.plain.report, L"LookDeferred.library") ==
                      Told(sessions.plain.report, L"LookAgain.library");
    return same ? L"once" : L"for each action";
}

std::wstring UserText(const std::wstring& identity) {
    return identity == L"S-1-5-18" ? L"the system" : L"the user";
}

std::wstring DeferredUser(const Sessions& sessions) {
    return UserText(Told(sessions.plain.report, L"LookDeferred.user"));
}

std::wstring ImpersonatedUser(const Sessions& sessions) {
    return UserText(Told(sessions.plain.report, L"LookAsUser.user"));
}

long long MillisecondsBetween(const Report& report, const wchar_t* first, const wchar_t* second) {
    return (std::wcstoll(Told(report, second).c_str(), nullptr, 10) -
            std::wcstoll(Told(report, first).c_str(), nullptr, 10)) /
           1000;
}

std::wstring WithinASecond(long long milliseconds) {
    return milliseconds < 1000 ? L"less than a second" : L"a second and more";
}

long long TimeOfProbe(const Sessions& sessions) {
    return MillisecondsBetween(sessions.plain.report, L"MarkFirst.time", L"MarkSecond.time");
}

long long TimeOfLibrary(const Sessions& sessions) {
    return MillisecondsBetween(sessions.plain.report, L"MarkBefore.time", L"MarkAfter.time");
}

std::wstring ProbeDuration(const Sessions& sessions) {
    return WithinASecond(TimeOfProbe(sessions));
}

std::wstring LibraryDuration(const Sessions& sessions) {
    return WithinASecond(TimeOfLibrary(sessions));
}

// What stands behind an outcome, for those who read it elsewhere.

std::wstring PathOfService(const Sessions& sessions) {
    return sessions.plain.servicePath;
}

std::wstring EndOfRollback(const Sessions& sessions) {
    return L"the installation ended with " + std::to_wstring(sessions.rollback.result);
}

std::wstring PathOfHost(const Sessions& sessions) {
    return ValueOf(sessions.plain.report, L"LookDeferred.host");
}

std::wstring PathOfDirectory(const Sessions& sessions) {
    return ValueOf(sessions.plain.report, L"LookDeferred.directory");
}

std::wstring PathOfTemporary(const Sessions& sessions) {
    return ValueOf(sessions.plain.report, L"LookDeferred.temporary");
}

std::wstring PathOfUserTemporary(const Sessions& sessions) {
    return ValueOf(sessions.plain.report, L"LookAsUser.temporary");
}

std::wstring PathOfLibrary(const Sessions& sessions) {
    return ValueOf(sessions.plain.report, L"LookDeferred.library");
}

std::wstring MillisecondsOfProbe(const Sessions& sessions) {
    return std::to_wstring(TimeOfProbe(sessions)) + L" ms";
}

std::wstring MillisecondsOfLibrary(const Sessions& sessions) {
    return std::to_wstring(TimeOfLibrary(sessions)) + L" ms with the action that measures";
}

std::wstring NoDetail(const Sessions& /*sessions*/) {
    return {};
}

struct InstallerFact {
    const wchar_t* name;
    std::wstring (*observe)(const Sessions& sessions);
    std::wstring (*detail)(const Sessions& sessions);
};

const std::vector<InstallerFact>& InstallerFacts() {
    static const std::vector<InstallerFact> facts = {
        {L"no-more-items", Skipped, NoDetail},
        {L"behind-exception", BehindException, NoDetail},
        {L"service-path", ServicePath, PathOfService},
        {L"ordinary-property", OrdinaryProperty, NoDetail},
        {L"deferred-properties", DeferredProperties, NoDetail},
        {L"rollback-actions", RollbackActions, EndOfRollback},
        {L"host-program", HostProgram, PathOfHost},
        {L"host-directory", HostDirectory, PathOfDirectory},
        {L"host-temporary", HostTemporary, PathOfTemporary},
        {L"user-temporary", UserTemporary, PathOfUserTemporary},
        {L"deferred-user", DeferredUser, NoDetail},
        {L"impersonated-user", ImpersonatedUser, NoDetail},
        {L"extracted-to", ExtractedTo, PathOfLibrary},
        {L"extracted-anew", ExtractedAnew, NoDetail},
        {L"call-duration", ProbeDuration, MillisecondsOfProbe},
        {L"library-duration", LibraryDuration, MillisecondsOfLibrary},
    };
    return facts;
}

FactResult ResultOf(const FactText& text, const Sessions& sessions) {
    FactResult result;
    result.text = &text;
    for (const InstallerFact& fact : InstallerFacts()) {
        if (std::wstring(fact.name) == text.name) {
            try {
                result.outcome = fact.observe(sessions);
                result.why = fact.detail(sessions);
            } catch (const CannotBeAsked& reason) {
                result.why = reason.Why();
            }
        }
    }
    return result;
}

using FactList = std::vector<const FactText*>;

std::vector<FactResult> NotAsked(const FactList& texts, const std::wstring& why) {
    std::vector<FactResult> results;
    for (const FactText* const text : texts) {
        results.emplace_back();
        results.back().text = text;
        results.back().why = why;
    }
    return results;
}

// What cannot be taken away is looked for afterwards.
void TryToTakeAway(const OwnProduct& product) {
    try {
        product.TakeAway();
    } catch (const CannotBeAsked&) {
        return;
    }
}

// Whatever breaks the sessions off, the product is taken away.
std::vector<FactResult> AskProduct(const FactList& texts, const OwnProduct& product) {
    try {
        const Sessions sessions(product);
        std::vector<FactResult> results;
        for (const FactText* const text : texts) {
            results.push_back(ResultOf(*text, sessions));
        }
        return results;
    } catch (const std::exception& error) {
        TryToTakeAway(product);
        return NotAsked(texts, ReasonText(error));
    }
}

} // namespace

int RunInstallerSession(const std::vector<std::wstring>& arguments) {
    std::wstring properties = L"LAUNCHED_FROM_MIM=1";
    for (std::size_t index = 1; index + 1 < arguments.size(); index += 2) {
        properties += L" " + arguments[index] + L"=\"" + arguments[index + 1] + L"\"";
    }
    MsiSetInternalUI(INSTALLUILEVEL_NONE, nullptr);
    return static_cast<int>(MsiInstallProductW(arguments[0].c_str(), properties.c_str()));
}

InstallerAnswer AskInstaller(const std::vector<const FactText*>& texts) {
    const Scratch scratch;
    InstallerAnswer answer;
    try {
        const OwnProduct product(scratch);
        answer.results = AskProduct(texts, product);
        answer.left = product.Left();
    } catch (const std::exception& error) {
        answer.results = NotAsked(texts, ReasonText(error));
    }
    const std::vector<std::wstring> left = scratch.Remove();
    answer.left.insert(answer.left.end(), left.begin(), left.end());
    return answer;
}

} // namespace halvard_runner
