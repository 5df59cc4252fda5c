#include "tasks/task_xml_rewriter.h"

#include "allocation_failure.h"
#include "import_hook.h"
#include "open_handles.h"
#include "rewritten_files.h"
#include "stand_in_xml.h"
#include "standard_output.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <new>

using halvard::RewriteTaskStartBoundary;
using halvard::RewriteTaskWorkingDirectory;
using halvard_tests::AllocationFailure;
using halvard_tests::kSource;
using halvard_tests::kTarget;
using halvard_tests::OpenHandleCount;
using halvard_tests::StandardOutputOf;
using halvard_tests::StandInXml;
using halvard_tests::WriteBytes;
using halvard_tests::WriteSource;
using Lines = std::vector<std::wstring>;

namespace {

constexpr wchar_t kFolder[] = L"C:\\Program Files\\Zenvo";

// 2024-03-14T13:00:00Z.
constexpr std::time_t kAWinterDay = 1710374400 + 13 * 3600;

HRESULT Result(unsigned long code) {
    return static_cast<HRESULT>(code);
}

// The target without its byte-order mark, or "(no file)".
std::wstring Target() {
    const std::wstring text = halvard_tests::ReadTarget().value_or(L"(no file)");
    return !text.empty() && text[0] == L'\xFEFF' ? text.substr(1) : text;
}

struct Outcome {
    HRESULT result = 0;
    std::string output;
};

Outcome RewriteFolder(const std::wstring& newText = kFolder) {
    Outcome outcome;
    outcome.output = StandardOutputOf(
        [&] { outcome.result = RewriteTaskWorkingDirectory(kSource, kTarget, newText); });
    return outcome;
}

Outcome RewriteBoundary() {
    Outcome outcome;
    outcome.output =
        StandardOutputOf([&] { outcome.result = RewriteTaskStartBoundary(kSource, kTarget); });
    return outcome;
}

// What a message looks like on standard output.
std::string Message(const char* what, unsigned long code) {
    char digits[16] = {};
    std::snprintf(digits, sizeof(digits), "%08lx", code);
    return std::string("Error ") + what + ", error is " + digits;
}

class RewriterTest : public testing::Test {
protected:
    RewriterTest() { RemoveFiles(); }
    ~RewriterTest() override { RemoveFiles(); }

private:
    static void RemoveFiles() {
        DeleteFileW(kSource);
        DeleteFileW(kTarget);
        RemoveDirectoryW(kSource);
        RemoveDirectoryW(kTarget);
    }
};

/// With the reader and the writer of the tests' own.
class StandInRewriterTest : public RewriterTest {
protected:
    // The document that a rewriting of `document` gives; a complete copy is expected.
    std::wstring WithFolder(const std::wstring& document) {
        WriteSource(document);
        const Outcome outcome = RewriteFolder();
        EXPECT_EQ(outcome.result, S_FALSE);
        EXPECT_EQ(outcome.output, "");
        EXPECT_EQ(xml.OpenReferences(), 0U);
        return Target();
    }

    std::wstring WithBoundary(const std::wstring& document) {
        WriteSource(document);
        const Outcome outcome = RewriteBoundary();
        EXPECT_EQ(outcome.result, S_FALSE);
        EXPECT_EQ(outcome.output, "");
        EXPECT_EQ(xml.OpenReferences(), 0U);
        return Target();
    }

    StandInXml xml;
};

/// With XmlLite itself, which here takes compact documents only.
class XmlLiteRewriterTest : public RewriterTest {};

/// The clock stands still for the length of a scope, and tells universal time.
class StillClock {
public:
    explicit StillClock(std::time_t now) : now_(now) {
        _putenv_s("TZ", "UTC0");
        _tzset();
    }
    StillClock(const StillClock&) = delete;
    StillClock& operator=(const StillClock&) = delete;

    int Calls() const { return reading_.Calls(); }
    // How much later it is at each look.
    void Advance(std::time_t seconds) { step_ = seconds; }

private:
    std::time_t now_;
    std::time_t step_ = 0;

    HOOK(reading_, _time64, [this](__time64_t*) {
        const std::time_t read = now_;
        now_ += step_;
        return read;
    });
};

// Whether the allocation number `nth` of a rewriting was reached. Its failure has to leave the
// rewriter as std::bad_alloc; without one the copy is complete.
bool ThrowsWithoutMemory(const std::function<HRESULT()>& rewriter, int nth) {
    HRESULT result = S_OK;
    bool thrown = false;
    bool happened = false;
    {
        const AllocationFailure failure(nth);
        try {
            result = rewriter();
        } catch (const std::bad_alloc&) {
            thrown = true;
        }
        happened = failure.Happened();
    }
    EXPECT_EQ(thrown, happened) << nth;
    EXPECT_TRUE(thrown || result == S_FALSE) << nth << " gave " << result;
    return happened;
}

// A definition as it ships: declaration, line breaks, indentation, and a bit of everything.
const std::wstring kShipped =
    L"\xFEFF<?xml version=\"1.0\" encoding=\"UTF-16\"?>\r\n"
    L"<!-- made by hand -->\r\n"
    L"<?style sheet=\"none\"?>\r\n"
    L"<Task version=\"1.2\" xmlns=\"http://schemas.microsoft.com/windows/2004/02/mit/task\">\r\n"
    L"  <RegistrationInfo>\r\n"
    L"    <Description><![CDATA[Starts <Pivot> & more]]></Description>\r\n"
    L"  </RegistrationInfo>\r\n"
    L"  <Triggers>\r\n"
    L"    <TimeTrigger>\r\n"
    L"      <StartBoundary>2019-01-01T00:00:00</StartBoundary>\r\n"
    L"      <Enabled>true</Enabled>\r\n"
    L"    </TimeTrigger>\r\n"
    L"    <LogonTrigger />\r\n"
    L"  </Triggers>\r\n"
    L"  <Actions Context=\"Author\">\r\n"
    L"    <Exec>\r\n"
    L"      <Command>pvcmd.exe</Command>\r\n"
    L"      <Arguments></Arguments>\r\n"
    L"      <WorkingDirectory>C:\\Old</WorkingDirectory>\r\n"
    L"    </Exec>\r\n"
    L"  </Actions>\r\n"
    L"</Task>\r\n";

std::wstring Replaced(std::wstring text, const std::wstring& part, const std::wstring& with) {
    const std::size_t position = text.find(part);
    EXPECT_NE(position, std::wstring::npos);
    return position == std::wstring::npos ? text : text.replace(position, part.size(), with);
}

std::wstring WithoutMark(const std::wstring& document) {
    return document.substr(1);
}

} // namespace

