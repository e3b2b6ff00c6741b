// The frequency boost thread and its exchanges with the core data driver.
#pragma once

#include "netlink/core_family.h"

void *dulox_freq_boost_monitor(void *arg);
int duloxusr_connect_loop(void);
int duloxusr_connect_to_dulox_core(void);
int duloxusr_send_pid_bps_req(const duloxusr_pid_bps_info *req, duloxusr_pid_bps_info *resp);
void duloxusr_print_pid_bps_resp(const duloxusr_pid_bps_info *resp);
void duloxusr_evalute_pid_bps_info(void);
int duloxusr_send_pid_boost_req(const duloxusr_pid_boost_info *req);
void duloxusr_print_pid_boost_req(const duloxusr_pid_boost_info *req);
