#include "verify/package.h"

#include "installer_handle.h"
#include "verify/place.h"

#include <msiquery.h>
#include <objbase.h>

namespace halvard_runner {

namespace {

// Long file names, and a source that is not compressed.
constexpr int kPlainSource = 0;

constexpr const wchar_t* kTables[] = {
    L"CREATE TABLE `Property` (`Property` CHAR(72) NOT NULL, `Value` LONGCHAR NOT NULL LOCALIZABLE "
    L"PRIMARY KEY `Property`)",
    L"CREATE TABLE `Directory` (`Directory` CHAR(72) NOT NULL, `Directory_Parent` CHAR(72), "
    L"`DefaultDir` CHAR(255) NOT NULL LOCALIZABLE PRIMARY KEY `Directory`)",
    L"CREATE TABLE `Component` (`Component` CHAR(72) NOT NULL, `ComponentId` CHAR(38), "
    L"`Directory_` CHAR(72) NOT NULL, `Attributes` SHORT NOT NULL, `Condition` CHAR(255), "
    L"`KeyPath` CHAR(72) PRIMARY KEY `Component`)",
    L"CREATE TABLE `Feature` (`Feature` CHAR(38) NOT NULL, `Feature_Parent` CHAR(38), `Title` "
    L"CHAR(64) LOCALIZABLE, `Description` CHAR(255) LOCALIZABLE, `Display` SHORT, `Level` SHORT "
    L"NOT NULL, `Directory_` CHAR(72), `Attributes` SHORT NOT NULL PRIMARY KEY `Feature`)",
    L"CREATE TABLE `FeatureComponents` (`Feature_` CHAR(38) NOT NULL, `Component_` CHAR(72) NOT "
    L"NULL PRIMARY KEY `Feature_`, `Component_`)",
    L"CREATE TABLE `File` (`File` CHAR(72) NOT NULL, `Component_` CHAR(72) NOT NULL, `FileName` "
    L"CHAR(255) NOT NULL LOCALIZABLE, `FileSize` LONG NOT NULL, `Version` CHAR(72), `Language` "
    L"CHAR(20), `Attributes` SHORT, `Sequence` SHORT NOT NULL PRIMARY KEY `File`)",
    L"CREATE TABLE `Media` (`DiskId` SHORT NOT NULL, `LastSequence` SHORT NOT NULL, `DiskPrompt` "
    L"CHAR(64) LOCALIZABLE, `Cabinet` CHAR(255), `VolumeLabel` CHAR(32), `Source` CHAR(72) PRIMARY "
    L"KEY `DiskId`)",
    L"CREATE TABLE `ServiceInstall` (`ServiceInstall` CHAR(72) NOT NULL, `Name` CHAR(255) NOT "
    L"NULL, `DisplayName` CHAR(255) LOCALIZABLE, `ServiceType` LONG NOT NULL, `StartType` LONG NOT "
    L"NULL, `ErrorControl` LONG NOT NULL, `LoadOrderGroup` CHAR(255), `Dependencies` CHAR(255), "
    L"`StartName` CHAR(255), `Password` CHAR(255), `Arguments` CHAR(255), `Component_` CHAR(72) "
    L"NOT NULL, `Description` CHAR(255) LOCALIZABLE PRIMARY KEY `ServiceInstall`)",
    L"CREATE TABLE `ServiceControl` (`ServiceControl` CHAR(72) NOT NULL, `Name` CHAR(255) NOT NULL "
    L"LOCALIZABLE, `Event` SHORT NOT NULL, `Arguments` CHAR(255), `Wait` SHORT, `Component_` "
    L"CHAR(72) NOT NULL PRIMARY KEY `ServiceControl`)",
    L"CREATE TABLE `CustomAction` (`Action` CHAR(72) NOT NULL, `Type` SHORT NOT NULL, `Source` "
    L"CHAR(72), `Target` CHAR(255) PRIMARY KEY `Action`)",
    L"CREATE TABLE `Binary` (`Name` CHAR(72) NOT NULL, `Data` OBJECT NOT NULL PRIMARY KEY `Name`)",
    L"CREATE TABLE `InstallExecuteSequence` (`Action` CHAR(72) NOT NULL, `Condition` CHAR(255), "
    L"`Sequence` SHORT PRIMARY KEY `Action`)",
};

struct StandardAction {
    const wchar_t* name;
    int sequence;
};

constexpr StandardAction kStandardActions[] = {
    {L"CostInitialize", 800},     {L"FileCost", 900},           {L"CostFinalize", 1000},
    {L"InstallValidate", 1400},   {L"InstallInitialize", 1500}, {L"ProcessComponents", 1600},
    {L"UnpublishFeatures", 1800}, {L"StopServices", 1900},      {L"DeleteServices", 2000},
    {L"RemoveFiles", 3500},       {L"InstallFiles", 4000},      {L"InstallServices", 5800},
    {L"RegisterUser", 6000},      {L"RegisterProduct", 6100},   {L"PublishFeatures", 6300},
    {L"PublishProduct", 6400},    {L"InstallFinalize", 6600},
};

void RequireStatus(UINT status, const std::wstring& what) {
    RequireSuccess(static_cast<LSTATUS>(status), what);
}

std::wstring Quoted(const std::wstring& text) {
    return L"'" + text + L"'";
}

void Insert(MSIHANDLE database, const wchar_t* tableAndColumns, const std::wstring& values) {
    const std::wstring statement =
        L"INSERT INTO " + std::wstring(tableAndColumns) + L" VALUES (" + values + L")";
    RequireStatus(Execute(database, statement.c_str()), statement);
}

void AddBinary(MSIHANDLE database, const std::wstring& name, const std::wstring& path) {
    const std::wstring statement =
        L"INSERT INTO `Binary` (`Name`, `Data`) VALUES (" + Quoted(name) + L", ?)";
    InstallerHandle record;
    *record.Receive() = MsiCreateRecord(1);
    RequireStatus(MsiRecordSetStreamW(record.Get(), 1, path.c_str()), L"reading " + path);
    RequireStatus(Execute(database, statement.c_str(), record.Get()), statement);
}

void AddSequence(MSIHANDLE database, const std::wstring& action, const std::wstring& condition,
                 int sequence) {
    Insert(database, L"`InstallExecuteSequence` (`Action`, `Condition`, `Sequence`)",
           Quoted(action) + L", " + Quoted(condition) + L", " + std::to_wstring(sequence));
}

void AddAction(MSIHANDLE database, const PackagedAction& action) {
    constexpr int kSetsProperty = 51;
    constexpr int kInScript = 0x400;
    constexpr const wchar_t* kColumns = L"`CustomAction` (`Action`, `Type`, `Source`, `Target`)";
    const std::wstring name = action.name;
    Insert(database, kColumns,
           Quoted(name) + L", " + std::to_wstring(action.type) + L", " + Quoted(action.binary) +
               L", " + Quoted(action.entry));
    const std::wstring condition = L"MODE=\"" + std::wstring(action.mode) + L"\"";
    AddSequence(database, name, condition, action.sequence);
    // A deferred action is told the report and its name by its data, an immediate one by a
    // property.
    const std::wstring property = (action.type & kInScript) != 0 ? name : L"HALVARDREPORT";
    Insert(database, kColumns,
           Quoted(L"Set" + name) + L", " + std::to_wstring(kSetsProperty) + L", " +
               Quoted(property) + L", " + Quoted(L"[REPORTFILE]|" + name));
    AddSequence(database, L"Set" + name, condition, action.sequence - 1);
}

void AddProduct(MSIHANDLE database, const PackageParts& parts) {
    const std::pair<const wchar_t*, std::wstring> properties[] = {
        {L"ProductCode", parts.productCode},
        {L"ProductName", parts.folder},
        {L"ProductVersion", L"1.0.0"},
        {L"ProductLanguage", L"1033"},
        {L"Manufacturer", L"halvard_run"},
        {L"ALLUSERS", L"1"},
        {L"REBOOT", L"ReallySuppress"},
        {L"ARPSYSTEMCOMPONENT", L"1"},
        {L"SecureCustomProperties", L"MODE;REPORTFILE"},
    };
    for (const auto& [name, value] : properties) {
        Insert(database, L"`Property` (`Property`, `Value`)", Quoted(name) + L", " + Quoted(value));
    }
    constexpr const wchar_t* kDirectories =
        L"`Directory` (`Directory`, `Directory_Parent`, `DefaultDir`)";
    Insert(database, kDirectories, L"'TARGETDIR', '', 'SourceDir'");
    Insert(database, kDirectories, L"'ProgramFiles64Folder', 'TARGETDIR', '.'");
    Insert(database, kDirectories,
           L"'INSTALLDIR', 'ProgramFiles64Folder', " + Quoted(parts.folder + L":."));
    Insert(database,
           L"`Component` (`Component`, `ComponentId`, `Directory_`, `Attributes`, `Condition`, "
           L"`KeyPath`)",
           L"'Program', " + Quoted(parts.componentCode) + L", 'INSTALLDIR', 256, '', 'Program'");
    Insert(database,
           L"`Feature` (`Feature`, `Title`, `Display`, `Level`, `Directory_`, `Attributes`)",
           L"'Main', 'Main', 1, 1, 'INSTALLDIR', 0");
    Insert(database, L"`FeatureComponents` (`Feature_`, `Component_`)", L"'Main', 'Program'");
    Insert(database,
           L"`File` (`File`, `Component_`, `FileName`, `FileSize`, `Attributes`, `Sequence`)",
           L"'Program', 'Program', " + Quoted(parts.program) + L", " +
               std::to_wstring(parts.programSize) + L", 0, 1");
    Insert(database, L"`Media` (`DiskId`, `LastSequence`)", L"1, 1");
}

void AddService(MSIHANDLE database, const PackageParts& parts) {
    Insert(database,
           L"`ServiceInstall` (`ServiceInstall`, `Name`, `DisplayName`, `ServiceType`, "
           L"`StartType`, `ErrorControl`, `Component_`)",
           L"'Service', " + Quoted(parts.service) + L", " + Quoted(parts.service) +
               L", 16, 3, 1, 'Program'");
    // Stopped and deleted with the product.
    Insert(database, L"`ServiceControl` (`ServiceControl`, `Name`, `Event`, `Wait`, `Component_`)",
           L"'Service', " + Quoted(parts.service) + L", 160, 1, 'Program'");
}

} // namespace

void WritePackage(const std::wstring& path, const PackageParts& parts) {
    InstallerHandle database;
    RequireStatus(MsiOpenDatabaseW(path.c_str(), MSIDBOPEN_CREATE, database.Receive()),
                  L"making the package " + path);
    for (const wchar_t* const table : kTables) {
        RequireStatus(Execute(database.Get(), table), table);
    }
    AddProduct(database.Get(), parts);
    AddService(database.Get(), parts);
    for (const StandardAction& action : kStandardActions) {
        AddSequence(database.Get(), action.name, L"", action.sequence);
    }
    for (const auto& [name, file] : parts.binaries) {
        AddBinary(database.Get(), name, file);
    }
    for (const PackagedAction& action : parts.actions) {
        AddAction(database.Get(), action);
    }
    RequireStatus(WriteSummary(database.Get(), parts.packageCode.c_str(), kPlainSource),
                  L"writing the package's summary");
    RequireStatus(MsiDatabaseCommit(database.Get()), L"writing the package " + path);
}

std::wstring NewCode() {
    GUID identity = {};
    wchar_t text[64] = {};
    Require(SUCCEEDED(CoCreateGuid(&identity)) && StringFromGUID2(identity, text, 64) > 0,
            L"making an identity");
    return text;
}

} // namespace halvard_runner
