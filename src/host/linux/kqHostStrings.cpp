// Memory, the flexible text buffer, bounded string and address formatting, and the two
// protobuf field converters of the reference host.
#include <arpa/inet.h>
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kqHostInternal.h"

namespace {

constexpr size_t kFlexInitialSize = 256;

// Length of text within its first size bytes (it need not be terminated there).
size_t BoundedLen(const char *text, size_t size)
{
    return strnlen(text, size);
}

bool IsDigit(char c)
{
    return c >= '0' && c <= '9';
}

}  // namespace

extern "C" {

void *KQ_AgentMemZeroAlloc(const size_t Size)
{
    return calloc(1, Size != 0 ? Size : 1);
}

void KQ_AgentMemFree(void *Ptr)
{
    free(Ptr);
}

KQ_FLEXIBLE_MSG *KQ_FlexMsgAlloc(void)
{
    auto *msg = static_cast<KQ_FLEXIBLE_MSG *>(calloc(1, sizeof(KQ_FLEXIBLE_MSG)));
    if (msg == nullptr)
        return nullptr;
    msg->FlexBuf = static_cast<char *>(calloc(1, kFlexInitialSize));
    if (msg->FlexBuf == nullptr) {
        free(msg);
        return nullptr;
    }
    msg->Size = kFlexInitialSize;
    msg->Pos = 0;
    msg->List.next = &msg->List;
    msg->List.prev = &msg->List;
    return msg;
}

KQ_ERR_T KQ_FlexMsgSetFormatData(KQ_FLEXIBLE_MSG *Msg, const char *Format, ...)
{
    if (Msg == nullptr || Format == nullptr || Msg->FlexBuf == nullptr || Msg->Pos >= Msg->Size)
        return -EINVAL;
    va_list args;
    va_start(args, Format);
    va_list retry;
    va_copy(retry, args);
    KQ_ERR_T ret = 0;
    size_t room = Msg->Size - Msg->Pos;
    int len = vsnprintf(Msg->FlexBuf + Msg->Pos, room, Format, args);
    if (len < 0) {
        Msg->FlexBuf[Msg->Pos] = '\0';  // drop whatever part was written
        ret = -EINVAL;
    } else if (static_cast<size_t>(len) >= room) {
        size_t need = Msg->Pos + static_cast<size_t>(len) + 1;
        size_t size = Msg->Size;
        while (size < need)
            size *= 2;
        char *grown = static_cast<char *>(realloc(Msg->FlexBuf, size));
        if (grown == nullptr) {
            Msg->FlexBuf[Msg->Pos] = '\0';
            ret = -ENOMEM;
        } else {
            Msg->FlexBuf = grown;
            Msg->Size = size;
            vsnprintf(Msg->FlexBuf + Msg->Pos, size - Msg->Pos, Format, retry);
        }
    }
    if (ret == 0)
        Msg->Pos += static_cast<size_t>(len);
    va_end(retry);
    va_end(args);
    return ret;
}

void KQ_FlexMsgFree(KQ_FLEXIBLE_MSG *Msg)
{
    if (Msg == nullptr)
        return;
    free(Msg->FlexBuf);
    free(Msg);
}

size_t KQ_SNPrintf(char *Buf, size_t Size, const char *Format, ...)
{
    if (Format == nullptr || (Buf == nullptr && Size != 0))
        return Size;
    va_list args;
    va_start(args, Format);
    int len = vsnprintf(Buf, Size, Format, args);
    va_end(args);
    // A refused format must read as "does not fit", never as a short success.
    return len < 0 ? Size : static_cast<size_t>(len);
}

size_t KQ_SafeStrCopy(char *Dst, size_t Size, const char *Src)
{
    if (Src == nullptr)
        Src = "";
    size_t len = strlen(Src);
    if (Dst != nullptr && Size > 0) {
        size_t n = len < Size - 1 ? len : Size - 1;
        memmove(Dst, Src, n);
        Dst[n] = '\0';
    }
    return len;
}

// Exactly "a.b.c.d": four decimal octets 0..255 without leading zeros (what "%u.%u.%u.%u"
// prints), nothing before or after; the text ends at its NUL or after Size bytes.
char *KQ_SafeStrGetIp4Addr(const char *Text, size_t Size, uint32_t *Out)
{
    if (Text == nullptr || Out == nullptr)
        return nullptr;
    size_t len = BoundedLen(Text, Size);
    size_t pos = 0;
    uint32_t value = 0;
    for (int octet = 0; octet < 4; octet++) {
        if (octet > 0) {
            if (pos >= len || Text[pos] != '.')
                return nullptr;
            pos++;
        }
        size_t start = pos;
        uint32_t number = 0;
        while (pos < len && IsDigit(Text[pos]) && pos - start < 3)
            number = number * 10 + static_cast<uint32_t>(Text[pos++] - '0');
        size_t digits = pos - start;
        if (digits == 0 || number > 255 || (digits > 1 && Text[start] == '0'))
            return nullptr;
        value = (value << 8) | number;
    }
    if (pos != len)
        return nullptr;
    *Out = value;
    return const_cast<char *>(Text);
}

char *KQ_SafeStrGetIp6Addr(const char *Text, size_t Size, KQ_IN6_ADDR *Out)
{
    if (Text == nullptr || Out == nullptr)
        return nullptr;
    char copy[INET6_ADDRSTRLEN];
    size_t len = BoundedLen(Text, Size);
    if (len >= sizeof(copy))
        return nullptr;
    memcpy(copy, Text, len);
    copy[len] = '\0';
    KQ_IN6_ADDR parsed;
    if (inet_pton(AF_INET6, copy, parsed.In6.U6Addr8) != 1)
        return nullptr;
    *Out = parsed;
    return const_cast<char *>(Text);
}

size_t KQ_SafeStrFormatIp6Addr(char *Buf, size_t Size, const KQ_IN6_ADDR *Addr)
{
    char text[INET6_ADDRSTRLEN] = "";
    if (Addr != nullptr && inet_ntop(AF_INET6, Addr->In6.U6Addr8, text, sizeof(text)) == nullptr)
        text[0] = '\0';
    return KQ_SafeStrCopy(Buf, Size, text);
}

void KQ_PbToConfIpRange(const Range *RangePb, KQ_AGENT_IP_RANGE *IpRange)
{
    if (RangePb == nullptr || IpRange == nullptr)
        return;
    IpRange->StartIp = RangePb->begin;
    IpRange->EndIp = RangePb->begin;
    if (RangePb->has_len && RangePb->len > 0) {
        uint64_t end = static_cast<uint64_t>(RangePb->begin) + RangePb->len - 1;
        IpRange->EndIp = end > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(end);
    }
}

KQ_ERR_T KQ_GetIpv6AddrFromIpv6Pb(const ProtobufCBinaryData *Pb, KQ_IN6_ADDR *Addr)
{
    if (Pb == nullptr || Addr == nullptr || Pb->data == nullptr ||
        Pb->len != sizeof(Addr->In6.U6Addr8))
        return -EINVAL;
    memcpy(Addr->In6.U6Addr8, Pb->data, sizeof(Addr->In6.U6Addr8));
    return 0;
}

}  // extern "C"
