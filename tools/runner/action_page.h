#pragma once

#include "action_table.h"

#include <string>
#include <vector>

namespace halvard_runner {

/// What the table says of an action; nullptr for one that it does not have.
const ActionFacts* FindFacts(const std::wstring& action);

/// The names in the table.
std::vector<std::wstring> TableNames();

/// "deferred, Impersonate="no", Return="check"".
std::wstring DeclarationText(const ActionFacts& facts);

/// The help of one action: all that the table says of it.
std::wstring ActionPage(const ActionFacts& facts);
std::wstring ActionPageJson(const ActionFacts& facts);

/// The actions that a library exports, for a reader: each with its declaration and its purpose.
std::wstring ListLines(const std::vector<std::wstring>& actions);

/// The same for scripts; an action that the table does not have has its name alone.
std::wstring ListJson(const std::wstring& library, const std::vector<std::wstring>& actions);

} // namespace halvard_runner
