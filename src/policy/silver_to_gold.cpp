#include "core/log.h"
#include "netlink/zeb_family.h"
#include "policy/policy.h"
#include "steering/tables.h"

// The helpers below write their lines under the name of the function they serve.
static const char ZEBUSR_UP_FN[] = "zebusr_move_loaded_silver_cpu_to_gold";

// The loaded silver entry nearest the end of the table: its index, or -1.
static int zebusr_caps_find_loaded_silver(uint16_t *silver) {
    for (int i = ZEBUSR_NUM_CPUS - 1; i >= 0; i--) {
        uint16_t cpu = cap_list[i].cpu;
        if (is_silver_cpu(cpu) && cap_list[i].pps_capacity < ZEBUSR_LOADED_SILVER_PPS) {
            *silver = cpu;
            return i;
        }
    }
    return -1;
}

// Gold CPUs are offered in table order, loaded or not: their capacity is
// the kernel's business.
static int zebusr_caps_offer_to_gold(uint16_t silver) {
    for (int j = 0; j < ZEBUSR_NUM_CPUS; j++) {
        uint16_t gold = cap_list[j].cpu;
        if (is_silver_cpu(gold))
            continue;
        ZLOG_AS(HIGH, ZEBUSR_UP_FN,
                "  ZEB_SUGG_UP: Sending msg to kernel to request that all flows on cpu %d be moved "
                "to gold cpu %d",
                silver, gold);
        if (zebusr_try_to_move_flow(silver, gold, 0, ZEB_SUGG_UP) == 0) {
            ZLOG_AS(HIGH, ZEBUSR_UP_FN, "  ZEB_SUGG_UP: Move successful");
            return 0;
        }
    }
    return -1;
}

int zebusr_move_loaded_silver_cpu_to_gold(void) {
    ZLOG(LOW, "################## SILVER TO GOLD ##################");
    if (!cap_list) {
        ZLOG(ERR, "cap_list is NULL\n");
        return -1;
    }

    uint16_t silver = 0;
    int index = zebusr_caps_find_loaded_silver(&silver);
    if (index < 0)
        return -1;
    // Only this one silver CPU is tried, even if every gold CPU refuses it.
    ZLOG(MED, "  Move all flows on cpu %d at index %d\n", silver, index);
    return zebusr_caps_offer_to_gold(silver);
}