TEST_F(StandInRewriterTest, CopiesAShippedDocumentAndReplacesTheWorkingDirectory) {
    EXPECT_EQ(WithFolder(kShipped), WithoutMark(Replaced(kShipped, L"C:\\Old", kFolder)));
}

TEST_F(StandInRewriterTest, CopiesAShippedDocumentAndReplacesTheStartBoundary) {
    const StillClock clock(kAWinterDay);
    EXPECT_EQ(WithBoundary(kShipped),
              WithoutMark(Replaced(kShipped, L"2019-01-01T00:00:00", L"2024-03-15T00:00:00")));
}

TEST_F(StandInRewriterTest, MakesTheseCallsInThisOrder) {
    WriteSource(L"<?xml version=\"1.0\"?>\n<a b=\"1\"><WorkingDirectory>x</WorkingDirectory>y<c/>"
                L"<!--d--><![CDATA[e]]><?f g?></a>");
    EXPECT_EQ(RewriteFolder(L"new").result, S_FALSE);
    EXPECT_EQ(xml.Calls(), (Lines{
                               L"CreateFileW T:\\task.xml 80000000 1 3 80",
                               L"CreateFileW T:\\rewritten.xml 40000000 1 2 80",
                               L"CreateXmlReader",
                               L"reader.SetProperty 4 0",
                               L"CreateXmlReaderInputWithEncodingName utf-16 0 c:\\temp",
                               L"CreateXmlWriter",
                               L"CreateXmlWriterOutputWithEncodingName utf-16",
                               L"reader.SetInput",
                               L"writer.SetOutput",
                               L"writer.SetProperty 1 1",
                               L"reader.Read",
                               L"writer.WriteNodeShallow 0 <?xml version=\"1.0\"?>",
                               L"reader.Read",
                               L"writer.WriteNodeShallow 0 \n",
                               L"reader.Read",
                               L"reader.GetQualifiedName",
                               L"writer.WriteNodeShallow 0 <a b=\"1\">",
                               L"reader.Read",
                               L"reader.GetQualifiedName",
                               L"writer.WriteNodeShallow 0 <WorkingDirectory>",
                               L"reader.Read",
                               L"writer.WriteString new",
                               L"reader.Read",
                               L"reader.GetQualifiedName",
                               L"writer.WriteFullEndElement",
                               L"reader.Read",
                               L"writer.WriteNodeShallow 0 y",
                               L"reader.Read",
                               L"writer.WriteNodeShallow 0 <c/>",
                               L"reader.Read",
                               L"writer.WriteNodeShallow 0 <!--d-->",
                               L"reader.Read",
                               L"writer.WriteNodeShallow 0 <![CDATA[e]]>",
                               L"reader.Read",
                               L"writer.WriteNodeShallow 0 <?f g?>",
                               L"reader.Read",
                               L"reader.GetQualifiedName",
                               L"writer.WriteFullEndElement",
                               L"reader.Read",
                               L"writer.Flush",
                               L"CloseHandle T:\\task.xml",
                               L"CloseHandle T:\\rewritten.xml",
                               L"reader.Release",
                               L"writer.Release",
                               L"input.Release",
                               L"output.Release",
                           }));
}

TEST_F(StandInRewriterTest, TheStartBoundaryIsSetUpAndTakenDownInTheSameOrder) {
    const StillClock clock(kAWinterDay);
    WriteSource(L"<StartBoundary>x</StartBoundary>");
    EXPECT_EQ(RewriteBoundary().result, S_FALSE);
    EXPECT_EQ(xml.Calls(), (Lines{
                               L"CreateFileW T:\\task.xml 80000000 1 3 80",
                               L"CreateFileW T:\\rewritten.xml 40000000 1 2 80",
                               L"CreateXmlReader",
                               L"reader.SetProperty 4 0",
                               L"CreateXmlReaderInputWithEncodingName utf-16 0 c:\\temp",
                               L"CreateXmlWriter",
                               L"CreateXmlWriterOutputWithEncodingName utf-16",
                               L"reader.SetInput",
                               L"writer.SetOutput",
                               L"writer.SetProperty 1 1",
                               L"reader.Read",
                               L"reader.GetQualifiedName",
                               L"writer.WriteNodeShallow 0 <StartBoundary>",
                               L"reader.Read",
                               L"reader.GetValue",
                               L"writer.WriteString 2024-03-15T00:00:00",
                               L"reader.Read",
                               L"reader.GetQualifiedName",
                               L"writer.WriteFullEndElement",
                               L"reader.Read",
                               L"writer.Flush",
                               L"CloseHandle T:\\task.xml",
                               L"CloseHandle T:\\rewritten.xml",
                               L"reader.Release",
                               L"writer.Release",
                               L"input.Release",
                               L"output.Release",
                           }));
}

