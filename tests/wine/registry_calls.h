#pragma once

#include "import_hook.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace halvard_tests {

/// Watches the calls that open, read, change and close registry keys, in their order, and lets them
/// through, but for the one that is to fail. Each call is one line that names the key by its whole
/// path, such as "open HKLM\SOFTWARE\Zenvo 0xf003f" or "set HKLM\SOFTWARE\Zenvo\Install Telo 4 4
/// bytes". Options that are not 0 follow the access, such as " options 0x1".
class RegistryCalls {
public:
    /// With `failing` not 0 the call of this number, counted from 1, is not made and gives `code`;
    /// one that would open or create a key leaves a handle of no use, which nobody may use or
    /// close. Keys are closed all the same: those calls do not count.
    explicit RegistryCalls(std::size_t failing = 0, LSTATUS code = ERROR_ACCESS_DENIED)
        : failing_(failing), code_(code) {}

    /// Is called before each call that counts, with its number. The calls that it makes itself are
    /// neither lines nor counted.
    std::function<void(std::size_t number)> before;

    const std::vector<std::wstring>& Lines() const { return lines_; }

    /// How many calls count so far.
    std::size_t Count() const { return count_; }

    /// The whole path of a predefined or an opened key.
    std::wstring Name(HKEY key) const {
        const auto found = paths_.find(key);
        return found != paths_.end()       ? found->second
               : key == HKEY_LOCAL_MACHINE ? std::wstring(L"HKLM")
               : key == HKEY_CURRENT_USER  ? std::wstring(L"HKCU")
                                           : std::wstring(L"unknown");
    }

private:
    static inline const HKEY kNoKey = reinterpret_cast<HKEY>(INT_PTR{0xBAD});

    static std::wstring Hexadecimal(DWORD number) {
        wchar_t text[16] = {};
        wsprintfW(text, L" 0x%x", number);
        return text;
    }

    static std::wstring AccessAndOptions(REGSAM access, DWORD options) {
        return Hexadecimal(access) + (options != 0 ? L" options" + Hexadecimal(options) : L"");
    }

    std::wstring Below(HKEY key, LPCWSTR subkey) const { return Name(key) + L"\\" + subkey; }

    template <class Call>
    LSTATUS Pass(const std::wstring& line, Call call) {
        if (own_) {
            return call();
        }
        ++count_;
        if (before) {
            own_ = true;
            before(count_);
            own_ = false;
        }
        lines_.push_back(line);
        return count_ == failing_ ? code_ : call();
    }

    std::size_t failing_;
    LSTATUS code_;
    std::size_t count_ = 0;
    bool own_ = false;
    std::vector<std::wstring> lines_;
    std::map<HKEY, std::wstring> paths_;

    HOOK(open_, RegOpenKeyExW,
         [this](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY opened) {
             const std::wstring path = Below(root, subkey);
             *opened = kNoKey;
             return Pass(L"open " + path + AccessAndOptions(access, options), [&] {
                 const LSTATUS status = open_.Original(root, subkey, options, access, opened);
                 if (status == ERROR_SUCCESS) {
                     paths_[*opened] = path;
                 }
                 return status;
             });
         });
    HOOK(create_, RegCreateKeyExW,
         [this](HKEY root, LPCWSTR subkey, DWORD reserved, LPWSTR keyClass, DWORD options,
                REGSAM access, LPSECURITY_ATTRIBUTES security, PHKEY created, LPDWORD disposition) {
             const std::wstring path = Below(root, subkey);
             *created = kNoKey;
             return Pass(L"create " + path + AccessAndOptions(access, options), [&] {
                 const LSTATUS status = create_.Original(root, subkey, reserved, keyClass, options,
                                                         access, security, created, disposition);
                 if (status == ERROR_SUCCESS) {
                     paths_[*created] = path;
                 }
                 return status;
             });
         });
    HOOK(get_, RegGetValueW,
         [this](HKEY key, LPCWSTR subkey, LPCWSTR name, DWORD flags, LPDWORD type, PVOID data,
                LPDWORD size) {
             return Pass(std::wstring(data == nullptr ? L"size of " : L"get ") + Name(key) + L" " +
                             name + Hexadecimal(flags),
                         [&] { return get_.Original(key, subkey, name, flags, type, data, size); });
         });
    HOOK(query_, RegQueryValueExW,
         [this](HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data, LPDWORD size) {
             return Pass(L"query " + Name(key) + L" " + name + L" " + std::to_wstring(*size) +
                             L" bytes",
                         [&] { return query_.Original(key, name, reserved, type, data, size); });
         });
    HOOK(set_, RegSetValueExW,
         [this](HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data, DWORD size) {
             return Pass(L"set " + Name(key) + L" " + name + L" " + std::to_wstring(type) + L" " +
                             std::to_wstring(size) + L" bytes",
                         [&] { return set_.Original(key, name, reserved, type, data, size); });
         });
    HOOK(deleteValue_, RegDeleteKeyValueW, [this](HKEY key, LPCWSTR subkey, LPCWSTR name) {
        return Pass(L"delete value " + Below(key, subkey) + L" " + name,
                    [&] { return deleteValue_.Original(key, subkey, name); });
    });
    HOOK(deleteKey_, RegDeleteKeyExW,
         [this](HKEY key, LPCWSTR subkey, REGSAM view, DWORD reserved) {
             return Pass(L"delete key " + Below(key, subkey) + Hexadecimal(view),
                         [&] { return deleteKey_.Original(key, subkey, view, reserved); });
         });
    HOOK(deleteTree_, RegDeleteTreeW, [this](HKEY key, LPCWSTR subkey) {
        return Pass(L"delete tree " + Below(key, subkey),
                    [&] { return deleteTree_.Original(key, subkey); });
    });
    HOOK(close_, RegCloseKey, [this](HKEY key) {
        if (!own_) {
            lines_.push_back(L"close " + Name(key));
            paths_.erase(key);
        }
        return close_.Original(key);
    });
};

} // namespace halvard_tests
