#include "registry_actions/retained_values.h"
#include "registry_actions/retain_list.h"

#include "bare_enumeration.h"
#include "files.h"
#include "many_files.h"
#include "registry_key.h"
#include "time_of.h"

#include <gtest/gtest.h>

#include <vector>

using halvard::DeleteandRetainValues;
using halvard_tests::Duration;
using halvard_tests::EnumerateValuesBare;
using halvard_tests::ExpectLinear;
using halvard_tests::Growth;
using halvard_tests::MakeManyFiles;
using halvard_tests::Numbered;
using halvard_tests::OneOfTen;
using halvard_tests::ScratchFolder;
using halvard_tests::ScratchKey;
using halvard_tests::TimeOf;
using Paths = std::vector<std::wstring>;

namespace {

Paths NumberedPaths(int first, int count) {
    Paths paths;
    for (int number = first; number < first + count; ++number) {
        paths.push_back(Numbered(L"T:/Scratch/file ", number));
    }
    return paths;
}

int CountEntries(const std::wstring& folder) {
    WIN32_FIND_DATAW entry = {};
    const HANDLE search = FindFirstFileW((folder + L"\\file *").c_str(), &entry);
    int count = 0;
    for (BOOL more = search != INVALID_HANDLE_VALUE; more != FALSE;
         more = FindNextFileW(search, &entry)) {
        ++count;
    }
    FindClose(search);
    return count;
}

} // namespace

TEST(BrandingTime, OfTheActionGrowsLinearlyWithFilesAndRetainedPaths) {
    // Half of the retained paths are there, and come last.
    const auto timeOf = [&](int files, int retained, auto action) {
        const ScratchFolder scratch;
        const ScratchKey folder(L"SOFTWARE\\Zenvo\\PV");
        const ScratchKey retainKey(L"SOFTWARE\\ZenvoBranding");
        folder.SetString(L"PVBrandingInstallDir", scratch.Path());
        MakeManyFiles(scratch.Path(), files);
        for (int number = files - retained / 2; number < files + retained / 2; ++number) {
            retainKey.SetString(Numbered(L"", number), Numbered(scratch.File(L"file "), number));
        }
        const Duration time = TimeOf([&] { action(scratch, retainKey); });
        EXPECT_EQ(CountEntries(scratch.Path()), retained / 2);
        return time;
    };
    const auto run = [](const ScratchFolder&, const ScratchKey&) {
        EXPECT_EQ(DeleteandRetainValues(0), 0U);
    };
    const auto runBare = [](const ScratchFolder& scratch, const ScratchKey& retainKey) {
        EXPECT_EQ(EnumerateValuesBare(retainKey.Get()), 500U);
        EXPECT_EQ(CountEntries(scratch.Path()), 2000);
        for (int number = 0; number < 1750; ++number) {
            const std::wstring file = Numbered(scratch.File(L"file "), number);
            GetFileAttributesW(file.c_str());
            DeleteFileW(file.c_str());
        }
    };
    ExpectLinear([&] { return OneOfTen([&] { return timeOf(200, 50, run); }); },
                 [&] { return timeOf(2000, 500, run); },
                 [&] { return timeOf(2000, 500, runBare); });
}

TEST(BrandingTime, OfTheDecisionIsFarFromAScanOfTheListForEveryEntry) {
    const auto timeOf = [](int files, int retained) {
        const Paths listing = NumberedPaths(0, files);
        Paths retainList = NumberedPaths(files - retained / 2, retained);
        retainList.emplace_back(L"Skins");
        Paths toDelete = listing;
        const Duration time =
            TimeOf([&] { toDelete = halvard::EntriesToDelete(std::move(toDelete), retainList); });
        EXPECT_EQ(toDelete.size(), static_cast<std::size_t>(files - retained / 2));
        return time;
    };
    // A scan of the retain list for every entry would take 100 times as long. The processor's
    // caches let ten times the entries cost a little more than ten times the time.
    EXPECT_LE(Growth([&] { return timeOf(2000, 500); }, [&] { return timeOf(20000, 5000); }, 30),
              30);
}
