#include "core/lifecycle.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "boost/boost.h"
#include "core/log.h"
#include "netlink/genl_family.h"
#include "steering/eval_loop.h"
#include "steering/tables.h"

// The workers block the handled signals, so every handler runs on the main
// thread, which does nothing but wait in joins.
void zebusr_handled_signals(sigset_t *set) {
    sigemptyset(set);
    sigaddset(set, SIGTERM);
    sigaddset(set, SIGINT);
    sigaddset(set, SIGUSR1);
    sigaddset(set, SIGUSR2);
}

static int zebusr_start_worker(pthread_t *thread, void *(*body)(void *)) {
    sigset_t handled, previous;
    zebusr_handled_signals(&handled);
    pthread_sigmask(SIG_BLOCK, &handled, &previous);
    int rc = pthread_create(thread, nullptr, body, nullptr);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return rc;
}

static void zebusr_open_log(void) {
    if (!log_enabled.load(std::memory_order_relaxed))
        return;
    FILE *fp = fopen(ZEBUSR_LOG_PATH, "w+");
    log_fp.store(fp, std::memory_order_relaxed);
    if (!fp) {
        log_enabled.store(0, std::memory_order_relaxed);
        perror("failed");
    }
}

static void zebusr_install_handlers(void) {
    signal(SIGTERM, zebusr_sig_handler);
    signal(SIGINT, zebusr_sig_handler);
    signal(SIGUSR1, zebusr_start_logging);
    signal(SIGUSR2, zebusr_stop_logging);
}

// main's own lines, written from here.
static const char ZEBUSR_MAIN_FN[] = "main";

int zebusr_run(int argc, char **argv) {
    (void)argv;
    int rc = 0;
    pthread_t eval_thread;
    pthread_t boost_thread;

    zebusr_open_log();
    ZLOG_AS(HIGH, ZEBUSR_MAIN_FN, "Initializing zebusrd");
    if (argc > 1) {
        ZLOG_AS(HIGH, ZEBUSR_MAIN_FN, "Enabling verbose logging at bootup");
        verbose_log_enabled.store(1, std::memory_order_relaxed);
    }
    atexit(zebusr_cleanup);
    zebusr_install_handlers();

    ZLOG_AS(HIGH, ZEBUSR_MAIN_FN, "Starting zeb_eval_thread...");
    rc = zebusr_start_worker(&eval_thread, zebusr_evaluate);
    if (rc) {
        ZLOG_AS(ERR, ZEBUSR_MAIN_FN, "Failed to start zeb eval thread - rc = %d\n", rc);
        return -1;
    }

    ZLOG_AS(HIGH, ZEBUSR_MAIN_FN, "Starting dulox_freq_boost_thread...");
    rc = zebusr_start_worker(&boost_thread, dulox_freq_boost_monitor);
    if (rc) {
        // The evaluation thread is left running; exit takes it down.
        ZLOG_AS(ERR, ZEBUSR_MAIN_FN, "Failed to start dulox_freq_boost_thread - rc = %d\n", rc);
        return -1;
    }

    rc = pthread_join(eval_thread, nullptr);
    if (rc)
        ZLOG_AS(ERR, ZEBUSR_MAIN_FN, "pthread join for zeb_eval_thread failed - rc = %d\n", rc);
    rc = pthread_join(boost_thread, nullptr);
    if (rc)
        ZLOG_AS(ERR, ZEBUSR_MAIN_FN, "pthread join for dulox_freq_boost_thread failed - rc = %d\n",
                rc);

    ZLOG_AS(HIGH, ZEBUSR_MAIN_FN, "Exiting main");
    return 0;
}

void zebusr_sig_handler(int) {
    ZLOG(HIGH, "Signal Handler Invoked!");
    exit(0);
}

void zebusr_cleanup(void) {
    ZLOG(HIGH, "Attempting to clean up");
    zebusr_deinit_cap_file();
    zebusr_deinit_gflow_file();
    zebusr_deinit_ssflow_file();
    // Closed unconditionally: before the first connection this is descriptor 0.
    close(sk_fd.load(std::memory_order_relaxed));
    ZLOG(HIGH, "Cleanup Complete");
    if (log_enabled.load(std::memory_order_relaxed)) {
        // Forgotten under the lock: a worker still running sees no log
        // rather than a stream being closed under its line.
        sigset_t saved;
        zebusr_streams_lock(&saved);
        FILE *fp = log_fp.exchange(nullptr, std::memory_order_relaxed);
        if (fp)
            fclose(fp);
        zebusr_streams_unlock(&saved);
    }
}
