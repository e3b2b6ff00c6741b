#include "boost/boost.h"
#include "boost/core_request.h"
#include "core/log.h"
#include "netlink/genl_family.h"

// The helpers below write their lines under the name of the function they serve.
static const char DULOXUSR_EVAL_FN[] = "duloxusr_evalute_pid_bps_info";

// Strictly above this rate a process counts as a fast sender.
constexpr uint64_t DULOXUSR_FAST_SENDER_BPS = 500000000;
// Strictly above this much boost left, the last boost is still running.
constexpr uint32_t DULOXUSR_BOOST_RUNNING_MS = 1000;
constexpr uint32_t DULOXUSR_BOOST_ENABLE = 1;
// The driver's unit, asked for next to a remaining time it reports in ms.
constexpr uint32_t DULOXUSR_BOOST_PERIOD = 10000;

static void duloxusr_boost_entry_fill(duloxusr_pid_boost_info *req, uint32_t pid) {
    duloxusr_pid_boost_entry *e = &req->list[req->list_len];
    e->boost_en = DULOXUSR_BOOST_ENABLE;
    e->boost_period = DULOXUSR_BOOST_PERIOD;
    e->pid = pid;
    req->list_len++;
}

// Fills the request in answer order; list_len counts the chosen processes.
static void duloxusr_boost_choose(const duloxusr_pid_bps_info *resp, duloxusr_pid_boost_info *req) {
    for (size_t i = 0; i < DULOXUSR_MAX_PIDS && i < resp->list_len; i++) {
        const duloxusr_pid_bps_entry *e = &resp->list[i];
        if (e->boost_remaining_ms > DULOXUSR_BOOST_RUNNING_MS) {
            ZLOG_AS(HIGH, DULOXUSR_EVAL_FN, "pid %u with bps %lu has %u ms of boost remaining",
                    e->pid, static_cast<unsigned long>(e->tx_bps), e->boost_remaining_ms);
        } else if (e->tx_bps > DULOXUSR_FAST_SENDER_BPS) {
            ZLOG_AS(HIGH, DULOXUSR_EVAL_FN, "Boosting pid %u with bps %lu", e->pid,
                    static_cast<unsigned long>(e->tx_bps));
            duloxusr_boost_entry_fill(req, e->pid);
        }
    }
}

void duloxusr_evalute_pid_bps_info(void) {
    duloxusr_pid_bps_info query = {};
    duloxusr_pid_bps_info answer = {};

    if (duloxusr_send_pid_bps_req(&query, &answer) != 0) {
        ZLOG(LOW, "Failed to query pid bps list from kernel");
        return;
    }
    if (answer.valid != DULOXUSR_RECORD_VALID) {
        ZLOG(LOW, "error: info is not valid");
        return;
    }
    if (!duloxusr_list_len_ok(answer.list_len)) {
        ZLOG(LOW, "Invalid list len");
        return;
    }

    duloxusr_pid_boost_info req = {};
    duloxusr_boost_choose(&answer, &req);
    if (req.list_len == 0)
        return;
    req.valid = DULOXUSR_RECORD_VALID;
    // Fire and forget: a lost request is simply asked for again next second.
    (void)duloxusr_send_pid_boost_req(&req);
}

int duloxusr_send_pid_boost_req(const duloxusr_pid_boost_info *req) {
    if (!req) {
        ZLOG(ERR, "error: invalid args");
        return -1;
    }
    if (DULOXUSR_REQUEST_SEND(DULOXUSR_GENL_CMD_PID_BOOST, req, duloxusr_genl_set_pid_boost_attr) !=
        0)
        return -1;
    ZLOG(LOW, "########## PID - BOOST REQUESTED ############\n");
    duloxusr_print_pid_boost_req(req);
    return 0;
}

void duloxusr_print_pid_boost_req(const duloxusr_pid_boost_info *req) {
    ZLOG(LOW, "------------ PID BOOST REQUEST -------------");
    if (!req) {
        ZLOG(LOW, "Invalid arg: Null pointer passed!");
        return;
    }
    if (req->valid != DULOXUSR_RECORD_VALID) {
        ZLOG(LOW, "error: boost request is not valid");
        return;
    }
    ZLOG(LOW, "list_len = %u", req->list_len);
    if (!duloxusr_list_len_ok(req->list_len)) {
        ZLOG(LOW, "Invalid list len");
        return;
    }
    for (size_t i = 0; i < DULOXUSR_MAX_PIDS && i < req->list_len; i++) {
        const duloxusr_pid_boost_entry *e = &req->list[i];
        int n = static_cast<int>(i);
        ZLOG(LOW, "pid[%d] = %u\t| boost_en[%d] = %u | boost_period[%d] = %u", n, e->pid, n,
             e->boost_en, n, e->boost_period);
    }
}
