#include "trace/hook.h"

#include "trace/who_holds.h"

#include "runtime/owned.h"

#include <winternl.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <set>
#include <utility>

namespace halvard_runner {

namespace {

using namespace trace_words;
using halvard::OwnedHandle;

constexpr const wchar_t* kOpensToRead = L"opens to read";
constexpr const wchar_t* kOpensToWrite = L"opens to write";
constexpr const wchar_t* kCreates = L"creates file";
constexpr const wchar_t* kAsks = L"asks for";
// What headers for older systems lack: a deletion with flags.
constexpr DWORD kFileDispositionInfoEx = 21;

auto& files = NeverDestroyed<std::map<HANDLE, std::wstring>>();
auto& searches = NeverDestroyed<std::map<HANDLE, std::wstring>>();
// Of a dry run: what would have gone.
auto& gone = NeverDestroyed<std::set<std::wstring>>();
// The last question, with its answer.
auto& lastAsked = NeverDestroyed<std::wstring>();
auto& lock = NeverDestroyed<std::mutex>();

std::wstring Folded(const std::wstring& path) {
    std::wstring folded = ShownPath(path);
    folded.resize(folded.find_last_not_of(L"\\/") + 1);
    std::replace(folded.begin(), folded.end(), L'/', L'\\');
    CharLowerBuffW(folded.data(), static_cast<DWORD>(folded.size()));
    return folded;
}

bool IsGone(const std::wstring& path) {
    const std::lock_guard<std::mutex> guard(lock);
    return gone.count(Folded(path)) != 0;
}

void Remember(std::map<HANDLE, std::wstring>& handles, HANDLE handle, const std::wstring& path) {
    const std::lock_guard<std::mutex> guard(lock);
    handles[handle] = path;
}

std::wstring PathOf(std::map<HANDLE, std::wstring>& handles, HANDLE handle) {
    const std::lock_guard<std::mutex> guard(lock);
    const auto known = handles.find(handle);
    return known == handles.end() ? L"(unknown)" : known->second;
}

std::wstring InFolder(const std::wstring& folder, const std::wstring& name) {
    return folder + (folder.empty() || folder.back() == L'\\' ? L"" : L"\\") + name;
}

/// The library's long paths have the form already that Windows takes whatever their length.
DWORD AttributesOf(const std::wstring& path) {
    return GetFileAttributesW(path.c_str());
}

bool IsFolder(DWORD attributes) {
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

void TellRemoval(const wchar_t* what, const std::wstring& path, DWORD code) {
    TraceDetails details;
    const bool isHeld = code == ERROR_SHARING_VIOLATION || code == ERROR_ACCESS_DENIED ||
                        code == ERROR_LOCK_VIOLATION;
    const DWORD attributes = isHeld ? AttributesOf(path) : INVALID_FILE_ATTRIBUTES;
    if (attributes != INVALID_FILE_ATTRIBUTES) {
        if ((attributes & FILE_ATTRIBUTE_READONLY) != 0) {
            details.emplace_back(L"attribute", L"read-only");
        } else if (IsFolder(attributes)) {
            details.emplace_back(L"held by", L"somebody; for a folder nobody can be asked");
        } else {
            details.emplace_back(L"held by", WhoHolds(ShownPath(path)));
        }
    }
    if (IsDryRun()) {
        TellNotMade(TraceGroup::File, what, ShownPath(path), code, std::move(details));
    } else {
        Tell(TraceGroup::File, what, ShownPath(path), code, std::move(details));
    }
}

/// Whether a folder holds nothing but what would have gone. Listed by a handle that shares all: the
/// library may hold the folder for its removal.
bool WouldBeEmpty(const std::wstring& folder) {
    const OwnedHandle opened(CreateFileW(folder.c_str(), FILE_LIST_DIRECTORY, kShareAll, nullptr,
                                         OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    alignas(FILE_FULL_DIR_INFO) unsigned char listing[8192] = {};
    while (opened && GetFileInformationByHandleEx(opened.get(), FileFullDirectoryInfo, listing,
                                                  sizeof listing) != FALSE) {
        const unsigned char* next = listing;
        const FILE_FULL_DIR_INFO* info = nullptr;
        do {
            info = reinterpret_cast<const FILE_FULL_DIR_INFO*>(next);
            const std::wstring name(info->FileName, info->FileNameLength / sizeof(wchar_t));
            if (name != L"." && name != L".." && !IsGone(InFolder(folder, name))) {
                return false;
            }
            next += info->NextEntryOffset;
        } while (info->NextEntryOffset != 0);
    }
    return opened && GetLastError() == ERROR_NO_MORE_FILES;
}

enum class Entry { File, Folder };

/// What a removal would answer: it opens for the removal and closes again. What it would remove is
/// taken for gone from then on.
DWORD TryRemoval(const std::wstring& path, Entry entry, bool alreadyOpen) {
    const DWORD attributes = AttributesOf(path);
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        return GetLastError();
    }
    if (IsGone(path)) {
        return ERROR_FILE_NOT_FOUND;
    }
    if (IsFolder(attributes) != (entry == Entry::Folder)) {
        return entry == Entry::Folder ? ERROR_DIRECTORY : ERROR_ACCESS_DENIED;
    }
    const bool isLink = (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
    if (entry == Entry::Folder && !isLink && !WouldBeEmpty(path)) {
        return ERROR_DIR_NOT_EMPTY;
    }
    if ((attributes & FILE_ATTRIBUTE_READONLY) != 0) {
        return ERROR_ACCESS_DENIED;
    }
    if (!alreadyOpen) {
        const OwnedHandle opened(
            CreateFileW(path.c_str(), DELETE, kShareAll, nullptr, OPEN_EXISTING,
                        FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
        if (!opened) {
            return GetLastError();
        }
    }
    const std::lock_guard<std::mutex> guard(lock);
    gone.insert(Folded(path));
    return ERROR_SUCCESS;
}

const wchar_t* OpeningOf(DWORD access, DWORD disposition) {
    if (disposition != OPEN_EXISTING) {
        return kCreates;
    }
    if ((access & (GENERIC_WRITE | GENERIC_ALL | FILE_WRITE_DATA | FILE_APPEND_DATA)) != 0) {
        return kOpensToWrite;
    }
    return (access & DELETE) != 0 ? kOpensToRemove : kOpensToRead;
}

Word OpenFile(HookedCall& call) {
    const std::wstring path = call.Text(0);
    const auto access = call.Parameter<DWORD>(1);
    const std::wstring what = OpeningOf(access, call.Parameter<DWORD>(4));
    const bool changes = what == kCreates || what == kOpensToWrite ||
                         (call.Parameter<DWORD>(5) & FILE_FLAG_DELETE_ON_CLOSE) != 0;
    if (changes && IsDryRun()) {
        TellNotMade(TraceGroup::File, what, ShownPath(path));
        return call.Answer(FailureSign::AllOnes, ERROR_ACCESS_DENIED);
    }
    const Word result = call.Forward();
    const DWORD code = call.Code(FailureSign::AllOnes, result);
    if (code == ERROR_SUCCESS) {
        Remember(files, PointerOf<HANDLE>(result), path);
    }
    // Folders are opened to be listed, and much to be asked about: the answers are told elsewhere.
    const bool readsData = (access & (GENERIC_READ | GENERIC_ALL)) != 0;
    if (what == kOpensToRemove && code != ERROR_SUCCESS) {
        TellRemoval(kOpensToRemove, path, code);
    } else if (changes || readsData || code != ERROR_SUCCESS) {
        Tell(TraceGroup::File, what, ShownPath(path), code);
    }
    return result;
}

/// An entry of a folder that is held. What it is opened for the trace tells where it is refused;
/// one that has gone is no refusal.
Word OpenEntry(HookedCall& call) {
    const auto* const object = call.Parameter<const OBJECT_ATTRIBUTES*>(2);
    const std::wstring name(object->ObjectName->Buffer,
                            object->ObjectName->Length / sizeof(wchar_t));
    const std::wstring path = object->RootDirectory == nullptr
                                  ? name
                                  : InFolder(PathOf(files, object->RootDirectory), name);
    const auto access = call.Parameter<ACCESS_MASK>(1);
    if (IsDryRun() && (call.Parameter<ULONG>(5) & FILE_DELETE_ON_CLOSE) != 0) {
        TellRemoval(kRemoves, path, ERROR_ACCESS_DENIED);
        return call.Answer(FailureSign::NtStatus, ERROR_ACCESS_DENIED);
    }
    const Word result = call.Forward();
    const DWORD status = call.Code(FailureSign::NtStatus, result);
    if (status == ERROR_SUCCESS) {
        Remember(files, *call.Parameter<HANDLE*>(0), path);
        return result;
    }
    const DWORD code = RtlNtStatusToDosError(static_cast<NTSTATUS>(status));
    if (!MeansMissing(code)) {
        const bool toList = (access & FILE_LIST_DIRECTORY) != 0;
        const wchar_t* const opens = (access & DELETE) != 0 ? kOpensToRemove : kOpensToRead;
        TellRemoval(toList ? opens : kRemoves, path, code);
    }
    return result;
}

bool MeansUnknownClass(DWORD code) {
    return code == ERROR_INVALID_FUNCTION || code == ERROR_NOT_SUPPORTED ||
           code == ERROR_INVALID_PARAMETER || code == ERROR_CALL_NOT_IMPLEMENTED ||
           code == ERROR_INVALID_LEVEL;
}

/// The library removes by it, and for nothing else.
Word SetFileInformation(HookedCall& call) {
    const auto infoClass = call.Parameter<DWORD>(1);
    const std::wstring path = PathOf(files, call.Parameter<HANDLE>(0));
    const bool removes = infoClass == FileDispositionInfo || infoClass == kFileDispositionInfoEx;
    if (IsDryRun()) {
        DWORD code = ERROR_ACCESS_DENIED;
        if (removes) {
            const DWORD attributes = AttributesOf(path);
            code = TryRemoval(path, IsFolder(attributes) ? Entry::Folder : Entry::File, true);
        }
        TellRemoval(kRemoves, path, code);
        return call.Answer(FailureSign::Zero, code);
    }
    const Word result = call.Forward();
    const DWORD code = call.Code(FailureSign::Zero, result);
    // Then the library asks once more, in the older way.
    const bool isAskedAgain = infoClass == kFileDispositionInfoEx && MeansUnknownClass(code);
    if (removes && !isAskedAgain) {
        TellRemoval(kRemoves, path, code);
    }
    return result;
}

/// A function that removes by a path.
struct Removal {
    const char* function;
    FailureSign sign;
    Entry entry;
};

Word RunRemoval(const Removal& function, HookedCall& call) {
    const std::wstring path = call.Text(0);
    Word result = 0;
    DWORD code = ERROR_SUCCESS;
    if (IsDryRun()) {
        code = TryRemoval(path, function.entry, false);
        result = call.Answer(function.sign, code);
    } else {
        result = call.Forward();
        code = call.Code(function.sign, result);
    }
    if (code == ERROR_DIR_NOT_EMPTY) {
        Tell(TraceGroup::File, L"is not empty", ShownPath(path));
    } else {
        TellRemoval(kRemoves, path, code);
    }
    return result;
}

/// A function that changes something by a path, and not for an action that has a dry run.
struct Change {
    const char* function;
    const wchar_t* what;
    FailureSign sign;
    std::size_t path;
    const wchar_t* with; // what a second path or a number is, or null
};

Word RunChange(const Change& function, HookedCall& call) {
    const std::wstring path = ShownPath(call.Text(function.path));
    if (IsDryRun()) {
        TellNotMade(TraceGroup::File, function.what, path);
        return call.Answer(function.sign, ERROR_ACCESS_DENIED);
    }
    TraceDetails details;
    if (function.with != nullptr) {
        const std::wstring other = call.Text(function.path + 1);
        details.emplace_back(function.with, other.empty() ? L"nothing" : ShownPath(other));
    }
    const Word result = call.Forward();
    Tell(TraceGroup::File, function.what, path, call.Code(function.sign, result),
         std::move(details));
    return result;
}

/// Whether a question and its answer are others than those before: some are asked twice.
bool IsNews(const std::wstring& asked) {
    const std::lock_guard<std::mutex> guard(lock);
    return std::exchange(lastAsked, asked) != asked;
}

/// A question about a path, and how it says no.
struct Question {
    const char* function;
    const wchar_t* what;
    FailureSign no;
};

Word RunQuestion(const Question& question, HookedCall& call) {
    const std::wstring path = call.Text(0);
    const bool asksForEmpty = std::string(question.function) == "PathIsDirectoryEmptyW";
    Word result = 0;
    if (IsDryRun() && IsGone(path)) {
        result = call.Answer(question.no, ERROR_FILE_NOT_FOUND);
    } else if (IsDryRun() && asksForEmpty) {
        result = IsFolder(AttributesOf(path)) && WouldBeEmpty(path) ? 1 : 0;
    } else {
        result = call.Forward();
    }
    const bool yes = question.no == FailureSign::AllOnes
                         ? static_cast<DWORD>(result) != INVALID_FILE_ATTRIBUTES
                         : static_cast<DWORD>(result) != 0;
    if (IsNews(std::wstring(question.what) + L" " + path + (yes ? L"+" : L"-"))) {
        Tell(TraceGroup::File, question.what, ShownPath(path), ERROR_SUCCESS,
             {{kAnswer, yes ? L"yes" : L"no"}});
    }
    return result;
}

void TellListed(const std::wstring& folder, const WIN32_FIND_DATAW& found) {
    const std::wstring name = found.cFileName;
    if (name != L"." && name != L"..") {
        Tell(TraceGroup::File, kLists, folder + name, ERROR_SUCCESS,
             {{kKind, IsFolder(found.dwFileAttributes) ? L"folder" : L"file"}});
    }
}

Word ListFirst(HookedCall& call) {
    const std::wstring pattern = ShownPath(call.Text(0));
    const Word result = call.Forward();
    const DWORD code = call.Code(FailureSign::AllOnes, result);
    if (code != ERROR_SUCCESS) {
        Tell(TraceGroup::File, kLists, pattern, code);
        return result;
    }
    const std::wstring folder = pattern.substr(0, pattern.find_last_of(L"\\/") + 1);
    Remember(searches, PointerOf<HANDLE>(result), folder);
    TellListed(folder, *call.Parameter<const WIN32_FIND_DATAW*>(1));
    return result;
}

Word ListNext(HookedCall& call) {
    const Word result = call.Forward();
    if (static_cast<BOOL>(result) != FALSE) {
        TellListed(PathOf(searches, call.Parameter<HANDLE>(0)),
                   *call.Parameter<const WIN32_FIND_DATAW*>(1));
    }
    return result;
}

Word EndListing(HookedCall& call) {
    {
        // Before the call: another thread may be given the same value at once.
        const std::lock_guard<std::mutex> guard(lock);
        searches.erase(call.Parameter<HANDLE>(0));
    }
    return call.Forward();
}

constexpr Removal kRemovals[] = {
    {"RemoveDirectoryW", FailureSign::Zero, Entry::Folder},
    {"DeleteFileW", FailureSign::Zero, Entry::File},
    {"_wremove", FailureSign::MinusOne, Entry::File},
};

constexpr Change kChanges[] = {
    {"MoveFileExW", L"moves", FailureSign::Zero, 0, L"to"},
    {"SetFileAttributesW", L"sets attributes", FailureSign::Zero, 0, nullptr},
    {"SHCreateDirectoryExW", L"creates folder", FailureSign::Status, 1, nullptr},
};

constexpr Question kQuestions[] = {
    {"GetFileAttributesW", kAsks, FailureSign::AllOnes},
    {"PathFileExistsW", kAsks, FailureSign::Zero},
    {"PathIsDirectoryW", L"asks for folder", FailureSign::Zero},
    {"PathIsDirectoryEmptyW", L"asks if empty", FailureSign::Zero},
};

} // namespace

void ForgetFileHandle(HANDLE handle) {
    const std::lock_guard<std::mutex> guard(lock);
    files.erase(handle);
}

std::vector<Hook> FileHooks() {
    std::vector<Hook> hooks = {
        {"CreateFileW", OpenFile},
        {"NtOpenFile", OpenEntry},
        {"SetFileInformationByHandle", SetFileInformation},
        {"FindFirstFileW", ListFirst},
        {"FindNextFileW", ListNext},
        {"FindClose", EndListing},
    };
    AddRows(hooks, kRemovals, RunRemoval);
    AddRows(hooks, kChanges, RunChange);
    AddRows(hooks, kQuestions, RunQuestion);
    return hooks;
}

} // namespace halvard_runner
