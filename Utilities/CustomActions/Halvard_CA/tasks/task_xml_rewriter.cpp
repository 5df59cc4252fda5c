#include "tasks/task_xml_rewriter.h"

#include "runtime/owned.h"
#include "tasks/file_stream.h"
#include "tasks/start_boundary.h"

#include <xmllite.h>

#include <cstdio>
#include <ctime>
#include <cwchar>
#include <functional>
#include <utility>

namespace halvard {

namespace {

/// Gives the text that takes the place of the text node at which the reader stands.
using NewText = std::function<HRESULT(IXmlReader& reader, std::wstring& text)>;

void Report(const wchar_t* message, HRESULT result) {
    static_cast<void>(std::wprintf(message, static_cast<unsigned long>(result)));
    static_cast<void>(std::fflush(stdout));
}

// Null when the file cannot be opened, with the reason in the last error.
OwnedInterface<FileStream> OpenStream(const std::wstring& path, DWORD access, DWORD disposition) {
    OwnedHandle file(CreateFileW(path.c_str(), access, FILE_SHARE_READ, nullptr, disposition,
                                 FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) {
        return {};
    }
    OwnedInterface<FileStream> stream(new FileStream(file.get()));
    static_cast<void>(file.release());
    return stream;
}

/// One copy of a document: set up, run, and taken down in the one order that is allowed. Each step
/// leaves its result behind and tells whether the copy goes on.
class XmlCopy {
public:
    XmlCopy(const wchar_t* element, NewText newText)
        : element_(element), newText_(std::move(newText)) {}
    XmlCopy(const XmlCopy&) = delete;
    XmlCopy& operator=(const XmlCopy&) = delete;
    ~XmlCopy() {
        // What the writer still holds has to be in the file when the copy is over.
        if (hasOutput_) {
            writer_->Flush();
        }
    }

    HRESULT Run(const std::wstring& sourcePath, const std::wstring& targetPath);

private:
    bool GoesOnAfter(HRESULT result, const wchar_t* message);

    bool OpenFile(OwnedInterface<FileStream>& stream, const std::wstring& path, DWORD access,
                  DWORD disposition, const wchar_t* message);
    bool CreateReader();
    bool CreateWriter();
    bool Connect();

    bool ReadNode(XmlNodeType& type);
    bool CopyNode(XmlNodeType type);
    bool CopyAsItIs();
    bool CopyStartTag();
    bool CopyText();
    bool CopyEndTag();
    bool GetName(const wchar_t*& name);

    // Released from the last to the first.
    OwnedInterface<IXmlWriterOutput> output_;
    OwnedInterface<IXmlReaderInput> input_;
    OwnedInterface<IXmlWriter> writer_;
    OwnedInterface<IXmlReader> reader_;
    OwnedInterface<FileStream> target_;
    OwnedInterface<FileStream> source_;

    const wchar_t* element_;
    NewText newText_;
    HRESULT result_ = S_OK;
    bool hasOutput_ = false;
    bool replacesNextText_ = false;
};

HRESULT XmlCopy::Run(const std::wstring& sourcePath, const std::wstring& targetPath) {
    if (!OpenFile(source_, sourcePath, GENERIC_READ, OPEN_EXISTING,
                  L"Error creating file reader, error is %08.8lx") ||
        !OpenFile(target_, targetPath, GENERIC_WRITE, CREATE_ALWAYS,
                  L"Error creating file writer, error is %08.8lx") ||
        !CreateReader() || !CreateWriter() || !Connect()) {
        return result_;
    }
    XmlNodeType type = XmlNodeType_None;
    while (ReadNode(type) && CopyNode(type)) {
    }
    return result_;
}

bool XmlCopy::GoesOnAfter(HRESULT result, const wchar_t* message) {
    result_ = result;
    if (FAILED(result)) {
        Report(message, result);
    }
    return SUCCEEDED(result);
}

bool XmlCopy::OpenFile(OwnedInterface<FileStream>& stream, const std::wstring& path, DWORD access,
                       DWORD disposition, const wchar_t* message) {
    stream = OpenStream(path, access, disposition);
    if (!stream) {
        // Not through GoesOnAfter: a refusal without an error code would pass for a success.
        result_ = LastErrorResult();
        Report(message, result_);
    }
    return static_cast<bool>(stream);
}

bool XmlCopy::CreateReader() {
    void* reader = nullptr;
    if (!GoesOnAfter(CreateXmlReader(__uuidof(IXmlReader), &reader, nullptr),
                     L"Error creating xml reader, error is %08.8lx")) {
        return false;
    }
    reader_.reset(static_cast<IXmlReader*>(reader));
    reader_->SetProperty(XmlReaderProperty_DtdProcessing, DtdProcessing_Prohibit);

    IXmlReaderInput* input = nullptr;
    if (!GoesOnAfter(CreateXmlReaderInputWithEncodingName(source_.get(), nullptr, L"utf-16", FALSE,
                                                          L"c:\\temp", &input),
                     L"Error creating xml reader with encoding code page, error is %08.8lx")) {
        return false;
    }
    input_.reset(input);
    return true;
}

bool XmlCopy::CreateWriter() {
    void* writer = nullptr;
    if (!GoesOnAfter(CreateXmlWriter(__uuidof(IXmlWriter), &writer, nullptr),
                     L"Error creating xml writer, error is %08.8lx")) {
        return false;
    }
    writer_.reset(static_cast<IXmlWriter*>(writer));

    // The reader's words on failure: the writer has none of its own here.
    IXmlWriterOutput* output = nullptr;
    if (!GoesOnAfter(
            CreateXmlWriterOutputWithEncodingName(target_.get(), nullptr, L"utf-16", &output),
            L"Error creating xml reader with encoding code page, error is %08.8lx")) {
        return false;
    }
    output_.reset(output);
    return true;
}

bool XmlCopy::Connect() {
    if (!GoesOnAfter(reader_->SetInput(input_.get()),
                     L"Error setting input for reader, error is %08.8lx")) {
        return false;
    }
    hasOutput_ = GoesOnAfter(writer_->SetOutput(output_.get()),
                             L"Error setting output for writer, error is %08.8lx");
    return hasOutput_ && GoesOnAfter(writer_->SetProperty(XmlWriterProperty_Indent, TRUE),
                                     L"Error setting indent property in writer, error is %08.8lx");
}

bool XmlCopy::ReadNode(XmlNodeType& type) {
    result_ = reader_->Read(&type);
    return result_ == S_OK;
}

bool XmlCopy::CopyNode(XmlNodeType type) {
    switch (type) {
    case XmlNodeType_Element:
        return CopyStartTag();
    case XmlNodeType_Text:
        return CopyText();
    case XmlNodeType_EndElement:
        return CopyEndTag();
    default:
        return CopyAsItIs();
    }
}

bool XmlCopy::CopyAsItIs() {
    return GoesOnAfter(writer_->WriteNodeShallow(reader_.get(), FALSE),
                       L"Error writing WriteNodeShallow, error is %08.8lx");
}

bool XmlCopy::CopyStartTag() {
    if (reader_->IsEmptyElement() == FALSE) {
        const wchar_t* name = nullptr;
        if (!GetName(name)) {
            return false;
        }
        replacesNextText_ = std::wcscmp(name, element_) == 0;
    }
    return CopyAsItIs();
}

bool XmlCopy::CopyText() {
    if (!replacesNextText_) {
        return CopyAsItIs();
    }
    std::wstring text;
    result_ = newText_(*reader_.get(), text);
    if (FAILED(result_)) {
        return false;
    }
    replacesNextText_ = false;
    return GoesOnAfter(writer_->WriteString(text.c_str()),
                       L"Error writing WriteString, error is %08.8lx");
}

bool XmlCopy::CopyEndTag() {
    const wchar_t* name = nullptr;
    if (!GetName(name)) {
        return false;
    }
    if (std::wcscmp(name, element_) == 0) {
        replacesNextText_ = false;
    }
    return GoesOnAfter(writer_->WriteFullEndElement(),
                       L"Error writing WriteFullEndElement, error is %08.8lx");
}

bool XmlCopy::GetName(const wchar_t*& name) {
    return GoesOnAfter(reader_->GetQualifiedName(&name, nullptr),
                       L"Error reading element name, error is %08.8lx");
}

HRESULT NextStartBoundary(IXmlReader& reader, std::wstring& text) {
    const wchar_t* value = nullptr;
    const HRESULT result = reader.GetValue(&value, nullptr);
    if (FAILED(result)) {
        Report(L"Error reading value, error is %08.8lx", result);
        return result;
    }
    if (value == nullptr || *value == L'\0') {
        return E_UNEXPECTED;
    }
    text = NextMidnightText(std::time(nullptr));
    return S_OK;
}

} // namespace

// NOLINTNEXTLINE(performance-unnecessary-value-param)
HRESULT RewriteTaskWorkingDirectory(std::wstring sourcePath, std::wstring targetPath,
                                    std::wstring newText) {
    XmlCopy copy(L"WorkingDirectory", [&newText](IXmlReader& /*reader*/, std::wstring& text) {
        text = newText;
        return S_OK;
    });
    return copy.Run(sourcePath, targetPath);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param)
HRESULT RewriteTaskStartBoundary(std::wstring sourcePath, std::wstring targetPath) {
    XmlCopy copy(L"StartBoundary", NextStartBoundary);
    return copy.Run(sourcePath, targetPath);
}

} // namespace halvard
