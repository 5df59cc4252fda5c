#pragma once

namespace halvard_tests {

/// How many kernel handles (files, pipes, processes, keys) this process holds now. Throws
/// std::runtime_error when the system does not tell.
int OpenHandleCount();

} // namespace halvard_tests
