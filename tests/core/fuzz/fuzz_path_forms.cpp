#include "begins.h"
#include "fuzz_input.h"

#include "runtime/file_paths.h"
#include "runtime/path_list.h"

#include <algorithm>
#include <set>

namespace {

using halvard_tests::Begins;
using halvard_tests::Require;
using halvard_tests::Texts;

void CheckExtendedForm(const std::wstring& path) {
    const std::wstring extended = halvard::ExtendedLengthPath(path);
    const bool taken = Begins(path, L"\\\\?\\") || Begins(path, L"\\??\\");
    Require(halvard::IsTakenAsItStands(path) == taken);
    if (taken || Begins(path, L"\\\\.\\")) {
        Require(extended == path);
        return;
    }
    Require(halvard::IsTakenAsItStands(extended));
    Require(halvard::ExtendedLengthPath(extended) == extended);

    const std::wstring share = L"\\\\?\\UNC\\";
    const bool isShare = Begins(path, L"\\\\") && Begins(extended, share);
    // The path again, but for what was cut off its end.
    const std::wstring kept =
        isShare ? L"\\" + extended.substr(share.size() - 1) : extended.substr(4);
    Require(Begins(path, kept));
    const std::wstring cut = path.substr(kept.size());
    Require(cut.find_first_not_of(L'\\') == std::wstring::npos);
    Require(cut.empty() || (!kept.empty() && kept.back() != L':'));
    const bool endsInBackslash = !kept.empty() && kept.back() == L'\\';
    const bool isDrive = kept.size() > 1 && kept[kept.size() - 2] == L':';
    Require(!endsInBackslash || isDrive || kept.size() == 1);
    Require(isShare || !Begins(kept, L"\\\\"));
}

void CheckJoins(const std::wstring& folder, const std::wstring& name) {
    Require(halvard::ProgramInFolder(folder, name) == folder + L'\\' + name);
    const std::wstring file = halvard::FileInFolder(folder, name);
    const std::wstring between =
        file.substr(folder.size(), file.size() - folder.size() - name.size());
    Require(file == folder + between + name);
    const std::size_t slashed = folder.find_last_of(L"/\\");
    Require(between == (!folder.empty() && slashed == folder.size() - 1 ? L"" : L"\\"));
}

void CheckDriveRoot(const std::wstring& path) {
    const std::wstring root = halvard::ThroughFirstBackslash(path);
    Require(Begins(path, root));
    const std::size_t backslashes =
        static_cast<std::size_t>(std::count(root.begin(), root.end(), L'\\'));
    Require(backslashes == (root == path && path.find(L'\\') == std::wstring::npos ? 0 : 1));
    Require(backslashes == 0 || root.back() == L'\\');
}

// Lines that begin with "?" are looked for, those that begin with "!" appended if they are new, all
// others appended.
void CheckPathList(const Texts& lines) {
    Texts paths(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(lines.size() / 2));
    std::set<std::wstring> known(paths.begin(), paths.end());
    Texts expected = paths;
    halvard::PathList list(paths);
    for (std::size_t index = paths.size(); index < lines.size(); ++index) {
        const std::wstring& line = lines[index];
        if (Begins(line, L"?")) {
            Require(list.Contains(line.substr(1)) == (known.count(line.substr(1)) == 1));
            continue;
        }
        const bool appends = known.insert(line).second || !Begins(line, L"!");
        if (Begins(line, L"!")) {
            Require(list.AppendNew(line) == appends);
        } else {
            list.Append(line);
        }
        if (appends) {
            expected.push_back(line);
        }
        Require(list.Contains(line));
    }
    Require(paths == expected);
}

} // namespace

// One path a line; each is a folder for the name on the line behind it.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const Texts words = {L"C:\\", L"\\\\?\\", L"\\\\.\\", L"\\??\\", L"\\\\server\\share",
                                L"\\\\", L"a\n?a",   L"\n!a"};
    const Texts lines = halvard_tests::Lines(halvard_tests::Text(bytes, size, words));
    for (std::size_t index = 0; index < lines.size(); ++index) {
        CheckExtendedForm(lines[index]);
        CheckJoins(lines[index], lines[(index + 1) % lines.size()]);
        CheckDriveRoot(lines[index]);
    }
    CheckPathList(lines);
    return 0;
}
