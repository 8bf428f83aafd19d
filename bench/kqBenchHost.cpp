// The bench host: the reference host (libkqhost.so) with two of its operations replaced.
// Command execution only records the line, so no dnsmasq is started and the figures are
// the module's own work; host allocations are counted, so the registry's footprint can be
// read. Files are written by the reference host itself, into the tmpfs and overlays of
// scripts/isolate.
#include <malloc.h>

#include <cstdlib>
#include <string>

#include "kqBenchHost.h"

namespace kqbench {

HostRecord &Record()
{
    static HostRecord record;
    return record;
}

}  // namespace kqbench

extern "C" {

int32_t KQ_CmdExec(char *Command)
{
    kqbench::Record().Commands++;
    kqbench::Record().LastCommand = Command;
    return 0;
}

int KQ_RTCSystem(const char *Command)
{
    kqbench::Record().Commands++;
    kqbench::Record().LastCommand = Command;
    return 0;
}

void *KQ_AgentMemZeroAlloc(const size_t Size)
{
    void *p = calloc(1, Size != 0 ? Size : 1);
    if (p != nullptr) {
        kqbench::Record().LiveAllocations++;
        kqbench::Record().LiveBytes += malloc_usable_size(p);
    }
    return p;
}

void KQ_AgentMemFree(void *Ptr)
{
    if (Ptr != nullptr) {
        kqbench::Record().LiveAllocations--;
        kqbench::Record().LiveBytes -= malloc_usable_size(Ptr);
    }
    free(Ptr);
}

}  // extern "C"
