// Builds, fills and sends one core family request. Both requests fail with
// the same words (the attribute failure borrows the steering sync's); the
// lines carry the caller's name.
#pragma once

#include "core/log.h"
#include "netlink/genl_family.h"
#include "netlink/nl_msg.h"

template <typename Record>
int duloxusr_request_send(uint8_t cmd, const Record *rec,
                          int (*set_attr)(zebusr_nl_msg *, const Record *), const char *func,
                          unsigned line) {
    // Cleared so the reserved field and the rounding bytes never carry stack leftovers.
    zebusr_nl_msg msg = {};
    if (zebusr_create_genl_msg(&msg, dulox_family_id, cmd) != 0) {
        ZLOG_AT(ERR, func, line, "failed to create netlink message");
        return -1;
    }
    if (set_attr(&msg, rec) != 0) {
        ZLOG_AT(ERR, func, line, "failed to set suggestion attribute for syncing");
        return -1;
    }
    if (zebusr_netlink_msg_send(duloxusr_genl_sk_fd, &msg, msg.n.nlmsg_len) != 0) {
        ZLOG_AT(ERR, func, line, "netlink failed to send to fd");
        return -1;
    }
    return 0;
}

#define DULOXUSR_REQUEST_SEND(cmd, rec, set_attr) \
    duloxusr_request_send(cmd, rec, set_attr, __func__, __LINE__)
