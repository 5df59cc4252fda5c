#include "check/pe_file.h"

#include <cstdint>
#include <vector>

namespace halvard_runner {

namespace {

// Places and marks as the format of portable executable files has them.
constexpr std::uint32_t kPlaceOfHeaders = 0x3C;
constexpr std::uint32_t kSignature = 0x00004550;
constexpr std::uint32_t kMachineX64 = 0x8664;
constexpr std::uint32_t kMagic64 = 0x20B;
constexpr std::uint32_t kExportDirectory = 0;
constexpr std::uint32_t kCertificateDirectory = 4;
constexpr std::uint32_t kVersionMark = 0xFEEF04BD;
constexpr std::uint32_t kMostNames = 10000;
constexpr std::size_t kLongestName = 512;

struct NotThere {};

class Image {
public:
    explicit Image(const std::string& bytes) : bytes_(bytes) {}

    [[nodiscard]] std::uint32_t Number(std::size_t place, std::size_t size) const {
        if (place > bytes_.size() || bytes_.size() - place < size) {
            throw NotThere();
        }
        std::uint32_t number = 0;
        for (std::size_t i = 0; i < size; ++i) {
            number |= std::uint32_t{static_cast<unsigned char>(bytes_[place + i])} << (8 * i);
        }
        return number;
    }

    [[nodiscard]] std::wstring Name(std::size_t place) const {
        std::wstring name;
        while (const std::uint32_t c = Number(place + name.size(), 1)) {
            name += static_cast<wchar_t>(c);
            if (name.size() > kLongestName) {
                throw NotThere();
            }
        }
        return name;
    }

    [[nodiscard]] const std::string& Bytes() const { return bytes_; }

private:
    const std::string& bytes_;
};

class Headers {
public:
    explicit Headers(const Image& image) : image_(image), start_(image.Number(kPlaceOfHeaders, 4)) {
        if (image.Number(0, 2) != 0x5A4D || image.Number(start_, 4) != kSignature) {
            throw NotThere();
        }
        sections_ = image.Number(start_ + 6, 2);
        optional_ = start_ + 24;
        sectionTable_ = optional_ + image.Number(start_ + 20, 2);
        directories_ = optional_ + (image.Number(optional_, 2) == kMagic64 ? 112 : 96);
    }

    [[nodiscard]] std::uint32_t Machine() const { return image_.Number(start_ + 4, 2); }

    [[nodiscard]] std::uint32_t Directory(std::uint32_t number) const {
        return image_.Number(directories_ + std::size_t{8} * number, 4);
    }

    [[nodiscard]] std::uint32_t DirectorySize(std::uint32_t number) const {
        return image_.Number(directories_ + std::size_t{8} * number + 4, 4);
    }

    /// Where in the file an address of the loaded image lies.
    [[nodiscard]] std::size_t PlaceOf(std::uint32_t address) const {
        for (std::uint32_t i = 0; i < sections_; ++i) {
            const std::size_t section = sectionTable_ + std::size_t{40} * i;
            const std::uint32_t begin = image_.Number(section + 12, 4);
            const std::uint32_t size = image_.Number(section + 16, 4);
            if (address >= begin && address - begin < size) {
                return std::size_t{image_.Number(section + 20, 4)} + (address - begin);
            }
        }
        throw NotThere();
    }

private:
    const Image& image_;
    std::size_t start_;
    std::uint32_t sections_ = 0;
    std::size_t optional_ = 0;
    std::size_t sectionTable_ = 0;
    std::size_t directories_ = 0;
};

std::vector<std::wstring> Exports(const Image& image, const Headers& headers) {
    std::vector<std::wstring> names;
    if (headers.DirectorySize(kExportDirectory) == 0) {
        return names;
    }
    const std::size_t table = headers.PlaceOf(headers.Directory(kExportDirectory));
    const std::uint32_t count = image.Number(table + 24, 4);
    const std::size_t addresses = headers.PlaceOf(image.Number(table + 32, 4));
    for (std::uint32_t i = 0; i < count && i < kMostNames; ++i) {
        const std::uint32_t address = image.Number(addresses + std::size_t{4} * i, 4);
        names.push_back(image.Name(headers.PlaceOf(address)));
    }
    return names;
}

/// Of the fixed part of the version resource, which is found by its mark.
std::wstring Version(const Image& image) {
    std::string mark;
    for (std::size_t i = 0; i < 4; ++i) {
        mark += static_cast<char>(kVersionMark >> (8 * i) & 0xFF);
    }
    const std::size_t place = image.Bytes().find(mark);
    if (place == std::string::npos || image.Bytes().size() - place < 16) {
        return {};
    }
    const std::uint32_t upper = image.Number(place + 8, 4);
    const std::uint32_t lower = image.Number(place + 12, 4);
    return std::to_wstring(upper >> 16) + L"." + std::to_wstring(upper & 0xFFFF) + L"." +
           std::to_wstring(lower >> 16);
}

} // namespace

std::optional<LibraryFacts> ReadLibraryFacts(const std::wstring& binary, const std::string& bytes) {
    try {
        const Image image(bytes);
        const Headers headers(image);
        LibraryFacts facts;
        facts.binary = binary;
        facts.machine = headers.Machine() == kMachineX64 ? Machine::X64 : Machine::Other;
        facts.exports = Exports(image, headers);
        facts.version = Version(image);
        facts.isSigned = headers.DirectorySize(kCertificateDirectory) != 0;
        return facts;
    } catch (const NotThere&) {
        return std::nullopt;
    }
}

} // namespace halvard_runner
