#pragma once
// SR-IOV in the driver parameters of every installed instance of a supported
// device: "EnableSriov" under the instance's "Device Parameters\Sriov" key,
// which is only opened, never created.
#include <windows.h>
#include <msi.h>

// Custom action; always 0. "CustomActionData" = "1" means a Hyper-V install:
// EnableSriov 1 and the virtualization-host install summary; anything else 0.
extern "C" UINT __stdcall SetRegistryKeyForEnableSriov(MSIHANDLE hInstall);
