#include "netlink/core_family.h"

#include <cstring>

#include "core/log.h"
#include "netlink/genl_family.h"

static_assert(ZEBUSR_NLA_PAYLOAD_OFFSET + sizeof(duloxusr_pid_bps_info) <= ZEBUSR_NL_MSG_SIZE);

int duloxusr_genl_set_pid_bytes_attr(zebusr_nl_msg *msg, const duloxusr_pid_bps_info *info) {
    return zebusr_nl_msg_set_record(msg, info, dulox_family_id, DULOXUSR_GENL_ATTR_PID_BYTES,
                                    sizeof(*info), __func__);
}

int duloxusr_genl_set_pid_boost_attr(zebusr_nl_msg *msg, const duloxusr_pid_boost_info *info) {
    return zebusr_nl_msg_set_record(msg, info, dulox_family_id, DULOXUSR_GENL_ATTR_PID_BOOST,
                                    sizeof(*info), __func__);
}

int zebusr_genl_recv_pid_byte_info_from_kernel(duloxusr_pid_bps_info *info) {
    zebusr_nl_msg reply;

    ZLOG(LOW, "  Waiting for kernel to send a msg");
    if (zebusr_netlink_msg_recv_len(duloxusr_genl_sk_fd, &reply,
                                    ZEBUSR_NLA_PAYLOAD_OFFSET + sizeof(*info)) < 0) {
        ZLOG(ERR, "netlink failed to send to fd");
        return -1;
    }
    memcpy(info, reinterpret_cast<const uint8_t *>(&reply) + ZEBUSR_NLA_PAYLOAD_OFFSET,
           sizeof(*info));
    return 0;
}
