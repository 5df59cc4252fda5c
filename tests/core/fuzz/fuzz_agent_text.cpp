#include "fuzz_input.h"

#include "agent/agent_text.h"
#include "agent/pending_renames_text.h"
#include "runtime/multi_string.h"

#include <algorithm>

namespace {

using halvard_tests::Require;
using halvard_tests::Texts;

const std::wstring kAgent = L"\\Usage Profile Agent";

bool NamesTheAgent(const std::wstring& rename) {
    return std::search(rename.begin(), rename.end(), kAgent.begin(), kAgent.end()) != rename.end();
}

// Sources and destinations as the registry holds them, and what is left of them: every string by
// itself, so that an empty destination goes and the pairs behind it are out of step.
void CheckRenames(const std::wstring& characters) {
    std::wstring expected;
    std::size_t left = 0;
    std::wstring rename;
    for (const wchar_t character : characters) {
        if (character != L'\0') {
            rename += character;
            continue;
        }
        if (!rename.empty() && !NamesTheAgent(rename)) {
            expected += rename + L'\0';
            ++left;
        }
        rename.clear();
    }
    const std::list<std::wstring> kept =
        halvard::RenamesToKeep(halvard::SplitMultiString(characters));
    Require(kept.size() == left);
    Require(halvard::JoinMultiString(kept) == expected + L'\0');
    Require(halvard::RenamesToKeep(kept) == kept);
}

void CheckBraces(const std::wstring& text) {
    std::wstring expected;
    std::remove_copy(text.begin(), text.end(), std::back_inserter(expected), L'{');
    expected.erase(std::remove(expected.begin(), expected.end(), L'}'), expected.end());
    Require(halvard::WithoutBraces(text) == expected);
}

void CheckPaths(const std::wstring& folder, const std::wstring& name) {
    Require(halvard::AgentFolderIn(folder) == folder + L"\\Zenvo" + kAgent);
    Require(halvard::AgentDataFolderIn(folder) == folder + L"\\Zenvo\\UPA");
    // A buffer of 256 characters, the terminator included.
    const auto path = halvard::AgentFilePath(folder, name);
    Require(path.has_value() == (folder.size() + 1 + name.size() + 1 <= 256));
    Require(!path || *path == folder + L'\\' + name);
}

} // namespace

// A folder, a name and the characters of the pending renames, the first two one a line.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const Texts words = {
        kAgent,
        std::wstring(1, L'\0'),
        L"\\??\\C:\\Program Files\\Zenvo\\Usage Profile Agent\\TeloUF.exe",
        L"\\??\\C:\\Windows\\Temp\\a.tmp" + std::wstring(2, L'\0'),
        L"!\\??\\C:\\b.dll" + std::wstring(1, L'\0'),
        L"\\usage profile agent",
        std::wstring(50, L'x'),
        L"{}",
    };
    const auto [folder, rest] =
        halvard_tests::CutAtLineFeed(halvard_tests::Text(bytes, size, words));
    const auto [name, renames] = halvard_tests::CutAtLineFeed(rest);
    CheckPaths(folder, name);
    CheckBraces(folder);
    CheckRenames(renames);
    return 0;
}
