// The frequency boost thread and its exchanges with the core data driver.
#pragma once

#include "netlink/core_family.h"

constexpr uint8_t DULOXUSR_RECORD_VALID = 1;

// A count past the 32-entry list makes the whole record unusable.
constexpr bool duloxusr_list_len_ok(uint16_t list_len) {
    return list_len <= DULOXUSR_MAX_PIDS;
}

void *dulox_freq_boost_monitor(void *arg);
int duloxusr_connect_loop(void);
int duloxusr_connect_to_dulox_core(void);
int duloxusr_send_pid_bps_req(const duloxusr_pid_bps_info *req, duloxusr_pid_bps_info *resp);
void duloxusr_print_pid_bps_resp(const duloxusr_pid_bps_info *resp);
void duloxusr_evalute_pid_bps_info(void);
int duloxusr_send_pid_boost_req(const duloxusr_pid_boost_info *req);
void duloxusr_print_pid_boost_req(const duloxusr_pid_boost_info *req);
