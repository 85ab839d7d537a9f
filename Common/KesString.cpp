#include "KesString.h"
#include "Helper.h"
#include "KesTrace.h"
#include "KesSecure.h"

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <memory>
#include <new>

namespace
{
const size_t kFormatBufferChars = 1024;
const DWORD kFirstResourceBufferChars = 1024;
// _itow_s writes into this many characters, terminator included.
const size_t kNumberBufferChars = 10;
// The numbers whose decimal text, sign included, fits in kNumberBufferChars - 1 characters.
const int kLargestNumber = 999999999;
const int kSmallestNumber = -99999999;

const wchar_t* NonNull(const wchar_t* text)
{
    return text ? text : L"";
}

// Decimal text of number, or an empty string when it needs more than nine
// characters: _itow_s would refuse such a number, and on a runtime without the
// invalid-parameter handler installed the refusal ends the process, so it is
// never asked.
std::wstring NumberText(int number)
{
    if (number > kLargestNumber || number < kSmallestNumber)
    {
        KES_TRACE_ERROR(L"CKesString: %d needs more than %d characters; the string is left empty", number,
                        static_cast<int>(kNumberBufferChars - 1));
        return std::wstring();
    }
    wchar_t buffer[kNumberBufferChars] = {};
    if (_itow_s(number, buffer, kNumberBufferChars, 10) != 0)
        return std::wstring();
    return buffer;
}
} // namespace

CKesString::CKesString() {}

CKesString::CKesString(const CKesString& other) : std::wstring(other) {}

CKesString::CKesString(const wchar_t* text) : std::wstring(NonNull(text)) {}

CKesString::CKesString(wchar_t* const text) : std::wstring(NonNull(text)) {}

CKesString::CKesString(const int& number) : std::wstring(NumberText(number)) {}

CKesString::~CKesString() {}

CKesString& CKesString::operator=(const CKesString& other)
{
    std::wstring::operator=(other);
    return *this;
}

CKesString& CKesString::operator=(const std::wstring& other)
{
    std::wstring::operator=(other);
    return *this;
}

CKesString& CKesString::operator=(const wchar_t* text)
{
    std::wstring::operator=(NonNull(text));
    return *this;
}

CKesString& CKesString::operator=(const int& number)
{
    std::wstring::operator=(NumberText(number));
    return *this;
}

bool CKesString::operator==(const CKesString& other) const
{
    return compare(other) == 0;
}

bool CKesString::operator==(const wchar_t* text) const
{
    return text != nullptr && compare(text) == 0;
}

bool CKesString::operator<(const CKesString& other) const
{
    return compare(other) < 0;
}

CKesString CKesString::operator+(const CKesString& other)
{
    CKesString result(*this);
    result.append(other);
    return result;
}

CKesString::operator const wchar_t*() const
{
    return c_str();
}

void CKesString::ClearString()
{
    clear();
}

CKesString* CKesString::Copy()
{
    return new CKesString(*this);
}

int CKesString::IsEmpty() const
{
    return empty() ? 1 : 0;
}

size_t CKesString::Length() const
{
    return length();
}

bool CKesString::CompareI(CKesString other)
{
    CKesString mine(*this);
    mine.MakeLower();
    other.MakeLower();
    return mine == other;
}

bool CKesString::IsStrGreater(CKesString a, CKesString b)
{
    return a.compare(b) < 0;
}

bool CKesString::CompareVectors(std::vector<CKesString> a, std::vector<CKesString> b, bool caseSensitive)
{
    bool result = false;
    CKesDebugScope scope(L"CKesString::CompareVectors", &result);
    if (a.size() != b.size())
        return result;

    // Both lists are sorted case-sensitively even for a case-insensitive
    // comparison, so lists that differ in case and order can compare unequal.
    // Deliberate: callers rely on this exact ordering.
    std::sort(a.begin(), a.end(), IsStrGreater);
    std::sort(b.begin(), b.end(), IsStrGreater);
    for (size_t i = 0; i < a.size(); ++i)
    {
        bool same = caseSensitive ? a[i] == b[i] : a[i].CompareI(b[i]);
        if (!same)
            return result;
    }
    result = true;
    return result;
}

int CKesString::FormatString(const wchar_t* format, ...)
{
    if (format == nullptr)
        return 0;

    int result = 0;
    va_list args;
    va_start(args, format);
    va_list lengthArgs;
    va_copy(lengthArgs, args);
    try
    {
        std::unique_ptr<wchar_t[]> buffer(new (std::nothrow) wchar_t[kFormatBufferChars]());
        if (buffer)
        {
            // msvcrt's formatter (a wide %s is a wide string) neither terminates a
            // cut text nor tells how long it would have been; both are made up here
            // so that the result is that of snprintf.
            int written = _vsnwprintf(buffer.get(), kFormatBufferChars - 1, format, args);
            buffer[kFormatBufferChars - 1] = L'\0';
            if (written < 0)
                written = _vscwprintf(format, lengthArgs);
            assign(buffer.get());
            result = written < 0 ? -1 : written;
        }
    }
    catch (...)
    {
        result = 0;
    }
    va_end(lengthArgs);
    va_end(args);
    return result;
}

