#pragma once

#include <windows.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace halvard_runner {

/// What an outcome cannot be found out for on this machine: no fault, but an answer of its own.
class CannotBeAsked : public std::runtime_error {
public:
    explicit CannotBeAsked(std::wstring why)
        : std::runtime_error("cannot be asked"), why_(std::move(why)) {}

    [[nodiscard]] const std::wstring& Why() const noexcept { return why_; }

private:
    std::wstring why_;
};

/// A folder below the temporary one and a key below HKEY_CURRENT_USER\Software, both with a name of
/// their own, in which everything happens but what has that name elsewhere: a scheduled task, and
/// keys in both views. All are removed at the end, whatever became of the processes that worked
/// with them.
class Scratch {
public:
    /// Throws CannotBeAsked.
    Scratch();
    ~Scratch();
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    [[nodiscard]] const std::wstring& Name() const noexcept { return name_; }
    [[nodiscard]] const std::wstring& Folder() const noexcept { return folder_; }

    /// Removes them; what is still there then.
    [[nodiscard]] std::vector<std::wstring> Remove() const;

private:
    std::wstring name_;
    std::wstring folder_;
    std::wstring key_;
};

/// The place of one fact in the scratch folder and the scratch key of that name: a folder and a
/// key, empty at the start, gone at the end.
class ScratchPlace {
public:
    /// Throws CannotBeAsked.
    ScratchPlace(const std::wstring& scratch, const std::wstring& name);
    ~ScratchPlace();
    ScratchPlace(const ScratchPlace&) = delete;
    ScratchPlace& operator=(const ScratchPlace&) = delete;

    [[nodiscard]] const std::wstring& Folder() const noexcept { return folder_; }
    [[nodiscard]] std::wstring File(const std::wstring& name) const {
        return folder_ + L"\\" + name;
    }
    [[nodiscard]] HKEY Key() const noexcept { return key_; }
    /// The path of the key below HKEY_CURRENT_USER.
    [[nodiscard]] const std::wstring& KeyPath() const noexcept { return keyPath_; }
    /// For whatever has to have a name that nobody else uses.
    [[nodiscard]] const std::wstring& UniqueName() const noexcept { return uniqueName_; }

private:
    std::wstring uniqueName_;
    std::wstring folder_;
    std::wstring keyPath_;
    HKEY key_ = nullptr;
};

/// How a fact is asked: its name, and what finds out its outcome. Throws CannotBeAsked.
struct Fact {
    const wchar_t* name;
    std::wstring (*observe)(const ScratchPlace& place);
};

std::vector<Fact> ProcessFacts();
std::vector<Fact> RegistryFacts();
std::vector<Fact> FileFacts();
std::vector<Fact> XmlFacts();
std::vector<Fact> TaskFacts();
std::vector<Fact> SecurityFacts();
std::vector<Fact> SessionFacts();

/// A key that may have one place in each view of the registry.
struct ViewedKey {
    HKEY root = nullptr;
    std::wstring path;
    std::wstring pathOfNarrowView;
};

/// Those of a scratch: below the software of the machine, and below the classes of the user.
std::pair<ViewedKey, ViewedKey> KeysInBothViews(const std::wstring& scratch);
void RemoveInBothViews(const ViewedKey& key);

/// Removes the scheduled task of a scratch, where there is one. Whether it is still there.
bool TaskIsLeft(const std::wstring& scratch);

/// Why something that this program does was not done.
std::wstring ReasonText(const std::exception& error);

/// Throws CannotBeAsked: that this step before the question was refused, and with which code.
void Require(bool done, const std::wstring& what);
void RequireSuccess(LSTATUS status, const std::wstring& what);

/// A result of COM: "0x" and eight digits.
std::wstring CodeText(HRESULT result);

/// The extended-length form, in which any name can be made.
std::wstring Extended(const std::wstring& path);

void MakeFolder(const std::wstring& path);
void MakeFile(const std::wstring& path, const std::string& bytes = "something");
bool IsThere(const std::wstring& path);

/// Removes a file, a folder with all it holds or a link, which goes alone; what cannot be removed
/// stays.
void RemoveAnything(const std::wstring& path);

} // namespace halvard_runner
