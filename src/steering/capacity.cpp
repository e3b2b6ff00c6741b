#include <errno.h>
#include <sys/mman.h>

#include <cstdlib>
#include <cstring>

#include "core/log.h"
#include "netlink/nl_msg.h"
#include "policy/policy.h"
#include "steering/readers.h"
#include "steering/table_walk.h"
#include "steering/tables.h"

// The helpers below write their lines under the name of the function they serve.
static const char ZEBUSR_CAPS_FN[] = "zebusr_read_capacities";

int zebusr_caps_fill_by_cpu(zebusr_cap_info by_cpu[ZEBUSR_NUM_CPUS], const char *func,
                            unsigned line) {
    for (int j = 0; j < ZEBUSR_NUM_CPUS; j++) {
        const zebusr_cap_info *entry = &cap_list[j];
        uint16_t cpu = entry->cpu;
        if (cpu >= ZEBUSR_NUM_CPUS) {
            ZLOG_AT(ERR, func, line, "invalid cpu number, check contents of shared memory");
            return -1;
        }
        by_cpu[cpu].pps_capacity = entry->pps_capacity;
        by_cpu[cpu].avg_pps_capacity = entry->avg_pps_capacity;
    }
    return 0;
}

static void zebusr_caps_map(void) {
    void *map = zebusr_table_mmap(cap_fd);
    cap_list = static_cast<zebusr_cap_info *>(map);
    if (map != MAP_FAILED)
        return;
    // No retry: a table that cannot be mapped ends the daemon, with status 0.
    ZLOG_AS(ERR, ZEBUSR_CAPS_FN, "mmap failure: %s", strerror(errno));
    zebusr_deinit_cap_file();
    exit(0);
}

static void zebusr_caps_log(void) {
    ZLOG_AS(LOW, ZEBUSR_CAPS_FN, "################## CAP FILE CONTENTS #################");
    for (int j = 0; j < ZEBUSR_NUM_CPUS; j++) {
        const zebusr_cap_info *entry = &cap_list[j];
        ZLOG_AS(LOW, ZEBUSR_CAPS_FN,
                "  ZEB_CAPS: > cpu[%d] with pps capacity = %lu | avg pps cap = %lu bps = %lu",
                entry->cpu, entry->pps_capacity, entry->avg_pps_capacity, entry->bps);
    }
}

// Columns go by CPU number, not by table position. Under the streams' lock:
// SIGUSR2 may be closing the capture.
static void zebusr_caps_csv_write(const zebusr_cap_info by_cpu[ZEBUSR_NUM_CPUS]) {
    sigset_t saved;
    zebusr_streams_lock(&saved);
    FILE *fp = csv_fp.load(std::memory_order_relaxed);
    if (csv_log_enabled.load(std::memory_order_relaxed) && fp) {
        char stamp[ZEBUSR_STAMP_LEN];
        zebusr_log_stamp(stamp);
        fprintf(fp, "%s,%u,%lu,%lu,%lu,%lu,%lu,%lu,%lu,%lu\n", stamp,
                seq_num.load(std::memory_order_relaxed), by_cpu[0].pps_capacity,
                by_cpu[1].pps_capacity, by_cpu[2].pps_capacity, by_cpu[3].pps_capacity,
                by_cpu[4].pps_capacity, by_cpu[5].pps_capacity, by_cpu[6].pps_capacity,
                by_cpu[7].pps_capacity);
        fflush(fp);
    }
    zebusr_streams_unlock(&saved);
}

int zebusr_read_capacities(void) {
    zebusr_cap_info by_cpu[ZEBUSR_NUM_CPUS] = {};

    zebusr_caps_map();
    if (zebusr_verbose())
        zebusr_caps_log();
    // The CPU check and the CSV row exist only in verbose mode; otherwise a
    // bad CPU number reaches the policy, which reads `cpu` itself.
    if (zebusr_verbose()) {
        if (ZEBUSR_CAPS_FILL_BY_CPU(by_cpu) != 0)
            return -1;
        zebusr_caps_csv_write(by_cpu);
    }

    if (zebusr_move_loaded_silver_cpu_to_gold() == 0) {
        ZLOG(MED, "dulox_zeb_wq_move_loaded_silver_cpu_to_gold done!");
        return 0;
    }
    ZLOG(MED, "  No Flows Move up to gold");
    return -1;
}
