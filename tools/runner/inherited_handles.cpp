#include "inherited_handles.h"

#include <utility>

namespace halvard_runner {

halvard::OwnedHandle NoInput() {
    SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
    return halvard::OwnedHandle(CreateFileW(L"NUL", GENERIC_READ,
                                            FILE_SHARE_READ | FILE_SHARE_WRITE, &inherited,
                                            OPEN_EXISTING, 0, nullptr));
}

InheritedHandles::InheritedHandles(std::vector<HANDLE> handles) : handles_(std::move(handles)) {
    SIZE_T size = 0;
    InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
    memory_.resize(size);
    auto* const list = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(memory_.data());
    if (InitializeProcThreadAttributeList(list, 1, 0, &size) == FALSE) {
        return;
    }
    if (UpdateProcThreadAttribute(list, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, handles_.data(),
                                  handles_.size() * sizeof(HANDLE), nullptr, nullptr) == FALSE) {
        const DWORD code = GetLastError();
        DeleteProcThreadAttributeList(list);
        SetLastError(code);
        return;
    }
    list_ = list;
}

InheritedHandles::~InheritedHandles() {
    if (list_ != nullptr) {
        DeleteProcThreadAttributeList(list_);
    }
}

} // namespace halvard_runner
