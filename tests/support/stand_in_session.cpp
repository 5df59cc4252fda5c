#include "stand_in_session.h"

#include "import_hook.h"

#include <msiquery.h>

#include <stdexcept>

namespace halvard_tests {

namespace {

std::vector<SessionMessage> received;

int WINAPI Receive(void* /*context*/, UINT type, LPCWSTR text) {
    const HookedCall call; // for what is kept is not the code's
    received.push_back({type, text == nullptr ? L"" : text});
    return IDOK;
}

void Check(UINT status, const char* what) {
    if (status != ERROR_SUCCESS) {
        throw std::runtime_error(std::string(what) + " failed with " + std::to_string(status));
    }
}

MSIHANDLE OpenPackage() {
    MSIHANDLE session = 0;
    MsiSetInternalUI(INSTALLUILEVEL_NONE, nullptr);
    Check(MsiOpenPackageExW(BesideTestProgram(L"..\\support\\stand_in.msi").c_str(),
                            MSIOPENPACKAGEFLAGS_IGNOREMACHINESTATE, &session),
          "MsiOpenPackageExW");
    return session;
}

MSIHANDLE TheSession() {
    static const MSIHANDLE session = OpenPackage();
    return session;
}

} // namespace

bool operator==(const SessionMessage& left, const SessionMessage& right) {
    return left.type == right.type && left.text == right.text;
}

StandInSession::StandInSession() : session_(TheSession()) {
    MsiSetExternalUIW(Receive, INSTALLLOGMODE_INFO | INSTALLLOGMODE_USER, nullptr);
    received.clear();
}

StandInSession::~StandInSession() {
    MsiSetExternalUIW(nullptr, 0, nullptr);
    for (const std::wstring& name : properties_) {
        MsiSetPropertyW(session_, name.c_str(), L"");
    }
}

void StandInSession::SetProperty(const std::wstring& name, const std::wstring& value) const {
    properties_.insert(name);
    Check(MsiSetPropertyW(session_, name.c_str(), value.c_str()), "MsiSetPropertyW");
}

const std::vector<SessionMessage>& StandInSession::Messages() const {
    return received;
}

std::vector<std::wstring> StandInSession::LogLines() const {
    std::vector<std::wstring> lines;
    for (const SessionMessage& message : received) {
        if (message.type == INSTALLMESSAGE_INFO) {
            lines.push_back(message.text);
        }
    }
    return lines;
}

std::wstring BesideTestProgram(const std::wstring& relative) {
    wchar_t program[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    const std::wstring path = program;
    return path.substr(0, path.rfind(L'\\') + 1) + relative;
}

} // namespace halvard_tests
