#pragma once

#include <cstddef>

namespace halvard_tests {

/// Memory with guards before and behind it, for operator new; nullptr when there is none.
void* AllocateGuarded(std::size_t size);

/// The bytes asked for of a block of AllocateGuarded.
std::size_t GuardedSize(const void* memory);

/// Gives a block back (nullptr is none), its content overwritten. One whose guards were written to
/// is kept, and counted as damaged.
void FreeGuarded(void* memory) noexcept;

/// How many damaged blocks came back since the last call.
int TakeDamagedBlocks();

/// Whether every block of every heap of the process is whole. With the tail and free checks of the
/// system on, a write behind a block that is in use or into a free one shows here too.
bool HeapsAreSound();

/// Whether a write behind a block of the system's heap of `size` bytes, which is taken back, makes
/// the heaps unsound.
bool SeesAWriteBehind(std::size_t size);

} // namespace halvard_tests
