// Simulated machines under Wine: WMI and SetupAPI list a profile's devices as soon as they are written,
// the registry holds what the profile says, and nothing is left once the machine is gone.
#include "SimulatedMachine.h"
#include "TestFolders.h"
#include "TestRegistry.h"
#include "TestSession.h"
#include "UniqueHandle.h"
#include <gtest/gtest.h>
#include <wbemidl.h>
#include <algorithm>
#include <stdexcept>

namespace
{
using Ids = std::vector<std::wstring>;
const DWORD kMaxDeviceId = 200; // MAX_DEVICE_ID_LEN, from cfgmgr32.h
const std::wstring kEnumPci = L"SYSTEM\\CurrentControlSet\\Enum\\PCI";

Ids Sorted(Ids ids)
{
    std::sort(ids.begin(), ids.end());
    return ids;
}

// Device-instance IDs of the PCI devices that SetupAPI lists as present.
Ids SetupApiPciIds()
{
    Ids ids;
    UniqueDevInfo set(SetupDiGetClassDevsW(nullptr, nullptr, nullptr, DIGCF_PRESENT | DIGCF_ALLCLASSES));
    SP_DEVINFO_DATA device = {};
    device.cbSize = sizeof(device);
    for (DWORD i = 0; SetupDiEnumDeviceInfo(set.get(), i, &device); ++i)
    {
        wchar_t id[kMaxDeviceId];
        if (SetupDiGetDeviceInstanceIdW(set.get(), &device, id, kMaxDeviceId, nullptr) && !wcsncmp(id, L"PCI\\", 4))
            ids.push_back(id);
    }
    return Sorted(ids);
}

// DeviceID of every PCI entry of SELECT * FROM Win32_PnPEntity.
Ids WmiPciIds()
{
    Ids ids;
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    IWbemLocator* locator = nullptr;
    IWbemServices* services = nullptr;
    IEnumWbemClassObject* rows = nullptr;
    BSTR space = SysAllocString(L"ROOT\\CIMV2"), wql = SysAllocString(L"WQL"),
         query = SysAllocString(L"SELECT * FROM Win32_PnPEntity");
    if (SUCCEEDED(CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator,
                                   reinterpret_cast<void**>(&locator))) &&
        SUCCEEDED(locator->ConnectServer(space, nullptr, nullptr, nullptr, 0, nullptr, nullptr, &services)) &&
        SUCCEEDED(services->ExecQuery(wql, query, WBEM_FLAG_FORWARD_ONLY, nullptr, &rows)))
    {
        IWbemClassObject* row = nullptr;
        ULONG count = 0;
        while (rows->Next(static_cast<LONG>(WBEM_INFINITE), 1, &row, &count) == S_OK && count)
        {
            VARIANT id;
            VariantInit(&id);
            if (SUCCEEDED(row->Get(L"DeviceID", 0, &id, nullptr, nullptr)) && id.vt == VT_BSTR &&
                !wcsncmp(id.bstrVal, L"PCI\\", 4))
                ids.push_back(id.bstrVal);
            VariantClear(&id);
            row->Release();
        }
    }
    for (IUnknown* object : std::initializer_list<IUnknown*>{rows, services, locator})
        if (object)
            object->Release();
    SysFreeString(space), SysFreeString(wql), SysFreeString(query);
    CoUninitialize();
    return Sorted(ids);
}

// Every key below Enum\PCI, as "key|value names", to show that a machine leaves nothing behind.
Ids PciTree(const std::wstring& path = kEnumPci)
{
    Ids tree;
    UniqueHKey key;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, key.put()) != ERROR_SUCCESS)
        return tree;
    std::wstring entry = path + L"|";
    wchar_t name[256];
    for (DWORD i = 0, n = 256; RegEnumValueW(key.get(), i, name, &n, nullptr, nullptr, nullptr, nullptr) == 0; n = 256, ++i)
        entry += std::wstring(name) + L",";
    tree.push_back(entry);
    for (DWORD i = 0, n = 256; RegEnumKeyExW(key.get(), i, name, &n, nullptr, nullptr, nullptr, nullptr) == 0; n = 256, ++i)
        for (auto& sub : PciTree(path + L"\\" + name))
            tree.push_back(sub);
    return Sorted(tree);
}

