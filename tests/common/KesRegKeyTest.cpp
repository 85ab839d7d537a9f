#include "KesDebug.h"
#include "KesRegKey.h"
#include "TestRegistry.h"
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace
{
const wchar_t* const kTestKey = L"SOFTWARE\\SWLTest\\RegKey";
const wchar_t* const kTestKeyParent = L"SOFTWARE\\SWLTest";
const wchar_t* const kTraceKey = L"SOFTWARE\\SWLTest\\RegKeyTrace";

std::wstring Sub(const std::wstring& relative)
{
    return std::wstring(kTestKey) + L"\\" + relative;
}

std::wstring W(const CKesString& text)
{
    return text;
}

std::vector<std::wstring> W(const std::vector<CKesString>& list)
{
    return std::vector<std::wstring>(list.begin(), list.end());
}

struct RawValue
{
    DWORD type = REG_NONE;
    std::wstring data; // the stored bytes, two to a character
    DWORD bytes = 0;
};

RawValue ReadRaw(const std::wstring& name)
{
    RawValue raw;
    wchar_t buffer[512] = {};
    raw.bytes = sizeof(buffer);
    if (RegGetValueW(HKEY_LOCAL_MACHINE, kTestKey, name.c_str(), RRF_RT_ANY | RRF_NOEXPAND, &raw.type, buffer,
                     &raw.bytes) == ERROR_SUCCESS)
        raw.data.assign(buffer, (raw.bytes + 1) / sizeof(wchar_t));
    return raw;
}

// The handle was closed: either it is no longer valid, or the slot now holds the
// handle that replaced it (the old one must have been released for that).
bool ClosedOrReusedBy(HKEY old, HKEY replacement)
{
    return old == replacement ||
           RegQueryInfoKeyW(old, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                            nullptr, nullptr) == ERROR_INVALID_HANDLE;
}

class RegKeyTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        testreg::DeleteTree(kTestKey);
        ASSERT_TRUE(m_key.Create(HKEY_LOCAL_MACHINE, kTestKey, true, false));
    }
    void TearDown() override
    {
        m_key.Close();
        testreg::DeleteTree(kTestKey);
        RegDeleteKeyW(HKEY_LOCAL_MACHINE, kTestKeyParent); // only when no other test left keys there
    }

    CKesRegKey m_key;
};

