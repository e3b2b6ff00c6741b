// Family resolution against a fake controller and against this machine's
// real one.
#include "netlink/genl_family.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "netlink/nl_msg.h"
#include "test_support.h"

namespace {

using zt::Bytes;

// Appends one attribute at `off`, padded to 4; returns the next offset.
size_t put_attr(Bytes &b, size_t off, uint16_t type, const Bytes &payload) {
    zt::put_u16(b, off, static_cast<uint16_t>(4 + payload.size()));
    zt::put_u16(b, off + 2, type);
    for (size_t i = 0; i < payload.size(); i++) zt::put_u8(b, off + 4 + i, payload[i]);
    size_t next = off + ((4 + payload.size() + 3) & ~size_t{3});
    b.resize(next);
    return next;
}

Bytes u16le(uint16_t v) {
    return {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8)};
}
Bytes u32le(uint32_t v) {
    Bytes b;
    zt::put_u32(b, 0, v);
    return b;
}
Bytes cstr(const char *s) {
    return Bytes(s, s + strlen(s) + 1);
}

// CTRL_CMD_NEWFAMILY as Linux sends it: name, id, version, header size, max attribute.
Bytes controller_reply(uint32_t seq, const char *name, uint16_t id, uint16_t second_type = 1) {
    Bytes b(20, 0);
    zt::put_u16(b, 4, 16);
    zt::put_u32(b, 8, seq);
    zt::put_u8(b, 16, 1);
    zt::put_u8(b, 17, 2);
    size_t off = put_attr(b, 20, 2, cstr(name));
    off = put_attr(b, off, second_type, u16le(id));
    off = put_attr(b, off, 3, u32le(1));
    off = put_attr(b, off, 4, u32le(0));
    off = put_attr(b, off, 5, u32le(4));
    zt::put_u32(b, 0, static_cast<uint32_t>(off));
    return b;
}

class FamilyTest : public ::testing::Test {
   protected:
    void SetUp() override {
        seq_num = 0;
        zeb_family_id = 0;
        dulox_family_id = 0;
    }
    zt::LogCapture log{true};
    zt::FakeKernel kernel{&sk_fd};
};

TEST_F(FamilyTest, LookupsAreThirtySixBytesAndStoreEachIdInItsOwnGlobal) {
    struct Case {
        uint32_t type;
        const char *name;
        uint16_t nla_len;
        uint16_t id;
    } cases[] = {{ZEBUSR_GENL_FAMILY_ZEB, "DULOX_ZEB", 14, 0x1d},
                 {ZEBUSR_GENL_FAMILY_DULOX, "DULOX_CORE", 15, 0x1e}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        seq_num = 7;
        kernel.queue(controller_reply(7, c.name, c.id));
        ASSERT_EQ(zebusr_genl_init_sock(kernel.daemon_fd(), c.type), 0);
        auto sent = kernel.requests();
        ASSERT_EQ(sent.size(), 1u);
        const Bytes &r = sent[0];
        ASSERT_EQ(r.size(), 36u);
        EXPECT_EQ(zt::get_u32(r, 0), 36u);
        EXPECT_EQ(zt::get_u16(r, 4), 16);
        EXPECT_EQ(zt::get_u16(r, 6), 1);
        EXPECT_EQ(zt::get_u32(r, 8), 7u);
        EXPECT_EQ(zt::get_u32(r, 12), static_cast<uint32_t>(getpid()));
        EXPECT_EQ(r[16], 3);
        EXPECT_EQ(r[17], 1);
        EXPECT_EQ(zt::get_u16(r, 20), c.nla_len);
        EXPECT_EQ(zt::get_u16(r, 22), 2);
        EXPECT_EQ(std::string(reinterpret_cast<const char *>(&r[24])), c.name);
        EXPECT_EQ(seq_num, 8u);
    }
    EXPECT_EQ(zeb_family_id, 0x1d);
    EXPECT_EQ(dulox_family_id, 0x1e);
    // The steering line shows seq_num as the answer has just advanced it.
    EXPECT_TRUE(log.contains("ZEB Family id = 29 seq_num = 8"));
    EXPECT_TRUE(log.contains("DULOX Family id = 30"));
}

