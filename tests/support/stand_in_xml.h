#pragma once

#include "import_hook.h"

#include <windows.h>
#include <xmllite.h>

#include <map>
#include <string>
#include <vector>

namespace halvard_tests {

/// A node as the stand-in reader shows it: the markup itself, and its parts.
struct XmlNode {
    XmlNodeType type = XmlNodeType_None;
    std::wstring markup;
    std::wstring name;
    std::wstring value;
    bool empty = false;
};

/// Cuts a document into its nodes. It knows no entities and no namespaces, and checks that elements
/// are closed in order and that nothing is cut short.
class XmlNodes {
public:
    explicit XmlNodes(std::wstring document = {}) : document_(std::move(document)) {}

    /// S_OK and a node, S_FALSE at the end, or the code that XmlLite has for the mistake.
    HRESULT Next(XmlNode& node, bool doctypeAllowed);

private:
    HRESULT Cut(XmlNode& node, const wchar_t* end, std::size_t prefix);
    HRESULT NextTag(XmlNode& node);
    bool IsNext(const wchar_t* text) const;

    std::wstring document_;
    std::size_t position_ = 0;
    std::vector<std::wstring> open_;
    bool hasRoot_ = false;
};

/// A reader and a writer of the tests' own in the place of XmlLite's, for the length of a scope.
///
/// The reader takes the bytes that its input's stream yields for UTF-16 and shows the nodes of that
/// document. The writer keeps what it is told until it is flushed, and not a moment longer than it
/// lives. Both begin anew when they are created again. Neither holds a reference to a stream, so
/// the release of a stream is seen when its file is closed. Every call is a line in Calls(), files
/// that are opened and closed included.
class StandInXml {
public:
    StandInXml() = default;
    StandInXml(const StandInXml&) = delete;
    StandInXml& operator=(const StandInXml&) = delete;

    const std::vector<std::wstring>& Calls() const { return calls_; }

    /// The lines that begin with `start`.
    std::vector<std::wstring> CallsOf(const std::wstring& start) const;

    /// Makes the call number `nth`, counted from 1, of those whose lines begin with `start` do
    /// nothing and return `result`.
    void Fail(const std::wstring& start, HRESULT result, int nth = 1);

    /// What GetValue gives from now on, null included.
    void SetValue(const wchar_t* value);

    /// References to reader, writer, input and output that were handed out and not released.
    ULONG OpenReferences() const;

private:
    struct Failure {
        std::wstring start;
        HRESULT result;
        int left;
    };

    /// What a stand-in has of IUnknown. The objects are members and outlive their last reference.
    template <class Interface>
    class Counted : public Interface {
    public:
        Counted(StandInXml& all, std::wstring name) : all_(all), name_(std::move(name)) {}

        HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
        ULONG STDMETHODCALLTYPE AddRef() override { return ++references; }
        ULONG STDMETHODCALLTYPE Release() override {
            all_.calls_.push_back(name_ + L".Release");
            return --references;
        }

        ULONG references = 0;

    protected:
        HRESULT Call(const std::wstring& call) { return all_.Call(name_ + L"." + call); }
        HRESULT Unexpected() {
            all_.calls_.push_back(name_ + L": a call that the rewriters do not make");
            return E_NOTIMPL;
        }

        StandInXml& all_;

    private:
        std::wstring name_;
    };

    /// Input of the reader or output of the writer.
    class StreamHolder final : public Counted<IUnknown> {
    public:
        using Counted::Counted;
        IUnknown* stream = nullptr;
    };

    class Reader final : public Counted<IXmlReader> {
    public:
        using Counted::Counted;
        const XmlNode& Node() const { return node_; }
        void Restart() {
            started_ = false;
            doctypeAllowed_ = true;
        }

