#include "fuzz_input.h"

#include "registry_actions/camera_chain_text.h"
#include "runtime/multi_string.h"
#include "runtime/value_path.h"

namespace {

using halvard_tests::Require;
using halvard_tests::Texts;

const std::wstring kTransform = L"{55E09F33-D6B5-4A6D-99ED-87DC666C6710}";

Texts CutAt(const std::wstring& text, wchar_t separator) {
    Texts pieces(1);
    for (const wchar_t character : text) {
        if (character == separator) {
            pieces.emplace_back();
        } else {
            pieces.back() += character;
        }
    }
    return pieces;
}

void CheckPath(const std::wstring& path) {
    // Root, keys, name: the root is dropped, but for a lone name.
    const Texts parts = CutAt(path, L'\\');
    std::wstring subkey;
    for (std::size_t index = 1; index + 1 < parts.size(); ++index) {
        subkey += (index == 1 ? L"" : L"\\") + parts[index];
    }
    const halvard::RegistryValue value = halvard::SplitValuePath(path);
    Require(value.name == parts.back());
    Require(value.subkey == subkey);
}

// A value as the registry holds it, and what is written back: without the identifier where it is a
// string of its own, and with one null character more.
void CheckChain(const std::wstring& characters) {
    Texts pieces = CutAt(characters, L'\0');
    // What no null character ends is lost.
    pieces.pop_back();
    std::wstring expected;
    std::size_t left = 0;
    for (const std::wstring& piece : pieces) {
        if (piece.size() != 38 || piece != kTransform) {
            expected += piece + L'\0';
            ++left;
        }
    }
    std::list<std::wstring> transforms = halvard::SplitMultiString(characters);
    halvard::RemoveTransformId(transforms);
    Require(transforms.size() == left);
    Require(halvard::JoinMultiString(transforms) == expected + L'\0');
}

} // namespace

// The path of a value on the first line, the characters of a chain behind it.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const Texts words = {
        kTransform,
        kTransform + L'\0',
        std::wstring(1, L'\0'),
        L"{55e09f33-d6b5-4a6d-99ed-87dc666c6710}",
        L"HKEY_LOCAL_MACHINE\\",
        L"\\CameraDeviceMftClsidChain",
        L"{55E09F33-D6B5-4A6D-99ED-87DC666C6710",
    };
    const auto [path, chain] =
        halvard_tests::CutAtLineFeed(halvard_tests::Text(bytes, size, words));
    CheckPath(path);
    CheckChain(chain);
    return 0;
}
