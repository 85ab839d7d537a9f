#pragma once
// An in-process Installer session on a package built on the fly (Property and Binary tables) that
// captures every INFO, ACTIONSTART, PROGRESS and COMMONDATA record; not for concurrent threads.
#include <windows.h>
#include <msi.h>
#include <msiquery.h>
#include <string>
#include <utility>
#include <vector>

struct CapturedRecord
{
    UINT type = 0;                     // INSTALLMESSAGE_* (high byte) of the message
    std::vector<std::wstring> fields;  // fields[0] is field 0; integer fields as decimal text
};

class TestPackage
{
public:
    TestPackage();
    TestPackage& Property(const std::wstring& name, const std::wstring& value);
    TestPackage& Binary(const std::wstring& name, const std::string& bytes);
    std::wstring Build() const; // writes the package to a new temporary file; returns its path

private:
    std::vector<std::pair<std::wstring, std::wstring>> m_properties;
    std::vector<std::pair<std::wstring, std::string>> m_binaries;
};

class TestSession
{
public:
    explicit TestSession(const TestPackage& package = TestPackage());
    ~TestSession();
    TestSession(const TestSession&) = delete;
    TestSession& operator=(const TestSession&) = delete;

    MSIHANDLE handle() const { return m_hSession; }
    void SetProperty(const std::wstring& name, const std::wstring& value);
    std::wstring Property(const std::wstring& name) const;

    void ClearRecords();
    // Our Installer-log lines: INFO records of 2 or 3 fields (time, text[, detail]) as text + detail.
    std::vector<std::wstring> LogLines() const;
    bool Logged(const std::wstring& line) const;
    std::vector<CapturedRecord> RecordsOfType(UINT installMessage) const;
    // The description (field 2) of every ACTIONSTART record: what the progress dialog showed.
    std::vector<std::wstring> ActionStartTexts() const;

private:
    std::wstring m_packagePath;
    MSIHANDLE m_hSession = 0;
};

std::string Narrow(const std::wstring& text); // printable text for assertion messages
// Two lists of lines (expected log lines, paths), one after the other.
std::vector<std::wstring> operator+(std::vector<std::wstring> first, const std::vector<std::wstring>& second);