        HRESULT STDMETHODCALLTYPE SetInput(IUnknown* input) override;
        HRESULT STDMETHODCALLTYPE GetProperty(UINT, LONG_PTR*) override { return Unexpected(); }
        HRESULT STDMETHODCALLTYPE SetProperty(UINT property, LONG_PTR value) override;
        HRESULT STDMETHODCALLTYPE Read(XmlNodeType* type) override;
        HRESULT STDMETHODCALLTYPE GetNodeType(XmlNodeType*) override { return Unexpected(); }
        HRESULT STDMETHODCALLTYPE MoveToFirstAttribute() override { return Unexpected(); }
        HRESULT STDMETHODCALLTYPE MoveToNextAttribute() override { return Unexpected(); }
        HRESULT STDMETHODCALLTYPE MoveToAttributeByName(LPCWSTR, LPCWSTR) override {
            return Unexpected();
        }
        HRESULT STDMETHODCALLTYPE MoveToElement() override { return Unexpected(); }
        HRESULT STDMETHODCALLTYPE GetQualifiedName(LPCWSTR* name, UINT* length) override;
        HRESULT STDMETHODCALLTYPE GetNamespaceUri(LPCWSTR*, UINT*) override { return Unexpected(); }
        HRESULT STDMETHODCALLTYPE GetLocalName(LPCWSTR*, UINT*) override { return Unexpected(); }
        HRESULT STDMETHODCALLTYPE GetPrefix(LPCWSTR*, UINT*) override { return Unexpected(); }
        HRESULT STDMETHODCALLTYPE GetValue(LPCWSTR* value, UINT* length) override;
        HRESULT STDMETHODCALLTYPE ReadValueChunk(WCHAR*, UINT, UINT*) override {
            return Unexpected();
        }
        HRESULT STDMETHODCALLTYPE GetBaseUri(LPCWSTR*, UINT*) override { return Unexpected(); }
        BOOL STDMETHODCALLTYPE IsDefault() override { return FALSE; }
        BOOL STDMETHODCALLTYPE IsEmptyElement() override { return node_.empty ? TRUE : FALSE; }
        HRESULT STDMETHODCALLTYPE GetLineNumber(UINT*) override { return Unexpected(); }
        HRESULT STDMETHODCALLTYPE GetLinePosition(UINT*) override { return Unexpected(); }
        HRESULT STDMETHODCALLTYPE GetAttributeCount(UINT*) override { return Unexpected(); }
        HRESULT STDMETHODCALLTYPE GetDepth(UINT*) override { return Unexpected(); }
        BOOL STDMETHODCALLTYPE IsEOF() override { return FALSE; }

    private:
        std::wstring ReadDocument();

        XmlNode node_;
        XmlNodes nodes_;
        bool started_ = false;
        bool doctypeAllowed_ = true;
    };

    class Writer final : public Counted<IXmlWriter> {
    public:
        using Counted::Counted;
        void Restart() {
            waiting_.clear();
            open_.clear();
        }

        HRESULT STDMETHODCALLTYPE SetOutput(IUnknown* output) override;
        HRESULT STDMETHODCALLTYPE GetProperty(UINT, LONG_PTR*) override { return Unexpected(); }
        HRESULT STDMETHODCALLTYPE SetProperty(UINT property, LONG_PTR value) override;
        HRESULT STDMETHODCALLTYPE WriteAttributes(IXmlReader*, BOOL) override {
            return Unexpected();
        }
        HRESULT STDMETHODCALLTYPE WriteAttributeString(LPCWSTR, LPCWSTR, LPCWSTR,
                                                       LPCWSTR) override {
            return Unexpected();
        }
        HRESULT STDMETHODCALLTYPE WriteCData(LPCWSTR) override { return Unexpected(); }
        HRESULT STDMETHODCALLTYPE WriteCharEntity(WCHAR) override { return Unexpected(); }
        HRESULT STDMETHODCALLTYPE WriteChars(const WCHAR*, UINT) override { return Unexpected(); }
        HRESULT STDMETHODCALLTYPE WriteComment(LPCWSTR) override { return Unexpected(); }
        HRESULT STDMETHODCALLTYPE WriteDocType(LPCWSTR, LPCWSTR, LPCWSTR, LPCWSTR) override {
            return Unexpected();
        }
        HRESULT STDMETHODCALLTYPE WriteElementString(LPCWSTR, LPCWSTR, LPCWSTR, LPCWSTR) override {
            return Unexpected();
        }
        HRESULT STDMETHODCALLTYPE WriteEndDocument() override { return Unexpected(); }
        HRESULT STDMETHODCALLTYPE WriteEndElement() override { return Unexpected(); }
        HRESULT STDMETHODCALLTYPE WriteEntityRef(LPCWSTR) override { return Unexpected(); }
        HRESULT STDMETHODCALLTYPE WriteFullEndElement() override;
        HRESULT STDMETHODCALLTYPE WriteName(LPCWSTR) override { return Unexpected(); }
        HRESULT STDMETHODCALLTYPE WriteNmToken(LPCWSTR) override { return Unexpected(); }
        HRESULT STDMETHODCALLTYPE WriteNode(IXmlReader*, BOOL) override { return Unexpected(); }
        HRESULT STDMETHODCALLTYPE WriteNodeShallow(IXmlReader* reader,
                                                   BOOL defaultAttributes) override;
        HRESULT STDMETHODCALLTYPE WriteProcessingInstruction(LPCWSTR, LPCWSTR) override {
            return Unexpected();
        }
        HRESULT STDMETHODCALLTYPE WriteQualifiedName(LPCWSTR, LPCWSTR) override {
            return Unexpected();
        }
        HRESULT STDMETHODCALLTYPE WriteRaw(LPCWSTR) override { return Unexpected(); }
        HRESULT STDMETHODCALLTYPE WriteRawChars(const WCHAR*, UINT) override {
            return Unexpected();
        }
        HRESULT STDMETHODCALLTYPE WriteStartDocument(XmlStandalone) override {
            return Unexpected();
        }
        HRESULT STDMETHODCALLTYPE WriteStartElement(LPCWSTR, LPCWSTR, LPCWSTR) override {
            return Unexpected();
        }
        HRESULT STDMETHODCALLTYPE WriteString(LPCWSTR text) override;
        HRESULT STDMETHODCALLTYPE WriteSurrogateCharEntity(WCHAR, WCHAR) override {
            return Unexpected();
        }
        HRESULT STDMETHODCALLTYPE WriteWhitespace(LPCWSTR) override { return Unexpected(); }
        HRESULT STDMETHODCALLTYPE Flush() override;

