// The start-up load with any dhcp.conf text: KQCtrl_LoadDynamicServiceConf reads the file
// through the host, and its server and relay loaders hand every item to the JSON readers,
// insert what they accept and restart the servers and the relay (recorded, never spawned).
#include <string>

#include "fuzzcommon.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size)
{
    kqfuzz::BeginInput();
    fakehost::Host().DhcpConfPath = "/run/kqfuzz/dhcp.conf";
    fakehost::Host().DhcpConfBakPath = "/run/kqfuzz/dhcp.conf.bak";
    fakehost::WriteFile("/run/kqfuzz/dhcp.conf", std::string(reinterpret_cast<const char *>(Data), Size));
    kqfuzz::CheckResult("KQCtrl_LoadDynamicServiceConf", KQCtrl_LoadDynamicServiceConf("/run/kqfuzz/dhcp.conf"));
    // Whatever was loaded must also be written back out without a fault.
    kqfuzz::CheckResult("_KQCtrl_UpdateDynamicConfFile", _KQCtrl_UpdateDynamicConfFile());
    kqfuzz::EndInput();
    return 0;
}
