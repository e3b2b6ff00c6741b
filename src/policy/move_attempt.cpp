#include "core/log.h"
#include "netlink/genl_family.h"
#include "netlink/nl_msg.h"
#include "netlink/zeb_family.h"
#include "policy/policy.h"

int is_silver_cpu(uint16_t cpu) {
    return cpu < ZEBUSR_FIRST_GOLD_CPU ? 1 : 0;
}

int zebusr_try_to_move_flow(uint16_t cur_cpu, uint16_t dest_cpu, uint32_t hash,
                            uint32_t sugg_type) {
    zebusr_nl_msg msg = {};
    zebusr_sugg_info info = {hash, sugg_type, cur_cpu, dest_cpu};

    ZLOG(LOW, "Sending sugg info to kernel");
    if (zebusr_create_genl_msg(&msg, zeb_family_id, ZEBUSR_GENL_CMD_SUGG) != 0) {
        ZLOG(ERR, "failed to create netlink message");
        return -1;
    }
    if (zebusr_genl_set_sugg_attr(&msg, &info) != 0) {
        ZLOG(ERR, "failed to set suggestion attribute");
        return -1;
    }
    if (zebusr_netlink_msg_send(sk_fd.load(std::memory_order_relaxed), &msg, msg.n.nlmsg_len) !=
        0) {
        ZLOG(ERR, "netlink failed to send to fd");
        return -1;
    }
    ZLOG(MED, "Sent suggestion msg with seq_num %d",
         static_cast<int>(seq_num.load(std::memory_order_relaxed)));
    // The kernel's -1 and a lost reply look the same to every caller.
    return zebusr_genl_recv_int_from_kernel();
}
