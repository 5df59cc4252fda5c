#include "runtime/value_path.h"

namespace halvard {

std::size_t ValueNameStart(const std::wstring& path) {
    return path.rfind(L'\\') + 1;
}

RegistryValue SplitValuePath(const std::wstring& path) {
    const std::size_t afterRoot = path.find(L'\\') + 1;
    const std::size_t afterKey = ValueNameStart(path);
    RegistryValue value;
    if (afterRoot < afterKey) {
        value.subkey = path.substr(afterRoot, afterKey - afterRoot - 1);
    }
    value.name = path.substr(afterKey);
    return value;
}

} // namespace halvard
