#pragma once

#include <optional>
#include <string>
#include <vector>

namespace halvard_tests {

/// One run of a recorder.
struct Recording {
    std::wstring program;
    std::wstring directory;
    std::wstring commandLine;
};

bool operator==(const Recording& left, const Recording& right);

/// Sets a variable of the environment, which child programs inherit, for the length of a scope.
class EnvironmentVariable {
public:
    EnvironmentVariable(const std::wstring& name, const std::wstring& value);
    ~EnvironmentVariable();
    EnvironmentVariable(const EnvironmentVariable&) = delete;
    EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;

private:
    std::wstring name_;
    std::optional<std::wstring> former_;
};

/// Puts the recorder in the place of a program for the length of a scope, and starts with an empty
/// record. What stood at `path` before comes back at the end.
class RecorderAt {
public:
    explicit RecorderAt(const std::wstring& path);
    ~RecorderAt();
    RecorderAt(const RecorderAt&) = delete;
    RecorderAt& operator=(const RecorderAt&) = delete;

private:
    std::wstring path_;
    std::wstring kept_;
};

/// What recorders have recorded, in order.
std::vector<Recording> Recordings();

/// Waits until `count` programs have recorded, for up to 60 seconds, and returns what there is
/// then.
std::vector<Recording> WaitForRecordings(std::size_t count);

/// Ends all processes of a program, such as a recorder that would go on for longer than its test.
void EndPrograms(const std::wstring& name);

} // namespace halvard_tests
