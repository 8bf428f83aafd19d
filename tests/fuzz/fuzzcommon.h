// What every fuzz target shares: it refuses to run outside scripts/isolate (the fake host
// writes real files under /etc and /run), starts each input from a clean fake host, and
// checks after each input that the module gave back every host allocation.
#pragma once

#include <cstdio>
#include <cstdlib>

#include "fakehost.h"
#include "kqCtrlDynamicInternal.h"

namespace kqfuzz {

[[noreturn]] inline void Fail(const char *What, long Value)
{
    fprintf(stderr, "%s: %ld\n", What, Value);
    abort();
}

inline void BeginInput()
{
    fakehost::Reset();
    fakehost::ClearRegistry();
}

// A result is 0 or a negative errno value; anything else is a fault of the module.
inline KQ_ERR_T CheckResult(const char *Operation, KQ_ERR_T Result)
{
    if (Result > 0 || Result < -4095)
        Fail(Operation, Result);
    return Result;
}

// The registry is emptied by the caller's own delete or here; after that every node, flex
// message and conf text the module took from the host must be back.
inline void EndInput()
{
    fakehost::ClearRegistry();
    if (fakehost::Host().LiveAllocations != 0)
        Fail("host allocations not returned", fakehost::Host().LiveAllocations);
}

}  // namespace kqfuzz

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    const char *isolated = getenv("KQ_ISOLATED");
    if (isolated == nullptr || isolated[0] != '1') {
        fprintf(stderr, "fuzz targets write /etc and /run: run them through scripts/isolate\n");
        exit(2);
    }
    return 0;
}
