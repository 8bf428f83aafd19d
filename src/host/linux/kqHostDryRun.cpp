// The dry run: a process (a forked child of the agent) that lets the module decide without
// changing the machine. Every operation that would write, run, signal or send is reported
// to the sink and treated as done; reads still read.
#include "kqHostInternal.h"

namespace {

KQ_HOST_DRY_RUN_SINK sg_Sink = nullptr;
void *sg_Context = nullptr;

}  // namespace

namespace kqhost {

bool DryRunTakes(const char *op, const char *subject, const char *data, size_t len)
{
    if (sg_Sink == nullptr)
        return false;
    sg_Sink(sg_Context, op, subject != nullptr ? subject : "", data, data != nullptr ? len : 0);
    return true;
}

}  // namespace kqhost

extern "C" void KQ_HostDryRun(KQ_HOST_DRY_RUN_SINK Sink, void *Context)
{
    sg_Sink = Sink;
    sg_Context = Context;
}
