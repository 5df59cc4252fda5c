#include "verify/place.h"

#include "runner_error.h"
#include "text.h"
#include "text_output.h"

#include "runtime/owned.h"

namespace halvard_runner {

namespace {

constexpr int kRemovalTries = 30;
constexpr DWORD kRetryMilliseconds = 100;

std::wstring TemporaryFolder() {
    wchar_t folder[MAX_PATH + 1] = {};
    const DWORD length = GetTempPathW(MAX_PATH + 1, folder);
    Require(length > 0 && length <= MAX_PATH, L"the temporary folder");
    return folder;
}

void RemoveContents(const std::wstring& folder) {
    WIN32_FIND_DATAW found = {};
    const halvard::OwnedSearch search(FindFirstFileW((folder + L"\\*").c_str(), &found));
    if (!search) {
        return;
    }
    do {
        const std::wstring name = found.cFileName;
        if (name != L"." && name != L"..") {
            RemoveAnything(folder + L"\\" + name);
        }
    } while (FindNextFileW(search.get(), &found) != FALSE);
}

bool KeyIsThere(HKEY root, const std::wstring& path) {
    HKEY opened = nullptr;
    const bool isThere = RegOpenKeyExW(root, path.c_str(), 0, KEY_READ, &opened) == ERROR_SUCCESS;
    const halvard::OwnedKey key(opened);
    return isThere;
}

std::wstring ScratchFolder(const std::wstring& name) {
    return TemporaryFolder() + name;
}

std::wstring ScratchKey(const std::wstring& name) {
    return L"Software\\" + name;
}

} // namespace

Scratch::Scratch()
    : name_(L"halvard_verify_" + std::to_wstring(GetCurrentProcessId()) + L"_" +
            std::to_wstring(GetTickCount64())),
      folder_(ScratchFolder(name_)), key_(ScratchKey(name_)) {
    MakeFolder(folder_);
}

Scratch::~Scratch() {
    static_cast<void>(Remove());
}

std::vector<std::wstring> Scratch::Remove() const {
    // A process that has just ended, or a scanner, may hold something a little longer.
    for (int tries = 0; tries < kRemovalTries && IsThere(folder_); ++tries) {
        Sleep(tries == 0 ? 0 : kRetryMilliseconds);
        RemoveAnything(Extended(folder_));
    }
    RegDeleteTreeW(HKEY_CURRENT_USER, key_.c_str());
    const auto& [machine, user] = KeysInBothViews(name_);
    std::vector<std::wstring> left;
    for (const ViewedKey& key : {machine, user}) {
        RemoveInBothViews(key);
        if (KeyIsThere(key.root, key.path) || KeyIsThere(key.root, key.pathOfNarrowView)) {
            left.push_back(
                (key.root == HKEY_CURRENT_USER ? L"HKEY_CURRENT_USER\\" : L"HKEY_LOCAL_MACHINE\\") +
                key.path);
        }
    }
    if (IsThere(folder_)) {
        left.push_back(folder_);
    }
    if (KeyIsThere(HKEY_CURRENT_USER, key_)) {
        left.push_back(L"HKEY_CURRENT_USER\\" + key_);
    }
    if (TaskIsLeft(name_)) {
        left.push_back(L"the scheduled task " + name_);
    }
    return left;
}

ScratchPlace::ScratchPlace(const std::wstring& scratch, const std::wstring& name)
    : uniqueName_(scratch), folder_(ScratchFolder(scratch) + L"\\" + name),
      keyPath_(ScratchKey(scratch) + L"\\" + name) {
    MakeFolder(folder_);
    RequireSuccess(RegCreateKeyExW(HKEY_CURRENT_USER, keyPath_.c_str(), 0, nullptr,
                                   REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS, nullptr, &key_,
                                   nullptr),
                   L"a key of its own");
}

ScratchPlace::~ScratchPlace() {
    RegCloseKey(key_);
    RegDeleteTreeW(HKEY_CURRENT_USER, keyPath_.c_str());
    RemoveAnything(Extended(folder_));
}

std::pair<ViewedKey, ViewedKey> KeysInBothViews(const std::wstring& scratch) {
    return {{HKEY_LOCAL_MACHINE, L"SOFTWARE\\" + scratch, L"SOFTWARE\\Wow6432Node\\" + scratch},
            {HKEY_CURRENT_USER, L"Software\\Classes\\CLSID\\" + scratch,
             L"Software\\Classes\\Wow6432Node\\CLSID\\" + scratch}};
}

void RemoveInBothViews(const ViewedKey& key) {
    for (const REGSAM view : {REGSAM{KEY_WOW64_64KEY}, REGSAM{KEY_WOW64_32KEY}}) {
        RegDeleteKeyExW(key.root, key.path.c_str(), view, 0);
    }
}

std::wstring ReasonText(const std::exception& error) {
    if (const auto* const reason = dynamic_cast<const CannotBeAsked*>(&error)) {
        return reason->Why();
    }
    if (const auto* const refusal = dynamic_cast<const RunnerError*>(&error)) {
        return refusal->Text();
    }
    return Widened(error.what());
}

void Require(bool done, const std::wstring& what) {
    if (!done) {
        const DWORD code = GetLastError();
        throw CannotBeAsked(what + L" failed with " + std::to_wstring(code));
    }
}

void RequireSuccess(LSTATUS status, const std::wstring& what) {
    SetLastError(static_cast<DWORD>(status));
    Require(status == ERROR_SUCCESS, what);
}

std::wstring CodeText(HRESULT result) {
    return L"0x" + HexadecimalDigits(static_cast<std::uint32_t>(result), 8);
}

std::wstring Extended(const std::wstring& path) {
    return path.rfind(L"\\\\?\\", 0) == 0 ? path : L"\\\\?\\" + path;
}

void MakeFolder(const std::wstring& path) {
    Require(CreateDirectoryW(path.c_str(), nullptr) != FALSE, L"making the folder " + path);
}

void MakeFile(const std::wstring& path, const std::string& bytes) {
    const halvard::OwnedHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr,
                                                CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    Require(file && WriteFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written,
                              nullptr) != FALSE,
            L"writing the file " + path);
}

bool IsThere(const std::wstring& path) {
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

void RemoveAnything(const std::wstring& path) {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        return;
    }
    if ((attributes & FILE_ATTRIBUTE_READONLY) != 0) {
        SetFileAttributesW(path.c_str(), attributes & ~DWORD{FILE_ATTRIBUTE_READONLY});
    }
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
        DeleteFileW(path.c_str());
        return;
    }
    if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) {
        RemoveContents(path);
    }
    RemoveDirectoryW(path.c_str());
}

} // namespace halvard_runner
