#include "tasks/task_templates.h"

#include <gtest/gtest.h>

using halvard::AgentLogonTaskXml;
using halvard::ElevatedTaskXml;

namespace {

constexpr wchar_t kElevated[] =
    L"<Task version=\"1.2\" xmlns=\"http://schemas.microsoft.com/windows/2004/02/mit/task\">\n"
    L"<RegistrationInfo>\n"
    L"<Date>2015-08-24T18:27:49.0496979</Date>\n"
    L"<Author>Zenvo Corporation</Author>\n"
    L"<Description>A task</Description>\n"
    L"<URI>A task</URI>\n"
    L"</RegistrationInfo>\n"
    L"<Principals>\n"
    L"<Principal id=\"Author\">\n"
    L"<RunLevel>HighestAvailable</RunLevel>\n"
    L"</Principal>\n"
    L"</Principals>\n"
    L"<Settings>\n"
    L"<DisallowStartIfOnBatteries>false</DisallowStartIfOnBatteries>\n"
    L"<StopIfGoingOnBatteries>false</StopIfGoingOnBatteries>\n"
    L"<AllowHardTerminate>true</AllowHardTerminate>\n"
    L"<StartWhenAvailable>false</StartWhenAvailable>\n"
    L"<RunOnlyIfNetworkAvailable>false</RunOnlyIfNetworkAvailable>\n"
    L"<AllowStartOnDemand>true</AllowStartOnDemand>\n"
    L"<Enabled>true</Enabled>\n"
    L"<Hidden>false</Hidden>\n"
    L"<RunOnlyIfIdle>false</RunOnlyIfIdle>\n"
    L"<ExecutionTimeLimit>PT0S</ExecutionTimeLimit>\n"
    L"<Priority>3</Priority>\n"
    L"</Settings>\n"
    L"<Actions Context=\"Author\">\n"
    L"<Exec>\n"
    L"<Command>\"C:\\A B\\a.exe\" -x</Command>\n"
    L"</Exec>\n"
    L"</Actions>\n"
    L"</Task>";

constexpr wchar_t kAgent[] =
    L"<Task version=\"1.2\" xmlns=\"http://schemas.microsoft.com/windows/2004/02/mit/task\">\n"
    L"  <RegistrationInfo>\n"
    L"    <Date>2016-12-11T23:29:31</Date>\n"
    L"    <Author>WORKGROUP\\ZENVO-BUILD01$</Author>\n"
    L"    <URI>A task</URI>\n"
    L"  </RegistrationInfo>\n"
    L"  <Triggers>\n"
    L"    <LogonTrigger>\n"
    L"      <StartBoundary>2016-12-11T23:29:00</StartBoundary>\n"
    L"      <Enabled>true</Enabled>\n"
    L"    </LogonTrigger>\n"
    L"  </Triggers>\n"
    L"  <Principals>\n"
    L"    <Principal id=\"Author\">\n"
    L"      <GroupId>S-1-5-32-545</GroupId>\n"
    L"      <RunLevel>HighestAvailable</RunLevel>\n"
    L"    </Principal>\n"
    L"  </Principals>\n"
    L"  <Settings>\n"
    L"    <MultipleInstancesPolicy>IgnoreNew</MultipleInstancesPolicy>\n"
    L"    <DisallowStartIfOnBatteries>false</DisallowStartIfOnBatteries>\n"
    L"    <StopIfGoingOnBatteries>false</StopIfGoingOnBatteries>\n"
    L"    <AllowHardTerminate>true</AllowHardTerminate>\n"
    L"    <StartWhenAvailable>false</StartWhenAvailable>\n"
    L"    <RunOnlyIfNetworkAvailable>false</RunOnlyIfNetworkAvailable>\n"
    L"    <IdleSettings>\n"
    L"      <StopOnIdleEnd>true</StopOnIdleEnd>\n"
    L"      <RestartOnIdle>false</RestartOnIdle>\n"
    L"    </IdleSettings>\n"
    L"    <AllowStartOnDemand>true</AllowStartOnDemand>\n"
    L"    <Enabled>true</Enabled>\n"
    L"    <Hidden>false</Hidden>\n"
    L"    <RunOnlyIfIdle>false</RunOnlyIfIdle>\n"
    L"    <WakeToRun>false</WakeToRun>\n"
    L"    <ExecutionTimeLimit>PT72H</ExecutionTimeLimit>\n"
    L"    <Priority>3</Priority>\n"
    L"  </Settings>\n"
    L"  <Actions Context=\"Author\">\n"
    L"    <Exec>\n"
    L"      <Command>\"C:\\A B\\a.exe\" -x</Command>\n"
    L"    </Exec>\n"
    L"  </Actions>\n"
    L"</Task>";

std::wstring Replaced(std::wstring text, const std::wstring& former, const std::wstring& value) {
    for (std::size_t at = text.find(former); at != std::wstring::npos;
         at = text.find(former, at + value.size())) {
        text.replace(at, former.size(), value);
    }
    return text;
}

std::wstring WithValues(const std::wstring& text, const std::wstring& name,
                        const std::wstring& command) {
    return Replaced(Replaced(text, L"\"C:\\A B\\a.exe\" -x", command), L"A task", name);
}

} // namespace

TEST(ElevatedTaskXml, IsThisText) {
    EXPECT_EQ(ElevatedTaskXml(L"A task", L"\"C:\\A B\\a.exe\" -x"), kElevated);
}

TEST(AgentLogonTaskXml, IsThisText) {
    EXPECT_EQ(AgentLogonTaskXml(L"A task", L"\"C:\\A B\\a.exe\" -x"), kAgent);
}

TEST(TaskTemplates, TakeValuesAsTheyAre) {
    const std::wstring name = L"A&B <c> \u0416";
    const std::wstring command = L"a.exe <x> & \"y\"\r\nz";
    EXPECT_EQ(ElevatedTaskXml(name, command), WithValues(kElevated, name, command));
    EXPECT_EQ(AgentLogonTaskXml(name, command), WithValues(kAgent, name, command));
}

TEST(TaskTemplates, LeaveAnEmptyValueEmpty) {
    EXPECT_NE(ElevatedTaskXml(L"", L"").find(L"<Description></Description>\n<URI></URI>\n"),
              std::wstring::npos);
    for (const auto& text : {ElevatedTaskXml(L"", L""), AgentLogonTaskXml(L"", L"")}) {
        EXPECT_NE(text.find(L"<URI></URI>\n"), std::wstring::npos);
        EXPECT_NE(text.find(L"<Command></Command>\n"), std::wstring::npos);
    }
}

TEST(TaskTemplates, HoldTextsOfAnyLength) {
    const std::wstring longText(30000, L'x');
    EXPECT_EQ(ElevatedTaskXml(longText, longText).size(),
              ElevatedTaskXml(L"", L"").size() + 3 * longText.size());
    EXPECT_EQ(AgentLogonTaskXml(longText, longText).size(),
              AgentLogonTaskXml(L"", L"").size() + 2 * longText.size());
}
