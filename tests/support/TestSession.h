#pragma once
// An in-process Installer session for tests: a package built on the fly with
// Property and Binary tables, opened with MsiOpenPackageW, with every INFO,
// ACTIONSTART, PROGRESS and COMMONDATA record captured as it was sent.
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
    // A Binary row whose stream holds exactly these bytes (may be empty).
    TestPackage& Binary(const std::wstring& name, const std::string& bytes);
    // Writes the package to a new temporary file and returns its path.
    std::wstring Build() const;

private:
    std::vector<std::pair<std::wstring, std::wstring>> m_properties;
    std::vector<std::pair<std::wstring, std::string>> m_binaries;
};

class TestSession
{
public:
    TestSession();
    explicit TestSession(const TestPackage& package);
    ~TestSession();
    TestSession(const TestSession&) = delete;
    TestSession& operator=(const TestSession&) = delete;

    MSIHANDLE handle() const { return m_hSession; }
    void SetProperty(const std::wstring& name, const std::wstring& value);
    std::wstring Property(const std::wstring& name) const;

    // Forgets the records captured so far (a new session starts with none).
    void ClearRecords();
    // Our Installer-log lines: field 2 of each 2- or 3-field INFO record, with
    // field 3 appended directly when present ("text" + "detail").
    std::vector<std::wstring> LogLines() const;
    bool Logged(const std::wstring& line) const;
    // The INFO records with 2 or 3 fields (time, text[, detail]).
    std::vector<CapturedRecord> InfoRecords() const;
    std::vector<CapturedRecord> RecordsOfType(UINT installMessage) const;

private:
    std::wstring m_packagePath;
    MSIHANDLE m_hSession = 0;
};

// Readable text for assertion messages.
std::string Narrow(const std::wstring& text);
