// Records and attributes of the core data driver's family "DULOX_CORE".
#pragma once

#include <cstddef>
#include <cstdint>

#include "netlink/nl_msg.h"

enum : uint8_t {
    DULOXUSR_GENL_CMD_PID_BPS = 1,
    DULOXUSR_GENL_CMD_PID_BOOST = 2,
};

enum : uint16_t {
    DULOXUSR_GENL_ATTR_PID_BYTES = 3,
    DULOXUSR_GENL_ATTR_PID_BOOST = 4,
};

constexpr uint16_t DULOXUSR_MAX_PIDS = 32;

//  duloxusr_pid_bps_entry (16 bytes)
//   0        8     12                   16
//  +--------+-----+--------------------+
//  | tx_bps | pid | boost_remaining_ms |
//  +--------+-----+--------------------+
struct duloxusr_pid_bps_entry {
    uint64_t tx_bps;
    uint32_t pid;
    uint32_t boost_remaining_ms;
};
static_assert(sizeof(duloxusr_pid_bps_entry) == 16);
static_assert(offsetof(duloxusr_pid_bps_entry, tx_bps) == 0);
static_assert(offsetof(duloxusr_pid_bps_entry, pid) == 8);
static_assert(offsetof(duloxusr_pid_bps_entry, boost_remaining_ms) == 12);

//  duloxusr_pid_bps_info (528 bytes)
//   0               512         520        522     523       528
//  +---------------+-----------+----------+-------+---------+
//  | list[32] x 16 | timestamp | list_len | valid | pad (5) |
//  +---------------+-----------+----------+-------+---------+
struct duloxusr_pid_bps_info {
    duloxusr_pid_bps_entry list[DULOXUSR_MAX_PIDS];
    uint64_t timestamp;
    uint16_t list_len;
    uint8_t valid;
    uint8_t pad[5];
};
static_assert(sizeof(duloxusr_pid_bps_info) == 528);
static_assert(offsetof(duloxusr_pid_bps_info, list) == 0);
static_assert(offsetof(duloxusr_pid_bps_info, timestamp) == 512);
static_assert(offsetof(duloxusr_pid_bps_info, list_len) == 520);
static_assert(offsetof(duloxusr_pid_bps_info, valid) == 522);
static_assert(offsetof(duloxusr_pid_bps_info, pad) == 523);

//  duloxusr_pid_boost_entry (12 bytes)
//   0          4              8     12
//  +----------+--------------+-----+
//  | boost_en | boost_period | pid |
//  +----------+--------------+-----+
struct duloxusr_pid_boost_entry {
    uint32_t boost_en;
    uint32_t boost_period;
    uint32_t pid;
};
static_assert(sizeof(duloxusr_pid_boost_entry) == 12);
static_assert(offsetof(duloxusr_pid_boost_entry, boost_en) == 0);
static_assert(offsetof(duloxusr_pid_boost_entry, boost_period) == 4);
static_assert(offsetof(duloxusr_pid_boost_entry, pid) == 8);

//  duloxusr_pid_boost_info (400 bytes)
//   0               384            392        394     395       400
//  +---------------+--------------+----------+-------+---------+
//  | list[32] x 12 | reserved (8) | list_len | valid | pad (5) |
//  +---------------+--------------+----------+-------+---------+
struct duloxusr_pid_boost_info {
    duloxusr_pid_boost_entry list[DULOXUSR_MAX_PIDS];
    uint8_t reserved[8];
    uint16_t list_len;
    uint8_t valid;
    uint8_t pad[5];
};
static_assert(sizeof(duloxusr_pid_boost_info) == 400);
static_assert(offsetof(duloxusr_pid_boost_info, list) == 0);
static_assert(offsetof(duloxusr_pid_boost_info, reserved) == 384);
static_assert(offsetof(duloxusr_pid_boost_info, list_len) == 392);
static_assert(offsetof(duloxusr_pid_boost_info, valid) == 394);
static_assert(offsetof(duloxusr_pid_boost_info, pad) == 395);

int duloxusr_genl_set_pid_bytes_attr(zebusr_nl_msg *msg, const duloxusr_pid_bps_info *info);
int duloxusr_genl_set_pid_boost_attr(zebusr_nl_msg *msg, const duloxusr_pid_boost_info *info);
int zebusr_genl_recv_pid_byte_info_from_kernel(duloxusr_pid_bps_info *info);
