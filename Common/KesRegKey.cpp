// CKesRegKey: one owned registry key with typed value access.
#include "KesRegKey.h"
#include "KesTrace.h"
#include "KesSecure.h"
#include "UniqueHandle.h"
#include <cwchar>
#include <memory>
#include <new>

namespace
{
const REGSAM kWritableAccess = KEY_READ | KEY_WRITE;
const REGSAM kReadAccess = KEY_READ;
static_assert(kWritableAccess == 0x2001F && kReadAccess == 0x20019, "access masks of the registry class");

// Key and value names handed out by the enumerations and used by the sub-tree deletion.
const DWORD kNameChars = 256;

// String reads: a zero-filled buffer twice the size announced to the registry,
// so a value stored without its terminator still ends in zeros.
const DWORD kStringBufferBytes = 1024;
const DWORD kStringAnnouncedBytes = 512;

struct RootName
{
    HKEY root;
    const wchar_t* prefix;
};

const RootName kRootNames[] = {
    {HKEY_CLASSES_ROOT, L"HKEY_CLASSES_ROOT\\"},
    {HKEY_CURRENT_USER, L"HKEY_CURRENT_USER\\"},
    {HKEY_LOCAL_MACHINE, L"HKEY_LOCAL_MACHINE\\"},
    {HKEY_USERS, L"HKEY_USERS\\"},
    {HKEY_PERFORMANCE_DATA, L"HKEY_PERFORMANCE_DATA\\"},
    {HKEY_CURRENT_CONFIG, L"HKEY_CURRENT_CONFIG\\"},
    {HKEY_DYN_DATA, L"HKEY_DYN_DATA\\"},
};

// A second handle to the key behind source, for a copy that must be able to
// close its own. A key from RegOpenKeyExW/RegCreateKeyExW is a kernel handle and
// is duplicated with exactly its access rights. Predefined roots (a wrapped
// HKEY_LOCAL_MACHINE, say) are not kernel handles: opening one with no sub-key
// gives either a handle of its own or the predefined value, whose close leaves
// every other holder working.
LONG DuplicateKey(HKEY source, HKEY& copy)
{
    HANDLE process = GetCurrentProcess();
    HANDLE duplicate = nullptr;
    if (DuplicateHandle(process, source, process, &duplicate, 0, FALSE, DUPLICATE_SAME_ACCESS))
    {
        copy = static_cast<HKEY>(duplicate);
        return ERROR_SUCCESS;
    }
    LONG result = RegOpenKeyExW(source, nullptr, 0, kWritableAccess, &copy);
    if (result != ERROR_SUCCESS)
        result = RegOpenKeyExW(source, nullptr, 0, kReadAccess, &copy);
    return result;
}

// A zero-filled block for a multi-string value, or null (reported) when memory is short.
std::unique_ptr<wchar_t[]> AllocateMultiStringBlock(size_t chars)
{
    std::unique_ptr<wchar_t[]> block(new (std::nothrow) wchar_t[chars]());
    if (!block)
        KES_TRACE_ERROR(L"ERROR:  Unable to allocate memory");
    return block;
}

bool ContainsNoCase(const std::vector<CKesString>& list, const CKesString& item)
{
    for (const CKesString& entry : list)
    {
        if (_wcsicmp(entry.c_str(), item.c_str()) == 0)
            return true;
    }
    return false;
}
} // namespace

CKesRegKey::CKesRegKey()
{
    Init();
}

CKesRegKey::CKesRegKey(HKEY key)
{
    Init();
    m_hKey = key;
    m_bIsOpened = key != nullptr;
}

CKesRegKey::CKesRegKey(const CKesRegKey& other)
{
    Init();
    *this = other;
}

CKesRegKey& CKesRegKey::operator=(const CKesRegKey& other)
{
    if (this == &other)
        return *this;
    Close();
    m_strKeyName = other.m_strKeyName;
    m_dwEnumIndex = other.m_dwEnumIndex;
    m_lResult = other.m_lResult;
    if (other.m_bIsOpened)
    {
        // Never share the handle: each object closes exactly the handle it owns.
        HKEY copy = nullptr;
        m_lResult = DuplicateKey(other.m_hKey, copy);
        if (m_lResult == ERROR_SUCCESS)
        {
            m_hKey = copy;
            m_bIsOpened = true;
        }
    }
    return *this;
}

CKesRegKey& CKesRegKey::operator=(HKEY key)
{
    if (m_bIsOpened && key == m_hKey)
        return *this;
    Close();
    m_hKey = key;
    m_bIsOpened = key != nullptr;
    m_strKeyName.ClearString();
    m_dwEnumIndex = 0;
    return *this;
}

CKesRegKey::~CKesRegKey()
{
    Close();
}

