// Framing, the validated receive, the sequence counter and the exact bytes
// of every steering and core request.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <functional>

#include "netlink/core_family.h"
#include "netlink/genl_family.h"
#include "netlink/nl_msg.h"
#include "netlink/zeb_family.h"
#include "test_support.h"

namespace {

using zt::Bytes;

constexpr uint16_t kZebId = 0x1d;
constexpr uint16_t kCoreId = 0x1e;

class NetlinkTest : public ::testing::Test {
   protected:
    void SetUp() override {
        seq_num = 0;
        zeb_family_id = kZebId;
        dulox_family_id = kCoreId;
    }
    zt::LogCapture log{true};
    zt::FakeKernel kernel{&sk_fd};

    int recv_on_daemon_end() {
        zebusr_nl_msg msg;
        return zebusr_netlink_msg_recv(kernel.daemon_fd(), &msg);
    }
};

// Header and generic header of a request, written out from the offsets.
void expect_request_header(const Bytes &got, uint32_t len, uint16_t type, uint32_t seq,
                           uint8_t cmd) {
    ASSERT_EQ(got.size(), len);
    EXPECT_EQ(zt::get_u32(got, 0), len);
    EXPECT_EQ(zt::get_u16(got, 4), type);
    EXPECT_EQ(zt::get_u16(got, 6), 1);
    EXPECT_EQ(zt::get_u32(got, 8), seq);
    EXPECT_EQ(zt::get_u32(got, 12), static_cast<uint32_t>(getpid()));
    EXPECT_EQ(got[16], cmd);
    EXPECT_EQ(got[17], 1);
}

struct RequestCase {
    const char *name;
    std::function<int(zebusr_nl_msg *)> build;
    uint32_t len;
    uint16_t family;
    uint8_t cmd;
    uint16_t nla_len;
    uint16_t nla_type;
    Bytes payload;
};

Bytes sugg_payload(uint32_t hash, uint32_t type, uint16_t cur, uint16_t dest) {
    Bytes p;
    zt::put_u32(p, 0, hash);
    zt::put_u32(p, 4, type);
    zt::put_u16(p, 8, cur);
    zt::put_u16(p, 10, dest);
    return p;
}

TEST_F(NetlinkTest, EveryRequestHasItsDocumentedBytes) {
    duloxusr_pid_boost_info boost = {};
    boost.list[0] = {1, 10000, 4242};
    boost.list[1] = {1, 10000, 77};
    boost.list_len = 2;
    boost.valid = 1;
    Bytes boost_payload(400, 0);
    const uint32_t pids[] = {4242, 77};
    for (uint32_t i = 0; i < 2; i++) {
        zt::put_u32(boost_payload, 12 * i, 1);
        zt::put_u32(boost_payload, 12 * i + 4, 10000);
        zt::put_u32(boost_payload, 12 * i + 8, pids[i]);
    }
    zt::put_u16(boost_payload, 392, 2);
    zt::put_u8(boost_payload, 394, 1);

    RequestCase cases[] = {
        {"suggestion up 3->6",
         [](zebusr_nl_msg *m) {
             zebusr_sugg_info s = {0, ZEB_SUGG_UP, 3, 6};
             return zebusr_create_genl_msg(m, zeb_family_id, ZEBUSR_GENL_CMD_SUGG) |
                    zebusr_genl_set_sugg_attr(m, &s);
         },
         36, kZebId, 2, 16, 3, sugg_payload(0, 1, 3, 6)},
        {"sync",
         [](zebusr_nl_msg *m) {
             zebusr_sugg_info s = {};
             return zebusr_create_genl_msg(m, zeb_family_id, ZEBUSR_GENL_CMD_SYNC) |
                    zebusr_genl_set_sugg_attr(m, &s);
         },
         36, kZebId, 4, 16, 3, Bytes(12, 0)},
        {"segmentation off",
         [](zebusr_nl_msg *m) {
             zebusr_seg_info s = {0x01020304, 0};
             return zebusr_create_genl_msg(m, zeb_family_id, ZEBUSR_GENL_CMD_SEG) |
                    zebusr_genl_set_seg_attr(m, &s);
         },
         32, kZebId, 3, 12, 4, Bytes{4, 3, 2, 1, 0, 0, 0, 0}},
        {"throughput query",
         [](zebusr_nl_msg *m) {
             duloxusr_pid_bps_info q = {};
             return zebusr_create_genl_msg(m, dulox_family_id, DULOXUSR_GENL_CMD_PID_BPS) |
                    duloxusr_genl_set_pid_bytes_attr(m, &q);
         },
         552, kCoreId, 1, 532, 3, Bytes(528, 0)},
        {"boost request",
         [&boost](zebusr_nl_msg *m) {
             return zebusr_create_genl_msg(m, dulox_family_id, DULOXUSR_GENL_CMD_PID_BOOST) |
                    duloxusr_genl_set_pid_boost_attr(m, &boost);
         },
         424, kCoreId, 2, 404, 4, boost_payload},
    };

    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        seq_num = 9;
        zebusr_nl_msg msg;
        memset(&msg, 0xa5, sizeof(msg));  // builders never clear; nothing may depend on it
        ASSERT_EQ(c.build(&msg), 0);
        ASSERT_EQ(zebusr_netlink_msg_send(kernel.daemon_fd(), &msg, msg.n.nlmsg_len), 0);
        auto sent = kernel.requests();
        ASSERT_EQ(sent.size(), 1u);
        const Bytes &got = sent[0];
        expect_request_header(got, c.len, c.family, 9, c.cmd);
        EXPECT_EQ(zt::get_u16(got, 20), c.nla_len);
        EXPECT_EQ(zt::get_u16(got, 22), c.nla_type);
        EXPECT_EQ(Bytes(got.begin() + 24, got.begin() + 24 + c.payload.size()), c.payload);
    }
}