Ids Profiles()
{
    Ids names;
    WIN32_FIND_DATAW found;
    UniqueFindHandle find(FindFirstFileW((TestFolder("SWL_TEST_MACHINES") + L"\\*.json").c_str(), &found));
    for (bool more = bool(find); more; more = FindNextFileW(find.get(), &found))
        names.push_back(std::wstring(found.cFileName).substr(0, wcslen(found.cFileName) - 5));
    return names;
}

std::wstring Multi(std::initializer_list<const wchar_t*> strings)
{
    std::wstring joined;
    for (const wchar_t* s : strings)
        joined += std::wstring(s) + L'\0';
    return joined + L'\0';
}

std::wstring Value(const std::wstring& key, const wchar_t* name, DWORD* type = nullptr)
{
    std::wstring value;
    EXPECT_TRUE(testreg::GetString(key, name, value, type)) << Narrow(key) << " " << Narrow(name);
    return value;
}
} // namespace

TEST(SimulatedMachine, EveryProfileIsListedByWmiAndSetupApiAtOnceAndLeavesNothingBehind)
{
    const Ids profiles = Profiles();
    ASSERT_GE(profiles.size(), 14u);
    const Ids wineOwn = SetupApiPciIds(), tree = PciTree();
    ASSERT_EQ(wineOwn, WmiPciIds());
    for (const auto& profile : profiles)
    {
        SCOPED_TRACE(Narrow(profile));
        Ids expected = wineOwn;
        {
            SimulatedMachine machine(Narrow(profile));
            for (const auto& device : machine.Devices())
                expected.push_back(device.DeviceID());
            EXPECT_EQ(Sorted(expected), SetupApiPciIds());
            EXPECT_EQ(Sorted(expected), WmiPciIds());
            EXPECT_EQ(L"win10", machine.Windows());
        }
        EXPECT_EQ(wineOwn, SetupApiPciIds());
        EXPECT_EQ(wineOwn, WmiPciIds());
        EXPECT_EQ(tree, PciTree());
    }
}

