// The supported-device catalogue: its fixed table, how device-instance IDs
// match rows, and the lookups and trace lines built on that.
#include "Devices/DeviceCatalogue.h"
#include "TestSession.h"
#include "TraceCapture.h"
#include <gtest/gtest.h>
#include <algorithm>
#include <functional>

namespace
{
struct Row
{
    const wchar_t* description;
    const wchar_t* deviceID;
    const wchar_t* firmware;
};

const Row kTable[] = {
    {L"M31x Accelerator", L"5A10", L"swl_m31x"},   {L"M31x Accelerator Virtual Function", L"5A11", L"swl_m31x"},
    {L"7xxx Accelerator", L"6B20", L"swl_7xxx"},   {L"7xxx Accelerator Virtual Function", L"6B21", L"swl_7xxx"},
    {L"701xx Accelerator", L"6B22", L"swl_7xxx"},  {L"701xx Accelerator Virtual Function", L"6B23", L"swl_7xxx"},
    {L"702xx Accelerator", L"6B24", L"swl_702xx"}, {L"702xx Accelerator Virtual Function", L"6B25", L"swl_702xx"},
    {L"720xx Accelerator", L"6B26", L"swl_720xx"}, {L"720xx Accelerator Virtual Function", L"6B27", L"swl_720xx"},
};

CKesString InstanceID(const std::wstring& deviceID)
{
    CKesString id;
    id = L"PCI\\VEN_1F2E&DEV_" + deviceID + L"&SUBSYS_00001F2E&REV_40";
    return id;
}

std::vector<std::wstring> Plain(const std::vector<CKesString>& list)
{
    return std::vector<std::wstring>(list.begin(), list.end());
}

size_t Count(const TraceCapture& trace, const std::wstring& message)
{
    std::vector<std::wstring> messages = trace.Messages();
    return static_cast<size_t>(std::count(messages.begin(), messages.end(), message));
}
} // namespace

TEST(DeviceTable, ProcessWideCatalogueHoldsTheTenModelsInOrder)
{
    const auto& rows = g_SWLDevices.Devices();
    ASSERT_EQ(rows.size(), 10u);
    for (size_t i = 0; i < rows.size(); ++i)
    {
        const SWLDevice& row = *rows[i];
        const std::wstring firmware = kTable[i].firmware;
        EXPECT_EQ(row.m_strDescription, kTable[i].description);
        EXPECT_EQ(row.GetHardwareID(), std::wstring(L"VEN_1F2E&DEV_") + kTable[i].deviceID);
        EXPECT_EQ(Plain(row.m_vecFirmwareFiles),
                  (std::vector<std::wstring>{firmware + L".bin", firmware + L"_mmp.bin"}));
        EXPECT_EQ(row.m_strINFFile, L"hwa_swl4.inf");
        EXPECT_EQ(row.m_strFirmwareFolder, L"hwaSWLFW");
    }
    // Driver files first, then firmware, each name once although rows share them.
    const std::vector<std::wstring> files = {L"hwa_swl4.inf",      L"hwa_swl4.sys",     L"swl_msg4.dll",
                                             L"hwa_swl4.cat",      L"swl_m31x.bin",     L"swl_m31x_mmp.bin",
                                             L"swl_7xxx.bin",      L"swl_7xxx_mmp.bin", L"swl_702xx.bin",
                                             L"swl_702xx_mmp.bin", L"swl_720xx.bin",    L"swl_720xx_mmp.bin"};
    EXPECT_EQ(Plain(g_SWLDevices.GetFilesForAllDevices()), files);
    EXPECT_EQ(Plain(SWLDevices().GetFilesForAllDevices()), files);
}

