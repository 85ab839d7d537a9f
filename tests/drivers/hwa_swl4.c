/*
 * TEST STAND-IN, not the accelerator driver. A minimal kernel driver that
 * loads, does nothing and unloads, so that tests can install, start, stop and
 * remove the HWA_SWL4 service under Wine with a real driver image. It is built
 * by tests/drivers/CMakeLists.txt and never shipped.
 */
#include <ddk/wdm.h>

static VOID NTAPI HwaSwl4Unload(PDRIVER_OBJECT driver)
{
    (void)driver;
}

NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath)
{
    (void)registryPath;
    driver->DriverUnload = HwaSwl4Unload;
    return STATUS_SUCCESS;
}
