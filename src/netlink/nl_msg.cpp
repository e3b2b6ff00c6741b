#include "netlink/nl_msg.h"

#include <errno.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstring>

#include "core/log.h"
#include "netlink/genl_family.h"

std::atomic<uint32_t> seq_num{0};

static_assert(sizeof(sockaddr_nl) == 12);

static sockaddr_nl zebusr_nl_addr(uint32_t groups) {
    sockaddr_nl addr;
    memset(&addr, 0, sizeof(addr));
    addr.nl_family = AF_NETLINK;
    addr.nl_pid = 0;  // the kernel
    addr.nl_groups = groups;
    return addr;
}

int zebusr_genl_open_sock(int protocol, uint32_t groups) {
    int fd = socket(AF_NETLINK, SOCK_RAW, protocol);
    if (fd < 0) {
        ZLOG(ERR, "nl_open_sock: socket failed:");
        return -1;
    }

    sockaddr_nl local = zebusr_nl_addr(groups);
    if (bind(fd, reinterpret_cast<sockaddr *>(&local), sizeof(local)) < 0) {
        ZLOG(ERR, "nl_open_sock: bind failed:");
        close(fd);
        return -1;
    }
    ZLOG(MED, "nl_open_sock: skfd = %d", fd);

    struct timeval timeout = {ZEBUSR_RECV_TIMEOUT_SEC, 0};
    if (setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)) < 0)
        ZLOG(MED, "nl_open_sock: failed to set socket option for recv timout");
    else
        ZLOG(MED, "nl_open_sock: recv socket option for timeout set to %d seconds",
             ZEBUSR_RECV_TIMEOUT_SEC);
    return fd;
}

int zebusr_create_genl_msg(zebusr_nl_msg *msg, uint16_t family_id, uint8_t cmd) {
    if (!msg) {
        ZLOG(ERR, "invalid param: msg ptr is null");
        return -1;
    }
    msg->n.nlmsg_len = ZEBUSR_GENL_HDR_LEN;
    msg->n.nlmsg_type = family_id;
    msg->n.nlmsg_flags = ZEBUSR_NLM_F_REQUEST;
    msg->n.nlmsg_seq = seq_num.load(std::memory_order_relaxed);
    msg->n.nlmsg_pid = static_cast<uint32_t>(getpid());
    msg->g.cmd = cmd;
    msg->g.version = ZEBUSR_GENL_VERSION;
    return 0;
}

void zebusr_nl_msg_put_attr(zebusr_nl_msg *msg, uint16_t type, const void *payload, uint16_t len) {
    zebusr_nlattr attr = {static_cast<uint16_t>(sizeof(zebusr_nlattr) + len), type};
    memcpy(msg->buf, &attr, sizeof(attr));
    memcpy(msg->buf + sizeof(attr), payload, len);
    msg->n.nlmsg_len += zebusr_nla_align(attr.nla_len);
}

int zebusr_nl_msg_set_record(zebusr_nl_msg *msg, const void *record, uint16_t family_id,
                             uint16_t type, uint16_t len, const char *func) {
    if (!msg || !record) {
        ZLOG_AS(ERR, func, "invalid params");
        return -1;
    }
    if (msg->n.nlmsg_type != family_id) {
        ZLOG_AS(ERR, func, "invalid param: input msg has wrong type");
        return -1;
    }
    zebusr_nl_msg_put_attr(msg, type, record, len);
    return 0;
}

int zebusr_netlink_msg_send(int fd, const zebusr_nl_msg *msg, uint32_t len) {
    sockaddr_nl dest = zebusr_nl_addr(0);
    const uint8_t *pos = reinterpret_cast<const uint8_t *>(msg);

    while (len > 0) {
        ssize_t sent = sendto(fd, pos, len, 0, reinterpret_cast<sockaddr *>(&dest), sizeof(dest));
        if (sent > 0) {
            pos += sent;
            len -= static_cast<uint32_t>(sent);
            continue;
        }
        if (errno == EAGAIN)
            continue;
        ZLOG(ERR, "error %d on sendto", errno);
        return -1;
    }
    return 0;
}

// A header is usable when it fits in what arrived and claims no more than that.
static bool zebusr_nl_hdr_valid(const zebusr_nl_msg *msg, size_t received) {
    return received >= ZEBUSR_NL_HDR_LEN && msg->n.nlmsg_len >= ZEBUSR_NL_HDR_LEN &&
           msg->n.nlmsg_len <= received;
}

static const char ZEBUSR_RECV_FN[] = "zebusr_netlink_msg_recv";

int zebusr_netlink_msg_recv_len(int fd, zebusr_nl_msg *msg, uint32_t need) {
    if (!msg) {
        ZLOG_AS(MED, ZEBUSR_RECV_FN, "invalid param: msg ptr is null");
        return -1;
    }
    // Nothing of an earlier message may show through a shorter one.
    memset(msg, 0, sizeof(*msg));

    ssize_t len_recv = recvfrom(fd, msg, sizeof(*msg), MSG_WAITALL, nullptr, nullptr);
    if (len_recv < 0) {
        ZLOG_AS(MED, ZEBUSR_RECV_FN, "recv error - len_recv < 0");
        return -1;
    }
    if (!zebusr_nl_hdr_valid(msg, static_cast<size_t>(len_recv))) {
        ZLOG_AS(MED, ZEBUSR_RECV_FN, "netlink invalid family reply message");
        return -1;
    }
    if (msg->n.nlmsg_type == ZEBUSR_NLMSG_ERROR) {
        ZLOG_AS(MED, ZEBUSR_RECV_FN, "netlink received msg error for family resp");
        return -1;
    }
    if (msg->n.nlmsg_len < need) {
        ZLOG_AS(MED, ZEBUSR_RECV_FN, "netlink invalid family reply message");
        return -1;
    }
    seq_num.store(msg->n.nlmsg_seq + 1, std::memory_order_relaxed);
    return 0;
}

int zebusr_netlink_msg_recv(int fd, zebusr_nl_msg *msg) {
    return zebusr_netlink_msg_recv_len(fd, msg, ZEBUSR_NL_HDR_LEN);
}

int zebusr_genl_recv_int_from_kernel(void) {
    zebusr_nl_msg reply;
    int32_t code;

    ZLOG(LOW, "  Waiting for kernel to send a msg");
    if (zebusr_netlink_msg_recv_len(sk_fd.load(std::memory_order_relaxed), &reply,
                                    ZEBUSR_NLA_PAYLOAD_OFFSET + sizeof(code)) < 0) {
        ZLOG(MED, "netlink failed to send to fd");
        return -1;
    }
    // The code is the first attribute's payload; its type and length are not checked.
    memcpy(&code, reinterpret_cast<const uint8_t *>(&reply) + ZEBUSR_NLA_PAYLOAD_OFFSET,
           sizeof(code));
    ZLOG(LOW, "  kernel seq_num %d return code: %d",
         static_cast<int>(seq_num.load(std::memory_order_relaxed)), code);
    return code;
}
