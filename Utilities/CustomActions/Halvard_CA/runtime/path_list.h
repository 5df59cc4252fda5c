#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace halvard {

/// Appends to a vector of paths and knows which paths the vector holds without scanning it. Paths
/// are compared exactly, upper and lower case apart. While a PathList is in use, nothing else may
/// change its vector.
class PathList {
public:
    explicit PathList(std::vector<std::wstring>& paths) : paths_(paths) { MakeRoom(); }

    [[nodiscard]] bool Contains(const std::wstring& path) const {
        return Contains(path, Hash(path));
    }

    /// Appends the path even when the vector holds it already.
    void Append(const std::wstring& path) { Append(path, Hash(path)); }

    /// Appends the path unless the vector holds it already; tells whether it did.
    bool AppendNew(const std::wstring& path) {
        const std::size_t hash = Hash(path);
        if (Contains(path, hash)) {
            return false;
        }
        Append(path, hash);
        return true;
    }

private:
    // Where the vector has a path, counted from 1; a free place has 0.
    struct Place {
        std::size_t hash = 0;
        std::size_t position = 0;
    };

    static std::size_t Hash(const std::wstring& path) { return std::hash<std::wstring>()(path); }

    [[nodiscard]] bool Contains(const std::wstring& path, std::size_t hash) const {
        std::size_t place = FirstPlace(hash);
        while (places_[place].position != 0) {
            if (places_[place].hash == hash && paths_[places_[place].position - 1] == path) {
                return true;
            }
            place = NextPlace(place);
        }
        return false;
    }

    void Append(const std::wstring& path, std::size_t hash) {
        if (2 * (paths_.size() + 1) > places_.size()) {
            MakeRoom();
        }
        paths_.push_back(path);
        Remember(hash, paths_.size());
    }

    void Remember(std::size_t hash, std::size_t position) {
        std::size_t place = FirstPlace(hash);
        while (places_[place].position != 0) {
            place = NextPlace(place);
        }
        places_[place] = {hash, position};
    }

    // At least four places for each path, and never fewer than two: a search ends soon.
    void MakeRoom() {
        std::size_t count = 64;
        while (count < 4 * (paths_.size() + 1)) {
            count *= 2;
        }
        places_.assign(count, {});
        for (std::size_t index = 0; index < paths_.size(); ++index) {
            Remember(Hash(paths_[index]), index + 1);
        }
    }

    // The number of places is a power of two.
    [[nodiscard]] std::size_t FirstPlace(std::size_t hash) const {
        return hash & (places_.size() - 1);
    }
    [[nodiscard]] std::size_t NextPlace(std::size_t place) const { return FirstPlace(place + 1); }

    std::vector<std::wstring>& paths_;
    // A table of its own saves the block of the heap for each path that a container takes, under
    // Wine a third of what a walk takes beside its calls.
    std::vector<Place> places_;
};

} // namespace halvard