    private:
        std::wstring waiting_;
        std::vector<std::wstring> open_;
    };

    HRESULT Call(const std::wstring& line);

    std::vector<std::wstring> calls_;
    std::vector<Failure> failures_;
    std::map<HANDLE, std::wstring> files_;
    bool hasValue_ = false;
    const wchar_t* value_ = nullptr;

    Reader reader_{*this, L"reader"};
    Writer writer_{*this, L"writer"};
    StreamHolder input_{*this, L"input"};
    StreamHolder output_{*this, L"output"};

    HOOK(creatingFile_, CreateFileW,
         [this](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                DWORD disposition, DWORD flags, HANDLE like) {
             wchar_t numbers[64] = {};
             wsprintfW(numbers, L" %x %x %x %x", access, share, disposition, flags);
             calls_.push_back(std::wstring(L"CreateFileW ") + path + numbers);
             const HANDLE file =
                 creatingFile_.Original(path, access, share, security, disposition, flags, like);
             if (file != INVALID_HANDLE_VALUE) {
                 files_[file] = path;
             }
             return file;
         });
    HOOK(closing_, CloseHandle, [this](HANDLE handle) {
        const auto file = files_.find(handle);
        if (file != files_.end()) {
            calls_.push_back(L"CloseHandle " + file->second);
            files_.erase(file);
        }
        return closing_.Original(handle);
    });
    HOOK(creatingReader_, CreateXmlReader,
         [this](REFIID interfaceId, void** reader, IMalloc* memory) {
             const HRESULT result = Call(L"CreateXmlReader");
             if (result == S_OK && interfaceId == __uuidof(IXmlReader) && memory == nullptr) {
                 reader_.Restart();
                 reader_.AddRef();
                 *reader = static_cast<IXmlReader*>(&reader_);
             }
             return result;
         });
    HOOK(creatingInput_, CreateXmlReaderInputWithEncodingName,
         [this](IUnknown* stream, IMalloc* memory, LPCWSTR encoding, BOOL hint, LPCWSTR baseUri,
                IUnknown** input) {
             const HRESULT result = Call(std::wstring(L"CreateXmlReaderInputWithEncodingName ") +
                                         encoding + (hint != FALSE ? L" 1 " : L" 0 ") + baseUri);
             if (result == S_OK && memory == nullptr) {
                 input_.stream = stream;
                 input_.AddRef();
                 *input = &input_;
             }
             return result;
         });
    HOOK(creatingWriter_, CreateXmlWriter,
         [this](REFIID interfaceId, void** writer, IMalloc* memory) {
             const HRESULT result = Call(L"CreateXmlWriter");
             if (result == S_OK && interfaceId == __uuidof(IXmlWriter) && memory == nullptr) {
                 writer_.Restart();
                 writer_.AddRef();
                 *writer = static_cast<IXmlWriter*>(&writer_);
             }
             return result;
         });
    HOOK(creatingOutput_, CreateXmlWriterOutputWithEncodingName,
         [this](IUnknown* stream, IMalloc* memory, LPCWSTR encoding, IUnknown** output) {
             const HRESULT result =
                 Call(std::wstring(L"CreateXmlWriterOutputWithEncodingName ") + encoding);
             if (result == S_OK && memory == nullptr) {
                 output_.stream = stream;
                 output_.AddRef();
                 *output = &output_;
             }
             return result;
         });
};

} // namespace halvard_tests
