#pragma once

namespace halvard_tests {

/// What the tests can run on.
enum class Engine { kWine8, kWine10, kWindows };

/// The engine that calls itself so ("10.0"), or Windows without a version. For a release of Wine
/// that is not known the nearest older one stands, or the oldest.
Engine EngineOf(const char* wineVersion);

/// The engine of this process, found out from the system.
Engine EngineAtWork();

/// A value that depends on the engine. Those of the known differences stand in engine_values.h.
template <typename Value>
struct PerEngine {
    Value wine8;
    Value wine10;
    Value windows;
};

/// The value that is expected of the engine at work.
template <typename Value>
Value Here(const PerEngine<Value>& values) {
    switch (EngineAtWork()) {
    case Engine::kWine8:
        return values.wine8;
    case Engine::kWine10:
        return values.wine10;
    default:
        return values.windows;
    }
}

} // namespace halvard_tests
