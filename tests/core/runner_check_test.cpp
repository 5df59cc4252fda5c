#include "action_page.h"
#include "action_table.h"
#include "check/check_report.h"
#include "check/rules.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>

using halvard_runner::ActionFacts;
using halvard_runner::ActionTable;
using halvard_runner::CustomActionRow;
using halvard_runner::Execution;
using halvard_runner::FindFacts;
using halvard_runner::Finding;
using halvard_runner::Findings;
using halvard_runner::LibraryFacts;
using halvard_runner::Machine;
using halvard_runner::Package;
using halvard_runner::RegistryRow;
using halvard_runner::RuleTable;
using halvard_runner::SequenceRow;

namespace {

constexpr const wchar_t* kVersion = L"1.0.0";
constexpr const wchar_t* kExecute = L"InstallExecuteSequence";
constexpr const wchar_t* kFirst = L"NOT Installed";
constexpr const wchar_t* kLast = L"REMOVE=\"ALL\"";
constexpr std::uint32_t kSetter = 51;
constexpr std::uint32_t kIgnored = 0x40;
constexpr std::uint32_t kDeferred = 0x400;
constexpr std::uint32_t kRollback = 0x500;
constexpr std::uint32_t kSystem = 0x800;

std::uint32_t DeclaredType(const ActionFacts& facts) {
    std::uint32_t type = 1;
    if (facts.execution == Execution::Deferred) {
        type |= kDeferred | (facts.impersonated ? 0 : kSystem);
    }
    return type | (facts.checked ? 0 : kIgnored);
}

void Schedule(Package& package, const std::wstring& action, int number,
              const std::wstring& condition = L"") {
    package.sequences.push_back({kExecute, action, condition, number});
}

void Declare(Package& package, const std::wstring& action, std::uint32_t type,
             const std::wstring& source, const std::wstring& target) {
    package.customActions.push_back({action, type, source, target});
}

/// A package in which every action stands as the reference says.
Package Good() {
    Package package;
    package.platform = L"x64";
    LibraryFacts library;
    library.binary = L"Dll";
    library.version = kVersion;
    library.isSigned = true;
    for (const ActionFacts& facts : ActionTable()) {
        library.exports.push_back(facts.name);
        Declare(package, facts.name, DeclaredType(facts), L"Dll", facts.name);
    }
    package.libraries = {library};
    package.properties = {{L"SecureCustomProperties", L"LAUNCHED_FROM_MIM;DISABLEANALYTICS"}};
    package.directories = {{L"TARGETDIR", L"", L"SourceDir"},
                           {L"ProgramFiles64Folder", L"TARGETDIR", L"."},
                           {L"INSTALLDIR", L"ProgramFiles64Folder", L"short|Companion"},
                           {L"PartFolder", L"INSTALLDIR", L"Part"}};
    package.launchConditions = {L"NOT INSTALLDIR >< \";\""};
    package.services = {L"Service"};
    package.serviceControls = {{L"Service", 0x20 | 0x80}};
    package.registry = {
        {L"Location", 2, L"SOFTWARE\\Qorta Technologies\\Install\\Pivot", L"Location",
         L"[PartFolder]"},
        {L"Agent", 2,
         L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\Zenvo Meridian Install Manager",
         L"InstallDir", L"[INSTALLDIR]"},
        {L"Brand", 2, L"SOFTWARE\\Zenvo\\PV", L"PVBrandingInstallDir", L"[PartFolder]"},
        {L"Kept", 2, L"software\\ZenvoBranding", L"Licence", L"[PartFolder]licence.txt"},
        {L"Recorder", 2, L"SOFTWARE\\Qorta Technologies\\Install\\XVR64", L"InstallDir",
         L"[PartFolder]"},
        // Of the keys that are read in both views, and of no key that is read.
        {L"Framework", 2, L"SOFTWARE\\Qorta\\Sable\\Packages\\Core-Static", L"Location",
         L"[PartFolder]", true},
        {L"Own", 2, L"SOFTWARE\\Zenvo\\Own", L"Location", L"[PartFolder]", true}};

    const std::wstring server = L"InstallDir=[PartFolder];DLLName=Server.dll";
    const std::wstring task =
        L"TaskName=Task;CommandToLaunch=[PartFolder]a tool.exe;Username=[LogonUser]";
    const std::vector<std::pair<const wchar_t*, std::wstring>> data = {
        {L"UnregisterDLL", server},
        {L"SetPermissionsRegisterDLL", server + L";Username=[LogonUser]"},
        {L"CreateTriggerlessElevatedScheduleTask", task},
        {L"PostInstallUPA", task},
        {L"DeleteServiceIfBinaryIsInDirectory",
         L"ServiceName=Service;DirectoryOfBinary=[PartFolder]"},
        {L"DeleteDMFTDirectory", L"InstallDir=[PartFolder]"},
        {L"CheckForClients", L"ClientName=Companion;Action=[REMOVE];CurrentVersion=1.0.0"},
        {L"LaunchInstallProxyPV", L"[INSTALLDIR]"}};
    for (const auto& [action, value] : data) {
        Declare(package, std::wstring(L"Set") + action, kSetter, action, value);
    }
    Declare(package, L"StopAgent", 0x22 | kDeferred, L"TARGETDIR", L"net stop TeloLauncher");
    Declare(package, L"RemoveTask", 0x22 | kDeferred, L"TARGETDIR",
            L"schtasks /Delete /TN \"my task\" /F");
    Declare(package, L"KeepRefusal", kSetter, L"DISABLEANALYTICS", L"YES");
    Declare(package, L"UndoTask", 1 | kRollback | kSystem | kIgnored, L"Dll",
            L"RemovePVSchedularTask");

    Schedule(package, L"KeepRefusal", 60);
    Schedule(package, L"CostFinalize", 1000);
    Schedule(package, L"RemoveExistingProducts", 1450);
    Schedule(package, L"InstallInitialize", 1500);
    Schedule(package, L"RemoveRegistryValues", 2600);
    Schedule(package, L"RemoveFiles", 3500);
    Schedule(package, L"InstallFiles", 4000);
    Schedule(package, L"WriteRegistryValues", 5000);
    Schedule(package, L"InstallFinalize", 6600);

    int number = 10;
    for (const wchar_t* const action : {L"BlockLaunch", L"LaunchedFromMIM"}) {
        Schedule(package, action, number++, kFirst);
    }
    number = 1600;
    for (const wchar_t* const action : {L"RemovePVSchedularTask",
                                        L"RemoveDVRSchedularTask",
                                        L"RemoveBenchMarkRunOnceSchedularTask",
                                        L"ShutDownPivotConsole",
                                        L"TerminatePivotApp",
                                        L"ShutDownDVR",
                                        L"TerminateDVRApp",
                                        L"SetDeleteServiceIfBinaryIsInDirectory",
                                        L"DeleteServiceIfBinaryIsInDirectory",
                                        L"SetUnregisterDLL",
                                        L"UnregisterDLL",
                                        L"DeleteOptiqCameraGUID",
                                        L"DeleteAnalyticsKey",
                                        L"DelInstallProxyKey",
                                        L"DeleteQortaKey",
                                        L"DeleteXVRFolder",
                                        L"SetDeleteDMFTDirectory",
                                        L"DeleteDMFTDirectory",
                                        L"DeletePVSlimINSTALLDIRFolder",
                                        L"DeletePVFolder",
                                        L"DeletePVINSTALLDIRFolder",
                                        L"DeleteandRetainValues"}) {
        Schedule(package, action, number += 10, kLast);
    }
    number = 6000;
    for (const wchar_t* const action :
         {L"UndoTask", L"CreateLogonSchTask", L"CreateDVRLogonSchTask",
          L"CreateBenchMarkRunOnceSchTask", L"SetCreateTriggerlessElevatedScheduleTask",
          L"CreateTriggerlessElevatedScheduleTask", L"DeleteSchedTaskonBranding", L"LaunchPV",
          L"SetSetPermissionsRegisterDLL", L"SetPermissionsRegisterDLL", L"EnableAnalyticsKey",
          L"TrackDVRAnalytics", L"SetDCLogFileRegistry", L"InstallContextMenuMSIX",
          L"SetLaunchInstallProxyPV", L"LaunchInstallProxyPV"}) {
        Schedule(package, action, number += 10, kFirst);
    }
    Schedule(package, L"SetCheckForClients", 6500);
    Schedule(package, L"CheckForClients", 6510);
    Schedule(package, L"StopAgent", 6515, L"&Agent=3");
    Schedule(package, L"PreInstallUPA", 6520, L"&Agent=3 OR (REMOVE=\"ALL\" AND !Agent=3)");
    Schedule(package, L"SetPostInstallUPA", 6530, L"&Agent=3");
    Schedule(package, L"PostInstallUPA", 6540, L"&Agent=3");
    Schedule(package, L"AfterInstallUPA", 6550, L"&Agent=3");
    Schedule(package, L"DisabelAnalyticsKey", 6610, kFirst);
    return package;
}

CustomActionRow& Action(Package& package, const std::wstring& name) {
    return *std::find_if(package.customActions.begin(), package.customActions.end(),
                         [&](const CustomActionRow& row) { return row.action == name; });
}

SequenceRow& InSequence(Package& package, const std::wstring& name) {
    return *std::find_if(package.sequences.begin(), package.sequences.end(),
                         [&](const SequenceRow& row) { return row.action == name; });
}

RegistryRow& Value(Package& package, const std::wstring& name) {
    return *std::find_if(package.registry.begin(), package.registry.end(),
                         [&](const RegistryRow& row) { return row.row == name; });
}

void LeaveOut(Package& package, const std::wstring& name) {
    package.sequences.erase(
        std::remove_if(package.sequences.begin(), package.sequences.end(),
                       [&](const SequenceRow& row) { return row.action == name; }),
        package.sequences.end());
}

/// Number and row of each finding, in one text.
std::string Told(const std::vector<Finding>& findings) {
    std::string told;
    for (const Finding& finding : findings) {
        told += std::to_string(finding.number) + " " +
                std::string(finding.row.begin(), finding.row.end()) + "\n";
    }
    return told;
}

struct Broken {
    int number;
    const wchar_t* row;
    std::function<void(Package&)> breakIt;
};

using P = Package&;

const std::vector<Broken>& AllBroken() {
    static const std::vector<Broken> all = {
        {101, L"LaunchPV",
         [](P p) {
             Action(p, L"LaunchPV").target = L"launchpv";
         }},
        {102, L"DeleteQortaKey",
         [](P p) {
             Action(p, L"DeleteQortaKey").type = 1 | kIgnored;
         }},
        {103, L"LaunchedFromMIM",
         [](P p) {
             Action(p, L"LaunchedFromMIM").type = 1 | kIgnored | kDeferred;
             InSequence(p, L"LaunchedFromMIM").number = 1510;
         }},
        {104, L"DeleteQortaKey",
         [](P p) {
             Action(p, L"DeleteQortaKey").type &= ~kSystem;
         }},
        {104, L"CreateBenchMarkRunOnceSchTask",
         [](P p) {
             Action(p, L"CreateBenchMarkRunOnceSchTask").type |= kSystem;
         }},
        {105, L"LaunchPV",
         [](P p) {
             Action(p, L"LaunchPV").type &= ~kIgnored;
         }},
        {106, L"CheckForClients",
         [](P p) {
             Action(p, L"CheckForClients").type |= kIgnored;
         }},
        {107, L"",
         [](P p) {
             LeaveOut(p, L"DeleteQortaKey");
         }},
        {108, L"LaunchPV",
         [](P p) {
             Action(p, L"LaunchPV").type |= 0x80;
         }},
        {201, L"UnregisterDLL",
         [](P p) {
             LeaveOut(p, L"SetUnregisterDLL");
         }},
        {201, L"UnregisterDLL",
         [](P p) {
             InSequence(p, L"SetUnregisterDLL").number = 1999;
         }},
        {201, L"LaunchInstallProxyPV",
         [](P p) {
             LeaveOut(p, L"SetLaunchInstallProxyPV");
         }},
        {202, L"SetUnregisterDLL",
         [](P p) {
             Action(p, L"SetUnregisterDLL").target = L"InstallDir=[PartFolder]";
         }},
        {203, L"SetCheckForClients",
         [](P p) {
             Action(p, L"SetCheckForClients").target =
                 L"ClientName=AnAction=x;Action=[REMOVE];CurrentVersion=1.0";
         }},
        {204, L"SetDeleteDMFTDirectory",
         [](P p) {
             Action(p, L"SetDeleteDMFTDirectory").target = L"InstallDir=C:\\A;B";
         }},
        {205, L"SetDeleteDMFTDirectory",
         [](P p) {
             Action(p, L"SetDeleteDMFTDirectory").target = L"InstallDir=[PartFolder];Name=x";
         }},
        {206, L"SetPostInstallUPA",
         [](P p) {
             Action(p, L"SetPostInstallUPA").target =
                 L"TaskName=My Task;CommandToLaunch=a.exe;Username=x";
         }},
        {206, L"SetPostInstallUPA",
         [](P p) {
             Action(p, L"SetPostInstallUPA").target =
                 L"TaskName=Task;CommandToLaunch=a&b.exe;Username=x";
         }},
        {207, L"SetCheckForClients",
         [](P p) {
             Action(p, L"SetCheckForClients").target =
                 L"ClientName=My_Client;Action=[REMOVE];CurrentVersion=1.0";
         }},
        {208, L"CheckForClients",
         [](P p) {
             InSequence(p, L"SetCheckForClients").condition = kFirst;
         }},
        {209, L"SetUnregisterDLL",
         [](P p) {
             Action(p, L"SetUnregisterDLL").target = L"InstallDir=C:\\A;DLLName=Server.dll";
         }},
        {209, L"SetUnregisterDLL",
         [](P p) {
             Action(p, L"SetUnregisterDLL").target =
                 L"InstallDir=[PartFolder][#Server];DLLName=Server.dll";
         }},
        {210, L"SetUnregisterDLL",
         [](P p) {
             InSequence(p, L"SetUnregisterDLL").number = 999;
         }},
        {301, L"DelInstallProxyKey",
         [](P p) {
             InSequence(p, L"DelInstallProxyKey").number = 1490;
         }},
        {301, L"AfterInstallUPA",
         [](P p) {
             InSequence(p, L"AfterInstallUPA").number = 6601;
         }},
        {302, L"DelInstallProxyKey",
         [](P p) {
             p.sequences.push_back({L"InstallUISequence", L"DelInstallProxyKey", L"", 5});
         }},
        {303, L"TrackDVRAnalytics",
         [](P p) {
             InSequence(p, L"TrackDVRAnalytics").number = 4500;
         }},
        {303, L"DisabelAnalyticsKey",
         [](P p) {
             InSequence(p, L"DisabelAnalyticsKey").number = 6490;
         }},
        {304, L"RemoveDVRSchedularTask",
         [](P p) {
             InSequence(p, L"RemoveDVRSchedularTask").number = 3600;
         }},
        {305, L"RemoveDVRSchedularTask",
         [](P p) {
             SequenceRow& row = InSequence(p, L"RemoveDVRSchedularTask");
             row.number = 6400;
             row.condition = kFirst;
         }},
        {306, L"ShutDownDVR",
         [](P p) {
             InSequence(p, L"ShutDownDVR").number = 1675;
         }},
        {306, L"TerminatePivotApp",
         [](P p) {
             InSequence(p, L"TerminatePivotApp").number = 1805;
         }},
        {306, L"DeleteSchedTaskonBranding",
         [](P p) {
             InSequence(p, L"LaunchPV").number = 6065;
         }},
        {307, L"DeleteXVRFolder",
         [](P p) {
             InSequence(p, L"DeleteXVRFolder").number = 1805;
         }},
        {308, L"PreInstallUPA",
         [](P p) {
             LeaveOut(p, L"StopAgent");
         }},
        {309, L"RemoveExistingProducts",
         [](P p) {
             InSequence(p, L"RemoveExistingProducts").number = 6400;
         }},
        {310, L"UndoTask",
         [](P p) {
             InSequence(p, L"UndoTask").number = 6400;
         }},
        {311, L"CreateTriggerlessElevatedScheduleTask",
         [](P p) {
             Action(p, L"SetCreateTriggerlessElevatedScheduleTask").target =
                 L"TaskName=Other;CommandToLaunch=a.exe;Username=x";
         }},
        {401, L"BlockLaunch",
         [](P p) {
             InSequence(p, L"BlockLaunch").condition = L"";
         }},
        {401, L"BlockLaunch",
         [](P p) {
             InSequence(p, L"BlockLaunch").condition = L"NOT REMOVE";
         }},
        {402, L"BlockLaunch",
         [](P p) {
             p.sequences.push_back({L"InstallUISequence", L"BlockLaunch", kFirst, 5});
         }},
        {403, L"DeletePVFolder",
         [](P p) {
             InSequence(p, L"DeletePVFolder").condition = L"REMOVE";
         }},
        {403, L"DeletePVFolder",
         [](P p) {
             InSequence(p, L"DeletePVFolder").condition = L"";
         }},
        {404, L"LaunchPV",
         [](P p) {
             InSequence(p, L"LaunchPV").condition = L"";
         }},
        {405, L"TrackDVRAnalytics",
         [](P p) {
             InSequence(p, L"TrackDVRAnalytics").number = 6590;
         }},
        {405, L"CreateShortcuts",
         [](P p) {
             Schedule(p, L"CreateShortcuts", 6590);
         }},
        {406, L"InstallFiles",
         [](P p) {
             InSequence(p, L"InstallFiles").condition = L"NOT";
         }},
        {407, L"DeleteAnalyticsKey",
         [](P p) {
             LeaveOut(p, L"KeepRefusal");
         }},
        // A name within another word is no name.
        {311, L"PostInstallUPA",
         [](P p) {
             Action(p, L"SetPostInstallUPA").target =
                 L"TaskName=tas;CommandToLaunch=a.exe;Username=x";
         }},
        {408, L"SetPermissionsRegisterDLL",
         [](P p) {
             InSequence(p, L"SetPermissionsRegisterDLL").condition = L"NOT REMOVE=\"ALL\"";
             InSequence(p, L"SetSetPermissionsRegisterDLL").condition = L"NOT REMOVE=\"ALL\"";
         }},
        {501, L"DISABLEANALYTICS",
         [](P p) {
             p.properties[L"SecureCustomProperties"] = L"LAUNCHED_FROM_MIM";
         }},
        {502, L"INSTALLDIR",
         [](P p) {
             p.properties[L"SecureCustomProperties"] += L";INSTALLDIR";
         }},
        {503, L"SetDeleteDMFTDirectory",
         [](P p) {
             Action(p, L"SetDeleteDMFTDirectory").target = L"InstallDir=[INSTALLDIR]";
         }},
        {504, L"SetDeleteServiceIfBinaryIsInDirectory",
         [](P p) {
             p.launchConditions = {L"NOT INSTALLDIR >< \"&\""};
         }},
        {601, L"Location",
         [](P p) {
             Value(p, L"Location").value = std::wstring(201, L'x');
         }},
        {602, L"Agent",
         [](P p) {
             Value(p, L"Agent").value = std::wstring(130, L'x');
         }},
        {603, L"SetLaunchInstallProxyPV",
         [](P p) {
             Action(p, L"SetLaunchInstallProxyPV").target =
                 L"[INSTALLDIR]" + std::wstring(240, L'x');
         }},
        {604, L"Kept",
         [](P p) {
             Value(p, L"Kept").value = std::wstring(130, L'x');
         }},
        {701, L"Dll",
         [](P p) {
             p.platform = L"Intel";
         }},
        {701, L"Dll",
         [](P p) {
             p.libraries.front().machine = Machine::Other;
         }},
        {702, L"Dll",
         [](P p) {
             p.libraries.front().version = L"0.9.0";
         }},
        {703, L"Dll",
         [](P p) {
             p.libraries.front().isSigned = false;
         }},
        {704, L"",
         [](P p) {
             p.libraries.clear();
         }},
        {801, L"SetDeleteServiceIfBinaryIsInDirectory",
         [](P p) {
             p.serviceControls.front().event = 0x20;
         }},
        {802, L"Kept",
         [](P p) {
             Value(p, L"Kept").value = L"[PartFolder]a\\b.txt";
         }},
        {803, L"Recorder",
         [](P p) {
             Value(p, L"Recorder").value = L"[PartFolder]Recorder";
         }},
        {804, L"Location",
         [](P p) {
             Value(p, L"Location").is32Bit = true;
         }},
    };
    return all;
}

} // namespace

