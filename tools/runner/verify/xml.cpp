// The rewriters of task definitions, with what XmlLite makes of the files that they are given.

#include "verify/child.h"
#include "verify/place.h"

#include "tasks/task_xml_rewriter.h"

namespace halvard_runner {

namespace {

constexpr std::size_t kLongDefinition = 10000;

std::wstring Definition(const wchar_t* lineEnd) {
    const std::wstring end = lineEnd;
    const std::wstring indent = end.empty() ? L"" : L"  ";
    return L"<?xml version=\"1.0\" encoding=\"UTF-16\"?>" + end +
           L"<Task version=\"1.2\" "
           L"xmlns=\"http://schemas.microsoft.com/windows/2004/02/mit/task\">" +
           end + indent +
           L"<RegistrationInfo><Description>what it does"
           L"</Description></RegistrationInfo>" +
           end + indent +
           L"<Triggers><TimeTrigger><StartBoundary>2001-02-03T04:05:06</StartBoundary>"
           L"</TimeTrigger></Triggers>" +
           end + indent +
           L"<Actions><Exec><Command>program.exe</Command>"
           L"<WorkingDirectory>C:\\former</WorkingDirectory></Exec></Actions>" +
           end + L"</Task>" + end;
}

// Laid out as the Task Scheduler exports it.
std::wstring LongDefinition() {
    const std::wstring text = Definition(L"\r\n");
    const std::size_t place = text.find(L"<Triggers>");
    std::wstring lines;
    while (text.size() + lines.size() < kLongDefinition) {
        lines += L"<Data>an element of a long definition</Data>\r\n";
    }
    return text.substr(0, place) + lines + text.substr(place);
}

std::string Utf16(const std::wstring& text) {
    const std::wstring marked = L"\xFEFF" + text;
    return {reinterpret_cast<const char*>(marked.data()), marked.size() * sizeof(wchar_t)};
}

std::string AsUtf8Document(std::wstring text) {
    text.replace(text.find(L"UTF-16"), 6, L"UTF-8");
    return {text.begin(), text.end()};
}

bool HasElement(const std::wstring& text, const std::wstring& name, const std::wstring& value) {
    const std::wstring end = value + L"</" + name + L">";
    return text.find(end) != std::wstring::npos;
}

// Whether the copy is whole but for what was to be replaced.
std::wstring Judged(const ScratchPlace& place, HRESULT result, const wchar_t* former,
                    const wchar_t* replaced) {
    if (result != S_OK && result != S_FALSE) {
        return CodeText(result);
    }
    const std::wstring text = ReadText(place.File(L"rewritten.xml"));
    const bool isWhole =
        text.find(L"</Task>") != std::wstring::npos && HasElement(text, L"Command", L"program.exe");
    const bool isReplaced =
        text.find(former) == std::wstring::npos && text.find(replaced) != std::wstring::npos;
    if (!isWhole) {
        return L"cut short";
    }
    return isReplaced ? L"rewritten" : L"not replaced";
}

std::wstring RewriteDirectory(const ScratchPlace& place, const std::string& bytes) {
    MakeFile(place.File(L"task.xml"), bytes);
    const HRESULT result = halvard::RewriteTaskWorkingDirectory(
        place.File(L"task.xml"), place.File(L"rewritten.xml"), L"C:\\new & <next>");
    return Judged(place, result, L"C:\\former", L">C:\\new &amp; &lt;next&gt;<");
}

std::wstring RewriteStart(const ScratchPlace& place, const std::string& bytes) {
    MakeFile(place.File(L"task.xml"), bytes);
    const HRESULT result =
        halvard::RewriteTaskStartBoundary(place.File(L"task.xml"), place.File(L"rewritten.xml"));
    return Judged(place, result, L"2001-02-03T04:05:06", L":00</StartBoundary>");
}

std::wstring CompactDirectory(const ScratchPlace& place) {
    return RewriteDirectory(place, Utf16(Definition(L"")));
}

std::wstring CompactStart(const ScratchPlace& place) {
    return RewriteStart(place, Utf16(Definition(L"")));
}

std::wstring FormattedDirectory(const ScratchPlace& place) {
    return RewriteDirectory(place, Utf16(Definition(L"\r\n")));
}

std::wstring LongDirectory(const ScratchPlace& place) {
    return RewriteDirectory(place, Utf16(LongDefinition()));
}

std::wstring LongStart(const ScratchPlace& place) {
    return RewriteStart(place, Utf16(LongDefinition()));
}

std::wstring Utf8Definition(const ScratchPlace& place) {
    return RewriteDirectory(place, AsUtf8Document(Definition(L"")));
}

std::wstring DocumentType(const ScratchPlace& place) {
    std::wstring text = Definition(L"");
    text.insert(text.find(L"<Task "), L"<!DOCTYPE Task>");
    return RewriteDirectory(place, Utf16(text)) == L"rewritten" ? L"read" : L"refused";
}

} // namespace

std::vector<Fact> XmlFacts() {
    return {
        {L"compact-directory", CompactDirectory},
        {L"compact-start", CompactStart},
        {L"formatted-directory", FormattedDirectory},
        {L"long-directory", LongDirectory},
        {L"long-start", LongStart},
        {L"utf8-definition", Utf8Definition},
        {L"document-type", DocumentType},
    };
}

} // namespace halvard_runner
