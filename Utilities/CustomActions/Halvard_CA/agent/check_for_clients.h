#pragma once

#include "agent/client_decision.h"

#include <windows.h>
#include <msi.h>

#include <string>
#include <vector>

namespace halvard {

/// The clients that a listing of HKLM "SOFTWARE\Telo" names: full paths, of keys too, in their
/// order. The status of each is read from that key, by the last part of the path. Throws
/// std::bad_alloc only.
ClientList ReadClients(const std::vector<std::wstring>& paths, const std::wstring& clientName);

/// Records a client's status, kClientInstalled or kClientRemoved, as HKLM "SOFTWARE\Telo",
/// REG_DWORD value of the client's name and "_TeloStatus". A failure is not reported.
void SetClientStatus(const std::wstring& clientName, DWORD status);

extern "C" {

/// Records that a product of the suite (a client) is installed or removed, and decides whether the
/// agent that it carries is installed or removed with it.
///
/// Deferred action, result checked. Inputs: the items of CustomActionData
/// - ClientName=, the client's name, empty when the item is absent. A name with "_" never finds its
///   own status again, nor does one that others write in other letters: status values are told
///   apart by what stands before their first "_", upper and lower case apart.
/// - Action=, the removal state [REMOVE]: a removal when it begins with "ALL" in any case.
/// - CurrentVersion=, the version of the agent that the client carries: two to four components of
///   digits joined by ".", or "*", which counts as installed already where a version is.
/// An absent Action= or CurrentVersion= is not detected, and its value is then the data from index
/// 6 or 14 up to the next ";". The items are logged when all three have been found. Further inputs:
/// - HKCU "SOFTWARE\Telo", "TeloClient", at most 260 bytes of any type: on a removal it replaces
///   the client's name. The account is the one that the action runs as, and the value names the
///   last client that ran there, so a removal counts for that client, whichever product it belongs
///   to.
/// - HKLM "SOFTWARE\Telo": the status values of all clients, "..._TeloStatus", at most 4 bytes of
///   any type, 1 for installed.
/// - HKLM "SOFTWARE\Qorta Technologies\Install\UPA", "ProductVersion", at most 260 bytes of
///   any type: the installed agent.
/// Writes "TeloClient" and the client's status, 1 or 2, and creates the keys for them. Stores its
/// session as the current session.
/// Results: 0, 259. ERROR_SUCCESS to go on with the agent, and ERROR_NO_MORE_ITEMS, which skips the
/// rest of the sequence without an error (documented: "Custom Action Return Values"; for a deferred
/// action no closer), when another client has the agent installed, or on an
/// installation when the agent is there in a version that is not older. The first client ever gets
/// ERROR_SUCCESS. A registry that cannot be read or written is taken for an empty one.
/// Throws std::out_of_range when the data ends before the value of Action= or CurrentVersion=
/// begins, std::length_error ("list too long") for a version of too many components, and
/// std::bad_alloc.
UINT __stdcall CheckForClients(MSIHANDLE session);

} // extern "C"

} // namespace halvard
