#include "steering/eval_loop.h"

#include <unistd.h>

#include "core/log.h"
#include "netlink/genl_family.h"
#include "netlink/nl_msg.h"
#include "netlink/zeb_family.h"
#include "segmentation/segmentation.h"
#include "steering/readers.h"
#include "steering/tables.h"

constexpr unsigned ZEBUSR_CONNECT_PAUSE_SEC = 3;
constexpr uint32_t ZEBUSR_NL_GROUPS_NONE = 0;

// The table files in the order they are opened; a failure closes the ones
// before it, in that same order.
struct zebusr_table_step {
    int (*init)(void);
    int (*deinit)(void);
    const char *failed;
    const char *complete;
};

constexpr int ZEBUSR_NUM_TABLE_STEPS = 3;

static const zebusr_table_step zebusr_table_steps[ZEBUSR_NUM_TABLE_STEPS] = {
    {zebusr_init_cap_file, zebusr_deinit_cap_file, "init cap file failed",
     "zebusr_init_cap_file complete"},
    {zebusr_init_gflow_file, zebusr_deinit_gflow_file, "init gflow file failed",
     "zebusr_init_gflow_file complete"},
    {zebusr_init_ssflow_file, zebusr_deinit_ssflow_file, "init ssflow file failed",
     "zebusr_init_ssflow_file complete"},
};

static void zebusr_connect_abandon(void) {
    close(sk_fd.load(std::memory_order_relaxed));
    sleep(ZEBUSR_CONNECT_PAUSE_SEC);
}

static const char ZEBUSR_CONNECT_FN[] = "zebusr_connect_to_dulox_zeb";

static int zebusr_connect_open_tables(void) {
    for (int t = 0; t < ZEBUSR_NUM_TABLE_STEPS; t++) {
        if (zebusr_table_steps[t].init() != 0) {
            ZLOG_AS(MED, ZEBUSR_CONNECT_FN, "%s", zebusr_table_steps[t].failed);
            for (int done = 0; done < t; done++) zebusr_table_steps[done].deinit();
            zebusr_connect_abandon();
            return -1;
        }
        ZLOG_AS(MED, ZEBUSR_CONNECT_FN, "%s", zebusr_table_steps[t].complete);
    }
    return 0;
}

// A reconnection neither closes the earlier socket nor the earlier table
// files: their descriptors are simply overwritten and stay open.
int zebusr_connect_to_dulox_zeb(void) {
    int fd = zebusr_genl_open_sock(ZEBUSR_NETLINK_GENERIC, ZEBUSR_NL_GROUPS_NONE);
    sk_fd.store(fd, std::memory_order_relaxed);
    if (fd < 0) {
        ZLOG(MED, "zebusr_genl_open_sock failed");
        sleep(ZEBUSR_CONNECT_PAUSE_SEC);
        return -1;
    }
    ZLOG(MED, "zebusr_genl_open_sock complete: sk_fd = %d", fd);

    if (zebusr_genl_init_sock(fd, ZEBUSR_GENL_FAMILY_ZEB) != 0) {
        ZLOG(MED, "zebusr_genl_init_sock failed");
        zebusr_connect_abandon();
        return -1;
    }
    // No pause after a failed sync: it has already waited out the receive time-out.
    if (zebusr_sync() == -1) {
        ZLOG(MED, "zebusr_sync failed");
        close(fd);
        return -1;
    }
    ZLOG(HIGH, "zebusr_genl_init_sock complete for ZEBUSR_GENL_FAMILY_ZEB");

    page_size = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    if (zebusr_connect_open_tables() != 0)
        return -1;
    ZLOG(HIGH, "CONNECTED to dulox_zeb.ko");
    return 0;
}

int zebusr_connect_loop(void) {
    int attempt = 0;
    while (zebusr_connect_to_dulox_zeb() != 0) {
        ZLOG(LOW, "zebusr_connect_to_dulox_zeb failed on attempt %d", attempt);
        attempt++;
    }
    ZLOG(HIGH, "zebusr_connect_to_dulox_zeb COMPLETE on attempt %d", attempt);
    return 0;
}

int zebusr_sync(void) {
    zebusr_nl_msg msg = {};
    zebusr_sugg_info info = {};

    if (zebusr_create_genl_msg(&msg, zeb_family_id, ZEBUSR_GENL_CMD_SYNC) != 0) {
        ZLOG(MED, "failed to create netlink message");
        return -1;
    }
    if (zebusr_genl_set_sugg_attr(&msg, &info) != 0) {
        ZLOG(MED, "failed to set suggestion attribute for syncing");
        return -1;
    }
    if (zebusr_netlink_msg_send(sk_fd.load(std::memory_order_relaxed), &msg, msg.n.nlmsg_len) !=
        0) {
        ZLOG(MED, "netlink failed to send to fd");
        return -1;
    }
    ZLOG(LOW, "########## SYNC START - seq_num %d #############\n",
         static_cast<int>(seq_num.load(std::memory_order_relaxed)));
    return zebusr_genl_recv_int_from_kernel();
}

// Silver to gold first; the gold flow policies run only when it moved
// nothing, so at most one move is accepted per cycle.
static void zebusr_evaluate_tables(void) {
    zebusr_read_ss_flows();
    if (zebusr_read_capacities() == -1) {
        zebusr_read_gold_flows();
        zebusr_munmap_all();
        return;
    }
    zebusr_munmap_caps();
    zebusr_munmap_ssflows();
}

void *zebusr_evaluate(void *) {
    ZLOG(HIGH, "ZEB Evaluation Thread Started");
    zebusr_connect_loop();
    for (;;) {
        // Only exactly -1 is a failure; every other code lets the cycle go on.
        if (zebusr_sync() == -1) {
            ZLOG(ERR, "sync failed, attempting to reconnect");
            zebusr_connect_loop();
            continue;
        }
        zebusr_evaluate_tables();
    }
}
