#include "trace/thunks.h"

#include <stdexcept>

namespace halvard_runner {

namespace {

constexpr DWORD kStatusAccessDenied = 0xC0000022;
constexpr DWORD kStatusNoMemory = 0xC0000017;
// Behind it stands any code of Windows.
constexpr DWORD kStatusOfWindows = 0xC0070000;

DWORD NtStatusOf(DWORD code) {
    switch (code) {
    case ERROR_ACCESS_DENIED:
        return kStatusAccessDenied;
    case ERROR_NOT_ENOUGH_MEMORY:
        return kStatusNoMemory;
    default:
        return kStatusOfWindows | code;
    }
}

} // namespace

Word FailureResult(FailureSign sign, DWORD code) {
    switch (sign) {
    case FailureSign::None:
        break;
    case FailureSign::Zero:
    case FailureSign::Null:
        return 0;
    case FailureSign::AllOnes:
    case FailureSign::MinusOne:
        return ~Word{0};
    case FailureSign::Status:
        return code;
    case FailureSign::HResult:
        return static_cast<DWORD>(HRESULT_FROM_WIN32(code));
    case FailureSign::NtStatus:
        return NtStatusOf(code);
    }
    throw std::logic_error("a function fails that cannot");
}

Word CallWith(void* function, const Words& arguments) {
    using Function =
        Word(WINAPI*)(Word, Word, Word, Word, Word, Word, Word, Word, Word, Word, Word, Word, Word);
    const Words& a = arguments;
    return reinterpret_cast<Function>(function)(a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7],
                                                a[8], a[9], a[10], a[11], a[12]);
}

} // namespace halvard_runner
