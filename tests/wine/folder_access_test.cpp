#include "agent/folder_access.h"

#include "files.h"
#include "import_hook.h"
#include "open_handles.h"

#include <aclapi.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <string>
#include <vector>

using halvard::GrantUsersFullAccess;
using halvard_tests::OpenHandleCount;
using halvard_tests::ScratchFolder;
using Lines = std::vector<std::wstring>;
using namespace std::string_literals;

namespace {

struct Entry {
    BYTE type;
    BYTE flags;
    DWORD mask;
    std::wstring account;
};

bool operator==(const Entry& left, const Entry& right) {
    return left.type == right.type && left.flags == right.flags && left.mask == right.mask &&
           left.account == right.account;
}

void PrintTo(const Entry& entry, std::ostream* stream) {
    *stream << "type " << int{entry.type} << " flags " << int{entry.flags} << " mask 0x" << std::hex
            << entry.mask << std::dec << " "
            << std::string(entry.account.begin(), entry.account.end());
}

using Entries = std::vector<Entry>;

constexpr wchar_t kUsers[] = L"S-1-5-32-545";
// Everything, for the folder and for folders and files below it.
const Entry kOurs = {ACCESS_ALLOWED_ACE_TYPE, OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE,
                     GENERIC_ALL, kUsers};

// "S-1-", the authority and the numbers of an account.
std::wstring TextOf(PSID account) {
    std::wstring text = L"S-1-" + std::to_wstring(GetSidIdentifierAuthority(account)->Value[5]);
    for (DWORD index = 0; index < *GetSidSubAuthorityCount(account); ++index) {
        text += L"-" + std::to_wstring(*GetSidSubAuthority(account, index));
    }
    return text;
}

Entries EntriesOf(PACL list) {
    Entries entries;
    for (DWORD index = 0; index < list->AceCount; ++index) {
        void* found = nullptr;
        if (GetAce(list, index, &found) == FALSE) {
            ADD_FAILURE() << "an entry cannot be read";
            break;
        }
        auto* const entry = static_cast<ACCESS_ALLOWED_ACE*>(found);
        entries.push_back(
            {entry->Header.AceType, entry->Header.AceFlags, entry->Mask, TextOf(&entry->SidStart)});
    }
    return entries;
}

// A list of these entries, for the groups of the built-in domain (S-1-5-32-...).
class List {
public:
    void Add(BYTE type, BYTE flags, DWORD mask, DWORD group) {
        SID_IDENTIFIER_AUTHORITY authority = SECURITY_NT_AUTHORITY;
        PSID account = nullptr;
        AllocateAndInitializeSid(&authority, 2, SECURITY_BUILTIN_DOMAIN_RID, group, 0, 0, 0, 0, 0,
                                 0, &account);
        const BOOL added = type == ACCESS_DENIED_ACE_TYPE
                               ? AddAccessDeniedAceEx(Get(), ACL_REVISION, flags, mask, account)
                               : AddAccessAllowedAceEx(Get(), ACL_REVISION, flags, mask, account);
        EXPECT_NE(added, FALSE);
        FreeSid(account);
    }
    PACL Get() { return reinterpret_cast<PACL>(bytes_.data()); }

private:
    alignas(ACL) std::array<BYTE, 512> bytes_ = [] {
        std::array<BYTE, 512> bytes = {};
        InitializeAcl(reinterpret_cast<PACL>(bytes.data()), 512, ACL_REVISION);
        return bytes;
    }();
};

/// Sees the calls of the grant in their order, and closes the folder that it leaves open. A call of
/// `failing` does not happen and fails.
class Calls {
public:
    explicit Calls(const std::wstring& failing = {}) : failing_(failing) {}
    ~Calls() {
        if (folder_ != INVALID_HANDLE_VALUE) {
            EXPECT_NE(CloseHandle(folder_), FALSE);
        }
    }
    Calls(const Calls&) = delete;
    Calls& operator=(const Calls&) = delete;

    /// Handed over instead of the folder's own list; null for none at all.
    std::function<PACL()> list;

    const Lines& All() const { return lines_; }
    /// The list that the folder was to get; empty without one.
    const Entries& Given() const { return given_; }
    /// The folder's own list, or the one that was handed over instead.
    const Entries& Former() const { return former_; }
    HANDLE Folder() const { return folder_; }

private:
    bool Fails(const std::wstring& line) {
        lines_.push_back(line);
        return line == failing_;
    }

    std::wstring failing_;
    Lines lines_;
    Entries given_;
    Entries former_;
    HANDLE folder_ = INVALID_HANDLE_VALUE;
    PSECURITY_DESCRIPTOR descriptor_ = nullptr;