TEST(Check, FindsNothingInAPackageThatFollowsTheReference) {
    EXPECT_EQ(Told(Findings(Good(), kVersion, {})), "");
}

TEST(Check, FindsNothingInWhatAPackageMayDoOtherwise) {
    const std::vector<std::function<void(Package&)>> changes = {
        // A task that is there is removed first, in every session.
        [](P p) { InSequence(p, L"RemovePVSchedularTask").condition = L""; },
        [](P p) { InSequence(p, L"DeletePVFolder").condition = L"REMOVE~=\"all\""; },
        [](P p) { InSequence(p, L"LaunchPV").condition = L"NOT (REMOVE=\"ALL\")"; },
        [](P p) {
            LeaveOut(p, L"KeepRefusal");
            InSequence(p, L"DeleteAnalyticsKey").condition += L" AND NOT UPGRADINGPRODUCTCODE";
        },
        [](P p) { Action(p, L"InstallContextMenuMSIX").type &= ~kSystem; },
        // A whole of its own, with another Id.
        [](P p) {
            Declare(p, L"Again", DeclaredType(*FindFacts(L"LaunchPV")), L"Dll", L"LaunchPV");
            Schedule(p, L"Again", 6300, kFirst);
        },
        [](P p) {
            LeaveOut(p, L"SetLaunchInstallProxyPV");
            p.properties[L"LaunchInstallProxyPV"] = L"C:\\A;B";
        },
        [](P p) { Action(p, L"SetUnregisterDLL").target = L"InstallDir=C:\\A\\;DLLName=a.dll;"; },
        // Known from the start.
        [](P p) {
            Action(p, L"SetUnregisterDLL").target =
                L"InstallDir=[ProgramFiles64Folder]A\\;DLLName=a.dll";
            InSequence(p, L"SetUnregisterDLL").number = 20;
        },
        [](P p) { InSequence(p, L"SetCheckForClients").number = 20; },
        // Neither files nor components nor the environment are properties, and a component stands
        // for its directory.
        [](P p) { Action(p, L"SetUnregisterDLL").target = L"InstallDir=[$SERVER];DLLName=a.dll"; },
        [](P p) {
            Action(p, L"SetPostInstallUPA").target =
                L"TaskName=Task;CommandToLaunch=[#TOOL][!TOOL][%TOOLS][~][\\[];Username=x";
        },
        [](P p) {
            p.serviceControls.push_back({L"TeloLauncher", 0x2});
            LeaveOut(p, L"StopAgent");
        },
        // Neither another library nor what stands in no sequence counts.
        [](P p) {
            Declare(p, L"Foreign", 1, L"Other", L"DeletePVFolder");
            Schedule(p, L"Foreign", 1, L"");
        },
        [](P p) {
            p.sequences.push_back({kExecute, L"ExitDialog", L"", -1});
        },
        [](P p) {
            Value(p, L"Kept").root = 1;
            Value(p, L"Kept").value = L"[PartFolder]a\\b";
        },
    };
    for (std::size_t i = 0; i < changes.size(); ++i) {
        Package package = Good();
        changes[i](package);
        EXPECT_EQ(Told(Findings(package, kVersion, {})), "") << i;
    }
}

