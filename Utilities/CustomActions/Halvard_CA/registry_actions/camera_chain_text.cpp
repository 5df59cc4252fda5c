#include "registry_actions/camera_chain_text.h"

namespace halvard {

namespace {

constexpr wchar_t kTransformId[] = L"{55E09F33-D6B5-4A6D-99ED-87DC666C6710}";

} // namespace

void RemoveTransformId(std::list<std::wstring>& transforms) {
    transforms.remove(kTransformId);
}

} // namespace halvard
