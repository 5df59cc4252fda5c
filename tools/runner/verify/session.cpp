// What the installer makes of log lines and properties, in a session without a product.

#include "verify/place.h"

#include "bare_session.h"

#include "runtime/session.h"

#include <msiquery.h>

#include <functional>

namespace halvard_runner {

namespace {

std::wstring WithoutLineEnd(const std::wstring& text) {
    return text.substr(0, text.find_last_not_of(L"\r\n") + 1);
}

// The log lines that come while something is done with a session.
std::vector<std::wstring> LinesOf(const ScratchPlace& place,
                                  const std::function<void(const BareSession&)>& act) {
    std::vector<std::wstring> lines;
    bool began = false;
    const BareSession session(
        [&](const Message& message) {
            if (began && (message.type & 0xFF000000U) == INSTALLMESSAGE_INFO) {
                lines.push_back(WithoutLineEnd(message.text));
            }
        },
        place.File(L"session.msi"));
    began = true;
    act(session);
    began = false;
    return lines;
}

std::wstring LineOf(const ScratchPlace& place, const std::wstring& text) {
    const std::vector<std::wstring> lines = LinesOf(place, [&](const BareSession& session) {
        halvard::LogMessage(session.Get(), L"%s", text.c_str());
    });
    if (lines.size() != 1) {
        return std::to_wstring(lines.size()) + L" lines";
    }
    return lines[0];
}

std::wstring Told(const ScratchPlace& place, const std::wstring& sent) {
    const std::wstring line = LineOf(place, sent);
    if (line == sent) {
        return L"whole";
    }
    return line.size() > 40 ? L"cut to " + std::to_wstring(line.size()) : line;
}

std::wstring Line519(const ScratchPlace& place) {
    return Told(place, std::wstring(519, L'x'));
}

std::wstring Line520(const ScratchPlace& place) {
    return Told(place, std::wstring(520, L'x'));
}

std::wstring Line2000(const ScratchPlace& place) {
    return Told(place, std::wstring(2000, L'x'));
}

std::wstring PropertyInBrackets(const ScratchPlace& place) {
    return LineOf(place, L"<[ProductVersion]>");
}

std::wstring MissingPropertyInBrackets(const ScratchPlace& place) {
    return LineOf(place, L"<[NoSuchProperty]>");
}

std::wstring FieldInBrackets(const ScratchPlace& place) {
    return LineOf(place, L"<[1]>");
}

std::wstring PathInBrackets(const ScratchPlace& place) {
    return LineOf(place, L"<C:\\[a b]\\c>");
}

std::wstring NoSession(const ScratchPlace& place) {
    const std::vector<std::wstring> lines = LinesOf(place, [](const BareSession&) {
        halvard::LogMessage(halvard::kNoSession, L"nobody hears this");
    });
    return lines.empty() ? L"nothing comes" : L"it comes";
}

std::wstring LongData(const ScratchPlace& place) {
    const std::wstring data = L"Key=" + std::wstring(5000, L'd');
    std::wstring read;
    LinesOf(place, [&](const BareSession& session) {
        session.SetProperty({L"CustomActionData", data});
        read = halvard::ReadCustomActionData(session.Get());
    });
    return read == data ? L"whole" : L"cut to " + std::to_wstring(read.size());
}

std::wstring LongProperty(const ScratchPlace& place) {
    UINT status = ERROR_SUCCESS;
    LinesOf(place, [&](const BareSession& session) {
        session.SetProperty({L"LAUNCHED_FROM_MIM", std::wstring(300, L'1')});
        wchar_t value[260] = {};
        DWORD length = 260;
        status = MsiGetPropertyW(session.Get(), L"LAUNCHED_FROM_MIM", value, &length);
    });
    return std::to_wstring(status);
}

} // namespace

std::vector<Fact> SessionFacts() {
    return {
        {L"line-of-519", Line519},
        {L"line-of-520", Line520},
        {L"line-of-2000", Line2000},
        {L"property-in-brackets", PropertyInBrackets},
        {L"missing-property", MissingPropertyInBrackets},
        {L"field-in-brackets", FieldInBrackets},
        {L"path-in-brackets", PathInBrackets},
        {L"no-session", NoSession},
        {L"long-data", LongData},
        {L"long-property", LongProperty},
    };
}

} // namespace halvard_runner
