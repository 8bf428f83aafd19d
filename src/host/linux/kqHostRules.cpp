// The policy-rule table of the reference host: kept in memory, keyed by zone and rule id,
// shown by the agent's status view. An agent can keep it in a file as well, so that the
// table outlives the agent as a data path's table would, and goes with a reboot (/run).
#include <errno.h>
#include <string.h>

#include <cstdio>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "kqHostInternal.h"
#include "kqHostLinux.h"

namespace {

std::mutex sg_RuleLock;
std::vector<KQ_CONF_RULE> sg_Rules;
std::string sg_RuleFile;

// The file: this tag, the record size, then the records. A table of another layout (an
// agent of another build) is not read.
constexpr char kRuleFileTag[8] = {'k', 'q', 'r', 'u', 'l', 'e', 's', '1'};

// With the lock held.
KQ_ERR_T SaveRules()
{
    if (sg_RuleFile.empty())
        return 0;
    std::string data(kRuleFileTag, sizeof(kRuleFileTag));
    const uint32_t size = sizeof(KQ_CONF_RULE);
    data.append(reinterpret_cast<const char *>(&size), sizeof(size));
    data.append(reinterpret_cast<const char *>(sg_Rules.data()), sg_Rules.size() * sizeof(KQ_CONF_RULE));
    return KQ_HostWriteFile(sg_RuleFile.c_str(), data.data(), data.size(), 0);
}

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
            return SaveRules();
        }
    }
    try {
        sg_Rules.push_back(*Rule);
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
    return SaveRules();
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
            return SaveRules();
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
    sg_RuleFile.clear();
}

KQ_ERR_T KQ_HostRuleKeepIn(const char *Path)
{
    if (Path == nullptr || Path[0] == '\0')
        return -EINVAL;
    std::lock_guard<std::mutex> lock(sg_RuleLock);
    sg_RuleFile = Path;
    std::FILE *file = std::fopen(Path, "rbe");
    if (file == nullptr)
        return errno == ENOENT ? 0 : -errno;
    char tag[sizeof(kRuleFileTag)] = {};
    uint32_t size = 0;
    std::vector<KQ_CONF_RULE> rules;
    KQ_CONF_RULE rule;
    if (std::fread(tag, 1, sizeof(tag), file) == sizeof(tag) && memcmp(tag, kRuleFileTag, sizeof(tag)) == 0 &&
        std::fread(&size, sizeof(size), 1, file) == 1 && size == sizeof(KQ_CONF_RULE)) {
        while (std::fread(&rule, sizeof(rule), 1, file) == 1)
            rules.push_back(rule);
    }
    std::fclose(file);
    // Rules added before the file was named stay, as the newer word on their key.
    for (const KQ_CONF_RULE &mine : sg_Rules) {
        bool replaced = false;
        for (KQ_CONF_RULE &kept : rules)
            if (kept.Zone == mine.Zone && kept.Id == mine.Id) {
                kept = mine;
                replaced = true;
            }
        if (!replaced)
            rules.push_back(mine);
    }
    sg_Rules = std::move(rules);
    return 0;
}

}  // extern "C"
