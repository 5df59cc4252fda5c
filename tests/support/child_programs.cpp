#include "child_programs.h"

#include "files.h"
#include "stand_in_session.h"

#include <windows.h>

#include <tlhelp32.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace halvard_tests {

namespace {

constexpr wchar_t kRecord[] = L"T:\\recorded.txt";
// For a machine under load; what happens as it should is not waited for any longer.
constexpr ULONGLONG kLimitMilliseconds = 60000;

void Check(BOOL done, const char* what) {
    if (done == FALSE) {
        throw std::runtime_error(std::string(what) + " failed with " +
                                 std::to_string(GetLastError()));
    }
}

std::wstring FromUtf8(const std::string& bytes) {
    const int length = static_cast<int>(bytes.size());
    const int size = MultiByteToWideChar(CP_UTF8, 0, bytes.c_str(), length, nullptr, 0);
    std::wstring text(static_cast<std::size_t>(size), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, bytes.c_str(), length, text.data(), size);
    return text;
}

} // namespace

bool operator==(const Recording& left, const Recording& right) {
    return left.program == right.program && left.directory == right.directory &&
           left.commandLine == right.commandLine;
}

EnvironmentVariable::EnvironmentVariable(const std::wstring& name, const std::wstring& value)
    : name_(name) {
    wchar_t former[1024] = {};
    const DWORD length = GetEnvironmentVariableW(name.c_str(), former, 1024);
    if (length > 0 && length < 1024) {
        former_ = former;
    }
    Check(SetEnvironmentVariableW(name.c_str(), value.c_str()), "SetEnvironmentVariableW");
}

EnvironmentVariable::~EnvironmentVariable() {
    SetEnvironmentVariableW(name_.c_str(), former_ ? former_->c_str() : nullptr);
}

RecorderAt::RecorderAt(const std::wstring& path) : path_(path), kept_(path + L".kept") {
    if (MoveFileExW(path_.c_str(), kept_.c_str(), MOVEFILE_REPLACE_EXISTING) == FALSE) {
        kept_.clear();
    }
    Check(CopyFileW(BesideTestProgram(L"..\\support\\recorder.exe").c_str(), path_.c_str(), FALSE),
          "CopyFileW");
    DeleteFileW(kRecord);
}

RecorderAt::~RecorderAt() {
    // A program that still runs cannot be deleted; left there it would answer later tests. One that
    // is just ending is deleted with its end, and the next program at this path must not be there
    // by then.
    const ULONGLONG start = GetTickCount64();
    while (DeleteFileW(path_.c_str()) != FALSE ||
           (GetLastError() != ERROR_FILE_NOT_FOUND && GetLastError() != ERROR_PATH_NOT_FOUND)) {
        if (GetTickCount64() - start > kLimitMilliseconds) {
            std::fwprintf(stderr, L"cannot be removed, still running: %ls\n", path_.c_str());
            std::abort();
        }
        if (IsThere(path_)) {
            Sleep(10);
        }
    }
    if (!kept_.empty()) {
        MoveFileExW(kept_.c_str(), path_.c_str(), MOVEFILE_REPLACE_EXISTING);
    }
}

std::vector<Recording> Recordings() {
    const std::wstring text = FromUtf8(ReadWholeFile(kRecord));
    std::vector<Recording> recordings;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = text.find(L'\n', start);
        if (end == std::wstring::npos) {
            break;
        }
        const std::wstring line = text.substr(start, end - start);
        const std::size_t first = line.find(L'\t');
        const std::size_t second = line.find(L'\t', first + 1);
        recordings.push_back({line.substr(0, first), line.substr(first + 1, second - first - 1),
                              line.substr(second + 1)});
        start = end + 1;
    }
    return recordings;
}

std::vector<Recording> WaitForRecordings(std::size_t count) {
    const ULONGLONG start = GetTickCount64();
    std::vector<Recording> recordings = Recordings();
    while (recordings.size() < count && GetTickCount64() - start < kLimitMilliseconds) {
        Sleep(20);
        recordings = Recordings();
    }
    return recordings;
}

void EndPrograms(const std::wstring& name) {
    const HANDLE list = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof(entry);
    for (BOOL found = Process32FirstW(list, &entry); found != FALSE;
         found = Process32NextW(list, &entry)) {
        if (name == entry.szExeFile) {
            const HANDLE process =
                OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, entry.th32ProcessID);
            TerminateProcess(process, 0);
            WaitForSingleObject(process, INFINITE);
            CloseHandle(process);
        }
    }
    CloseHandle(list);
}

} // namespace halvard_tests
