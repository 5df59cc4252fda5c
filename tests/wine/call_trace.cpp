#include "call_trace.h"

#include "begins.h"

#include <algorithm>
#include <iterator>

namespace halvard_tests {

Lines Beginning(const Lines& lines, const Lines& starts) {
    Lines found;
    std::copy_if(
        lines.begin(), lines.end(), std::back_inserter(found), [&](const std::wstring& line) {
            return std::any_of(starts.begin(), starts.end(),
                               [&](const std::wstring& start) { return Begins(line, start); });
        });
    return found;
}

CallTrace::CallTrace(unsigned groups, std::size_t failing, DWORD code)
    : failing_(failing), code_(code) {
    for (const DescribedCall& call : DescribedCalls()) {
        if ((call.group & groups) != 0) {
            hooks_.push_back(call.hook(*this));
        }
    }
}

void CallTrace::Fail(const std::wstring& start, DWORD code, std::size_t nth) {
    failStart_ = start;
    failNth_ = nth;
    failSeen_ = 0;
    code_ = code;
}

Lines CallTrace::Rests(const std::wstring& start) const {
    Lines rests = Of({start});
    for (std::wstring& line : rests) {
        line.erase(0, start.size());
    }
    return rests;
}

Lines CallTrace::LeftOpen() const {
    Lines left;
    for (const auto& [handle, opening] : open_) {
        left.push_back(opening.line);
    }
    std::sort(left.begin(), left.end());
    return left;
}

int CallTrace::KernelHandlesLeft() const {
    return static_cast<int>(std::count_if(open_.begin(), open_.end(), [](const auto& each) {
        return each.first.first == Resource::kernel;
    }));
}

std::wstring CallTrace::Name(Resource kind, const void* handle) const {
    const auto found = open_.find({kind, handle});
    return found != open_.end()           ? found->second.name
           : handle == HKEY_LOCAL_MACHINE ? std::wstring(L"HKLM")
           : handle == HKEY_CURRENT_USER  ? std::wstring(L"HKCU")
           : handle == HKEY_USERS         ? std::wstring(L"HKU")
                                          : std::wstring(L"unknown");
}

bool CallTrace::Comes(const std::wstring& line) {
    lines_.push_back(line);
    ++count_;
    if (before) {
        before(line);
    }
    const bool isMeant = !failStart_.empty() && Begins(line, failStart_);
    return count_ != failing_ && !(isMeant && (failNth_ == 0 || ++failSeen_ == failNth_));
}

void CallTrace::Closes(const std::wstring& line, Resource kind, const void* handle) {
    lines_.push_back(line);
    open_.erase({kind, handle});
}

void CallTrace::Opened(Resource kind, const void* handle, const std::wstring& name) {
    open_[{kind, handle}] = {lines_.back(), name};
}

} // namespace halvard_tests
