#include "stand_in_xml.h"

#include "begins.h"

#include <algorithm>
#include <cstring>

namespace halvard_tests {

namespace {

// Codes of XmlLite, as results.
constexpr auto kInputEnd = static_cast<HRESULT>(MX_E_INPUTEND);
constexpr auto kSyntax = static_cast<HRESULT>(WC_E_SYNTAX);
constexpr auto kName = static_cast<HRESULT>(WC_E_NAME);
constexpr auto kElementMatch = static_cast<HRESULT>(WC_E_ELEMENTMATCH);
constexpr auto kDtdProhibited = static_cast<HRESULT>(WC_E_DTDPROHIBITED);

constexpr wchar_t kByteOrderMark = L'\xFEFF';
constexpr wchar_t kBlanks[] = L" \t\r\n";

std::wstring Escaped(const std::wstring& text) {
    std::wstring escaped;
    for (const wchar_t character : text) {
        switch (character) {
        case L'&':
            escaped += L"&amp;";
            break;
        case L'<':
            escaped += L"&lt;";
            break;
        default:
            escaped += character;
        }
    }
    return escaped;
}

ISequentialStream* SequentialStream(IUnknown* object) {
    void* stream = nullptr;
    if (FAILED(object->QueryInterface(__uuidof(ISequentialStream), &stream))) {
        throw std::logic_error("not a stream");
    }
    return static_cast<ISequentialStream*>(stream);
}

} // namespace

bool XmlNodes::IsNext(const wchar_t* text) const {
    return document_.compare(position_, std::wcslen(text), text) == 0;
}

HRESULT XmlNodes::Cut(XmlNode& node, const wchar_t* end, std::size_t prefix) {
    const std::size_t found = document_.find(end, position_ + prefix);
    if (found == std::wstring::npos) {
        return kInputEnd;
    }
    const std::size_t next = found + std::wcslen(end);
    node.markup = document_.substr(position_, next - position_);
    node.value = document_.substr(position_ + prefix, found - position_ - prefix);
    position_ = next;
    return S_OK;
}

HRESULT XmlNodes::Next(XmlNode& node, bool doctypeAllowed) {
    node = {};
    if (position_ == document_.size()) {
        return hasRoot_ && open_.empty() ? S_FALSE : kInputEnd;
    }
    if (document_[position_] != L'<') {
        const std::size_t end = std::min(document_.find(L'<', position_), document_.size());
        node.markup = document_.substr(position_, end - position_);
        node.value = node.markup;
        position_ = end;
        const bool blank = node.value.find_first_not_of(kBlanks) == std::wstring::npos;
        node.type = blank ? XmlNodeType_Whitespace : XmlNodeType_Text;
        return blank || !open_.empty() ? S_OK : kSyntax;
    }
    if (IsNext(L"<!--")) {
        node.type = XmlNodeType_Comment;
        return Cut(node, L"-->", 4);
    }
    if (IsNext(L"<![CDATA[")) {
        node.type = XmlNodeType_CDATA;
        return Cut(node, L"]]>", 9);
    }
    if (IsNext(L"<!DOCTYPE")) {
        node.type = XmlNodeType_DocumentType;
        return doctypeAllowed ? Cut(node, L">", 9) : kDtdProhibited;
    }
    if (IsNext(L"<?")) {
        node.type =
            IsNext(L"<?xml ") ? XmlNodeType_XmlDeclaration : XmlNodeType_ProcessingInstruction;
        return Cut(node, L"?>", 2);
    }
    return NextTag(node);
}

HRESULT XmlNodes::NextTag(XmlNode& node) {
    const bool ends = IsNext(L"</");
    const HRESULT result = Cut(node, L">", ends ? 2 : 1);
    if (result != S_OK) {
        return result;
    }
    node.name = node.value.substr(0, node.value.find_first_of(L" \t\r\n/"));
    node.value.clear();
    if (node.name.empty()) {
        return kName;
    }
    if (ends) {
        node.type = XmlNodeType_EndElement;
        if (open_.empty() || open_.back() != node.name) {
            return kElementMatch;
        }
        open_.pop_back();
        return S_OK;
    }
    node.type = XmlNodeType_Element;
    node.empty = node.markup[node.markup.size() - 2] == L'/';
    hasRoot_ = true;
    if (!node.empty) {
        open_.push_back(node.name);
    }
    return S_OK;
}

std::vector<std::wstring> StandInXml::CallsOf(const std::wstring& start) const {
    std::vector<std::wstring> found;
    for (const std::wstring& line : calls_) {
        if (Begins(line, start)) {
            found.push_back(line);
        }
    }
    return found;
}

void StandInXml::Fail(const std::wstring& start, HRESULT result, int nth) {
    failures_.push_back({start, result, nth});
}

void StandInXml::SetValue(const wchar_t* value) {
    hasValue_ = true;
    value_ = value;
}

ULONG StandInXml::OpenReferences() const {
    return reader_.references + writer_.references + input_.references + output_.references;
}

HRESULT StandInXml::Call(const std::wstring& line) {
    calls_.push_back(line);
    for (Failure& failure : failures_) {
        if (Begins(line, failure.start) && --failure.left == 0) {
            return failure.result;
        }
    }
    return S_OK;
}

HRESULT StandInXml::Reader::SetInput(IUnknown* input) {
    return Call(input == &all_.input_ ? L"SetInput" : L"SetInput of something else");
}

HRESULT StandInXml::Reader::SetProperty(UINT property, LONG_PTR value) {
    const HRESULT result =
        Call(L"SetProperty " + std::to_wstring(property) + L" " + std::to_wstring(value));
    if (result == S_OK && property == XmlReaderProperty_DtdProcessing) {
        doctypeAllowed_ = value != DtdProcessing_Prohibit;
    }
    return result;
}

std::wstring StandInXml::Reader::ReadDocument() {
    ISequentialStream* const stream = SequentialStream(all_.input_.stream);
    std::string bytes;
    char chunk[1000] = {};
    ULONG read = 0;
    while (stream->Read(chunk, sizeof(chunk), &read) == S_OK && read > 0) {
        bytes.append(chunk, read);
    }
    stream->Release();

    std::wstring document(bytes.size() / sizeof(wchar_t), L'\0');
    std::memcpy(document.data(), bytes.data(), document.size() * sizeof(wchar_t));
    return !document.empty() && document[0] == kByteOrderMark ? document.substr(1) : document;
}

HRESULT StandInXml::Reader::Read(XmlNodeType* type) {
    const HRESULT result = Call(L"Read");
    if (result != S_OK) {
        return result;
    }
    if (!started_) {
        started_ = true;
        nodes_ = XmlNodes(ReadDocument());
    }
    const HRESULT next = nodes_.Next(node_, doctypeAllowed_);
    *type = next == S_OK ? node_.type : XmlNodeType_None;
    return next;
}

HRESULT StandInXml::Reader::GetQualifiedName(LPCWSTR* name, UINT* length) {
    const HRESULT result = Call(L"GetQualifiedName");
    if (result == S_OK) {
        *name = node_.name.c_str();
        if (length != nullptr) {
            *length = static_cast<UINT>(node_.name.size());
        }
    }
    return result;
}

HRESULT StandInXml::Reader::GetValue(LPCWSTR* value, UINT* length) {
    const HRESULT result = Call(L"GetValue");
    if (result == S_OK) {
        *value = all_.hasValue_ ? all_.value_ : node_.value.c_str();
        if (length != nullptr) {
            *length = *value == nullptr ? 0 : static_cast<UINT>(std::wcslen(*value));
        }
    }
    return result;
}

HRESULT StandInXml::Writer::SetOutput(IUnknown* output) {
    return Call(output == &all_.output_ ? L"SetOutput" : L"SetOutput of something else");
}

HRESULT StandInXml::Writer::SetProperty(UINT property, LONG_PTR value) {
    return Call(L"SetProperty " + std::to_wstring(property) + L" " + std::to_wstring(value));
}

HRESULT StandInXml::Writer::WriteNodeShallow(IXmlReader* reader, BOOL defaultAttributes) {
    const XmlNode& node = all_.reader_.Node();
    const HRESULT result =
        Call((defaultAttributes == FALSE ? L"WriteNodeShallow 0 " : L"WriteNodeShallow 1 ") +
             node.markup);
    if (result != S_OK || reader != &all_.reader_) {
        return result;
    }
    waiting_ += node.markup;
    if (node.type == XmlNodeType_Element && !node.empty) {
        open_.push_back(node.name);
    }
    return S_OK;
}

HRESULT StandInXml::Writer::WriteString(LPCWSTR text) {
    const HRESULT result = Call(std::wstring(L"WriteString ") + text);
    if (result == S_OK) {
        waiting_ += Escaped(text);
    }
    return result;
}

HRESULT StandInXml::Writer::WriteFullEndElement() {
    const HRESULT result = Call(L"WriteFullEndElement");
    if (result == S_OK && !open_.empty()) {
        waiting_ += L"</" + open_.back() + L">";
        open_.pop_back();
    }
    return result;
}

HRESULT StandInXml::Writer::Flush() {
    const HRESULT result = Call(L"Flush");
    if (result == S_OK) {
        ISequentialStream* const stream = SequentialStream(all_.output_.stream);
        ULONG written = 0;
        stream->Write(waiting_.data(), static_cast<ULONG>(waiting_.size() * sizeof(wchar_t)),
                      &written);
        stream->Release();
        waiting_.clear();
    }
    return result;
}

} // namespace halvard_tests
