// Per-flow rate history of the slow-start flows: a small chained hash table
// keyed by the kernel's flow hash, nodes from the heap, owned by the
// evaluation thread for the life of the process.
#pragma once

#include <cstddef>
#include <cstdint>

#include "steering/tables.h"

constexpr int ZEBUSR_HT_NUM_BUCKETS = 8;
constexpr uint32_t ZEBUSR_HT_BUCKET_MASK = ZEBUSR_HT_NUM_BUCKETS - 1;
constexpr uint8_t ZEBUSR_HT_HISTORY_LEN = 10;

//  zebusr_ht_node (152 bytes, natural alignment)
//   0        30  31  32                 112  120   128   136  144     152
//  +--------+---+---+------------------+----+-----+-----+----+-------+
//  | entry  |seg|stb| rx_bps_history   |len | sum | avg |idx | next  |
//  | (30 B) |   |   | 10 x u64 (ring)  |    |     |     |    |       |
//  +--------+---+---+------------------+----+-----+-----+----+-------+
struct zebusr_ht_node {
    zebusr_ssflow_info entry;
    uint8_t is_segmentation_enabled;
    uint8_t is_stable;
    uint64_t rx_bps_history[ZEBUSR_HT_HISTORY_LEN];
    uint8_t len;
    uint64_t sum;
    uint64_t avg;
    uint8_t idx;  // 10 is folded back to 0 by the next update
    zebusr_ht_node *next;
};
static_assert(sizeof(zebusr_ht_node) == 152);
static_assert(offsetof(zebusr_ht_node, entry) == 0);
static_assert(offsetof(zebusr_ht_node, is_segmentation_enabled) == 30);
static_assert(offsetof(zebusr_ht_node, is_stable) == 31);
static_assert(offsetof(zebusr_ht_node, rx_bps_history) == 32);
static_assert(offsetof(zebusr_ht_node, len) == 112);
static_assert(offsetof(zebusr_ht_node, sum) == 120);
static_assert(offsetof(zebusr_ht_node, avg) == 128);
static_assert(offsetof(zebusr_ht_node, idx) == 136);
static_assert(offsetof(zebusr_ht_node, next) == 144);

// Heads of the chains; empty at start and never emptied as a whole.
extern zebusr_ht_node *zebusr_ht_buckets[ZEBUSR_HT_NUM_BUCKETS];

int zebusr_ht_func(uint32_t hash);
zebusr_ht_node *zebusr_ht_find_node(uint32_t hash);
zebusr_ht_node *zebusr_ht_create_node(uint32_t hash);
void zebusr_update_ht_node(zebusr_ht_node *node, const zebusr_ssflow_info *entry);
void zebusr_ht_remove_node(uint32_t hash);
void zebusr_ht_debug_print(void);

// Test-only: frees every node still reachable from a bucket and empties the
// table. Nodes orphaned by a head removal are not reachable and stay with
// whoever kept a pointer to them.
void zebusr_ht_reset_for_test(void);
