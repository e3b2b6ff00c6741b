// Records and attributes of the steering module's family "DULOX_ZEB".
#pragma once

#include <cstddef>
#include <cstdint>

#include "netlink/nl_msg.h"

enum : uint8_t {
    ZEBUSR_GENL_CMD_SUGG = 2,
    ZEBUSR_GENL_CMD_SEG = 3,
    ZEBUSR_GENL_CMD_SYNC = 4,
};

enum : uint16_t {
    ZEBUSR_GENL_ATTR_SUGG = 3,
    ZEBUSR_GENL_ATTR_SEG = 4,
};

enum zebusr_sugg_type : uint32_t {
    ZEB_SUGG_UP = 1,
    ZEB_SUGG_DOWN = 2,
    ZEB_SUGG_BAL = 3,
};

//  zebusr_sugg_info (12 bytes, at message offset 24)
//   0      4          8         10         12
//  +------+----------+---------+----------+
//  | hash | sugg_type| cur_cpu | dest_cpu |
//  +------+----------+---------+----------+
struct zebusr_sugg_info {
    uint32_t hash;
    uint32_t sugg_type;
    uint16_t cur_cpu;
    uint16_t dest_cpu;
};
static_assert(sizeof(zebusr_sugg_info) == 12);
static_assert(offsetof(zebusr_sugg_info, hash) == 0);
static_assert(offsetof(zebusr_sugg_info, sugg_type) == 4);
static_assert(offsetof(zebusr_sugg_info, cur_cpu) == 8);
static_assert(offsetof(zebusr_sugg_info, dest_cpu) == 10);

//  zebusr_seg_info (8 bytes, at message offset 24)
//   0      4            8
//  +------+------------+
//  | hash | seg_enable |
//  +------+------------+
struct zebusr_seg_info {
    uint32_t hash;
    uint32_t seg_enable;
};
static_assert(sizeof(zebusr_seg_info) == 8);
static_assert(offsetof(zebusr_seg_info, hash) == 0);
static_assert(offsetof(zebusr_seg_info, seg_enable) == 4);

int zebusr_genl_set_sugg_attr(zebusr_nl_msg *msg, const zebusr_sugg_info *info);
int zebusr_genl_set_seg_attr(zebusr_nl_msg *msg, const zebusr_seg_info *info);
