#include "rewritten_files.h"

#include <cstdio>
#include <stdexcept>

namespace halvard_tests {

void WriteBytes(const wchar_t* path, const void* bytes, std::size_t size) {
    std::FILE* const file = _wfopen(path, L"wb");
    if (file == nullptr) {
        throw std::runtime_error("a file cannot be written");
    }
    const std::size_t written = std::fwrite(bytes, 1, size, file);
    if (std::fclose(file) != 0 || written != size) {
        throw std::runtime_error("a file cannot be written");
    }
}

void WriteSource(const std::wstring& document) {
    WriteBytes(kSource, document.data(), document.size() * sizeof(wchar_t));
}

std::optional<std::wstring> ReadTarget() {
    std::FILE* const file = _wfopen(kTarget, L"rb");
    if (file == nullptr) {
        return std::nullopt;
    }
    std::wstring text;
    wchar_t part[2048] = {};
    for (std::size_t count = 1; count > 0;) {
        count = std::fread(part, sizeof(wchar_t), std::size(part), file);
        text.append(part, count);
    }
    std::fclose(file);
    return text;
}

} // namespace halvard_tests
