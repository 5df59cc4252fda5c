#include "trace/hook.h"

#include "text_output.h"

#include <msi.h>
#include <msiquery.h>
#include <objbase.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cwchar>
#include <mutex>

namespace halvard_runner {

namespace {

constexpr const wchar_t* kToNoSession = L"to session 0";
constexpr const wchar_t* kToTheDebugger = L"to the debugger";

// What was written to standard output since the last end of a line.
auto& outputLine = NeverDestroyed<std::wstring>();
auto& outputLock = NeverDestroyed<std::mutex>();

std::wstring RecordText(MSIHANDLE record) {
    DWORD length = 0;
    wchar_t none[1] = {};
    MsiRecordGetStringW(record, 0, none, &length);
    std::wstring text(++length, L'\0');
    MsiRecordGetStringW(record, 0, text.data(), &length);
    text.resize(std::min<std::size_t>(length, text.size()));
    return text;
}

/// What goes to an installer session comes to the caller as ever; what goes to none is lost.
Word SendMessage(HookedCall& call) {
    if (call.Parameter<MSIHANDLE>(0) == 0) {
        Tell(TraceGroup::Lost, kToNoSession, RecordText(call.Parameter<MSIHANDLE>(2)));
    }
    return call.Forward();
}

Word ReadProperty(HookedCall& call) {
    auto* const length = call.Parameter<DWORD*>(3);
    const bool asksForSize = length == nullptr || *length == 0;
    const std::wstring name = call.Text(1);
    const Word result = call.Forward();
    const DWORD code = call.Code(FailureSign::Status, result);
    if (!asksForSize) {
        const bool isRead = code == ERROR_SUCCESS;
        Tell(TraceGroup::Property, L"reads", name, code,
             isRead ? TraceDetails{{trace_words::kData, call.Text(2)}} : TraceDetails{});
    }
    return result;
}

Word SendToDebugger(HookedCall& call) {
    Tell(TraceGroup::Lost, kToTheDebugger, call.Text(0));
    return call.Forward();
}

Word SendNarrowToDebugger(HookedCall& call) {
    const auto* const text = call.Parameter<const char*>(0);
    Tell(TraceGroup::Lost, kToTheDebugger, Widened(text == nullptr ? "" : text));
    return call.Forward();
}

/// Of standard output a line at a time, however it comes.
void AddToOutput(const std::wstring& text) {
    const std::lock_guard<std::mutex> guard(outputLock);
    outputLine += text;
    for (std::size_t end = outputLine.find(L'\n'); end != std::wstring::npos;
         end = outputLine.find(L'\n')) {
        Tell(TraceGroup::Lost, trace_words::kToStandardOutput, outputLine.substr(0, end));
        outputLine.erase(0, end + 1);
    }
}

/// Not every line has an end; the library writes out each text by itself.
Word WriteOut(HookedCall& call) {
    if (call.Parameter<const FILE*>(0) == stdout) {
        const std::lock_guard<std::mutex> guard(outputLock);
        if (!outputLine.empty()) {
            Tell(TraceGroup::Lost, trace_words::kToStandardOutput, outputLine);
            outputLine.clear();
        }
    }
    return call.Forward();
}

// Of the C run-time that the library shares with this program; one of its own writes by WriteFile.

Word PutText(HookedCall& call) {
    if (call.Parameter<const FILE*>(1) == stdout) {
        AddToOutput(call.Text(0));
    }
    return call.Forward();
}

Word PutCharacter(HookedCall& call) {
    if (call.Parameter<const FILE*>(1) == stdout) {
        AddToOutput(std::wstring(1, call.Parameter<wchar_t>(0)));
    }
    return call.Forward();
}

/// Its further parameters lie in memory one after the other, as a list of them does for x64.
Word PutFormatted(HookedCall& call) {
    if (call.Parameter<const FILE*>(0) == stdout) {
        wchar_t text[1024] = {};
        _vsnwprintf(text, std::size(text) - 1, call.Parameter<const wchar_t*>(1),
                    reinterpret_cast<va_list>(&call.arguments[2]));
        AddToOutput(text);
    }
    return call.Forward();
}

Word WriteToFile(HookedCall& call) {
    if (call.Parameter<HANDLE>(0) == GetStdHandle(STD_OUTPUT_HANDLE)) {
        const std::string bytes(call.Parameter<const char*>(1), call.Parameter<DWORD>(2));
        AddToOutput(Widened(bytes.c_str()));
    }
    return call.Forward();
}

Word CloseAnyHandle(HookedCall& call) {
    // Before the call: another thread may be given the same value at once.
    ForgetProgramHandle(call.Parameter<HANDLE>(0));
    ForgetFileHandle(call.Parameter<HANDLE>(0));
    return call.Forward();
}

/// A step on the way to a task, told by the code of its answer.
struct TaskStep {
    const char* function;
    const wchar_t* what;
    const wchar_t* of;
};

Word RunTaskStep(const TaskStep& step, HookedCall& call) {
    const Word result = call.Forward();
    Tell(TraceGroup::Task, step.what, step.of, call.Code(FailureSign::HResult, result));
    return result;
}

Word CreateObject(HookedCall& call) {
    wchar_t id[64] = {};
    StringFromGUID2(*call.Parameter<const CLSID*>(0), id, 64);
    const std::wstring scheduler = L"{0F87369F-A4E5-4CFC-BD3E-73E6154572DD}";
    const bool isScheduler = id == scheduler;
    const std::wstring name = isScheduler ? kTaskScheduler : L"COM object " + std::wstring(id);
    if (IsDryRun()) {
        TellNotMade(TraceGroup::Task, L"reaches", name);
        return call.Answer(FailureSign::HResult, ERROR_ACCESS_DENIED);
    }
    const Word result = call.Forward();
    const DWORD code = call.Code(FailureSign::HResult, result);
    Tell(TraceGroup::Task, L"reaches", name, code);
    if (isScheduler && code == ERROR_SUCCESS) {
        WatchTaskScheduler(*call.Parameter<const IID*>(3), *call.Parameter<void**>(4));
    }
    return result;
}

/// Permissions, which no action changes that has a dry run.
Word SetPermissions(HookedCall& call) {
    if (IsDryRun()) {
        TellNotMade(TraceGroup::File, L"sets permissions", L"(by handle)");
        return call.Answer(FailureSign::Status, ERROR_ACCESS_DENIED);
    }
    const Word result = call.Forward();
    Tell(TraceGroup::File, L"sets permissions", L"(by handle)",
         call.Code(FailureSign::Status, result));
    return result;
}

constexpr TaskStep kSteps[] = {
    {"CoInitializeEx", L"begins", L"COM"},
    {"CreateXmlReader", L"reads XML", L"by XmlLite"},
    {"CreateXmlWriter", L"writes XML", L"by XmlLite"},
};

} // namespace

std::vector<Hook> OtherHooks() {
    std::vector<Hook> hooks = {
        {"MsiProcessMessage", SendMessage},
        {"MsiGetPropertyW", ReadProperty},
        {"OutputDebugStringW", SendToDebugger},
        {"OutputDebugStringA", SendNarrowToDebugger},
        {"fputws", PutText},
        {"fputwc", PutCharacter},
        {"fwprintf", PutFormatted},
        {"fflush", WriteOut},
        {"WriteFile", WriteToFile},
        {"CloseHandle", CloseAnyHandle},
        {"CoCreateInstance", CreateObject},
        {"SetSecurityInfo", SetPermissions},
    };
    AddRows(hooks, kSteps, RunTaskStep);
    return hooks;
}

} // namespace halvard_runner
