#include "agent/check_for_clients.h"

#include "import_hook.h"
#include "many_files.h"
#include "registry_key.h"
#include "time_of.h"

#include <gtest/gtest.h>
#include <msiquery.h>

#include <algorithm>
#include <string>

using halvard::CheckForClients;
using halvard_tests::AbsentKeys;
using halvard_tests::Duration;
using halvard_tests::Growth;
using halvard_tests::Numbered;
using halvard_tests::OneOfTen;
using halvard_tests::ScratchKey;
using halvard_tests::TimeOf;

namespace {

constexpr wchar_t kTelo[] = L"SOFTWARE\\Telo";

// The status values of clients of which the last alone is active.
class Clients {
public:
    explicit Clients(int count) {
        for (int number = 1; number <= count; ++number) {
            const BYTE status = number == count ? 1 : 2;
            telo_.SetBytes(Numbered(L"client ", number) + L"_TeloStatus", REG_DWORD,
                           {status, 0, 0, 0});
        }
    }

    // The time that an installation of one more client takes.
    Duration TimeOfInstallation() const {
        const Duration time =
            TimeOf([] { EXPECT_EQ(CheckForClients(0), static_cast<UINT>(ERROR_NO_MORE_ITEMS)); });
        EXPECT_EQ(telo_.Read(L"Foo_TeloStatus"), (ScratchKey::Value{REG_DWORD, {1, 0, 0, 0}}));
        return time;
    }

private:
    ScratchKey telo_{kTelo};
    AbsentKeys ofUser_{{kTelo}, HKEY_CURRENT_USER};
};

} // namespace

TEST(ClientRegistryTime, GrowsLinearlyWithTheClients) {
    // The calls of a session take the same time for any number of clients, and would hide the rest.
    HOOK(reading, MsiGetPropertyW, [](MSIHANDLE, LPCWSTR, LPWSTR buffer, LPDWORD length) -> UINT {
        const std::wstring data = L"ClientName=Foo;Action=;CurrentVersion=1.2.3.4";
        if (*length > data.size()) {
            std::copy(data.begin(), data.end(), buffer);
        }
        *length = static_cast<DWORD>(data.size());
        return ERROR_SUCCESS;
    });
    const auto few = [] {
        const Clients clients(300);
        return OneOfTen([&] { return clients.TimeOfInstallation(); });
    };
    const auto many = [] {
        return Clients(3000).TimeOfInstallation();
    };
    EXPECT_LE(Growth(few, many, 12), 12);
}
