#include "check/rules.h"

#include "action_page.h"
#include "check/condition.h"
#include "check/package_view.h"

#include <algorithm>
#include <set>
#include <string_view>

namespace halvard_runner {

namespace {

constexpr const wchar_t* kActions = L"CustomAction";

using Names = std::vector<std::wstring>;

bool Holds(const Names& names, const std::wstring& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

/// What the rules look at, and where they put what they find.
struct Check {
    const PackageView& view;
    std::wstring version;
    std::vector<Finding>& found;

    void Find(int number, const std::wstring& table, const std::wstring& row,
              const std::wstring& what) const {
        found.push_back({number, table, row, what});
    }
};

void CheckExports(const Check& check) {
    for (const CustomActionRow& row : check.view.CallsOfTheLibrary()) {
        if (!Holds(check.view.Library()->exports, row.target)) {
            check.Find(101, kActions, row.action, row.target);
        }
    }
}

void CheckDeclarations(const Check& check) {
    for (const LibraryAction& action : check.view.Actions()) {
        // What never runs does no harm, and wixl makes immediate actions of rollback ones.
        if (check.view.PlacesOf(action.id).empty()) {
            continue;
        }
        const ActionFacts& facts = *action.facts;
        const std::wstring declared = DeclarationText(facts);
        if (action.IsDeferred() && facts.execution == Execution::Immediate) {
            check.Find(103, kActions, action.id, declared);
        } else if (!action.IsDeferred() && facts.execution == Execution::Deferred) {
            check.Find(102, kActions, action.id, declared);
        } else if (action.IsDeferred() && action.IsImpersonated() != facts.impersonated &&
                   !facts.asUserToo) {
            check.Find(104, kActions, action.id, declared);
        }
        if (action.IsAsynchronous()) {
            check.Find(108, kActions, action.id, declared);
        } else if (action.IsChecked() && !facts.checked) {
            check.Find(105, kActions, action.id, declared);
        } else if (!action.IsChecked() && facts.checked && !action.IsRollback()) {
            check.Find(106, kActions, action.id, declared);
        }
    }
}

void CheckUnused(const Check& check) {
    Names unused;
    for (const LibraryAction& action : check.view.Actions()) {
        if (check.view.PlacesOf(action.id).empty()) {
            unused.push_back(action.id);
        }
    }
    if (!unused.empty()) {
        std::wstring names = unused.front();
        for (std::size_t i = 1; i < unused.size(); ++i) {
            names += L", " + unused[i];
        }
        check.Find(107, kActions, L"", names);
    }
}

bool WantsData(const ActionFacts& facts) {
    return !facts.data.empty() || !facts.wholeData.empty();
}

void CheckWhetherDataIsSet(const Check& check) {
    for (const LibraryAction& action : check.view.ScheduledActions(kExecute)) {
        if (!action.IsDeferred() || !WantsData(*action.facts)) {
            continue;
        }
        if (check.view.DataOf(action.id).empty()) {
            check.Find(201, kActions, action.id, L"nothing sets the property " + action.id);
            continue;
        }
        for (const KnownSession& session : KnownSessions()) {
            if (check.view.Runs(action.id, session) != Truth::False &&
                !check.view.IsSetIn(action.id, session)) {
                check.Find(208, kActions, action.id, L"not set: " + session.name);
                break;
            }
        }
    }
}

std::size_t FirstItem(const std::wstring& data, const std::wstring& key) {
    return data.rfind(key, 0) == 0 ? 0 : data.find(L";" + key);
}

void CheckKeys(const Check& check, const LibraryAction& action, const DataSource& source) {
    const std::wstring& data = source.value;
    for (const DataKey& known : action.facts->data) {
        const std::wstring key = known.name + L"=";
        const std::size_t first = data.find(key);
        std::wstring what = key;
        what.append(L" in ").append(data);
        if (FirstItem(data, key) == std::wstring::npos) {
            if (known.needed && first == std::wstring::npos) {
                check.Find(202, source.table, source.row, what);
            } else if (first != std::wstring::npos) {
                check.Find(203, source.table, source.row, what);
            }
        } else if (first != 0 && data[first - 1] != L';') {
            check.Find(203, source.table, source.row, what);
        }
    }
}

void CheckItems(const Check& check, const LibraryAction& action, const DataSource& source) {
    for (const DataItem& item : ItemsOf(source.value)) {
        const auto knows = [&](const DataKey& known) {
            return known.name == item.key;
        };
        const auto& keys = action.facts->data;
        if (!item.hasKey) {
            check.Find(204, source.table, source.row, L"\"" + item.value + L"\"");
        } else if (std::none_of(keys.begin(), keys.end(), knows)) {
            check.Find(205, source.table, source.row, item.key + L"=");
        }
    }
}

/// The text of a value but for what the installer puts in place of properties.
std::wstring WithoutProperties(const std::wstring& value) {
    std::wstring text;
    bool inside = false;
    for (const wchar_t c : value) {
        inside = c == L'[' || (inside && c != L']');
        if (!inside && c != L']') {
            text += c;
        }
    }
    return text;
}

void CheckNames(const Check& check, const LibraryAction& action, const DataSource& source) {
    static const Names names = {L"TaskName", L"DLLName", L"Username"};
    for (const DataItem& item : ItemsOf(source.value)) {
        const std::wstring text = WithoutProperties(item.value);
        const bool isCommand = item.key == L"CommandToLaunch";
        const wchar_t* const bad = isCommand ? L"\"&<>" : L" \"&<>";
        const bool isName = Holds(names, item.key);
        if ((isName || isCommand) && text.find_first_of(bad) != std::wstring::npos) {
            check.Find(206, source.table, source.row, item.key + L"=" + item.value);
        }
        if (item.key == L"ClientName" && text.find(L'_') != std::wstring::npos) {
            check.Find(207, source.table, source.row, item.value);
        }
        const bool startsServer = action.facts->name == L"SetPermissionsRegisterDLL" ||
                                  action.facts->name == L"UnregisterDLL";
        if (startsServer && item.key == L"InstallDir" && !check.view.EndsInBackslash(item.value)) {
            check.Find(209, source.table, source.row, item.value);
        }
    }
}

void CheckData(const Check& check) {
    for (const LibraryAction& action : check.view.Actions()) {
        if (!action.IsDeferred() || action.facts->data.empty()) {
            continue;
        }
        for (const DataSource& source : check.view.DataOf(action.id)) {
            CheckKeys(check, action, source);
            CheckItems(check, action, source);
            CheckNames(check, action, source);
        }
    }
}

void CheckTimeOfData(const Check& check) {
    const std::optional<int> known = check.view.NumberOf(L"CostFinalize");
    for (const LibraryAction& action : check.view.ScheduledActions(kExecute)) {
        for (const DataSource& source : check.view.DataOf(action.id)) {
            const std::optional<int> set = check.view.NumberOf(source.row);
            if (!action.IsDeferred() || !known || !set || *set > *known) {
                continue;
            }
            for (const std::wstring& property : PropertiesIn(source.value)) {
                if (check.view.IsOwnDirectory(property)) {
                    check.Find(210, source.table, source.row, L"[" + property + L"]");
                    break;
                }
            }
        }
    }
}

void CheckScript(const Check& check) {
    const std::optional<int> begin = check.view.NumberOf(L"InstallInitialize");
    const std::optional<int> end = check.view.NumberOf(L"InstallFinalize");
    for (const LibraryAction& action : check.view.Actions()) {
        for (const SequenceRow* const place : check.view.PlacesOf(action.id)) {
            if (!action.IsDeferred()) {
                continue;
            }
            if (place->table != kExecute) {
                check.Find(302, place->table, action.id, L"");
            } else if ((begin && *place->number < *begin) || (end && *place->number > *end)) {
                check.Find(301, place->table, action.id,
                           L"number " + std::to_wstring(*place->number));
            }
        }
    }
}

/// Whether two actions may both run in one session.
bool Meet(const PackageView& view, const std::wstring& one, const std::wstring& other) {
    const auto meetIn = [&](const KnownSession& session) {
        return view.Runs(one, session) != Truth::False && view.Runs(other, session) != Truth::False;
    };
    return std::any_of(KnownSessions().begin(), KnownSessions().end(), meetIn);
}

bool RemovesToolsFolder(const std::wstring& action) {
    return action == L"DeletePVFolder" || action == L"DeletePVINSTALLDIRFolder";
}

using SeenPairs = std::set<std::pair<std::wstring, std::wstring>>;

/// Two actions of the library that stand the wrong way round; each pair once.
void CheckPair(const Check& check, const LibraryAction& first, const LibraryAction& second,
               SeenPairs& seen) {
    if (*check.view.NumberOf(first.id) < *check.view.NumberOf(second.id) ||
        !Meet(check.view, first.id, second.id) || !seen.emplace(first.id, second.id).second) {
        return;
    }
    const bool needsTool =
        first.facts->name == L"DeleteXVRFolder" || first.facts->name == L"ShutDownPivotConsole";
    check.Find(needsTool && RemovesToolsFolder(second.facts->name) ? 307 : 306, kExecute, first.id,
               first.id + L" belongs before " + second.id);
}

/// Those that call the export of that name.
std::vector<LibraryAction> Calls(const std::vector<LibraryAction>& scheduled,
                                 const std::wstring& name) {
    std::vector<LibraryAction> calls;
    for (const LibraryAction& action : scheduled) {
        if (action.facts->name == name && !action.IsRollback()) {
            calls.push_back(action);
        }
    }
    return calls;
}

/// The number of an action of the installer's own.
std::optional<int> StandardNumber(const PackageView& view, const std::wstring& name) {
    return FindFacts(name) == nullptr ? view.NumberOf(name) : std::nullopt;
}

void CheckWhatIsBefore(const Check& check, const LibraryAction& action,
                       const std::vector<LibraryAction>& scheduled, SeenPairs& seen) {
    for (const std::wstring& name : action.facts->place.behind) {
        const std::optional<int> number = StandardNumber(check.view, name);
        if (number && *check.view.NumberOf(action.id) < *number) {
            check.Find(303, kExecute, action.id, action.id + L" belongs behind " + name);
        }
        for (const LibraryAction& other : Calls(scheduled, name)) {
            CheckPair(check, other, action, seen);
        }
    }
}

void CheckWhatIsBehind(const Check& check, const LibraryAction& action,
                       const std::vector<LibraryAction>& scheduled, SeenPairs& seen) {
    for (const std::wstring& name : action.facts->place.before) {
        const std::optional<int> number = StandardNumber(check.view, name);
        if (number && *check.view.NumberOf(action.id) > *number &&
            RunsOnRemoval(check.view, action.id)) {
            check.Find(304, kExecute, action.id, action.id + L" belongs before " + name);
        }
        for (const LibraryAction& other : Calls(scheduled, name)) {
            CheckPair(check, action, other, seen);
        }
    }
}

void CheckOrder(const Check& check) {
    SeenPairs seen;
    const std::vector<LibraryAction> scheduled = check.view.ScheduledActions(kExecute);
    for (const LibraryAction& action : scheduled) {
        if (!action.IsRollback()) {
            CheckWhatIsBefore(check, action, scheduled, seen);
            CheckWhatIsBehind(check, action, scheduled, seen);
        }
    }
}

bool MakesTask(const ActionFacts& facts) {
    return facts.subsystem == L"tasks" && !facts.undoneBy.empty();
}

/// An action and what takes it back, in one session and in this order.
void CheckCounterpart(const Check& check, const LibraryAction& action, const LibraryAction& undo) {
    if (action.IsRollback() || *check.view.NumberOf(undo.id) < *check.view.NumberOf(action.id) ||
        !Meet(check.view, action.id, undo.id)) {
        return;
    }
    const std::wstring what = undo.id + L" is behind " + action.id;
    if (undo.IsRollback()) {
        check.Find(310, kExecute, undo.id, what);
    } else if (MakesTask(*action.facts)) {
        check.Find(305, kExecute, undo.id, what);
    }
}

void CheckUndoing(const Check& check) {
    const std::vector<LibraryAction> scheduled = check.view.ScheduledActions(kExecute);
    for (const LibraryAction& action : scheduled) {
        for (const LibraryAction& undo : scheduled) {
            if (action.facts->undoneBy == undo.facts->name) {
                CheckCounterpart(check, action, undo);
            }
        }
    }
}

void CheckStopOfAgent(const Check& check) {
    constexpr const wchar_t* kAgent = L"TeloLauncher";
    for (const LibraryAction& action : check.view.ScheduledActions(kExecute)) {
        if (action.facts->name == L"PreInstallUPA" &&
            !check.view.NamesBefore(kAgent, *check.view.NumberOf(action.id))) {
            check.Find(308, kExecute, action.id, L"");
        }
    }
}

void CheckEndOfTasks(const Check& check) {
    for (const LibraryAction& action : check.view.ScheduledActions(kExecute)) {
        const std::wstring& name = action.facts->name;
        if (name != L"CreateTriggerlessElevatedScheduleTask" && name != L"PostInstallUPA") {
            continue;
        }
        for (const DataSource& source : check.view.DataOf(action.id)) {
            for (const DataItem& item : ItemsOf(source.value)) {
                if (item.key == L"TaskName" && !check.view.DeletesTask(item.value)) {
                    check.Find(311, kExecute, action.id, item.value);
                }
            }
        }
    }
}

void CheckUpgrade(const Check& check) {
    constexpr const wchar_t* kRemoval = L"RemoveExistingProducts";
    const std::optional<int> removal = check.view.NumberOf(kRemoval);
    if (!removal) {
        return;
    }
    for (const LibraryAction& action : check.view.ScheduledActions(kExecute)) {
        if (action.facts->place.session == Session::Installation && action.IsDeferred() &&
            !action.IsRollback() && *check.view.NumberOf(action.id) < *removal) {
            check.Find(309, kExecute, kRemoval, L"behind " + action.id);
            return;
        }
    }
    for (const wchar_t* const writing : {L"InstallFiles", L"WriteRegistryValues"}) {
        if (check.view.NumberOf(writing).value_or(*removal) < *removal) {
            check.Find(309, kExecute, kRemoval, std::wstring(L"behind ") + writing);
            return;
        }
    }
}

bool IsLaunchCondition(const std::wstring& action) {
    return action == L"BlockLaunch" || action == L"LaunchedFromMIM";
}

void CheckLaunchConditions(const Check& check) {
    for (const LibraryAction& action : check.view.Actions()) {
        const std::vector<const SequenceRow*> places = check.view.PlacesOf(action.id);
        if (!IsLaunchCondition(action.facts->name)) {
            continue;
        }
        if (places.size() > 1) {
            check.Find(402, places.back()->table, action.id,
                       places.front()->table + L" and " + places.back()->table);
        }
        for (const SequenceRow* const place : places) {
            for (const KnownSession& session : KnownSessions()) {
                if (action.facts->name == L"BlockLaunch" && session.isInstalled &&
                    Evaluated(place->condition, session.known).value_or(Truth::False) !=
                        Truth::False) {
                    check.Find(401, place->table, action.id, session.name);
                    break;
                }
            }
        }
    }
}

/// A task that is there is removed before it is made anew, in every session; the order is another
/// rule's.
bool RemovesTaskThatIsMade(const std::vector<LibraryAction>& scheduled,
                           const std::wstring& action) {
    return std::any_of(scheduled.begin(), scheduled.end(), [&](const LibraryAction& each) {
        return MakesTask(*each.facts) && each.facts->undoneBy == action;
    });
}

void CheckSessions(const Check& check) {
    const std::vector<LibraryAction> scheduled = check.view.ScheduledActions(kExecute);
    for (const LibraryAction& action : scheduled) {
        const Session belongs = action.facts->place.session;
        if (action.IsRollback() || belongs == Session::Any ||
            IsLaunchCondition(action.facts->name) ||
            RemovesTaskThatIsMade(scheduled, action.facts->name)) {
            continue;
        }
        for (const KnownSession& session : KnownSessions()) {
            const bool removes = belongs == Session::Removal;
            if (session.isRemoval != removes &&
                check.view.Runs(action.id, session) != Truth::False) {
                check.Find(removes ? 403 : 404, kExecute, action.id, session.name);
                break;
            }
        }
    }
}

/// By the session that it is only sure to run in: a change of features may bring the folder anew.
void CheckRepair(const Check& check) {
    for (const LibraryAction& action : check.view.ScheduledActions(kExecute)) {
        if (action.facts->name != L"SetPermissionsRegisterDLL" || action.IsRollback()) {
            continue;
        }
        for (const KnownSession& session : KnownSessions()) {
            if (session.isInstalled && !session.isRemoval &&
                check.view.Runs(action.id, session) == Truth::True) {
                check.Find(408, kExecute, action.id, session.name);
                break;
            }
        }
    }
}

void CheckBehindClients(const Check& check) {
    static const Names written = {
        L"InstallFiles",    L"WriteRegistryValues", L"RemoveFiles",    L"RemoveRegistryValues",
        L"InstallServices", L"StartServices",       L"DeleteServices", L"CreateShortcuts",
        L"PublishFeatures", L"RegisterProduct",     L"PublishProduct", L"RemoveExistingProducts"};
    std::optional<int> decision;
    for (const LibraryAction& action : check.view.ScheduledActions(kExecute)) {
        if (action.facts->name == L"CheckForClients" && !action.IsRollback()) {
            decision = check.view.NumberOf(action.id);
        }
    }
    const std::optional<int> end = check.view.NumberOf(L"InstallFinalize");
    if (!decision || !end) {
        return;
    }
    for (const LibraryAction& action : check.view.ScheduledActions(kExecute)) {
        const int number = *check.view.NumberOf(action.id);
        if (number > *decision && number < *end && action.facts->subsystem != L"agent") {
            check.Find(405, kExecute, action.id, L"");
        }
    }
    for (const std::wstring& name : written) {
        const std::optional<int> number = check.view.NumberOf(name);
        if (number && *number > *decision && *number < *end) {
            check.Find(405, kExecute, name, L"");
        }
    }
}

void CheckSyntax(const Check& check) {
    for (const SequenceRow& row : check.view.Rows().sequences) {
        if (!Evaluated(row.condition, {})) {
            check.Find(406, row.table, row.action, row.condition);
        }
    }
}

void CheckForgottenChoice(const Check& check) {
    for (const LibraryAction& action : check.view.ScheduledActions(kExecute)) {
        if (action.facts->name == L"DeleteAnalyticsKey" && !action.IsRollback() &&
            check.view.Runs(action.id, RemovalByNewerVersion()) != Truth::False &&
            !check.view.SetsBeforeRemoval(L"DISABLEANALYTICS")) {
            check.Find(407, kExecute, action.id, L"");
        }
    }
}

void CheckSecureProperties(const Check& check) {
    std::set<std::wstring> seen;
    for (const LibraryAction& action : check.view.ScheduledActions(kExecute)) {
        for (const std::wstring& property : action.facts->properties) {
            if (!Holds(check.view.SecureProperties(), property) && seen.insert(property).second) {
                check.Find(501, L"Property", property, action.id + L" reads it");
            }
        }
    }
}

/// What has been told of folders, each once.
struct ToldFolders {
    std::set<std::wstring> secure;
    std::set<std::wstring> chosen;
};

void CheckFolder(const Check& check, const ActionFacts& facts, const DataSource& source,
                 const std::wstring& property, ToldFolders& told) {
    const std::wstring chosen = check.view.ChosenBy(property);
    const std::wstring& named = chosen.empty() ? property : chosen;
    const bool isSecure = Holds(check.view.SecureProperties(), property) ||
                          Holds(check.view.SecureProperties(), named);
    if (isSecure && told.secure.insert(named).second) {
        check.Find(502, L"Property", named, source.row);
    }
    if (!facts.wholeData.empty()) {
        return;
    }
    if (IsPublic(property)) {
        check.Find(503, source.table, source.row, L"[" + property + L"]");
    }
    if (!chosen.empty() && !check.view.RefusesSemicolonIn(chosen) &&
        told.chosen.insert(chosen).second) {
        std::wstring what = L"[";
        what.append(property).append(L"], which follows ").append(chosen);
        check.Find(504, source.table, source.row, what);
    }
}

void CheckFolders(const Check& check) {
    ToldFolders told;
    for (const LibraryAction& action : check.view.ScheduledActions(kExecute)) {
        if (!action.IsDeferred() || !WantsData(*action.facts)) {
            continue;
        }
        for (const DataSource& source : check.view.DataOf(action.id)) {
            for (const std::wstring& property : FolderProperties(*action.facts, source.value)) {
                CheckFolder(check, *action.facts, source, property, told);
            }
        }
    }
}

void CheckValueLengths(const Check& check) {
    constexpr std::size_t kPivot = 200;
    constexpr std::size_t kValue = 129;
    for (const RegistryRow& row : check.view.Rows().registry) {
        const std::size_t length = check.view.DefaultText(row.value).size();
        const std::wstring what = row.key + L", " + std::to_wstring(length) + L" characters";
        if (IsKey(row, L"SOFTWARE\\Qorta Technologies\\Install\\Pivot") &&
            IsName(row.name, L"Location") && length > kPivot) {
            check.Find(601, L"Registry", row.row, what);
        }
        if (IsKey(row, L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\"
                       L"Zenvo Meridian Install Manager") &&
            IsName(row.name, L"InstallDir") && length > kValue) {
            check.Find(602, L"Registry", row.row, what);
        }
        if (IsKey(row, L"SOFTWARE\\ZenvoBranding") && length > kValue) {
            check.Find(604, L"Registry", row.row, what);
        }
    }
}

void CheckRecordersFolder(const Check& check) {
    for (const RegistryRow& row : check.view.Rows().registry) {
        if (IsKey(row, L"SOFTWARE\\Qorta Technologies\\Install\\XVR64") &&
            IsName(row.name, L"InstallDir") && !check.view.EndsInBackslash(row.value)) {
            check.Find(803, L"Registry", row.row, row.value);
        }
    }
}

/// Whether a scheduled action looks for a key of the machine in the 64-bit view alone.
bool IsReadIn64BitView(const Check& check, const RegistryRow& row) {
    constexpr std::wstring_view machine = L"HKLM\\";
    constexpr std::wstring_view software = L"SOFTWARE\\";
    constexpr std::wstring_view software32 = L"SOFTWARE\\Wow6432Node\\";
    bool isRead = false;
    for (const LibraryAction& action : check.view.ScheduledActions(kExecute)) {
        for (const std::wstring& key : action.facts->registry) {
            const std::wstring path = key.substr(std::min(machine.size(), key.size()));
            if (path.rfind(software32, 0) == 0) {
                const std::wstring seen = std::wstring(software) + path.substr(software32.size());
                if (IsKey(row, seen)) {
                    return false;
                }
            } else if (key.rfind(machine, 0) == 0 && path.rfind(software, 0) == 0) {
                isRead = isRead || IsKey(row, path);
            }
        }
    }
    return isRead;
}

void CheckViews(const Check& check) {
    for (const RegistryRow& row : check.view.Rows().registry) {
        if (row.is32Bit && IsReadIn64BitView(check, row)) {
            check.Find(804, L"Registry", row.row, row.key);
        }
    }
}

void CheckWholeData(const Check& check) {
    constexpr std::size_t kWhole = 259;
    for (const LibraryAction& action : check.view.Actions()) {
        if (action.facts->wholeData.empty()) {
            continue;
        }
        for (const DataSource& source : check.view.DataOf(action.id)) {
            const std::size_t length = check.view.DefaultText(source.value).size();
            if (length > kWhole) {
                check.Find(603, source.table, source.row, std::to_wstring(length) + L" characters");
            }
        }
    }
}

void CheckLibrary(const Check& check) {
    const LibraryFacts& library = *check.view.Library();
    const std::wstring& platform = check.view.Rows().platform;
    if (library.machine != Machine::X64 || platform != L"x64") {
        check.Find(701, L"Binary", library.binary,
                   std::wstring(L"the library is ") +
                       (library.machine == Machine::X64 ? L"x64" : L"not x64") +
                       L", the package is for " + (platform.empty() ? L"nothing" : platform));
    }
    if (library.version != check.version) {
        check.Find(702, L"Binary", library.binary,
                   (library.version.empty() ? L"none" : library.version) + L" and " +
                       check.version);
    }
    if (!library.isSigned) {
        check.Find(703, L"Binary", library.binary, L"");
    }
}

void CheckServices(const Check& check) {
    constexpr std::uint32_t kStopOnRemoval = 0x20;
    constexpr std::uint32_t kDeleteOnRemoval = 0x80;
    for (const LibraryAction& action : check.view.ScheduledActions(kExecute)) {
        if (action.facts->name != L"DeleteServiceIfBinaryIsInDirectory") {
            continue;
        }
        for (const DataSource& source : check.view.DataOf(action.id)) {
            for (const DataItem& item : ItemsOf(source.value)) {
                std::uint32_t events = 0;
                for (const ServiceControlRow& control : check.view.Rows().serviceControls) {
                    events |= IsName(control.name, item.value) ? control.event : 0;
                }
                if (item.key == L"ServiceName" && Holds(check.view.Rows().services, item.value) &&
                    (events & (kStopOnRemoval | kDeleteOnRemoval)) !=
                        (kStopOnRemoval | kDeleteOnRemoval)) {
                    check.Find(801, source.table, source.row, item.value);
                }
            }
        }
    }
}

void CheckBranding(const Check& check) {
    std::wstring folder;
    for (const RegistryRow& row : check.view.Rows().registry) {
        if (IsKey(row, L"SOFTWARE\\Zenvo\\PV") && IsName(row.name, L"PVBrandingInstallDir")) {
            folder = check.view.DefaultText(row.value);
        }
    }
    for (const RegistryRow& row : check.view.Rows().registry) {
        const std::wstring value = check.view.DefaultText(row.value);
        if (!folder.empty() && IsKey(row, L"SOFTWARE\\ZenvoBranding") &&
            value.rfind(folder, 0) == 0 &&
            value.find_first_of(L"\\/", folder.size()) != std::wstring::npos) {
            check.Find(802, L"Registry", row.row, value);
        }
    }
}

} // namespace

const RuleText& TextOf(const Finding& finding) {
    const std::vector<RuleText>& table = RuleTable();
    return *std::find_if(table.begin(), table.end(),
                         [&](const RuleText& rule) { return rule.number == finding.number; });
}

std::vector<Finding> Findings(const Package& package, const std::wstring& version,
                              const std::vector<int>& skipped) {
    const PackageView view(package);
    std::vector<Finding> found;
    const Check check = {view, version, found};
    CheckSyntax(check);
    if (view.Library() == nullptr) {
        check.Find(704, L"Binary", L"", L"");
    } else {
        for (const auto rule : {CheckExports,
                                CheckDeclarations,
                                CheckUnused,
                                CheckWhetherDataIsSet,
                                CheckData,
                                CheckTimeOfData,
                                CheckScript,
                                CheckOrder,
                                CheckUndoing,
                                CheckStopOfAgent,
                                CheckEndOfTasks,
                                CheckUpgrade,
                                CheckLaunchConditions,
                                CheckSessions,
                                CheckRepair,
                                CheckBehindClients,
                                CheckForgottenChoice,
                                CheckSecureProperties,
                                CheckFolders,
                                CheckValueLengths,
                                CheckWholeData,
                                CheckLibrary,
                                CheckServices,
                                CheckRecordersFolder,
                                CheckViews,
                                CheckBranding}) {
            rule(check);
        }
    }
    found.erase(std::remove_if(found.begin(), found.end(),
                               [&](const Finding& finding) {
                                   return std::find(skipped.begin(), skipped.end(),
                                                    finding.number) != skipped.end();
                               }),
                found.end());
    std::stable_sort(found.begin(), found.end(), [](const Finding& left, const Finding& right) {
        return left.number < right.number;
    });
    return found;
}

} // namespace halvard_runner
