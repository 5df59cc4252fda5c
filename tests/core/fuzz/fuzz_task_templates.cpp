#include "fuzz_input.h"

#include "tasks/task_templates.h"

#include <expat.h>

#include <memory>

namespace {

using halvard_tests::Require;
using halvard_tests::Texts;

constexpr wchar_t kName[] = L"(the name)";
constexpr wchar_t kCommand[] = L"(the command)";

std::string InUtf8(const std::wstring& text) {
    std::string bytes;
    const auto append = [&](std::uint32_t bits) {
        bytes += static_cast<char>(bits);
    };
    for (std::size_t index = 0; index < text.size(); ++index) {
        auto code = static_cast<std::uint32_t>(text[index]);
        if (code >= 0xD800 && code < 0xDC00 && index + 1 < text.size() &&
            text[index + 1] >= 0xDC00 && text[index + 1] < 0xE000) {
            code = 0x10000 + ((code - 0xD800) << 10U) +
                   (static_cast<std::uint32_t>(text[++index]) - 0xDC00);
        }
        if (code < 0x80) {
            append(code);
        } else if (code < 0x800) {
            append(0xC0 | code >> 6U);
            append(0x80 | (code & 0x3FU));
        } else if (code < 0x10000) {
            append(0xE0 | code >> 12U);
            append(0x80 | (code >> 6U & 0x3FU));
            append(0x80 | (code & 0x3FU));
        } else {
            append(0xF0 | code >> 18U);
            append(0x80 | (code >> 12U & 0x3FU));
            append(0x80 | (code >> 6U & 0x3FU));
            append(0x80 | (code & 0x3FU));
        }
    }
    return bytes;
}

void XMLCALL OnStart(void* events, const XML_Char* name, const XML_Char** attributes) {
    std::string& told = *static_cast<std::string*>(events);
    told += std::string("\1start ") + name;
    for (; *attributes != nullptr; attributes += 2) {
        told += std::string(" ") + attributes[0] + "=" + attributes[1];
    }
    told += '\2';
}

void XMLCALL OnEnd(void* events, const XML_Char* name) {
    *static_cast<std::string*>(events) += std::string("\1end ") + name + '\2';
}

void XMLCALL OnText(void* events, const XML_Char* text, int length) {
    static_cast<std::string*>(events)->append(text, static_cast<std::size_t>(length));
}

// What an XML parser makes of a document; empty when it is not well-formed.
std::string EventsOf(const std::wstring& document) {
    static const std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> parser(
        XML_ParserCreate(nullptr), &XML_ParserFree);
    Require(XML_ParserReset(parser.get(), "UTF-8") == XML_TRUE);
    std::string events;
    XML_SetUserData(parser.get(), &events);
    XML_SetElementHandler(parser.get(), OnStart, OnEnd);
    XML_SetCharacterDataHandler(parser.get(), OnText);
    const std::string bytes = InUtf8(document);
    const int size = static_cast<int>(bytes.size());
    return XML_Parse(parser.get(), bytes.data(), size, XML_TRUE) == XML_STATUS_OK ? events : "";
}

std::string Replaced(std::string text, const std::string& part, const std::string& with) {
    for (std::size_t at = text.find(part); at != std::string::npos;
         at = text.find(part, at + with.size())) {
        text.replace(at, part.size(), with);
    }
    return text;
}

// A parser gives every end of a line as a line feed.
std::string AsParsed(const std::wstring& text) {
    return Replaced(Replaced(InUtf8(text), "\r\n", "\n"), "\r", "\n");
}

// Of what XML takes for a character; of a pair of surrogates both halves have to be there.
bool HoldsOnlyCharacters(const std::wstring& text) {
    for (std::size_t index = 0; index < text.size(); ++index) {
        const auto unit = static_cast<std::uint32_t>(text[index]);
        if (unit >= 0xD800 && unit < 0xE000) {
            const auto behind =
                index + 1 < text.size() ? static_cast<std::uint32_t>(text[index + 1]) : 0;
            if (unit >= 0xDC00 || behind < 0xDC00 || behind >= 0xE000) {
                return false;
            }
            ++index;
        } else if (unit >= 0xFFFE || (unit < 0x20 && unit != 9 && unit != 10 && unit != 13)) {
            return false;
        }
    }
    return true;
}

bool HoldsMarkup(const std::wstring& text) {
    return text.find_first_of(L"<&") != std::wstring::npos ||
           text.find(L"]]>") != std::wstring::npos;
}

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

struct Template {
    std::wstring (*fill)(const std::wstring&, const std::wstring&);
    // What a parser tells of it with the two placeholders.
    std::string events;
};

// The facts on which a task's registration and its start depend.
Template Checked(std::wstring (*fill)(const std::wstring&, const std::wstring&), bool hasTrigger) {
    const std::string events = EventsOf(fill(kName, kCommand));
    const std::string root = "\1start Task version=1.2 "
                             "xmlns=http://schemas.microsoft.com/windows/2004/02/mit/task\2";
    Require(events.compare(0, root.size(), root) == 0);
    Require(Contains(events, "\1start URI\2(the name)\1end URI\2"));
    Require(Contains(events, "\1start Command\2(the command)\1end Command\2"));
    Require(Contains(events, "\1start RunLevel\2HighestAvailable\1"));
    Require(Contains(events, "\1start LogonTrigger\2") == hasTrigger);
    Require(!Contains(events, "start Arguments") && !Contains(events, "start WorkingDirectory"));
    return {fill, events};
}

void Check(const Template& filled, const std::wstring& name, const std::wstring& command) {
    const std::wstring document = filled.fill(name, command);
    // Pasted in as they are.
    for (const std::wstring& element :
         {L">" + name + L"</URI>", L"<Command>" + command + L"</Command>"}) {
        Require(document.find(element) != std::wstring::npos);
    }
    for (const std::wstring& text : {name, command}) {
        if (!HoldsOnlyCharacters(text) || HoldsMarkup(text)) {
            return;
        }
    }
    // Well-formed, and nothing else in it has changed.
    const std::string whole = Replaced(filled.events, "(the command)", "\3");
    const std::string events = EventsOf(document);
    Require(!events.empty());
    Require(events ==
            Replaced(Replaced(whole, "(the name)", AsParsed(name)), "\3", AsParsed(command)));
}

} // namespace

// The task's name on the first line, its command behind it.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const Template elevated = Checked(halvard::ElevatedTaskXml, false);
    static const Template agent = Checked(halvard::AgentLogonTaskXml, true);
    static const Texts words = {
        L"&amp;",
        L"</URI>",
        L"]]>",
        L"<!--",
        L"\r\n",
        L"C:\\Program Files\\Zenvo\\vs.exe",
        {wchar_t{0xD83D}, wchar_t{0xDE00}},
    };
    const auto [name, command] =
        halvard_tests::CutAtLineFeed(halvard_tests::Text(bytes, size, words));
    Check(elevated, name, command);
    Check(agent, name, command);
    return 0;
}