TEST_F(StandInRewriterTest, ReplacesEveryElementOfTheName) {
    EXPECT_EQ(WithFolder(L"<a><WorkingDirectory>1</WorkingDirectory>"
                         L"<WorkingDirectory>2</WorkingDirectory></a>"),
              L"<a><WorkingDirectory>C:\\Program Files\\Zenvo</WorkingDirectory>"
              L"<WorkingDirectory>C:\\Program Files\\Zenvo</WorkingDirectory></a>");
}

TEST_F(StandInRewriterTest, ComputesTheStartBoundaryAnewForEachElement) {
    StillClock clock(kAWinterDay);
    clock.Advance(86400);
    EXPECT_EQ(WithBoundary(L"<a><StartBoundary>1</StartBoundary><b>2</b>"
                           L"<StartBoundary>3</StartBoundary></a>"),
              L"<a><StartBoundary>2024-03-15T00:00:00</StartBoundary><b>2</b>"
              L"<StartBoundary>2024-03-16T00:00:00</StartBoundary></a>");
    EXPECT_EQ(clock.Calls(), 2);
}

TEST_F(StandInRewriterTest, TheClockIsReadOnlyForATextThatIsReplaced) {
    const StillClock clock(kAWinterDay);
    WithBoundary(L"<a>1<StartBoundary></StartBoundary><StartBoundary/></a>");
    EXPECT_EQ(clock.Calls(), 0);
}

TEST_F(StandInRewriterTest, EachRewriterLeavesTheElementOfTheOtherAlone) {
    const StillClock clock(kAWinterDay);
    const std::wstring document =
        L"<a><StartBoundary>one</StartBoundary><WorkingDirectory>two</WorkingDirectory></a>";
    EXPECT_EQ(WithFolder(document), Replaced(document, L"two", kFolder));
    EXPECT_EQ(WithBoundary(document), Replaced(document, L"one", L"2024-03-15T00:00:00"));
}

TEST_F(StandInRewriterTest, AnEmptyElementIsCopiedUnchanged) {
    for (const wchar_t* const document :
         {L"<a><WorkingDirectory/>x</a>", L"<a><WorkingDirectory b=\"c\" />x</a>"}) {
        EXPECT_EQ(WithFolder(document), document);
    }
    const wchar_t* const document = L"<a><StartBoundary/>x</a>";
    EXPECT_EQ(WithBoundary(document), document);
    EXPECT_EQ(xml.CallsOf(L"writer.WriteString"), Lines{});
}

TEST_F(StandInRewriterTest, AnElementWithoutTextGetsNone) {
    for (const wchar_t* const document :
         {L"<a><WorkingDirectory></WorkingDirectory>x</a>",
          L"<a><WorkingDirectory><!--b--></WorkingDirectory>x</a>",
          L"<a><WorkingDirectory><![CDATA[b]]></WorkingDirectory>x</a>",
          L"<a><WorkingDirectory> \r\n\t</WorkingDirectory>x</a>"}) {
        EXPECT_EQ(WithFolder(document), document);
    }
    for (const wchar_t* const document : {L"<a><StartBoundary></StartBoundary>x</a>",
                                          L"<a><StartBoundary> </StartBoundary>x</a>"}) {
        EXPECT_EQ(WithBoundary(document), document);
    }
    EXPECT_EQ(xml.CallsOf(L"writer.WriteString"), Lines{});
}

TEST_F(StandInRewriterTest, OnlyTheFirstTextOfAnElementIsReplaced) {
    EXPECT_EQ(WithFolder(L"<WorkingDirectory>a<!--b-->c<?d?>e</WorkingDirectory>"),
              L"<WorkingDirectory>C:\\Program Files\\Zenvo<!--b-->c<?d?>e</WorkingDirectory>");
    EXPECT_EQ(WithFolder(L"<WorkingDirectory><!--a-->b<!--c-->d</WorkingDirectory>"),
              L"<WorkingDirectory><!--a-->C:\\Program Files\\Zenvo<!--c-->d</WorkingDirectory>");
    EXPECT_EQ(WithFolder(L"<WorkingDirectory> <![CDATA[a]]>b</WorkingDirectory>"),
              L"<WorkingDirectory> <![CDATA[a]]>C:\\Program Files\\Zenvo</WorkingDirectory>");
}

TEST_F(StandInRewriterTest, AnotherElementInsideEndsTheSearchForText) {
    for (const wchar_t* const document : {L"<WorkingDirectory><b>c</b>d</WorkingDirectory>",
                                          L"<WorkingDirectory><b></b>d</WorkingDirectory>"}) {
        EXPECT_EQ(WithFolder(document), document);
    }
}