TEST(Check, JudgesNoDeclarationOfWhatNeverRuns) {
    Package package = Good();
    Declare(package, L"Undo", 1, L"Dll", L"DeleteAnalyticsKey");
    EXPECT_EQ(Told(Findings(package, kVersion, {})), "107 \n");
    Schedule(package, L"Undo", 6005, kFirst);
    EXPECT_EQ(Told(Findings(package, kVersion, {107, 403})), "102 Undo\n105 Undo\n");
}

TEST(Check, FindsWhatBreaksOneRuleAndNoOther) {
    for (const Broken& broken : AllBroken()) {
        Package package = Good();
        broken.breakIt(package);
        const std::vector<Finding> found = Findings(package, kVersion, {});
        const std::wstring row = broken.row;
        EXPECT_EQ(Told(found),
                  std::to_string(broken.number) + " " + std::string(row.begin(), row.end()) + "\n");
        EXPECT_EQ(Told(Findings(package, kVersion, {broken.number})), "");
    }
}

TEST(Check, HasAPackageThatBreaksEachRule) {
    std::set<int> broken;
    for (const Broken& each : AllBroken()) {
        broken.insert(each.number);
    }
    for (const halvard_runner::RuleText& rule : RuleTable()) {
        EXPECT_EQ(broken.count(rule.number), 1U) << rule.number;
    }
    EXPECT_EQ(broken.size(), RuleTable().size());
}

