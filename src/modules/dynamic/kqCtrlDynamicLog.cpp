#include "kqCtrlDynamicLog.h"

#include <stdio.h>

namespace kq::log {

static uint64_t s_Statements = 0;

uint64_t Statements()
{
    return s_Statements;
}

Prefix Begin(uint32_t Level, BOOL Normal, const char *Function)
{
    ++s_Statements;
    Prefix p;
    if (!KQ_LogTest(KQ_DYNAMIC_LOG_MODULE, Level, Normal, Function))
        return p;
    KQ_LOG_IMPL_S *impl = KQ_LogGetImplItem(KQ_DYNAMIC_LOG_MODULE);
    if (impl == nullptr || impl->Log == nullptr)
        return p;
    p.Impl = impl;
    p.Tag = KQ_AgentLogGetTag();
    if (impl->LogLevel2Str != nullptr) {
        const char *text = impl->LogLevel2Str(Level);
        p.LevelText = text != nullptr ? text : "";
    }
    const char *module = KQ_LogGetModuleName(KQ_DYNAMIC_LOG_MODULE);
    p.ModuleName = module != nullptr ? module : "";
    p.ThreadText = KQ_LogGetThreadInfo();
    return p;
}

const char *KQ_LogGetThreadInfo()
{
    static char threadInfo[128];
    threadInfo[0] = '\0';

    long threadId = KQ_PlatformGetCurrentThreadId();
    long processId = KQ_PlatformGetCurrentProcessId();
    char name[16] = {0};

    if (KQ_ThreadGetName(name, sizeof(name)) == 0) {
        name[sizeof(name) - 1] = '\0';
        if (threadId != 0 && processId != 0)
            snprintf(threadInfo, sizeof(threadInfo), "[%lu:%lu:%s]", (unsigned long)processId,
                     (unsigned long)threadId, name);
        else if (threadId != 0)
            snprintf(threadInfo, sizeof(threadInfo), "[%lu:%s]", (unsigned long)threadId, name);
    } else {
        if (threadId != 0 && processId != 0)
            snprintf(threadInfo, sizeof(threadInfo), "[%lu:%lu]", (unsigned long)processId,
                     (unsigned long)threadId);
        else if (threadId != 0)
            snprintf(threadInfo, sizeof(threadInfo), "[%lu]", (unsigned long)threadId);
    }
    return threadInfo;
}

}  // namespace kq::log
