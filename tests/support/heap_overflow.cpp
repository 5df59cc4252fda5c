// heap_overflow: writes one byte behind an allocation. The test run starts it to see that such a
// write is reported, before it trusts that none is reported for the tests.

#include <cstddef>

int main() {
    constexpr std::size_t size = 10;
    char* volatile memory = new char[size];
    memory[size] = 1;
    delete[] memory;
    return 0;
}
