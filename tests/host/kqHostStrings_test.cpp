// Strings, addresses, the flexible buffer and the protobuf helpers of the reference host.
#include <errno.h>
#include <string.h>

#include <string>

#include <gtest/gtest.h>

#include "kqHostLinux.h"

namespace {

TEST(HostStrings, SNPrintfAndSafeStrCopyReportTheFullLength)
{
    char buf[8];
    EXPECT_EQ(KQ_SNPrintf(buf, sizeof(buf), "%s-%d", "abc", 12), 6u);
    EXPECT_STREQ(buf, "abc-12");
    EXPECT_EQ(KQ_SNPrintf(buf, sizeof(buf), "%s", "12345678"), 8u);  // == size: overflow
    EXPECT_STREQ(buf, "1234567");
    EXPECT_EQ(KQ_SNPrintf(nullptr, 0, "%d", 123), 3u);
    // A format vsnprintf refuses must not read as a fit.
    EXPECT_EQ(KQ_SNPrintf(buf, sizeof(buf), "%ls", L"\xD800"), sizeof(buf));

    EXPECT_EQ(KQ_SafeStrCopy(buf, sizeof(buf), "abcdefghij"), 10u);
    EXPECT_STREQ(buf, "abcdefg");
    EXPECT_EQ(KQ_SafeStrCopy(buf, sizeof(buf), "eth1"), 4u);
    EXPECT_STREQ(buf, "eth1");
    EXPECT_EQ(KQ_SafeStrCopy(buf, 1, "x"), 1u);
    EXPECT_STREQ(buf, "");
}

TEST(HostStrings, Ipv4TextIsStrictDottedQuad)
{
    struct {
        const char *text;
        size_t size;
        bool ok;
        uint32_t value;
    } cases[] = {
        {"192.0.2.1", 19, true, 0xC0000201}, {"0.0.0.0", 19, true, 0},
        {"255.255.255.255", 19, true, 0xFFFFFFFF}, {"203.0.113.9", 11, true, 0xCB007109},
        {"192.0.2.1", 5, false, 0},    // cut by size: "192.0"
        {"192.0.2.17", 9, true, 0xC0000201},  // size ends the text at "192.0.2.1"
        {"256.0.0.1", 19, false, 0},   {"1.2.3", 19, false, 0},       {"1.2.3.4.5", 19, false, 0},
        {"01.2.3.4", 19, false, 0},    {"1.2.3.4 ", 19, false, 0},    {" 1.2.3.4", 19, false, 0},
        {"1..3.4", 19, false, 0},      {"1.2.3.-4", 19, false, 0},    {"1.2.3.4x", 19, false, 0},
        {"", 19, false, 0},            {"1234.1.1.1", 19, false, 0},  {"0x1.2.3.4", 19, false, 0},
    };
    for (const auto &c : cases) {
        uint32_t out = 0x5A5A5A5A;
        char *r = KQ_SafeStrGetIp4Addr(c.text, c.size, &out);
        EXPECT_EQ(r != nullptr, c.ok) << c.text << " size " << c.size;
        EXPECT_EQ(out, c.ok ? c.value : 0x5A5A5A5Au) << c.text;
    }
    // Everything "%u.%u.%u.%u" prints reads back.
    for (uint32_t ip : {0u, 1u, 0x0A000001u, 0xC0A80101u, 0xFFFFFFFEu}) {
        char text[19];
        snprintf(text, sizeof(text), "%u.%u.%u.%u", ip >> 24, (ip >> 16) & 255, (ip >> 8) & 255, ip & 255);
        uint32_t out = 0;
        ASSERT_NE(KQ_SafeStrGetIp4Addr(text, sizeof(text), &out), nullptr) << text;
        EXPECT_EQ(out, ip);
    }
}

TEST(HostStrings, Ipv6TextParsesAndFormats)
{
    struct {
        const char *text;
        size_t size;
        const char *formatted;  // null: refused
    } cases[] = {
        {"2001:db8::1", 50, "2001:db8::1"},
        {"2001:0db8:0000:0000:0000:0000:0000:0001", 50, "2001:db8::1"},
        {"::", 50, "::"},
        {"fe80::1:2", 50, "fe80::1:2"},
        {"2001:db8::12", 11, "2001:db8::1"},  // size ends the text
        {"2001:db8::1", 4, nullptr},
        {"2001:db8:::1", 50, nullptr},
        {"192.0.2.1", 50, nullptr},
        {"2001:db8::1 ", 50, nullptr},
        {"", 50, nullptr},
    };
    for (const auto &c : cases) {
        KQ_IN6_ADDR addr;
        memset(&addr, 0xA5, sizeof(addr));
        char *r = KQ_SafeStrGetIp6Addr(c.text, c.size, &addr);
        EXPECT_EQ(r != nullptr, c.formatted != nullptr) << c.text;
        if (r == nullptr) {
            EXPECT_EQ(addr.In6.U6Addr8[0], 0xA5) << c.text;
            continue;
        }
        char out[50];
        EXPECT_EQ(KQ_SafeStrFormatIp6Addr(out, sizeof(out), &addr), strlen(c.formatted));
        EXPECT_STREQ(out, c.formatted);
    }
    KQ_IN6_ADDR full;
    memset(&full, 0x11, sizeof(full));
    char small[10];
    EXPECT_EQ(KQ_SafeStrFormatIp6Addr(small, sizeof(small), &full), 39u);  // full length
    EXPECT_STREQ(small, "1111:1111");
}

TEST(HostStrings, FlexMsgGrowsAndStaysTerminated)
{
    KQ_FLEXIBLE_MSG *msg = KQ_FlexMsgAlloc();
    ASSERT_NE(msg, nullptr);
    EXPECT_STREQ(msg->FlexBuf, "");
    std::string expected;
    for (int i = 0; i < 200; i++) {
        ASSERT_EQ(KQ_FlexMsgSetFormatData(msg, "dhcp-relay=192.0.2.%d,%s\n", i, "eth1"), 0);
        expected += "dhcp-relay=192.0.2." + std::to_string(i) + ",eth1\n";
    }
    EXPECT_EQ(std::string(msg->FlexBuf), expected);
    EXPECT_EQ(msg->Pos, expected.size());
    EXPECT_GT(msg->Size, msg->Pos);
    EXPECT_EQ(KQ_FlexMsgSetFormatData(nullptr, "x"), -EINVAL);
    EXPECT_EQ(KQ_FlexMsgSetFormatData(msg, "%ls", L"\xD800"), -EINVAL);
    EXPECT_EQ(std::string(msg->FlexBuf), expected);  // a refused append loses nothing
    KQ_FlexMsgFree(msg);
    KQ_FlexMsgFree(nullptr);

    auto *zero = static_cast<unsigned char *>(KQ_AgentMemZeroAlloc(64));
    ASSERT_NE(zero, nullptr);
    for (int i = 0; i < 64; i++)
        EXPECT_EQ(zero[i], 0);
    KQ_AgentMemFree(zero);
}

TEST(HostStrings, ProtobufHelpers)
{
    struct {
        uint32_t begin;
        bool hasLen;
        uint32_t len, start, end;
    } ranges[] = {
        {0xC0000264, true, 51, 0xC0000264, 0xC0000296}, {0xC0000264, true, 1, 0xC0000264, 0xC0000264},
        {0xC0000264, true, 0, 0xC0000264, 0xC0000264},  {0xC0000264, false, 9, 0xC0000264, 0xC0000264},
        {0xFFFFFFF0, true, 100, 0xFFFFFFF0, 0xFFFFFFFF},
    };
    for (const auto &r : ranges) {
        Range pb{};  // fields only: the converter never looks at the descriptor
        pb.begin = r.begin;
        pb.has_len = r.hasLen;
        pb.len = r.len;
        KQ_AGENT_IP_RANGE out{};
        KQ_PbToConfIpRange(&pb, &out);
        EXPECT_EQ(out.StartIp, r.start);
        EXPECT_EQ(out.EndIp, r.end) << r.begin << "+" << r.len;
    }

    uint8_t bytes[17] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 9};
    KQ_IN6_ADDR addr{};
    ProtobufCBinaryData pb = {16, bytes};
    EXPECT_EQ(KQ_GetIpv6AddrFromIpv6Pb(&pb, &addr), 0);
    EXPECT_EQ(memcmp(addr.In6.U6Addr8, bytes, 16), 0);
    for (ProtobufCBinaryData bad : {ProtobufCBinaryData{15, bytes}, ProtobufCBinaryData{17, bytes},
                                    ProtobufCBinaryData{16, nullptr}, ProtobufCBinaryData{0, nullptr}})
        EXPECT_EQ(KQ_GetIpv6AddrFromIpv6Pb(&bad, &addr), -EINVAL);
}

}  // namespace
