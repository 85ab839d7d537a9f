// Cost of finding our devices: EnumerateDeviceMgrForSupportedDevices against a
// plain WMI loop that runs the same query and reads the same DeviceID column,
// on simulated machines of 1, 100 and 1000 accelerator functions (profiles
// made by tests/machines/generate.py, named in SWL_BENCH_MACHINES). Prints the
// time per call of each and their ratio; asserts nothing.
#include "Devices/HardwareDiscovery.h"
#include "SimulatedMachine.h"
#include "UniqueHandle.h"
#include "BenchClock.h"
#include <windows.h>
#include <oleauto.h>
#include <wbemidl.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace
{
const int kRounds = 5;

// The same COM set-up and query, every DeviceID read, nothing matched: the floor.
size_t PlainWmiLoop()
{
    size_t rows = 0;
    if (FAILED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)))
        return 0;
    {
        ComRef<IWbemLocator> locator;
        ComRef<IWbemServices> services;
        ComRef<IEnumWbemClassObject> rowsFound;
        BSTR nameSpace = SysAllocString(L"ROOT\\CIMV2"), language = SysAllocString(L"WQL"),
             query = SysAllocString(L"SELECT * FROM Win32_PnPEntity");
        if (SUCCEEDED(CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator,
                                       reinterpret_cast<void**>(locator.put()))) &&
            SUCCEEDED(locator->ConnectServer(nameSpace, nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                                             services.put())) &&
            SUCCEEDED(CoSetProxyBlanket(services.get(), RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr,
                                        RPC_C_AUTHN_LEVEL_CALL, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE)) &&
            SUCCEEDED(services->ExecQuery(language, query, WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY,
                                          nullptr, rowsFound.put())))
        {
            for (;;)
            {
                ComRef<IWbemClassObject> row;
                ULONG returned = 0;
                if (rowsFound->Next(WBEM_INFINITE, 1, row.put(), &returned) != WBEM_S_NO_ERROR || returned == 0)
                    break;
                VARIANT id;
                VariantInit(&id);
                if (SUCCEEDED(row->Get(L"DeviceID", 0, &id, nullptr, nullptr)))
                    ++rows;
                VariantClear(&id);
            }
        }
        SysFreeString(nameSpace);
        SysFreeString(language);
        SysFreeString(query);
    }
    CoUninitialize();
    return rows;
}

template <class Work>
double BestSeconds(Work work)
{
    double best = 1e9;
    for (int round = 0; round < kRounds; ++round)
    {
        const double start = Now();
        work();
        best = std::min(best, Now() - start);
    }
    return best;
}
} // namespace

int main()
{
    const char* folder = std::getenv("SWL_BENCH_MACHINES");
    if (folder == nullptr)
    {
        std::fprintf(stderr, "SWL_BENCH_MACHINES names no folder of generated profiles\n");
        return 2;
    }
    std::printf("device enumeration (best of %d, ms per call)\n", kRounds);
    std::printf("%8s %8s %10s %12s %12s %7s\n", "devices", "listed", "supported", "ours", "plain WMI", "ratio");
    for (int count : {1, 100, 1000})
    {
        SimulatedMachine machine(std::string(folder) + "\\machine-" + std::to_string(count) + ".json");
        std::vector<CKesString> ids;
        EnumerateDeviceMgrForSupportedDevices(ids); // warm-up: the first query of a process costs more
        size_t listed = PlainWmiLoop();
        const double ours = BestSeconds([&] {
            ids.clear();
            EnumerateDeviceMgrForSupportedDevices(ids);
        });
        const double plain = BestSeconds([&] { listed = PlainWmiLoop(); });
        std::printf("%8d %8zu %10zu %12.2f %12.2f %7.2f\n", count, listed, ids.size(), ours * 1e3, plain * 1e3,
                    ours / plain);
    }
    return 0;
}
