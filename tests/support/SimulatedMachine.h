#pragma once
// A simulated machine: the PCI devices of a profile (tests/machines/NAME.json,
// described in tests/machines/README.md) written under
// HKLM\SYSTEM\CurrentControlSet\Enum\PCI of the running Wine prefix. Wine's
// WMI (Win32_PnPEntity) and SetupAPI list them from the next query on, in this
// process and in any other; no restart is needed.
#include <string>
#include <vector>

struct SimulatedDevice
{
    std::wstring hardwareKey; // VEN_1F2E&DEV_6B20&SUBSYS_00001F2E&REV_20, spelled as written
    std::wstring instance;    // spelled as written

    // SYSTEM\CurrentControlSet\Enum\PCI\<hardware key>\<instance>, under HKLM.
    std::wstring KeyPath() const;
    // PCI\<hardware key>\<instance> upper-cased: the device-instance ID as
    // WMI's DeviceID and SetupDiGetDeviceInstanceIdW report it under Wine.
    std::wstring DeviceID() const;
    // The device-instance ID without its instance part, which the installer
    // passes to UpdateDriverForPlugAndPlayDevicesW as the hardware ID.
    std::wstring HardwareID() const;
};

class SimulatedMachine
{
public:
    // Writes the devices of a profile: a name from tests/machines ("pf-7xxx")
    // or a path to a .json file. Throws std::runtime_error for a profile that
    // cannot be read or is malformed, or when one of its instance keys exists
    // already; it then leaves the registry as it found it.
    explicit SimulatedMachine(const std::string& profile);
    // Removes the instance keys it created, with everything below them
    // (including what Wine or a driver install added there), and each hardware
    // key it created once no instance is left in it. Driver keys under
    // Control\Class, services and files a driver install made stay.
    ~SimulatedMachine();
    SimulatedMachine(const SimulatedMachine&) = delete;
    SimulatedMachine& operator=(const SimulatedMachine&) = delete;

    // One entry per instance, in profile order.
    const std::vector<SimulatedDevice>& Devices() const { return m_devices; }
    // The profile's "windows" field ("win10"), empty when absent. It cannot
    // take effect in a running process: Wine reads the version at start-up.
    const std::wstring& Windows() const { return m_windows; }

    // The .json file a profile name or path stands for.
    static std::wstring ProfilePath(const std::string& profile);

private:
    void Write(const std::wstring& path);
    void Remove();

    std::vector<SimulatedDevice> m_devices;
    std::wstring m_windows;
    std::vector<std::wstring> m_createdInstances; // in creation order
    std::vector<std::wstring> m_createdHardwareKeys;
};
