#include "TestSession.h"
#include "TestRegistry.h"
#include <gtest/gtest.h>
#include <objbase.h>
#include <propidl.h>
#include <cstdio>
#include <mutex>

namespace
{
std::mutex g_captureLock;
std::vector<CapturedRecord> g_captured;

std::wstring RecordString(MSIHANDLE record, UINT field)
{
    wchar_t empty[1] = L"";
    DWORD size = 0;
    MsiRecordGetStringW(record, field, empty, &size);
    std::wstring text(size + 1, L'\0');
    size += 1;
    MsiRecordGetStringW(record, field, &text[0], &size);
    text.resize(size);
    return text;
}

int CALLBACK CaptureHandler(LPVOID, UINT type, MSIHANDLE record)
{
    CapturedRecord captured;
    captured.type = type;
    for (UINT i = 0; i <= MsiRecordGetFieldCount(record); ++i)
        captured.fields.push_back(RecordString(record, i));
    std::lock_guard<std::mutex> lock(g_captureLock);
    g_captured.push_back(captured);
    return 0; // let Installer go on with its own handling
}

void Check(UINT r, const char* what)
{
    if (r != ERROR_SUCCESS)
        ADD_FAILURE() << what << " failed with " << r;
}

std::wstring TempFile(const wchar_t* prefix)
{
    wchar_t dir[MAX_PATH];
    wchar_t path[MAX_PATH];
    GetTempPathW(MAX_PATH, dir);
    GetTempFileNameW(dir, prefix, 0, path);
    return path;
}

// Runs sql once per row; each row's strings fill the statement's parameters.
void Insert(MSIHANDLE db, const wchar_t* sql, const std::vector<std::vector<std::wstring>>& rows, bool streamLast)
{
    PMSIHANDLE view;
    Check(MsiDatabaseOpenViewW(db, sql, &view), "MsiDatabaseOpenViewW");
    for (const auto& row : rows)
    {
        PMSIHANDLE record = MsiCreateRecord(static_cast<UINT>(row.size()));
        for (UINT i = 0; i < row.size(); ++i)
            if (streamLast && i + 1 == row.size())
                Check(MsiRecordSetStreamW(record, i + 1, row[i].c_str()), "MsiRecordSetStreamW");
            else
                MsiRecordSetStringW(record, i + 1, row[i].c_str());
        Check(MsiViewExecute(view, record), "MsiViewExecute");
    }
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
{
    Property(L"ProductCode", L"{6F0C7E41-2B6A-4C1E-9D3B-5A7E2C9F1D04}");
    Property(L"ProductName", L"SWL test package");
    Property(L"ProductVersion", L"2.6.0");
    Property(L"Manufacturer", L"Corvane");
    Property(L"ProductLanguage", L"1033");
}

TestPackage& TestPackage::Property(const std::wstring& name, const std::wstring& value)
{
    for (auto& p : m_properties)
        if (p.first == name)
            return p.second = value, *this;
    m_properties.emplace_back(name, value);
    return *this;
}

TestPackage& TestPackage::Binary(const std::wstring& name, const std::string& bytes)
{
    m_binaries.emplace_back(name, bytes);
    return *this;
}

std::wstring TestPackage::Build() const
{
    std::wstring path = TempFile(L"pkg");
    DeleteFileW(path.c_str());
    PMSIHANDLE db;
    Check(MsiOpenDatabaseW(path.c_str(), MSIDBOPEN_CREATE, &db), "MsiOpenDatabaseW");
    for (const wchar_t* sql :
         {L"CREATE TABLE `Property` (`Property` CHAR(72) NOT NULL, `Value` LONGCHAR NOT NULL PRIMARY KEY `Property`)",
          L"CREATE TABLE `Binary` (`Name` CHAR(72) NOT NULL, `Data` OBJECT NOT NULL PRIMARY KEY `Name`)"})
        Insert(db, sql, {{}}, false);

    std::vector<std::vector<std::wstring>> properties;
    for (const auto& p : m_properties)
        properties.push_back({p.first, p.second});
    Insert(db, L"INSERT INTO `Property` (`Property`, `Value`) VALUES (?, ?)", properties, false);

    std::vector<std::vector<std::wstring>> binaries;
    for (const auto& b : m_binaries)
    {
        binaries.push_back({b.first, TempFile(L"bin")});
        WriteFileBytes(binaries.back()[1], b.second);
    }
    Insert(db, L"INSERT INTO `Binary` (`Name`, `Data`) VALUES (?, ?)", binaries, true);
    for (const auto& b : binaries)
        DeleteFileW(b[1].c_str());

    PMSIHANDLE info;
    Check(MsiGetSummaryInformationW(db, nullptr, 20, &info), "MsiGetSummaryInformationW");
    FILETIME none{};
    MsiSummaryInfoSetPropertyW(info, PIDSI_TEMPLATE, VT_LPSTR, 0, &none, L"x64;1033");
    MsiSummaryInfoSetPropertyW(info, PIDSI_REVNUMBER, VT_LPSTR, 0, &none, L"{0E4B6C2A-7D19-4F38-A5C1-3B8D9E2F6A70}");
    MsiSummaryInfoSetPropertyW(info, PIDSI_PAGECOUNT, VT_I4, 200, &none, nullptr);
    MsiSummaryInfoSetPropertyW(info, PIDSI_WORDCOUNT, VT_I4, 2, &none, nullptr);
    Check(MsiSummaryInfoPersist(info), "MsiSummaryInfoPersist");
    Check(MsiDatabaseCommit(db), "MsiDatabaseCommit");
    return path;
}

TestSession::TestSession() : TestSession(TestPackage()) {}

TestSession::TestSession(const TestPackage& package) : m_packagePath(package.Build())
{
    MsiSetInternalUI(INSTALLUILEVEL_NONE, nullptr);
    MsiSetExternalUIRecord(CaptureHandler,
                           INSTALLLOGMODE_INFO | INSTALLLOGMODE_ACTIONSTART | INSTALLLOGMODE_PROGRESS |
                               INSTALLLOGMODE_COMMONDATA,
                           nullptr, nullptr);
    Check(MsiOpenPackageW(m_packagePath.c_str(), &m_hSession), "MsiOpenPackageW");
    ClearRecords();
}

TestSession::~TestSession()
{
    if (m_hSession)
        MsiCloseHandle(m_hSession);
    MsiSetExternalUIRecord(nullptr, 0, nullptr, nullptr);
    DeleteFileW(m_packagePath.c_str());
}

void TestSession::SetProperty(const std::wstring& name, const std::wstring& value)
{
    Check(MsiSetPropertyW(m_hSession, name.c_str(), value.c_str()), "MsiSetPropertyW");
}

std::wstring TestSession::Property(const std::wstring& name) const
{
    wchar_t empty[1] = L"";
    DWORD size = 0;
    MsiGetPropertyW(m_hSession, name.c_str(), empty, &size);
    std::wstring value(size + 1, L'\0');
    size += 1;
    MsiGetPropertyW(m_hSession, name.c_str(), &value[0], &size);
    value.resize(size);
    return value;
}

void TestSession::ClearRecords()
{
    std::lock_guard<std::mutex> lock(g_captureLock);
    g_captured.clear();
}

std::vector<CapturedRecord> TestSession::InfoRecords() const
{
    std::vector<CapturedRecord> out;
    for (const auto& r : RecordsOfType(INSTALLMESSAGE_INFO))
        if (r.fields.size() == 3 || r.fields.size() == 4) // field 0, time, text[, detail]
            out.push_back(r);
    return out;
}

std::vector<CapturedRecord> TestSession::RecordsOfType(UINT installMessage) const
{
    std::vector<CapturedRecord> out;
    std::lock_guard<std::mutex> lock(g_captureLock);
    for (const auto& r : g_captured)
        if ((r.type & 0xFF000000) == installMessage)
            out.push_back(r);
    return out;
}

std::vector<std::wstring> TestSession::LogLines() const
{
    std::vector<std::wstring> lines;
    for (const auto& r : InfoRecords())
        lines.push_back(r.fields.size() == 4 ? r.fields[2] + r.fields[3] : r.fields[2]);
    return lines;
}

bool TestSession::Logged(const std::wstring& line) const
{
    for (const auto& l : LogLines())
        if (l == line)
            return true;
    return false;
}
