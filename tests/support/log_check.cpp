#include "log_check.h"

#include <cctype>
#include <sstream>
#include <vector>

namespace zt {

namespace {

struct Known {
    const char *func;
    const char *level;
    const char *fmt;  // printf format, as the daemon writes it
};

// Every line the daemon may write: the function it belongs to, its level
// and its words.
const Known kKnown[] = {
    {"main", "HIGH", "Initializing zebusrd"},
    {"main", "HIGH", "Enabling verbose logging at bootup"},
    {"main", "HIGH", "Starting zeb_eval_thread..."},
    {"main", "ERR", "Failed to start zeb eval thread - rc = %d\n"},
    {"main", "HIGH", "Starting dulox_freq_boost_thread..."},
    {"main", "ERR", "Failed to start dulox_freq_boost_thread - rc = %d\n"},
    {"main", "ERR", "pthread join for zeb_eval_thread failed - rc = %d\n"},
    {"main", "ERR", "pthread join for dulox_freq_boost_thread failed - rc = %d\n"},
    {"main", "HIGH", "Exiting main"},
    {"zebusr_sig_handler", "HIGH", "Signal Handler Invoked!"},
    {"zebusr_cleanup", "HIGH", "Attempting to clean up"},
    {"zebusr_cleanup", "HIGH", "Cleanup Complete"},
    {"zebusr_start_logging", "HIGH", "Starting verbose logging"},
    {"zebusr_start_logging", "HIGH", "CSV File opened"},
    {"zebusr_start_logging", "ERR", "Unable to open csv logging file"},
    {"zebusr_stop_logging", "HIGH", "Stopping verbose logging"},
    {"zebusr_genl_open_sock", "ERR", "nl_open_sock: socket failed:"},
    {"zebusr_genl_open_sock", "ERR", "nl_open_sock: bind failed:"},
    {"zebusr_genl_open_sock", "MED", "nl_open_sock: skfd = %d"},
    {"zebusr_genl_open_sock", "MED", "nl_open_sock: failed to set socket option for recv timout"},
    {"zebusr_genl_open_sock", "MED",
     "nl_open_sock: recv socket option for timeout set to %d seconds"},
    {"zebusr_create_genl_msg", "ERR", "invalid param: msg ptr is null"},
    {"zebusr_netlink_msg_send", "ERR", "error %d on sendto"},
    {"zebusr_netlink_msg_recv", "MED", "invalid param: msg ptr is null"},
    {"zebusr_netlink_msg_recv", "MED", "recv error - len_recv < 0"},
    {"zebusr_netlink_msg_recv", "MED", "netlink invalid family reply message"},
    {"zebusr_netlink_msg_recv", "MED", "netlink received msg error for family resp"},
    {"zebusr_genl_recv_int_from_kernel", "LOW", "  Waiting for kernel to send a msg"},
    {"zebusr_genl_recv_int_from_kernel", "MED", "netlink failed to send to fd"},
    {"zebusr_genl_recv_int_from_kernel", "LOW", "  kernel seq_num %d return code: %d"},
    {"zebusr_genl_init_sock", "MED", "failed to create netlink message"},
    {"zebusr_genl_init_sock", "MED", "failed to set attribute to query family id"},
    {"zebusr_genl_init_sock", "MED", "netlink failed to send to fd"},
    {"zebusr_genl_init_sock", "MED", "netlink failed to get family id from response"},
    {"zebusr_genl_init_sock", "MED", "ZEB Family id = %u seq_num = %d"},
    {"zebusr_genl_init_sock", "MED", "DULOX Family id = %u"},
    {"zebusr_genl_set_family_attr", "ERR", "invalid param: msg ptr is null"},
    {"zebusr_genl_set_family_attr", "ERR", "invalid param: input msg has wrong type"},
    {"zebusr_genl_set_family_attr", "ERR", "invalid param: invalid family type %d"},
    {"zebusr_genl_get_family_id_from_resp", "ERR", "invalid param: msg ptr is null"},
    {"zebusr_genl_get_family_id_from_resp", "ERR",
     "unable to set family id, response is not correct type"},
    {"zebusr_genl_get_family_id_from_resp", "ERR", "invalid param: family type: %d"},
    {"zebusr_genl_set_sugg_attr", "ERR", "invalid params"},
    {"zebusr_genl_set_sugg_attr", "ERR", "invalid param: input msg has wrong type"},
    {"zebusr_genl_set_seg_attr", "ERR", "invalid params"},
    {"zebusr_genl_set_seg_attr", "ERR", "invalid param: input msg has wrong type"},
    {"duloxusr_genl_set_pid_bytes_attr", "ERR", "invalid params"},
    {"duloxusr_genl_set_pid_bytes_attr", "ERR", "invalid param: input msg has wrong type"},
    {"duloxusr_genl_set_pid_boost_attr", "ERR", "invalid params"},
    {"duloxusr_genl_set_pid_boost_attr", "ERR", "invalid param: input msg has wrong type"},
    {"zebusr_genl_recv_pid_byte_info_from_kernel", "LOW", "  Waiting for kernel to send a msg"},
    {"zebusr_genl_recv_pid_byte_info_from_kernel", "ERR", "netlink failed to send to fd"},
    {"zebusr_evaluate", "HIGH", "ZEB Evaluation Thread Started"},
    {"zebusr_evaluate", "ERR", "sync failed, attempting to reconnect"},
    {"zebusr_connect_loop", "LOW", "zebusr_connect_to_dulox_zeb failed on attempt %d"},
    {"zebusr_connect_loop", "HIGH", "zebusr_connect_to_dulox_zeb COMPLETE on attempt %d"},
    {"zebusr_connect_to_dulox_zeb", "MED", "zebusr_genl_open_sock failed"},
    {"zebusr_connect_to_dulox_zeb", "MED", "zebusr_genl_open_sock complete: sk_fd = %d"},
    {"zebusr_connect_to_dulox_zeb", "MED", "zebusr_genl_init_sock failed"},
    {"zebusr_connect_to_dulox_zeb", "MED", "zebusr_sync failed"},
    {"zebusr_connect_to_dulox_zeb", "HIGH",
     "zebusr_genl_init_sock complete for ZEBUSR_GENL_FAMILY_ZEB"},
    {"zebusr_connect_to_dulox_zeb", "MED", "init %s file failed"},
    {"zebusr_connect_to_dulox_zeb", "MED", "zebusr_init_%s_file complete"},
    {"zebusr_connect_to_dulox_zeb", "HIGH", "CONNECTED to dulox_zeb.ko"},
    {"zebusr_sync", "MED", "failed to create netlink message"},
    {"zebusr_sync", "MED", "failed to set suggestion attribute for syncing"},
    {"zebusr_sync", "MED", "netlink failed to send to fd"},
    {"zebusr_sync", "LOW", "########## SYNC START - seq_num %d #############\n"},
    {"zebusr_init_cap_file", "HIGH", "open pathname = /proc/zeb/dulox_zeb_caps"},
    {"zebusr_init_cap_file", "HIGH", "cap_fd = %d page size = %lu"},
    {"zebusr_init_cap_file", "ERR", "open: %s"},
    {"zebusr_init_gflow_file", "HIGH", "open pathname = /proc/zeb/dulox_zeb_flows"},
    {"zebusr_init_gflow_file", "HIGH", "gflow_fd = %d page size = %lu"},
    {"zebusr_init_gflow_file", "ERR", "open: %s"},
    {"zebusr_init_ssflow_file", "HIGH", "open pathname = /proc/zeb/dulox_zeb_ss_flows"},
    {"zebusr_init_ssflow_file", "HIGH", "ssflow_fd = %d page size = %lu"},
    {"zebusr_init_ssflow_file", "ERR", "open: %s"},
    {"zebusr_deinit_cap_file", "HIGH", "closing cap file"},
    {"zebusr_deinit_gflow_file", "HIGH", "closing gflow file"},
    {"zebusr_deinit_ssflow_file", "HIGH", "closing ssflow file"},
    {"zebusr_munmap_caps", "ERR", "munmap cap file: %s"},
    {"zebusr_munmap_gflows", "ERR", "munmap gflow file: %s"},
    {"zebusr_munmap_ssflows", "ERR", "munmap ssflow file: %s"},
    {"zebusr_read_capacities", "ERR", "mmap failure: %s"},
    {"zebusr_read_capacities", "LOW", "################## CAP FILE CONTENTS #################"},
    {"zebusr_read_capacities", "LOW",
     "  ZEB_CAPS: > cpu[%d] with pps capacity = %lu | avg pps cap = %lu bps = %lu"},
    {"zebusr_read_capacities", "ERR", "invalid cpu number, check contents of shared memory"},
    {"zebusr_read_capacities", "MED", "dulox_zeb_wq_move_loaded_silver_cpu_to_gold done!"},
    {"zebusr_read_capacities", "MED", "  No Flows Move up to gold"},
    {"zebusr_read_gold_flows", "ERR", "mmap: %s"},
    {"zebusr_read_gold_flows", "LOW",
     "################## GOLD FLOW FILE CONTENTS #################"},
    {"zebusr_read_gold_flows", "LOW", "  num gold flows = %u"},
    {"zebusr_read_gold_flows", "ERR", "Max user flows reached"},
    {"zebusr_read_gold_flows", "ERR", "Invalid hash, breaking"},
    {"zebusr_read_gold_flows", "LOW",
     "  ZEB_MMAP: > flow 0x%x on cpu[%d] with rx_pps = %lu | avg pps = %lu"},
    {"zebusr_read_gold_flows", "MED", "dulox_zeb_wq_move_gold_flow_down_to_silver done!"},
    {"zebusr_read_gold_flows", "MED", "dulox_zeb_wq_balance_gold_flows done!"},
    {"zebusr_read_gold_flows", "MED", "No gold flows were moved"},
    {"zebusr_try_to_move_flow", "LOW", "Sending sugg info to kernel"},
    {"zebusr_try_to_move_flow", "ERR", "failed to create netlink message"},
    {"zebusr_try_to_move_flow", "ERR", "failed to set suggestion attribute"},
    {"zebusr_try_to_move_flow", "ERR", "netlink failed to send to fd"},
    {"zebusr_try_to_move_flow", "MED", "Sent suggestion msg with seq_num %d"},
    {"zebusr_move_gold_flow_down_to_silver", "LOW",
     "################## GOLD TO SILVER #################"},
    {"zebusr_move_gold_flow_down_to_silver", "ERR", "cap_list is NULL"},
    {"zebusr_move_gold_flow_down_to_silver", "ERR", "gflow_list is NULL"},
    {"zebusr_move_gold_flow_down_to_silver", "MED", "  num gold flows = %u"},
    {"zebusr_move_gold_flow_down_to_silver", "ERR", "Max user flows reached"},
    {"zebusr_move_gold_flow_down_to_silver", "ERR", "Invalid hash, breaking"},
    {"zebusr_move_gold_flow_down_to_silver", "MED",
     "  ZEB_SUGG_DOWN_CHECK: > Checking that gold flow 0x%x with pps %lu avg pps %lu on cpu[%d] "
     "can move to silver cpu[%d] with avg capacity %lu cap_w_head %lu"},
    {"zebusr_move_gold_flow_down_to_silver", "HIGH",
     "  ZEB_SUGG_DOWN: > Sending msg to kernel to request that gold flow 0x%x with pps %lu avg pps "
     "%lu on cpu[%d] can move to silver cpu[%d] with avg capacity %lu cap_w_head %lu"},
    {"zebusr_move_gold_flow_down_to_silver", "HIGH", "  ZEB_SUGG_DOWN: Move successful"},
    {"zebusr_balance_gold_flows", "LOW", "################## GOLD BALANCE #################"},
    {"zebusr_balance_gold_flows", "ERR", "cap_list is NULL"},
    {"zebusr_balance_gold_flows", "ERR", "gflow_list is NULL"},
    {"zebusr_balance_gold_flows", "ERR", "invalid cpu number, check contents of shared memory"},
    {"zebusr_balance_gold_flows", "LOW", "  num gold flows = %u"},
    {"zebusr_balance_gold_flows", "ERR", "Max user flows reached"},
    {"zebusr_balance_gold_flows", "ERR", "Invalid hash, breaking"},
    {"zebusr_balance_gold_flows", "ERR", "Error: CPU Num is out of range!"},
    {"zebusr_balance_gold_flows", "MED",
     "  ZEB_SUGG_CHECK_BAL: Checking gold flow balance gold flow 0x%x with pps %lu avg pps %lu on "
     "cpu[%d] can balance to gold cpu[%d] with avg capacity %lu cap_w_head %lu"},
    {"zebusr_balance_gold_flows", "MED",
     "other cpu cannot fit the additional gold flow, not moving"},
    {"zebusr_balance_gold_flows", "MED",
     "other cpu is about equally loaded, not movingdest_cpu_avg_pps-headroom-gflow_avg_pps = %d "
     "src_cpu_avg_pps = %d"},
    {"zebusr_balance_gold_flows", "HIGH",
     "  ZEB_SUGG_BAL: > Sending msg to kernel to request that gold flow 0x%x with pps %lu avg pps "
     "%lu on cpu[%d] can balance to gold cpu[%d] with avg capacity %lu cap_w_head %lu"},
    {"zebusr_balance_gold_flows", "HIGH", "  ZEB_SUGG_BAL: Move successful"},
    {"zebusr_move_loaded_silver_cpu_to_gold", "LOW",
     "################## SILVER TO GOLD ##################"},
    {"zebusr_move_loaded_silver_cpu_to_gold", "ERR", "cap_list is NULL\n"},
    {"zebusr_move_loaded_silver_cpu_to_gold", "MED", "  Move all flows on cpu %d at index %d\n"},
    {"zebusr_move_loaded_silver_cpu_to_gold", "HIGH",
     "  ZEB_SUGG_UP: Sending msg to kernel to request that all flows on cpu %d be moved to gold "
     "cpu %d"},
    {"zebusr_move_loaded_silver_cpu_to_gold", "HIGH", "  ZEB_SUGG_UP: Move successful"},
    {"zebusr_ht_find_node", "LOW", "zebusr_ht_find_node: searching for hash 0x%x in bkt %d"},
    {"zebusr_ht_find_node", "LOW",
     "zebusr_ht_find_node: NO match found in ht bkt %d: hash 0x%x - bkt is empty"},
    {"zebusr_ht_find_node", "MED", "zebusr_ht_find_node: match found in ht bkt %d: hash 0x%x"},
    {"zebusr_ht_find_node", "LOW", "zebusr_ht_find_node: NO match found in ht bkt %d: hash 0x%x"},
    {"zebusr_ht_create_node", "ERR", "zebusr_ht_create_node: malloc failure"},
    {"zebusr_ht_create_node", "LOW", "zebusr_ht_create_node: adding hash 0x%x to bkt %d"},
    {"zebusr_ht_create_node", "LOW", "zebusr_ht_create_node: ADDED hash 0x%x to bkt %d"},
    {"zebusr_update_ht_node", "LOW", "Invalid params"},
    {"zebusr_ht_remove_node", "LOW",
     "zebusr_ht_remove_node: did not find node to remove in ht bkt %d: hash 0x%x"},
    {"zebusr_ht_remove_node", "MED",
     "zebusr_ht_remove_node: removing node for ht bkt %d: hash 0x%x"},
    {"zebusr_ht_debug_print", "LOW",
     "zebusr_ht_debug_print: =========== HASH TABLE CONTENTS =============="},
    {"zebusr_ht_debug_print", "LOW", "zebusr_ht_debug_print: bkt %d of 7"},
    {"zebusr_ht_debug_print", "LOW", "zebusr_ht_debug_print: \tbkt[%d]: empty"},
    {"zebusr_ht_debug_print", "LOW",
     "zebusr_ht_debug_print: \tbkt[%d]: hash = 0x%x | rx_bps = %lu | is_stable = %d | "
     "is_segmentation_enabled = %d "},
    {"zebusr_ht_debug_print", "LOW",
     "\t\trx_bps_history: hash 0x%x | len = %d | avg = %lu: [%lu] [%lu] [%lu] [%lu] [%lu] [%lu] "
     "[%lu] [%lu] [%lu] [%lu]"},
    {"zebusr_ht_debug_print", "LOW",
     "zebusr_ht_debug_print: ================== END =================="},
    {"zebusr_read_ss_flows", "ERR", "mmap: %s"},
    {"zebusr_read_ss_flows", "LOW", "################## SS FLOW FILE CONTENTS #################"},
    {"zebusr_read_ss_flows", "LOW", "  num ss flows = %u"},
    {"zebusr_read_ss_flows", "ERR", "Max user flows reached"},
    {"zebusr_read_ss_flows", "ERR", "Invalid hash, breaking"},
    {"zebusr_read_ss_flows", "LOW",
     "  ZEB_SLOW: > ss flow 0x%x on cpu[%d] with rx_pps = %lu | avg pps = %lu | rx_bps = %lu"},
    {"zebusr_read_ss_flows", "ERR", "Could not create new node for hash 0x%x"},
    {"zebusr_read_ss_flows", "LOW", "Flow w/ hash 0x%x is stable"},
    {"zebusr_read_ss_flows", "LOW", "Flow w/ hash 0x%x is NOT stable"},
    {"zebusr_read_ss_flows", "LOW", "Disabling segmentation for hash 0x%x"},
    {"zebusr_read_ss_flows", "LOW", "NOT DETECTING DIPS: Enabling segmentation for hash 0x%x"},
    {"zebusr_set_flow_segmentation", "LOW", "Sending flow segmentation req to kernel"},
    {"zebusr_set_flow_segmentation", "ERR", "failed to create netlink message"},
    {"zebusr_set_flow_segmentation", "ERR", "failed to set segmentation attribute"},
    {"zebusr_set_flow_segmentation", "ERR", "netlink failed to send to fd"},
    {"zebusr_set_flow_segmentation", "MED", "Sent segmentation setting req with seq_num %d"},
    {"dulox_freq_boost_monitor", "HIGH", "Dulox Core Driver Thread Started"},
    {"dulox_freq_boost_monitor", "ERR",
     "Dulox Core Driver Thread Exited -dulox_core driver did not respond"},
    {"dulox_freq_boost_monitor", "LOW", "Evaluating PID/bps list from dulox kernel driver"},
    {"duloxusr_connect_loop", "HIGH", "duloxusr_connect_to_dulox_core COMPLETE on attempt %d"},
    {"duloxusr_connect_loop", "LOW", "duloxusr_connect_to_dulox_core failed on attempt %d"},
    {"duloxusr_connect_loop", "ERR", "Core Driver not accepting connections -%d attempts made"},
    {"duloxusr_connect_to_dulox_core", "MED", "zebusr_genl_open_sock failed"},
    {"duloxusr_connect_to_dulox_core", "MED",
     "zebusr_genl_open_sock complete: duloxusr_genl_sk_fd = %d"},
    {"duloxusr_connect_to_dulox_core", "MED", "zebusr_genl_init_sock failed"},
    {"duloxusr_connect_to_dulox_core", "HIGH",
     "zebusr_genl_init_sock complete for ZEBUSR_GENL_FAMILY_DULOX"},
    {"duloxusr_connect_to_dulox_core", "HIGH", "CONNECTED to dulox core driver"},
    {"duloxusr_send_pid_bps_req", "ERR", "error: invalid args"},
    {"duloxusr_send_pid_bps_req", "ERR", "failed to create netlink message"},
    {"duloxusr_send_pid_bps_req", "ERR", "failed to set suggestion attribute for syncing"},
    {"duloxusr_send_pid_bps_req", "ERR", "netlink failed to send to fd"},
    {"duloxusr_send_pid_bps_req", "LOW", "########## PID - BPS REQUESTED ############\n"},
    {"duloxusr_send_pid_bps_req", "LOW", "########## PID - BYTE RESPONSE SUCCESS ############\n"},
    {"duloxusr_send_pid_bps_req", "LOW", "########## PID - BYTE RESPONSE FAILURE ############\n"},
    {"duloxusr_print_pid_bps_resp", "LOW", "------------ PID / BPS RESPONSE -------------"},
    {"duloxusr_print_pid_bps_resp", "LOW", "Invalid arg: Null pointer passed!"},
    {"duloxusr_print_pid_bps_resp", "LOW", "error: info is not valid"},
    {"duloxusr_print_pid_bps_resp", "LOW", "list_len = %u | timestamp = %lu"},
    {"duloxusr_print_pid_bps_resp", "LOW",
     "pid[%d] = %u\t| tx_bps[%d] = %lu | boost_remaining_ms[%d] = %d"},
    {"duloxusr_print_pid_bps_resp", "LOW", "Invalid list len"},
    {"duloxusr_evalute_pid_bps_info", "LOW", "Failed to query pid bps list from kernel"},
    {"duloxusr_evalute_pid_bps_info", "LOW", "error: info is not valid"},
    {"duloxusr_evalute_pid_bps_info", "LOW", "Invalid list len"},
    {"duloxusr_evalute_pid_bps_info", "HIGH", "pid %u with bps %lu has %u ms of boost remaining"},
    {"duloxusr_evalute_pid_bps_info", "HIGH", "Boosting pid %u with bps %lu"},
    {"duloxusr_send_pid_boost_req", "ERR", "error: invalid args"},
    {"duloxusr_send_pid_boost_req", "ERR", "failed to create netlink message"},
    {"duloxusr_send_pid_boost_req", "ERR", "failed to set suggestion attribute for syncing"},
    {"duloxusr_send_pid_boost_req", "ERR", "netlink failed to send to fd"},
    {"duloxusr_send_pid_boost_req", "LOW", "########## PID - BOOST REQUESTED ############\n"},
    {"duloxusr_print_pid_boost_req", "LOW", "------------ PID BOOST REQUEST -------------"},
    {"duloxusr_print_pid_boost_req", "LOW", "Invalid arg: Null pointer passed!"},
    {"duloxusr_print_pid_boost_req", "LOW", "error: boost request is not valid"},
    {"duloxusr_print_pid_boost_req", "LOW", "list_len = %u"},
    {"duloxusr_print_pid_boost_req", "LOW",
     "pid[%d] = %u\t| boost_en[%d] = %u | boost_period[%d] = %u"},
    {"duloxusr_print_pid_boost_req", "LOW", "Invalid list len"},
};

// Whether `m` is what printf could print for format `f` (conversions
// %d %u %x %lu print a number, %s anything; "\n" at the end is the line's).
bool fmt_match(const char *f, const char *m) {
    for (;; f++, m++) {
        if (*f == '\n' && f[1] == '\0')
            return *m == '\0';
        if (*f != '%') {
            if (*f != *m)
                return false;
            if (*f == '\0')
                return true;
            continue;
        }
        f++;
        if (*f == 'l')
            f++;
        if (*f == 's') {
            for (const char *rest = m;; rest++) {
                if (fmt_match(f + 1, rest))
                    return true;
                if (*rest == '\0')
                    return false;
            }
        }
        const char *start = m;
        if (*m == '-')
            m++;
        while (isxdigit(static_cast<unsigned char>(*m))) m++;
        if (m == start)
            return false;
        m--;
    }
}

// "" when the line is right: the exact prefix, a known message of its
// function at its level. `blank_next` says whether an empty line must follow.
std::string check_line(const std::string &line, bool *blank_next) {
    LogLine l;
    if (!split_log_line(line, &l))
        return "no prefix";
    std::string found_level;
    for (const Known &k : kKnown) {
        if (l.func != k.func || !fmt_match(k.fmt, l.message.c_str()))
            continue;
        found_level = k.level;
        if (found_level == l.level) {
            *blank_next = std::string(k.fmt).back() == '\n';
            return "";
        }
    }
    return found_level.empty() ? "not a message of " + l.func : "level should be " + found_level;
}

}  // namespace

// " HH:MM:SS.uuuuuu" (16), a blank, the function right-aligned in 40,
// "():", the line number in at least 3, " (LEVEL): ", the message.
bool split_log_line(const std::string &line, LogLine *out) {
    auto digit = [&](size_t i) {
        return i < line.size() && isdigit(static_cast<unsigned char>(line[i]));
    };
    if (line.size() < 17 || line[0] != ' ' || line[3] != ':' || line[6] != ':' || line[9] != '.' ||
        line[16] != ' ')
        return false;
    for (size_t i : {1, 2, 4, 5, 7, 8, 10, 11, 12, 13, 14, 15})
        if (!digit(i))
            return false;
    size_t paren = line.find("():", 17);
    if (paren == std::string::npos || paren < 57)
        return false;
    size_t name = line.find_last_of(' ', paren) + 1;
    if (name < 17 || line.find_first_not_of(' ', 17) != name || (paren > 57 && name != 17))
        return false;
    size_t num = paren + 3, level = line.find(" (", num);
    if (level == std::string::npos)
        return false;
    const std::string number = line.substr(num, level - num);
    size_t first = number.find_first_not_of(' ');
    if (number.size() < 3 || first == std::string::npos || (number.size() > 3 && first > 0) ||
        number.find_first_not_of("0123456789", first) != std::string::npos)
        return false;
    size_t close = line.find("): ", level);
    if (close == std::string::npos)
        return false;
    out->func = line.substr(name, paren - name);
    out->level = line.substr(level + 2, close - level - 2);
    out->message = line.substr(close + 3);
    return out->level == "HIGH" || out->level == "ERR" || out->level == "MED" ||
           out->level == "LOW";
}

std::string check_log(const std::string &text) {
    std::istringstream in(text);
    bool blank_next = false;
    for (std::string line; std::getline(in, line);) {
        if (blank_next) {
            blank_next = false;
            if (line.empty())
                continue;
            return "no empty line after a message ending in a newline, before: " + line;
        }
        std::string why = check_line(line, &blank_next);
        if (!why.empty())
            return why + ": " + line;
    }
    return "";
}

}  // namespace zt
