// The stand-in driver package (tests/drivers) installed by Wine's own UpdateDriverForPlugAndPlayDevicesW on
// simulated devices: what lands where, and which hardware IDs make Wine install anything at all.
#include "SimulatedMachine.h"
#include "TestFolders.h"
#include "TestRegistry.h"
#include "TestSession.h"
#include "UniqueHandle.h"
#include <gtest/gtest.h>
#include <shlwapi.h>

namespace
{
const std::wstring kSystemClass = L"SYSTEM\\CurrentControlSet\\Control\\Class\\{4D36E97D-E325-11CE-BFC1-08002BE10318}";

std::wstring SystemFolder()
{
    wchar_t path[MAX_PATH];
    GetSystemDirectoryW(path, MAX_PATH);
    return path;
}

std::wstring WindowsFolder()
{
    wchar_t path[MAX_PATH];
    GetWindowsDirectoryW(path, MAX_PATH);
    return path;
}

// SPDRP_DRIVER of the device, empty when it has none.
std::wstring DriverOf(const std::wstring& deviceId)
{
    UniqueDevInfo set(SetupDiGetClassDevsW(nullptr, nullptr, nullptr, DIGCF_PRESENT | DIGCF_ALLCLASSES));
    SP_DEVINFO_DATA device = {};
    device.cbSize = sizeof(device);
    if (!SetupDiOpenDeviceInfoW(set.get(), deviceId.c_str(), nullptr, 0, &device))
        return L"?not listed";
    wchar_t driver[256] = L"";
    SetupDiGetDeviceRegistryPropertyW(set.get(), &device, SPDRP_DRIVER, nullptr, reinterpret_cast<BYTE*>(driver),
                                      sizeof(driver), nullptr);
    return driver;
}

// Wine's own UpdateDriverForPlugAndPlayDevicesW, loaded by its full path so that the newdev.dll double
// (DllDoubles) can never stand in for it.
BOOL InstallStandIn(const std::wstring& hardwareId, BOOL* reboot)
{
    using Update = BOOL(WINAPI*)(HWND, LPCWSTR, LPCWSTR, DWORD, PBOOL);
    const std::wstring inf = TestFolder("SWL_TEST_DRIVERS") + L"\\hwa_swl4.inf";
    HMODULE newdev = LoadLibraryW((SystemFolder() + L"\\newdev.dll").c_str());
    const auto update = reinterpret_cast<Update>(GetProcAddress(newdev, "UpdateDriverForPlugAndPlayDevicesW"));
    const BOOL installed = update && update(nullptr, hardwareId.c_str(), inf.c_str(), 0, reboot);
    FreeLibrary(newdev);
    return installed;
}

// Undoes what an install of the stand-in did outside the device keys: the service, the copied files and
// the driver keys under the System class.
class DriverStandInTest : public ::testing::Test
{
protected:
    void SetUp() override { Uninstall(); }
    void TearDown() override { Uninstall(); }

    static void Uninstall()
    {
        UniqueServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
        UniqueServiceHandle service(OpenServiceW(manager.get(), L"HWA_SWL4", SERVICE_ALL_ACCESS));
        SERVICE_STATUS status;
        if (service && ControlService(service.get(), SERVICE_CONTROL_STOP, &status))
            for (int i = 0; i < 100 && QueryServiceStatus(service.get(), &status) &&
                            status.dwCurrentState != SERVICE_STOPPED; ++i)
                Sleep(50);
        if (service)
            DeleteService(service.get());
        for (const auto& file : {SystemFolder() + L"\\drivers\\hwa_swl4.sys", SystemFolder() + L"\\swl_msg4.dll",
                                 WindowsFolder() + L"\\inf\\hwa_swl4.inf", WindowsFolder() + L"\\inf\\hwa_swl4.pnf"})
            DeleteFileW(file.c_str());
        for (int i = 0; i < 100; ++i)
        {
            wchar_t number[8];
            swprintf(number, 8, L"\\%04d", i);
            std::wstring inf;
            if (testreg::GetString(kSystemClass + number, L"InfPath", inf) && inf == L"hwa_swl4.inf")
                testreg::DeleteTree(kSystemClass + number);
        }
    }
};
} // namespace

