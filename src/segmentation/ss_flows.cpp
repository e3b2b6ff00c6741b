#include <errno.h>
#include <sys/mman.h>

#include <cstdlib>
#include <cstring>

#include "core/log.h"
#include "segmentation/flow_history.h"
#include "segmentation/segmentation.h"
#include "steering/tables.h"

// The helpers below write their lines under the name of the function they serve.
static const char ZEBUSR_SS_FN[] = "zebusr_read_ss_flows";

// Compared with the raw published rx_bps, no unit conversion.
constexpr uint64_t ZEBUSR_FAST_FLOW_BPS = 300000000;
// Segmentation is only ever turned off; the kernel never gets a 1 from us.
constexpr uint32_t ZEBUSR_SEG_DISABLE = 0;

static void zebusr_ss_flows_map(void) {
    void *map = zebusr_table_mmap(ssflow_fd);
    if (map == MAP_FAILED) {
        ZLOG_AS(ERR, ZEBUSR_SS_FN, "mmap: %s", strerror(errno));
        zebusr_deinit_ssflow_file();
        exit(0);
    }
    ssflow_list = static_cast<zebusr_flow_table *>(map);
}

// Judged only on a full history, against the average before this sample:
// inclusive band of a quarter (rounded down) on both sides.
static void zebusr_ss_flow_judge(zebusr_ht_node *node, uint64_t prev_avg) {
    if (node->len != ZEBUSR_HT_HISTORY_LEN)
        return;
    uint64_t band = prev_avg >> 2;
    uint64_t rx_bps = node->entry.rx_bps;
    uint32_t hash = node->entry.hash;
    if (prev_avg - band <= rx_bps && rx_bps <= prev_avg + band) {
        node->is_stable = 1;
        ZLOG_AS(LOW, ZEBUSR_SS_FN, "Flow w/ hash 0x%x is stable", hash);
    } else {
        node->is_stable = 0;
        ZLOG_AS(LOW, ZEBUSR_SS_FN, "Flow w/ hash 0x%x is NOT stable", hash);
    }
}

// Only an accepted request clears the flag; a refused one is sent again next
// cycle. Turning segmentation back on is announced and never asked for.
static void zebusr_ss_flow_segment(zebusr_ht_node *node, uint32_t hash) {
    bool fast = node->entry.rx_bps >= ZEBUSR_FAST_FLOW_BPS;
    if (node->is_segmentation_enabled == 1) {
        if (!fast && node->is_stable != 1)
            return;
        ZLOG_AS(LOW, ZEBUSR_SS_FN, "Disabling segmentation for hash 0x%x", hash);
        int rc = zebusr_set_flow_segmentation(hash, ZEBUSR_SEG_DISABLE);
        node->is_segmentation_enabled = rc != 0 ? 1 : 0;
        return;
    }
    if (!fast && node->is_stable == 0)
        ZLOG_AS(LOW, ZEBUSR_SS_FN, "NOT DETECTING DIPS: Enabling segmentation for hash 0x%x", hash);
}

static void zebusr_ss_flow_process(const zebusr_ssflow_info *e) {
    uint32_t hash = e->hash;
    if (hash == 0) {
        // Despite the words the walk goes on with the next entry.
        ZLOG_AS(ERR, ZEBUSR_SS_FN, "Invalid hash, breaking");
        return;
    }
    ZLOG_AS(
        LOW, ZEBUSR_SS_FN,
        "  ZEB_SLOW: > ss flow 0x%x on cpu[%d] with rx_pps = %lu | avg pps = %lu | rx_bps = %lu",
        hash, e->cpu, e->rx_pps, e->avg_pps, e->rx_bps);

    zebusr_ht_node *node = zebusr_ht_find_node(hash);
    uint64_t rx_bps = e->rx_bps;
    if (!node && rx_bps > 0) {
        node = zebusr_ht_create_node(hash);
        if (node)
            zebusr_update_ht_node(node, e);
        else
            ZLOG_AS(ERR, ZEBUSR_SS_FN, "Could not create new node for hash 0x%x", hash);
        return;
    }
    if (rx_bps == 0) {
        zebusr_ht_remove_node(hash);
        return;
    }

    uint64_t prev_avg = node->avg;
    zebusr_update_ht_node(node, e);
    zebusr_ss_flow_judge(node, prev_avg);
    zebusr_ss_flow_segment(node, hash);
}

int zebusr_read_ss_flows(void) {
    zebusr_ss_flows_map();
    uint16_t n = ssflow_list->list_len;
    ZLOG(LOW, "################## SS FLOW FILE CONTENTS #################");
    ZLOG(LOW, "  num ss flows = %u", n);

    for (uint16_t i = 0; i < n; i++) {
        if (i >= ZEBUSR_MAX_FLOWS) {
            ZLOG(ERR, "Max user flows reached");
            break;
        }
        zebusr_ss_flow_process(&ssflow_list->list[i]);
    }
    zebusr_ht_debug_print();
    return 0;
}
