// The supported-device catalogue: which device-instance IDs match its rows and what each lookup answers.
#include "Devices/DeviceCatalogue.h"
#include "TestSession.h"
#include "TraceCapture.h"
#include <gtest/gtest.h>

using Names = std::vector<CKesString>;

TEST(DeviceCatalogue, RowsMatchWhereTheirHardwareIDOccursCaseSensitivelyInTheInstanceID)
{
    const struct { const wchar_t* id; const wchar_t* match; bool tlmd, virtualFunction, harrowgate; } cases[] = {
        {L"PCI\\VEN_1F2E&DEV_5A10&SUBSYS_00001F2E&REV_40", L"VEN_1F2E&DEV_5A10", false, false, false},
        {L"PCI\\VEN_1F2E&DEV_6B21&SUBSYS_00001F2E&REV_40", L"VEN_1F2E&DEV_6B21", false, true, false},
        {L"PCI\\VEN_1F2E&DEV_6B26&SUBSYS_00001F2E&REV_40", L"VEN_1F2E&DEV_6B26", true, false, false},
        {L"PCI\\VEN_1F2E&DEV_6B27", L"VEN_1F2E&DEV_6B27", true, true, false},
        {L"ROOTxVEN_1F2E&DEV_6B24tail", L"VEN_1F2E&DEV_6B24", false, false, false},
        {L"PCI\\VEN_1F2E&DEV_6B20&SUBSYS_6B211F2E", L"VEN_1F2E&DEV_6B20", false, true, false}, // "6B21" anywhere
        {L"pci\\ven_1f2e&dev_6b20", nullptr, false, false, false},
        {L"PCI\\VEN_8086&DEV_6B20", nullptr, false, false, false},
        {L"PCI\\VEN_1F2E&DEV_3C40", nullptr, false, false, true}, // recognised, not supported
        {L"PCI\\VEN_1F2E&DEV_3c40", nullptr, false, false, false},
        {L"", nullptr, false, false, false},
    };
    for (const auto& c : cases)
    {
        const std::wstring id = c.id;
        SCOPED_TRACE(Narrow(id));
        TraceCapture trace;
        EXPECT_EQ(c.match != nullptr, g_SWLDevices.IsDeviceIDSupported(c.id));
        EXPECT_EQ(CKesString(c.match ? L"hwa_swl4.inf" : L""), g_SWLDevices.GetINFForDeviceID(c.id));
        EXPECT_EQ(c.match ? Names{L"hwa_swl4.sys"} : Names{}, g_SWLDevices.GetSysForDeviceID(c.id));
        EXPECT_TRUE(trace.Printed(c.match ? id + L" is supported with match on '" + c.match + L"'"
                                  : id.empty() ? L"Device ID cannot be empty!" : id + L" is not supported"))
            << trace.Dump();
        EXPECT_EQ(!c.tlmd, g_SWLDevices.IsNotTlmdDevice(c.id));
        EXPECT_EQ(c.virtualFunction, IsVirtualFunctionID(c.id));
        EXPECT_EQ(c.harrowgate, IsHarrowgateDeviceID(c.id));
    }
}

TEST(DeviceCatalogue, EveryMatchingRowCountsAndAnEmptyIDToFindIsRefused)
{
    const CKesString both = L"PCI\\VEN_1F2E&DEV_6B20&VEN_1F2E&DEV_6B26"; // the hardware IDs of two rows
    TraceCapture trace;
    EXPECT_TRUE(g_SWLDevices.IsMatchingDeviceID(both, L"6B26"));
    EXPECT_FALSE(g_SWLDevices.IsMatchingDeviceID(both, L"6B21") || g_SWLDevices.IsMatchingDeviceID(both, L""));
    EXPECT_EQ((Names{L"hwa_swl4.sys", L"hwa_swl4.sys"}), g_SWLDevices.GetSysForDeviceID(both));
    EXPECT_TRUE(trace.Printed(L"Device ID to find cannot be empty!")) << trace.Dump();
}
