#include "core/log.h"
#include "netlink/genl_family.h"
#include "netlink/nl_msg.h"
#include "netlink/zeb_family.h"
#include "segmentation/segmentation.h"

int zebusr_set_flow_segmentation(uint32_t hash, uint32_t seg_enable) {
    zebusr_nl_msg msg = {};
    zebusr_seg_info info = {hash, seg_enable};

    ZLOG(LOW, "Sending flow segmentation req to kernel");
    if (zebusr_create_genl_msg(&msg, zeb_family_id, ZEBUSR_GENL_CMD_SEG) != 0) {
        ZLOG(ERR, "failed to create netlink message");
        return -1;
    }
    if (zebusr_genl_set_seg_attr(&msg, &info) != 0) {
        ZLOG(ERR, "failed to set segmentation attribute");
        return -1;
    }
    if (zebusr_netlink_msg_send(sk_fd.load(std::memory_order_relaxed), &msg, msg.n.nlmsg_len) !=
        0) {
        ZLOG(ERR, "netlink failed to send to fd");
        return -1;
    }
    ZLOG(MED, "Sent segmentation setting req with seq_num %d",
         static_cast<int>(seq_num.load(std::memory_order_relaxed)));
    return zebusr_genl_recv_int_from_kernel();
}