TEST(SimulatedMachine, DevicesCarryTheProfilesIDsAndDeviceParametersWithTheirTypes)
{
    {
        SimulatedMachine machine("pf-7xxx");
        ASSERT_EQ(1u, machine.Devices().size());
        const SimulatedDevice& device = machine.Devices()[0];
        EXPECT_EQ(L"PCI\\VEN_1F2E&DEV_6B20&SUBSYS_00001F2E&REV_20\\4&1A2B3C4D&0&0008", device.DeviceID());
        EXPECT_EQ(L"PCI\\VEN_1F2E&DEV_6B20&SUBSYS_00001F2E&REV_20", device.HardwareID());
        const std::wstring key = device.KeyPath();
        EXPECT_EQ(Multi({L"PCI\\VEN_1F2E&DEV_6B20&SUBSYS_00001F2E&REV_20", L"PCI\\VEN_1F2E&DEV_6B20&SUBSYS_00001F2E"}),
                  Value(key, L"HardwareID"));
        EXPECT_EQ(Multi({L"PCI\\VEN_1F2E&DEV_6B20&REV_20", L"PCI\\VEN_1F2E&DEV_6B20"}), Value(key, L"CompatibleIDs"));
        EXPECT_EQ(L"asym;dc", Value(key + L"\\Device Parameters\\General", L"ServicesNeeded"));
        EXPECT_TRUE(testreg::KeyExists(key + L"\\Device Parameters\\Sriov"));
        EXPECT_FALSE(testreg::ValueExists(key + L"\\Device Parameters\\Sriov", L"EnableSriov"));
    }
    {
        SimulatedMachine machine("pf-701xx");
        std::string bytes;
        EXPECT_TRUE(testreg::GetBytes(machine.Devices()[0].KeyPath() + L"\\Device Parameters\\Sriov", L"EnableSriov", bytes));
        EXPECT_EQ(std::string("\1\0\0\0", 4), bytes);
    }
    {
        SimulatedMachine machine("services-wrong-type");
        DWORD types[3] = {};
        for (int i = 0; i < 3; ++i)
            Value(machine.Devices()[i].KeyPath() + L"\\Device Parameters\\General", L"ServicesNeeded", &types[i]);
        EXPECT_EQ((std::vector<DWORD>{REG_DWORD, REG_BINARY, REG_MULTI_SZ}), std::vector<DWORD>(types, types + 3));
        std::string binary;
        testreg::GetBytes(machine.Devices()[1].KeyPath() + L"\\Device Parameters\\General", L"ServicesNeeded", binary);
        EXPECT_EQ(std::string("a\0s\0y\0m\0;\0d\0c\0\0\0", 16), binary);
    }
    {
        // The long value sits on the later of two instances of one hardware key.
        SimulatedMachine machine("services-long");
        ASSERT_EQ(2u, machine.Devices().size());
        EXPECT_EQ(machine.Devices()[0].hardwareKey, machine.Devices()[1].hardwareKey);
        std::string first, later;
        testreg::GetBytes(machine.Devices()[0].KeyPath() + L"\\Device Parameters\\General", L"ServicesNeeded", first);
        testreg::GetBytes(machine.Devices()[1].KeyPath() + L"\\Device Parameters\\General", L"ServicesNeeded", later);
        EXPECT_EQ(16u, first.size());
        EXPECT_GT(later.size(), 260u);
    }
    {
        SimulatedMachine machine("other-vendors");
        const SimulatedDevice& lower = machine.Devices()[2];
        EXPECT_EQ(L"ven_1f2e&dev_6b20&subsys_00001f2e&rev_20", lower.hardwareKey);
        EXPECT_EQ(L"pci\\ven_1f2e&dev_6b20&subsys_00001f2e&rev_20", Value(lower.KeyPath(), L"HardwareID").substr(0, 44));
        EXPECT_EQ(L"PCI\\VEN_1F2E&DEV_6B20&SUBSYS_00001F2E&REV_20\\4&AA11BB22&0&0050", lower.DeviceID());
    }
}

TEST(SimulatedMachine, AMachineWhoseInstanceIsTakenIsRefusedAndWritesNothing)
{
    SimulatedMachine first("pf-7xxx");
    const Ids tree = PciTree();
    // two-7xxx has pf-7xxx's instance and one more.
    EXPECT_THROW(SimulatedMachine("two-7xxx"), std::runtime_error);
    EXPECT_EQ(tree, PciTree());
    EXPECT_EQ(L"asym;dc", Value(first.Devices()[0].KeyPath() + L"\\Device Parameters\\General", L"ServicesNeeded"));
}

TEST(SimulatedMachine, MalformedProfilesAreRefusedWithTheirReason)
{
    TempDir dir;
    const struct { const char* text; const char* reason; } cases[] = {
        {R"({"devices": [{"vendor": "1F2E", "device": "6B20"]})", "expected '}' at byte "},
        {R"({"devices": [{"vendor": "1F2E", "device": "6B20", "subsystem": "00001F2E", "revision": "20"}]})",
         "each device needs a list of \"instances\""},
    };
    const Ids tree = PciTree();
    for (const auto& c : cases)
    {
        WriteFileBytes(dir.File(L"bad.json"), c.text);
        try
        {
            SimulatedMachine machine(Narrow(dir.File(L"bad.json")));
            ADD_FAILURE() << "accepted " << c.text;
        }
        catch (const std::runtime_error& e)
        {
            EXPECT_NE(std::string::npos, std::string(e.what()).find(c.reason)) << e.what();
        }
        EXPECT_EQ(tree, PciTree());
    }
}
