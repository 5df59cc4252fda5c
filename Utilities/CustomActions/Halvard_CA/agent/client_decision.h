#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// Whether the agent's steps go ahead for one of the products that carry it, told from texts and
// numbers alone.

namespace halvard {

/// The status of a client that has the agent installed, and of one that has been removed.
inline constexpr std::uint32_t kClientInstalled = 1;
inline constexpr std::uint32_t kClientRemoved = 2;

/// How many components a version was given with.
enum class VersionKind { Invalid = 0, Two = 1, Three = 2, Four = 3, Wildcard = 4 };

/// A version: components of nothing but the digits 0 to 9, an empty one counting as 0, or four
/// times "*" for the wildcard, or four times "x" for a text that is no version.
struct VersionParts {
    std::array<std::wstring, 4> components;
    VersionKind kind = VersionKind::Invalid;
};

/// Takes a version of two to four components apart, those that are missing being "0", or the
/// wildcard "*". Throws std::length_error as SplitString does.
VersionParts ParseVersion(const std::wstring& text);

/// Whether version a is equal to or later than version b; true when either is the wildcard, else
/// false when either is invalid. Components count as double-precision numbers: those that
/// round to the same one are equal, and so are all that are too large for it (assumed of Windows).
/// Throws nothing.
bool IsVersionAtLeast(const VersionParts& a, const VersionParts& b);

/// A value that tells a client's status; no number when it could not be read.
struct StatusValue {
    std::wstring name;
    std::optional<std::uint32_t> number;
};

/// What one status value says. A number that could not be read leaves the status of the record
/// before, 0 for the first.
struct ClientRecord {
    std::wstring clientName;
    bool enabled;
    bool self;
    std::uint32_t status;
};

/// A record for every status value, in their order, and the value that holds the status of the
/// client which is installed or removed now.
struct ClientList {
    std::vector<ClientRecord> records;
    std::wstring statusName;
};

/// The name of the value that a client's status is written to when it has none.
std::wstring StatusNameOf(const std::wstring& clientName);

/// The part of a path behind its last backslash when it names a status value, else nothing.
std::optional<std::wstring> StatusNameIn(const std::wstring& path);

/// Whose status each value tells: a value belongs to the client whose name stands before its first
/// "_", upper and lower case apart. Of several values of this client the last is the one to write.
ClientList ListClients(const std::vector<StatusValue>& values, const std::wstring& clientName);

/// Whether the installer skips the agent, and the status to write under which name.
struct ClientDecision {
    bool skipsAgent;
    std::wstring statusName;
    std::uint32_t status;
};

/// Decides for the client that is installed, or removed.
///
/// The first client ever always proceeds. Any other skips the agent while another client has it
/// installed, and on installation when the agent is there (`installedVersion`, nothing when it is
/// not known) in a version that is at least `currentVersion`, the one that the client carries.
/// Throws std::length_error as ParseVersion does.
ClientDecision DecideForClient(const ClientList& clients, bool removal,
                               const std::optional<std::wstring>& installedVersion,
                               const std::wstring& currentVersion);

} // namespace halvard