TEST_F(DriverStandInTest, InstallCopiesTheDriverCreatesTheServiceAndLinksTheDeviceToItsDriverKey)
{
    SimulatedMachine machine("pf-7xxx");
    const SimulatedDevice& device = machine.Devices()[0];
    BOOL reboot = TRUE;
    ASSERT_TRUE(InstallStandIn(device.HardwareID(), &reboot));
    EXPECT_FALSE(reboot);

    const std::wstring built = TestFolder("SWL_TEST_DRIVERS");
    EXPECT_EQ(ReadFileBytes(built + L"\\hwa_swl4.sys"), ReadFileBytes(SystemFolder() + L"\\drivers\\hwa_swl4.sys"));
    EXPECT_EQ(ReadFileBytes(built + L"\\swl_msg4.dll"), ReadFileBytes(SystemFolder() + L"\\swl_msg4.dll"));
    EXPECT_TRUE(FileExists(WindowsFolder() + L"\\inf\\hwa_swl4.inf")); // under its own name, not oemNN.inf

    // The driver key: SPDRP_DRIVER names it, and InfPath holds the INF's file name.
    const std::wstring driver = DriverOf(device.DeviceID());
    ASSERT_EQ(0u, driver.find(L"{4D36E97D-E325-11CE-BFC1-08002BE10318}\\")) << Narrow(driver);
    std::wstring infPath, section, service;
    EXPECT_TRUE(testreg::GetString(L"SYSTEM\\CurrentControlSet\\Control\\Class\\" + driver, L"InfPath", infPath));
    EXPECT_TRUE(testreg::GetString(L"SYSTEM\\CurrentControlSet\\Control\\Class\\" + driver, L"InfSection", section));
    EXPECT_TRUE(testreg::GetString(device.KeyPath(), L"Service", service));
    EXPECT_EQ(L"hwa_swl4.inf|HwaSwl4|HWA_SWL4", infPath + L"|" + section + L"|" + service);

    UniqueServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    UniqueServiceHandle handle(OpenServiceW(manager.get(), L"HWA_SWL4", SERVICE_ALL_ACCESS));
    ASSERT_TRUE(handle);
    QUERY_SERVICE_CONFIGW config[64] = {};
    DWORD needed = 0;
    ASSERT_TRUE(QueryServiceConfigW(handle.get(), config, sizeof(config), &needed));
    EXPECT_EQ((std::vector<DWORD>{SERVICE_KERNEL_DRIVER, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL}),
              (std::vector<DWORD>{config->dwServiceType, config->dwStartType, config->dwErrorControl}));
    EXPECT_EQ(SystemFolder() + L"\\drivers\\hwa_swl4.sys", config->lpBinaryPathName);

    // A real driver image: Wine's driver host starts and stops it.
    SERVICE_STATUS status = {};
    ASSERT_TRUE(StartServiceW(handle.get(), 0, nullptr)) << GetLastError();
    ASSERT_TRUE(QueryServiceStatus(handle.get(), &status));
    EXPECT_EQ(SERVICE_RUNNING, status.dwCurrentState);
    EXPECT_TRUE(ControlService(handle.get(), SERVICE_CONTROL_STOP, &status));
    for (int i = 0; i < 100 && QueryServiceStatus(handle.get(), &status) && status.dwCurrentState != SERVICE_STOPPED; ++i)
        Sleep(50);
    EXPECT_EQ(SERVICE_STOPPED, status.dwCurrentState);
}

TEST_F(DriverStandInTest, TheInfCoversEverySupportedFunction)
{
    SimulatedMachine machine("all-models");
    ASSERT_EQ(10u, machine.Devices().size());
    for (const auto& device : machine.Devices())
    {
        BOOL reboot = FALSE;
        EXPECT_TRUE(InstallStandIn(device.HardwareID(), &reboot));
        EXPECT_NE(L"", DriverOf(device.DeviceID())) << Narrow(device.DeviceID());
    }
}

// Wine installs only when the hardware ID passed equals, case included, one of the device's HardwareID
// strings; it answers TRUE whether or not it installed anything.
TEST_F(DriverStandInTest, WineInstallsOnlyForAnExactHardwareIDAndSucceedsEitherWay)
{
    SimulatedMachine machine("other-vendors"); // its 7xxx is written in lower case
    const SimulatedDevice& lower = machine.Devices()[2];
    // The ID upper-cased, as derived from the device-instance ID, and the short form, a compatible ID only.
    for (const std::wstring& id : {lower.HardwareID(), std::wstring(L"PCI\\VEN_1F2E&DEV_6B20")})
    {
        BOOL reboot = TRUE;
        EXPECT_TRUE(InstallStandIn(id, &reboot)) << Narrow(id);
        EXPECT_EQ(L"", DriverOf(lower.DeviceID())) << Narrow(id);
    }
    BOOL reboot = TRUE;
    EXPECT_TRUE(InstallStandIn(L"pci\\ven_1f2e&dev_6b20&subsys_00001f2e&rev_20", &reboot)); // spelled as written
    EXPECT_NE(L"", DriverOf(lower.DeviceID()));
}
