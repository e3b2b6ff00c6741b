#include <errno.h>
#include <sys/mman.h>

#include <cstdlib>
#include <cstring>

#include "core/log.h"
#include "policy/policy.h"
#include "steering/readers.h"
#include "steering/table_walk.h"
#include "steering/tables.h"

// The helpers below write their lines under the name of the function they serve.
static const char ZEBUSR_GFLOWS_FN[] = "zebusr_read_gold_flows";

bool zebusr_gflow_walk_ends(int i, uint16_t n, const char *func, unsigned line) {
    if (i >= n)
        return true;
    if (i >= ZEBUSR_MAX_FLOWS) {
        ZLOG_AT(ERR, func, line, "Max user flows reached");
        return true;
    }
    // A zero hash ends the list, whatever its length says.
    if (gflow_list->list[i].hash == 0) {
        ZLOG_AT(ERR, func, line, "Invalid hash, breaking");
        return true;
    }
    return false;
}

static void zebusr_gflow_map(void) {
    void *map = zebusr_table_mmap(gflow_fd);
    gflow_list = static_cast<zebusr_flow_table *>(map);
    if (map != MAP_FAILED)
        return;
    // No retry: a table that cannot be mapped ends the daemon, with status 0.
    ZLOG_AS(ERR, ZEBUSR_GFLOWS_FN, "mmap: %s", strerror(errno));
    zebusr_deinit_gflow_file();
    exit(0);
}

// Only logs; its two ERR stops do not keep the policies from running.
static void zebusr_gflow_log(uint16_t n) {
    ZLOG_AS(LOW, ZEBUSR_GFLOWS_FN, "################## GOLD FLOW FILE CONTENTS #################");
    ZLOG_AS(LOW, ZEBUSR_GFLOWS_FN, "  num gold flows = %u", static_cast<unsigned>(n));
    for (int i = 0; !zebusr_gflow_walk_ends(i, n, ZEBUSR_GFLOWS_FN, __LINE__); i++) {
        if (!zebusr_verbose())
            continue;
        const zebusr_gflow_info *flow = &gflow_list->list[i];
        ZLOG_AS(LOW, ZEBUSR_GFLOWS_FN,
                "  ZEB_MMAP: > flow 0x%x on cpu[%d] with rx_pps = %lu | avg pps = %lu", flow->hash,
                flow->cpu, flow->rx_pps, flow->avg_pps);
    }
}

int zebusr_read_gold_flows(void) {
    zebusr_gflow_map();
    zebusr_gflow_log(gflow_list->list_len);

    if (zebusr_move_gold_flow_down_to_silver() == 0) {
        ZLOG(MED, "dulox_zeb_wq_move_gold_flow_down_to_silver done!");
        return 0;
    }
    if (zebusr_balance_gold_flows() == 0)
        ZLOG(MED, "dulox_zeb_wq_balance_gold_flows done!");
    else
        ZLOG(MED, "No gold flows were moved");
    return 0;
}
