// The steering module's three shared-memory tables: their layouts and the
// files behind them. Every table is read in place, field by field, from a
// one-page MAP_SHARED mapping that the kernel rewrites at any time.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#define ZEBUSR_CAP_PATH "/proc/zeb/dulox_zeb_caps"
#define ZEBUSR_GFLOW_PATH "/proc/zeb/dulox_zeb_flows"
#define ZEBUSR_SSFLOW_PATH "/proc/zeb/dulox_zeb_ss_flows"

constexpr int ZEBUSR_NUM_CPUS = 8;
constexpr int ZEBUSR_MAX_FLOWS = 128;

//  zebusr_cap_info (26 bytes, packed); the table is 8 of them back to back
//  from offset 0, entry i at 26 * i, 208 bytes in all, no header.
//   0              8                  16    24    26
//  +--------------+------------------+-----+-----+
//  | pps_capacity | avg_pps_capacity | bps | cpu |
//  +--------------+------------------+-----+-----+
struct __attribute__((packed)) zebusr_cap_info {
    uint64_t pps_capacity;
    uint64_t avg_pps_capacity;
    uint64_t bps;
    uint16_t cpu;
};
static_assert(sizeof(zebusr_cap_info) == 26);
static_assert(offsetof(zebusr_cap_info, pps_capacity) == 0);
static_assert(offsetof(zebusr_cap_info, avg_pps_capacity) == 8);
static_assert(offsetof(zebusr_cap_info, bps) == 16);
static_assert(offsetof(zebusr_cap_info, cpu) == 24);
static_assert(sizeof(zebusr_cap_info) * ZEBUSR_NUM_CPUS == 208);

//  zebusr_gflow_info (30 bytes, packed), also the slow-start flow record
//   0        8         16       24     28    30
//  +--------+---------+--------+------+-----+
//  | rx_pps | avg_pps | rx_bps | hash | cpu |
//  +--------+---------+--------+------+-----+
struct __attribute__((packed)) zebusr_gflow_info {
    uint64_t rx_pps;
    uint64_t avg_pps;
    uint64_t rx_bps;
    uint32_t hash;
    uint16_t cpu;
};
static_assert(sizeof(zebusr_gflow_info) == 30);
static_assert(offsetof(zebusr_gflow_info, rx_pps) == 0);
static_assert(offsetof(zebusr_gflow_info, avg_pps) == 8);
static_assert(offsetof(zebusr_gflow_info, rx_bps) == 16);
static_assert(offsetof(zebusr_gflow_info, hash) == 24);
static_assert(offsetof(zebusr_gflow_info, cpu) == 28);

using zebusr_ssflow_info = zebusr_gflow_info;

//  flow table (gold flows and slow-start flows alike)
//   0          2                              3842
//  +----------+------------------------------+
//  | list_len | list[128] x 30, entry i at 2 + 30 * i
//  +----------+------------------------------+
//  list_len may claim more than 128; no entry past 127 is ever read.
struct __attribute__((packed)) zebusr_flow_table {
    uint16_t list_len;
    zebusr_gflow_info list[ZEBUSR_MAX_FLOWS];
};
static_assert(sizeof(zebusr_flow_table) == 3842);
static_assert(offsetof(zebusr_flow_table, list_len) == 0);
static_assert(offsetof(zebusr_flow_table, list) == 2);

// The mapping length of every table; a table must fit in one page.
extern uint64_t page_size;

// Written by the evaluation thread, closed by the exit handler on another.
extern std::atomic<int> cap_fd;
extern std::atomic<int> gflow_fd;
extern std::atomic<int> ssflow_fd;

// Set by each reader to its cycle's mapping; left dangling after unmapping
// until the next cycle maps again.
extern zebusr_cap_info *cap_list;
extern zebusr_flow_table *gflow_list;
extern zebusr_flow_table *ssflow_list;

int zebusr_init_cap_file(void);
int zebusr_init_gflow_file(void);
int zebusr_init_ssflow_file(void);
int zebusr_deinit_cap_file(void);
int zebusr_deinit_gflow_file(void);
int zebusr_deinit_ssflow_file(void);
int zebusr_munmap_caps(void);
int zebusr_munmap_gflows(void);
int zebusr_munmap_ssflows(void);
int zebusr_munmap_all(void);

// The one mapping every reader makes: a page, read-write, shared, offset 0.
// Returns MAP_FAILED on failure.
void *zebusr_table_mmap(int fd);
