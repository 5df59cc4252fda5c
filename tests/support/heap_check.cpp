#include "heap_check.h"

#include <windows.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>

namespace halvard_tests {

namespace {

constexpr unsigned char kGuardByte = 0xFD;
constexpr unsigned char kFreedByte = 0xDD;
// Keeps what follows aligned for every type.
constexpr std::size_t kGuardSize = 16;
constexpr std::size_t kMostHeaps = 256;

std::atomic<int> damagedBlocks = 0;

struct Head {
    std::size_t size;
    unsigned char guard[kGuardSize];
    std::size_t sizeAgain;
};
static_assert(sizeof(Head) % kGuardSize == 0);

bool IsWhole(const unsigned char* guard) {
    return std::all_of(guard, guard + kGuardSize,
                       [](unsigned char byte) { return byte == kGuardByte; });
}

} // namespace

void* AllocateGuarded(std::size_t size) {
    if (size > SIZE_MAX - sizeof(Head) - kGuardSize) {
        return nullptr;
    }
    auto* const block = static_cast<unsigned char*>(std::malloc(sizeof(Head) + size + kGuardSize));
    if (block == nullptr) {
        return nullptr;
    }
    Head head = {size, {}, size};
    std::memset(head.guard, kGuardByte, kGuardSize);
    std::memcpy(block, &head, sizeof(head));
    std::memset(block + sizeof(Head) + size, kGuardByte, kGuardSize);
    return block + sizeof(Head);
}

std::size_t GuardedSize(const void* memory) {
    Head head;
    std::memcpy(&head, static_cast<const unsigned char*>(memory) - sizeof(Head), sizeof(head));
    return head.size;
}

void FreeGuarded(void* memory) noexcept {
    if (memory == nullptr) {
        return;
    }
    auto* const content = static_cast<unsigned char*>(memory);
    Head head;
    std::memcpy(&head, content - sizeof(Head), sizeof(head));
    if (head.size != head.sizeAgain || !IsWhole(head.guard) || !IsWhole(content + head.size)) {
        ++damagedBlocks;
        return;
    }
    std::memset(content - sizeof(Head), kFreedByte, sizeof(Head) + head.size + kGuardSize);
    std::free(content - sizeof(Head));
}

int TakeDamagedBlocks() {
    return damagedBlocks.exchange(0);
}

bool HeapsAreSound() {
    // On the stack: what looks at the heaps does not change them before it has looked. More heaps
    // than there is room for are not looked at, and so not sound.
    std::array<HANDLE, kMostHeaps> heaps = {};
    const DWORD count = GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data());
    return count <= heaps.size() &&
           std::all_of(heaps.begin(), heaps.begin() + count,
                       [](HANDLE heap) { return HeapValidate(heap, 0, nullptr) != FALSE; });
}

bool SeesAWriteBehind(std::size_t size) {
    void* const memory = HeapAlloc(GetProcessHeap(), 0, size);
    // No compiler may see that what is written lies behind the block.
    static unsigned char* volatile hidden;
    hidden = static_cast<unsigned char*>(memory);
    unsigned char& behind = hidden[size];
    behind ^= 1;
    const bool seen = !HeapsAreSound();
    behind ^= 1;
    HeapFree(GetProcessHeap(), 0, memory);
    return seen;
}

} // namespace halvard_tests
