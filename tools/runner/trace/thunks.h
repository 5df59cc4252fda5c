#pragma once

#include <windows.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

// Functions that take the place of imported ones and see their parameters, whatever these are.

namespace halvard_runner {

/// Wide enough for each parameter and each result of a function of Windows for x64.
using Word = std::uint64_t;

// The most parameters of a function that is replaced, which is CreateServiceW. What lies behind the
// last one of a shorter function is read and handed on, and nobody looks at it.
inline constexpr std::size_t kMostParameters = 13;
using Words = std::array<Word, kMostParameters>;

/// A pointer or a handle that came as a number.
template <class Type>
Type PointerOf(Word word) {
    static_assert(std::is_pointer_v<Type> && sizeof(void*) == sizeof(Word));
    Type pointer = nullptr;
    std::memcpy(&pointer, &word, sizeof word);
    return pointer;
}

/// How a function tells that it failed.
enum class FailureSign {
    None,     // it does not fail
    Zero,     // FALSE, a null pointer, a count of 0; the last error has the code
    AllOnes,  // INVALID_HANDLE_VALUE, INVALID_FILE_ATTRIBUTES, WAIT_FAILED; likewise
    Status,   // the code of Windows is the result
    HResult,  // an HRESULT is the result
    NtStatus, // an NTSTATUS is the result
    Null,     // a null pointer and nothing else; errno for those of the C run-time
    MinusOne, // -1 of the C run-time; errno, and the last error of the function that it calls
};

/// What a function answers that fails with a code of Windows. The last error and errno are left to
/// the caller. Throws std::logic_error for one that does not fail.
Word FailureResult(FailureSign sign, DWORD code);

/// Calls a function.
Word CallWith(void* function, const Words& arguments);

/// As many functions, each of which hands its number and its parameters on.
template <Word (*run)(std::size_t index, const Words& arguments), std::size_t count>
class Thunks {
public:
    static constexpr std::size_t kCount = count;

    static void* At(std::size_t index) { return reinterpret_cast<void*>(kTable[index]); }

private:
    template <std::size_t Index>
    static Word WINAPI Thunk(Word a, Word b, Word c, Word d, Word e, Word f, Word g, Word h, Word i,
                             Word j, Word k, Word l, Word m) {
        return run(Index, {a, b, c, d, e, f, g, h, i, j, k, l, m});
    }

    using Function = decltype(&Thunk<0>);

    template <std::size_t... Indices>
    static constexpr std::array<Function, count>
    Table(std::index_sequence<Indices...> /*unused*/) noexcept {
        return {&Thunk<Indices>...};
    }

    static const std::array<Function, count> kTable;
};

template <Word (*run)(std::size_t index, const Words& arguments), std::size_t count>
const std::array<typename Thunks<run, count>::Function, count>
    Thunks<run, count>::kTable = Table(std::make_index_sequence<count>());

/// What GetProcAddress answers that was called with `arguments` and has found `found`.
/// `replacement` is given the name and the address, and gives an address.
template <class Replacement>
Word LookedUp(const Words& arguments, Word found, const Replacement& replacement) {
    const auto* const name = PointerOf<const char*>(arguments[1]);
    // One by a number has no name.
    if (found == 0 || IS_INTRESOURCE(name)) {
        return found;
    }
    return reinterpret_cast<std::uintptr_t>(replacement(name, PointerOf<void*>(found)));
}

} // namespace halvard_runner