TEST_F(RegKeyTest, KeyNameIsRootPrefixAndPathWhetherOrNotTheKeyExists)
{
    CKesRegKey key;
    EXPECT_FALSE(key.Open(HKEY_LOCAL_MACHINE, Sub(L"Missing").c_str(), true));
    EXPECT_EQ(key.LastResult(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(W(key.KeyName()), L"HKEY_LOCAL_MACHINE\\SOFTWARE\\SWLTest\\RegKey\\Missing");
    EXPECT_TRUE(key.Open(HKEY_LOCAL_MACHINE, kTestKey, false));
    EXPECT_EQ(W(key.KeyName()), L"HKEY_LOCAL_MACHINE\\SOFTWARE\\SWLTest\\RegKey");

    key.Open(HKEY_CURRENT_USER, L"Software", false);
    EXPECT_EQ(W(key.KeyName()), L"HKEY_CURRENT_USER\\Software");
    key.Open(HKEY_CLASSES_ROOT, L"NoSuchClass", false);
    EXPECT_EQ(W(key.KeyName()), L"HKEY_CLASSES_ROOT\\NoSuchClass");
    key.Open(HKEY_USERS, L".DEFAULT", false);
    EXPECT_EQ(W(key.KeyName()), L"HKEY_USERS\\.DEFAULT");
    key.Open(HKEY_CURRENT_CONFIG, L"Software", false);
    EXPECT_EQ(W(key.KeyName()), L"HKEY_CURRENT_CONFIG\\Software");

    // A root that is not predefined has no text: no name rather than a stale one.
    EXPECT_TRUE(key.Create(m_key.GetHKey(), L"Child", true, false));
    EXPECT_EQ(W(key.KeyName()), L"");
}

TEST_F(RegKeyTest, OpeningAgainClosesThePreviousKeyEvenWhenTheNewOpenFails)
{
    ASSERT_TRUE(testreg::CreateKey(Sub(L"Other")));
    CKesRegKey key;
    ASSERT_TRUE(key.Open(HKEY_LOCAL_MACHINE, kTestKey, false));
    HKEY first = key.GetHKey();
    ASSERT_TRUE(key.Open(HKEY_LOCAL_MACHINE, Sub(L"Other").c_str(), false));
    EXPECT_TRUE(ClosedOrReusedBy(first, key.GetHKey()));

    HKEY second = key.GetHKey();
    EXPECT_FALSE(key.Open(HKEY_LOCAL_MACHINE, Sub(L"Missing").c_str(), false));
    EXPECT_EQ(key.GetHKey(), nullptr);
    EXPECT_TRUE(ClosedOrReusedBy(second, nullptr));
}

TEST_F(RegKeyTest, StringReadStopsAt255Characters)
{
    ASSERT_TRUE(testreg::SetString(kTestKey, L"s255", std::wstring(255, L'x')));
    ASSERT_TRUE(testreg::SetString(kTestKey, L"s256", std::wstring(256, L'y')));
    ASSERT_TRUE(testreg::SetString(kTestKey, L"s300", std::wstring(300, L'z')));

    CKesString value;
    EXPECT_TRUE(m_key.GetValue(L"s255", value));
    EXPECT_EQ(W(value), std::wstring(255, L'x'));
    for (const wchar_t* name : {L"s256", L"s300"})
    {
        value = L"stale";
        EXPECT_FALSE(m_key.GetValue(name, value)) << name;
        EXPECT_EQ(m_key.LastResult(), ERROR_MORE_DATA) << name;
        EXPECT_EQ(W(value), L"") << name;
    }
}

TEST_F(RegKeyTest, DwordReadRefusesEveryOtherType)
{
    EXPECT_TRUE(m_key.SetValue(L"n", static_cast<DWORD>(0xDEADBEEF)));
    EXPECT_EQ(ReadRaw(L"n").type, static_cast<DWORD>(REG_DWORD));
    EXPECT_EQ(ReadRaw(L"n").bytes, 4u);
    DWORD value = 0;
    EXPECT_TRUE(m_key.GetValue(L"n", value));
    EXPECT_EQ(value, 0xDEADBEEFu);

    ASSERT_TRUE(testreg::SetString(kTestKey, L"text", L"not a number"));
    EXPECT_FALSE(m_key.GetValue(L"text", value));
    // A one-character string fits the four bytes, so the read succeeds; the type still refuses it.
    ASSERT_TRUE(testreg::SetString(kTestKey, L"short", L"7"));
    EXPECT_FALSE(m_key.GetValue(L"short", value));
    EXPECT_EQ(m_key.LastResult(), ERROR_SUCCESS);
    EXPECT_FALSE(m_key.GetValue(L"missing", value));
    EXPECT_EQ(m_key.LastResult(), ERROR_FILE_NOT_FOUND);
}

TEST_F(RegKeyTest, StringWriteStoresTypeAndTerminatedTextUnexpanded)
{
    CKesString text(L"%SystemRoot%\\swl");
    EXPECT_TRUE(m_key.SetValue(L"plain", text, false));
    EXPECT_TRUE(m_key.SetValue(L"expand", text, true));
    CKesString empty;
    EXPECT_TRUE(m_key.SetValue(L"empty", empty, false));

    EXPECT_EQ(ReadRaw(L"plain").type, static_cast<DWORD>(REG_SZ));
    EXPECT_EQ(m_key.GetRegType(L"expand"), static_cast<DWORD>(REG_EXPAND_SZ));
    EXPECT_EQ(ReadRaw(L"expand").data, std::wstring(L"%SystemRoot%\\swl", 17));
    EXPECT_EQ(ReadRaw(L"expand").bytes, 34u);
    EXPECT_EQ(ReadRaw(L"empty").bytes, 2u);

    CKesString read;
    EXPECT_TRUE(m_key.GetValue(L"expand", read));
    EXPECT_EQ(W(read), L"%SystemRoot%\\swl");
    EXPECT_EQ(m_key.GetRegType(L"missing"), static_cast<DWORD>(REG_NONE));
}

TEST_F(RegKeyTest, BinaryValueRoundTripsAndReportsTheSizeNeeded)
{
    BYTE data[] = {0x00, 0x01, 0xFF, 0x00, 'A'};
    EXPECT_TRUE(m_key.SetValue(L"bin", data, sizeof(data)));
    EXPECT_EQ(m_key.GetRegType(L"bin"), static_cast<DWORD>(REG_BINARY));

    BYTE read[16] = {};
    DWORD size = sizeof(read);
    EXPECT_TRUE(m_key.GetValue(L"bin", read, size));
    EXPECT_EQ(std::vector<BYTE>(read, read + size), std::vector<BYTE>(data, data + sizeof(data)));

    size = 2;
    EXPECT_FALSE(m_key.GetValue(L"bin", read, size));
    EXPECT_EQ(m_key.LastResult(), ERROR_MORE_DATA);
    EXPECT_EQ(size, sizeof(data));
}

TEST_F(RegKeyTest, MultiStringRoundTripsAndAnEmptyListIsOneTerminator)
{
    EXPECT_TRUE(m_key.SetValue(L"list", std::vector<CKesString>{L"one", L"Two", L"three four"}));
    RawValue raw = ReadRaw(L"list");
    EXPECT_EQ(raw.type, static_cast<DWORD>(REG_MULTI_SZ));
    EXPECT_EQ(raw.data, std::wstring(L"one\0Two\0three four\0\0", 20));
    std::vector<CKesString> read{L"stale"};
    EXPECT_TRUE(m_key.GetValue(L"list", read));
    EXPECT_EQ(W(read), (std::vector<std::wstring>{L"one", L"Two", L"three four"}));

    EXPECT_TRUE(m_key.SetValue(L"none", std::vector<CKesString>{}));
    EXPECT_EQ(ReadRaw(L"none").data, std::wstring(1, L'\0'));
    EXPECT_TRUE(m_key.GetValue(L"none", read));
    EXPECT_TRUE(read.empty());

    ASSERT_TRUE(testreg::SetString(kTestKey, L"text", L"one"));
    EXPECT_FALSE(m_key.GetValue(L"text", read));
    EXPECT_EQ(m_key.LastResult(), ERROR_UNSUPPORTED_TYPE);
    EXPECT_FALSE(m_key.GetValue(L"missing", read));
    EXPECT_EQ(m_key.LastResult(), ERROR_FILE_NOT_FOUND);
}

TEST_F(RegKeyTest, AddAppendsOnlyItemsNotPresentInAnyCase)
{
    EXPECT_TRUE(m_key.AddValueToMultiString(L"list", L"Alpha")); // a missing value is an empty list
    EXPECT_TRUE(m_key.AddValueToMultiString(L"list", L"ALPHA"));
    EXPECT_TRUE(m_key.AddValueToMultiString(L"list", L"beta"));
    EXPECT_EQ(ReadRaw(L"list").data, std::wstring(L"Alpha\0beta\0\0", 12));

    ASSERT_TRUE(testreg::SetString(kTestKey, L"text", L"keep"));
    EXPECT_FALSE(m_key.AddValueToMultiString(L"text", L"more"));
    EXPECT_EQ(ReadRaw(L"text").type, static_cast<DWORD>(REG_SZ));
}

TEST_F(RegKeyTest, RemoveDropsEveryCaseVariantAndWritesNothingWhenAbsent)
{
    ASSERT_TRUE(testreg::SetMultiString(kTestKey, L"list", {L"a", L"B", L"b", L"c"}));
    EXPECT_TRUE(m_key.RemoveValueFromMultiString(L"list", L"b"));
    EXPECT_EQ(ReadRaw(L"list").data, std::wstring(L"a\0c\0\0", 5));

    // Through a read-only key any write would fail: no match means no write.
    CKesRegKey readOnly;
    ASSERT_TRUE(readOnly.Open(HKEY_LOCAL_MACHINE, kTestKey, false));
    EXPECT_TRUE(readOnly.RemoveValueFromMultiString(L"list", L"zzz"));
    EXPECT_FALSE(readOnly.RemoveValueFromMultiString(L"list", L"A"));
    EXPECT_EQ(readOnly.LastResult(), ERROR_ACCESS_DENIED);

    EXPECT_FALSE(m_key.RemoveValueFromMultiString(L"missing", L"a"));
    EXPECT_EQ(m_key.LastResult(), ERROR_FILE_NOT_FOUND);
}

TEST_F(RegKeyTest, MembershipTestsIgnoreCaseAndReportTheStoredEntry)
{
    ASSERT_TRUE(testreg::SetMultiString(kTestKey, L"list", {L"Alpha", L"Beta Version"}));
    EXPECT_TRUE(m_key.IsValueInMultiString(L"list", L"ALPHA"));
    EXPECT_FALSE(m_key.IsValueInMultiString(L"list", L"Alph"));
    EXPECT_FALSE(m_key.IsValueInMultiString(L"missing", L"Alpha"));

    CKesString found(L"unchanged");
    EXPECT_TRUE(m_key.IsSubStringValueInMultiString(L"list", L"tA vER", found));
    EXPECT_EQ(W(found), L"Beta Version");
    found = L"unchanged";
    EXPECT_FALSE(m_key.IsSubStringValueInMultiString(L"list", L"gamma", found));
    EXPECT_FALSE(m_key.IsSubStringValueInMultiString(L"missing", L"a", found));
    EXPECT_EQ(W(found), L"unchanged");
}

TEST_F(RegKeyTest, DeleteSubKeyRemovesTheWholeTree)
{
    for (const wchar_t* path : {L"Tree\\A\\A1\\A2", L"Tree\\B", L"Keep"})
        ASSERT_TRUE(testreg::CreateKey(Sub(path)));
    ASSERT_TRUE(testreg::SetString(Sub(L"Tree\\A\\A1"), L"v", L"x"));

    EXPECT_TRUE(m_key.DeleteSubKey(L"Tree"));
    EXPECT_FALSE(testreg::KeyExists(Sub(L"Tree")));
    EXPECT_TRUE(testreg::KeyExists(Sub(L"Keep")));

    EXPECT_FALSE(m_key.DeleteSubKey(L"Tree"));
    EXPECT_EQ(m_key.LastResult(), ERROR_FILE_NOT_FOUND);
    // An empty name would address this key itself.
    EXPECT_FALSE(m_key.DeleteSubKey(L""));
    EXPECT_EQ(m_key.LastResult(), ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(testreg::KeyExists(Sub(L"Keep")));
}

TEST_F(RegKeyTest, DeleteSubKeyStopsAtTheFirstFailureKeepingWhatWasDeleted)
{
    // Windows refuses 256-character key names; Wine stores them, and a 256-character
    // enumeration buffer cannot hold one: a real failure part-way through the tree.
    const std::wstring longName(256, L'k');
    ASSERT_TRUE(testreg::CreateKey(Sub(L"Tree\\A")));
    ASSERT_TRUE(testreg::CreateKey(Sub(L"Tree\\" + longName)));

    EXPECT_FALSE(m_key.DeleteSubKey(L"Tree"));
    EXPECT_EQ(m_key.LastResult(), ERROR_MORE_DATA);
    EXPECT_FALSE(testreg::KeyExists(Sub(L"Tree\\A")));
    EXPECT_TRUE(testreg::KeyExists(Sub(L"Tree\\" + longName)));
}

TEST_F(RegKeyTest, EnumerationsShareOneIndexAndRestartFromZero)
{
    for (const wchar_t* name : {L"k0", L"k1", L"k2", L"k3"})
        ASSERT_TRUE(testreg::CreateKey(Sub(name)));
    for (const wchar_t* name : {L"v0", L"v1", L"v2", L"v3"})
        ASSERT_TRUE(testreg::SetDword(kTestKey, name, 1));
    std::vector<std::wstring> keys, values; // in the registry's own order
    wchar_t name[256];
    for (DWORD i = 0, n = 256; RegEnumKeyExW(m_key.GetHKey(), i, name, &n, nullptr, nullptr, nullptr, nullptr) == 0;
         ++i, n = 256)
        keys.push_back(name);
    for (DWORD i = 0, n = 256; RegEnumValueW(m_key.GetHKey(), i, name, &n, nullptr, nullptr, nullptr, nullptr) == 0;
         ++i, n = 256)
        values.push_back(name);
    ASSERT_EQ(keys.size(), 4u);
    ASSERT_EQ(values.size(), 4u);

    CKesString next;
    std::vector<std::wstring> seen;
    while (m_key.EnumSubKey(next))
        seen.push_back(next);
    EXPECT_EQ(seen, keys);
    EXPECT_EQ(m_key.LastResult(), ERROR_NO_MORE_ITEMS);
    EXPECT_TRUE(m_key.EnumSubKey(next));
    EXPECT_EQ(W(next), keys[0]);

    m_key.ResetEnumeration();
    EXPECT_TRUE(m_key.EnumSubKey(next));
    EXPECT_EQ(W(next), keys[0]);
    EXPECT_TRUE(m_key.EnumValue(next));
    EXPECT_EQ(W(next), values[1]);
    EXPECT_TRUE(m_key.EnumSubKey(next));
    EXPECT_EQ(W(next), keys[2]);
    EXPECT_TRUE(m_key.EnumValue(next));
    EXPECT_EQ(W(next), values[3]);
    EXPECT_FALSE(m_key.EnumSubKey(next));
    EXPECT_TRUE(m_key.EnumValue(next));
    EXPECT_EQ(W(next), values[0]);
}

TEST_F(RegKeyTest, ClosedKeyRefusesEverythingWithoutTouchingTheRegistry)
{
    CKesRegKey key;
    ASSERT_FALSE(key.Open(HKEY_LOCAL_MACHINE, Sub(L"Missing").c_str(), true));
    // A registry call would replace this code.
    ASSERT_EQ(key.LastResult(), ERROR_FILE_NOT_FOUND);

    DWORD number = 0;
    CKesString text(L"stale"), found;
    std::vector<CKesString> list;
    BYTE bytes[4];
    DWORD size = sizeof(bytes);
    EXPECT_FALSE(key.GetValue(L"v", number));
    EXPECT_FALSE(key.GetValue(L"v", text));
    EXPECT_EQ(W(text), L"");
    EXPECT_FALSE(key.GetValue(L"v", list));
    EXPECT_FALSE(key.GetValue(L"v", bytes, size));
    EXPECT_EQ(key.GetRegType(L"v"), static_cast<DWORD>(REG_NONE));
    EXPECT_FALSE(key.ValueExists(L"v"));
    EXPECT_FALSE(key.SubKeyExists(L"k"));
    EXPECT_FALSE(key.DeleteValue(L"v"));
    EXPECT_FALSE(key.DeleteSubKey(L"k"));
    EXPECT_FALSE(key.EnumSubKey(text));
    EXPECT_FALSE(key.EnumValue(text));
    EXPECT_FALSE(key.AddValueToMultiString(L"v", L"a"));
    EXPECT_FALSE(key.RemoveValueFromMultiString(L"v", L"a"));
    EXPECT_FALSE(key.IsValueInMultiString(L"v", L"a"));
    EXPECT_FALSE(key.IsSubStringValueInMultiString(L"v", L"a", found));
    EXPECT_EQ(key.LastResult(), ERROR_FILE_NOT_FOUND);

    // The write forms clear the code before they look at the key.
    EXPECT_FALSE(key.SetValue(L"v", number));
    EXPECT_EQ(key.LastResult(), ERROR_SUCCESS);
    EXPECT_FALSE(key.SetValue(L"v", text, false));
    EXPECT_FALSE(key.SetValue(L"v", bytes, size));
    EXPECT_FALSE(key.SetValue(L"v", std::vector<CKesString>{L"a"}));
    EXPECT_EQ(key.FlushKey(), ERROR_INVALID_HANDLE);
}

TEST_F(RegKeyTest, CopyOwnsItsOwnHandleSoNoHandleIsClosedTwice)
{
    ASSERT_TRUE(testreg::SetDword(kTestKey, L"n", 7));
    auto original = std::make_unique<CKesRegKey>();
    ASSERT_TRUE(original->Open(HKEY_LOCAL_MACHINE, kTestKey, false));
    auto copy = std::make_unique<CKesRegKey>(*original);
    EXPECT_NE(copy->GetHKey(), original->GetHKey());
    EXPECT_EQ(W(copy->KeyName()), W(original->KeyName()));
    original.reset();

    DWORD n = 0;
    EXPECT_TRUE(copy->GetValue(L"n", n));
    EXPECT_EQ(n, 7u);
    // Likely to land in the slot the original freed: a shared handle would close it.
    HKEY bystander = nullptr;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, kTestKey, 0, KEY_READ, &bystander), ERROR_SUCCESS);
    copy.reset();
    EXPECT_EQ(RegQueryValueExW(bystander, L"n", nullptr, nullptr, nullptr, nullptr), ERROR_SUCCESS);
    RegCloseKey(bystander);

    // The copy keeps the original's access: read-only stays read-only.
    CKesRegKey readOnly;
    ASSERT_TRUE(readOnly.Open(HKEY_LOCAL_MACHINE, kTestKey, false));
    CKesRegKey assigned;
    ASSERT_TRUE(assigned.Open(HKEY_LOCAL_MACHINE, kTestKey, true));
    HKEY replaced = assigned.GetHKey();
    assigned = readOnly;
    EXPECT_TRUE(ClosedOrReusedBy(replaced, assigned.GetHKey()));
    EXPECT_FALSE(assigned.SetValue(L"n", static_cast<DWORD>(8)));
    EXPECT_EQ(assigned.LastResult(), ERROR_ACCESS_DENIED);
    CKesRegKey& alias = assigned;
    assigned = alias;
    EXPECT_TRUE(assigned.GetValue(L"n", n));

    CKesRegKey closed;
    CKesRegKey copyOfClosed(closed);
    EXPECT_EQ(copyOfClosed.GetHKey(), nullptr);
    EXPECT_FALSE(copyOfClosed.ValueExists(L"n"));
}

TEST_F(RegKeyTest, AdoptedHandlesAreClosedByTheirOwner)
{
    HKEY raw = nullptr;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, kTestKey, 0, KEY_READ, &raw), ERROR_SUCCESS);
    {
        CKesRegKey key;
        key = raw;
        key = raw; // the same handle again is no hand-over
        EXPECT_TRUE(key.SubKeyExists(L""));
    }
    EXPECT_TRUE(ClosedOrReusedBy(raw, nullptr));

    // A wrapped predefined root can be copied, and both owners can let go of it.
    CKesRegKey root(HKEY_LOCAL_MACHINE);
    {
        CKesRegKey copy(root);
        EXPECT_TRUE(copy.SubKeyExists(kTestKey));
    }
    EXPECT_TRUE(root.SubKeyExists(kTestKey));
}

