#pragma once
// CKesRegKey: one open registry key with typed value access. Every operation
// keeps the Win32 result of its last registry call (LastResult); none throws.
// Operations on a closed key return false without a registry call.
#include "SwlApi.h"
#include "KesString.h"
#include <windows.h>
#include <vector>

class SWLLIB_API CKesRegKey
{
public:
    CKesRegKey();
    // Wraps an already open key (owned from now on).
    CKesRegKey(HKEY key);
    // A copy owns a handle of its own to the same key (an opened key keeps its
    // access rights), so each object closes only what it holds; a copy of a
    // closed key is closed.
    CKesRegKey(const CKesRegKey& other);
    CKesRegKey& operator=(const CKesRegKey& other);
    // Closes what was open and takes ownership of key; the key name is cleared.
    CKesRegKey& operator=(HKEY key);
    virtual ~CKesRegKey();

    // KEY_READ|KEY_WRITE when writable, else KEY_READ; the 64-bit view. Closes
    // what was open first. The key name is set whether or not the open succeeds;
    // a root other than the predefined ones leaves it as it was.
    bool Open(HKEY root, const CKesString& path, bool writable);
    bool Create(HKEY root, const CKesString& path, bool writable, bool isVolatile);
    void Close();
    HKEY GetHKey();
    LONG LastResult();
    LONG FlushKey();

    DWORD GetRegType(const CKesString& name);
    // False unless the value is a REG_DWORD.
    bool GetValue(const CKesString& name, DWORD& value);
    // At most 255 characters; a longer value fails with ERROR_MORE_DATA.
    bool GetValue(const CKesString& name, CKesString& value);
    // A REG_MULTI_SZ value as a list, up to its first empty string. Any other
    // type fails with ERROR_UNSUPPORTED_TYPE.
    bool GetValue(const CKesString& name, std::vector<CKesString>& values);
    bool GetValue(const CKesString& name, BYTE* data, DWORD& size);
    bool SetValue(const CKesString& name, CKesString& value, bool expandable);
    bool SetValue(const CKesString& name, DWORD value);
    bool SetValue(const CKesString& name, BYTE* data, DWORD size);
    bool SetValue(const CKesString& name, std::vector<CKesString> values);
    bool DeleteValue(const CKesString& name);
    bool ValueExists(const CKesString& name);
    bool SubKeyExists(const CKesString& name);
    // Deletes the sub-key and everything under it, depth first. The first failure
    // stops the walk and gives false with its code in LastResult; keys already
    // deleted stay deleted. An empty or null name fails (ERROR_INVALID_PARAMETER).
    bool DeleteSubKey(const wchar_t* name);
    // Next sub-key or value name; one index is shared by both enumerations.
    bool EnumSubKey(CKesString& name);
    bool EnumValue(CKesString& name);
    void ResetEnumeration();

    // Items compare without regard to case. Add treats a missing value as an
    // empty list and writes nothing when the item is already there. Remove fails
    // when the value cannot be read, and writes nothing (true) when no entry matches.
    bool AddValueToMultiString(const CKesString& name, const CKesString& item);
    bool RemoveValueFromMultiString(const CKesString& name, const CKesString& item);
    bool IsValueInMultiString(const CKesString& name, const CKesString& item);
    bool IsSubStringValueInMultiString(const CKesString& name, const CKesString& part, CKesString& found);

    // The key's full name: root prefix plus path.
    const CKesString& KeyName() const;

private:
    void Init();
    bool RemoveSubKey(HKEY parent, const wchar_t* name);
    void SetKeyName(HKEY root, const CKesString& path);

    HKEY m_hKey;
    bool m_bIsOpened;
    LONG m_lResult;
    CKesString m_strKeyName;
    DWORD m_dwEnumIndex;
};
