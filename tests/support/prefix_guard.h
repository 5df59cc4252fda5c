#pragma once

#include <string>

namespace halvard_tests {

/// Why code that deletes folders must not run in this Wine prefix; empty when it may.
///
/// It may where the only drives are the prefix itself (c:), the build folder (b:) and the
/// throw-away folder (t:), none of them shows the root of the real file system, and no folder of
/// the user's profile is a link.
std::wstring PrefixDanger();

} // namespace halvard_tests