TEST(DeviceTable, HardwareIDHasASubsystemPartOnlyWithBothSubsystemFields)
{
    SWLDevice device; // device ID left empty by the constructor
    TraceCapture trace;
    EXPECT_EQ(device.GetHardwareID(), L"");
    EXPECT_TRUE(trace.Printed(L"Invalid device ID detected! VID and DID cannot be empty")) << trace.Dump();
    device.m_strDeviceID = L"6B20";
    device.m_strSubsystemID = L"0000";
    EXPECT_EQ(device.GetHardwareID(), L"VEN_1F2E&DEV_6B20");
    device.m_strSubsystemVendorID = L"1F2E";
    EXPECT_EQ(device.GetHardwareID(), L"VEN_1F2E&DEV_6B20&SUBSYS_00001F2E");
}

TEST(DeviceMatching, EveryModelMatchesItsFullInstanceIDAndTracesTheMatch)
{
    for (const Row& row : kTable)
    {
        const CKesString id = InstanceID(row.deviceID);
        TraceCapture trace;
        EXPECT_TRUE(g_SWLDevices.IsDeviceIDSupported(id));
        EXPECT_EQ(g_SWLDevices.GetINFForDeviceID(id), L"hwa_swl4.inf");
        EXPECT_EQ(Plain(g_SWLDevices.GetSysForDeviceID(id)), std::vector<std::wstring>{L"hwa_swl4.sys"});
        EXPECT_TRUE(g_SWLDevices.IsMatchingDeviceID(id, row.deviceID));
        EXPECT_TRUE(trace.Printed(id + L" is supported with match on 'VEN_1F2E&DEV_" + row.deviceID + L"'"))
            << trace.Dump();
        EXPECT_TRUE(trace.Printed(L".inf for " + id + L" is hwa_swl4.inf"));
    }
}

TEST(DeviceMatching, MatchIsACaseSensitiveSubstringSearch)
{
    TraceCapture trace;
    EXPECT_TRUE(g_SWLDevices.IsDeviceIDSupported(L"ROOTxVEN_1F2E&DEV_6B24tail"));
    EXPECT_FALSE(g_SWLDevices.IsDeviceIDSupported(L"pci\\ven_1f2e&dev_6b20"));
    EXPECT_TRUE(trace.Printed(L"pci\\ven_1f2e&dev_6b20 is not supported")) << trace.Dump();
    EXPECT_FALSE(g_SWLDevices.IsDeviceIDSupported(L"PCI\\VEN_8086&DEV_6B20"));
    EXPECT_FALSE(g_SWLDevices.IsDeviceIDSupported(L"PCI\\VEN_1F2E&DEV_6B2"));
    EXPECT_EQ(g_SWLDevices.GetINFForDeviceID(L"pci\\ven_1f2e&dev_6b20"), L"");
    EXPECT_TRUE(g_SWLDevices.GetSysForDeviceID(L"pci\\ven_1f2e&dev_6b20").empty());
    // Harrowgate is recognised, not supported.
    EXPECT_FALSE(g_SWLDevices.IsDeviceIDSupported(L"PCI\\VEN_1F2E&DEV_3C40"));
    EXPECT_TRUE(IsHarrowgateDeviceID(L"PCI\\VEN_1F2E&DEV_3C40"));
    EXPECT_FALSE(IsHarrowgateDeviceID(L"PCI\\VEN_1F2E&DEV_3c40"));
}

TEST(DeviceMatching, RowWithoutDeviceIDMatchesNothing)
{
    SWLDevices catalogue;
    catalogue.Devices()[0]->m_strDeviceID.clear(); // an empty hardware ID would be found in any text
    EXPECT_FALSE(catalogue.IsDeviceIDSupported(L"ANY DEVICE"));
    EXPECT_EQ(catalogue.GetINFForDeviceID(InstanceID(L"5A10")), L"");
    EXPECT_TRUE(catalogue.IsDeviceIDSupported(InstanceID(L"5A11")));
}