TEST_F(StandInRewriterTest, AnEmptyElementInsideDoesNotEndTheSearchForText) {
    EXPECT_EQ(WithFolder(L"<WorkingDirectory><b/>c</WorkingDirectory>"),
              L"<WorkingDirectory><b/>C:\\Program Files\\Zenvo</WorkingDirectory>");
    EXPECT_EQ(WithFolder(L"<WorkingDirectory><WorkingDirectory/>c</WorkingDirectory>"),
              L"<WorkingDirectory><WorkingDirectory/>C:\\Program Files\\Zenvo</WorkingDirectory>");
}

TEST_F(StandInRewriterTest, AnElementInsideOneOfItsNameIsReplacedAndEndsTheSearch) {
    EXPECT_EQ(WithFolder(L"<WorkingDirectory><WorkingDirectory>a</WorkingDirectory>b"
                         L"</WorkingDirectory>"),
              L"<WorkingDirectory><WorkingDirectory>C:\\Program Files\\Zenvo</WorkingDirectory>b"
              L"</WorkingDirectory>");
}

TEST_F(StandInRewriterTest, TheTextBehindTheElementStays) {
    EXPECT_EQ(WithFolder(L"<a><WorkingDirectory></WorkingDirectory>b</a>"),
              L"<a><WorkingDirectory></WorkingDirectory>b</a>");
    // The end of another element does not end the search, as the end of one of this name does.
    EXPECT_EQ(WithFolder(L"<a>x<WorkingDirectory>y</WorkingDirectory>z</a>"),
              L"<a>x<WorkingDirectory>C:\\Program Files\\Zenvo</WorkingDirectory>z</a>");
}

TEST_F(StandInRewriterTest, TheNameHasToBeEqualWithItsCaseAndWithoutAPrefix) {
    for (const wchar_t* const name :
         {L"workingdirectory", L"WORKINGDIRECTORY", L"t:WorkingDirectory", L"WorkingDirectory2",
          L"WorkingDirector", L"XWorkingDirectory"}) {
        const std::wstring document = std::wstring(L"<a><") + name + L">b</" + name + L"></a>";
        EXPECT_EQ(WithFolder(document), document);
    }
}

TEST_F(StandInRewriterTest, EveryEndTagIsWrittenInFull) {
    EXPECT_EQ(WithFolder(L"<a><b></b><c d=\"e\"></c ></a\r\n>"), L"<a><b></b><c d=\"e\"></c></a>");
    EXPECT_EQ(xml.CallsOf(L"writer.WriteFullEndElement").size(), 3U);
}

TEST_F(StandInRewriterTest, TheNewTextIsWrittenAsText) {
    WriteSource(L"<WorkingDirectory>a</WorkingDirectory>");
    EXPECT_EQ(RewriteFolder(L"C:\\R&D <\u0416\u00e9\U0001F600> ;%1").result, S_FALSE);
    EXPECT_EQ(xml.CallsOf(L"writer.WriteString"),
              Lines{L"writer.WriteString C:\\R&D <\u0416\u00e9\U0001F600> ;%1"});
    EXPECT_EQ(RewriteFolder(L"").result, S_FALSE);
    EXPECT_EQ(Target(), L"<WorkingDirectory></WorkingDirectory>");
    const std::wstring longText(20000, L'l');
    EXPECT_EQ(RewriteFolder(longText).result, S_FALSE);
    EXPECT_EQ(Target(), L"<WorkingDirectory>" + longText + L"</WorkingDirectory>");
}

TEST_F(StandInRewriterTest, ADoctypeEndsTheCopyWithoutAMessage) {
    WriteSource(L"<?xml version=\"1.0\"?>\r\n<!DOCTYPE a [<!ENTITY b \"c\">]><a>&b;</a>");
    const Outcome outcome = RewriteFolder();
    EXPECT_EQ(outcome.result, Result(0xC00CEE4F));
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(Target(), L"<?xml version=\"1.0\"?>\r\n");
    EXPECT_EQ(xml.OpenReferences(), 0U);
}

TEST_F(StandInRewriterTest, ARefusalToProhibitDoctypesIsNotChecked) {
    xml.Fail(L"reader.SetProperty", E_FAIL);
    EXPECT_EQ(WithFolder(L"<!DOCTYPE a><a>b</a>"), L"<!DOCTYPE a><a>b</a>");
}

TEST_F(StandInRewriterTest, AMalformedOrTruncatedSourceKeepsWhatWasCopiedAndGivesNoMessage) {
    struct Case {
        const wchar_t* source;
        unsigned long result;
        const wchar_t* target;
    };
    const Case cases[] = {
        {L"<a><b>c</d></a>", 0xC00CEE3B, L"<a><b>c"},
        {L"<a>b</a>c", 0xC00CEE2D, L"<a>b</a>"},
        {L"<a><>", 0xC00CEE39, L"<a>"},
        {L"<a><WorkingDirectory>b", 0xC00CEE01, L"<a><WorkingDirectory>C:\\Program Files\\Zenvo"},
        {L"<a><WorkingDirectory>b</Work", 0xC00CEE01,
         L"<a><WorkingDirectory>C:\\Program Files\\Zenvo"},
        {L"<a><!-- b", 0xC00CEE01, L"<a>"},
        {L"<?xml version", 0xC00CEE01, L""},
        {L"", 0xC00CEE01, L""},
    };
    for (const Case& each : cases) {
        WriteSource(each.source);
        const Outcome outcome = RewriteFolder();
        EXPECT_EQ(outcome.result, Result(each.result)) << each.source;
        EXPECT_EQ(outcome.output, "");
        EXPECT_EQ(Target(), each.target);
        EXPECT_EQ(xml.OpenReferences(), 0U);
    }
    EXPECT_EQ(xml.CallsOf(L"writer.Flush").size(), std::size(cases));
}

