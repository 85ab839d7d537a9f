#include "SimulatedMachine.h"
#include "MiniJson.h"
#include "TestFolders.h"
#include "TestRegistry.h"
#include "UniqueHandle.h"
#include <windows.h>
#include <shlwapi.h>
#include <algorithm>
#include <cwctype>
#include <stdexcept>

namespace
{
const wchar_t* const kEnumPci = L"SYSTEM\\CurrentControlSet\\Enum\\PCI\\";
const wchar_t* const kSystemClass = L"{4d36e97d-e325-11ce-bfc1-08002be10318}";

std::string Narrow(const std::wstring& text)
{
    return std::string(text.begin(), text.end()); // profile names and IDs are ASCII
}

std::wstring Upper(std::wstring text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](wchar_t c) { return std::towupper(c); });
    return text;
}

std::wstring Lower(std::wstring text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](wchar_t c) { return std::towlower(c); });
    return text;
}

[[noreturn]] void Malformed(const std::wstring& profile, const std::string& what)
{
    throw std::runtime_error("machine profile " + Narrow(profile) + ": " + what);
}

const std::wstring& Text(const minijson::Value& device, const wchar_t* name, const std::wstring& profile)
{
    const minijson::Value* value = device.Find(name);
    if (!value || value->type != minijson::Value::Type::String || value->string.empty())
        Malformed(profile, "each device needs a text \"" + Narrow(name) + "\"");
    return value->string;
}

std::string MultiString(const std::vector<std::wstring>& strings)
{
    std::wstring joined;
    for (const auto& s : strings)
        joined += s + L'\0';
    joined += L'\0';
    return std::string(reinterpret_cast<const char*>(joined.data()), joined.size() * sizeof(wchar_t));
}

std::string StringBytes(const std::wstring& text)
{
    return std::string(reinterpret_cast<const char*>(text.c_str()), (text.size() + 1) * sizeof(wchar_t));
}

std::string DwordBytes(double number)
{
    const DWORD value = static_cast<DWORD>(number);
    return std::string(reinterpret_cast<const char*>(&value), sizeof(value));
}

// A registry value from the profile: text is REG_SZ, a number REG_DWORD, and
// {"type": "REG_...", "value": ...} any of the types the profiles use.
std::pair<DWORD, std::string> TypedValue(const minijson::Value& value, const std::wstring& profile)
{
    using Type = minijson::Value::Type;
    if (value.type == Type::String)
        return {REG_SZ, StringBytes(value.string)};
    if (value.type == Type::Number)
        return {REG_DWORD, DwordBytes(value.number)};
    const minijson::Value* type = value.Find(L"type");
    const minijson::Value* data = value.Find(L"value");
    if (!type || type->type != Type::String || !data)
        Malformed(profile, "a value is text or {\"type\": \"REG_...\", \"value\": ...}");
    if (type->string == L"REG_SZ" && data->type == Type::String)
        return {REG_SZ, StringBytes(data->string)};
    if (type->string == L"REG_EXPAND_SZ" && data->type == Type::String)
        return {REG_EXPAND_SZ, StringBytes(data->string)};
    if (type->string == L"REG_DWORD" && data->type == Type::Number)
        return {REG_DWORD, DwordBytes(data->number)};
    if (type->string == L"REG_MULTI_SZ" && data->type == Type::Array)
    {
        std::vector<std::wstring> strings;
        for (const auto& item : data->items)
            strings.push_back(item.string);
        return {REG_MULTI_SZ, MultiString(strings)};
    }
    if (type->string == L"REG_BINARY" && data->type == Type::String && data->string.size() % 2 == 0)
    {
        std::string bytes;
        for (size_t i = 0; i < data->string.size(); i += 2)
            bytes += static_cast<char>(std::wcstoul(data->string.substr(i, 2).c_str(), nullptr, 16));
        return {REG_BINARY, bytes};
    }
    Malformed(profile, "unsupported value of type " + Narrow(type->string));
}

// Creates HKLM\path; created tells whether it was new.
void CreateKey(const std::wstring& path, bool& created)
{
    UniqueHKey key;
    DWORD disposition = 0;
    const LONG rc = RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                                    key.put(), &disposition);
    if (rc != ERROR_SUCCESS)
        throw std::runtime_error("cannot create HKLM\\" + Narrow(path) + " (" + std::to_string(rc) + ")");
    created = disposition == REG_CREATED_NEW_KEY;
}

void SetValue(const std::wstring& path, const std::wstring& name, const std::pair<DWORD, std::string>& value)
{
    if (!testreg::SetBytes(path, name, value.first, value.second))
        throw std::runtime_error("cannot write HKLM\\" + Narrow(path) + " \"" + Narrow(name) + "\"");
}

bool HasSubKeys(const std::wstring& path)
{
    UniqueHKey key;
    DWORD subKeys = 0;
    return RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, key.put()) == ERROR_SUCCESS &&
           RegQueryInfoKeyW(key.get(), nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, nullptr, nullptr,
                            nullptr, nullptr, nullptr) == ERROR_SUCCESS &&
           subKeys > 0;
}
} // namespace

std::wstring SimulatedDevice::KeyPath() const
{
    return kEnumPci + hardwareKey + L"\\" + instance;
}

