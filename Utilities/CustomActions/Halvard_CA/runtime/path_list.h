#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

namespace halvard {

/// Appends to a vector of paths and knows which paths the vector holds without scanning it. Paths
/// are compared exactly, upper and lower case apart. While a PathList is in use, nothing else may
/// change its vector.
class PathList {
public:
    explicit PathList(std::vector<std::wstring>& paths) : paths_(paths) {
        for (std::size_t index = 0; index < paths_.size(); ++index) {
            indices_.emplace(Hash(paths_[index]), index);
        }
    }

    bool Contains(const std::wstring& path) const {
        const auto range = indices_.equal_range(Hash(path));
        return std::any_of(range.first, range.second, [&](const auto& hashAndIndex) {
            return paths_[hashAndIndex.second] == path;
        });
    }

    /// Appends the path even when the vector holds it already.
    void Append(const std::wstring& path) {
        paths_.push_back(path);
        indices_.emplace(Hash(path), paths_.size() - 1);
    }

private:
    static std::size_t Hash(const std::wstring& path) { return std::hash<std::wstring>()(path); }

    std::vector<std::wstring>& paths_;
    // By hash, and not a second copy of every path.
    std::unordered_multimap<std::size_t, std::size_t> indices_;
};

} // namespace halvard
