#include "TestSession.h"
#include "TestRegistry.h"
#include <gtest/gtest.h>
#include <objbase.h>
#include <propidl.h>
#include <algorithm>

namespace
{
std::vector<CapturedRecord> g_captured;

// Installer's two-call string read: the size first, then the text.
template <class Get> std::wstring ReadText(Get get)
{
    wchar_t empty[1] = L"";
    DWORD size = 0;
    get(empty, &size);
    std::wstring text(++size, L'\0');
    get(&text[0], &size);
    text.resize(size);
    return text;
}

int CALLBACK CaptureHandler(LPVOID, UINT type, MSIHANDLE record)
{
    CapturedRecord captured{type, {}};
    for (UINT i = 0; i <= MsiRecordGetFieldCount(record); ++i)
        captured.fields.push_back(
            ReadText([&](wchar_t* text, DWORD* size) { return MsiRecordGetStringW(record, i, text, size); }));
    g_captured.push_back(captured);
    return 0; // let Installer go on with its own handling
}
} // namespace

std::string Narrow(const std::wstring& text)
{
    std::string out;
    for (wchar_t c : text)
        out += (c >= 0x20 && c < 0x7F) || c == L'\r' || c == L'\n' ? static_cast<char>(c) : '?';
    return out;
}

TestPackage::TestPackage()
    : m_properties{{L"ProductCode", L"{6F0C7E41-2B6A-4C1E-9D3B-5A7E2C9F1D04}"}, {L"ProductName", L"SWL test package"},
                   {L"ProductVersion", L"2.6.0"}, {L"Manufacturer", L"Corvane"}, {L"ProductLanguage", L"1033"}}
{
}

TestPackage& TestPackage::Property(const std::wstring& name, const std::wstring& value)
{
    return m_properties.emplace_back(name, value), *this;
}

TestPackage& TestPackage::Binary(const std::wstring& name, const std::string& bytes)
{
    return m_binaries.emplace_back(name, bytes), *this;
}

std::wstring TestPackage::Build() const
{
    wchar_t dir[MAX_PATH], name[MAX_PATH];
    GetTempPathW(MAX_PATH, dir);
    GetTempFileNameW(dir, L"pkg", 0, name);
    const std::wstring path = name, streamFile = path + L".bin";
    PMSIHANDLE db;
    EXPECT_EQ(0u, MsiOpenDatabaseW(path.c_str(), MSIDBOPEN_CREATE, &db));
    auto run = [&](const wchar_t* sql, MSIHANDLE record = 0) {
        PMSIHANDLE view;
        EXPECT_EQ(0u, MsiDatabaseOpenViewW(db, sql, &view));
        EXPECT_EQ(0u, MsiViewExecute(view, record));
    };
    // A two-column row; a stream is read in from the file named by data.
    auto insert = [&](const wchar_t* sql, const std::wstring& key, const std::wstring& data, bool stream) {
        PMSIHANDLE record = MsiCreateRecord(2);
        MsiRecordSetStringW(record, 1, key.c_str());
        EXPECT_EQ(0u, stream ? MsiRecordSetStreamW(record, 2, data.c_str())
                             : MsiRecordSetStringW(record, 2, data.c_str()));
        run(sql, record);
    };
    run(L"CREATE TABLE `Property` (`Property` CHAR(72) NOT NULL, `Value` LONGCHAR NOT NULL PRIMARY KEY `Property`)");
    run(L"CREATE TABLE `Binary` (`Name` CHAR(72) NOT NULL, `Data` OBJECT NOT NULL PRIMARY KEY `Name`)");
    for (const auto& p : m_properties)
        insert(L"INSERT INTO `Property` (`Property`, `Value`) VALUES (?, ?)", p.first, p.second, false);
    for (const auto& b : m_binaries)
    {
        WriteFileBytes(streamFile, b.second);
        insert(L"INSERT INTO `Binary` (`Name`, `Data`) VALUES (?, ?)", b.first, streamFile, true);
    }
    DeleteFileW(streamFile.c_str());

    PMSIHANDLE info;
    EXPECT_EQ(0u, MsiGetSummaryInformationW(db, nullptr, 20, &info));
    FILETIME none{};
    MsiSummaryInfoSetPropertyW(info, PIDSI_TEMPLATE, VT_LPSTR, 0, &none, L"x64;1033");
    MsiSummaryInfoSetPropertyW(info, PIDSI_REVNUMBER, VT_LPSTR, 0, &none, L"{0E4B6C2A-7D19-4F38-A5C1-3B8D9E2F6A70}");
    MsiSummaryInfoSetPropertyW(info, PIDSI_PAGECOUNT, VT_I4, 200, &none, nullptr);
    MsiSummaryInfoSetPropertyW(info, PIDSI_WORDCOUNT, VT_I4, 2, &none, nullptr);
    EXPECT_EQ(0u, MsiSummaryInfoPersist(info));
    EXPECT_EQ(0u, MsiDatabaseCommit(db));
    return path;
}

TestSession::TestSession(const TestPackage& package) : m_packagePath(package.Build())
{
    MsiSetInternalUI(INSTALLUILEVEL_NONE, nullptr);
    MsiSetExternalUIRecord(CaptureHandler, INSTALLLOGMODE_INFO | INSTALLLOGMODE_ACTIONSTART | INSTALLLOGMODE_PROGRESS |
                                               INSTALLLOGMODE_COMMONDATA, nullptr, nullptr);
    EXPECT_EQ(0u, MsiOpenPackageW(m_packagePath.c_str(), &m_hSession));
    ClearRecords();
}

TestSession::~TestSession()
{
    MsiCloseHandle(m_hSession);
    MsiSetExternalUIRecord(nullptr, 0, nullptr, nullptr);
    DeleteFileW(m_packagePath.c_str());
}

void TestSession::SetProperty(const std::wstring& name, const std::wstring& value)
{
    EXPECT_EQ(0u, MsiSetPropertyW(m_hSession, name.c_str(), value.c_str())) << Narrow(name);
}

std::wstring TestSession::Property(const std::wstring& name) const
{
    return ReadText([&](wchar_t* text, DWORD* size) { return MsiGetPropertyW(m_hSession, name.c_str(), text, size); });
}

void TestSession::ClearRecords()
{
    g_captured.clear();
}

std::vector<CapturedRecord> TestSession::RecordsOfType(UINT installMessage) const
{
    std::vector<CapturedRecord> out;
    for (const auto& r : g_captured)
        if ((r.type & 0xFF000000) == installMessage)
            out.push_back(r);
    return out;
}

std::vector<std::wstring> TestSession::LogLines() const
{
    std::vector<std::wstring> lines;
    for (const auto& r : RecordsOfType(INSTALLMESSAGE_INFO))
        if (r.fields.size() == 3 || r.fields.size() == 4) // field 0, time, text[, detail]
            lines.push_back(r.fields.size() == 4 ? r.fields[2] + r.fields[3] : r.fields[2]);
    return lines;
}

bool TestSession::Logged(const std::wstring& line) const
{
    const auto lines = LogLines();
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

std::vector<std::wstring> TestSession::ActionStartTexts() const
{
    std::vector<std::wstring> texts;
    for (const auto& record : RecordsOfType(INSTALLMESSAGE_ACTIONSTART))
        texts.push_back(record.fields.size() > 2 ? record.fields[2] : L"");
    return texts;
}

std::vector<std::wstring> operator+(std::vector<std::wstring> first, const std::vector<std::wstring>& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}
