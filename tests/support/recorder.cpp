// recorder: stands in for the programs that the library starts. It appends one line to a file,
//
//     program name <tab> current directory <tab> raw command line
//
// in UTF-8, and ends as the environment says:
//     HALVARD_RECORD          the file (T:\recorded.txt when it is not set)
//     HALVARD_RECORD_EXIT     exit code (0)
//     HALVARD_RECORD_DELAY    milliseconds to wait after recording (0)
//     HALVARD_RECORD_ONLY     a part of the command lines that are recorded; every other is left to
//                             the program of this name in the system folder
//     HALVARD_RECORD_OUTPUT   bytes to write to standard output, half of them to standard error (0)

#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <string>

namespace {

std::wstring Setting(const wchar_t* name, const wchar_t* otherwise) {
    wchar_t value[1024] = {};
    const DWORD length = GetEnvironmentVariableW(name, value, 1024);
    return length == 0 || length >= 1024 ? otherwise : value;
}

DWORD NumberSetting(const wchar_t* name) {
    return std::wcstoul(Setting(name, L"0").c_str(), nullptr, 10);
}

std::string Utf8(const std::wstring& text) {
    const int length = static_cast<int>(text.size());
    const int size =
        WideCharToMultiByte(CP_UTF8, 0, text.c_str(), length, nullptr, 0, nullptr, nullptr);
    std::string bytes(static_cast<std::size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.c_str(), length, bytes.data(), size, nullptr, nullptr);
    return bytes;
}

std::wstring ProgramName() {
    wchar_t path[1024] = {};
    GetModuleFileNameW(nullptr, path, 1024);
    const std::wstring text = path;
    return text.substr(text.rfind(L'\\') + 1);
}

// The exit code of the program of this name in the system folder, with the same command line.
DWORD RunWhatItStandsFor() {
    wchar_t folder[MAX_PATH] = {};
    GetSystemDirectoryW(folder, MAX_PATH);
    const std::wstring program = std::wstring(folder) + L"\\" + ProgramName();
    std::wstring line = GetCommandLineW();
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION started = {};
    if (CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                       &startup, &started) == FALSE) {
        return 254;
    }
    WaitForSingleObject(started.hProcess, INFINITE);
    DWORD code = 254;
    GetExitCodeProcess(started.hProcess, &code);
    CloseHandle(started.hThread);
    CloseHandle(started.hProcess);
    return code;
}

void Write(HANDLE stream, DWORD bytes) {
    const std::string chunk(4096, 'x');
    while (bytes > 0) {
        const DWORD part = std::min<DWORD>(bytes, static_cast<DWORD>(chunk.size()));
        DWORD written = 0;
        if (WriteFile(stream, chunk.data(), part, &written, nullptr) == FALSE) {
            return;
        }
        bytes -= written;
    }
}

} // namespace

int main() {
    if (std::wstring(GetCommandLineW()).find(Setting(L"HALVARD_RECORD_ONLY", L"")) ==
        std::wstring::npos) {
        return static_cast<int>(RunWhatItStandsFor());
    }
    wchar_t directory[1024] = {};
    GetCurrentDirectoryW(1024, directory);
    const std::string line =
        Utf8(ProgramName() + L"\t" + directory + L"\t" + GetCommandLineW() + L"\n");

    const HANDLE file = CreateFileW(Setting(L"HALVARD_RECORD", L"T:\\recorded.txt").c_str(),
                                    FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                    OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return 254;
    }
    DWORD written = 0;
    WriteFile(file, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
    CloseHandle(file);

    const DWORD output = NumberSetting(L"HALVARD_RECORD_OUTPUT");
    Write(GetStdHandle(STD_OUTPUT_HANDLE), output - output / 2);
    Write(GetStdHandle(STD_ERROR_HANDLE), output / 2);
    Sleep(NumberSetting(L"HALVARD_RECORD_DELAY"));
    return static_cast<int>(NumberSetting(L"HALVARD_RECORD_EXIT"));
}