TEST_F(StandInRewriterTest, ASourceInUtf8IsMalformed) {
    const char document[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><WorkingDirectory>a"
                            "</WorkingDirectory>";
    WriteBytes(kSource, document, sizeof(document) - 1);
    const Outcome outcome = RewriteFolder();
    EXPECT_LT(outcome.result, 0);
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(Target(), L"");
}

TEST_F(StandInRewriterTest, AnyResultButSuccessEndsTheLoopSilently) {
    // Among them successes: XmlLite has S_FALSE for the end, asynchronous input has E_PENDING.
    for (const unsigned long code : {0x00000001UL, 0x00000002UL, 0x8000000AUL, 0x80070021UL}) {
        WriteSource(L"<a>b</a>");
        xml.Fail(L"reader.Read", Result(code), 2);
        const Outcome outcome = RewriteFolder();
        EXPECT_EQ(outcome.result, Result(code));
        EXPECT_EQ(outcome.output, "");
        EXPECT_EQ(Target(), L"<a>");
    }
}

TEST_F(StandInRewriterTest, EachFailureOfTheSetUpHasItsMessageAndReleasesWhatThereIs) {
    struct Case {
        const wchar_t* call;
        const char* message;
        Lines releases;
    };
    const Lines files = {L"CloseHandle T:\\task.xml", L"CloseHandle T:\\rewritten.xml"};
    const Lines reader = {files[0], files[1], L"reader.Release"};
    const Lines input = {files[0], files[1], L"reader.Release", L"input.Release"};
    const Lines writer = {files[0], files[1], L"reader.Release", L"writer.Release",
                          L"input.Release"};
    Lines all = writer;
    all.push_back(L"output.Release");
    Lines flushed = all;
    flushed.insert(flushed.begin(), L"writer.Flush");
    const Case cases[] = {
        {L"CreateXmlReader", "creating xml reader", files},
        {L"CreateXmlReaderInputWithEncodingName", "creating xml reader with encoding code page",
         reader},
        {L"CreateXmlWriter", "creating xml writer", input},
        {L"CreateXmlWriterOutputWithEncodingName", "creating xml reader with encoding code page",
         writer},
        {L"reader.SetInput", "setting input for reader", all},
        {L"writer.SetOutput", "setting output for writer", all},
        {L"writer.SetProperty", "setting indent property in writer", flushed},
    };
    WriteSource(L"<WorkingDirectory>a</WorkingDirectory>");
    unsigned long code = 0x8007000E;
    for (const Case& each : cases) {
        const std::size_t before = xml.Calls().size();
        xml.Fail(each.call, Result(++code));
        const Outcome outcome = RewriteFolder();
        EXPECT_EQ(outcome.result, Result(code)) << each.call;
        EXPECT_EQ(outcome.output, Message(each.message, code));
        const Lines& calls = xml.Calls();
        Lines made(calls.begin() + static_cast<std::ptrdiff_t>(before), calls.end());
        ASSERT_GT(made.size(), each.releases.size());
        const auto failed = made.end() - static_cast<std::ptrdiff_t>(each.releases.size()) - 1;
        EXPECT_EQ(failed->find(each.call), 0U) << *failed;
        EXPECT_EQ(Lines(failed + 1, made.end()), each.releases);
        EXPECT_EQ(xml.OpenReferences(), 0U);
        EXPECT_EQ(Target(), L"");
    }
}

TEST_F(StandInRewriterTest, EachFailureOfTheCopyHasItsMessageAndKeepsWhatWasCopied) {
    struct Case {
        const wchar_t* call;
        int nth;
        const char* message;
        const wchar_t* target;
    };
    const Case cases[] = {
        {L"reader.GetQualifiedName", 1, "reading element name", L""},
        {L"reader.GetQualifiedName", 2, "reading element name", L"<a>"},
        // Of the end tag of "b".
        {L"reader.GetQualifiedName", 3, "reading element name", L"<a><b>c"},
        {L"writer.WriteNodeShallow", 1, "writing WriteNodeShallow", L""},
        {L"writer.WriteNodeShallow", 3, "writing WriteNodeShallow", L"<a><b>"},
        {L"writer.WriteNodeShallow 0 <WorkingDirectory>", 1, "writing WriteNodeShallow",
         L"<a><b>c</b>"},
        {L"writer.WriteNodeShallow 0 <!--", 1, "writing WriteNodeShallow",
         L"<a><b>c</b><WorkingDirectory>C:\\Program Files\\Zenvo</WorkingDirectory>"},
        {L"writer.WriteNodeShallow 0 <d/>", 1, "writing WriteNodeShallow",
         L"<a><b>c</b><WorkingDirectory>C:\\Program Files\\Zenvo</WorkingDirectory><!--e-->"},
        {L"writer.WriteString", 1, "writing WriteString", L"<a><b>c</b><WorkingDirectory>"},
        {L"writer.WriteFullEndElement", 1, "writing WriteFullEndElement", L"<a><b>c"},
        {L"writer.WriteFullEndElement", 2, "writing WriteFullEndElement",
         L"<a><b>c</b><WorkingDirectory>C:\\Program Files\\Zenvo"},
    };
    const Lines releases = {
        L"writer.Flush",   L"CloseHandle T:\\task.xml", L"CloseHandle T:\\rewritten.xml",
        L"reader.Release", L"writer.Release",           L"input.Release",
        L"output.Release"};
    unsigned long code = 0x80070010;
    for (const Case& each : cases) {
        WriteSource(L"<a><b>c</b><WorkingDirectory>x</WorkingDirectory><!--e--><d/></a>");
        xml.Fail(each.call, Result(++code), each.nth);
        const Outcome outcome = RewriteFolder();
        EXPECT_EQ(outcome.result, Result(code)) << each.call << each.nth;
        EXPECT_EQ(outcome.output, Message(each.message, code));
        const Lines& calls = xml.Calls();
        ASSERT_GT(calls.size(), releases.size());
        const auto failed = calls.end() - static_cast<std::ptrdiff_t>(releases.size()) - 1;
        EXPECT_EQ(failed->find(each.call), 0U) << *failed;
        EXPECT_EQ(Lines(failed + 1, calls.end()), releases);
        EXPECT_EQ(Target(), each.target);
        EXPECT_EQ(xml.OpenReferences(), 0U);
    }
}

TEST_F(StandInRewriterTest, SuccessesOfOtherKindsDoNotEndTheCopy) {
    for (const wchar_t* const call : {L"reader.SetInput", L"writer.SetOutput",
                                      L"writer.SetProperty", L"writer.WriteFullEndElement"}) {
        xml.Fail(call, S_FALSE);
    }
    WriteSource(L"<a>b</a>");
    EXPECT_EQ(RewriteFolder().result, S_FALSE);
    EXPECT_EQ(xml.CallsOf(L"reader.Read").size(), 4U);
}

TEST_F(StandInRewriterTest, AValueThatCannotBeReadEndsTheCopy) {
    const StillClock clock(kAWinterDay);
    WriteSource(L"<StartBoundary>a</StartBoundary>");
    xml.Fail(L"reader.GetValue", Result(0x80070011));
    const Outcome outcome = RewriteBoundary();
    EXPECT_EQ(outcome.result, Result(0x80070011));
    EXPECT_EQ(outcome.output, Message("reading value", 0x80070011));
    EXPECT_EQ(Target(), L"<StartBoundary>");
    EXPECT_EQ(xml.CallsOf(L"writer.Flush").size(), 1U);
    EXPECT_EQ(xml.OpenReferences(), 0U);
    EXPECT_EQ(clock.Calls(), 0);
}

TEST_F(StandInRewriterTest, AnEmptyOrMissingValueEndsTheCopyWithoutAMessage) {
    const StillClock clock(kAWinterDay);
    for (const wchar_t* const value : {static_cast<const wchar_t*>(nullptr), L""}) {
        WriteSource(L"<StartBoundary>a</StartBoundary>");
        xml.SetValue(value);
        const Outcome outcome = RewriteBoundary();
        EXPECT_EQ(outcome.result, Result(0x8000FFFF));
        EXPECT_EQ(outcome.output, "");
        EXPECT_EQ(Target(), L"<StartBoundary>");
        EXPECT_EQ(xml.OpenReferences(), 0U);
    }
    EXPECT_EQ(xml.CallsOf(L"writer.WriteString"), Lines{});
    EXPECT_EQ(clock.Calls(), 0);
}

TEST_F(StandInRewriterTest, TheWorkingDirectoryIsReplacedWithoutALookAtItsValue) {
    xml.SetValue(nullptr);
    EXPECT_EQ(WithFolder(L"<WorkingDirectory>a</WorkingDirectory>"),
              L"<WorkingDirectory>C:\\Program Files\\Zenvo</WorkingDirectory>");
    EXPECT_EQ(xml.CallsOf(L"reader.GetValue"), Lines{});
}

TEST_F(StandInRewriterTest, AFailedFlushDoesNotChangeTheResult) {
    WriteSource(L"<a>b</a>");
    xml.Fail(L"writer.Flush", Result(0x80070070));
    const Outcome outcome = RewriteFolder();
    EXPECT_EQ(outcome.result, S_FALSE);
    EXPECT_EQ(outcome.output, "");
}

TEST_F(StandInRewriterTest, AFullDiskIsNotReported) {
    WriteSource(L"<a>b</a>");
    FAIL_CALL(writing, WriteFile, 0, FALSE, ERROR_DISK_FULL);
    EXPECT_EQ(RewriteFolder().result, S_FALSE);
    EXPECT_EQ(writing.Calls(), 1);
}

TEST_F(RewriterTest, RunsOutOfMemoryWithoutALeak) {
    const StillClock clock(kAWinterDay);
    const std::wstring source = kSource;
    const std::wstring target = kTarget;
    const std::wstring folder = kFolder;
    const std::function<HRESULT()> rewriters[] = {
        [&] { return RewriteTaskWorkingDirectory(source, target, folder); },
        [&] { return RewriteTaskStartBoundary(source, target); },
    };
    WriteSource(L"<a><StartBoundary>one</StartBoundary><WorkingDirectory>two</WorkingDirectory>"
                L"</a>");
    for (const auto& rewriter : rewriters) {
        // What the first exception leaves open for good does not count.
        EXPECT_TRUE(ThrowsWithoutMemory(rewriter, 1));
        const int before = OpenHandleCount();
        int nth = 1;
        while (ThrowsWithoutMemory(rewriter, nth)) {
            EXPECT_EQ(OpenHandleCount(), before) << nth;
            ASSERT_LT(++nth, 100);
        }
        // The paths, the two streams and the new text at least.
        EXPECT_GT(nth, 5);
        EXPECT_EQ(OpenHandleCount(), before);
    }
}

TEST_F(RewriterTest, WhatWasCopiedIsFlushedWhenMemoryRunsOut) {
    const StillClock clock(kAWinterDay);
    const std::wstring source = kSource;
    const std::wstring target = kTarget;
    WriteSource(L"<a><StartBoundary>x</StartBoundary></a>");
    std::wstring last;
    for (int nth = 1;
         nth < 100 &&
         ThrowsWithoutMemory([&] { return RewriteTaskStartBoundary(source, target); }, nth);
         ++nth) {
        last = Target();
    }
    // The last allocations are those of the new text.
    EXPECT_NE(last.find(L"<StartBoundary"), std::wstring::npos) << last;
    EXPECT_EQ(last.find(L"2024"), std::wstring::npos) << last;
}

TEST_F(RewriterTest, ASourceThatDoesNotExistMakesNoTarget) {
    const int before = OpenHandleCount();
    for (const Outcome& outcome : {RewriteFolder(), RewriteBoundary()}) {
        EXPECT_EQ(outcome.result, Result(0x80070002));
        EXPECT_EQ(outcome.output, "Error creating file reader, error is 80070002");
    }
    EXPECT_EQ(Target(), L"(no file)");
    EXPECT_EQ(OpenHandleCount(), before);
}

TEST_F(RewriterTest, ASourceThatIsAFolderOrLockedOrHasNoNameCannotBeRead) {
    CreateDirectoryW(kSource, nullptr);
    Outcome outcome = RewriteFolder();
    EXPECT_EQ(outcome.result, Result(0x80070005));
    EXPECT_EQ(outcome.output, Message("creating file reader", 0x80070005));
    RemoveDirectoryW(kSource);

    WriteSource(L"<a>b</a>");
    HANDLE locked = CreateFileW(kSource, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    outcome = RewriteFolder();
    EXPECT_EQ(outcome.result, Result(0x80070020));
    EXPECT_EQ(outcome.output, Message("creating file reader", 0x80070020));
    CloseHandle(locked);

    outcome.output = StandardOutputOf(
        [&] { outcome.result = RewriteTaskWorkingDirectory(L"", kTarget, kFolder); });
    EXPECT_LT(outcome.result, 0);
    EXPECT_EQ(outcome.output,
              Message("creating file reader", static_cast<unsigned long>(outcome.result)));
    EXPECT_EQ(Target(), L"(no file)");
}

TEST_F(RewriterTest, ATargetThatCannotBeWrittenIsReportedAndTheSourceClosed) {
    WriteSource(L"<a>b</a>");
    const int before = OpenHandleCount();
    CreateDirectoryW(kTarget, nullptr);
    for (const Outcome& outcome : {RewriteFolder(), RewriteBoundary()}) {
        EXPECT_EQ(outcome.result, Result(0x80070005));
        EXPECT_EQ(outcome.output, Message("creating file writer", 0x80070005));
    }
    RemoveDirectoryW(kTarget);

    {
        // As for a file that is read-only.
        FAIL_CALL(creating, CreateFileW, 2, INVALID_HANDLE_VALUE, ERROR_ACCESS_DENIED);
        EXPECT_EQ(RewriteFolder().output, Message("creating file writer", 0x80070005));
    }

    Outcome outcome;
    outcome.output = StandardOutputOf([&] {
        outcome.result = RewriteTaskWorkingDirectory(kSource, L"T:\\none\\rewritten.xml", kFolder);
    });
    EXPECT_EQ(outcome.result, Result(0x80070003));
    EXPECT_EQ(outcome.output, Message("creating file writer", 0x80070003));
    EXPECT_EQ(OpenHandleCount(), before);
}

TEST_F(RewriterTest, TheSourceCannotBeItsOwnTarget) {
    WriteSource(L"<a>b</a>");
    Outcome outcome;
    outcome.output = StandardOutputOf(
        [&] { outcome.result = RewriteTaskWorkingDirectory(kSource, kSource, kFolder); });
    EXPECT_EQ(outcome.result, Result(0x80070020));
    EXPECT_EQ(outcome.output, Message("creating file writer", 0x80070020));
}

TEST_F(RewriterTest, ARefusedFileWithoutACodeIsAFailureToo) {
    WriteSource(L"<a>b</a>");
    {
        FAIL_CALL(creating, CreateFileW, 1, INVALID_HANDLE_VALUE, NO_ERROR);
        const Outcome outcome = RewriteFolder();
        EXPECT_EQ(outcome.result, 0);
        EXPECT_EQ(outcome.output, Message("creating file reader", 0));
        EXPECT_EQ(creating.Calls(), 1);
    }
    {
        FAIL_CALL(creating, CreateFileW, 2, INVALID_HANDLE_VALUE, NO_ERROR);
        const Outcome outcome = RewriteFolder();
        EXPECT_EQ(outcome.result, 0);
        EXPECT_EQ(outcome.output, Message("creating file writer", 0));
    }
}

TEST_F(RewriterTest, OthersMayReadBothFilesMeanwhile) {
    WriteSource(L"<a>b</a>");
    HANDLE reading =
        CreateFileW(kSource, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(RewriteFolder().result, S_FALSE);
    CloseHandle(reading);
}

TEST_F(XmlLiteRewriterTest, ReplacesTheWorkingDirectory) {
    const int before = OpenHandleCount();
    WriteSource(L"\xFEFF<?xml version=\"1.0\" encoding=\"UTF-16\"?><Task version=\"1.2\"><Exec>"
                L"<Command>pvcmd.exe</Command><WorkingDirectory>C:\\Old</WorkingDirectory></Exec>"
                L"</Task>");
    const Outcome outcome = RewriteFolder(L"C:\\R&D \u0416");
    EXPECT_EQ(outcome.result, S_FALSE);
    EXPECT_EQ(outcome.output, "");
    const std::wstring target = Target();
    EXPECT_NE(target.find(L"<Task version=\"1.2\">"), std::wstring::npos) << target;
    EXPECT_NE(target.find(L"<Command>pvcmd.exe</Command>"), std::wstring::npos);
    EXPECT_NE(target.find(L"<WorkingDirectory>C:\\R&amp;D \u0416</WorkingDirectory>"),
              std::wstring::npos);
    EXPECT_NE(target.find(L"</Task>"), std::wstring::npos);
    EXPECT_EQ(OpenHandleCount(), before);
}

TEST_F(XmlLiteRewriterTest, ReplacesTheStartBoundary) {
    const StillClock clock(kAWinterDay);
    const int before = OpenHandleCount();
    WriteSource(L"<Task><TimeTrigger><StartBoundary>2019-01-01T00:00:00</StartBoundary>"
                L"<Enabled>true</Enabled></TimeTrigger></Task>");
    EXPECT_EQ(RewriteBoundary().result, S_FALSE);
    const std::wstring target = Target();
    EXPECT_NE(target.find(L"<StartBoundary>2024-03-15T00:00:00</StartBoundary>"),
              std::wstring::npos)
        << target;
    EXPECT_EQ(target.find(L"2019"), std::wstring::npos);
    EXPECT_NE(target.find(L"</Task>"), std::wstring::npos);
    EXPECT_EQ(OpenHandleCount(), before);
}

TEST_F(XmlLiteRewriterTest, KeepsEmptyElementsAndWritesEndTagsInFull) {
    WriteSource(L"<a><WorkingDirectory/><b></b></a>");
    EXPECT_EQ(RewriteFolder().result, S_FALSE);
    const std::wstring target = Target();
    EXPECT_NE(target.find(L"<WorkingDirectory />"), std::wstring::npos) << target;
    EXPECT_NE(target.find(L"<b></b>"), std::wstring::npos) << target;
    EXPECT_EQ(target.find(kFolder), std::wstring::npos);
}

TEST_F(XmlLiteRewriterTest, OverwritesALongerTarget) {
    WriteSource(L"<a><WorkingDirectory>1</WorkingDirectory></a>");
    EXPECT_EQ(RewriteFolder(L"C:\\first").result, S_FALSE);
    const std::wstring target = Target();
    EXPECT_NE(target.find(L"<WorkingDirectory>C:\\first</WorkingDirectory>"), std::wstring::npos);

    WriteBytes(kTarget, std::string(5000, 'x').data(), 5000);
    EXPECT_EQ(RewriteFolder(L"C:\\first").result, S_FALSE);
    EXPECT_EQ(Target(), target);
}

TEST_F(XmlLiteRewriterTest, RefusesADoctype) {
    WriteSource(L"<!DOCTYPE a [<!ENTITY b \"c\">]><a>b</a>");
    const Outcome outcome = RewriteFolder();
    EXPECT_EQ(outcome.result, Result(0xC00CEE4F));
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(Target(), L"");
}

TEST_F(XmlLiteRewriterTest, AnEmptyOrTruncatedSourceGivesAnErrorWithoutAMessage) {
    const int before = OpenHandleCount();
    for (const wchar_t* const document : {L"", L"<a><b", L"<a><WorkingDirectory>x</a>"}) {
        WriteSource(document);
        const Outcome outcome = RewriteFolder();
        EXPECT_LT(outcome.result, 0) << document;
        EXPECT_EQ(outcome.output, "") << document;
        EXPECT_NE(Target(), L"(no file)");
    }
    EXPECT_EQ(OpenHandleCount(), before);
}

// Whether they are an empty document or none is up to XmlLite.
TEST_F(XmlLiteRewriterTest, BytesThatAreNoTextGiveNothingAndNoMessage) {
    const int before = OpenHandleCount();
    std::string bytes;
    unsigned state = 1;
    for (int round = 0; round < 50; ++round) {
        bytes.clear();
        for (int index = 0; index < 300 + round; ++index) {
            state = state * 1103515245U + 12345U;
            bytes += static_cast<char>(state >> 16U);
        }
        WriteBytes(kSource, bytes.data(), bytes.size());
        const Outcome outcome = RewriteFolder();
        EXPECT_TRUE(outcome.result == S_FALSE || FAILED(outcome.result)) << outcome.result;
        EXPECT_EQ(outcome.output, "") << round;
        EXPECT_EQ(Target(), L"") << round;
    }
    EXPECT_EQ(OpenHandleCount(), before);
}
