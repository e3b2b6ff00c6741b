#include "netlink/zeb_family.h"

#include "netlink/genl_family.h"

int zebusr_genl_set_sugg_attr(zebusr_nl_msg *msg, const zebusr_sugg_info *info) {
    return zebusr_nl_msg_set_record(msg, info, zeb_family_id, ZEBUSR_GENL_ATTR_SUGG, sizeof(*info),
                                    __func__);
}

int zebusr_genl_set_seg_attr(zebusr_nl_msg *msg, const zebusr_seg_info *info) {
    return zebusr_nl_msg_set_record(msg, info, zeb_family_id, ZEBUSR_GENL_ATTR_SEG, sizeof(*info),
                                    __func__);
}
