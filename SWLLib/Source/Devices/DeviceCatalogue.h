#pragma once
// The catalogue of supported accelerator models and the files each one needs.
// Every hardware decision (is this device ours, which INF, which .sys, which
// files to extract, is it a virtual function) is answered by matching a Plug
// and Play device-instance ID against the rows of this fixed table.
//
// Matching rule: a row matches when its hardware ID (at least 16 characters)
// occurs anywhere in the device-instance ID, case-sensitively. So
// "PCI\VEN_1F2E&DEV_6B20&SUBSYS_00001F2E&REV_20" matches the 7xxx row, and a
// lower-case ID matches nothing.
#include "KesString.h"
#include <memory>
#include <vector>

// One supported model. The constructor fills the fields every row shares
// (vendor, INF, firmware folder, driver files); the table fills the rest.
class SWLDevice
{
public:
    SWLDevice();

    // "VEN_<vendor>&DEV_<device>", plus "&SUBSYS_<subsystem><subsystem vendor>"
    // when both subsystem fields are set. Empty (with a trace line) when the
    // vendor or device ID is empty.
    CKesString GetHardwareID() const;

    CKesString m_strDescription;
    CKesString m_strVendorID;
    CKesString m_strDeviceID;
    CKesString m_strSubsystemID;
    CKesString m_strSubsystemVendorID;
    CKesString m_strINFFile;
    std::vector<CKesString> m_vecFirmwareFiles;
    CKesString m_strFirmwareFolder;
    std::vector<CKesString> m_vecDriverFiles;
};

// The fixed table of the ten supported models (five physical functions, each
// followed by its virtual function). Lookups walk the rows in table order; the
// first match wins where one answer is returned. None throws for bad input:
// an empty or unknown ID gives false, an empty string or an empty list, with a
// trace line.
class SWLDevices
{
public:
    SWLDevices();
    SWLDevices(const SWLDevices&) = delete;
    SWLDevices& operator=(const SWLDevices&) = delete;

    bool IsDeviceIDSupported(CKesString deviceID) const;
    // The INF file name of the first matching row; empty when none matches.
    CKesString GetINFForDeviceID(CKesString deviceID) const;
    // The .sys driver files of every matching row, in row order. Lower-cases
    // the stored driver-file names of the matching rows.
    std::vector<CKesString> GetSysForDeviceID(CKesString deviceID);
    // True when a row matches deviceID and that row's device ID is exactly idToFind.
    bool IsMatchingDeviceID(CKesString deviceID, CKesString idToFind) const;
    // False for the 720xx (TLM-D) physical and virtual function; true otherwise,
    // also for an unsupported or empty ID.
    bool IsNotTlmdDevice(CKesString deviceID) const;
    // Every driver and firmware file any row needs, each name once, in table
    // order (a row's driver files before its firmware files).
    std::vector<CKesString> GetFilesForAllDevices() const;

    // The rows, in table order.
    const std::vector<std::unique_ptr<SWLDevice>>& Devices() const { return m_vecDevices; }

private:
    bool RowMatches(const SWLDevice& device, const CKesString& deviceID, CKesString* hardwareID = nullptr) const;

    std::vector<std::unique_ptr<SWLDevice>> m_vecDevices;
};

// True when id contains the device ID of a virtual-function row ("5A11",
// "6B21", "6B23", "6B25", "6B27") anywhere, case-sensitively.
bool IsVirtualFunctionID(CKesString id);
// True when id contains "3C40" (the Harrowgate device, recognised but not in the table).
bool IsHarrowgateDeviceID(CKesString id);

// The process-wide catalogue, built after g_Debug (SWLLib.cpp).
extern SWLDevices g_SWLDevices;
