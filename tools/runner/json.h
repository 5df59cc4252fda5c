#pragma once

#include <string>
#include <utility>
#include <vector>

namespace halvard_runner {

/// The members of an object: names, and values as they stand in JSON.
using JsonMembers = std::vector<std::pair<std::wstring, std::wstring>>;

/// `text` as a JSON string. A surrogate without its partner is escaped, so that the whole can be
/// written in UTF-8.
std::wstring JsonString(const std::wstring& text);

/// null for an empty text.
std::wstring JsonStringOrNull(const std::wstring& text);

std::wstring JsonBool(bool value);
std::wstring JsonObject(const JsonMembers& members);

/// An array of what `text` makes of each item.
template <typename Items, typename Text>
std::wstring JsonArray(const Items& items, Text text) {
    std::wstring all;
    for (const auto& item : items) {
        all += all.empty() ? L"[" : L", ";
        all += text(item);
    }
    return all.empty() ? L"[]" : all + L"]";
}

} // namespace halvard_runner
