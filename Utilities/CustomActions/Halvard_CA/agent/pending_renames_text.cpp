#include "agent/pending_renames_text.h"

#include <algorithm>
#include <iterator>

namespace halvard {

std::list<std::wstring> RenamesToKeep(const std::list<std::wstring>& renames) {
    std::list<std::wstring> kept;
    std::copy_if(
        renames.begin(), renames.end(), std::back_inserter(kept), [](const std::wstring& rename) {
            return !rename.empty() && rename.find(L"\\Usage Profile Agent") == std::wstring::npos;
        });
    return kept;
}

} // namespace halvard
