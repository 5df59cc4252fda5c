#pragma once

#include <windows.h>
#include <msi.h>

#include <string>
#include <vector>

namespace halvard_runner {

/// One custom action of a package, at a place of the install sequence.
struct PackagedAction {
    const wchar_t* name;
    int type;
    const wchar_t* binary;
    const wchar_t* entry;
    /// Stands in the place of MODE's value, and nothing else runs it.
    const wchar_t* mode;
    int sequence;
};

/// What a package is made of.
struct PackageParts {
    std::wstring productCode;
    std::wstring componentCode;
    std::wstring packageCode;
    /// The folder below the 64-bit programs, and the service's name.
    std::wstring folder;
    std::wstring service;
    /// The file of the service's program, beside the package, and its size.
    std::wstring program;
    DWORD programSize = 0;
    /// Name and path of each library.
    std::vector<std::pair<std::wstring, std::wstring>> binaries;
    std::vector<PackagedAction> actions;
};

/// Writes a package whose only file lies beside it: a program that is installed as a service that
/// is never started. Throws CannotBeAsked.
void WritePackage(const std::wstring& path, const PackageParts& parts);

/// A new identity in the form of the installer: in braces and capitals.
std::wstring NewCode();

} // namespace halvard_runner
