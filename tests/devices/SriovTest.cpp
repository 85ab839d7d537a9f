// SR-IOV switched on or off in the driver parameters of the installed devices.
#include "Devices/Sriov.h"
#include "Payload/InstallSummary.h"
#include "SimulatedMachine.h"
#include "TestRegistry.h"
#include "TestSession.h"
#include <gtest/gtest.h>
#include <shlobj.h>

namespace
{
// EnableSriov of each instance of the machine: its value, -1 without a value, -2 without the Sriov key.
std::vector<int> EnableSriov(const SimulatedMachine& machine)
{
    std::vector<int> values;
    for (const auto& device : machine.Devices())
    {
        const std::wstring key = device.KeyPath() + L"\\Device Parameters\\Sriov";
        DWORD value = 0, size = sizeof(value);
        values.push_back(!testreg::KeyExists(key) ? -2
                         : RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"EnableSriov", RRF_RT_REG_DWORD, nullptr,
                                        &value, &size) == ERROR_SUCCESS
                             ? static_cast<int>(value)
                             : -1);
    }
    return values;
}
} // namespace

// pf-vf-mix: a 702xx with EnableSriov 1, two of its virtual functions without a Sriov key, an M31x with an empty one.
TEST(Sriov, AnyDataButOneSwitchesItOffOnEveryExistingKeyAndCreatesNone)
{
    SimulatedMachine machine("pf-vf-mix");
    for (const wchar_t* data : {L"", L"0", L"1 ", L"yes"})
    {
        TestSession session;
        session.SetProperty(L"CustomActionData", data);
        EXPECT_EQ(SetRegistryKeyForEnableSriov(session.handle()), 0u);
        EXPECT_EQ(EnableSriov(machine), (std::vector<int>{0, -2, -2, 0})) << Narrow(data);
        EXPECT_TRUE(session.Logged(L"Set EnableSriov to 0") && !session.Logged(L"HyperVMode set to 1"));
    }
}

TEST(Sriov, HyperVModeSwitchesItOnAndWritesTheVirtualizationHostSummary)
{
    SimulatedMachine machine("pf-vf-mix");
    SHCreateDirectoryExW(nullptr, L"C:\\Program Files\\Corvane\\Corvane(R) Swiftlane Technology", nullptr);
    DeleteFileW(kInstallSummaryPath);
    TestSession session;
    session.SetProperty(L"CustomActionData", L"1");
    EXPECT_EQ(SetRegistryKeyForEnableSriov(session.handle()), 0u);
    EXPECT_EQ(EnableSriov(machine), (std::vector<int>{1, -2, -2, 1}));
    EXPECT_TRUE(session.Logged(L"HyperVMode set to 1") && session.Logged(L"Set EnableSriov to 1") &&
                session.Logged(L"device instance 4&2d3e4f50&0&0020"));
    const std::string summary = ReadFileBytes(kInstallSummaryPath);
    EXPECT_NE(summary.find("SWL Compression Service: Not Installed (Virtualization host install)"), std::string::npos)
        << summary;
    RemoveTree(L"C:\\Program Files\\Corvane");
}
