#pragma once

#include "runtime/owned.h"

#include <windows.h>

#include <vector>

// What a program is given that this one starts.

namespace halvard_runner {

/// An input that is at its end, to be inherited; none where it cannot be had.
halvard::OwnedHandle NoInput();

/// A list of the handles that a new process inherits, and no others.
class InheritedHandles {
public:
    explicit InheritedHandles(std::vector<HANDLE> handles);
    ~InheritedHandles();
    InheritedHandles(const InheritedHandles&) = delete;
    InheritedHandles& operator=(const InheritedHandles&) = delete;

    /// Null where it could not be made; the last error of the constructor tells why.
    [[nodiscard]] LPPROC_THREAD_ATTRIBUTE_LIST Get() const { return list_; }

private:
    std::vector<HANDLE> handles_;
    std::vector<char> memory_;
    LPPROC_THREAD_ATTRIBUTE_LIST list_ = nullptr;
};

} // namespace halvard_runner
