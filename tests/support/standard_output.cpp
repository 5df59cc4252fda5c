#include "standard_output.h"

#include <cstdio>
#include <io.h>

namespace halvard_tests {

std::string StandardOutputOf(const std::function<void()>& action) {
    const char* const file = "T:\\standard_output.txt";
    std::fflush(stdout);
    const int kept = _dup(1);
    std::FILE* const redirected = std::fopen(file, "w");
    _dup2(_fileno(redirected), 1);
    action();
    _dup2(kept, 1);
    _close(kept);
    std::fclose(redirected);

    std::string text(4096, '\0');
    std::FILE* const written = std::fopen(file, "rb");
    text.resize(std::fread(text.data(), 1, text.size(), written));
    std::fclose(written);
    std::remove(file);
    return text;
}

} // namespace halvard_tests
