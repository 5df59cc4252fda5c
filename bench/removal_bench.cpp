// removal_bench WHAT RUNS: removes trees of the throw-away drive and prints a line "NAME NUMBER"
// for each removal. Exit code 1 when a removal has left something.
//   ways    10,000 files in 100 folders in five ways, one after the other, RUNS times: milliseconds
//   sizes   1,000, 10,000 and 100,000 files with RemoveAll, in turns, RUNS times: milliseconds
//   memory  one folder with 1,000 and 100,000 files with RemoveAll: the most bytes that it held

#include "cleanup/directory_tree.h"

#include "allocation_failure.h"
#include "many_files.h"
#include "prefix_guard.h"

#include <windows.h>
#include <winternl.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

constexpr wchar_t kTree[] = L"T:\\removal_bench";
constexpr int kFilesOfAFolder = 100;

void MakeFolder(const std::wstring& folder, int files) {
    CreateDirectoryW(folder.c_str(), nullptr);
    halvard_tests::MakeManyFiles(folder, files);
}

void MakeTree(int folders) {
    MakeFolder(kTree, 0);
    for (int folder = 0; folder < folders; ++folder) {
        MakeFolder(halvard_tests::Numbered(std::wstring(kTree) + L"\\folder ", folder),
                   kFilesOfAFolder);
    }
}

void RemoveWithBareLoop() {
    halvard_tests::RemoveBare(kTree);
}

// A deletion by handle takes a call more than one by path: what any removal that looks nothing up
// by a path has to make, and nothing of what the library asks besides.
void RemoveByHandle(const std::wstring& folder) {
    const HANDLE held = CreateFileW(folder.c_str(), FILE_LIST_DIRECTORY,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    FILE_DISPOSITION_INFO deletion = {TRUE};
    WIN32_FIND_DATAW found = {};
    const HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &found);
    do {
        const std::wstring name = found.cFileName;
        if (name == L"." || name == L"..") {
            continue;
        }
        if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
            RemoveByHandle(folder + L"\\" + name);
            continue;
        }
        UNICODE_STRING entry = {};
        RtlInitUnicodeString(&entry, name.c_str());
        OBJECT_ATTRIBUTES object = {};
        InitializeObjectAttributes(&object, &entry, 0, held, nullptr);
        IO_STATUS_BLOCK result = {};
        HANDLE file = nullptr;
        NtOpenFile(&file, DELETE, &object, &result,
                   FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                   FILE_OPEN_REPARSE_POINT | FILE_NON_DIRECTORY_FILE);
        SetFileInformationByHandle(file, FileDispositionInfo, &deletion, sizeof(deletion));
        CloseHandle(file);
    } while (FindNextFileW(search, &found) != FALSE);
    FindClose(search);
    CloseHandle(held);
    RemoveDirectoryW(folder.c_str());
}

void RemoveWithBareCallsByHandle() {
    RemoveByHandle(kTree);
}

void RemoveWithStandardLibrary() {
    std::error_code error;
    std::filesystem::remove_all(kTree, error);
}

void RemoveWithRemoveAll() {
    DWORD code = ERROR_SUCCESS;
    halvard::RemoveAll(kTree, code);
}

void RemoveWithCommandInterpreter() {
    std::wstring command = std::wstring(L"cmd /c rd /s /q ") + kTree;
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION child = {};
    if (CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                       &startup, &child) != FALSE) {
        WaitForSingleObject(child.hProcess, INFINITE);
        CloseHandle(child.hThread);
        CloseHandle(child.hProcess);
    }
}

bool IsGone() {
    return GetFileAttributesW(kTree) == INVALID_FILE_ATTRIBUTES &&
           GetLastError() == ERROR_FILE_NOT_FOUND;
}

bool Measure(const char* name, int folders, void (*remove)()) {
    MakeTree(folders);
    const auto start = std::chrono::steady_clock::now();
    remove();
    const std::chrono::duration<double, std::milli> taken =
        std::chrono::steady_clock::now() - start;
    std::printf("%s %.3f\n", name, taken.count());
    return IsGone();
}

bool MeasureWays() {
    bool complete = Measure("bare loop", 100, RemoveWithBareLoop);
    complete &= Measure("bare calls by handle", 100, RemoveWithBareCallsByHandle);
    complete &= Measure("std::filesystem::remove_all", 100, RemoveWithStandardLibrary);
    complete &= Measure("RemoveAll", 100, RemoveWithRemoveAll);
    complete &= Measure("cmd /c rd /s /q", 100, RemoveWithCommandInterpreter);
    return complete;
}

bool MeasureSizes() {
    bool complete = Measure("1,000 files", 10, RemoveWithRemoveAll);
    complete &= Measure("10,000 files", 100, RemoveWithRemoveAll);
    complete &= Measure("100,000 files", 1000, RemoveWithRemoveAll);
    return complete;
}

bool MeasureMemory(const char* name, int files) {
    MakeFolder(kTree, files);
    const halvard_tests::LiveBytes heap;
    RemoveWithRemoveAll();
    std::printf("%s %zu\n", name, heap.Peak());
    return IsGone();
}

bool MeasureMemories() {
    return MeasureMemory("1,000 files", 1000) && MeasureMemory("100,000 files", 100000);
}

bool RunOnce(const std::string& what) {
    if (what == "ways") {
        return MeasureWays();
    }
    return what == "sizes" ? MeasureSizes() : MeasureMemories();
}

} // namespace

int main(int count, char** arguments) {
    const std::wstring danger = halvard_tests::PrefixDanger();
    if (!danger.empty()) {
        std::fwprintf(stderr, L"unsafe prefix, nothing is removed: %ls\n", danger.c_str());
        return 2;
    }
    const std::string what = count == 3 ? arguments[1] : "";
    const long runs = count == 3 ? std::strtol(arguments[2], nullptr, 10) : 0;
    if (runs < 1 || (what != "ways" && what != "sizes" && what != "memory")) {
        std::fputs("usage: removal_bench ways|sizes|memory RUNS\n", stderr);
        return 2;
    }
    // What an earlier run has left.
    halvard_tests::RemoveBare(kTree);
    bool complete = true;
    for (long run = 0; run < runs; ++run) {
        complete &= RunOnce(what);
    }
    return complete ? 0 : 1;
}
