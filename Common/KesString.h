#pragma once
// CKesString: the wide string used for every text, path, property and registry
// value of the installer. It is std::wstring plus comparisons, character
// classes, trimming, printf-style formatting, splitting, string-resource loading
// and multibyte conversions. Exported with all its members; the members of the
// std::wstring base are exported too (see the build's wstring export list).
#include "SwlApi.h"
#include <windows.h>
#include <string>
#include <vector>

class SWLLIB_API CKesString : public std::wstring
{
public:
    CKesString();
    CKesString(const CKesString& other);
    // A null text gives an empty string.
    CKesString(const wchar_t* text);
    CKesString(wchar_t* const text);
    // Decimal text of the number (at most 9 characters, sign included). A number
    // that needs more characters gives an empty string and an error trace line.
    CKesString(const int& number);
    ~CKesString();

    CKesString& operator=(const CKesString& other);
    CKesString& operator=(const std::wstring& other);
    CKesString& operator=(const wchar_t* text);
    CKesString& operator=(const int& number);

    // Exact, case-sensitive equality.
    bool operator==(const CKesString& other) const;
    bool operator==(const wchar_t* text) const;
    // Ordinal comparison.
    bool operator<(const CKesString& other) const;
    CKesString operator+(const CKesString& other);
    operator const wchar_t*() const;

    void ClearString();
    // A new heap copy; the caller deletes it.
    CKesString* Copy();
    // 1 when empty, else 0.
    int IsEmpty() const;
    size_t Length() const;

    // Case-insensitive equality: both sides lowered with MakeLower, then compared exactly.
    bool CompareI(CKesString other);
    // True when a is ordinally less than b (the sort predicate of CompareVectors).
    static bool IsStrGreater(CKesString a, CKesString b);
    // Order-independent list equality; see the implementation for the case rules.
    static bool CompareVectors(std::vector<CKesString> a, std::vector<CKesString> b, bool caseSensitive);

    // printf-style (Windows semantics: %s takes a wide string); at most 1023
    // characters are kept. Returns the formatter's result, -1 on a formatting error,
    // 0 when formatting could not run or format is null (the string is then unchanged).
    int FormatString(const wchar_t* format, ...);
    // Replaces each "%s" in turn by the next argument; arguments left over are
    // appended, each after a line feed.
    void FormatWarningMessage(std::vector<CKesString> args);

    // Character classes, ASCII only.
    static bool IsAlphaChar(wchar_t c);
    static bool IsNumericChar(wchar_t c);
    static bool IsHexadecimal(wchar_t c);
    static bool IsSymbolicChar(wchar_t c);

    // Not empty and only '0'..'9'.
    bool IsNumeric();
    // Only hexadecimal digits; true for the empty string.
    bool IsStringHexadecimal();
    // allowed: 0x1 letters, 0x2 digits, 0x4 symbols. True for the empty string.
    bool IsStringType(DWORD allowed);
    bool IsWithinAsciiRange(unsigned low, unsigned high);

    void Left(unsigned n);
    void Right(unsigned n);
    void MakeLower();
    void MakeUpper();
    // Only U+0020 is trimmed; tabs and line breaks stay.
    void TrimLeft();
    void TrimRight();
    void Trim();

    // Splits at each delimiter. False, with out empty, when the text has no
    // delimiter; a trailing delimiter gives no empty last token.
    bool Split(char delimiter, std::vector<CKesString>& out);

    // Loads string resource id of module; returns its length (0 when missing or
    // when module is null).
    int LoadStringW(HINSTANCE module, DWORD id);
    // Loads from the shared resource library; -1 when it cannot be loaded.
    int LoadCommonResString(unsigned id);
    // LoadCommonResString(id & 0x00FFFFFF).
    int LoadWarningMessage(unsigned id);
    int LoadWarningMessage(unsigned id, std::vector<CKesString> args);

    // Converts into destination, which must hold the whole conversion
    // (destinationSize is not consulted). Returns the characters converted, at
    // most sourceLength; the terminator is written over the last of them, so an
    // explicit length of 3 for "abc" gives "ab". 0 for a null destination or a
    // sourceLength of 0 or below -1.
    static int KesMultiByteToWideChar(UINT codePage, DWORD flags, const char* source, int sourceLength,
                                      wchar_t* destination, int destinationSize);
    // The same in the other direction, in bytes.
    static int KesWideCharToMultiByte(UINT codePage, DWORD flags, const wchar_t* source, int sourceLength,
                                      char* destination, int destinationSize, const char* defaultChar,
                                      int* usedDefaultChar);
    // Allocates the whole terminated conversion into destination, which must be
    // null on entry (else 0); free it with the matching _dealloc. Returns the
    // system's result, terminator included.
    static int KesMultiByteToWideChar_alloc(UINT codePage, DWORD flags, const char* source, wchar_t*& destination);
    static int KesWideCharToMultiByte_alloc(UINT codePage, DWORD flags, const wchar_t* source, char*& destination,
                                            const char* defaultChar, int* usedDefaultChar);
    static void KesMultiByteToWideChar_dealloc(wchar_t*& buffer);
    static void KesWideCharToMultiByte_dealloc(char*& buffer);

private:
    enum LangRes
    {
        LangResDefault = 0,
        LangResModule = 1
    };
    int LoadStringW(HINSTANCE module, DWORD id, LangRes lang);
};

// The ANSI code page of a locale; GetACP() for locale 0; 0 when the locale's
// answer is not a number.
SWLLIB_API UINT GetCodePage(LCID locale);
