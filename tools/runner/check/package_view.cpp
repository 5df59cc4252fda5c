#include "check/package_view.h"

#include "action_page.h"
#include "text.h"

#include <algorithm>

namespace halvard_runner {

namespace {

// Bits of the type of a custom action.
constexpr std::uint32_t kSource = 0x3F;
constexpr std::uint32_t kLibraryInBinaryTable = 0x01;
constexpr std::uint32_t kSetProperty = 0x33;
constexpr std::uint32_t kContinue = 0x40;
constexpr std::uint32_t kAsync = 0x80;
constexpr std::uint32_t kRollback = 0x100;
constexpr std::uint32_t kInScript = 0x400;
constexpr std::uint32_t kNoImpersonation = 0x800;

// What a name in square brackets begins with that is none of a property; a component stands for
// its directory.
constexpr const wchar_t* kNoProperty = L"#$!%\\~";
constexpr const wchar_t* kComponent = L"$";

constexpr int kDeepest = 64;

bool IsSetter(const CustomActionRow& row, const std::wstring& property) {
    return (row.type & kSource) == kSetProperty && row.source == property;
}

std::vector<std::wstring> Split(const std::wstring& text, wchar_t separator) {
    std::vector<std::wstring> parts;
    std::size_t start = 0;
    for (std::size_t end = text.find(separator); end != std::wstring::npos;
         start = end + 1, end = text.find(separator, start)) {
        parts.push_back(text.substr(start, end - start));
    }
    parts.push_back(text.substr(start));
    return parts;
}

std::size_t KnownExports(const LibraryFacts& library) {
    const auto isKnown = [](const std::wstring& name) {
        return FindFacts(name) != nullptr;
    };
    return static_cast<std::size_t>(
        std::count_if(library.exports.begin(), library.exports.end(), isKnown));
}

KnownProperties Known(const wchar_t* installed, const wchar_t* remove, const wchar_t* reinstall,
                      const wchar_t* upgrading) {
    return {{L"Installed", installed},
            {L"REMOVE", remove},
            {L"REINSTALL", reinstall},
            {L"UPGRADINGPRODUCTCODE", upgrading}};
}

/// The long name of what the column DefaultDir has for the target.
std::wstring LongName(const std::wstring& defaultName) {
    const std::wstring target = Split(defaultName, L':').front();
    return Split(target, L'|').back();
}

} // namespace

bool LibraryAction::IsDeferred() const {
    return (type & kInScript) != 0;
}

bool LibraryAction::IsRollback() const {
    return (type & (kInScript | kRollback)) == (kInScript | kRollback);
}

bool LibraryAction::IsImpersonated() const {
    return (type & kNoImpersonation) == 0;
}

bool LibraryAction::IsChecked() const {
    return (type & kContinue) == 0;
}

bool LibraryAction::IsAsynchronous() const {
    return (type & kAsync) != 0;
}

const std::vector<KnownSession>& KnownSessions() {
    static const std::vector<KnownSession> sessions = {
        {L"on installation", Known(L"", L"", L"", L""), false, false},
        {L"on repair", Known(L"00:00:00", L"", L"ALL", L""), true, false},
        {L"when a feature is removed", Known(L"00:00:00", L"Feature", L"", L""), true, false},
        {L"on removal", Known(L"00:00:00", L"ALL", L"", L""), true, true},
        {L"on removal by a newer version", Known(L"00:00:00", L"ALL", L"", L"{0}"), true, true},
    };
    return sessions;
}

const KnownSession& RemovalByNewerVersion() {
    return KnownSessions().back();
}

std::vector<DataItem> ItemsOf(const std::wstring& data) {
    std::vector<DataItem> items;
    for (const std::wstring& part : Split(data, L';')) {
        const std::size_t equals = part.find(L'=');
        if (equals != std::wstring::npos) {
            items.push_back({part.substr(0, equals), part.substr(equals + 1), true});
        } else if (!part.empty()) {
            items.push_back({L"", part, false});
        }
    }
    return items;
}

std::vector<DataItem> FoldersOf(const ActionFacts& facts, const std::wstring& data) {
    if (!facts.wholeData.empty()) {
        return {{L"", data, false}};
    }
    std::vector<DataItem> folders;
    for (const DataItem& item : ItemsOf(data)) {
        if (item.key == L"InstallDir" || item.key == L"DirectoryOfBinary" ||
            item.key == L"CommandToLaunch") {
            folders.push_back(item);
        }
    }
    return folders;
}

std::vector<std::wstring> PropertiesIn(const std::wstring& value) {
    std::vector<std::wstring> names;
    std::size_t open = value.find(L'[');
    while (open != std::wstring::npos) {
        const std::size_t close = value.find(L']', open);
        if (close == std::wstring::npos) {
            break;
        }
        const std::wstring name = value.substr(open + 1, close - open - 1);
        if (name.find_first_of(kNoProperty) != 0) {
            names.push_back(name);
        }
        open = value.find(L'[', close);
    }
    return names;
}

std::vector<std::wstring> FolderProperties(const ActionFacts& facts, const std::wstring& data) {
    std::vector<std::wstring> all;
    for (const DataItem& item : FoldersOf(facts, data)) {
        const std::vector<std::wstring> own = PropertiesIn(item.value);
        all.insert(all.end(), own.begin(), own.end());
    }
    return all;
}

bool IsPublic(const std::wstring& property) {
    return !property.empty() && std::none_of(property.begin(), property.end(),
                                             [](wchar_t c) { return c >= L'a' && c <= L'z'; });
}

bool IsName(const std::wstring& name, const std::wstring& other) {
    return LowerCase(name) == LowerCase(other);
}

bool IsKey(const RegistryRow& row, const std::wstring& key) {
    constexpr int kLocalMachine = 2;
    return row.root == kLocalMachine && IsName(row.key, key);
}

// By their usual places. The installer knows them from the start.
const KnownProperties& StandardFolders() {
    static const KnownProperties folders = {
        {L"TARGETDIR", L"C:\\"},
        {L"ProgramFiles64Folder", L"C:\\Program Files\\"},
        {L"ProgramFilesFolder", L"C:\\Program Files (x86)\\"},
        {L"CommonAppDataFolder", L"C:\\ProgramData\\"},
        {L"System64Folder", L"C:\\Windows\\System32\\"},
        {L"WindowsFolder", L"C:\\Windows\\"},
    };
    return folders;
}

bool IsInWord(wchar_t c) {
    return (c >= L'a' && c <= L'z') || (c >= L'0' && c <= L'9') || c == L'_';
}

/// Whether a text has another one that is not part of a longer word.
bool HasWord(const std::wstring& text, const std::wstring& word) {
    for (std::size_t at = text.find(word); at != std::wstring::npos; at = text.find(word, at + 1)) {
        const std::size_t end = at + word.size();
        if ((at == 0 || !IsInWord(text[at - 1])) && (end == text.size() || !IsInWord(text[end]))) {
            return true;
        }
    }
    return false;
}

PackageView::PackageView(const Package& package) : package_(package) {
    std::size_t most = ActionTable().size() / 2;
    for (const LibraryFacts& library : package.libraries) {
        if (KnownExports(library) > most) {
            most = KnownExports(library);
            library_ = &library;
        }
    }
    for (const CustomActionRow& row : CallsOfTheLibrary()) {
        if (const ActionFacts* const facts = FindFacts(row.target)) {
            actions_.push_back({row.action, row.type, facts});
        }
    }
    const auto secure = package.properties.find(L"SecureCustomProperties");
    if (secure != package.properties.end()) {
        secure_ = Split(secure->second, L';');
    }
}

std::vector<CustomActionRow> PackageView::CallsOfTheLibrary() const {
    std::vector<CustomActionRow> rows;
    for (const CustomActionRow& row : package_.customActions) {
        if (library_ != nullptr && (row.type & kSource) == kLibraryInBinaryTable &&
            row.source == library_->binary) {
            rows.push_back(row);
        }
    }
    return rows;
}

std::vector<LibraryAction> PackageView::ScheduledActions(const std::wstring& sequence) const {
    std::vector<std::pair<int, LibraryAction>> found;
    for (const LibraryAction& action : actions_) {
        for (const SequenceRow* const place : PlacesOf(action.id)) {
            if (place->table == sequence) {
                found.emplace_back(*place->number, action);
            }
        }
    }
    std::stable_sort(found.begin(), found.end(),
                     [](const auto& left, const auto& right) { return left.first < right.first; });
    std::vector<LibraryAction> actions;
    actions.reserve(found.size());
    for (const auto& [number, action] : found) {
        actions.push_back(action);
    }
    return actions;
}

std::vector<const SequenceRow*> PackageView::PlacesOf(const std::wstring& action) const {
    std::vector<const SequenceRow*> places;
    for (const SequenceRow& row : package_.sequences) {
        if (row.action == action && row.number.value_or(0) > 0) {
            places.push_back(&row);
        }
    }
    return places;
}

std::optional<int> PackageView::NumberOf(const std::wstring& action) const {
    for (const SequenceRow* const place : PlacesOf(action)) {
        if (place->table == kExecute) {
            return place->number;
        }
    }
    return std::nullopt;
}

Truth PackageView::Runs(const std::wstring& action, const KnownSession& session) const {
    for (const SequenceRow* const place : PlacesOf(action)) {
        if (place->table == kExecute) {
            return Evaluated(place->condition, session.known).value_or(Truth::False);
        }
    }
    return Truth::False;
}

std::vector<DataSource> PackageView::DataOf(const std::wstring& action) const {
    std::vector<DataSource> sources;
    const std::optional<int> number = NumberOf(action);
    for (const CustomActionRow& row : package_.customActions) {
        const std::optional<int> set = NumberOf(row.action);
        if (IsSetter(row, action) && set && number && *set < *number) {
            sources.push_back({L"CustomAction", row.action, row.target});
        }
    }
    const auto fixed = package_.properties.find(action);
    if (fixed != package_.properties.end()) {
        sources.push_back({L"Property", action, fixed->second});
    }
    return sources;
}

bool PackageView::IsSetIn(const std::wstring& action, const KnownSession& session) const {
    // One that may run in the session where the action may: of what is not known of one, as a
    // feature's state, as little is known of the other.
    const std::vector<DataSource> sources = DataOf(action);
    return std::any_of(sources.begin(), sources.end(), [&](const DataSource& source) {
        return source.table == L"Property" || Runs(source.row, session) != Truth::False;
    });
}

bool PackageView::NamesBefore(const std::wstring& service, int number) const {
    const auto names = [&](const CustomActionRow& row) {
        const std::optional<int> own = NumberOf(row.action);
        return own && *own < number &&
               LowerCase(row.target).find(LowerCase(service)) != std::wstring::npos;
    };
    const auto controls = [&](const ServiceControlRow& row) {
        return IsName(row.name, service);
    };
    return std::any_of(package_.customActions.begin(), package_.customActions.end(), names) ||
           std::any_of(package_.serviceControls.begin(), package_.serviceControls.end(), controls);
}

bool PackageView::SetsBeforeRemoval(const std::wstring& property) const {
    const std::optional<int> removal = NumberOf(L"RemoveExistingProducts");
    return std::any_of(package_.customActions.begin(), package_.customActions.end(),
                       [&](const CustomActionRow& row) {
                           const std::optional<int> own = NumberOf(row.action);
                           return IsSetter(row, property) && own && removal && *own < *removal;
                       });
}

std::wstring PackageView::ChosenBy(const std::wstring& property) const {
    const DirectoryRow* directory = FindDirectory(property);
    if (directory == nullptr) {
        return IsPublic(property) ? property : L"";
    }
    for (int depth = 0; directory != nullptr && depth < kDeepest; ++depth) {
        // The root is where nothing of this product lies.
        if (IsPublic(directory->directory) && directory->directory != L"TARGETDIR") {
            return directory->directory;
        }
        directory = FindDirectory(directory->parent);
    }
    return {};
}

bool PackageView::RefusesSemicolonIn(const std::wstring& property) const {
    return std::any_of(package_.launchConditions.begin(), package_.launchConditions.end(),
                       [&](const std::wstring& condition) {
                           const KnownProperties safe = {{property, L"C:\\A"}};
                           const KnownProperties unsafe = {{property, L"C:\\A;B"}};
                           return Evaluated(condition, unsafe) == Truth::False &&
                                  Evaluated(condition, safe) != Truth::False;
                       });
}

bool PackageView::EndsInBackslash(const std::wstring& value) const {
    const std::size_t open = value.rfind(L'[');
    if (open != std::wstring::npos && value.back() == L']') {
        const std::wstring name = value.substr(open + 1, value.size() - open - 2);
        return name.rfind(kComponent, 0) == 0 || FindDirectory(name) != nullptr;
    }
    return !value.empty() && value.back() == L'\\';
}

std::wstring PackageView::DefaultText(const std::wstring& text) const {
    std::wstring filled;
    std::size_t position = 0;
    while (position < text.size()) {
        const std::size_t close = text.find(L']', position);
        if (text[position] != L'[' || close == std::wstring::npos) {
            filled += text[position++];
            continue;
        }
        const std::wstring name = text.substr(position + 1, close - position - 1);
        const auto property = package_.properties.find(name);
        if (const DirectoryRow* const directory = FindDirectory(name)) {
            filled += FolderOf(*directory, 0);
        } else if (property != package_.properties.end()) {
            filled += property->second;
        }
        position = close + 1;
    }
    return filled;
}

bool PackageView::IsOwnDirectory(const std::wstring& property) const {
    return FindDirectory(property) != nullptr && StandardFolders().count(property) == 0;
}

bool PackageView::DeletesTask(const std::wstring& task) const {
    const auto& actions = package_.customActions;
    return std::any_of(actions.begin(), actions.end(), [&](const CustomActionRow& row) {
        const std::wstring command = LowerCase(row.target);
        const bool deletes = command.find(L"/delete") != std::wstring::npos ||
                             command.find(L"unregister-scheduledtask") != std::wstring::npos;
        return deletes && HasWord(command, LowerCase(task));
    });
}

const DirectoryRow* PackageView::FindDirectory(const std::wstring& directory) const {
    const auto found =
        std::find_if(package_.directories.begin(), package_.directories.end(),
                     [&](const DirectoryRow& row) { return row.directory == directory; });
    return found == package_.directories.end() ? nullptr : &*found;
}

std::wstring PackageView::FolderOf(const DirectoryRow& directory, int depth) const {
    const auto known = StandardFolders().find(directory.directory);
    if (known != StandardFolders().end()) {
        return known->second;
    }
    const DirectoryRow* const parent = FindDirectory(directory.parent);
    const std::wstring above =
        parent == nullptr || depth == kDeepest ? L"C:\\" : FolderOf(*parent, depth + 1);
    const std::wstring name = LongName(directory.defaultName);
    return name == L"." ? above : above + name + L"\\";
}

bool RunsOnRemoval(const PackageView& view, const std::wstring& action) {
    return std::any_of(KnownSessions().begin(), KnownSessions().end(),
                       [&](const KnownSession& session) {
                           return session.isRemoval && view.Runs(action, session) != Truth::False;
                       });
}

} // namespace halvard_runner
