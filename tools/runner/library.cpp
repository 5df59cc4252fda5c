#include "library.h"

#include "names.h"
#include "runner_error.h"
#include "text_output.h"

#include <cstring>

namespace halvard_runner {

namespace {

constexpr const wchar_t* kLibraryName = L"Halvard_CA.dll";

[[noreturn]] void Refuse(const std::wstring& text) {
    throw RunnerError(ExitCode::NoLibrary, text);
}

HMODULE Load(const std::wstring& path) {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        Refuse(L"there is no library " + path);
    }
    HMODULE const module = LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    if (module == nullptr) {
        const DWORD code = GetLastError();
        Refuse(path + L" cannot be loaded into this 64-bit program: " + ErrorText(code));
    }
    return module;
}

template <typename Type>
const Type* At(HMODULE module, DWORD offset) {
    const auto* const base = reinterpret_cast<const unsigned char*>(module);
    return reinterpret_cast<const Type*>(base + offset);
}

} // namespace

std::wstring ProgramPath() {
    std::wstring path(MAX_PATH, L'\0');
    DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    while (length == path.size()) {
        path.resize(path.size() * 2);
        length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    }
    path.resize(length);
    return path;
}

std::wstring FullPath(const std::wstring& path) {
    const DWORD size = GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
    std::wstring full(size, L'\0');
    full.resize(GetFullPathNameW(path.c_str(), size, full.data(), nullptr));
    return full.empty() ? path : full;
}

std::wstring LibraryPath(const std::wstring& path) {
    if (!path.empty()) {
        return FullPath(path);
    }
    const std::wstring program = ProgramPath();
    return program.substr(0, program.rfind(L'\\') + 1) + kLibraryName;
}

Library::Library(const std::wstring& path) : path_(LibraryPath(path)), module_(Load(path_)) {}

std::vector<std::wstring> Library::Exports() const {
    const auto* const dosHeader = At<IMAGE_DOS_HEADER>(module_, 0);
    const auto* const headers =
        At<IMAGE_NT_HEADERS>(module_, static_cast<DWORD>(dosHeader->e_lfanew));
    const IMAGE_DATA_DIRECTORY& place =
        headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
    if (place.Size == 0) {
        return {};
    }
    const auto* const table = At<IMAGE_EXPORT_DIRECTORY>(module_, place.VirtualAddress);
    const auto* const names = At<DWORD>(module_, table->AddressOfNames);
    std::vector<std::wstring> exports;
    for (DWORD i = 0; i < table->NumberOfNames; ++i) {
        exports.push_back(Widened(At<char>(module_, names[i])));
    }
    return exports;
}

Action Library::Find(const std::wstring& name) const {
    const std::vector<std::wstring> exports = Exports();
    for (const std::wstring& exported : exports) {
        if (exported == name) {
            const std::string narrow(exported.begin(), exported.end());
            FARPROC const address = GetProcAddress(module_, narrow.c_str());
            Action action = nullptr;
            std::memcpy(&action, &address, sizeof action);
            return action;
        }
    }
    throw RunnerError(ExitCode::NoSuchAction,
                      path_ + L" has no action " + name + MeantText(name, exports));
}

} // namespace halvard_runner
