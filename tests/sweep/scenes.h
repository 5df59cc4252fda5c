#pragma once

#include <map>
#include <string>
#include <vector>

// The machines on which the actions go all the way.

namespace halvard_sweep {

inline constexpr wchar_t kRenames[] = L"PendingFileRenameOperations";

/// A machine for an action, made anew before each of its runs.
struct Scene {
    /// The action's name; behind a colon what distinguishes this scene from its others.
    std::string name;
    void (*make)();
    std::map<std::wstring, std::wstring> properties;
    bool servicesRun;

    std::string Action() const;
};

const std::vector<Scene>& Scenes();

/// An action without a scene needs nothing.
Scene SceneNamed(const std::string& name);

/// The keys of HKEY_LOCAL_MACHINE and of HKEY_CURRENT_USER that belong to scenes and actions alone.
const std::vector<std::wstring>& MachineKeys();
const std::vector<std::wstring>& UserKeys();

/// Takes away what scenes and actions have left.
void ClearMachine();

/// Makes the machine of a scene, with bystanders that no action may touch.
void Make(const Scene& scene);

/// Without a backslash at its end.
std::wstring TemporaryFolder();

} // namespace halvard_sweep
