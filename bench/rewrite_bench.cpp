// rewrite_bench RUNS: copies a task definition many times over, in four ways, one after the other,
// RUNS times, and prints a line "NAME MILLISECONDS" for each series of copies. Exit code 1 when a
// copy has not become complete.

#include "tasks/task_xml_rewriter.h"

#include <windows.h>
#include <shlwapi.h>
#include <xmllite.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <cwchar>
#include <string>

namespace {

constexpr wchar_t kSource[] = L"T:\\rewrite_bench.xml";
constexpr wchar_t kTarget[] = L"T:\\rewrite_bench_copy.xml";
constexpr int kCopies = 200;
constexpr UINT kBoundaryLength = 19;
constexpr std::time_t kSecondsOfADay = 86400;

// About 3,000 characters without a line break, which is what XmlLite takes everywhere.
std::wstring TaskDefinition() {
    std::wstring triggers;
    for (int number = 0; number < 24; ++number) {
        triggers += L"<TimeTrigger><StartBoundary>2001-02-03T00:00:00</StartBoundary>"
                    L"<Enabled>true</Enabled><Repetition/></TimeTrigger>";
    }
    return L"\xFEFF<?xml version=\"1.0\" encoding=\"UTF-16\"?><Task version=\"1.2\"><Triggers>" +
           triggers +
           L"</Triggers><Actions Context=\"Author\"><Exec><Command>pvcmd.exe</Command>"
           L"<WorkingDirectory>C:\\Program Files\\Zenvo</WorkingDirectory></Exec></Actions></Task>";
}

bool WriteSource() {
    const std::wstring document = TaskDefinition();
    HANDLE file = CreateFileW(kSource, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    DWORD written = 0;
    const BOOL done =
        WriteFile(file, document.data(), static_cast<DWORD>(document.size() * sizeof(wchar_t)),
                  &written, nullptr);
    CloseHandle(file);
    return done != FALSE;
}

using CopyNode = HRESULT (*)(XmlNodeType type, IXmlReader* reader, IXmlWriter* writer);

HRESULT CopyAsItIs(XmlNodeType type, IXmlReader* reader, IXmlWriter* writer) {
    return type == XmlNodeType_EndElement ? writer->WriteFullEndElement()
                                          : writer->WriteNodeShallow(reader, FALSE);
}

// Of the calendar all is asked that a boundary needs; texts of this length are boundaries alone.
HRESULT CopyBoundary(XmlNodeType type, IXmlReader* reader, IXmlWriter* writer) {
    const wchar_t* text = nullptr;
    UINT length = 0;
    if (type != XmlNodeType_Text || FAILED(reader->GetValue(&text, &length)) ||
        length != kBoundaryLength) {
        return CopyAsItIs(type, reader, writer);
    }
    const std::time_t now = std::time(nullptr);
    std::tm day = {};
    localtime_s(&day, &now);
    day.tm_sec = day.tm_min = day.tm_hour = day.tm_isdst = 0;
    const std::time_t next = std::mktime(&day) + kSecondsOfADay;
    localtime_s(&day, &next);
    wchar_t boundary[kBoundaryLength + 1] = {};
    std::wcsftime(boundary, kBoundaryLength + 1, L"%Y-%m-%dT%H:%M:%S", &day);
    return writer->WriteString(boundary);
}

HRESULT CopyNodes(IXmlReader* reader, IXmlWriter* writer, CopyNode copyNode) {
    XmlNodeType type = XmlNodeType_None;
    HRESULT result = S_OK;
    while ((result = reader->Read(&type)) == S_OK) {
        result = copyNode(type, reader, writer);
        if (FAILED(result)) {
            return result;
        }
    }
    return result;
}

// What the rewriters ask of XmlLite, over the shell's own file streams.
HRESULT CopyBare(CopyNode copyNode) {
    IStream* source = nullptr;
    IStream* target = nullptr;
    SHCreateStreamOnFileW(kSource, STGM_READ | STGM_SHARE_DENY_WRITE, &source);
    SHCreateStreamOnFileW(kTarget, STGM_CREATE | STGM_WRITE | STGM_SHARE_DENY_WRITE, &target);
    void* reader = nullptr;
    CreateXmlReader(__uuidof(IXmlReader), &reader, nullptr);
    void* writer = nullptr;
    CreateXmlWriter(__uuidof(IXmlWriter), &writer, nullptr);
    auto* const xmlReader = static_cast<IXmlReader*>(reader);
    auto* const xmlWriter = static_cast<IXmlWriter*>(writer);
    IXmlReaderInput* input = nullptr;
    CreateXmlReaderInputWithEncodingName(source, nullptr, L"utf-16", FALSE, L"c:\\temp", &input);
    IXmlWriterOutput* output = nullptr;
    CreateXmlWriterOutputWithEncodingName(target, nullptr, L"utf-16", &output);
    xmlReader->SetInput(input);
    xmlWriter->SetOutput(output);
    xmlWriter->SetProperty(XmlWriterProperty_Indent, TRUE);

    const HRESULT result = CopyNodes(xmlReader, xmlWriter, copyNode);
    xmlWriter->Flush();
    IUnknown* const objects[] = {source, target, xmlReader, xmlWriter, input, output};
    for (IUnknown* const object : objects) {
        object->Release();
    }
    return result;
}

HRESULT CopyAllAsItIs() {
    return CopyBare(CopyAsItIs);
}

HRESULT CopyWithBoundaries() {
    return CopyBare(CopyBoundary);
}

HRESULT RewriteWorkingDirectory() {
    return halvard::RewriteTaskWorkingDirectory(kSource, kTarget, L"C:\\Program Files\\Zenvo");
}

HRESULT RewriteStartBoundary() {
    return halvard::RewriteTaskStartBoundary(kSource, kTarget);
}

bool Measure(const char* name, HRESULT (*copy)()) {
    const auto start = std::chrono::steady_clock::now();
    bool complete = true;
    for (int number = 0; number < kCopies; ++number) {
        complete &= copy() == S_FALSE;
    }
    const std::chrono::duration<double, std::milli> taken =
        std::chrono::steady_clock::now() - start;
    std::printf("%s %.3f\n", name, taken.count() / kCopies);
    return complete;
}

} // namespace

int main(int count, char** arguments) {
    const long runs = count == 2 ? std::strtol(arguments[1], nullptr, 10) : 0;
    if (runs < 1 || !WriteSource()) {
        std::fputs("usage: rewrite_bench RUNS\n", stderr);
        return 2;
    }
    bool complete = true;
    for (long run = 0; run < runs; ++run) {
        complete &= Measure("bare reader-writer copy", CopyAllAsItIs);
        complete &= Measure("RewriteTaskWorkingDirectory", RewriteWorkingDirectory);
        complete &= Measure("bare reader-writer copy (24 boundaries)", CopyWithBoundaries);
        complete &= Measure("RewriteTaskStartBoundary (24 boundaries)", RewriteStartBoundary);
    }
    DeleteFileW(kSource);
    DeleteFileW(kTarget);
    return complete ? 0 : 1;
}
