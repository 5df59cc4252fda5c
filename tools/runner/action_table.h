#pragma once

#include <string>
#include <vector>

namespace halvard_runner {

enum class Execution { Immediate, Deferred };

/// A key of CustomActionData; the action is of no use without a needed one.
struct DataKey {
    std::wstring name;
    bool needed;
};

/// What an action may return: a number, or "other" for one that is not fixed.
struct ActionResult {
    std::wstring value;
    /// In a few words; may be empty.
    std::wstring note;
    std::wstring means;
};

/// The sessions in which an action belongs.
enum class Session { Installation, Removal, Any };

/// Where an action stands in a sequence: names of the installer's actions and of this table.
struct Place {
    Session session;
    std::vector<std::wstring> behind;
    std::vector<std::wstring> before;
};

/// What the table of actions, from which the reference is written too, says of one.
struct ActionFacts {
    std::wstring name;
    std::wstring subsystem;
    std::wstring does;
    Execution execution;
    /// Whether it runs as the user who installs.
    bool impersonated;
    /// Whether its result is declared to be checked.
    bool checked;
    std::wstring why;
    std::wstring schedule;
    Place place;
    std::vector<DataKey> data;
    /// What the data is where it has no keys.
    std::wstring wholeData;
    std::vector<std::wstring> properties;
    std::vector<std::wstring> registry;
    std::vector<ActionResult> results;
    std::vector<std::wstring> exceptions;
    std::wstring throws;
    /// The action that takes back what this one does; empty without one.
    std::wstring undoneBy;
    /// Whether a package may have it once more, with the rights of the user who installs.
    bool asUserToo;
};

/// In the order of the reference.
const std::vector<ActionFacts>& ActionTable();

} // namespace halvard_runner