void CKesRegKey::Init()
{
    m_hKey = nullptr;
    m_bIsOpened = false;
    m_lResult = ERROR_SUCCESS;
    m_strKeyName.ClearString();
    m_dwEnumIndex = 0;
}

void CKesRegKey::SetKeyName(HKEY root, const CKesString& path)
{
    // Deliberate: a root without a name leaves the name as it was, even one left from an earlier key.
    for (const RootName& entry : kRootNames)
    {
        if (entry.root == root)
        {
            m_strKeyName = CKesString(entry.prefix) + path;
            return;
        }
    }
}

bool CKesRegKey::Open(HKEY root, const CKesString& path, bool writable)
{
    if (m_bIsOpened)
        Close();
    HKEY key = nullptr;
    m_lResult = RegOpenKeyExW(root, path.c_str(), 0, writable ? kWritableAccess : kReadAccess, &key);
    if (m_lResult == ERROR_SUCCESS)
    {
        m_hKey = key;
        m_bIsOpened = true;
    }
    SetKeyName(root, path);
    return m_bIsOpened;
}

bool CKesRegKey::Create(HKEY root, const CKesString& path, bool writable, bool isVolatile)
{
    if (m_bIsOpened)
        Close();
    HKEY key = nullptr;
    DWORD disposition = 0;
    m_lResult = RegCreateKeyExW(root, path.c_str(), 0, nullptr,
                                isVolatile ? REG_OPTION_VOLATILE : REG_OPTION_NON_VOLATILE,
                                writable ? kWritableAccess : kReadAccess, nullptr, &key, &disposition);
    if (m_lResult == ERROR_SUCCESS)
    {
        m_hKey = key;
        m_bIsOpened = true;
    }
    SetKeyName(root, path);
    return m_bIsOpened;
}

void CKesRegKey::Close()
{
    // The one place where the owned handle is released.
    if (m_bIsOpened)
        RegCloseKey(m_hKey);
    m_hKey = nullptr;
    m_bIsOpened = false;
}

HKEY CKesRegKey::GetHKey()
{
    return m_hKey;
}

LONG CKesRegKey::LastResult()
{
    return m_lResult;
}

const CKesString& CKesRegKey::KeyName() const
{
    return m_strKeyName;
}

LONG CKesRegKey::FlushKey()
{
    // A closed key is reported as RegFlushKey would report it, without the call.
    m_lResult = m_bIsOpened ? RegFlushKey(m_hKey) : ERROR_INVALID_HANDLE;
    // The bare "%l" is deliberate: the line's text is fixed, and the runtime prints nothing for it.
    if (m_lResult == ERROR_SUCCESS)
        g_Debug.Print(L"CKesRegKey::RegFlushKey Success");
    else
        g_Debug.Print(L"CKesRegKey::RegFlushKey Failure: %l", m_lResult);
    return m_lResult;
}

DWORD CKesRegKey::GetRegType(const CKesString& name)
{
    DWORD type = REG_NONE;
    if (!m_bIsOpened)
        return type;
    m_lResult = RegQueryValueExW(m_hKey, name.c_str(), nullptr, &type, nullptr, nullptr);
    return m_lResult == ERROR_SUCCESS ? type : REG_NONE;
}

bool CKesRegKey::GetValue(const CKesString& name, DWORD& value)
{
    bool bResult = false;
    CKesDebugScope scope(L"CKesRegKey::GetValue", &bResult);
    if (!m_bIsOpened)
        return bResult;

    g_Debug.Print(L"CKesRegKey::GetValue m_bIsOpened = true");
    DWORD type = REG_NONE;
    DWORD size = sizeof(DWORD);
    m_lResult = RegQueryValueExW(m_hKey, name.c_str(), nullptr, &type, reinterpret_cast<BYTE*>(&value), &size);
    bResult = m_lResult == ERROR_SUCCESS;
    g_Debug.Print(L"CKesRegKey::GetValue :%d", m_lResult);
    if (type != REG_DWORD)
    {
        g_Debug.Print(L"CKesRegKey::GetValue dwRegType != REG_DWORD ");
        bResult = false;
    }
    return bResult;
}

bool CKesRegKey::GetValue(const CKesString& name, CKesString& value)
{
    bool bResult = false;
    CKesDebugScope scope(L"CKesRegKey::GetValue", &bResult);
    value.ClearString();
    if (!m_bIsOpened)
        return bResult;

    g_Debug.Print(L"CKesRegKey::GetValue m_bIsOpened = true");
    BYTE buffer[kStringBufferBytes] = {};
    DWORD size = kStringAnnouncedBytes;
    m_lResult = RegQueryValueExW(m_hKey, name.c_str(), nullptr, nullptr, buffer, &size);
    g_Debug.Print(L"CKesRegKey::GetValue :%d", m_lResult);
    if (m_lResult == ERROR_SUCCESS)
    {
        value = reinterpret_cast<const wchar_t*>(buffer);
        bResult = true;
    }
    return bResult;
}

