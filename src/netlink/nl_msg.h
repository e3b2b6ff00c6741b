// Generic netlink framing: the one message buffer, the socket, send and
// receive, and the shared sequence counter.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

//  zebusr_nl_msg (1044 bytes, host byte order)
//   0        4        6        8        12       16  17  18     20            1044
//  +--------+--------+--------+--------+--------+---+---+------+-------------+
//  |nlmsg_  |nlmsg_  |nlmsg_  |nlmsg_  |nlmsg_  |cmd|ver|resvd | attribute   |
//  | len    | type   | flags  | seq    | pid    |   |   |      | area (1024) |
//  +--------+--------+--------+--------+--------+---+---+------+-------------+
//  attribute at 20: nla_len u16 (4 + payload) | nla_type u16 | payload at 24
struct zebusr_nlmsghdr {
    uint32_t nlmsg_len;
    uint16_t nlmsg_type;
    uint16_t nlmsg_flags;
    uint32_t nlmsg_seq;
    uint32_t nlmsg_pid;
};
static_assert(sizeof(zebusr_nlmsghdr) == 16);
static_assert(offsetof(zebusr_nlmsghdr, nlmsg_len) == 0);
static_assert(offsetof(zebusr_nlmsghdr, nlmsg_type) == 4);
static_assert(offsetof(zebusr_nlmsghdr, nlmsg_flags) == 6);
static_assert(offsetof(zebusr_nlmsghdr, nlmsg_seq) == 8);
static_assert(offsetof(zebusr_nlmsghdr, nlmsg_pid) == 12);

struct zebusr_genlmsghdr {
    uint8_t cmd;
    uint8_t version;
    uint16_t reserved;
};
static_assert(sizeof(zebusr_genlmsghdr) == 4);
static_assert(offsetof(zebusr_genlmsghdr, cmd) == 0);
static_assert(offsetof(zebusr_genlmsghdr, version) == 1);
static_assert(offsetof(zebusr_genlmsghdr, reserved) == 2);

struct zebusr_nlattr {
    uint16_t nla_len;
    uint16_t nla_type;
};
static_assert(sizeof(zebusr_nlattr) == 4);
static_assert(offsetof(zebusr_nlattr, nla_len) == 0);
static_assert(offsetof(zebusr_nlattr, nla_type) == 2);

constexpr size_t ZEBUSR_NL_ATTR_AREA = 1024;

struct zebusr_nl_msg {
    zebusr_nlmsghdr n;
    zebusr_genlmsghdr g;
    uint8_t buf[ZEBUSR_NL_ATTR_AREA];
};
static_assert(sizeof(zebusr_nl_msg) == 1044);
static_assert(offsetof(zebusr_nl_msg, n) == 0);
static_assert(offsetof(zebusr_nl_msg, g) == 16);
static_assert(offsetof(zebusr_nl_msg, buf) == 20);

constexpr size_t ZEBUSR_NL_MSG_SIZE = sizeof(zebusr_nl_msg);
constexpr uint32_t ZEBUSR_NL_HDR_LEN = 16;
constexpr uint32_t ZEBUSR_GENL_HDR_LEN = 20;  // netlink + generic header
constexpr size_t ZEBUSR_NLA_OFFSET = offsetof(zebusr_nl_msg, buf);
constexpr size_t ZEBUSR_NLA_PAYLOAD_OFFSET = ZEBUSR_NLA_OFFSET + sizeof(zebusr_nlattr);

constexpr int ZEBUSR_NETLINK_GENERIC = 16;
constexpr uint16_t ZEBUSR_NLM_F_REQUEST = 1;
constexpr uint16_t ZEBUSR_NLMSG_ERROR = 2;
constexpr uint8_t ZEBUSR_GENL_VERSION = 1;
constexpr int ZEBUSR_RECV_TIMEOUT_SEC = 3;

constexpr uint32_t zebusr_nla_align(uint32_t len) {
    return (len + 3U) & ~3U;
}

// One more than the sequence number of the last message received.
extern std::atomic<uint32_t> seq_num;

int zebusr_genl_open_sock(int protocol, uint32_t groups);
int zebusr_create_genl_msg(zebusr_nl_msg *msg, uint16_t family_id, uint8_t cmd);
int zebusr_netlink_msg_send(int fd, const zebusr_nl_msg *msg, uint32_t len);
int zebusr_netlink_msg_recv(int fd, zebusr_nl_msg *msg);
// The receive for a reply that is read up to byte `need`: a message shorter
// than that is a wrong reply like any other, not zeros to be read.
int zebusr_netlink_msg_recv_len(int fd, zebusr_nl_msg *msg, uint32_t need);
int zebusr_genl_recv_int_from_kernel(void);

// Writes the message's single attribute at offset 20 and grows nlmsg_len.
// Callers have already validated the message; `len` is the payload length.
void zebusr_nl_msg_put_attr(zebusr_nl_msg *msg, uint16_t type, const void *payload, uint16_t len);

// The record setters of both families: refuse a null argument or a message
// built for another family, then put the record as the one attribute. Lines
// carry the setter's name, `func`.
int zebusr_nl_msg_set_record(zebusr_nl_msg *msg, const void *record, uint16_t family_id,
                             uint16_t type, uint16_t len, const char *func);
