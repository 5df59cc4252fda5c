#include "import_hook.h"

#include <cstring>

namespace halvard_tests {

namespace {

thread_local int depth = 0;

} // namespace

HookedCall::HookedCall() {
    ++depth;
}

HookedCall::~HookedCall() {
    --depth;
}

int HookDepth() {
    return depth;
}

void** ImportSlot(const char* function) {
    void** found = nullptr;
    halvard_runner::VisitImports(GetModuleHandleW(nullptr), [&](const char* name, void** slot) {
        if (found == nullptr && name != nullptr && std::strcmp(name, function) == 0) {
            found = slot;
        }
    });
    if (found == nullptr) {
        throw std::runtime_error(std::string("not imported by this program: ") + function);
    }
    return found;
}

} // namespace halvard_tests
