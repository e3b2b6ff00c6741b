#include "boost/boost.h"
#include "boost/core_request.h"
#include "core/log.h"
#include "netlink/genl_family.h"

int duloxusr_send_pid_bps_req(const duloxusr_pid_bps_info *req, duloxusr_pid_bps_info *resp) {
    if (!req || !resp) {
        ZLOG(ERR, "error: invalid args");
        return -1;
    }
    if (DULOXUSR_REQUEST_SEND(DULOXUSR_GENL_CMD_PID_BPS, req, duloxusr_genl_set_pid_bytes_attr) !=
        0)
        return -1;
    ZLOG(LOW, "########## PID - BPS REQUESTED ############\n");

    if (zebusr_genl_recv_pid_byte_info_from_kernel(resp) != 0) {
        ZLOG(LOW, "########## PID - BYTE RESPONSE FAILURE ############\n");
        return -1;
    }
    ZLOG(LOW, "########## PID - BYTE RESPONSE SUCCESS ############\n");
    duloxusr_print_pid_bps_resp(resp);
    return 0;
}

void duloxusr_print_pid_bps_resp(const duloxusr_pid_bps_info *resp) {
    ZLOG(LOW, "------------ PID / BPS RESPONSE -------------");
    if (!resp) {
        ZLOG(LOW, "Invalid arg: Null pointer passed!");
        return;
    }
    if (resp->valid != DULOXUSR_RECORD_VALID) {
        ZLOG(LOW, "error: info is not valid");
        return;
    }
    ZLOG(LOW, "list_len = %u | timestamp = %lu", resp->list_len,
         static_cast<unsigned long>(resp->timestamp));
    if (!duloxusr_list_len_ok(resp->list_len)) {
        ZLOG(LOW, "Invalid list len");
        return;
    }
    for (size_t i = 0; i < DULOXUSR_MAX_PIDS && i < resp->list_len; i++) {
        const duloxusr_pid_bps_entry *e = &resp->list[i];
        int n = static_cast<int>(i);
        // Signed on purpose: the log has always shown the remaining time that way.
        ZLOG(LOW, "pid[%d] = %u\t| tx_bps[%d] = %lu | boost_remaining_ms[%d] = %d", n, e->pid, n,
             static_cast<unsigned long>(e->tx_bps), n, static_cast<int>(e->boost_remaining_ms));
    }
}
