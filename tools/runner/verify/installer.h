#pragma once

#include "verify/fact.h"

#include <string>
#include <vector>

namespace halvard_runner {

/// The subject of the facts that need an installation.
inline constexpr const wchar_t* kInstallerSubject = L"installer";

/// What came of installing and removing the package.
struct InstallerAnswer {
    std::vector<FactResult> results;
    /// What could not be removed.
    std::vector<std::wstring> left;
};

/// The word behind which this program, started once more, is told a package and what to set.
inline constexpr const wchar_t* kInstallWord = L"install";

/// Carries out a session: the package, then names and values of properties. The installer's result.
int RunInstallerSession(const std::vector<std::wstring>& arguments);

/// Installs the package of this program's own four times, each time with other actions, and removes
/// it each time. Where that breaks off, no fact is asked, for that reason, and what is left is told
/// all the same. Throws CannotBeAsked where there is no place for it.
InstallerAnswer AskInstaller(const std::vector<const FactText*>& texts);

} // namespace halvard_runner