TEST_F(NetlinkTest, SettersRefuseAnotherFamilysMessageAndNullArguments) {
    zebusr_nl_msg msg;
    zebusr_sugg_info s = {};
    zebusr_seg_info g = {};
    duloxusr_pid_bps_info q = {};
    duloxusr_pid_boost_info b = {};

    zebusr_create_genl_msg(&msg, kCoreId, ZEBUSR_GENL_CMD_SUGG);
    EXPECT_EQ(zebusr_genl_set_sugg_attr(&msg, &s), -1);
    EXPECT_EQ(zebusr_genl_set_seg_attr(&msg, &g), -1);
    zebusr_create_genl_msg(&msg, kZebId, DULOXUSR_GENL_CMD_PID_BPS);
    EXPECT_EQ(duloxusr_genl_set_pid_bytes_attr(&msg, &q), -1);
    EXPECT_EQ(duloxusr_genl_set_pid_boost_attr(&msg, &b), -1);
    EXPECT_EQ(msg.n.nlmsg_len, 20u);
    EXPECT_EQ(zebusr_genl_set_sugg_attr(nullptr, &s), -1);
    EXPECT_EQ(zebusr_genl_set_seg_attr(&msg, nullptr), -1);
    EXPECT_EQ(zebusr_create_genl_msg(nullptr, kZebId, 2), -1);

    EXPECT_EQ(log.messages("ERR"), (std::vector<std::string>{
                                       "invalid param: input msg has wrong type",
                                       "invalid param: input msg has wrong type",
                                       "invalid param: input msg has wrong type",
                                       "invalid param: input msg has wrong type",
                                       "invalid params",
                                       "invalid params",
                                       "invalid param: msg ptr is null",
                                   }));
}

TEST_F(NetlinkTest, SequenceNumberFollowsTheLastGoodReply) {
    seq_num = 5;
    zebusr_nl_msg a, b;
    zebusr_create_genl_msg(&a, kZebId, 4);
    zebusr_create_genl_msg(&b, kZebId, 4);
    EXPECT_EQ(a.n.nlmsg_seq, 5u);
    EXPECT_EQ(b.n.nlmsg_seq, 5u);  // no exchange in between

    kernel.queue(zt::int_reply(41, 0));
    EXPECT_EQ(recv_on_daemon_end(), 0);
    EXPECT_EQ(seq_num, 42u);

    Bytes error = zt::int_reply(77, -2);
    zt::put_u16(error, 4, 2);  // NLMSG_ERROR
    kernel.queue(error);
    EXPECT_EQ(recv_on_daemon_end(), -1);
    EXPECT_EQ(recv_on_daemon_end(), -1);  // nothing queued: times out
    EXPECT_EQ(seq_num, 42u);
}