// The process-wide trace log pointed at this suite's own file.
class RegKeyTraceTest : public RegKeyTest
{
protected:
    static void SetUpTestSuite()
    {
        wchar_t dir[MAX_PATH];
        GetTempPathW(MAX_PATH, dir);
        s_file = std::wstring(dir) + L"KesRegKeyTrace.txt";
        testreg::SetDword(kTraceKey, L"TRACE", 1);
        ASSERT_EQ(g_Debug.Configure(L"SWL", s_file.c_str(), 1, 0, 0, kTraceKey), 0);
        testreg::DeleteTree(kTraceKey);
    }
    static void TearDownTestSuite()
    {
        g_Debug.Configure(L"SWL", L"", 0, 0, 0, kTraceKey); // level 0 switches tracing off
    }
    void SetUp() override
    {
        RegKeyTest::SetUp();
        m_start = ReadFileBytes(s_file).size();
    }
    // The message part of every line written since SetUp.
    std::vector<std::string> NewMessages() const
    {
        std::vector<std::string> messages;
        std::string text = ReadFileBytes(s_file).substr(m_start);
        for (size_t start = 0, end; (end = text.find("\r\n", start)) != std::string::npos; start = end + 2)
        {
            std::string line = text.substr(start, end - start);
            size_t at = 0;
            for (int tab = 0; tab < 5 && at != std::string::npos; ++tab)
                at = line.find('\t', at + (tab ? 1 : 0));
            messages.push_back(at == std::string::npos ? line : line.substr(at + 1));
        }
        return messages;
    }

