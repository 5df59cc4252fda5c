#include "fuzz_input.h"

#include "runtime/file_paths.h"

#include <algorithm>
#include <string_view>

namespace {

using halvard_tests::Require;

bool IsSlash(wchar_t character) {
    return character == L'/' || character == L'\\';
}

// How many characters a form takes of the path's start: "/" stands for a slash of either kind, "n"
// for any other character, and what else it has for itself. Nothing when it does not match.
std::size_t Matched(const std::wstring& path, std::wstring_view form) {
    for (std::size_t index = 0; index < form.size(); ++index) {
        if (index == path.size()) {
            return 0;
        }
        const wchar_t character = path[index];
        const bool matches = form[index] == L'/'   ? IsSlash(character)
                             : form[index] == L'n' ? !IsSlash(character)
                                                   : character == form[index];
        if (!matches) {
            return 0;
        }
    }
    return form.size();
}

// A drive, one in each form of the system, or a server; then all slashes that follow.
std::size_t RootLength(const std::wstring& path) {
    std::size_t root = 0;
    for (const wchar_t* const form : {L"n:", L"\\??\\n:", L"//?/n:", L"//./n:"}) {
        root = std::max(root, Matched(path, form));
    }
    if (root == 0 && Matched(path, L"//n") != 0) {
        root = std::min(path.find_first_of(L"/\\", 2), path.size());
    }
    const std::size_t behind = path.find_first_not_of(L"/\\", root);
    return std::min(behind, path.size());
}

} // namespace

// One path.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const halvard_tests::Texts words = {L"C:",  L"\\\\?\\",           L"\\\\.\\", L"\\??\\",
                                               L"UNC", L"\\\\server\\share", L"svc.exe", L" "};
    const std::wstring path = halvard_tests::Text(bytes, size, words);
    const std::wstring parent = halvard::ParentFolder(path);
    Require(path.compare(0, parent.size(), parent) == 0);
    const std::wstring rest = path.substr(parent.size());
    const std::size_t root = RootLength(path);
    Require(parent.size() >= root);
    if (parent.size() == root) {
        // A name in a root, or nothing: the slashes between them belong to the root.
        Require(rest.find_first_of(L"/\\") == std::wstring::npos);
    } else {
        // No slash at the end of the folder, some before the name, none in it.
        Require(!IsSlash(parent.back()));
        Require(!rest.empty() && IsSlash(rest[0]));
        const std::size_t name = rest.find_first_not_of(L"/\\");
        Require(name == std::wstring::npos ||
                rest.find_first_of(L"/\\", name) == std::wstring::npos);
    }
    // The folder of a root is the root itself.
    if (path.size() == root) {
        Require(parent == path);
    }
    return 0;
}
