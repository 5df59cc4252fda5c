#pragma once

#include "action_table.h"
#include "check/condition.h"
#include "check/package_model.h"

#include <optional>
#include <string>
#include <vector>

namespace halvard_runner {

inline constexpr const wchar_t* kExecute = L"InstallExecuteSequence";

/// A custom action of the package that calls an export which the table of actions has.
struct LibraryAction {
    std::wstring id;
    std::uint32_t type;
    const ActionFacts* facts;

    [[nodiscard]] bool IsDeferred() const;
    [[nodiscard]] bool IsRollback() const;
    [[nodiscard]] bool IsImpersonated() const;
    [[nodiscard]] bool IsChecked() const;
    [[nodiscard]] bool IsAsynchronous() const;
};

/// A kind of session, by what is known of it.
struct KnownSession {
    std::wstring name;
    KnownProperties known;
    bool isInstalled;
    /// Whether the product is removed as a whole.
    bool isRemoval;
};

/// First installation, repair, change of features, removal, and removal by a newer version.
const std::vector<KnownSession>& KnownSessions();

const KnownSession& RemovalByNewerVersion();

/// Where the data of a deferred action is set, and to what.
struct DataSource {
    std::wstring table;
    std::wstring row;
    std::wstring value;
};

/// A part of the data between semicolons.
struct DataItem {
    std::wstring key;
    std::wstring value;
    bool hasKey;
};

std::vector<DataItem> ItemsOf(const std::wstring& data);

/// The items that name folders; the whole where the data is taken whole.
std::vector<DataItem> FoldersOf(const ActionFacts& facts, const std::wstring& data);

/// The names of properties in square brackets, where files, components, variables of the
/// environment and single characters may stand too.
std::vector<std::wstring> PropertiesIn(const std::wstring& value);

/// Those in the items that name folders.
std::vector<std::wstring> FolderProperties(const ActionFacts& facts, const std::wstring& data);

/// Whether a command line may set a property of that name.
bool IsPublic(const std::wstring& property);

/// Names of keys, values and services, whose letters count whatever their case.
bool IsName(const std::wstring& name, const std::wstring& other);

/// Whether a row writes below this key of the machine.
bool IsKey(const RegistryRow& row, const std::wstring& key);

/// The answers that rules need of a package, which has to outlive it.
class PackageView {
public:
    explicit PackageView(const Package& package);

    [[nodiscard]] const Package& Rows() const noexcept { return package_; }

    /// The binary that exports most of the actions; nullptr where none exports half of them.
    [[nodiscard]] const LibraryFacts* Library() const noexcept { return library_; }

    /// The custom actions that call the library, whatever they name in it.
    [[nodiscard]] std::vector<CustomActionRow> CallsOfTheLibrary() const;
    [[nodiscard]] const std::vector<LibraryAction>& Actions() const noexcept { return actions_; }

    /// Those in a sequence, in its order.
    [[nodiscard]] std::vector<LibraryAction> ScheduledActions(const std::wstring& sequence) const;

    /// The rows of all sequences in which an action runs.
    [[nodiscard]] std::vector<const SequenceRow*> PlacesOf(const std::wstring& action) const;

    /// In InstallExecuteSequence, as is the next one.
    [[nodiscard]] std::optional<int> NumberOf(const std::wstring& action) const;
    /// False where its condition cannot be read.
    [[nodiscard]] Truth Runs(const std::wstring& action, const KnownSession& session) const;

    /// What sets the data of an action before it in InstallExecuteSequence, or for good.
    [[nodiscard]] std::vector<DataSource> DataOf(const std::wstring& action) const;

    /// Whether one of them may run in the session.
    [[nodiscard]] bool IsSetIn(const std::wstring& action, const KnownSession& session) const;

    /// Whether an action before that number, or a row of ServiceControl, names a service.
    [[nodiscard]] bool NamesBefore(const std::wstring& service, int number) const;

    /// Whether an action sets a property before the removal of an older version.
    [[nodiscard]] bool SetsBeforeRemoval(const std::wstring& property) const;

    [[nodiscard]] const std::vector<std::wstring>& SecureProperties() const noexcept {
        return secure_;
    }

    /// The public directory, itself or above it, by which the user may choose where one lies; a
    /// public property is chosen itself. Empty where there is none.
    [[nodiscard]] std::wstring ChosenBy(const std::wstring& property) const;

    /// Whether a launch condition looks for a semicolon in the property.
    [[nodiscard]] bool RefusesSemicolonIn(const std::wstring& property) const;

    /// Whether a property is a directory of the package's own, known from CostFinalize on.
    [[nodiscard]] bool IsOwnDirectory(const std::wstring& property) const;

    /// Whether a command of the package deletes a task.
    [[nodiscard]] bool DeletesTask(const std::wstring& task) const;

    /// Whether a value ends in a backslash, as each directory does.
    [[nodiscard]] bool EndsInBackslash(const std::wstring& value) const;

    /// A text with the default folders and the values of the Property table in it.
    [[nodiscard]] std::wstring DefaultText(const std::wstring& text) const;

private:
    [[nodiscard]] const DirectoryRow* FindDirectory(const std::wstring& directory) const;
    [[nodiscard]] std::wstring FolderOf(const DirectoryRow& directory, int depth) const;

    const Package& package_;
    const LibraryFacts* library_ = nullptr;
    std::vector<LibraryAction> actions_;
    std::vector<std::wstring> secure_;
};

/// Whether an action may run in a removal.
bool RunsOnRemoval(const PackageView& view, const std::wstring& action);

} // namespace halvard_runner
