/*
 * The module's one log statement.
 *
 * Every line goes to the host logger as
 *     "<" level-text module-name ">" thread-text "[" function ":" line "] " message
 * Level 4 (errors) also stores the bare message in the host's flex-log, dumps it as a
 * second line and resets it; levels 1 to 3 store it without dump or reset.
 *
 * The statement is a macro so that the message format is joined to the prefix at compile
 * time and checked against its arguments, and so that the line number is the caller's.
 */
#ifndef KQ_CTRL_DYNAMIC_LOG_H
#define KQ_CTRL_DYNAMIC_LOG_H

#include <errno.h>
#include <string.h>

#include "kqCtrlDynamic.h"

namespace kq::log {

enum : uint32_t { Trace = 1, Notice = 2, Warning = 3, Error = 4 };

// The prefix values of one line, fetched from the host just before the line is written.
struct Prefix {
    KQ_LOG_IMPL_S *Impl = nullptr;  // non-null only when the line is to be written
    const char *Tag = "";
    const char *LevelText = "";
    const char *ModuleName = "";
    const char *ThreadText = "";
};

// Asks the host whether a line of this level is wanted and, if so, fills the prefix.
Prefix Begin(uint32_t Level, BOOL Normal, const char *Function);

// How many log statements this module has reached so far, written or not: work that logged
// nothing can be skipped next time without a line going missing.
uint64_t Statements();

// "[pid:tid:name]", "[tid:name]", "[pid:tid]", "[tid]" or "", in a buffer reused by each call.
const char *KQ_LogGetThreadInfo();

}  // namespace kq::log

#define KQ_LOG_PREFIX_FMT "<%s%s>%s[%s:%d] "

#define KQ_LOG_AS(FunctionName, Level, Fmt, ...)                                                  \
    do {                                                                                           \
        const char *kqLogFn_ = (FunctionName);                                                     \
        if ((Level) >= kq::log::Error) {                                                           \
            kq::log::Prefix kqLogP_ = kq::log::Begin(kq::log::Error, TRUE, kqLogFn_);              \
            if (kqLogP_.Impl != nullptr)                                                           \
                kqLogP_.Impl->Log(kqLogP_.Tag, kq::log::Error, KQ_LOG_PREFIX_FMT Fmt,              \
                                  kqLogP_.LevelText, kqLogP_.ModuleName, kqLogP_.ThreadText,       \
                                  kqLogFn_, __LINE__, ##__VA_ARGS__);                              \
            if (KQ_FlexLogSetFormatData(Fmt, ##__VA_ARGS__) == 0) {                                \
                kq::log::Prefix kqLogD_ = kq::log::Begin(kq::log::Error, FALSE, kqLogFn_);         \
                if (kqLogD_.Impl != nullptr)                                                       \
                    kqLogD_.Impl->Log(kqLogD_.Tag, kq::log::Error,                                 \
                                      KQ_LOG_PREFIX_FMT "dump flexlog:\n%s", kqLogD_.LevelText,    \
                                      kqLogD_.ModuleName, kqLogD_.ThreadText, kqLogFn_, __LINE__,  \
                                      KQ_FlexLogGetFormatBuff());                                  \
            }                                                                                      \
            KQ_FlexLogDataReset();                                                                 \
        } else {                                                                                   \
            (void)KQ_FlexLogSetFormatData(Fmt, ##__VA_ARGS__);                                     \
            kq::log::Prefix kqLogP_ = kq::log::Begin((Level), TRUE, kqLogFn_);                     \
            if (kqLogP_.Impl != nullptr)                                                           \
                kqLogP_.Impl->Log(kqLogP_.Tag, (Level), KQ_LOG_PREFIX_FMT Fmt, kqLogP_.LevelText,  \
                                  kqLogP_.ModuleName, kqLogP_.ThreadText, kqLogFn_, __LINE__,      \
                                  ##__VA_ARGS__);                                                  \
        }                                                                                          \
    } while (0)

// The usual form: the function's own name.
#define KQ_LOG(Level, Fmt, ...) KQ_LOG_AS(__func__, Level, Fmt, ##__VA_ARGS__)

// For "(%d:%s)" messages: the positive error number and its text, from a negative result.
#define KQ_ERR_ARGS(Result) (-(Result)), strerror(-(Result))

#endif /* KQ_CTRL_DYNAMIC_LOG_H */
