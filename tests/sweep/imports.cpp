#include "imports.h"

#include "stand_ins.h"

#include <objidl.h>
#include <shellapi.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <iterator>
#include <mutex>
#include <set>
#include <stdexcept>
#include <utility>

namespace halvard_sweep {

namespace {

constexpr std::size_t kMostImports = 256;

struct Import {
    std::string name;
    void* original = nullptr;
    FailureSign sign = FailureSign::None;
    int calls = 0;
};

std::vector<Import> imports;
const FunctionTable* functions = nullptr;
// One that was looked up.
std::string unknown;
Failure wanted;
bool failed = false;
std::atomic<DWORD> countedThread = 0;

// What is held, by the function that gives it back and its value. The other one acquired it.
using Holding = std::pair<std::string, Word>;
std::map<Holding, std::string> held;
std::map<std::string, std::vector<IUnknown*>> objects;
std::mutex heldLock;

enum class Succeeds { NonZero, NotAllOnes, Zero, NotNegative };

constexpr int kResult = -1;

struct Acquisition {
    const char* function;
    Succeeds when;
    int where; // kResult, or the parameter that points to it
    const char* givenBackBy;
};

constexpr Acquisition kAcquisitions[] = {
    {"malloc", Succeeds::NonZero, kResult, "free"},
    {"calloc", Succeeds::NonZero, kResult, "free"},
    {"realloc", Succeeds::NonZero, kResult, "free"},
    {"_strdup", Succeeds::NonZero, kResult, "free"},
    {"LocalAlloc", Succeeds::NonZero, kResult, "LocalFree"},
    {"SysAllocString", Succeeds::NonZero, kResult, "SysFreeString"},
    {"CreateFileW", Succeeds::NotAllOnes, kResult, "CloseHandle"},
    {"CreateEventA", Succeeds::NonZero, kResult, "CloseHandle"},
    {"CreateSemaphoreA", Succeeds::NonZero, kResult, "CloseHandle"},
    {"OpenProcess", Succeeds::NonZero, kResult, "CloseHandle"},
    {"CreatePipe", Succeeds::NonZero, 0, "CloseHandle"},
    {"CreatePipe", Succeeds::NonZero, 1, "CloseHandle"},
    {"DuplicateHandle", Succeeds::NonZero, 3, "CloseHandle"},
    {"NtOpenFile", Succeeds::NotNegative, 0, "CloseHandle"},
    {"FindFirstFileW", Succeeds::NotAllOnes, kResult, "FindClose"},
    {"OpenSCManagerW", Succeeds::NonZero, kResult, "CloseServiceHandle"},
    {"OpenServiceW", Succeeds::NonZero, kResult, "CloseServiceHandle"},
    {"CreateServiceW", Succeeds::NonZero, kResult, "CloseServiceHandle"},
    {"RegOpenKeyExW", Succeeds::Zero, 4, "RegCloseKey"},
    {"RegCreateKeyExW", Succeeds::Zero, 7, "RegCloseKey"},
    {"RegisterEventSourceW", Succeeds::NonZero, kResult, "DeregisterEventSource"},
    {"MsiCreateRecord", Succeeds::NonZero, kResult, "MsiCloseHandle"},
    {"LoadLibraryA", Succeeds::NonZero, kResult, "FreeLibrary"},
    {"LoadLibraryW", Succeeds::NonZero, kResult, "FreeLibrary"},
    {"AllocateAndInitializeSid", Succeeds::NonZero, 10, "FreeSid"},
    {"SetEntriesInAclW", Succeeds::Zero, 3, "LocalFree"},
    {"GetSecurityInfo", Succeeds::Zero, 7, "LocalFree"},
    {"StringFromCLSID", Succeeds::NotNegative, 1, "CoTaskMemFree"},
    {"SHGetFolderLocation", Succeeds::NotNegative, 4, "IMalloc::Free"},
    {"SetupDiGetClassDevsW", Succeeds::NotAllOnes, kResult, "SetupDiDestroyDeviceInfoList"},
};

// Functions that hand out an object which counts its references, and the parameter for it.
constexpr std::pair<const char*, std::size_t> kObjects[] = {
    {"CoCreateInstance", 4},
    {"CreateXmlReader", 1},
    {"CreateXmlWriter", 1},
    {"CreateXmlReaderInputWithEncodingName", 5},
    {"CreateXmlWriterOutputWithEncodingName", 3},
};

bool Succeeded(Succeeds when, Word result) {
    const auto low = static_cast<std::int32_t>(result);
    switch (when) {
    case Succeeds::NonZero:
        return result != 0;
    case Succeeds::NotAllOnes:
        return result != ~Word{0};
    case Succeeds::Zero:
        return low == 0;
    case Succeeds::NotNegative:
        return low >= 0;
    }
    return false;
}

bool GivesBack(const std::string& function) {
    const auto isGivenBackBy = [&](const Acquisition& each) {
        return function == each.givenBackBy;
    };
    return function == "realloc" ||
           std::any_of(std::begin(kAcquisitions), std::end(kAcquisitions), isGivenBackBy);
}

bool IsTracked(const std::string& function) {
    for (const Acquisition& each : kAcquisitions) {
        if (function == each.function) {
            return true;
        }
    }
    for (const auto& [name, parameter] : kObjects) {
        if (function == name) {
            return true;
        }
    }
    return GivesBack(function) || HasStandIn(function) || function == "SHGetMalloc" ||
           function == "CoInitializeEx" || function == "CoUninitialize" ||
           function == "GetProcAddress";
}

void Hold(const std::string& givenBackBy, Word value, const std::string& function) {
    if (value != 0) {
        held[{givenBackBy, value}] = function;
    }
}

void Hold(const char* givenBackBy, const void* value, const std::string& function) {
    Hold(givenBackBy, reinterpret_cast<std::uintptr_t>(value), function);
}

/// The shell's allocator, by which what it hands out is given back.
class Allocator : public IMalloc {
public:
    explicit Allocator(IMalloc* real) : real_(real) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID id, void** object) override {
        return real_->QueryInterface(id, object);
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    void* STDMETHODCALLTYPE Alloc(SIZE_T size) override { return real_->Alloc(size); }
    void* STDMETHODCALLTYPE Realloc(void* block, SIZE_T size) override {
        return real_->Realloc(block, size);
    }
    void STDMETHODCALLTYPE Free(void* block) override {
        {
            const std::lock_guard<std::mutex> lock(heldLock);
            held.erase({"IMalloc::Free", reinterpret_cast<std::uintptr_t>(block)});
        }
        real_->Free(block);
    }
    SIZE_T STDMETHODCALLTYPE GetSize(void* block) override { return real_->GetSize(block); }
    int STDMETHODCALLTYPE DidAlloc(void* block) override { return real_->DidAlloc(block); }
    void STDMETHODCALLTYPE HeapMinimize() override { real_->HeapMinimize(); }

private:
    IMalloc* real_;
};

Word& Pointed(Word argument) {
    return *reinterpret_cast<Word*>(static_cast<std::uintptr_t>(argument));
}

void HoldChild(const std::string& function, Arguments arguments) {
    if (function == "CreateProcessW") {
        const auto& child = reinterpret_cast<PROCESS_INFORMATION&>(Pointed(arguments[9]));
        Hold("CloseHandle", child.hProcess, function);
        Hold("CloseHandle", child.hThread, function);
    } else if (function == "ShellExecuteExW") {
        const auto& execution = reinterpret_cast<SHELLEXECUTEINFOW&>(Pointed(arguments[0]));
        Hold("CloseHandle", execution.hProcess, function);
    }
}

void HoldObject(const std::string& function, Arguments arguments, Word result) {
    for (const auto& [name, parameter] : kObjects) {
        if (function == name && Succeeded(Succeeds::NotNegative, result)) {
            auto* const object = *reinterpret_cast<IUnknown**>(&Pointed(arguments[parameter]));
            // One reference of this program's own: whether it is the last one tells who is left.
            object->AddRef();
            objects[function].push_back(object);
        }
    }
}

void NoteInitialization(const std::string& function, Word result) {
    static Word count = 0;
    if (function == "CoInitializeEx" && Succeeded(Succeeds::NotNegative, result)) {
        Hold("CoUninitialize", ++count, function);
    } else if (function == "CoUninitialize" && held.erase({"CoUninitialize", count}) != 0) {
        --count;
    }
}

void* ThunkOf(const std::string& name, void* original);

// The function that was looked up, or what takes its place.
Word AnswerLookUp(Arguments arguments, Word result) {
    const auto replacement = [](const char* name, void* address) {
        if (functions->count(name) == 0) {
            unknown = name;
            return address;
        }
        return ThunkOf(name, address);
    };
    return halvard_runner::LookedUp(arguments, result, replacement);
}

Word Note(const std::string& function, Arguments arguments, Word result) {
    const std::lock_guard<std::mutex> lock(heldLock);
    for (const Acquisition& each : kAcquisitions) {
        if (function == each.function && Succeeded(each.when, result)) {
            Word value = each.where == kResult ? result : Pointed(arguments[each.where]);
            if (function == "MsiCreateRecord") {
                value = static_cast<std::uint32_t>(value);
            }
            Hold(each.givenBackBy, value, function);
        }
    }
    if (Succeeded(Succeeds::NonZero, static_cast<std::uint32_t>(result))) {
        HoldChild(function, arguments);
    }
    HoldObject(function, arguments, result);
    NoteInitialization(function, result);
    if (function == "SHGetMalloc" && Succeeded(Succeeds::NotNegative, result)) {
        auto& place = *reinterpret_cast<IMalloc**>(&Pointed(arguments[0]));
        static Allocator allocator(place);
        place = &allocator;
    }
    return function == "GetProcAddress" ? AnswerLookUp(arguments, result) : result;
}

// Before the call: another thread may be given the same value at once.
void NoteGivingBack(const std::string& function, Arguments arguments) {
    if (!GivesBack(function)) {
        return;
    }
    const std::lock_guard<std::mutex> lock(heldLock);
    const Word value =
        function == "MsiCloseHandle" ? static_cast<std::uint32_t>(arguments[0]) : arguments[0];
    held.erase({function == "realloc" ? "free" : function, value});
}

// What would keep the next run from its machine: a file in use, a service that cannot go.
void GiveBack(const Holding& holding) {
    const auto& [by, value] = holding;
    void* const handle = reinterpret_cast<void*>(static_cast<std::uintptr_t>(value));
    if (by == "CloseHandle") {
        CloseHandle(handle);
    } else if (by == "FindClose") {
        FindClose(handle);
    } else if (by == "RegCloseKey") {
        RegCloseKey(static_cast<HKEY>(handle));
    } else if (by == "CloseServiceHandle") {
        CloseServiceHandle(static_cast<SC_HANDLE>(handle));
    }
}

Word Fail(FailureSign sign, FailureCode code) {
    const bool denied = code == FailureCode::AccessDenied;
    if (sign == FailureSign::Zero || sign == FailureSign::AllOnes) {
        SetLastError(denied ? ERROR_ACCESS_DENIED : ERROR_NOT_ENOUGH_MEMORY);
    } else if (sign == FailureSign::Null || sign == FailureSign::MinusOne) {
        errno = denied && sign == FailureSign::MinusOne ? EACCES : ENOMEM;
    }
    const DWORD noMemory =
        sign == FailureSign::HResult ? ERROR_OUTOFMEMORY : ERROR_NOT_ENOUGH_MEMORY;
    return halvard_runner::FailureResult(sign, denied ? ERROR_ACCESS_DENIED : noMemory);
}

Word Call(std::size_t index, Arguments arguments) {
    Import& import = imports[index];
    if (GetCurrentThreadId() == countedThread && import.sign != FailureSign::None) {
        ++import.calls;
        if (import.name == wanted.function && import.calls == wanted.position) {
            failed = true;
            return Fail(import.sign, wanted.code);
        }
    }
    NoteGivingBack(import.name, arguments);
    const std::optional<Word> stoodIn = StandIn(import.name, arguments);
    const Word result = stoodIn ? *stoodIn : halvard_runner::CallWith(import.original, arguments);
    const DWORD error = GetLastError();
    const Word noted = Note(import.name, arguments, result);
    SetLastError(error);
    return noted;
}

using ImportThunks = halvard_runner::Thunks<Call, kMostImports>;

FailureSign SignOf(const std::string& name) {
    const auto known = functions->find(name);
    if (known == functions->end()) {
        throw std::runtime_error("the table does not know how it fails: " + name);
    }
    return known->second;
}

// What takes the place of a function; itself where nothing has to.
void* ThunkOf(const std::string& name, void* original) {
    const FailureSign sign = SignOf(name);
    if (sign == FailureSign::None && !IsTracked(name)) {
        return original;
    }
    for (std::size_t index = 0; index < imports.size(); ++index) {
        if (imports[index].name == name) {
            imports[index].original = original;
            return ImportThunks::At(index);
        }
    }
    if (imports.size() == kMostImports) {
        throw std::runtime_error("too many imports");
    }
    imports.push_back({name, original, sign, 0});
    return ImportThunks::At(imports.size() - 1);
}

void RequireName(const char* name) {
    if (name == nullptr) {
        throw std::runtime_error("an import without a name");
    }
}

} // namespace

WatchedImports::WatchedImports(HMODULE library, const FunctionTable& table,
                               const Failure& failure) {
    imports.clear();
    imports.reserve(kMostImports);
    functions = &table;
    wanted = failure;
    failed = false;
    unknown.clear();
    // Their slots are left to the loader, which looks each function up.
    halvard_runner::VisitDelayedImports(library, [](const char* name, void**) {
        RequireName(name);
        SignOf(name);
    });
    halvard_runner::VisitImports(library, [this](const char* name, void** slot) {
        RequireName(name);
        void* const thunk = ThunkOf(name, *slot);
        if (thunk != *slot) {
            patches_.Redirect(slot, thunk);
        }
    });
}

void WatchedImports::BeginInThisThread() {
    countedThread = GetCurrentThreadId();
}

void WatchedImports::End() {
    countedThread = 0;
}

std::map<std::string, int> WatchedImports::Calls() {
    std::map<std::string, int> calls;
    for (const Import& each : imports) {
        if (each.calls > 0) {
            calls[each.name] = each.calls;
        }
    }
    return calls;
}

std::string WatchedImports::Unknown() {
    return unknown;
}

bool WatchedImports::HasFailed() {
    return failed;
}

std::map<std::string, int> WatchedImports::TakeKept() {
    std::map<std::string, int> kept;
    // Without the lock: an object may give back what it holds.
    for (const auto& [function, made] : std::exchange(objects, {})) {
        for (IUnknown* const object : made) {
            kept[function] += object->Release() == 0 ? 0 : 1;
        }
    }
    const std::lock_guard<std::mutex> lock(heldLock);
    for (const auto& [holding, function] : std::exchange(held, {})) {
        ++kept[function];
        GiveBack(holding);
    }
    for (auto each = kept.begin(); each != kept.end();) {
        each = each->second == 0 ? kept.erase(each) : std::next(each);
    }
    return kept;
}

} // namespace halvard_sweep
