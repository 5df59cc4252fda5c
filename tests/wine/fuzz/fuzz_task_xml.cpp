// The rewriters of task definitions over documents that are changed node by node, with a reader and
// a writer of the tests' own, compared with what the tree of the document gives.

#include "byte_source.h"
#include "fuzz_input.h"

#include "rewritten_files.h"
#include "stand_in_xml.h"
#include "tasks/task_xml_rewriter.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <memory>

namespace {

using halvard_tests::ByteSource;
using halvard_tests::kSource;
using halvard_tests::kTarget;
using halvard_tests::Require;
using halvard_tests::StandInXml;
using halvard_tests::Texts;

// 2024-03-14T13:00:00Z, and the midnight behind it.
constexpr std::time_t kNow = 1710374400 + 13 * 3600;
constexpr wchar_t kMidnight[] = L"2024-03-15T00:00:00";

enum class Kind { Element, EmptyElement, Text, Other };

struct Node {
    Kind kind = Kind::Element;
    // The name of an element with what follows it in the tag, or the markup of anything else.
    std::wstring text;
    std::vector<Node> children;
};

Node Element(const std::wstring& tag, std::vector<Node> children = {}) {
    return {Kind::Element, tag, std::move(children)};
}

Node Text(const std::wstring& text) {
    return {Kind::Text, text, {}};
}

// A definition as it ships, without what says nothing here.
Node Shipped() {
    return Element(
        L"Task version=\"1.2\"",
        {Element(L"Triggers", {Element(L"TimeTrigger",
                                       {Element(L"StartBoundary", {Text(L"2019-01-01T00:00:00")}),
                                        Element(L"Enabled", {Text(L"true")})})}),
         Text(L"\r\n  "),
         Element(L"Actions Context=\"Author\"",
                 {Element(L"Exec", {Element(L"Command", {Text(L"pvcmd.exe")}),
                                    Element(L"WorkingDirectory", {Text(L"C:\\Old")})})})});
}

const std::wstring& SomeTag(ByteSource& source) {
    static const Texts tags = {
        L"WorkingDirectory", L"StartBoundary",      L"WorkingDirectory a=\"b\"",
        L"workingdirectory", L"t:WorkingDirectory", L"Exec",
        L"StartBoundaryX",   L"WorkingDirector",    L"StartBoundary\r\nb=''",
    };
    return tags[source.Below(tags.size())];
}

Node NewNode(ByteSource& source) {
    static const Texts texts = {L"x", L" ", L"\r\n\t", L" C:\\a b ", L"&amp;", L"\x6F22", L"]]>"};
    static const Texts others = {L"<!--c-->", L"<!-- > -->", L"<![CDATA[<d>]]>",
                                 L"<?e f?>",  L"<?g?>",      L"<![CDATA[ ]]>"};
    switch (source.Below(4)) {
    case 0:
        return Text(texts[source.Below(texts.size())]);
    case 1:
        return {Kind::Other, others[source.Below(others.size())], {}};
    case 2:
        return {Kind::EmptyElement, SomeTag(source), {}};
    default:
        return Element(SomeTag(source));
    }
}

// Goes down from the root by chance, to an element.
Node& SomeElement(ByteSource& source, Node& root) {
    Node* at = &root;
    while (source.Below(4) != 0 && !at->children.empty()) {
        Node& child = at->children[source.Below(at->children.size())];
        if (child.kind != Kind::Element) {
            break;
        }
        at = &child;
    }
    return *at;
}

std::size_t SizeOf(const Node& node) {
    std::size_t size = 1;
    for (const Node& child : node.children) {
        size += SizeOf(child);
    }
    return size;
}

// Puts a node in, takes one out, doubles or moves one with all below it, or puts one round others.
void Change(ByteSource& source, Node& root) {
    Node& element = SomeElement(source, root);
    std::vector<Node>& children = element.children;
    const auto place = [&] {
        return children.begin() + static_cast<std::ptrdiff_t>(source.Below(children.size() + 1));
    };
    const std::size_t way = source.Below(6);
    if (way < 2 || children.empty()) {
        const auto at = place();
        children.insert(at, NewNode(source));
        return;
    }
    const std::size_t chosen = source.Below(children.size());
    if (way == 2) {
        children.erase(children.begin() + static_cast<std::ptrdiff_t>(chosen));
    } else if (way == 3 && SizeOf(root) < 200) {
        const Node copy = children[chosen];
        children.insert(place(), copy);
    } else if (way == 4) {
        std::swap(children[chosen], children[source.Below(children.size())]);
    } else {
        Node around = Element(SomeTag(source));
        around.children.push_back(children[chosen]);
        children[chosen] = around;
    }
}

bool IsBlank(const std::wstring& text) {
    return text.find_first_not_of(L" \t\r\n") == std::wstring::npos;
}

std::wstring NameOf(const std::wstring& tag) {
    return tag.substr(0, tag.find_first_of(L" \t\r\n"));
}

// What a parser sees as one text is one.
void JoinTexts(Node& node) {
    std::vector<Node> joined;
    for (Node& child : node.children) {
        JoinTexts(child);
        if (child.kind == Kind::Text && !joined.empty() && joined.back().kind == Kind::Text) {
            joined.back().text += child.text;
        } else {
            joined.push_back(std::move(child));
        }
    }
    node.children = std::move(joined);
}

/// One node of the document as a parser comes upon it, and what a rewriter makes of it.
struct Step {
    std::wstring source;
    std::wstring target;
    bool isText;
    bool endsElement;
};

// A function of the oracle's own: that of the writer, which it judges, is another one.
std::wstring Escaped(const std::wstring& text) {
    std::wstring escaped;
    for (const wchar_t character : text) {
        escaped += character == L'&'   ? std::wstring(L"&amp;")
                   : character == L'<' ? std::wstring(L"&lt;")
                                       : std::wstring(1, character);
    }
    return escaped;
}

// The text of an element of the name that gives way: the first that is not blank, unless an element
// with content stands before it.
const Node* Replaced(const Node& element, const std::wstring& name) {
    if (NameOf(element.text) != name) {
        return nullptr;
    }
    for (const Node& child : element.children) {
        if (child.kind == Kind::Element) {
            return nullptr;
        }
        if (child.kind == Kind::Text && !IsBlank(child.text)) {
            return &child;
        }
    }
    return nullptr;
}

void AppendSteps(const Node& element, const std::wstring& name, const std::wstring& newText,
                 std::vector<Step>& steps) {
    const std::wstring start = L"<" + element.text + L">";
    steps.push_back({start, start, false, false});
    const Node* const replaced = Replaced(element, name);
    for (const Node& child : element.children) {
        if (child.kind == Kind::Element) {
            AppendSteps(child, name, newText, steps);
            continue;
        }
        const std::wstring markup =
            child.kind == Kind::EmptyElement ? L"<" + child.text + L"/>" : child.text;
        steps.push_back({markup, &child == replaced ? Escaped(newText) : markup,
                         child.kind == Kind::Text, false});
    }
    const std::wstring end = L"</" + NameOf(element.text) + L">";
    steps.push_back({end, end, false, true});
}

/// A document as it is stored, what is expected of its rewriting, and the result.
struct Expectation {
    std::wstring source;
    std::wstring target;
    HRESULT result = S_FALSE;
};

std::wstring Joined(const std::vector<Step>& steps, std::size_t count, std::wstring Step::*part) {
    std::wstring text;
    for (std::size_t index = 0; index < count; ++index) {
        text += steps[index].*part;
    }
    return text;
}

// Mostly the document as it is, else with one fault; what stands before it is rewritten.
Expectation WithAFault(ByteSource& source, std::vector<Step> steps) {
    const std::size_t fault = source.Below(8);
    const std::size_t index = source.Below(256) * steps.size() / 256;
    Expectation expected;
    if (fault == 0 && !steps[index].isText) {
        // Cut short within a tag or another markup.
        const std::wstring& markup = steps[index].source;
        expected.source = Joined(steps, index, &Step::source) +
                          markup.substr(0, 1 + source.Below(markup.size() - 1));
        expected.result = static_cast<HRESULT>(MX_E_INPUTEND);
    } else if (fault == 1 && steps[index].endsElement) {
        // An end tag of another name.
        steps[index].source = L"</Wrong>";
        expected.source = Joined(steps, steps.size(), &Step::source);
        expected.result = static_cast<HRESULT>(WC_E_ELEMENTMATCH);
    } else if (fault == 2) {
        // A document type, wherever.
        steps[index].source = L"<!DOCTYPE Task>" + steps[index].source;
        expected.source = Joined(steps, steps.size(), &Step::source);
        expected.result = static_cast<HRESULT>(WC_E_DTDPROHIBITED);
    } else {
        expected.source = Joined(steps, steps.size(), &Step::source);
        expected.target = Joined(steps, steps.size(), &Step::target);
        return expected;
    }
    expected.target = Joined(steps, index, &Step::target);
    return expected;
}

/// What stands in the place of the system's parts: reader and writer, and a clock that stands still
/// and tells universal time.
struct StandIns {
    StandIns() {
        _putenv_s("TZ", "UTC0");
        _tzset();
    }