TEST(CheckReport, TellsAReader) {
    const std::vector<Finding> found = {{405, L"Table", L"Row", L"this"},
                                        {703, L"Binary", L"", L""}};
    EXPECT_EQ(halvard_runner::CheckLines(L"a.msi", found),
              L"warning 405  Table, Row\n"
              L"            An action behind CheckForClients that is not the agent's.\n"
              L"  found     this\n"
              L"  why       The answer 259 skips the rest of the sequence, so it does not run\n"
              L"            where another client has the agent.\n"
              L"  do        Put it before CheckForClients.\n"
              L"\n"
              L"hint    703  Binary\n"
              L"            A library without a signature.\n"
              L"  why       Where only signed code may run, the actions do not.\n"
              L"  do        Sign the library before it goes into the package.\n"
              L"\n"
              L"a.msi: 0 errors, 1 warning, 1 hint\n");
}

TEST(CheckReport, TellsAScript) {
    EXPECT_EQ(
        halvard_runner::CheckJson(L"a.msi", {{703, L"Binary", L"", L"\"x\""}}, {101, 102}),
        L"{\"package\": \"a.msi\", \"findings\": [{\"number\": 703, \"severity\": \"hint\", "
        L"\"table\": \"Binary\", \"row\": null, \"rule\": \"A library without a signature.\", "
        L"\"found\": \"\\\"x\\\"\", "
        L"\"why\": \"Where only signed code may run, the actions do not.\", "
        L"\"remedy\": \"Sign the library before it goes into the package.\"}], "
        L"\"errors\": 0, \"warnings\": 0, \"hints\": 1, \"skipped\": [101, 102], "
        L"\"exit_code\": 0}\n");
    EXPECT_EQ(halvard_runner::CheckJson(L"", {}, {}),
              L"{\"package\": \"\", \"findings\": [], \"errors\": 0, \"warnings\": 0, "
              L"\"hints\": 0, \"skipped\": [], \"exit_code\": 0}\n");
}

TEST(CheckReport, TellsTheWorstByTheExitCode) {
    using halvard_runner::CheckExit;
    using halvard_runner::CheckExitCode;
    EXPECT_EQ(CheckExitCode({}), CheckExit::NoFindings);
    EXPECT_EQ(CheckExitCode({{703, L"", L"", L""}}), CheckExit::NoFindings);
    EXPECT_EQ(CheckExitCode({{703, L"", L"", L""}, {702, L"", L"", L""}}), CheckExit::Warnings);
    EXPECT_EQ(CheckExitCode({{702, L"", L"", L""}, {701, L"", L"", L""}}), CheckExit::Errors);
}