    HOOK(opening_, CreateFileW,
         [this](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                DWORD disposition, DWORD flags, HANDLE like) {
             EXPECT_EQ(access, static_cast<DWORD>(READ_CONTROL | WRITE_DAC));
             EXPECT_EQ(share, 0U);
             EXPECT_EQ(security, nullptr);
             EXPECT_EQ(disposition, static_cast<DWORD>(OPEN_EXISTING));
             EXPECT_EQ(flags, static_cast<DWORD>(FILE_FLAG_BACKUP_SEMANTICS));
             EXPECT_EQ(like, nullptr);
             if (!Fails(L"open "s + path)) {
                 folder_ =
                     opening_.Original(path, access, share, security, disposition, flags, like);
             }
             return folder_;
         });
    HOOK(getting_, GetSecurityInfo,
         [this](HANDLE object, SE_OBJECT_TYPE type, SECURITY_INFORMATION what, PSID* owner,
                PSID* group, PACL* dacl, PACL* sacl, PSECURITY_DESCRIPTOR* descriptor) -> DWORD {
             EXPECT_EQ(object, folder_);
             EXPECT_EQ(type, SE_FILE_OBJECT);
             EXPECT_EQ(what, static_cast<DWORD>(DACL_SECURITY_INFORMATION));
             EXPECT_EQ(owner, nullptr);
             EXPECT_EQ(group, nullptr);
             EXPECT_EQ(sacl, nullptr);
             if (Fails(L"get list")) {
                 return ERROR_ACCESS_DENIED;
             }
             const DWORD code =
                 getting_.Original(object, type, what, owner, group, dacl, sacl, descriptor);
             descriptor_ = *descriptor;
             if (list) {
                 *dacl = list();
             }
             former_ = *dacl == nullptr ? Entries{} : EntriesOf(*dacl);
             return code;
         });
    HOOK(naming_, AllocateAndInitializeSid,
         [this](PSID_IDENTIFIER_AUTHORITY authority, BYTE count, DWORD a, DWORD b, DWORD c, DWORD d,
                DWORD e, DWORD f, DWORD g, DWORD h, PSID* account) -> BOOL {
             EXPECT_EQ(count, 2);
             EXPECT_EQ(a, 32U);
             EXPECT_EQ(b, 545U);
             EXPECT_EQ(authority->Value[5], 5);
             return Fails(L"name group")
                        ? FALSE
                        : naming_.Original(authority, count, a, b, c, d, e, f, g, h, account);
         });
    HOOK(adding_, SetEntriesInAclW,
         [this](ULONG count, PEXPLICIT_ACCESSW entries, PACL old, PACL* made) -> DWORD {
             EXPECT_EQ(count, 1U);
             EXPECT_EQ(entries->grfAccessPermissions, static_cast<DWORD>(GENERIC_ALL));
             EXPECT_EQ(entries->grfAccessMode, GRANT_ACCESS);
             EXPECT_EQ(entries->grfInheritance, 3U);
             EXPECT_EQ(entries->Trustee.pMultipleTrustee, nullptr);
             EXPECT_EQ(entries->Trustee.MultipleTrusteeOperation, NO_MULTIPLE_TRUSTEE);
             EXPECT_EQ(entries->Trustee.TrusteeForm, TRUSTEE_IS_SID);
             EXPECT_EQ(entries->Trustee.TrusteeType, TRUSTEE_IS_GROUP);
             EXPECT_EQ(TextOf(entries->Trustee.ptstrName), kUsers);
             EXPECT_EQ(old == nullptr ? Entries{} : EntriesOf(old), former_);
             return Fails(L"add entry") ? static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY)
                                        : adding_.Original(count, entries, old, made);
         });
    HOOK(setting_, SetSecurityInfo,
         [this](HANDLE object, SE_OBJECT_TYPE type, SECURITY_INFORMATION what, PSID owner,
                PSID group, PACL dacl, PACL sacl) -> DWORD {
             EXPECT_EQ(object, folder_);
             EXPECT_EQ(type, SE_FILE_OBJECT);
             EXPECT_EQ(what, static_cast<DWORD>(DACL_SECURITY_INFORMATION));
             EXPECT_EQ(owner, nullptr);
             EXPECT_EQ(group, nullptr);
             EXPECT_EQ(sacl, nullptr);
             given_ = EntriesOf(dacl);
             return Fails(L"set list")
                        ? static_cast<DWORD>(ERROR_ACCESS_DENIED)
                        : setting_.Original(object, type, what, owner, group, dacl, sacl);
         });
    HOOK(freeing_, LocalFree, [this](HLOCAL memory) {
        if (memory == descriptor_) {
            lines_.emplace_back(L"free descriptor");
        } else {
            lines_.emplace_back(L"free something else");
        }
        return freeing_.Original(memory);
    });
    HOOK(freeingAccount_, FreeSid, [this](PSID account) {
        lines_.emplace_back(L"free account");
        return freeingAccount_.Original(account);
    });
    HOOK(closing_, CloseHandle, [this](HANDLE handle) {
        lines_.emplace_back(L"close");
        return closing_.Original(handle);
    });
};

const Lines kAll = {L"open T:\\Scratch", L"get list", L"name group",
                    L"add entry",        L"set list", L"free descriptor"};

Lines Until(const std::wstring& last) {
    Lines lines;
    for (const std::wstring& line : kAll) {
        lines.push_back(line);
        if (line == last) {
            break;
        }
    }
    return lines;
}

} // namespace

