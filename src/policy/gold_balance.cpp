#include "core/log.h"
#include "netlink/zeb_family.h"
#include "policy/policy.h"
#include "steering/table_walk.h"
#include "steering/tables.h"

// The helpers below write their lines under the name of the function they serve.
static const char ZEBUSR_BALANCE_FN[] = "zebusr_balance_gold_flows";

// The balance decides on the low 32 bits of each rate read as signed, with
// wrapping arithmetic, as it always has: huge or tiny capacities are judged
// on those bits. The sums are made unsigned and only then read as signed.
static int32_t zebusr_balance_low32(uint64_t v) {
    return static_cast<int32_t>(static_cast<uint32_t>(v));
}

static bool zebusr_balance_dest_worthwhile(uint64_t dest_cap, uint64_t src_cap, uint64_t flow_avg) {
    uint32_t room = static_cast<uint32_t>(dest_cap) - static_cast<uint32_t>(ZEBUSR_HEADROOM_PPS);
    int32_t src_cpu_avg_pps = zebusr_balance_low32(src_cap);
    int32_t gflow_avg_pps = zebusr_balance_low32(flow_avg);

    if (static_cast<int32_t>(room) <= gflow_avg_pps) {
        ZLOG_AS(MED, ZEBUSR_BALANCE_FN,
                "other cpu cannot fit the additional gold flow, not moving");
        return false;
    }
    int32_t left = static_cast<int32_t>(room - static_cast<uint32_t>(flow_avg));
    if (left >= src_cpu_avg_pps)
        return true;
    ZLOG_AS(
        MED, ZEBUSR_BALANCE_FN,
        "other cpu is about equally loaded, not movingdest_cpu_avg_pps-headroom-gflow_avg_pps = "
        "%d src_cpu_avg_pps = %d",
        left, src_cpu_avg_pps);
    return false;
}

// One flow of `src`, offered to the other gold CPUs in table order.
static int zebusr_gflow_offer_to_gold(const zebusr_gflow_info *flow, uint16_t src,
                                      uint64_t src_cap) {
    for (int j = 0; j < ZEBUSR_NUM_CPUS; j++) {
        uint16_t dest = cap_list[j].cpu;
        uint64_t cap = cap_list[j].avg_pps_capacity;
        if (is_silver_cpu(dest) || dest == src)
            continue;

        uint32_t hash = flow->hash;
        uint64_t rx_pps = flow->rx_pps;
        uint64_t avg_pps = flow->avg_pps;
        uint64_t cap_w_head = cap - ZEBUSR_HEADROOM_PPS;
        ZLOG_AS(
            MED, ZEBUSR_BALANCE_FN,
            "  ZEB_SUGG_CHECK_BAL: Checking gold flow balance gold flow 0x%x with pps %lu avg pps "
            "%lu on cpu[%d] can balance to gold cpu[%d] with avg capacity %lu cap_w_head %lu",
            hash, rx_pps, avg_pps, src, dest, cap, cap_w_head);
        if (!zebusr_balance_dest_worthwhile(cap, src_cap, avg_pps))
            continue;

        ZLOG_AS(
            HIGH, ZEBUSR_BALANCE_FN,
            "  ZEB_SUGG_BAL: > Sending msg to kernel to request that gold flow 0x%x with pps %lu "
            "avg pps %lu on cpu[%d] can balance to gold cpu[%d] with avg capacity %lu cap_w_head "
            "%lu",
            hash, rx_pps, avg_pps, src, dest, cap, cap_w_head);
        if (zebusr_try_to_move_flow(src, dest, hash, ZEB_SUGG_BAL) == 0) {
            ZLOG_AS(HIGH, ZEBUSR_BALANCE_FN, "  ZEB_SUGG_BAL: Move successful");
            return 0;
        }
    }
    return -1;
}

int zebusr_balance_gold_flows(void) {
    zebusr_cap_info by_cpu[ZEBUSR_NUM_CPUS] = {};
    uint8_t seen[ZEBUSR_NUM_CPUS] = {};

    ZLOG(LOW, "################## GOLD BALANCE #################");
    if (ZEBUSR_GOLD_MAPS_MISSING())
        return -1;

    uint16_t n = gflow_list->list_len;
    // One bad entry disables balancing for the cycle, before any flow is read.
    if (ZEBUSR_CAPS_FILL_BY_CPU(by_cpu) != 0)
        return -1;
    ZLOG(LOW, "  num gold flows = %u", static_cast<unsigned>(n));

    for (int i = 0; !ZEBUSR_GFLOW_WALK_ENDS(i, n); i++) {
        const zebusr_gflow_info *flow = &gflow_list->list[i];
        uint16_t src = flow->cpu;
        if (src >= ZEBUSR_NUM_CPUS) {
            ZLOG(ERR, "Error: CPU Num is out of range!");
            return -1;
        }
        // Each CPU keeps its first listed flow, whatever that flow's rates.
        if (!seen[src]) {
            seen[src] = 1;
            continue;
        }
        if (flow->avg_pps == 0)
            continue;
        if (zebusr_gflow_offer_to_gold(flow, src, by_cpu[src].avg_pps_capacity) == 0)
            return 0;
    }
    return -1;
}
