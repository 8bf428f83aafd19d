// Strings, addresses, the flexible buffer and the protobuf helpers of the reference host.
#include "hostTestUtil.h"

namespace {

TEST(HostStrings, FormattingReportsTheFullLengthAndNeverOverruns)
{
    char a[8], b[8], c[8], d[8], e[10];
    KQ_IN6_ADDR full;
    memset(&full, 0x11, sizeof(full));
    EXPECT_EQ((std::vector<size_t>{KQ_SNPrintf(a, 8, "%s-%d", "abc", 12), KQ_SNPrintf(b, 8, "%s", "12345678"),
                                   KQ_SNPrintf(nullptr, 0, "%d", 123), KQ_SNPrintf(c, 8, "%ls", L"\xD800"),
                                   KQ_SafeStrCopy(c, 8, "abcdefghij"), KQ_SafeStrCopy(d, 1, "x"),
                                   KQ_SafeStrFormatIp6Addr(e, sizeof(e), &full)}),
              (std::vector<size_t>{6, 8, 3, 8, 10, 1, 39}));  // a refused format never reads as a fit
    EXPECT_EQ(std::string(a) + "|" + b + "|" + c + "|" + d + "|" + e, "abc-12|1234567|abcdefg||1111:1111");
}

TEST(HostStrings, AddressTextIsStrictAndSizeBounded)
{
    struct { const char *text; size_t size; uint32_t value; } v4[] = {  // value 1: refused, out untouched
        {"192.0.2.1", 19, 0xC0000201}, {"0.0.0.0", 19, 0}, {"255.255.255.255", 19, 0xFFFFFFFF},
        {"203.0.113.9", 11, 0xCB007109}, {"192.0.2.1", 5, 1}, {"192.0.2.17", 9, 0xC0000201},
        {"256.0.0.1", 19, 1}, {"1.2.3", 19, 1}, {"1.2.3.4.5", 19, 1}, {"01.2.3.4", 19, 1}, {"1.2.3.4 ", 19, 1},
        {" 1.2.3.4", 19, 1}, {"1..3.4", 19, 1}, {"1.2.3.-4", 19, 1}, {"1.2.3.4x", 19, 1}, {"", 19, 1},
        {"1234.1.1.1", 19, 1}, {"0x1.2.3.4", 19, 1}};
    for (const auto &c : v4) {
        uint32_t out = 1;
        EXPECT_EQ(KQ_SafeStrGetIp4Addr(c.text, c.size, &out) != nullptr, c.value != 1) << c.text << " " << c.size;
        EXPECT_EQ(out, c.value) << c.text;
    }
    struct { const char *text; size_t size; const char *formatted; } v6[] = {
        {"2001:db8::1", 50, "2001:db8::1"}, {"2001:0db8:0000:0000:0000:0000:0000:0001", 50, "2001:db8::1"},
        {"::", 50, "::"}, {"fe80::1:2", 50, "fe80::1:2"}, {"2001:db8::12", 11, "2001:db8::1"},
        {"2001:db8::1", 4, "refused"}, {"2001:db8:::1", 50, "refused"}, {"192.0.2.1", 50, "refused"},
        {"2001:db8::1 ", 50, "refused"}, {"", 50, "refused"}};
    for (const auto &c : v6) {
        KQ_IN6_ADDR addr;
        memset(&addr, 0xA5, sizeof(addr));
        char out[50] = "refused";
        size_t len = KQ_SafeStrGetIp6Addr(c.text, c.size, &addr) ? KQ_SafeStrFormatIp6Addr(out, sizeof(out), &addr) : 7;
        EXPECT_EQ(std::string(out) + " " + std::to_string(len), c.formatted + (" " + std::to_string(strlen(c.formatted))));
        EXPECT_TRUE(strcmp(out, "refused") != 0 || addr.In6.U6Addr8[0] == 0xA5) << c.text;  // untouched
    }
}

TEST(HostStrings, FlexMsgGrowsAndARefusedAppendLosesNothing)
{
    KQ_FLEXIBLE_MSG *msg = KQ_FlexMsgAlloc();
    ASSERT_NE(msg, nullptr);
    std::string expected;
    for (int i = 0; i < 200; i++) {
        ASSERT_EQ(KQ_FlexMsgSetFormatData(msg, "dhcp-relay=192.0.2.%d,%s\n", i, "eth1"), 0);
        expected += "dhcp-relay=192.0.2." + std::to_string(i) + ",eth1\n";
    }
    EXPECT_EQ((std::vector<int>{KQ_FlexMsgSetFormatData(nullptr, "x"), KQ_FlexMsgSetFormatData(msg, "%ls", L"\xD800")}),
              (std::vector<int>{-EINVAL, -EINVAL}));
    EXPECT_EQ(std::string(msg->FlexBuf), expected);
    EXPECT_TRUE(msg->Pos == expected.size() && msg->Size > msg->Pos);
    KQ_FlexMsgFree(msg);
    KQ_FlexMsgFree(nullptr);
    auto *zero = static_cast<char *>(KQ_AgentMemZeroAlloc(64));
    ASSERT_NE(zero, nullptr);
    EXPECT_EQ(std::string(zero, 64), std::string(64, '\0'));
    KQ_AgentMemFree(zero);
}

TEST(HostStrings, ProtobufHelpers)
{
    struct { uint32_t begin; bool hasLen; uint32_t len, end; } ranges[] = {
        {0xC0000264, true, 51, 0xC0000296}, {0xC0000264, true, 1, 0xC0000264}, {0xC0000264, true, 0, 0xC0000264},
        {0xC0000264, false, 9, 0xC0000264}, {0xFFFFFFF0, true, 100, 0xFFFFFFFF}};
    for (const auto &r : ranges) {
        Range pb{};  // fields only: the converter never looks at the descriptor
        pb.begin = r.begin;
        pb.has_len = r.hasLen;
        pb.len = r.len;
        KQ_AGENT_IP_RANGE out{};
        KQ_PbToConfIpRange(&pb, &out);
        EXPECT_EQ(std::vector<uint32_t>({out.StartIp, out.EndIp}), std::vector<uint32_t>({r.begin, r.end})) << r.len;
    }
    uint8_t bytes[17] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 9};
    KQ_IN6_ADDR addr{};
    std::vector<int> results;
    for (ProtobufCBinaryData pb : {ProtobufCBinaryData{16, bytes}, {15, bytes}, {17, bytes}, {16, nullptr}, {0, nullptr}})
        results.push_back(KQ_GetIpv6AddrFromIpv6Pb(&pb, &addr));
    EXPECT_EQ(results, (std::vector<int>{0, -EINVAL, -EINVAL, -EINVAL, -EINVAL}));
    EXPECT_EQ(memcmp(addr.In6.U6Addr8, bytes, 16), 0);
}

}  // namespace
