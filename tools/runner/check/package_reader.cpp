#include "check/package_reader.h"

#include "check/pe_file.h"
#include "installer_handle.h"
#include "text_output.h"

#include <windows.h>
#include <msi.h>
#include <msidefs.h>
#include <msiquery.h>
#include <wtypes.h>

#include <algorithm>
#include <array>
#include <functional>
#include <set>

namespace halvard_runner {

namespace {

void RequireRead(UINT status, const std::wstring& what) {
    if (status != ERROR_SUCCESS) {
        throw PackageError(what + L": " + ErrorText(status));
    }
}

using TakeRecord = std::function<void(MSIHANDLE)>;

bool HasTable(MSIHANDLE database, const std::wstring& table) {
    switch (MsiDatabaseIsTablePersistentW(database, table.c_str())) {
    case MSICONDITION_TRUE:
        return true;
    case MSICONDITION_FALSE:
    case MSICONDITION_NONE:
        return false;
    default:
        throw PackageError(L"the table " + table + L" cannot be looked for");
    }
}

/// Gives each row of a table; none where the package has no such table.
void EachRow(MSIHANDLE database, const std::wstring& table, const std::wstring& columns,
             const TakeRecord& take) {
    if (!HasTable(database, table)) {
        return;
    }
    const std::wstring what = L"the table " + table + L" cannot be read";
    const std::wstring query = L"SELECT " + columns + L" FROM `" + table + L"`";
    InstallerHandle view;
    RequireRead(MsiDatabaseOpenViewW(database, query.c_str(), view.Receive()), what);
    RequireRead(MsiViewExecute(view.Get(), 0), what);
    for (;;) {
        InstallerHandle record;
        const UINT status = MsiViewFetch(view.Get(), record.Receive());
        if (status == ERROR_NO_MORE_ITEMS) {
            return;
        }
        RequireRead(status, what);
        take(record.Get());
    }
}

std::wstring Text(MSIHANDLE record, UINT field) {
    wchar_t none[1] = {};
    DWORD length = 0;
    MsiRecordGetStringW(record, field, none, &length);
    std::wstring text(std::size_t{length} + 1, L'\0');
    length = static_cast<DWORD>(text.size());
    RequireRead(MsiRecordGetStringW(record, field, text.data(), &length),
                L"a value cannot be read");
    text.resize(length);
    return text;
}

std::optional<int> Number(MSIHANDLE record, UINT field) {
    if (MsiRecordIsNull(record, field) != FALSE) {
        return std::nullopt;
    }
    return MsiRecordGetInteger(record, field);
}

std::string Bytes(MSIHANDLE record, UINT field) {
    std::string bytes;
    std::array<char, 65536> block = {};
    for (;;) {
        auto size = static_cast<DWORD>(block.size());
        RequireRead(MsiRecordReadStream(record, field, block.data(), &size),
                    L"a binary cannot be read");
        if (size == 0) {
            return bytes;
        }
        bytes.append(block.data(), size);
    }
}

void ReadActions(MSIHANDLE database, Package& package) {
    EachRow(database, L"CustomAction", L"`Action`, `Type`, `Source`, `Target`",
            [&](MSIHANDLE record) {
                package.customActions.push_back(
                    {Text(record, 1), static_cast<std::uint32_t>(Number(record, 2).value_or(0)),
                     Text(record, 3), Text(record, 4)});
            });
    for (const wchar_t* const table :
         {L"InstallUISequence", L"InstallExecuteSequence", L"AdminUISequence",
          L"AdminExecuteSequence", L"AdvtExecuteSequence"}) {
        EachRow(database, table, L"`Action`, `Condition`, `Sequence`", [&](MSIHANDLE record) {
            package.sequences.push_back(
                {table, Text(record, 1), Text(record, 2), Number(record, 3)});
        });
    }
}

void ReadProperties(MSIHANDLE database, Package& package) {
    EachRow(database, L"Property", L"`Property`, `Value`",
            [&](MSIHANDLE record) { package.properties[Text(record, 1)] = Text(record, 2); });
    EachRow(database, L"Directory", L"`Directory`, `Directory_Parent`, `DefaultDir`",
            [&](MSIHANDLE record) {
                package.directories.push_back({Text(record, 1), Text(record, 2), Text(record, 3)});
            });
    EachRow(database, L"LaunchCondition", L"`Condition`",
            [&](MSIHANDLE record) { package.launchConditions.push_back(Text(record, 1)); });
}

void ReadInstalled(MSIHANDLE database, Package& package) {
    std::set<std::wstring> components64;
    EachRow(database, L"Component", L"`Component`, `Attributes`", [&](MSIHANDLE record) {
        if ((Number(record, 2).value_or(0) & msidbComponentAttributes64bit) != 0) {
            components64.insert(Text(record, 1));
        }
    });
    EachRow(database, L"Registry", L"`Registry`, `Root`, `Key`, `Name`, `Value`, `Component_`",
            [&](MSIHANDLE record) {
                package.registry.push_back({Text(record, 1), Number(record, 2).value_or(0),
                                            Text(record, 3), Text(record, 4), Text(record, 5),
                                            components64.count(Text(record, 6)) == 0});
            });
    EachRow(database, L"ServiceInstall", L"`Name`",
            [&](MSIHANDLE record) { package.services.push_back(Text(record, 1)); });
    EachRow(database, L"ServiceControl", L"`Name`, `Event`", [&](MSIHANDLE record) {
        package.serviceControls.push_back(
            {Text(record, 1), static_cast<std::uint32_t>(Number(record, 2).value_or(0))});
    });
    EachRow(database, L"Binary", L"`Name`, `Data`", [&](MSIHANDLE record) {
        if (auto library = ReadLibraryFacts(Text(record, 1), Bytes(record, 2))) {
            package.libraries.push_back(*library);
        }
    });
}

/// What stands before the semicolon of the summary's template.
std::wstring Platform(MSIHANDLE database) {
    InstallerHandle summary;
    const wchar_t* const what = L"the summary cannot be read";
    RequireRead(MsiGetSummaryInformationW(database, nullptr, 0, summary.Receive()), what);
    std::array<wchar_t, 256> text = {};
    auto length = static_cast<DWORD>(text.size());
    UINT type = 0;
    RequireRead(MsiSummaryInfoGetPropertyW(summary.Get(), PID_TEMPLATE, &type, nullptr, nullptr,
                                           text.data(), &length),
                what);
    const std::wstring platform = text.data();
    return platform.substr(0, platform.find(L';'));
}

} // namespace

Package ReadPackage(const std::wstring& path) {
    InstallerHandle database;
    RequireRead(MsiOpenDatabaseW(path.c_str(), MSIDBOPEN_READONLY, database.Receive()),
                path + L" cannot be read");
    if (!HasTable(database.Get(), L"Property")) {
        throw PackageError(path + L" is no package: it has no properties");
    }
    Package package;
    package.platform = Platform(database.Get());
    ReadActions(database.Get(), package);
    ReadProperties(database.Get(), package);
    ReadInstalled(database.Get(), package);
    return package;
}

} // namespace halvard_runner