    static std::wstring s_file;
    size_t m_start = 0;
};
std::wstring RegKeyTraceTest::s_file;

TEST_F(RegKeyTraceTest, DwordReadTracesItsStepsAndResult)
{
    ASSERT_TRUE(testreg::SetString(kTestKey, L"text", L"not a number"));
    DWORD value = 0;
    m_key.GetValue(L"text", value);
    CKesRegKey closed;
    closed.GetValue(L"text", value);
    EXPECT_EQ(NewMessages(), (std::vector<std::string>{
                                 "ENTRY:  CKesRegKey::GetValue",
                                 "CKesRegKey::GetValue m_bIsOpened = true",
                                 "CKesRegKey::GetValue :234",
                                 "CKesRegKey::GetValue dwRegType != REG_DWORD ",
                                 "EXIT:  CKesRegKey::GetValue, bReturn=false",
                                 "ENTRY:  CKesRegKey::GetValue",
                                 "EXIT:  CKesRegKey::GetValue, bReturn=false",
                             }));
}

TEST_F(RegKeyTraceTest, FlushTracesSuccessAndFailureWithTheCodeReturned)
{
    EXPECT_EQ(m_key.FlushKey(), ERROR_SUCCESS);
    {
        // Never a handle this process holds.
        CKesRegKey stale(reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(0xDEAD0)));
        EXPECT_EQ(stale.FlushKey(), ERROR_INVALID_HANDLE);
    }
    std::vector<std::string> messages = NewMessages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0], "CKesRegKey::RegFlushKey Success");
    // The runtime prints nothing for the incomplete "%l"; what matters is a whole line and no crash.
    EXPECT_EQ(messages[1].rfind("CKesRegKey::RegFlushKey Failure: ", 0), 0u) << messages[1];
}
} // namespace