    StandInXml xml;
    HOOK(reading, _time64, [](__time64_t*) { return kNow; });
};

// Made anew now and then only, which takes longer than a document, for they keep what was called.
StandIns& ReadyStandIns() {
    static std::unique_ptr<StandIns> standIns;
    static int uses = 0;
    if (uses++ % 64 == 0) {
        standIns.reset();
        standIns = std::make_unique<StandIns>();
    }
    return *standIns;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const Texts newTexts = {L"C:\\Program Files\\Zenvo", L"", L"a & <b>", L"\x6F22"};
    ByteSource source(bytes, size);
    const bool isBoundary = source.Below(2) == 1;
    const std::wstring newText = isBoundary ? kMidnight : newTexts[source.Below(newTexts.size())];
    Node root = Shipped();
    while (!source.IsEmpty()) {
        Change(source, root);
    }
    JoinTexts(root);
    std::vector<Step> steps;
    AppendSteps(root, isBoundary ? L"StartBoundary" : L"WorkingDirectory", newText, steps);
    // The last bytes decided on nodes too: a fault is as likely at any of them.
    ByteSource ends(bytes + size - std::min<std::size_t>(size, 3), std::min<std::size_t>(size, 3));
    const Expectation expected = WithAFault(ends, steps);

    halvard_tests::WriteSource(expected.source);
    const StandIns& standIns = ReadyStandIns();
    const HRESULT result = isBoundary
                               ? halvard::RewriteTaskStartBoundary(kSource, kTarget)
                               : halvard::RewriteTaskWorkingDirectory(kSource, kTarget, newText);
    Require(result == expected.result);
    Require(standIns.xml.OpenReferences() == 0);
    Require(halvard_tests::ReadTarget() == expected.target);
    return 0;
}
