#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace halvard_runner {

// What the rules ask of a package: rows of its tables, with the columns that count.

struct CustomActionRow {
    std::wstring action;
    std::uint32_t type;
    std::wstring source;
    std::wstring target;
};

struct SequenceRow {
    std::wstring table;
    std::wstring action;
    std::wstring condition;
    /// None where the action is not run, negative for the dialogues at the end.
    std::optional<int> number;
};

struct DirectoryRow {
    std::wstring directory;
    std::wstring parent;
    std::wstring defaultName;
};

struct RegistryRow {
    std::wstring row;
    int root;
    std::wstring key;
    std::wstring name;
    std::wstring value;
    /// Whether its component is one of 32 bits.
    bool is32Bit = false;
};

struct ServiceControlRow {
    std::wstring name;
    std::uint32_t event;
};

enum class Machine { X64, Other };

/// What a library in the Binary table is.
struct LibraryFacts {
    std::wstring binary;
    Machine machine = Machine::X64;
    std::vector<std::wstring> exports;
    /// "1.0.0", empty without a version resource.
    std::wstring version;
    bool isSigned = false;
};

struct Package {
    /// The platform of the summary, such as "x64" or "Intel".
    std::wstring platform;
    std::vector<CustomActionRow> customActions;
    /// Of all sequences.
    std::vector<SequenceRow> sequences;
    std::map<std::wstring, std::wstring> properties;
    std::vector<DirectoryRow> directories;
    std::vector<std::wstring> launchConditions;
    std::vector<RegistryRow> registry;
    /// The names of the services that it installs.
    std::vector<std::wstring> services;
    std::vector<ServiceControlRow> serviceControls;
    /// The libraries among its binaries, whatever they export.
    std::vector<LibraryFacts> libraries;
};

} // namespace halvard_runner