TEST_F(FamilyTest, WrongRepliesFailWithTheirMessagesAndKeepTheId) {
    Bytes error = controller_reply(1, "DULOX_ZEB", 0x1d);
    zt::put_u16(error, 4, 2);
    Bytes wrong_second = controller_reply(1, "DULOX_ZEB", 0x1d, 2);
    // A first attribute that claims to run past the buffer must not be followed.
    Bytes runaway = controller_reply(1, "DULOX_ZEB", 0x1d);
    zt::put_u16(runaway, 20, 0xfff0);
    Bytes edge = controller_reply(1, "DULOX_ZEB", 0x1d);
    zt::put_u16(edge, 20, 1044 - 20 - 4);  // id attribute header would end the buffer exactly

    struct Case {
        const char *name;
        Bytes reply;
        std::vector<std::string> tail;
    } cases[] = {
        {"NLMSG_ERROR",
         error,
         {"netlink received msg error for family resp", "netlink failed to send to fd"}},
        {"second attribute not the id",
         wrong_second,
         {"unable to set family id, response is not correct type",
          "netlink failed to get family id from response"}},
        {"first attribute past the buffer",
         runaway,
         {"unable to set family id, response is not correct type",
          "netlink failed to get family id from response"}},
        {"id payload past the buffer",
         edge,
         {"unable to set family id, response is not correct type",
          "netlink failed to get family id from response"}},
        {"no reply", {}, {"recv error - len_recv < 0", "netlink failed to send to fd"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        zeb_family_id = 0x55;
        seq_num = 0;
        log.clear();
        if (!c.reply.empty())
            kernel.queue(c.reply);
        EXPECT_EQ(zebusr_genl_init_sock(kernel.daemon_fd(), ZEBUSR_GENL_FAMILY_ZEB), -1);
        EXPECT_EQ(zeb_family_id, 0x55);
        auto msgs = log.messages();
        ASSERT_GE(msgs.size(), c.tail.size());
        EXPECT_EQ(std::vector<std::string>(msgs.end() - c.tail.size(), msgs.end()), c.tail);
    }
}

TEST_F(FamilyTest, UnknownFamilyTypeFailsAfterTheAttributeTypeIsWritten) {
    zebusr_nl_msg msg;
    memset(&msg, 0, sizeof(msg));
    zebusr_create_genl_msg(&msg, ZEBUSR_GENL_ID_CTRL, ZEBUSR_CTRL_CMD_GETFAMILY);
    EXPECT_EQ(zebusr_genl_set_family_attr(&msg, 2), -1);
    EXPECT_EQ(msg.buf[2], 2);  // nla_type at offset 22
    EXPECT_EQ(msg.n.nlmsg_len, 20u);
    EXPECT_EQ(log.messages("ERR"),
              std::vector<std::string>{"invalid param: invalid family type 2"});

    log.clear();
    zebusr_create_genl_msg(&msg, 0x1d, ZEBUSR_CTRL_CMD_GETFAMILY);
    EXPECT_EQ(zebusr_genl_set_family_attr(&msg, 0), -1);
    EXPECT_EQ(zebusr_genl_get_family_id_from_resp(nullptr, 0), -1);
    Bytes good = controller_reply(1, "DULOX_ZEB", 9);
    good.resize(sizeof(zebusr_nl_msg));
    EXPECT_EQ(
        zebusr_genl_get_family_id_from_resp(reinterpret_cast<zebusr_nl_msg *>(good.data()), 2), -1);
    EXPECT_EQ(log.messages("ERR"),
              (std::vector<std::string>{"invalid param: input msg has wrong type",
                                        "invalid param: msg ptr is null",
                                        "invalid param: family type: 2"}));
}

// The kernel's own controller knows neither family and answers NLMSG_ERROR.
TEST(FamilyRealKernel, UnregisteredFamiliesAreRefusedByTheController) {
    zt::LogCapture log{true};
    for (uint32_t type : {ZEBUSR_GENL_FAMILY_ZEB, ZEBUSR_GENL_FAMILY_DULOX}) {
        int fd = zebusr_genl_open_sock(ZEBUSR_NETLINK_GENERIC, 0);
        ASSERT_GE(fd, 0);
        log.clear();
        EXPECT_EQ(zebusr_genl_init_sock(fd, type), -1);
        EXPECT_EQ(log.messages(),
                  (std::vector<std::string>{"netlink received msg error for family resp",
                                            "netlink failed to send to fd"}));
        close(fd);
    }
}

}  // namespace