TEST(DeviceMatching, EveryMatchingRowCountsAndTheWalkGoesOnPastOtherDeviceIDs)
{
    // Not a real Plug and Play ID: it holds the hardware IDs of two rows.
    const CKesString both = L"PCI\\VEN_1F2E&DEV_6B20&VEN_1F2E&DEV_6B26";
    EXPECT_EQ(Plain(g_SWLDevices.GetSysForDeviceID(both)),
              (std::vector<std::wstring>{L"hwa_swl4.sys", L"hwa_swl4.sys"}));
    EXPECT_TRUE(g_SWLDevices.IsMatchingDeviceID(both, L"6B26"));
    EXPECT_FALSE(g_SWLDevices.IsNotTlmdDevice(both));
}

TEST(DeviceMatching, OnlyThe720xxFunctionsAreTlmdAndDeviceIDsCompareExactly)
{
    TraceCapture trace;
    for (const Row& row : kTable)
    {
        const bool tlmd = std::wstring(row.deviceID) == L"6B26" || std::wstring(row.deviceID) == L"6B27";
        EXPECT_EQ(g_SWLDevices.IsNotTlmdDevice(InstanceID(row.deviceID)), !tlmd) << Narrow(row.deviceID);
    }
    EXPECT_TRUE(g_SWLDevices.IsNotTlmdDevice(L"PCI\\VEN_1F2E&DEV_3C40"));
    EXPECT_FALSE(g_SWLDevices.IsMatchingDeviceID(InstanceID(L"6B20"), L"6B26"));
    EXPECT_FALSE(g_SWLDevices.IsMatchingDeviceID(InstanceID(L"6B26"), L"6b26"));
    EXPECT_FALSE(g_SWLDevices.IsMatchingDeviceID(InstanceID(L"6B26"), L"6B2"));
    EXPECT_EQ(Count(trace, L"Device ID cannot be empty!") + Count(trace, L"Device ID to find cannot be empty!"), 0u);
}

TEST(DeviceMatching, EmptyIDGivesAnEmptyAnswerAndOneTraceLine)
{
    const std::vector<std::pair<std::wstring, std::function<bool()>>> calls = {
        {L"Device ID cannot be empty!", [] { return !g_SWLDevices.IsDeviceIDSupported(L""); }},
        {L"Device ID cannot be empty!", [] { return g_SWLDevices.GetINFForDeviceID(L"").empty(); }},
        {L"Device ID cannot be empty!", [] { return g_SWLDevices.GetSysForDeviceID(L"").empty(); }},
        {L"Device ID cannot be empty!", [] { return !g_SWLDevices.IsMatchingDeviceID(L"", L"6B26"); }},
        {L"Device ID to find cannot be empty!",
         [] { return !g_SWLDevices.IsMatchingDeviceID(InstanceID(L"6B26"), L""); }},
    };
    for (size_t i = 0; i < calls.size(); ++i)
    {
        TraceCapture trace;
        EXPECT_TRUE(calls[i].second()) << i;
        EXPECT_EQ(Count(trace, L"Device ID cannot be empty!") + Count(trace, L"Device ID to find cannot be empty!"), 1u)
            << i;
        EXPECT_EQ(Count(trace, calls[i].first), 1u) << i;
    }
    EXPECT_TRUE(g_SWLDevices.IsNotTlmdDevice(L""));
}

TEST(VirtualFunctionID, AnyVirtualFunctionDeviceIDAnywhereCounts)
{
    for (const Row& row : kTable)
    {
        const bool virtualFunction = std::wstring(row.description).find(L" Virtual Function") != std::wstring::npos;
        EXPECT_EQ(IsVirtualFunctionID(InstanceID(row.deviceID)), virtualFunction) << Narrow(row.deviceID);
    }
    EXPECT_TRUE(IsVirtualFunctionID(L"PCI\\VEN_1F2E&DEV_6B20&SUBSYS_6B211F2E&REV_20"));
    EXPECT_FALSE(IsVirtualFunctionID(L"PCI\\VEN_1F2E&DEV_6b21"));
}
