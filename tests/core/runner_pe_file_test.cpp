#include "check/pe_file.h"

#include <gtest/gtest.h>

#include <cstdint>

using halvard_runner::LibraryFacts;
using halvard_runner::Machine;
using halvard_runner::ReadLibraryFacts;

namespace {

constexpr std::size_t kHeaders = 0x40;
constexpr std::size_t kOptional = kHeaders + 24;
constexpr std::size_t kDirectories = kOptional + 112;
constexpr std::size_t kSection = kOptional + 240;
constexpr std::size_t kContent = 0x200;
// Where the section is loaded.
constexpr std::uint32_t kAddress = 0x1000;

void Put(std::string& bytes, std::size_t place, std::uint32_t number, std::size_t size = 4) {
    for (std::size_t i = 0; i < size; ++i) {
        bytes[place + i] = static_cast<char>(number >> (8 * i) & 0xFF);
    }
}

/// A 64-bit library with one section, two exports and a version.
std::string Library() {
    std::string bytes(kContent + 0x100, '\0');
    bytes.replace(0, 2, "MZ");
    Put(bytes, 0x3C, kHeaders);
    bytes.replace(kHeaders, 2, "PE");
    Put(bytes, kHeaders + 4, 0x8664, 2);
    Put(bytes, kHeaders + 6, 1, 2);
    Put(bytes, kHeaders + 20, 240, 2);
    Put(bytes, kOptional, 0x20B, 2);
    Put(bytes, kDirectories, kAddress);
    Put(bytes, kDirectories + 4, 40);
    Put(bytes, kSection + 12, kAddress);
    Put(bytes, kSection + 16, 0x100);
    Put(bytes, kSection + 20, kContent);

    Put(bytes, kContent + 24, 2);
    Put(bytes, kContent + 32, kAddress + 0x40);
    Put(bytes, kContent + 0x40, kAddress + 0x50);
    Put(bytes, kContent + 0x44, kAddress + 0x58);
    bytes.replace(kContent + 0x50, 5, "First");
    bytes.replace(kContent + 0x58, 6, "Second");
    Put(bytes, kContent + 0x80, 0xFEEF04BD);
    Put(bytes, kContent + 0x88, 0x00010002);
    Put(bytes, kContent + 0x8C, 0x00030004);
    return bytes;
}

} // namespace

TEST(ReadLibraryFacts, ReadsWhatALibrarySaysOfItself) {
    std::optional<LibraryFacts> facts = ReadLibraryFacts(L"Name", Library());
    ASSERT_TRUE(facts.has_value());
    EXPECT_EQ(facts->binary, L"Name");
    EXPECT_EQ(facts->machine, Machine::X64);
    EXPECT_EQ(facts->exports, (std::vector<std::wstring>{L"First", L"Second"}));
    EXPECT_EQ(facts->version, L"1.2.3");
    EXPECT_FALSE(facts->isSigned);

    std::string other = Library();
    Put(other, kHeaders + 4, 0xAA64, 2);
    Put(other, kDirectories + 4, 0);
    Put(other, kDirectories + 8 * 4 + 4, 1000);
    Put(other, kContent + 0x80, 0);
    facts = ReadLibraryFacts(L"", other);
    ASSERT_TRUE(facts.has_value());
    EXPECT_EQ(facts->machine, Machine::Other);
    EXPECT_EQ(facts->exports, std::vector<std::wstring>{});
    EXPECT_EQ(facts->version, L"");
    EXPECT_TRUE(facts->isSigned);
}

TEST(ReadLibraryFacts, TakesNothingElseForALibrary) {
    EXPECT_FALSE(ReadLibraryFacts(L"", "").has_value());
    EXPECT_FALSE(ReadLibraryFacts(L"", "MZ").has_value());
    EXPECT_FALSE(ReadLibraryFacts(L"", std::string(5000, 'x')).has_value());
    const std::string whole = Library();
    // The names are the last that is needed.
    for (std::size_t length = 0; length < kContent + 0x5E; ++length) {
        EXPECT_FALSE(ReadLibraryFacts(L"", whole.substr(0, length)).has_value()) << length;
    }
    for (std::size_t place = 0; place < whole.size(); ++place) {
        std::string damaged = whole;
        damaged[place] = '\xFF';
        ReadLibraryFacts(L"", damaged);
    }
}
