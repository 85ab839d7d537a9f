#include "Devices/DeviceCatalogue.h"
#include "KesTrace.h"
#include <algorithm>

namespace
{
// Shorter hardware IDs (a row with an empty vendor or device ID) would match
// every device-instance ID.
const size_t kMinHardwareIDChars = 16;

struct CatalogueRow
{
    const wchar_t* description;
    const wchar_t* deviceID;
    const wchar_t* firmware;
    const wchar_t* firmwareMmp;
};

// The 701xx rows reuse the 7xxx firmware on purpose: there is no image of their own.
// The 720xx rows are the TLM-D part.
const CatalogueRow kRows[] = {
    {L"M31x Accelerator", L"5A10", L"swl_m31x.bin", L"swl_m31x_mmp.bin"},
    {L"M31x Accelerator Virtual Function", L"5A11", L"swl_m31x.bin", L"swl_m31x_mmp.bin"},
    {L"7xxx Accelerator", L"6B20", L"swl_7xxx.bin", L"swl_7xxx_mmp.bin"},
    {L"7xxx Accelerator Virtual Function", L"6B21", L"swl_7xxx.bin", L"swl_7xxx_mmp.bin"},
    {L"701xx Accelerator", L"6B22", L"swl_7xxx.bin", L"swl_7xxx_mmp.bin"},
    {L"701xx Accelerator Virtual Function", L"6B23", L"swl_7xxx.bin", L"swl_7xxx_mmp.bin"},
    {L"702xx Accelerator", L"6B24", L"swl_702xx.bin", L"swl_702xx_mmp.bin"},
    {L"702xx Accelerator Virtual Function", L"6B25", L"swl_702xx.bin", L"swl_702xx_mmp.bin"},
    {L"720xx Accelerator", L"6B26", L"swl_720xx.bin", L"swl_720xx_mmp.bin"},
    {L"720xx Accelerator Virtual Function", L"6B27", L"swl_720xx.bin", L"swl_720xx_mmp.bin"},
};

const wchar_t* const kVirtualFunctionIDs[] = {L"5A11", L"6B21", L"6B23", L"6B25", L"6B27"};
const wchar_t* const kHarrowgateID = L"3C40";
const wchar_t* const kTlmdPhysicalID = L"6B26";
const wchar_t* const kTlmdVirtualID = L"6B27";

bool Contains(const CKesString& text, const wchar_t* part)
{
    return text.find(part) != std::wstring::npos;
}

void AppendUnique(std::vector<CKesString>& list, const CKesString& name)
{
    if (std::find(list.begin(), list.end(), name) == list.end())
        list.push_back(name);
}
} // namespace

SWLDevice::SWLDevice()
    : m_strVendorID(L"1F2E"), m_strINFFile(L"hwa_swl4.inf"),
      m_strFirmwareFolder(L"hwaSWLFW"), m_vecDriverFiles{L"hwa_swl4.inf", L"hwa_swl4.sys", L"swl_msg4.dll",
                                                         L"hwa_swl4.cat"}
{
    CKesDebugScope scope(L"SWLDevice::SWLDevice");
}

CKesString SWLDevice::GetHardwareID() const
{
    CKesDebugScope scope(L"SWLDevice::GetHardwareID");
    if (m_strVendorID.empty() || m_strDeviceID.empty())
    {
        g_Debug.Print(L"Invalid device ID detected! VID and DID cannot be empty");
        return CKesString();
    }
    CKesString id(L"VEN_");
    id += m_strVendorID;
    id += L"&";
    id += L"DEV_";
    id += m_strDeviceID;
    if (!m_strSubsystemID.empty() && !m_strSubsystemVendorID.empty())
    {
        id += L"&";
        id += L"SUBSYS_";
        id += m_strSubsystemID;
        id += m_strSubsystemVendorID;
    }
    return id;
}

SWLDevices::SWLDevices()
{
    CKesDebugScope scope(L"SWLDevices::SWLDevices");
    for (const CatalogueRow& row : kRows)
    {
        std::unique_ptr<SWLDevice> device(new SWLDevice);
        device->m_strDescription = row.description;
        device->m_strDeviceID = row.deviceID;
        device->m_vecFirmwareFiles.push_back(row.firmware);
        device->m_vecFirmwareFiles.push_back(row.firmwareMmp);
        m_vecDevices.push_back(std::move(device));
    }
}

