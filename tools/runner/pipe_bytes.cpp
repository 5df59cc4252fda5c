#include "pipe_bytes.h"

#include <array>

namespace halvard_runner {

std::string ReadToEnd(HANDLE pipe) {
    std::string bytes;
    std::array<char, 4096> block = {};
    DWORD read = 0;
    while (ReadFile(pipe, block.data(), static_cast<DWORD>(block.size()), &read, nullptr) !=
               FALSE &&
           read > 0) {
        bytes.append(block.data(), read);
    }
    return bytes;
}

bool WriteAll(HANDLE file, const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        DWORD written = 0;
        if (WriteFile(file, bytes.data() + done, static_cast<DWORD>(bytes.size() - done), &written,
                      nullptr) == FALSE) {
            return false;
        }
        done += written;
    }
    return true;
}

} // namespace halvard_runner