bool CKesRegKey::GetValue(const CKesString& name, std::vector<CKesString>& values)
{
    values.clear();
    if (!m_bIsOpened)
        return false;

    DWORD type = REG_NONE;
    DWORD size = 0;
    m_lResult = RegQueryValueExW(m_hKey, name.c_str(), nullptr, &type, nullptr, &size);
    if (m_lResult != ERROR_SUCCESS)
        return false;
    // Any other type is not a list; refusing it keeps the list edits from
    // overwriting a value of another kind.
    if (type != REG_MULTI_SZ)
    {
        m_lResult = ERROR_UNSUPPORTED_TYPE;
        return false;
    }

    // The size is in bytes and may be odd: round up to whole characters, then
    // add two spare terminators, so that data stored without its own still ends
    // the last string and the list inside the block.
    const size_t dataChars = (size + sizeof(wchar_t) - 1) / sizeof(wchar_t);
    std::unique_ptr<wchar_t[]> block = AllocateMultiStringBlock(dataChars + 2);
    if (!block)
    {
        m_lResult = ERROR_NOT_ENOUGH_MEMORY;
        return false;
    }
    m_lResult = RegQueryValueExW(m_hKey, name.c_str(), nullptr, &type, reinterpret_cast<BYTE*>(block.get()), &size);
    if (m_lResult != ERROR_SUCCESS)
        return false;

    // An empty string marks the end of the list.
    const wchar_t* entry = block.get();
    while (*entry != L'\0')
    {
        values.emplace_back(entry);
        entry += wcslen(entry) + 1;
    }
    return true;
}

bool CKesRegKey::GetValue(const CKesString& name, BYTE* data, DWORD& size)
{
    if (!m_bIsOpened)
        return false;
    m_lResult = RegQueryValueExW(m_hKey, name.c_str(), nullptr, nullptr, data, &size);
    return m_lResult == ERROR_SUCCESS;
}

bool CKesRegKey::SetValue(const CKesString& name, CKesString& value, bool expandable)
{
    m_lResult = ERROR_SUCCESS;
    if (!m_bIsOpened)
        return false;
    const DWORD size = static_cast<DWORD>((value.length() + 1) * sizeof(wchar_t));
    m_lResult = RegSetValueExW(m_hKey, name.c_str(), 0, expandable ? REG_EXPAND_SZ : REG_SZ,
                               reinterpret_cast<const BYTE*>(value.c_str()), size);
    return m_lResult == ERROR_SUCCESS;
}

bool CKesRegKey::SetValue(const CKesString& name, DWORD value)
{
    m_lResult = ERROR_SUCCESS;
    if (!m_bIsOpened)
        return false;
    m_lResult = RegSetValueExW(m_hKey, name.c_str(), 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value),
                               sizeof(DWORD));
    return m_lResult == ERROR_SUCCESS;
}

bool CKesRegKey::SetValue(const CKesString& name, BYTE* data, DWORD size)
{
    m_lResult = ERROR_SUCCESS;
    if (!m_bIsOpened)
        return false;
    m_lResult = RegSetValueExW(m_hKey, name.c_str(), 0, REG_BINARY, data, size);
    return m_lResult == ERROR_SUCCESS;
}

bool CKesRegKey::SetValue(const CKesString& name, std::vector<CKesString> values)
{
    m_lResult = ERROR_SUCCESS;
    if (!m_bIsOpened)
        return false;

    size_t chars = 1; // the list's own terminator
    for (const CKesString& entry : values)
        chars += entry.length() + 1;

    std::unique_ptr<wchar_t[]> block = AllocateMultiStringBlock(chars);
    if (!block)
        return false;
    wchar_t* out = block.get();
    for (const CKesString& entry : values)
    {
        wmemcpy(out, entry.c_str(), entry.length() + 1);
        out += entry.length() + 1;
    }
    *out = L'\0';

    m_lResult = RegSetValueExW(m_hKey, name.c_str(), 0, REG_MULTI_SZ, reinterpret_cast<const BYTE*>(block.get()),
                               static_cast<DWORD>(chars * sizeof(wchar_t)));
    return m_lResult == ERROR_SUCCESS;
}

bool CKesRegKey::DeleteValue(const CKesString& name)
{
    if (!m_bIsOpened)
        return false;
    m_lResult = RegDeleteValueW(m_hKey, name.c_str());
    return m_lResult == ERROR_SUCCESS;
}

bool CKesRegKey::ValueExists(const CKesString& name)
{
    // A plain scope: the exit line carries no result.
    CKesDebugScope scope(L"CKesRegKey::ValueExists");
    if (!m_bIsOpened)
        return false;
    m_lResult = RegQueryValueExW(m_hKey, name.c_str(), nullptr, nullptr, nullptr, nullptr);
    return m_lResult == ERROR_SUCCESS;
}