TEST_F(NetlinkTest, ReceiveRejectsEveryMalformedDatagram) {
    auto with_len = [](size_t size, uint32_t nlmsg_len) {
        Bytes b(size, 0);
        zt::put_u32(b, 0, nlmsg_len);
        zt::put_u32(b, 8, 500);
        return b;
    };
    Bytes error = zt::int_reply(500, 0);
    zt::put_u16(error, 4, 2);

    struct Case {
        const char *name;
        Bytes datagram;  // empty: nothing is sent at all
        int result;
        const char *message;
    } cases[] = {
        {"no reply", {}, -1, "recv error - len_recv < 0"},
        {"shorter than a header", with_len(15, 15), -1, "netlink invalid family reply message"},
        {"nlmsg_len below a header", with_len(24, 15), -1, "netlink invalid family reply message"},
        {"nlmsg_len beyond the datagram", with_len(24, 25), -1,
         "netlink invalid family reply message"},
        {"longer than the buffer, cut", with_len(2000, 2000), -1,
         "netlink invalid family reply message"},
        {"NLMSG_ERROR", error, -1, "netlink received msg error for family resp"},
        {"header only", with_len(16, 16), 0, nullptr},
        {"longer than the buffer, header fits", with_len(2000, 1044), 0, nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        seq_num = 3;
        log.clear();
        if (!c.datagram.empty())
            kernel.queue(c.datagram);
        EXPECT_EQ(recv_on_daemon_end(), c.result);
        EXPECT_EQ(seq_num, c.result == 0 ? 501u : 3u);
        if (c.message)
            EXPECT_EQ(log.messages("MED"), std::vector<std::string>{c.message});
        else
            EXPECT_TRUE(log.messages().empty());
    }
}

Bytes header_only(uint32_t seq) {
    Bytes b = zt::int_reply(seq, 9);
    b.resize(20);
    zt::put_u32(b, 0, 20);
    return b;
}

TEST_F(NetlinkTest, IntegerReplyIsTheFirstPayloadWhateverItsAttribute) {
    struct Case {
        const char *name;
        Bytes datagram;
        int result;
        std::vector<std::string> messages;
    } cases[] = {
        {"accepted",
         zt::int_reply(10, 0),
         0,
         {"  Waiting for kernel to send a msg", "  kernel seq_num 11 return code: 0"}},
        {"refused",
         zt::int_reply(10, 5),
         5,
         {"  Waiting for kernel to send a msg", "  kernel seq_num 11 return code: 5"}},
        {"negative",
         zt::int_reply(10, -2),
         -2,
         {"  Waiting for kernel to send a msg", "  kernel seq_num 11 return code: -2"}},
        // A reply that ends before the payload reads as zeros, not stale bytes.
        {"no attribute",
         header_only(10),
         0,
         {"  Waiting for kernel to send a msg", "  kernel seq_num 11 return code: 0"}},
        {"receive fails",
         {},
         -1,
         {"  Waiting for kernel to send a msg", "recv error - len_recv < 0",
          "netlink failed to send to fd"}},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.name);
        log.clear();
        if (!c.datagram.empty())
            kernel.queue(c.datagram);
        EXPECT_EQ(zebusr_genl_recv_int_from_kernel(), c.result);
        EXPECT_EQ(log.messages(), c.messages);
    }
}

TEST(NetlinkSocket, OpensARealGenericNetlinkSocketWithItsTimeout) {
    zt::LogCapture log{true};
    int fd = zebusr_genl_open_sock(ZEBUSR_NETLINK_GENERIC, 0);
    ASSERT_GE(fd, 0);
    struct timeval tv = {};
    socklen_t len = sizeof(tv);
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, &len), 0);
    EXPECT_EQ(tv.tv_sec, 3);
    EXPECT_EQ(tv.tv_usec, 0);
    close(fd);
    EXPECT_EQ(log.messages(), (std::vector<std::string>{
                                  "nl_open_sock: skfd = " + std::to_string(fd),
                                  "nl_open_sock: recv socket option for timeout set to 3 seconds",
                              }));
}

TEST(NetlinkSocket, FailedSocketIsReported) {
    zt::LogCapture log{true};
    EXPECT_EQ(zebusr_genl_open_sock(9999, 0), -1);
    EXPECT_EQ(log.messages("ERR"), std::vector<std::string>{"nl_open_sock: socket failed:"});
}

TEST(NetlinkSend, OtherErrorsThanEagainFail) {
    zt::LogCapture log{true};
    zebusr_nl_msg msg;
    zebusr_create_genl_msg(&msg, kZebId, 4);
    EXPECT_EQ(zebusr_netlink_msg_send(-1, &msg, msg.n.nlmsg_len), -1);
    EXPECT_EQ(log.messages("ERR"), std::vector<std::string>{"error 9 on sendto"});
}

}  // namespace
