#include "KesRegKey.h"
#include "TestRegistry.h"
#include "TraceCapture.h"
#include "UniqueHandle.h"
#include <gtest/gtest.h>

namespace
{
const std::wstring kKey = L"SOFTWARE\\SWLTest\\RegKey";
using Strings = std::vector<CKesString>;

std::wstring Stored(const wchar_t* name) { std::wstring data; testreg::GetString(kKey, name, data); return data; }

struct RegKeyTest : ::testing::Test
{
    void SetUp() override { ASSERT_TRUE(m_key.Create(HKEY_LOCAL_MACHINE, kKey.c_str(), true, false)); }
    void TearDown() override { testreg::DeleteTree(kKey); }

    CKesRegKey m_key;
};

TEST_F(RegKeyTest, ReadsRefuseStringsOver255CharactersAndDwordsOfAnotherType)
{
    ASSERT_TRUE(testreg::SetString(kKey, L"s255", std::wstring(255, L'x')) &&
                testreg::SetString(kKey, L"s256", std::wstring(256, L'y')) && testreg::SetString(kKey, L"short", L"7"));
    CKesString value(L"stale");
    EXPECT_FALSE(m_key.GetValue(L"s256", value));
    EXPECT_EQ(m_key.LastResult(), ERROR_MORE_DATA);
    EXPECT_EQ(std::wstring(value), L"");
    EXPECT_TRUE(m_key.GetValue(L"s255", value) && value == std::wstring(255, L'x').c_str());
    DWORD number = 0;
    EXPECT_FALSE(m_key.GetValue(L"short", number)) << "it fits the four bytes, so only its type can refuse it";
}

TEST_F(RegKeyTest, MultiStringListEditsIgnoreCaseAndRefuseAnotherType)
{
    EXPECT_TRUE(m_key.SetValue(L"list", Strings{L"one", L"Two"}) && m_key.AddValueToMultiString(L"list", L"TWO") &&
                m_key.AddValueToMultiString(L"list", L"three") && m_key.RemoveValueFromMultiString(L"list", L"ONE"));
    EXPECT_EQ(Stored(L"list"), std::wstring(L"Two\0three\0\0", 11));
    EXPECT_TRUE(m_key.AddValueToMultiString(L"missing", L"a"));
    EXPECT_EQ(Stored(L"missing"), std::wstring(L"a\0\0", 3));
    ASSERT_TRUE(testreg::SetString(kKey, L"text", L"keep"));
    EXPECT_FALSE(m_key.AddValueToMultiString(L"text", L"more"));
    EXPECT_EQ(m_key.LastResult(), ERROR_UNSUPPORTED_TYPE);
}

TEST_F(RegKeyTest, OddLengthMultiStringIsReadAsStoredAndAListEditWritesBackNothingElse)
{
    // "abc" with no terminator, the last character cut to its low byte: 61 00 62 00 63.
    ASSERT_TRUE(testreg::SetBytes(kKey, L"odd", REG_MULTI_SZ, std::string("a\0b\0c", 5)));
    Strings values;
    EXPECT_TRUE(m_key.GetValue(L"odd", values));
    EXPECT_EQ(values, Strings{L"abc"});
    EXPECT_TRUE(m_key.AddValueToMultiString(L"odd", L"d"));
    std::string stored;
    EXPECT_TRUE(testreg::GetBytes(kKey, L"odd", stored));
    EXPECT_EQ(stored, std::string("a\0b\0c\0\0\0d\0\0\0", 14));
}

TEST_F(RegKeyTest, DeleteSubKeyRemovesTheWholeTreeButNeverTheKeyItself)
{
    ASSERT_TRUE(testreg::CreateKey(kKey + L"\\Tree\\A\\A1") && testreg::CreateKey(kKey + L"\\Tree\\B"));
    EXPECT_TRUE(m_key.DeleteSubKey(L"Tree"));
    EXPECT_FALSE(testreg::KeyExists(kKey + L"\\Tree"));
    EXPECT_FALSE(m_key.DeleteSubKey(L""));
    EXPECT_EQ(m_key.LastResult(), ERROR_INVALID_PARAMETER);
}

TEST_F(RegKeyTest, EnumerationsShareOneIndexThatRestartsAfterTheEnd)
{
    for (std::wstring n : {L"0", L"1"})
        ASSERT_TRUE(testreg::CreateKey(kKey + L"\\k" + n) && testreg::SetDword(kKey, L"v" + n, 1));
    CKesString a, b, c, d;
    EXPECT_TRUE(m_key.EnumSubKey(a) && m_key.EnumValue(b));
    EXPECT_TRUE(!m_key.EnumSubKey(c) && m_key.EnumValue(c)) << "past the last sub-key the index restarts";
    m_key.ResetEnumeration();
    EXPECT_TRUE(m_key.EnumSubKey(d));
    EXPECT_EQ((Strings{a, b, c, d}), (Strings{L"k0", L"v1", L"v0", L"k0"}));
}

TEST_F(RegKeyTest, ClosedKeyRefusesEverythingWithoutARegistryCall)
{
    CKesRegKey key;
    ASSERT_FALSE(key.Open(HKEY_LOCAL_MACHINE, (kKey + L"\\Missing").c_str(), true));
    EXPECT_EQ(std::wstring(key.KeyName()), L"HKEY_LOCAL_MACHINE\\" + kKey + L"\\Missing");
    DWORD number = 0;
    CKesString text;
    TraceCapture trace;
    // A write clears the code first; any registry call after it would leave a code of its own.
    EXPECT_FALSE(key.SetValue(L"v", number) || key.GetValue(L"v", number) || key.GetValue(L"v", text) ||
                 key.ValueExists(L"v") || key.DeleteSubKey(L"k") || key.EnumSubKey(text) ||
                 key.AddValueToMultiString(L"v", L"a"));
    EXPECT_EQ(key.LastResult(), ERROR_SUCCESS);
    EXPECT_TRUE(trace.Printed(L"EXIT:  CKesRegKey::ValueExists") &&
                trace.Printed(L"EXIT:  CKesRegKey::GetValue, bReturn=false"))
        << trace.Dump();
    EXPECT_EQ(key.FlushKey(), ERROR_INVALID_HANDLE);
    EXPECT_TRUE(trace.Printed(L"CKesRegKey::RegFlushKey Failure: ")) << trace.Dump();
}

TEST_F(RegKeyTest, CopyOwnsItsOwnHandleSoNoHandleIsClosedTwice)
{
    UniqueHKey bystander;
    {
        CKesRegKey copy(m_key);
        m_key.Close();
        EXPECT_TRUE(copy.SetValue(L"n", DWORD{7})) << "the copy's handle outlives the original's";
        // Likely to reuse the original's handle value, which a copy sharing it would close.
        ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, kKey.c_str(), 0, KEY_READ, bystander.put()), ERROR_SUCCESS);
    }
    EXPECT_EQ(RegQueryValueExW(bystander.get(), L"n", nullptr, nullptr, nullptr, nullptr), ERROR_SUCCESS);
}
} // namespace
