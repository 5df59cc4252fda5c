#pragma once

#include "check/package_model.h"

#include <stdexcept>
#include <string>
#include <utility>

namespace halvard_runner {

/// Why a package cannot be checked.
class PackageError : public std::runtime_error {
public:
    explicit PackageError(std::wstring text)
        : std::runtime_error("the package cannot be read"), text_(std::move(text)) {}

    [[nodiscard]] const std::wstring& Text() const noexcept { return text_; }

private:
    std::wstring text_;
};

/// Reads a package by the installer's database functions. Throws PackageError.
Package ReadPackage(const std::wstring& path);

} // namespace halvard_runner
