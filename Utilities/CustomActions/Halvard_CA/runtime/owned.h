#pragma once

#include <windows.h>
#include <objbase.h>
#include <oleauto.h>

#include <utility>

namespace halvard {

/// Owns what a call has opened, made or allocated, and gives it back on every path. `Kind` names
/// the type, which values stand for none (calls differ in what they return for a failure), and how
/// one is given back.
///
/// What an action leaves open on purpose, because its host process ends soon after it, stays
/// outside of this type, with a comment.
template <class Kind>
class Owned {
public:
    using Value = typename Kind::Value;

    Owned() noexcept = default;
    explicit Owned(Value value) noexcept : value_(value) {}
    Owned(Owned&& other) noexcept : value_(other.release()) {}
    Owned& operator=(Owned&& other) noexcept {
        reset(other.release());
        return *this;
    }
    ~Owned() {
        if (*this) {
            Kind::GiveBack(value_);
        }
    }

    [[nodiscard]] Value get() const noexcept { return value_; }
    explicit operator bool() const noexcept { return !Kind::IsNone(value_); }
    Value operator->() const noexcept { return value_; }

    /// Leaves it to the caller to give the value back.
    [[nodiscard]] Value release() noexcept { return std::exchange(value_, Value{}); }

    void reset(Value value = Value{}) noexcept { const Owned former(std::exchange(value_, value)); }

private:
    Value value_ = Value{};
};

template <class Pointer>
struct NullIsNone {
    using Value = Pointer;
    static bool IsNone(Pointer value) noexcept { return value == nullptr; }
};

/// For some calls the invalid handle is null, for others INVALID_HANDLE_VALUE.
struct NullOrInvalidIsNone {
    using Value = HANDLE;
    static bool IsNone(HANDLE value) noexcept {
        return value == nullptr || value == INVALID_HANDLE_VALUE;
    }
};

struct HandleKind : NullOrInvalidIsNone {
    static void GiveBack(HANDLE handle) noexcept { CloseHandle(handle); }
};
/// A handle of the kernel: file, folder, process, thread, pipe.
using OwnedHandle = Owned<HandleKind>;

struct SearchKind : NullOrInvalidIsNone {
    static void GiveBack(HANDLE search) noexcept { FindClose(search); }
};
/// The search handle of a folder's listing.
using OwnedSearch = Owned<SearchKind>;

struct KeyKind : NullIsNone<HKEY> {
    static void GiveBack(HKEY key) noexcept { RegCloseKey(key); }
};
using OwnedKey = Owned<KeyKind>;

struct ServiceKind : NullIsNone<SC_HANDLE> {
    static void GiveBack(SC_HANDLE handle) noexcept { CloseServiceHandle(handle); }
};
/// A handle of the service control manager, or of a service. That of a service is declared behind
/// that of its manager, and so closed before it.
using OwnedService = Owned<ServiceKind>;

struct AutomationStringKind : NullIsNone<BSTR> {
    static void GiveBack(BSTR text) noexcept { SysFreeString(text); }
};
using OwnedAutomationString = Owned<AutomationStringKind>;

struct TaskMemoryTextKind : NullIsNone<wchar_t*> {
    static void GiveBack(wchar_t* text) noexcept { CoTaskMemFree(text); }
};
/// A text in memory of CoTaskMemAlloc.
using OwnedTaskMemoryText = Owned<TaskMemoryTextKind>;

template <class Interface>
struct InterfaceKind : NullIsNone<Interface*> {
    static void GiveBack(Interface* object) noexcept { object->Release(); }
};
/// One reference to a COM object.
template <class Interface>
using OwnedInterface = Owned<InterfaceKind<Interface>>;

} // namespace halvard
