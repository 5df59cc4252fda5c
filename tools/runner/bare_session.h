#pragma once

#include <windows.h>
#include <msi.h>

#include "report.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace halvard_runner {

/// A file of its own in the folder for temporary files, gone at the end.
class TemporaryFile {
public:
    TemporaryFile();
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    [[nodiscard]] const std::wstring& Path() const noexcept { return path_; }

private:
    std::wstring path_;
};

/// An installer session of a package that installs nothing, with the machine's state left out: it
/// holds properties, and takes the messages of an action.
///
/// One at a time in a process, as the engine has it. To be closed by the thread that opened it.
class BareSession {
public:
    /// What receives each message as it comes, in the thread of the action.
    using Receiver = std::function<void(const Message&)>;

    /// `package` is the file to make the package in, which the caller removes; empty for one of its
    /// own. Throws RunnerError (NoSession).
    explicit BareSession(Receiver receiver, const std::wstring& package = {});
    ~BareSession();
    BareSession(const BareSession&) = delete;
    BareSession& operator=(const BareSession&) = delete;

    [[nodiscard]] MSIHANDLE Get() const noexcept { return session_; }

    /// Throws RunnerError (NoSession).
    void SetProperty(const Property& property) const;

private:
    std::optional<TemporaryFile> ownPackage_;
    Receiver receiver_;
    MSIHANDLE session_ = 0;
};

} // namespace halvard_runner
