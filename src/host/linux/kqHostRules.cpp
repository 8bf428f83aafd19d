// The policy-rule table of the reference host: kept in memory, keyed by zone and rule id,
// shown by the agent's status view.
#include <errno.h>

#include <mutex>
#include <new>
#include <vector>

#include "kqHostInternal.h"

namespace {

std::mutex sg_RuleLock;
std::vector<KQ_CONF_RULE> sg_Rules;

}  // namespace

extern "C" {

KQ_ERR_T KQ_RtcRuleConfAdd(KQ_CONF_RULE *Rule, uint16_t Arg1, BOOL Arg2, BOOL Arg3)
{
    (void)Arg1;
    (void)Arg2;
    (void)Arg3;
    if (Rule == nullptr)
        return -EINVAL;
    std::lock_guard<std::mutex> lock(sg_RuleLock);
    for (KQ_CONF_RULE &existing : sg_Rules) {
        if (existing.Zone == Rule->Zone && existing.Id == Rule->Id) {
            existing = *Rule;
            return 0;
        }
    }
    try {
        sg_Rules.push_back(*Rule);
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
    return 0;
}

KQ_ERR_T KQ_RtcRuleConfDel(uint8_t Zone, uint32_t Id, uint32_t Arg3, uint16_t Arg4, BOOL Arg5)
{
    (void)Arg3;
    (void)Arg4;
    (void)Arg5;
    std::lock_guard<std::mutex> lock(sg_RuleLock);
    for (auto it = sg_Rules.begin(); it != sg_Rules.end(); ++it) {
        if (it->Zone == Zone && it->Id == Id) {
            sg_Rules.erase(it);
            return 0;
        }
    }
    return -ENOENT;
}

size_t KQ_HostRuleCount(void)
{
    std::lock_guard<std::mutex> lock(sg_RuleLock);
    return sg_Rules.size();
}

const KQ_CONF_RULE *KQ_HostRuleAt(size_t Index)
{
    std::lock_guard<std::mutex> lock(sg_RuleLock);
    return Index < sg_Rules.size() ? &sg_Rules[Index] : nullptr;
}

void KQ_HostRuleClear(void)
{
    std::lock_guard<std::mutex> lock(sg_RuleLock);
    sg_Rules.clear();
}

}  // extern "C"
