// Disabling, enabling and removing devices on simulated machines. Removal runs
// through Wine's real class installer; enable and disable cannot succeed under
// Wine (SetupDiSetClassInstallParamsW is a stub), so their outcomes are
// scripted through DeviceStateCalls.
#include "Devices/DeviceState.h"
#include "SimulatedMachine.h"
#include "TestSession.h"
#include "UniqueHandle.h"
#include <gtest/gtest.h>

namespace
{
using Lines = std::vector<std::wstring>;

struct Script
{
    BOOL params = TRUE;           // what SetClassInstallParams answers
    BOOL installer = TRUE;        // what CallClassInstaller answers
    DWORD installerError = 0;     // and leaves for GetLastError
    std::vector<DWORD> stateChanges;
    std::vector<DI_FUNCTION> functions;
} g_script;

BOOL WINAPI FakeParams(HDEVINFO, SP_DEVINFO_DATA*, SP_CLASSINSTALL_HEADER* header, DWORD size)
{
    const auto* change = reinterpret_cast<SP_PROPCHANGE_PARAMS*>(header);
    if (size == sizeof(SP_PROPCHANGE_PARAMS) && header->cbSize == sizeof(SP_CLASSINSTALL_HEADER) &&
        header->InstallFunction == DIF_PROPERTYCHANGE && change->Scope == DICS_FLAG_GLOBAL && change->HwProfile == 0)
        g_script.stateChanges.push_back(change->StateChange);
    return g_script.params;
}

BOOL WINAPI FakeInstaller(DI_FUNCTION function, HDEVINFO, SP_DEVINFO_DATA*)
{
    g_script.functions.push_back(function);
    SetLastError(g_script.installerError);
    return g_script.installer;
}

bool Present(const std::wstring& deviceId)
{
    UniqueDevInfo set(SetupDiGetClassDevsW(nullptr, nullptr, nullptr, DIGCF_PRESENT | DIGCF_ALLCLASSES));
    SP_DEVINFO_DATA device = {};
    device.cbSize = sizeof(device);
    return SetupDiOpenDeviceInfoW(set.get(), deviceId.c_str(), nullptr, 0, &device) != FALSE;
}

struct DeviceState : ::testing::Test
{
    void SetUp() override { g_script = Script(); }
    void TearDown() override
    {
        DeviceStateCalls::SetClassInstallParams = SetupDiSetClassInstallParamsW;
        DeviceStateCalls::CallClassInstaller = SetupDiCallClassInstaller;
    }
    void Fake()
    {
        DeviceStateCalls::SetClassInstallParams = FakeParams;
        DeviceStateCalls::CallClassInstaller = FakeInstaller;
    }
    // Our log lines that start with prefix.
    Lines LinesStarting(const std::wstring& prefix) const
    {
        Lines lines;
        for (const auto& line : m_session.LogLines())
            if (line.compare(0, prefix.size(), prefix) == 0)
                lines.push_back(line);
        return lines;
    }
    TestSession m_session;
};
} // namespace

TEST_F(DeviceState, DisableAndEnableActOnEveryInstanceOfEachModel)
{
    SimulatedMachine machine("two-7xxx");
    Fake();
    EXPECT_EQ(DisableDevices(m_session.handle()), 0u);
    EXPECT_EQ(EnableDevices(m_session.handle()), 0u);
    const std::wstring id = L"PCI\\VEN_1F2E&DEV_6B20&SUBSYS_00001F2E&REV_20\\4&1A2B3C4D&0&00";
    EXPECT_EQ(LinesStarting(L"Disable device "), (Lines{L"Disable device " + id + L"08", L"Disable device " + id + L"10"}));
    EXPECT_EQ(LinesStarting(L"Enable device "), (Lines{L"Enable device " + id + L"08", L"Enable device " + id + L"10"}));
    EXPECT_EQ(g_script.stateChanges, (std::vector<DWORD>{DICS_DISABLE, DICS_DISABLE, DICS_ENABLE, DICS_ENABLE}));
}

TEST_F(DeviceState, RefusedParametersOrAFailingClassInstallerStopTheWalkWithThirtyOne)
{
    SimulatedMachine machine("two-7xxx");
    Fake();
    g_script.params = FALSE;
    EXPECT_EQ(DisableDevices(m_session.handle()), 31u);
    EXPECT_EQ(LinesStarting(L"Disable device ").size(), 1u) << "the second instance is not tried";
    EXPECT_TRUE(m_session.Logged(L"SetupDiSetClassInstallParams FAILED!"));

    g_script = Script();
    g_script.installer = FALSE;
    g_script.installerError = ERROR_ACCESS_DENIED;
    EXPECT_EQ(EnableDevices(m_session.handle()), 31u);
    EXPECT_TRUE(m_session.Logged(L"SetupDiCallClassInstaller FAILED!"));

    // FALSE without an error code is a success.
    m_session.ClearRecords();
    g_script.installerError = 0;
    EXPECT_EQ(EnableDevices(m_session.handle()), 0u);
    EXPECT_EQ(LinesStarting(L"Enable device ").size(), 2u);
}

TEST_F(DeviceState, WithoutSupportedDevicesEachActionCannotEnumerateAndFails)
{
    SimulatedMachine machine("harrowgate");
    EXPECT_EQ(DisableDevices(m_session.handle()), 31u);
    EXPECT_EQ(EnableDevices(m_session.handle()), 31u);
    EXPECT_EQ(RemoveDevices(m_session.handle()), 31u);
    for (const wchar_t* line : {L"DisableDevices: Could not enumerate devices",
                                L"EnableDevices: Could not enumerate devices", L"RemoveDevices: Could not enumerate devices"})
        EXPECT_TRUE(m_session.Logged(line)) << Narrow(line);
}

TEST_F(DeviceState, RemoveTakesTheDevicesOutOfTheSystemAndGoesOnAfterAFailure)
{
    SimulatedMachine machine("two-7xxx");
    Fake();
    g_script.installer = FALSE;
    EXPECT_EQ(RemoveDevices(m_session.handle()), 31u);
    EXPECT_EQ(LinesStarting(L"RemoveDevices: SetupDiCallClassInstaller failed").size(), 2u);
    EXPECT_EQ(g_script.functions, (std::vector<DI_FUNCTION>{DIF_REMOVE, DIF_REMOVE}));

    TearDown(); // the real class installer from here on
    m_session.ClearRecords();
    EXPECT_EQ(RemoveDevices(m_session.handle()), 0u);
    const auto starts = m_session.RecordsOfType(INSTALLMESSAGE_ACTIONSTART);
    ASSERT_FALSE(starts.empty());
    EXPECT_EQ(starts[0].fields[2], L"Removing devices");
    EXPECT_EQ(LinesStarting(L"RemoveDevices: "),
              (Lines{L"RemoveDevices: search devID PCI\\VEN_1F2E&DEV_6B20&SUBSYS_00001F2E&REV_20",
                     L"RemoveDevices: Device removed", L"RemoveDevices: Device removed"}));
    for (const auto& device : machine.Devices())
        EXPECT_FALSE(Present(device.DeviceID())) << Narrow(device.DeviceID());
}
