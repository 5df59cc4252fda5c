#include "registry_actions/camera_chain_text.h"

namespace halvard {

namespace {

constexpr wchar_t kTransformId[] = L"{55E09F33-D6B5-4A6D-99ED-87DC666C6710}";

} // namespace

RegistryValue SplitValuePath(const std::wstring& path) {
    const std::size_t afterRoot = path.find(L'\\') + 1;
    const std::size_t afterKey = path.rfind(L'\\') + 1;
    RegistryValue value;
    if (afterRoot < afterKey) {
        value.subkey = path.substr(afterRoot, afterKey - afterRoot - 1);
    }
    value.name = path.substr(afterKey);
    return value;
}

void RemoveTransformId(std::list<std::wstring>& transforms) {
    transforms.remove(kTransformId);
}

} // namespace halvard
