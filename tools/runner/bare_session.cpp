#include "bare_session.h"

#include "installer_handle.h"
#include "text_output.h"

#include <msiquery.h>

#include <utility>

namespace halvard_runner {

namespace {

constexpr DWORD kAllMessages = INSTALLLOGMODE_FATALEXIT | INSTALLLOGMODE_ERROR |
                               INSTALLLOGMODE_WARNING | INSTALLLOGMODE_USER | INSTALLLOGMODE_INFO |
                               INSTALLLOGMODE_RESOLVESOURCE | INSTALLLOGMODE_OUTOFDISKSPACE |
                               INSTALLLOGMODE_ACTIONSTART | INSTALLLOGMODE_ACTIONDATA |
                               INSTALLLOGMODE_COMMONDATA | INSTALLLOGMODE_PROGRESS;

// What the engine wants to find in a package before it opens it.
constexpr const wchar_t* kStatements[] = {
    L"CREATE TABLE `Property` (`Property` CHAR(72) NOT NULL, `Value` LONGCHAR NOT NULL "
    L"LOCALIZABLE PRIMARY KEY `Property`)",
    L"INSERT INTO `Property` (`Property`, `Value`) VALUES ('ProductCode', "
    L"'{5D1F6C0A-8E7B-4C36-9A52-0B3D47E1F688}')",
    L"INSERT INTO `Property` (`Property`, `Value`) VALUES ('ProductName', 'halvard_run')",
    L"INSERT INTO `Property` (`Property`, `Value`) VALUES ('ProductVersion', '1.0.0')",
    L"INSERT INTO `Property` (`Property`, `Value`) VALUES ('ProductLanguage', '1033')",
    L"INSERT INTO `Property` (`Property`, `Value`) VALUES ('Manufacturer', 'halvard_run')",
};
constexpr const wchar_t* kPackageCode = L"{E2B94C71-3A05-4D88-B6F9-71C25D08AE43}";
constexpr int kCompressedSource = 2;

void RequireSession(UINT status, const std::wstring& what) {
    if (status != ERROR_SUCCESS) {
        throw RunnerError(ExitCode::NoSession, what + L": " + ErrorText(status));
    }
}

void WritePackage(const std::wstring& path) {
    InstallerHandle database;
    RequireSession(MsiOpenDatabaseW(path.c_str(), MSIDBOPEN_CREATE, database.Receive()),
                   L"no package can be made at " + path);
    for (const wchar_t* const statement : kStatements) {
        RequireSession(Execute(database.Get(), statement), statement);
    }
    RequireSession(WriteSummary(database.Get(), kPackageCode, kCompressedSource),
                   L"the package's summary cannot be written");
    RequireSession(MsiDatabaseCommit(database.Get()), L"the package cannot be written to " + path);
}

int WINAPI Receive(void* context, UINT type, const wchar_t* text) {
    const auto& receiver = *static_cast<const BareSession::Receiver*>(context);
    receiver({type, text == nullptr ? L"" : text});
    return IDOK;
}

} // namespace

TemporaryFile::TemporaryFile() {
    wchar_t folder[MAX_PATH + 1] = {};
    wchar_t file[MAX_PATH + 1] = {};
    if (GetTempPathW(MAX_PATH + 1, folder) == 0 || GetTempFileNameW(folder, L"hrn", 0, file) == 0) {
        const DWORD code = GetLastError();
        throw RunnerError(ExitCode::NoSession, L"no temporary file: " + ErrorText(code));
    }
    path_ = file;
}

TemporaryFile::~TemporaryFile() {
    DeleteFileW(path_.c_str());
}

BareSession::BareSession(Receiver receiver, const std::wstring& package)
    : receiver_(std::move(receiver)) {
    const std::wstring& path = package.empty() ? ownPackage_.emplace().Path() : package;
    WritePackage(path);
    MsiSetInternalUI(INSTALLUILEVEL_NONE, nullptr);
    RequireSession(
        MsiOpenPackageExW(path.c_str(), MSIOPENPACKAGEFLAGS_IGNOREMACHINESTATE, &session_),
        L"no installer session can be opened");
    MsiSetExternalUIW(Receive, kAllMessages, &receiver_);
}

BareSession::~BareSession() {
    MsiSetExternalUIW(nullptr, 0, nullptr);
    MsiCloseHandle(session_);
}

void BareSession::SetProperty(const Property& property) const {
    RequireSession(MsiSetPropertyW(session_, property.name.c_str(), property.value.c_str()),
                   L"the session does not take the property " + property.name);
}

} // namespace halvard_runner