bool CKesRegKey::SubKeyExists(const CKesString& name)
{
    if (!m_bIsOpened)
        return false;
    UniqueHKey subKey;
    m_lResult = RegOpenKeyExW(m_hKey, name.c_str(), 0, kReadAccess, subKey.put());
    return m_lResult == ERROR_SUCCESS;
}

bool CKesRegKey::DeleteSubKey(const wchar_t* name)
{
    if (!m_bIsOpened)
        return false;
    // An empty name would address this key itself and wipe everything below it.
    if (name == nullptr || *name == L'\0')
    {
        m_lResult = ERROR_INVALID_PARAMETER;
        return false;
    }
    return RemoveSubKey(m_hKey, name);
}

bool CKesRegKey::RemoveSubKey(HKEY parent, const wchar_t* name)
{
    UniqueHKey key;
    m_lResult = RegOpenKeyExW(parent, name, 0, kReadAccess, key.put());
    if (m_lResult != ERROR_SUCCESS)
        return false;

    // Every deletion shifts the rest down, so the next child is always at index 0.
    // The first failure stops the walk: keys already deleted stay deleted, the
    // rest of the tree stays as it is, and LastResult holds the failing code.
    wchar_t child[kNameChars];
    for (;;)
    {
        DWORD chars = kNameChars;
        m_lResult = RegEnumKeyExW(key.get(), 0, child, &chars, nullptr, nullptr, nullptr, nullptr);
        if (m_lResult == ERROR_NO_MORE_ITEMS)
            break;
        if (m_lResult != ERROR_SUCCESS)
            return false;
        if (!RemoveSubKey(key.get(), child))
            return false;
    }
    key.reset();
    m_lResult = RegDeleteKeyW(parent, name);
    return m_lResult == ERROR_SUCCESS;
}

bool CKesRegKey::EnumSubKey(CKesString& name)
{
    if (!m_bIsOpened)
        return false;
    const DWORD index = m_dwEnumIndex++;
    wchar_t buffer[kNameChars];
    DWORD chars = kNameChars;
    m_lResult = RegEnumKeyExW(m_hKey, index, buffer, &chars, nullptr, nullptr, nullptr, nullptr);
    if (m_lResult != ERROR_SUCCESS)
    {
        m_dwEnumIndex = 0;
        return false;
    }
    name = buffer;
    return true;
}

bool CKesRegKey::EnumValue(CKesString& name)
{
    if (!m_bIsOpened)
        return false;
    const DWORD index = m_dwEnumIndex++;
    wchar_t buffer[kNameChars];
    DWORD chars = kNameChars;
    m_lResult = RegEnumValueW(m_hKey, index, buffer, &chars, nullptr, nullptr, nullptr, nullptr);
    if (m_lResult != ERROR_SUCCESS)
    {
        m_dwEnumIndex = 0;
        return false;
    }
    name = buffer;
    return true;
}

void CKesRegKey::ResetEnumeration()
{
    m_dwEnumIndex = 0;
}

bool CKesRegKey::AddValueToMultiString(const CKesString& name, const CKesString& item)
{
    if (!m_bIsOpened)
        return false;
    std::vector<CKesString> list;
    if (!GetValue(name, list) && m_lResult != ERROR_FILE_NOT_FOUND)
        return false;
    if (ContainsNoCase(list, item))
        return true;
    list.push_back(item);
    return SetValue(name, list);
}

bool CKesRegKey::RemoveValueFromMultiString(const CKesString& name, const CKesString& item)
{
    std::vector<CKesString> list;
    if (!GetValue(name, list))
        return false;

    std::vector<CKesString> kept;
    for (const CKesString& entry : list)
    {
        if (_wcsicmp(entry.c_str(), item.c_str()) != 0)
            kept.push_back(entry);
    }
    // Nothing to remove: the list already lacks the item, so the value is left untouched.
    if (kept.size() == list.size())
        return true;
    return SetValue(name, kept);
}

bool CKesRegKey::IsValueInMultiString(const CKesString& name, const CKesString& item)
{
    std::vector<CKesString> list;
    return GetValue(name, list) && ContainsNoCase(list, item);
}

bool CKesRegKey::IsSubStringValueInMultiString(const CKesString& name, const CKesString& part, CKesString& found)
{
    std::vector<CKesString> list;
    if (!GetValue(name, list))
        return false;
    CKesString lowerPart(part);
    lowerPart.MakeLower();
    for (const CKesString& entry : list)
    {
        CKesString lowerEntry(entry);
        lowerEntry.MakeLower();
        if (wcsstr(lowerEntry.c_str(), lowerPart.c_str()) != nullptr)
        {
            found = entry;
            return true;
        }
    }
    return false;
}
