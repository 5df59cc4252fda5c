#pragma once

#include "import_hook.h"

#include <msi.h>
#include <msiquery.h>

#include <string>
#include <vector>

namespace halvard_tests {

/// Watches the calls that send a record to the installer, in their order, and lets them through.
/// Each call is one line, such as "set 0 text" or "process 0x4000000 in 5".
class RecordCalls {
public:
    const std::vector<std::wstring>& Lines() const { return lines_; }

    /// The texts that were set as field 0, in order.
    std::vector<std::wstring> Texts() const {
        std::vector<std::wstring> texts;
        const std::wstring prefix = L"set 0 ";
        for (const std::wstring& line : lines_) {
            if (line.compare(0, prefix.size(), prefix) == 0) {
                texts.push_back(line.substr(prefix.size()));
            }
        }
        return texts;
    }

private:
    std::vector<std::wstring> lines_;

    HOOK(create_, MsiCreateRecord, [this](UINT fields) {
        lines_.push_back(L"create " + std::to_wstring(fields));
        return create_.Original(fields);
    });
    HOOK(set_, MsiRecordSetStringW, [this](MSIHANDLE record, UINT field, LPCWSTR text) {
        lines_.push_back(L"set " + std::to_wstring(field) + L" " + text);
        return set_.Original(record, field, text);
    });
    HOOK(process_, MsiProcessMessage,
         [this](MSIHANDLE session, INSTALLMESSAGE type, MSIHANDLE record) {
             wchar_t number[16] = {};
             wsprintfW(number, L"0x%x", static_cast<UINT>(type));
             lines_.push_back(std::wstring(L"process ") + number + L" in " +
                              std::to_wstring(session));
             return process_.Original(session, type, record);
         });
    HOOK(close_, MsiCloseHandle, [this](MSIHANDLE handle) {
        lines_.push_back(L"close");
        return close_.Original(handle);
    });
};

} // namespace halvard_tests
