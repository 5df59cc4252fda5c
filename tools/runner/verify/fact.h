#pragma once

#include <string>
#include <vector>

namespace halvard_runner {

/// What is told of a fact beforehand; all of it comes from facts.toml. Outcomes that are as good as
/// each other stand with " or " between them.
struct FactText {
    const wchar_t* name;
    const wchar_t* subject;
    /// The fact, as one sentence.
    const wchar_t* about;
    /// The place in the library that relies on it.
    const wchar_t* relies;
    /// The outcome on Windows, and the page that tells of it or "assumed".
    const wchar_t* windows;
    const wchar_t* basis;
    const wchar_t* wine8;
    const wchar_t* wine10;
};

/// All facts in the order in which they are asked for.
const std::vector<FactText>& FactTexts();

/// What a machine answered.
struct FactResult {
    const FactText* text = nullptr;
    /// Empty where it could not be asked; `why` then says why. "does not end" and "ends its
    /// process" where the asking did.
    std::wstring outcome;
    std::wstring why;
    double milliseconds = 0.0;
};

/// The machine that was asked.
struct AskedSystem {
    std::wstring program;
    std::wstring windows;
    /// Empty on Windows.
    std::wstring wine;
    bool elevated = false;
};

enum class Verdict { Agrees, Differs, NotAsked };

/// Whether the machine does what Windows is told or assumed to do.
Verdict VerdictOf(const FactResult& result);

/// What a script may rely on, besides the exit codes of the program for wrong arguments.
enum class VerifyExit {
    NoneDiffers = 0,
    SomeDiffer = 1,
    SomethingIsLeft = 20,
    NotCarriedOut = 21,
};

/// How the process in which a fact is asked hands on what it found, and what is made of it.
std::wstring AnswerText(const FactResult& result);
void TakeAnswer(const std::wstring& answer, FactResult& result);

/// 20 when something is left, whatever the facts; 21 when no fact could be asked; 1 when one
/// differs.
VerifyExit ExitOf(const std::vector<FactResult>& results, const std::vector<std::wstring>& left);

/// For a reader: a table, and below it what differs and what could not be asked.
std::wstring FactTable(const AskedSystem& system, const std::vector<FactResult>& results,
                       const std::vector<std::wstring>& left);

/// For scripts: one JSON object, with a line end.
std::wstring FactJson(const AskedSystem& system, const std::vector<FactResult>& results,
                      const std::vector<std::wstring>& left);

} // namespace halvard_runner