TEST(GrantUsersFullAccess, AddsOneEntryThatFoldersAndFilesBelowInherit) {
    const ScratchFolder scratch;
    const Calls calls;
    GrantUsersFullAccess(scratch.Path());
    EXPECT_EQ(calls.All(), kAll);
    ASSERT_FALSE(calls.Former().empty());
    for (const Entry& entry : calls.Former()) {
        EXPECT_NE(std::find(calls.Given().begin(), calls.Given().end(), entry),
                  calls.Given().end());
    }
    EXPECT_EQ(std::count(calls.Given().begin(), calls.Given().end(), kOurs), 1);
    EXPECT_EQ(calls.Given().size(), calls.Former().size() + 1);
}

TEST(GrantUsersFullAccess, KeepsEveryEntryOfTheFormerList) {
    const ScratchFolder scratch;
    List list;
    list.Add(ACCESS_DENIED_ACE_TYPE, OBJECT_INHERIT_ACE, FILE_WRITE_DATA, DOMAIN_ALIAS_RID_GUESTS);
    list.Add(ACCESS_ALLOWED_ACE_TYPE, 0, FILE_GENERIC_READ, DOMAIN_ALIAS_RID_ADMINS);
    list.Add(ACCESS_ALLOWED_ACE_TYPE, CONTAINER_INHERIT_ACE | INHERITED_ACE, FILE_ALL_ACCESS,
             DOMAIN_ALIAS_RID_POWER_USERS);
    Calls calls;
    calls.list = [&] {
        return list.Get();
    };
    GrantUsersFullAccess(scratch.Path());
    ASSERT_EQ(calls.Former().size(), 3U);
    for (const Entry& entry : calls.Former()) {
        EXPECT_EQ(std::count(calls.Given().begin(), calls.Given().end(), entry), 1);
    }
    EXPECT_EQ(std::count(calls.Given().begin(), calls.Given().end(), kOurs), 1);
    EXPECT_EQ(calls.Given().size(), 4U);
}

TEST(GrantUsersFullAccess, AFolderWithoutAListGetsOneOfThisEntry) {
    const ScratchFolder scratch;
    Calls calls;
    calls.list = [] {
        return static_cast<PACL>(nullptr);
    };
    GrantUsersFullAccess(scratch.Path());
    EXPECT_EQ(calls.All(), kAll);
    EXPECT_EQ(calls.Given(), Entries{kOurs});
}

TEST(GrantUsersFullAccess, AFolderThatIsNotThereIsPassedOver) {
    const ScratchFolder scratch;
    const int before = OpenHandleCount();
    const Calls calls;
    GrantUsersFullAccess(scratch.File(L"missing"));
    EXPECT_EQ(calls.All(), Lines{L"open T:\\Scratch\\missing"});
    EXPECT_EQ(OpenHandleCount(), before);
}

TEST(GrantUsersFullAccess, TheFirstCallThatFailsIsTheLast) {
    const ScratchFolder scratch;
    {
        const Calls calls(L"open T:\\Scratch");
        GrantUsersFullAccess(scratch.Path());
        EXPECT_EQ(calls.All(), Until(L"open T:\\Scratch"));
    }
    {
        // Our entry never takes the place of a list that could not be read.
        const Calls calls(L"get list");
        GrantUsersFullAccess(scratch.Path());
        EXPECT_EQ(calls.All(), Until(L"get list"));
    }
    for (const std::wstring& failing : {L"name group"s, L"add entry"s, L"set list"s}) {
        const Calls calls(failing);
        GrantUsersFullAccess(scratch.Path());
        Lines expected = Until(failing);
        expected.emplace_back(L"free descriptor");
        EXPECT_EQ(calls.All(), expected);
    }
}

TEST(GrantUsersFullAccess, LeavesTheFolderOpenOnPurpose) {
    const ScratchFolder scratch;
    for (const wchar_t* const failing : {L"", L"get list", L"name group", L"add entry"}) {
        const int before = OpenHandleCount();
        const Calls calls(failing);
        GrantUsersFullAccess(scratch.Path());
        EXPECT_EQ(OpenHandleCount(), before + 1) << failing;
        DWORD flags = 0;
        EXPECT_NE(GetHandleInformation(calls.Folder(), &flags), FALSE);
    }
}

// The handle that stays open must not be in the way of the agent.
TEST(GrantUsersFullAccess, TheOpenFolderCanBeUsed) {
    const ScratchFolder scratch;
    const std::wstring folder = scratch.File(L"UPA");
    halvard_tests::CreateFolders(folder);
    HANDLE open = INVALID_HANDLE_VALUE;
    {
        HOOK(opening, CreateFileW,
             [&](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                 DWORD disposition, DWORD flags, HANDLE like) {
                 open = opening.Original(path, access, share, security, disposition, flags, like);
                 return open;
             });
        GrantUsersFullAccess(folder);
    }
    ASSERT_NE(open, INVALID_HANDLE_VALUE);
    halvard_tests::WriteFileAt(folder + L"\\data.bin");
    EXPECT_EQ(halvard_tests::ReadWholeFile(folder + L"\\data.bin"), "x");
    EXPECT_NE(DeleteFileW((folder + L"\\data.bin").c_str()), FALSE);
    CloseHandle(open);
}
