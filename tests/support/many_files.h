#pragma once

#include <string>

namespace halvard_tests {

/// A name with a number of six digits: names of one length, so that neither time nor memory depends
/// on how many there are.
std::wstring Numbered(const std::wstring& name, int number);

/// Makes empty files "file 000000", "file 000001"... in a folder that is there. Throws
/// std::runtime_error when one cannot be made.
///
/// Takes the host's own path where there is one: by a Windows path Wine looks through the whole
/// folder before it makes a file, which takes minutes where there are many.
void MakeManyFiles(const std::wstring& folder, int count);

/// Removes a folder with what is in it by the fewest calls, with no look at what they return: what
/// removals of the library are compared with.
void RemoveBare(const std::wstring& folder);

} // namespace halvard_tests