void CKesString::FormatWarningMessage(std::vector<CKesString> args)
{
    bool appending = false;
    for (const CKesString& arg : args)
    {
        if (!appending)
        {
            size_t position = find(L"%s");
            if (position != npos)
            {
                erase(position, 2);
                insert(position, arg);
                continue;
            }
            appending = true;
        }
        append(L"\n");
        append(arg);
    }
}

bool CKesString::IsAlphaChar(wchar_t c)
{
    return (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z');
}

bool CKesString::IsNumericChar(wchar_t c)
{
    return c >= L'0' && c <= L'9';
}

bool CKesString::IsHexadecimal(wchar_t c)
{
    return IsNumericChar(c) || (c >= L'a' && c <= L'f') || (c >= L'A' && c <= L'F');
}

bool CKesString::IsSymbolicChar(wchar_t c)
{
    return c >= 0x20 && c <= 0x7E && !IsAlphaChar(c) && !IsNumericChar(c);
}

bool CKesString::IsNumeric()
{
    return !empty() && std::all_of(begin(), end(), IsNumericChar);
}

bool CKesString::IsStringHexadecimal()
{
    return std::all_of(begin(), end(), IsHexadecimal);
}

bool CKesString::IsStringType(DWORD allowed)
{
    bool hasLetters = false;
    bool hasDigits = false;
    bool hasSymbols = false;
    for (wchar_t c : *this)
    {
        hasLetters = hasLetters || IsAlphaChar(c);
        hasDigits = hasDigits || IsNumericChar(c);
        hasSymbols = hasSymbols || IsSymbolicChar(c);
    }
    if (hasLetters && !(allowed & 0x1))
        return false;
    if (hasDigits && !(allowed & 0x2))
        return false;
    if (hasSymbols && !(allowed & 0x4))
        return false;
    return true;
}

bool CKesString::IsWithinAsciiRange(unsigned low, unsigned high)
{
    bool result = false;
    CKesDebugScope scope(L"CKesString::IsWithinAsciiRange", &result);
    result = std::all_of(begin(), end(), [low, high](wchar_t c) {
        unsigned code = static_cast<unsigned>(c);
        return code >= low && code <= high;
    });
    return result;
}

void CKesString::Left(unsigned n)
{
    if (n < length())
        erase(n);
}

void CKesString::Right(unsigned n)
{
    if (n < length())
        erase(0, length() - n);
}

void CKesString::MakeLower()
{
    size_t size = length() + 1;
    std::unique_ptr<wchar_t[]> buffer(new wchar_t[size]());
    KES_SAFE_COPY(buffer.get(), size, c_str());
    _wcslwr(buffer.get());
    assign(buffer.get());
}

void CKesString::MakeUpper()
{
    size_t size = length() + 1;
    std::unique_ptr<wchar_t[]> buffer(new wchar_t[size]());
    KES_SAFE_COPY(buffer.get(), size, c_str());
    _wcsupr(buffer.get());
    assign(buffer.get());
}

void CKesString::TrimLeft()
{
    erase(0, std::min(find_first_not_of(L' '), length()));
}

void CKesString::TrimRight()
{
    size_t last = find_last_not_of(L' ');
    erase(last == npos ? 0 : last + 1);
}

void CKesString::Trim()
{
    TrimLeft();
    TrimRight();
}

bool CKesString::Split(char delimiter, std::vector<CKesString>& out)
{
    out.clear();
    bool result = false;
    std::wstring rest(*this);
    const wchar_t wideDelimiter = static_cast<wchar_t>(static_cast<unsigned char>(delimiter));
    for (;;)
    {
        CKesString token;
        size_t position = rest.find(wideDelimiter, 0);
        if (position != npos)
        {
            token = rest.substr(0, position);
            rest.erase(0, position + 1);
            result = true;
        }
        else
        {
            if (out.empty())
                break;
            token = rest;
            rest.clear();
        }
        out.push_back(token);
        if (rest.empty())
            break;
    }
    return result;
}

int CKesString::LoadStringW(HINSTANCE module, DWORD id)
{
    return LoadStringW(module, id, LangResModule);
}

int CKesString::LoadStringW(HINSTANCE module, DWORD id, LangRes /*lang*/)
{
    if (module == nullptr)
        return 0;

    DWORD size = kFirstResourceBufferChars;
    for (;;)
    {
        std::unique_ptr<wchar_t[]> buffer(new wchar_t[size]());
        int loaded = ::LoadStringW(module, id, buffer.get(), static_cast<int>(size));
        DWORD lastError = ::GetLastError();
        (void)lastError;
        // A text that fills the buffer exactly may have been cut: try a larger one.
        if (static_cast<DWORD>(loaded) + 1 == size)
        {
            size *= 2;
            continue;
        }
        assign(buffer.get());
        return loaded;
    }
}

int CKesString::LoadCommonResString(unsigned id)
{
    CKesString name = CHelper::CommonResourceLibraryName();
    HMODULE library = CHelper::LoadResourceLibrary(name);
    if (library == nullptr)
        return -1;
    int result = LoadStringW(::GetModuleHandleW(name), id);
    ::FreeLibrary(library);
    return result;
}

int CKesString::LoadWarningMessage(unsigned id)
{
    int result = -1;
    CKesDebugScope scope(L"CKesString::LoadWarningMessage", &result);
    // The top byte of a warning id is not part of the resource id.
    result = LoadCommonResString(id & 0x00FFFFFF);
    return result;
}

int CKesString::LoadWarningMessage(unsigned id, std::vector<CKesString> args)
{
    int result = LoadWarningMessage(id);
    FormatWarningMessage(args);
    return result;
}

int CKesString::KesMultiByteToWideChar(UINT codePage, DWORD flags, const char* source, int sourceLength,
                                       wchar_t* destination, int destinationSize)
{
    if (destination == nullptr || sourceLength == 0 || sourceLength < -1)
        return 0;
    int needed = ::MultiByteToWideChar(codePage, flags, source, sourceLength, nullptr, 0);
    if (needed < 1)
        return needed;
    std::unique_ptr<wchar_t[]> converted(new (std::nothrow) wchar_t[needed]());
    if (!converted)
        return 0;
    int count = ::MultiByteToWideChar(codePage, flags, source, sourceLength, converted.get(), needed);
    if (count > 0)
    {
        if (sourceLength != -1)
            count = std::min(count, sourceLength);
        std::wmemcpy(destination, converted.get(), count);
        // The terminator goes over the last converted character, also for an
        // explicit length. Deliberate: callers size their text around it.
        destination[count - 1] = L'\0';
    }
    return count;
}

int CKesString::KesWideCharToMultiByte(UINT codePage, DWORD flags, const wchar_t* source, int sourceLength,
                                       char* destination, int destinationSize, const char* defaultChar,
                                       int* usedDefaultChar)
{
    if (destination == nullptr || sourceLength == 0 || sourceLength < -1)
        return 0;
    int needed = ::WideCharToMultiByte(codePage, flags, source, sourceLength, nullptr, 0, defaultChar,
                                       usedDefaultChar);
    if (needed < 1)
        return needed;
    std::unique_ptr<char[]> converted(new (std::nothrow) char[needed]());
    if (!converted)
        return 0;
    int count = ::WideCharToMultiByte(codePage, flags, source, sourceLength, converted.get(), needed, defaultChar,
                                      usedDefaultChar);
    if (count > 0)
    {
        if (sourceLength != -1)
            count = std::min(count, sourceLength);
        std::memcpy(destination, converted.get(), count);
        // Deliberate, as in KesMultiByteToWideChar.
        destination[count - 1] = '\0';
    }
    return count;
}

int CKesString::KesMultiByteToWideChar_alloc(UINT codePage, DWORD flags, const char* source, wchar_t*& destination)
{
    if (destination != nullptr)
        return 0;
    int needed = ::MultiByteToWideChar(codePage, flags, source, -1, nullptr, 0);
    if (needed < 1)
        return 0;
    destination = new (std::nothrow) wchar_t[needed]();
    if (destination == nullptr)
        return 0;
    return ::MultiByteToWideChar(codePage, flags, source, -1, destination, needed);
}

int CKesString::KesWideCharToMultiByte_alloc(UINT codePage, DWORD flags, const wchar_t* source, char*& destination,
                                             const char* defaultChar, int* usedDefaultChar)
{
    if (destination != nullptr)
        return 0;
    int needed = ::WideCharToMultiByte(codePage, flags, source, -1, nullptr, 0, defaultChar, usedDefaultChar);
    if (needed < 1)
        return 0;
    destination = new (std::nothrow) char[needed]();
    if (destination == nullptr)
        return 0;
    return ::WideCharToMultiByte(codePage, flags, source, -1, destination, needed, defaultChar, usedDefaultChar);
}

void CKesString::KesMultiByteToWideChar_dealloc(wchar_t*& buffer)
{
    delete[] buffer;
    buffer = nullptr;
}

void CKesString::KesWideCharToMultiByte_dealloc(char*& buffer)
{
    delete[] buffer;
    buffer = nullptr;
}

UINT GetCodePage(LCID locale)
{
    if (locale == 0)
        return ::GetACP();
    wchar_t text[16] = {};
    ::GetLocaleInfoW(locale, LOCALE_IDEFAULTANSICODEPAGE, text, 16);
    return static_cast<UINT>(std::wcstoul(text, nullptr, 10));
}
