// How programs are found, started and ended, as the library starts and ends them.

#include "verify/child.h"
#include "verify/place.h"

#include "agent/agent_install.h"
#include "runtime/file_paths.h"
#include "runtime/launch.h"
#include "runtime/owned.h"

#include <shlobj.h>

#include <memory>
#include <system_error>

namespace halvard_runner {

namespace {

constexpr DWORD kLimitMilliseconds = 20000;
constexpr DWORD kPollMilliseconds = 20;

std::wstring ExitCodeOrRefusal(const std::wstring& file, const std::wstring& parameters) {
    try {
        return L"exit code " +
               std::to_wstring(halvard::ShellExecuteAndWait(file, parameters, kLimitMilliseconds));
    } catch (const std::system_error& error) {
        return std::to_wstring(error.code().value());
    }
}

std::wstring VariableInFile(const ScratchPlace& /*place*/) {
    return ExitCodeOrRefusal(L"%SYSTEMROOT%\\System32\\cmd.exe", L"/c exit 7");
}

std::wstring BareName(const ScratchPlace& /*place*/) {
    return ExitCodeOrRefusal(L"cmd", L"/c exit 7");
}

std::wstring DoubledBackslash(const ScratchPlace& place) {
    ChildAt(place.File(L"child.exe"));
    const std::wstring record = place.File(L"record.txt");
    std::wstring outcome =
        ExitCodeOrRefusal(halvard::ProgramInFolder(place.Folder() + L"\\", L"child.exe"),
                          std::wstring(kChildWord) + L" record \"" + record + L"\"");
    if (outcome != L"exit code 0") {
        return outcome;
    }
    const std::wstring line = ReadText(record);
    const std::size_t name = line.find(L"child.exe");
    Require(name != std::wstring::npos, L"finding the program in its command line");
    return std::to_wstring(name - line.find_last_not_of(L'\\', name - 1) - 1);
}

// As RunCommandLine starts a program, which does not tell the code of a refusal.
std::wstring CodeOfStart(std::wstring commandLine, const wchar_t* directory) {
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION child = {};
    if (CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW,
                       nullptr, directory, &startup, &child) == FALSE) {
        return std::to_wstring(GetLastError());
    }
    const halvard::OwnedHandle process(child.hProcess);
    const halvard::OwnedHandle thread(child.hThread);
    WaitForSingleObject(process.get(), kLimitMilliseconds);
    return L"starts";
}

std::wstring CommandInterpreter() {
    return L"\"" + halvard::ProgramInFolder(halvard::ShellFolderOrEmpty(CSIDL_SYSTEM), L"cmd.exe") +
           L"\" /c exit 7";
}

std::wstring CommandAsDirectory(const ScratchPlace& /*place*/) {
    const std::wstring command = CommandInterpreter();
    return CodeOfStart(command, command.c_str());
}

std::wstring MissingDirectory(const ScratchPlace& place) {
    return CodeOfStart(CommandInterpreter(), place.File(L"none").c_str());
}

std::wstring EmptyDirectory(const ScratchPlace& /*place*/) {
    return std::to_wstring(halvard::RunCmdCommand(L"exit 7", L""));
}

std::wstring NameInCurrentDirectory(const ScratchPlace& place) {
    const std::wstring name = place.UniqueName() + L".exe";
    ChildAt(place.File(name));
    wchar_t former[MAX_PATH] = {};
    GetCurrentDirectoryW(MAX_PATH, former);
    Require(SetCurrentDirectoryW(place.Folder().c_str()) != FALSE, L"entering the folder");
    std::wstring outcome =
        CodeOfStart(place.UniqueName() + L" " + kChildWord + L" exit 0", nullptr);
    SetCurrentDirectoryW(former);
    return outcome;
}

std::wstring QuotesInCommand(const ScratchPlace& place) {
    const std::wstring folder = place.File(L"a folder");
    MakeFolder(folder);
    ChildAt(folder + L"\\child.exe");
    return std::to_wstring(halvard::RunCmdCommand(
        L"\"" + folder + L"\\child.exe\" " + kChildWord + L" exit \"7\"", folder.c_str()));
}

std::wstring VariableInCommand(const ScratchPlace& /*place*/) {
    return std::to_wstring(
        halvard::RunCmdCommand(L"\"%SYSTEMROOT%\\System32\\cmd.exe\" \"/c exit 7\"", nullptr));
}

std::wstring MissingProgram(const ScratchPlace& place) {
    return std::to_wstring(
        halvard::RunCmdCommand(place.UniqueName() + L".exe", place.Folder().c_str()));
}

std::wstring ProgramsByName(const ScratchPlace& place) {
    const std::wstring image = place.UniqueName() + L".exe";
    const std::wstring program = ChildAt(place.File(image));
    const WaitingChild first(program, place.File(L"first"), place.Folder());
    const WaitingChild second(program, place.File(L"second"), place.Folder());
    Require(!first.HasEnded() && !second.HasEnded(), L"keeping two programs running");
    Require(halvard::KillProcessByImage(image), L"starting taskkill");
    const auto ended = [&] {
        return (first.HasEnded() ? 1 : 0) + (second.HasEnded() ? 1 : 0);
    };
    for (DWORD waited = 0; waited < kLimitMilliseconds && ended() < 2;
         waited += kPollMilliseconds) {
        Sleep(kPollMilliseconds);
    }
    return std::to_wstring(ended()) + L" of 2";
}

// What loading with the first call does between the library's own SetLastError and the call.
std::wstring LastErrorOfDelayedCall(const ScratchPlace& /*place*/) {
    HMODULE const held = LoadLibraryExA("setupapi.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    Require(held != nullptr, L"loading setupapi.dll");
    SetLastError(NO_ERROR);
    HMODULE const loaded = LoadLibraryExA("setupapi.dll", nullptr, 0);
    FARPROC const function = GetProcAddress(loaded, "SetupDiGetDeviceRegistryPropertyW");
    const DWORD code = GetLastError();
    FreeLibrary(loaded);
    FreeLibrary(held);
    Require(function != nullptr, L"finding the function");
    return std::to_wstring(code);
}

std::wstring SystemFolder(const ScratchPlace& /*place*/) {
    wchar_t folder[MAX_PATH] = {};
    GetSystemDirectoryW(folder, MAX_PATH);
    const std::wstring told = halvard::ShellFolderOrEmpty(CSIDL_SYSTEM);
    const bool same = CompareStringOrdinal(folder, -1, told.c_str(), -1, TRUE) == CSTR_EQUAL;
    return same ? L"the same" : L"another";
}

std::wstring TemporaryFolderEnd(const ScratchPlace& /*place*/) {
    wchar_t folder[MAX_PATH] = {};
    const DWORD length = GetTempPathW(MAX_PATH, folder);
    Require(length > 0 && length < MAX_PATH, L"the temporary folder");
    return folder[length - 1] == L'\\' ? L"backslash" : L"no backslash";
}

} // namespace

std::vector<Fact> ProcessFacts() {
    return {
        {L"variable-in-file", VariableInFile},
        {L"bare-name", BareName},
        {L"doubled-backslash", DoubledBackslash},
        {L"command-as-directory", CommandAsDirectory},
        {L"missing-directory", MissingDirectory},
        {L"empty-directory", EmptyDirectory},
        {L"name-in-current-folder", NameInCurrentDirectory},
        {L"quotes-in-command", QuotesInCommand},
        {L"variable-in-command", VariableInCommand},
        {L"missing-program", MissingProgram},
        {L"programs-by-name", ProgramsByName},
        {L"delayed-last-error", LastErrorOfDelayedCall},
        {L"system-folder", SystemFolder},
        {L"temporary-folder-end", TemporaryFolderEnd},
    };
}

} // namespace halvard_runner
