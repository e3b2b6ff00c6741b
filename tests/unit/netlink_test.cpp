// The socket, the exact bytes of every request, the validated receive with
// the sequence counter, the integer reply and family resolution.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>

#include "netlink/core_family.h"
#include "netlink/genl_family.h"
#include "netlink/nl_msg.h"
#include "netlink/zeb_family.h"
#include "test_support.h"

using zt::Bytes;

namespace {

constexpr uint16_t kZebId = 0x1d, kCoreId = 0x1e;

class Netlink : public ::testing::Test {
   protected:
    void SetUp() override {
        seq_num = 0;
        zeb_family_id = kZebId;
        dulox_family_id = kCoreId;
        zt::clear_faults();
    }
    int recv() {
        zebusr_nl_msg msg;
        return zebusr_netlink_msg_recv(kernel.daemon_fd(), &msg);
    }
    zt::LogCapture log{true};
    zt::FakeKernel kernel{&sk_fd};
};

// The records of both families are checked whole where they are sent; here
// the lookups, a suggestion and the rounding of an odd attribute length.
TEST_F(Netlink, RequestsHaveTheirDocumentedBytes) {
    struct Case {
        std::function<void(zebusr_nl_msg *)> build;
        Bytes want;
    } cases[] = {
        {[](zebusr_nl_msg *m) {
             zebusr_sugg_info s = {0xa1b2c3d4, ZEB_SUGG_UP, 3, 6};
             zebusr_create_genl_msg(m, zeb_family_id, ZEBUSR_GENL_CMD_SUGG);
             zebusr_genl_set_sugg_attr(m, &s);
         },
         zt::request_image(36, kZebId, 9, 2, 16, 3)},
        {[](zebusr_nl_msg *m) {
             zebusr_create_genl_msg(m, ZEBUSR_GENL_ID_CTRL, ZEBUSR_CTRL_CMD_GETFAMILY);
             EXPECT_EQ(zebusr_genl_set_family_attr(m, ZEBUSR_GENL_FAMILY_ZEB), 0);
         },
         zt::request_image(36, 16, 9, 3, 14, 2)},
        {[](zebusr_nl_msg *m) {
             zebusr_create_genl_msg(m, ZEBUSR_GENL_ID_CTRL, ZEBUSR_CTRL_CMD_GETFAMILY);
             zebusr_genl_set_family_attr(m, ZEBUSR_GENL_FAMILY_DULOX);
         },
         zt::request_image(36, 16, 9, 3, 15, 2)},
        {[](zebusr_nl_msg *m) {
             zebusr_create_genl_msg(m, 0x30, 7);
             zebusr_nl_msg_put_attr(m, 9, "\x5a", 1);
         },
         zt::request_image(28, 0x30, 9, 7, 5, 9)},
    };
    zt::put_u32(cases[0].want, 24, 0xa1b2c3d4);
    zt::put_u32(cases[0].want, 28, 1);
    zt::put_u32(cases[0].want, 32, 0x00060003);
    memcpy(&cases[1].want[24], "DULOX_ZEB", 10);
    memcpy(&cases[2].want[24], "DULOX_CORE", 11);
    cases[3].want[24] = 0x5a;
    for (const auto &c : cases) {
        seq_num = 9;
        zebusr_nl_msg msg = {};
        c.build(&msg);
        ASSERT_EQ(zebusr_netlink_msg_send(kernel.daemon_fd(), &msg, msg.n.nlmsg_len), 0);
        EXPECT_EQ(kernel.requests(), std::vector<Bytes>{c.want});
    }
    EXPECT_EQ(zt::last_send_addr, (Bytes{16, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(log.messages(), "");
}

TEST_F(Netlink, BuildersAndSettersRefuseBadArguments) {
    zebusr_nl_msg msg = {};
    zebusr_sugg_info s = {};
    zebusr_seg_info g = {};
    duloxusr_pid_bps_info q = {};
    duloxusr_pid_boost_info b = {};

    zebusr_create_genl_msg(&msg, kCoreId, ZEBUSR_GENL_CMD_SUGG);
    EXPECT_EQ(zebusr_genl_set_sugg_attr(&msg, &s), -1);
    EXPECT_EQ(zebusr_genl_set_seg_attr(&msg, &g), -1);
    EXPECT_EQ(zebusr_genl_set_family_attr(&msg, 0), -1);  // not the controller
    zebusr_create_genl_msg(&msg, kZebId, DULOXUSR_GENL_CMD_PID_BPS);
    EXPECT_EQ(duloxusr_genl_set_pid_bytes_attr(&msg, &q), -1);
    EXPECT_EQ(duloxusr_genl_set_pid_boost_attr(&msg, &b), -1);
    zebusr_create_genl_msg(&msg, ZEBUSR_GENL_ID_CTRL, ZEBUSR_CTRL_CMD_GETFAMILY + 1);
    EXPECT_EQ(zebusr_genl_set_family_attr(&msg, 0), -1);  // not the lookup command
    EXPECT_EQ(msg.n.nlmsg_len, 20u);
    EXPECT_EQ(zebusr_genl_set_sugg_attr(nullptr, &s), -1);
    EXPECT_EQ(duloxusr_genl_set_pid_boost_attr(nullptr, &b), -1);
    EXPECT_EQ(zebusr_create_genl_msg(nullptr, kZebId, 2), -1);
    EXPECT_EQ(zebusr_genl_set_family_attr(nullptr, 0), -1);
    EXPECT_EQ(zebusr_genl_get_family_id_from_resp(nullptr, 0), -1);
    // An unknown family type fails after the attribute type went in.
    zebusr_create_genl_msg(&msg, ZEBUSR_GENL_ID_CTRL, ZEBUSR_CTRL_CMD_GETFAMILY);
    EXPECT_EQ(zebusr_genl_set_family_attr(&msg, 2), -1);
    EXPECT_EQ(msg.buf[2], 2);
    EXPECT_EQ(msg.n.nlmsg_len, 20u);
    Bytes good = zt::family_reply(1, "DULOX_ZEB", 9);
    good.resize(sizeof(zebusr_nl_msg));
    EXPECT_EQ(
        zebusr_genl_get_family_id_from_resp(reinterpret_cast<zebusr_nl_msg *>(good.data()), 2), -1);

    EXPECT_EQ(log.messages(), R"(invalid param: input msg has wrong type
invalid param: input msg has wrong type
invalid param: input msg has wrong type
invalid param: input msg has wrong type
invalid param: input msg has wrong type
invalid param: input msg has wrong type
invalid params
invalid params
invalid param: msg ptr is null
invalid param: msg ptr is null
invalid param: msg ptr is null
invalid param: invalid family type 2
invalid param: family type: 2
)");
}

TEST_F(Netlink, ReceiveTakesOnlyAWholeReplyAndThenAdvancesTheSequence) {
    auto with_len = [](size_t size, uint32_t nlmsg_len, uint16_t type = 0x20) {
        Bytes b(size, 0);
        zt::put_u32(b, 0, nlmsg_len);
        zt::put_u16(b, 4, type);
        zt::put_u32(b, 8, 500);
        return b;
    };
    const char *bad = "netlink invalid family reply message\n";
    struct Case {
        bool comes;
        Bytes datagram;
        int result;
        std::string log;
    } cases[] = {
        {false, {}, -1, "recv error - len_recv < 0\n"},
        {true, {}, -1, bad},                    // an empty datagram
        {true, with_len(15, 15), -1, bad},      // shorter than a header
        {true, with_len(24, 15), -1, bad},      // claims less than a header
        {true, with_len(24, 25), -1, bad},      // claims more than came
        {true, with_len(2000, 1045), -1, bad},  // cut to the buffer
        {true, with_len(36, 36, 2), -1, "netlink received msg error for family resp\n"},
        {true, with_len(16, 16), 0, ""},
        {true, with_len(16, 16, 3), 0, ""},
        {true, with_len(2000, 1044), 0, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.datagram.size());
        seq_num = 3;
        log.clear();
        if (c.comes)
            kernel.queue(c.datagram);
        EXPECT_EQ(recv(), c.result);
        EXPECT_EQ(seq_num, c.result == 0 ? 501u : 3u);
        EXPECT_EQ(log.messages(), c.log);
    }
    zebusr_nl_msg a, b;
    seq_num = 5;
    zebusr_create_genl_msg(&a, kZebId, 4);
    zebusr_create_genl_msg(&b, kZebId, 4);
    EXPECT_EQ(a.n.nlmsg_seq, 5u);
    EXPECT_EQ(b.n.nlmsg_seq, 5u);  // no exchange in between
    log.clear();
    EXPECT_EQ(zebusr_netlink_msg_recv(kernel.daemon_fd(), nullptr), -1);
    EXPECT_EQ(log.messages(), "invalid param: msg ptr is null\n");
}

TEST_F(Netlink, IntegerReplyIsTheFirstPayloadOfAWholeReply) {
    Bytes short_reply = zt::int_reply(10, 7);
    short_reply.resize(27);
    zt::put_u32(short_reply, 0, 27);
    Bytes big = zt::int_reply(10, 0);
    zt::put_u16(big, 20, 200);  // the attribute's own length is not examined
    const std::string wait = "  Waiting for kernel to send a msg\n";
    const std::string failed = "netlink failed to send to fd\n";
    struct Case {
        Bytes datagram;
        int result;
        std::string log;
    } cases[] = {
        {big, 0, wait + "  kernel seq_num 11 return code: 0\n"},
        {zt::int_reply(10, 5), 5, wait + "  kernel seq_num 11 return code: 5\n"},
        {zt::int_reply(10, -2), -2, wait + "  kernel seq_num 11 return code: -2\n"},
        {short_reply, -1, wait + "netlink invalid family reply message\n" + failed},
        {{}, -1, wait + "recv error - len_recv < 0\n" + failed},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.log);
        log.clear();
        if (!c.datagram.empty())
            kernel.queue(c.datagram);
        EXPECT_EQ(zebusr_genl_recv_int_from_kernel(), c.result);
        EXPECT_EQ(log.messages(), c.log);
    }
}

TEST_F(Netlink, FamilyLookupStoresEachIdInItsOwnGlobal) {
    zeb_family_id = dulox_family_id = 0;
    seq_num = 7;
    Bytes zeb = zt::family_reply(7, "DULOX_ZEB", 0x1d);
    zeb.resize(42);  // ends with the id
    zt::put_u32(zeb, 0, 42);
    kernel.queue(zeb);
    ASSERT_EQ(zebusr_genl_init_sock(kernel.daemon_fd(), ZEBUSR_GENL_FAMILY_ZEB), 0);
    kernel.queue(zt::family_reply(40, "DULOX_CORE", 0x2e));
    ASSERT_EQ(zebusr_genl_init_sock(kernel.daemon_fd(), ZEBUSR_GENL_FAMILY_DULOX), 0);
    EXPECT_EQ(kernel.requests().size(), 2u);
    EXPECT_EQ(zeb_family_id, 0x1d);
    EXPECT_EQ(dulox_family_id, 0x2e);
    EXPECT_EQ(seq_num, 41u);
    EXPECT_EQ(log.messages(), "ZEB Family id = 29 seq_num = 8\nDULOX Family id = 46\n");
}

TEST_F(Netlink, FamilyLookupFailuresKeepTheId) {
    Bytes error = zt::family_reply(1, "DULOX_ZEB", 0x1d);
    zt::put_u16(error, 4, 2);
    // The id attribute must lie wholly inside the message to be read.
    Bytes runaway = zt::family_reply(1, "DULOX_ZEB", 0x1d);
    zt::put_u16(runaway, 20, 0xfff0);
    Bytes cut = zt::family_reply(1, "DULOX_ZEB", 0x1d);
    cut.resize(41);
    zt::put_u32(cut, 0, 41);
    const std::string bad_id =
        "unable to set family id, response is not correct type\n"
        "netlink failed to get family id from response\n";
    const std::string failed = "netlink failed to send to fd\n";
    struct Case {
        Bytes reply;
        std::string log;
    } cases[] = {
        {error, "netlink received msg error for family resp\n" + failed},
        {zt::family_reply(1, "DULOX_ZEB", 0x1d, 2), bad_id},  // second attribute not the id
        {runaway, bad_id},
        {cut, bad_id},
        {{}, "recv error - len_recv < 0\n" + failed},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.log);
        zeb_family_id = 0x55;
        log.clear();
        if (!c.reply.empty())
            kernel.queue(c.reply);
        EXPECT_EQ(zebusr_genl_init_sock(kernel.daemon_fd(), ZEBUSR_GENL_FAMILY_ZEB), -1);
        EXPECT_EQ(zeb_family_id, 0x55);
        EXPECT_EQ(log.messages(), c.log);
    }
    log.clear();
    zt::fail({"sendto", "", EPIPE, 0, 1});
    EXPECT_EQ(zebusr_genl_init_sock(kernel.daemon_fd(), ZEBUSR_GENL_FAMILY_ZEB), -1);
    EXPECT_EQ(zebusr_genl_init_sock(kernel.daemon_fd(), 5), -1);
    EXPECT_EQ(log.messages(), "error 32 on sendto\n" + failed +
                                  "invalid param: invalid family type 5\n"
                                  "failed to set attribute to query family id\n");
}

// Descriptor 0 is a socket like any other (a daemon may start with no stdin).
TEST_F(Netlink, SocketOpensWithItsTimeoutOrFailsWithoutALeak) {
    const size_t fds = zt::open_fds();
    int stdin_copy = dup(0);
    close(0);
    int fd = zebusr_genl_open_sock(ZEBUSR_NETLINK_GENERIC, 0);
    ASSERT_EQ(fd, 0);
    struct timeval tv = {};
    socklen_t len = sizeof(tv);
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, &len), 0);
    EXPECT_EQ(tv.tv_sec, 3);
    EXPECT_EQ(tv.tv_usec, 0);
    dup2(stdin_copy, 0);
    close(stdin_copy);
    zt::fail({"setsockopt", "", EINVAL, 0, 1});
    int kept = zebusr_genl_open_sock(ZEBUSR_NETLINK_GENERIC, 0);
    EXPECT_GE(kept, 0);
    close(kept);
    zt::fail({"bind", "", EADDRINUSE, 0, 1});
    EXPECT_EQ(zebusr_genl_open_sock(ZEBUSR_NETLINK_GENERIC, 0x5), -1);
    EXPECT_EQ(zt::last_bind_addr, (Bytes{16, 0, 0, 0, 0, 0, 0, 0, 5, 0, 0, 0}));
    EXPECT_EQ(zebusr_genl_open_sock(9999, 0), -1);
    EXPECT_EQ(zt::open_fds(), fds);
    EXPECT_EQ(log.messages(),
              "nl_open_sock: skfd = 0"
              "\nnl_open_sock: recv socket option for timeout set to 3 "
              "seconds\nnl_open_sock: skfd = " +
                  std::to_string(kept) +
                  "\nnl_open_sock: failed to set socket option for recv timout\n"
                  "nl_open_sock: bind failed:\nnl_open_sock: socket failed:\n");
}

// EAGAIN is retried at once; any other error, even with a result of 0, fails.
TEST_F(Netlink, SendRetriesOnlyEagain) {
    zebusr_nl_msg msg = {};
    zebusr_create_genl_msg(&msg, kZebId, 4);
    zt::fail({"sendto", "", EAGAIN, 0, 3});
    EXPECT_EQ(zebusr_netlink_msg_send(kernel.daemon_fd(), &msg, msg.n.nlmsg_len), 0);
    EXPECT_EQ(kernel.requests().size(), 1u);
    zt::fail({"sendto", "", EPIPE, 0, 1, 0});
    EXPECT_EQ(zebusr_netlink_msg_send(kernel.daemon_fd(), &msg, msg.n.nlmsg_len), -1);
    EXPECT_EQ(zebusr_netlink_msg_send(-1, &msg, msg.n.nlmsg_len), -1);
    EXPECT_EQ(kernel.requests().size(), 0u);
    EXPECT_EQ(log.messages(), "error 32 on sendto\nerror 9 on sendto\n");
}

}  // namespace
