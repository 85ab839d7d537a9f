#pragma once
// A small JSON reader for test data (the simulated machines): objects, arrays,
// strings, numbers, true, false and null. Strings come back as UTF-16.
#include <string>
#include <utility>
#include <vector>

namespace minijson
{
struct Value
{
    enum class Type { Null, Bool, Number, String, Array, Object };
    Type type = Type::Null;
    bool boolean = false;
    double number = 0;
    std::wstring string;
    std::vector<Value> items;                             // Array
    std::vector<std::pair<std::wstring, Value>> members;  // Object, in file order

    // The member's value; null when this is not an object or has no such member.
    const Value* Find(const std::wstring& name) const;
};

// Parses UTF-8 text. Throws std::runtime_error naming the byte offset of the
// first error, including anything but white space after the value.
Value Parse(const std::string& utf8);
} // namespace minijson