bool SWLDevices::RowMatches(const SWLDevice& device, const CKesString& deviceID, CKesString* hardwareIDOut) const
{
    CKesString hardwareID = device.GetHardwareID();
    bool matches = hardwareID.length() >= kMinHardwareIDChars && deviceID.find(hardwareID) != std::wstring::npos;
    if (hardwareIDOut)
        *hardwareIDOut = hardwareID;
    return matches;
}

bool SWLDevices::IsDeviceIDSupported(CKesString deviceID) const
{
    bool supported = false;
    CKesDebugScope scope(L"SWLDevices::IsDeviceIDSupported", &supported);
    if (deviceID.empty())
    {
        g_Debug.Print(L"Device ID cannot be empty!");
        return supported;
    }
    for (const auto& device : m_vecDevices)
    {
        CKesString hardwareID;
        if (RowMatches(*device, deviceID, &hardwareID))
        {
            g_Debug.Print(L"%s is supported with match on '%s'", deviceID.c_str(), hardwareID.c_str());
            supported = true;
            return supported;
        }
    }
    g_Debug.Print(L"%s is not supported", deviceID.c_str());
    return supported;
}

CKesString SWLDevices::GetINFForDeviceID(CKesString deviceID) const
{
    CKesDebugScope scope(L"SWLDevices::GetINFForDeviceID");
    if (deviceID.empty())
    {
        g_Debug.Print(L"Device ID cannot be empty!");
        return CKesString();
    }
    for (const auto& device : m_vecDevices)
    {
        if (RowMatches(*device, deviceID))
        {
            g_Debug.Print(L".inf for %s is %s", deviceID.c_str(), device->m_strINFFile.c_str());
            return device->m_strINFFile;
        }
    }
    return CKesString();
}

std::vector<CKesString> SWLDevices::GetSysForDeviceID(CKesString deviceID)
{
    CKesDebugScope scope(L"SWLDevices::GetSysForDeviceID");
    std::vector<CKesString> sysFiles;
    if (deviceID.empty())
    {
        g_Debug.Print(L"Device ID cannot be empty!");
        return sysFiles;
    }
    for (const auto& device : m_vecDevices)
    {
        if (!RowMatches(*device, deviceID))
            continue;
        for (CKesString& file : device->m_vecDriverFiles)
        {
            // The stored name itself is lowered (a no-op for the table's lower-case names).
            file.MakeLower();
            if (Contains(file, L".sys"))
                sysFiles.push_back(file);
        }
    }
    return sysFiles;
}

bool SWLDevices::IsMatchingDeviceID(CKesString deviceID, CKesString idToFind) const
{
    bool matching = false;
    CKesDebugScope scope(L"SWLDevices::IsMatchingDeviceID", &matching);
    if (deviceID.empty())
    {
        g_Debug.Print(L"Device ID cannot be empty!");
        return matching;
    }
    if (idToFind.empty())
    {
        g_Debug.Print(L"Device ID to find cannot be empty!");
        return matching;
    }
    for (const auto& device : m_vecDevices)
    {
        if (RowMatches(*device, deviceID) && device->m_strDeviceID == idToFind)
        {
            matching = true;
            break;
        }
    }
    return matching;
}

bool SWLDevices::IsNotTlmdDevice(CKesString deviceID) const
{
    bool notTlmd = true;
    CKesDebugScope scope(L"SWLDevices::IsNotTlmdDevice", &notTlmd);
    if (IsMatchingDeviceID(deviceID, kTlmdPhysicalID) || IsMatchingDeviceID(deviceID, kTlmdVirtualID))
        notTlmd = false;
    return notTlmd;
}

std::vector<CKesString> SWLDevices::GetFilesForAllDevices() const
{
    CKesDebugScope scope(L"SWLDevices::GetFilesForAllDevices");
    std::vector<CKesString> files;
    for (const auto& device : m_vecDevices)
    {
        for (const CKesString& file : device->m_vecDriverFiles)
            AppendUnique(files, file);
        for (const CKesString& file : device->m_vecFirmwareFiles)
            AppendUnique(files, file);
    }
    return files;
}

bool IsVirtualFunctionID(CKesString id)
{
    bool virtualFunction = false;
    CKesDebugScope scope(L"IsVirtualFunctionID", &virtualFunction);
    for (const wchar_t* vfID : kVirtualFunctionIDs)
    {
        if (Contains(id, vfID))
        {
            virtualFunction = true;
            break;
        }
    }
    return virtualFunction;
}

bool IsHarrowgateDeviceID(CKesString id)
{
    bool harrowgate = false;
    CKesDebugScope scope(L"IsHarrowgateDeviceID", &harrowgate);
    harrowgate = Contains(id, kHarrowgateID);
    return harrowgate;
}
