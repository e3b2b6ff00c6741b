#include <pthread.h>
#include <unistd.h>

#include "boost/boost.h"
#include "core/log.h"
#include "netlink/genl_family.h"

// The core driver may load well after us; give it about 87 seconds, then
// let the daemon steer on without boosts.
constexpr int DULOXUSR_CONNECT_ATTEMPTS = 30;
constexpr unsigned DULOXUSR_CONNECT_PAUSE_SEC = 3;
constexpr unsigned DULOXUSR_EVAL_PERIOD_SEC = 1;

int duloxusr_connect_to_dulox_core(void) {
    duloxusr_genl_sk_fd = zebusr_genl_open_sock(ZEBUSR_NETLINK_GENERIC, 0);
    if (duloxusr_genl_sk_fd < 0) {
        ZLOG(MED, "zebusr_genl_open_sock failed");
        return -1;
    }
    ZLOG(MED, "zebusr_genl_open_sock complete: duloxusr_genl_sk_fd = %d", duloxusr_genl_sk_fd);

    if (zebusr_genl_init_sock(duloxusr_genl_sk_fd, ZEBUSR_GENL_FAMILY_DULOX) != 0) {
        ZLOG(MED, "zebusr_genl_init_sock failed");
        // Closes the steering socket, not the core one: kept as the driver
        // side has always behaved, the core socket stays open.
        close(sk_fd.load(std::memory_order_relaxed));
        return -1;
    }
    ZLOG(HIGH, "zebusr_genl_init_sock complete for ZEBUSR_GENL_FAMILY_DULOX");
    ZLOG(HIGH, "CONNECTED to dulox core driver");
    return 0;
}

int duloxusr_connect_loop(void) {
    int attempt = 0;

    for (;;) {
        if (duloxusr_connect_to_dulox_core() == 0) {
            ZLOG(HIGH, "duloxusr_connect_to_dulox_core COMPLETE on attempt %d", attempt);
            return 0;
        }
        ZLOG(LOW, "duloxusr_connect_to_dulox_core failed on attempt %d", attempt);
        attempt++;
        if (attempt >= DULOXUSR_CONNECT_ATTEMPTS) {
            ZLOG(ERR, "Core Driver not accepting connections -%d attempts made", attempt);
            return -1;
        }
        sleep(DULOXUSR_CONNECT_PAUSE_SEC);
    }
}

void *dulox_freq_boost_monitor(void *) {
    ZLOG(HIGH, "Dulox Core Driver Thread Started");
    if (duloxusr_connect_loop() != 0) {
        ZLOG(ERR, "Dulox Core Driver Thread Exited -dulox_core driver did not respond");
        pthread_exit(nullptr);
    }
    // No reconnection: a driver that goes away only makes each query fail.
    for (;;) {
        ZLOG(LOW, "Evaluating PID/bps list from dulox kernel driver");
        duloxusr_evalute_pid_bps_info();
        sleep(DULOXUSR_EVAL_PERIOD_SEC);
    }
}
