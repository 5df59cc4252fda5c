#include "registry_actions/retain_list.h"

#include <algorithm>
#include <string_view>
#include <unordered_set>

namespace halvard {

namespace {

constexpr std::wstring_view kSkins = L"Skins";

} // namespace

std::wstring WithSlashes(std::wstring path) {
    std::replace(path.begin(), path.end(), L'\\', L'/');
    return path;
}

std::wstring WithBackslashes(std::wstring path) {
    std::replace(path.begin(), path.end(), L'/', L'\\');
    return path;
}

std::vector<std::wstring> EntriesToDelete(std::vector<std::wstring> listing,
                                          const std::vector<std::wstring>& retainList) {
    const std::unordered_set<std::wstring_view> retained(retainList.begin(), retainList.end());
    const bool keepsSkins = retained.count(kSkins) != 0;
    const auto isKept = [&](const std::wstring& entry) {
        return (keepsSkins && entry.find(kSkins) != std::wstring::npos) ||
               retained.count(entry) != 0;
    };
    listing.erase(std::remove_if(listing.begin(), listing.end(), isKept), listing.end());
    return listing;
}

} // namespace halvard