std::wstring SimulatedDevice::DeviceID() const
{
    return Upper(L"PCI\\" + hardwareKey + L"\\" + instance);
}

std::wstring SimulatedDevice::HardwareID() const
{
    return Upper(L"PCI\\" + hardwareKey);
}

std::wstring SimulatedMachine::ProfilePath(const std::string& profile)
{
    std::wstring path(profile.begin(), profile.end());
    if (path.size() > 5 && path.compare(path.size() - 5, 5, L".json") == 0)
        return path;
    return TestFolder("SWL_TEST_MACHINES") + L"\\" + path + L".json";
}

SimulatedMachine::SimulatedMachine(const std::string& profile)
{
    const std::wstring path = ProfilePath(profile);
    try
    {
        Write(path);
    }
    catch (...)
    {
        Remove();
        throw;
    }
}

SimulatedMachine::~SimulatedMachine()
{
    Remove();
}

void SimulatedMachine::Write(const std::wstring& path)
{
    if (!FileExists(path))
        throw std::runtime_error("no machine profile " + Narrow(path));
    const minijson::Value root = minijson::Parse(ReadFileBytes(path));
    if (const minijson::Value* windows = root.Find(L"windows"))
        m_windows = windows->string;
    const minijson::Value* devices = root.Find(L"devices");
    if (!devices || devices->type != minijson::Value::Type::Array)
        Malformed(path, "no \"devices\" list");

    for (const minijson::Value& device : devices->items)
    {
        // PCI\VEN_v&DEV_d&SUBSYS_s&REV_r and its shorter forms, as Windows lists them for a PCI function.
        const std::wstring ven = L"VEN_" + Text(device, L"vendor", path), dev = L"&DEV_" + Text(device, L"device", path);
        const std::wstring subsys = L"&SUBSYS_" + Text(device, L"subsystem", path);
        const std::wstring rev = L"&REV_" + Text(device, L"revision", path);
        const minijson::Value* lowerCase = device.Find(L"lowerCase");
        auto spell = [&](const std::wstring& id) { return lowerCase && lowerCase->boolean ? Lower(id) : id; };
        const std::wstring hardwareKey = spell(ven + dev + subsys + rev);
        const std::pair<DWORD, std::string> hardwareIDs = {
            REG_MULTI_SZ, MultiString({spell(L"PCI\\" + ven + dev + subsys + rev), spell(L"PCI\\" + ven + dev + subsys)})};
        const std::pair<DWORD, std::string> compatibleIDs = {
            REG_MULTI_SZ, MultiString({spell(L"PCI\\" + ven + dev + rev), spell(L"PCI\\" + ven + dev)})};
        const minijson::Value* description = device.Find(L"description");
        const minijson::Value* servicesNeeded = device.Find(L"servicesNeeded");
        const minijson::Value* sriov = device.Find(L"sriov");
        const minijson::Value* instances = device.Find(L"instances");
        if (!instances || instances->type != minijson::Value::Type::Array || instances->items.empty())
            Malformed(path, "each device needs a list of \"instances\"");

        bool created = false;
        CreateKey(kEnumPci + hardwareKey, created);
        if (created)
            m_createdHardwareKeys.push_back(kEnumPci + hardwareKey);
        for (const minijson::Value& instance : instances->items)
        {
            const SimulatedDevice simulated{hardwareKey, instance.string};
            const std::wstring key = simulated.KeyPath();
            if (instance.string.empty())
                Malformed(path, "an instance name is empty");
            CreateKey(key, created);
            if (!created)
                throw std::runtime_error("HKLM\\" + Narrow(key) + " exists already: another machine is still in place");
            m_createdInstances.push_back(key);
            m_devices.push_back(simulated);

            SetValue(key, L"HardwareID", hardwareIDs);
            SetValue(key, L"CompatibleIDs", compatibleIDs);
            // SetupAPI skips a device without a ClassGUID.
            SetValue(key, L"ClassGUID", {REG_SZ, StringBytes(kSystemClass)});
            SetValue(key, L"DeviceDesc",
                     {REG_SZ, StringBytes(description ? description->string : std::wstring(L"PCI device"))});
            if (servicesNeeded)
            {
                testreg::CreateKey(key + L"\\Device Parameters\\General");
                SetValue(key + L"\\Device Parameters\\General", L"ServicesNeeded", TypedValue(*servicesNeeded, path));
            }
            if (sriov)
            {
                testreg::CreateKey(key + L"\\Device Parameters\\Sriov");
                for (const auto& member : sriov->members)
                    SetValue(key + L"\\Device Parameters\\Sriov", member.first, TypedValue(member.second, path));
            }
        }
    }
}

void SimulatedMachine::Remove()
{
    for (auto key = m_createdInstances.rbegin(); key != m_createdInstances.rend(); ++key)
        SHDeleteKeyW(HKEY_LOCAL_MACHINE, key->c_str());
    for (const auto& key : m_createdHardwareKeys)
        if (!HasSubKeys(key))
            SHDeleteKeyW(HKEY_LOCAL_MACHINE, key.c_str());
    m_createdInstances.clear();
    m_createdHardwareKeys.clear();
    m_devices.clear();
}
