#pragma once
// Which of our accelerators are present, and what kind of install the machine
// can take: a driver install, a software-only install when no device is
// present, a virtual-machine install when virtual functions are present.
#include "KesString.h"
#include <windows.h>
#include <msi.h>
#include <functional>
#include <vector>

// HKLM\SYSTEM\CurrentControlSet\Enum\PCI: one key per hardware ID, one sub-key per instance.
extern const wchar_t* const kPciEnumKey;

// Walks the instance keys of every hardware key under kPciEnumKey whose path
// the catalogue supports, in registry order. instance(hardware key path,
// instance name) answers whether to go on with that hardware key's instances;
// hardwareKeyUnreadable() runs when a supported hardware key cannot be opened
// for enumeration, hardwareKeyDone() after each of its instance walks. False
// when kPciEnumKey itself cannot be opened.
bool WalkSupportedPciInstances(const std::function<bool(const CKesString&, const wchar_t*)>& instance,
                               const std::function<void()>& hardwareKeyUnreadable,
                               const std::function<void()>& hardwareKeyDone);

// The supported device-instance IDs that WMI (Win32_PnPEntity) reports, each
// cut before its last backslash (the instance part), without duplicates, in
// the order WMI lists them. IDs without a backslash are skipped. True when the
// list is not empty afterwards; any COM or WMI failure gives false.
bool EnumerateDeviceMgrForSupportedDevices(std::vector<CKesString>& devices);

// False when the "ServicesNeeded" value of an instance of a supported device
// names a service set without crypto; true otherwise, also when nothing can be
// read. Writes its Installer-log lines to the session saved by InstallDrivers.
bool SearchRegistryForCryptoCompatibility();

// A server edition of Windows 10.0 at build 17763 or later, after the
// operating-system override under the product key.
bool IsSrIovSupportedByOS(MSIHANDLE hInstall);

// 0 when SR-IOV is supported (and "_IsSrIovSupported" is set to "Yes") or when
// no Hyper-V install was asked for; 31 for a Hyper-V install ("HYPERVMODE" is
// "1") on a Windows without SR-IOV.
UINT checkVirtualizationSupport(MSIHANDLE hInstall);

// Custom action. With no supported device it offers a software-only install
// (Yes copies swlzip.dll and sets "INSTALLDLLONLY"; No, or a silent run, gives
// 31). Virtual functions set "INSTALLVMONLY"; physical functions alone go
// through checkVirtualizationSupport.
extern "C" UINT __stdcall VerifyHardwareOrWarn(MSIHANDLE hInstall);
