#include "core/log.h"
#include "netlink/zeb_family.h"
#include "policy/policy.h"
#include "steering/table_walk.h"
#include "steering/tables.h"

// The helpers below write their lines under the name of the function they serve.
static const char ZEBUSR_DOWN_FN[] = "zebusr_move_gold_flow_down_to_silver";

// One flow, offered to every silver CPU in table order that keeps its
// headroom after taking it; a refusal moves on to the next silver CPU.
static int zebusr_gflow_offer_to_silver(const zebusr_gflow_info *flow) {
    uint16_t cur = flow->cpu;
    for (int j = 0; j < ZEBUSR_NUM_CPUS; j++) {
        uint16_t dest = cap_list[j].cpu;
        uint64_t cap = cap_list[j].avg_pps_capacity;
        if (!is_silver_cpu(dest) || cap < ZEBUSR_HEADROOM_PPS)
            continue;

        uint32_t hash = flow->hash;
        uint64_t rx_pps = flow->rx_pps;
        uint64_t avg_pps = flow->avg_pps;
        uint64_t cap_w_head = cap - ZEBUSR_HEADROOM_PPS;
        ZLOG_AS(MED, ZEBUSR_DOWN_FN,
                "  ZEB_SUGG_DOWN_CHECK: > Checking that gold flow 0x%x with pps %lu avg pps %lu on "
                "cpu[%d] can move to silver cpu[%d] with avg capacity %lu cap_w_head %lu",
                hash, rx_pps, avg_pps, cur, dest, cap, cap_w_head);
        if (avg_pps >= cap_w_head)
            continue;

        ZLOG_AS(
            HIGH, ZEBUSR_DOWN_FN,
            "  ZEB_SUGG_DOWN: > Sending msg to kernel to request that gold flow 0x%x with pps %lu "
            "avg pps %lu on cpu[%d] can move to silver cpu[%d] with avg capacity %lu cap_w_head "
            "%lu",
            hash, rx_pps, avg_pps, cur, dest, cap, cap_w_head);
        if (zebusr_try_to_move_flow(cur, dest, hash, ZEB_SUGG_DOWN) == 0) {
            ZLOG_AS(HIGH, ZEBUSR_DOWN_FN, "  ZEB_SUGG_DOWN: Move successful");
            return 0;
        }
    }
    return -1;
}

bool zebusr_gold_maps_missing(const char *func, unsigned line) {
    if (!cap_list) {
        ZLOG_AT(ERR, func, line, "cap_list is NULL");
        return true;
    }
    if (!gflow_list) {
        ZLOG_AT(ERR, func, line, "gflow_list is NULL");
        return true;
    }
    return false;
}

int zebusr_move_gold_flow_down_to_silver(void) {
    ZLOG(LOW, "################## GOLD TO SILVER #################");
    if (ZEBUSR_GOLD_MAPS_MISSING())
        return -1;

    uint16_t n = gflow_list->list_len;
    ZLOG(MED, "  num gold flows = %u", static_cast<unsigned>(n));
    // The walk ends at the list's end, at the 128th entry or at a zero hash.
    for (int i = 0; !ZEBUSR_GFLOW_WALK_ENDS(i, n); i++) {
        const zebusr_gflow_info *flow = &gflow_list->list[i];
        if (flow->avg_pps == 0)
            continue;
        if (zebusr_gflow_offer_to_silver(flow) == 0)
            return 0;
    }
    return -1;
}
