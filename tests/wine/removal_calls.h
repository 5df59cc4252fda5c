#pragma once

#include "begins.h"
#include "call_trace.h"
#include "import_hook.h"

#include <windows.h>

#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>

// The calls by which a tree is removed, watched by the paths of what they are made for.

namespace halvard_tests {

constexpr auto kDispositionWithFlags = static_cast<FILE_INFO_BY_HANDLE_CLASS>(21);

// How the lines of calls begin that are made for an entry: its opening by the handle of its folder,
// its deletion, the question for its attributes and for its tag, and the listing of a folder.
inline std::wstring Opening(const std::wstring& path) {
    return L"open entry " + path + L" ";
}
inline std::wstring Deletion(const std::wstring& path) {
    return L"change entry " + path + L" ";
}
inline std::wstring Question(const std::wstring& path) {
    return L"about " + path + L" 0";
}
inline std::wstring QuestionForTag(const std::wstring& path) {
    return L"about " + path + L" 9";
}
inline std::wstring Listing(const std::wstring& path) {
    return L"about " + path + L" 10";
}

/// Changes what the system answers about files and folders. Paths are those of the first opening,
/// without the prefix of the extended-length form.
class ChangedAnswers {
public:
    /// May change an entry of a listing.
    std::function<void(const std::wstring& folder, const std::wstring& name,
                       FILE_ID_BOTH_DIR_INFO& entry)>
        listed;

    /// Lets one entry of a folder be changed.
    void List(const std::wstring& folder, const std::wstring& name,
              std::function<void(FILE_ID_BOTH_DIR_INFO& entry)> change) {
        listed = [folder, name, change = std::move(change)](const std::wstring& in,
                                                            const std::wstring& entry, auto& info) {
            if (in == folder && entry == name) {
                change(info);
            }
        };
    }

    /// What has the attribute of a reparse point, asked by its handle.
    std::set<std::wstring> points;
    /// The tags that are read there.
    std::map<std::wstring, DWORD> tags;

    void BecomeLink(const std::wstring& path) {
        points.insert(path);
        tags[path] = IO_REPARSE_TAG_MOUNT_POINT;
    }

protected:
    explicit ChangedAnswers(const CallTrace& trace) : trace_(trace) {}

private:
    void Change(const std::wstring& path, FILE_INFO_BY_HANDLE_CLASS type, void* data) const {
        if (type == FileIdBothDirectoryInfo && listed) {
            auto* next = static_cast<BYTE*>(data);
            ULONG offset = 0;
            do {
                next += offset;
                auto& entry = *reinterpret_cast<FILE_ID_BOTH_DIR_INFO*>(next);
                offset = entry.NextEntryOffset;
                listed(path, std::wstring(entry.FileName, entry.FileNameLength / sizeof(wchar_t)),
                       entry);
            } while (offset != 0);
        } else if (type == FileBasicInfo && points.count(path) != 0) {
            static_cast<FILE_BASIC_INFO*>(data)->FileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
        } else if (type == FileAttributeTagInfo && tags.count(path) != 0) {
            *static_cast<FILE_ATTRIBUTE_TAG_INFO*>(data) = {
                FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT, tags.at(path)};
        }
    }

    const CallTrace& trace_;

    HOOK(asking_, GetFileInformationByHandleEx,
         [this](HANDLE file, FILE_INFO_BY_HANDLE_CLASS type, LPVOID data, DWORD size) -> BOOL {
             const BOOL done = asking_.Original(file, type, data, size);
             if (done != FALSE) {
                 Change(trace_.Name(file), type, data);
             }
             return done;
         });
};

/// Watches the calls by which a tree is removed, and may change what the system answers them.
class RemovalCalls : public ChangedAnswers, public CallTrace {
public:
    RemovalCalls()
        : ChangedAnswers(static_cast<const CallTrace&>(*this)), CallTrace(kFiles | kFileQuestions) {
    }

    /// Does something before each call of which the line begins so.
    void Before(const std::wstring& start, std::function<void()> action) {
        before = [start, action = std::move(action)](const std::wstring& line) {
            if (Begins(line, start)) {
                action();
            }
        };
    }

    /// The entries that were to be deleted by their handles, in their order. Where no flags are
    /// known, the first is tried with them and once more without: these two count as one.
    Lines Deletions() const {
        Lines paths;
        bool mayBeWithout = false;
        for (const std::wstring& change : Rests(L"change entry ")) {
            const std::size_t blank = change.rfind(L' ');
            const std::wstring path = change.substr(0, blank);
            const bool hasFlags =
                change.substr(blank + 1) == std::to_wstring(kDispositionWithFlags);
            if (hasFlags || !mayBeWithout || path != paths.back()) {
                paths.push_back(path);
            }
            mayBeWithout = hasFlags;
        }
        return paths;
    }
};

} // namespace halvard_tests
