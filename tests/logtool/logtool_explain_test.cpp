// zebusr-log explain on short logs written line by line as the daemon writes
// them: each case asserts whole lines of the output, in order.
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "explain.hpp"
#include "log_text.hpp"

namespace {

// A log under construction: each message is stamped 10 ms after the one
// before, from 09:00:00.000000, so line n of a log without empty lines is
// at (n - 1) * 10 ms.
class Log {
   public:
    Log &m(const char *func, const char *level, const std::string &msg) {
        text += zlog::test::prefix((9 * 3600000 + ms_) * 1000, func, 10, level) + msg + "\n";
        ms_ += 10;
        return *this;
    }
    Log &skip(unsigned seconds) {
        ms_ += seconds * 1000 - 10;
        return *this;
    }
    Log &start(bool verbose) {
        m("main", "HIGH", "Initializing zebusrd");
        return verbose ? m("main", "HIGH", "Enabling verbose logging at bootup") : *this;
    }
    Log &answer(int seq, int code) {
        m("zebusr_genl_recv_int_from_kernel", "LOW", "  Waiting for kernel to send a msg");
        return m(
            "zebusr_genl_recv_int_from_kernel", "LOW",
            "  kernel seq_num " + std::to_string(seq) + " return code: " + std::to_string(code));
    }
    Log &sync(int seq) {
        m("zebusr_sync", "LOW",
          "########## SYNC START - seq_num " + std::to_string(seq) + " #############\n");
        return answer(seq + 1, 0);
    }
    // Capacity entries "pps avg" for cpus 0 to 7.
    Log &caps(const std::vector<std::pair<int, int>> &c) {
        m("zebusr_read_capacities", "LOW",
          "################## CAP FILE CONTENTS #################");
        for (size_t i = 0; i < c.size(); i++)
            m("zebusr_read_capacities", "LOW",
              "  ZEB_CAPS: > cpu[" + std::to_string(i) +
                  "] with pps capacity = " + std::to_string(c[i].first) +
                  " | avg pps cap = " + std::to_string(c[i].second) + " bps = 0");
        return *this;
    }
    Log &sent(const char *func, const char *what, int seq, int code) {
        m(func, "LOW", what);
        m(func, "MED",
          std::string(func[7] == 's' ? "Sent segmentation setting req" : "Sent suggestion msg") +
              " with seq_num " + std::to_string(seq));
        return answer(seq + 1, code);
    }
    Log &move(int seq, int code) {
        return sent("zebusr_try_to_move_flow", "Sending sugg info to kernel", seq, code);
    }
    std::string text;

   private:
    uint64_t ms_ = 0;
};

const char kGold[] = "zebusr_read_gold_flows", kDown[] = "zebusr_move_gold_flow_down_to_silver",
           kBal[] = "zebusr_balance_gold_flows", kUp[] = "zebusr_move_loaded_silver_cpu_to_gold",
           kSs[] = "zebusr_read_ss_flows", kHt[] = "zebusr_ht_debug_print",
           kEval[] = "duloxusr_evalute_pid_bps_info",
           kSsHead[] = "################## SS FLOW FILE CONTENTS #################";

std::string down(const char *tag, int cpu) {
    return std::string("  ") + tag +
           " that gold flow 0xb0b0 with pps 40000 avg pps 40000 on cpu[5] " +
           "can move to silver cpu[" + std::to_string(cpu) +
           "] with avg capacity 65000 cap_w_head 45000";
}

std::string bal(const char *tag) {
    return std::string("  ") + tag + " gold flow 0xd00d with pps 70000 avg pps 70000 on cpu[6] " +
           "can balance to gold cpu[5] with avg capacity 180000 cap_w_head 160000";
}

const std::vector<std::pair<int, int>> kCaps = {{65000, 65000}, {65000, 65000},   {3000, 9000},
                                                {65000, 65000}, {150000, 150000}, {180000, 180000},
                                                {89000, 89000}, {150000, 150000}};

std::string slow(const char *hash, int cpu, const char *bps) {
    return std::string("  ZEB_SLOW: > ss flow ") + hash + " on cpu[" + std::to_string(cpu) +
           "] with rx_pps = 1000 | avg pps = 1000 | rx_bps = " + bps;
}

std::string history(const char *bps) {
    std::string s = std::string("\t\trx_bps_history: hash 0x71de0 | len = 9 | avg = ") + bps + ":";
    for (int i = 0; i < 10; i++) s += i < 9 ? std::string(" [") + bps + "]" : " [0]";
    return s;
}

struct Case {
    const char *name;
    std::string log;
    std::vector<std::string> want;  // whole output lines, in this order
};

// DOWN refused by the first silver cpu, accepted by the next
Case down_case() {
    Log a;
    a.start(true).sync(10).caps(kCaps).m(kUp, "LOW",
                                         "################## SILVER TO GOLD ##################");
    a.m("zebusr_read_capacities", "MED", "  No Flows Move up to gold");
    a.m(kDown, "MED", "  num gold flows = 1")
        .m(kDown, "MED", down("ZEB_SUGG_DOWN_CHECK: > Checking", 0));
    a.m(kDown, "HIGH", down("ZEB_SUGG_DOWN: > Sending msg to kernel to request", 0)).move(12, -16);
    a.m(kDown, "HIGH", down("ZEB_SUGG_DOWN: > Sending msg to kernel to request", 1)).move(14, 0);
    a.m(kDown, "HIGH", "  ZEB_SUGG_DOWN: Move successful");
    return {"down",
            a.text,
            {"[   0.000s] 09:00:00.000 L1 RUN    run 1 starts, verbose on at boot",
             "[   0.180s] 09:00:00.180 L20 DOWN   flow 0xb0b0 cpu5 -> silver cpu0 | flow avg "
             "40000 pps < cpu0 avg spare 65000 - 20000 headroom  => refused (code -16)",
             "[   0.230s] 09:00:00.230 L25 DOWN   flow 0xb0b0 cpu5 -> silver cpu1 (cpu0 "
             "refused) | flow avg 40000 pps < cpu1 avg spare 65000 - 20000 headroom  => accepted",
             "    DOWN          2        1 (0)", "  refused moves: 1 (code -16: 1)"}};
}

// The log starts inside a run: a family id 0; a refusal before any sync
Case mid_run_case() {
    Log m;
    m.m("zebusr_genl_init_sock", "MED", "ZEB Family id = 0 seq_num = 13");
    m.m(kDown, "HIGH", down("ZEB_SUGG_DOWN: > Sending msg to kernel to request", 0)).move(12, -16);
    m.m(kDown, "HIGH", down("ZEB_SUGG_DOWN: > Sending msg to kernel to request", 1)).move(14, 0);
    m.m(kDown, "HIGH", "  ZEB_SUGG_DOWN: Move successful");
    return {"mid-run",
            m.text,
            {"[   0.000s] 09:00:00.000 L1 LOOKUP DULOX_ZEB -> id 0",
             "[   0.060s] 09:00:00.060 L7 DOWN   flow 0xb0b0 cpu5 -> silver cpu1 (cpu0 "
             "refused) | flow avg 40000 pps < cpu1 avg spare 65000 - 20000 headroom  => "
             "accepted",
             "  refused moves: 1 (code -16: 1)"}};
}

// BAL: the second flow of cpu6 to cpu5; UP: cpu2 loaded, to cpu4
Case up_and_bal_case() {
    Log b;
    b.start(true).sync(10).caps(kCaps).m(kUp, "LOW",
                                         "################## SILVER TO GOLD ##################");
    b.m(kUp, "MED", "  Move all flows on cpu 2 at index 2\n");
    b.m(kUp, "HIGH",
        "  ZEB_SUGG_UP: Sending msg to kernel to request that all flows on cpu 2 be moved to gold "
        "cpu 4");
    b.move(12, 0).m(kUp, "HIGH", "  ZEB_SUGG_UP: Move successful").sync(14).caps(kCaps);
    b.m(kGold, "LOW", "  num gold flows = 2").m(kBal, "LOW", "  num gold flows = 2");
    b.m(kBal, "MED", bal("ZEB_SUGG_CHECK_BAL: Checking gold flow balance"));
    b.m(kBal, "HIGH", bal("ZEB_SUGG_BAL: > Sending msg to kernel to request that")).move(16, 0);
    b.m(kBal, "HIGH", "  ZEB_SUGG_BAL: Move successful");
    return {"up and bal",
            b.text,
            {"[   0.160s] 09:00:00.160 L19 UP     all flows of cpu2 -> gold cpu4 | cpu2 spare 3000 "
             "pps "
             "< 8000 (loaded)  => accepted",
             "[   0.370s] 09:00:00.370 L41 BAL    flow 0xd00d cpu6 -> gold cpu5 | cpu5 avg spare "
             "180000 - 20000 - flow avg 70000 >= cpu6 avg spare 89000  => accepted",
             "  cycles seen: 2 (4.76 per second of run time)"}};
}

// SEG: one flow stable around its average, one fast
Case seg_case() {
    Log s;
    s.start(true)
        .sync(10)
        .m(kSs, "LOW", kSsHead)
        .m(kSs, "LOW", "  num ss flows = 1")
        .m(kSs, "LOW", slow("0x71de0", 3, "150000000"));
    s.m(kHt, "LOW", "zebusr_ht_debug_print: bkt 0 of 7");
    s.m(kHt, "LOW",
        "zebusr_ht_debug_print: \tbkt[0]: hash = 0x71de0 | rx_bps = 150000000 | is_stable = 0 | "
        "is_segmentation_enabled = 1 ");
    s.m(kHt, "LOW", history("150000000")).sync(12).m(kSs, "LOW", kSsHead);
    s.m(kSs, "LOW", "  num ss flows = 2");
    s.m(kSs, "LOW", slow("0x71de0", 3, "150000000"))
        .m(kSs, "LOW", "Flow w/ hash 0x71de0 is stable");
    s.m(kSs, "LOW", "Disabling segmentation for hash 0x71de0");
    s.sent("zebusr_set_flow_segmentation", "Sending flow segmentation req to kernel", 14, 0);
    s.m(kSs, "LOW", slow("0xf457", 5, "325000000"))
        .m(kSs, "LOW", "Disabling segmentation for hash 0xf457");
    s.sent("zebusr_set_flow_segmentation", "Sending flow segmentation req to kernel", 16, 0);
    return {"seg",
            s.text,
            {"[   0.180s] 09:00:00.180 L21 SEG    flow 0x71de0 on cpu3 segmentation off | rx 150.0 "
             "Mbps (stable rate: within 37.5 Mbps of the previous average 150.0 Mbps)  => accepted",
             "[   0.240s] 09:00:00.240 L27 SEG    flow 0xf457 on cpu5 segmentation off | rx 325.0 "
             "Mbps (fast: at or above 300 Mbps)  => accepted"}};
}

// BOOST: two processes above 500 Mbps, one boost request
Case boost_case() {
    Log o;
    o.start(true).m("dulox_freq_boost_monitor", "LOW",
                    "Evaluating PID/bps list from dulox kernel driver");
    o.m("duloxusr_send_pid_bps_req", "LOW", "########## PID - BPS REQUESTED ############\n");
    o.m("zebusr_genl_recv_pid_byte_info_from_kernel", "LOW", "  Waiting for kernel to send a msg");
    o.m("duloxusr_send_pid_bps_req", "LOW",
        "########## PID - BYTE RESPONSE SUCCESS ############\n");
    o.m("duloxusr_print_pid_bps_resp", "LOW", "list_len = 2 | timestamp = 4");
    o.m("duloxusr_print_pid_bps_resp", "LOW",
        "pid[0] = 4242\t| tx_bps[0] = 800000000 | boost_remaining_ms[0] = 0");
    o.m("duloxusr_print_pid_bps_resp", "LOW",
        "pid[1] = 999\t| tx_bps[1] = 900000000 | boost_remaining_ms[1] = 900");
    o.m(kEval, "HIGH", "Boosting pid 4242 with bps 800000000")
        .m(kEval, "HIGH", "Boosting pid 999 with bps 900000000");
    o.m("duloxusr_send_pid_boost_req", "LOW", "########## PID - BOOST REQUESTED ############\n");
    return {
        "boost",
        o.text,
        {"[   0.090s] 09:00:00.090 L12 BOOST  pid 4242 tx 800.0 Mbps (> 500 Mbps), boost left 0 "
         "ms; pid 999 tx 900.0 Mbps (> 500 Mbps), boost left 900 ms  => sent, 10000 ms each",
         "  boosts per pid: 999 (1) 4242 (1)"}};
}

// The sync times out; one attempt fails at its socket, the next connects
Case reconnection_case() {
    Log r;
    r.start(true).sync(10).m("zebusr_sync", "LOW",
                             "########## SYNC START - seq_num 12 #############\n");
    r.m("zebusr_genl_recv_int_from_kernel", "LOW", "  Waiting for kernel to send a msg");
    r.m("zebusr_netlink_msg_recv", "MED", "recv error - len_recv < 0");
    r.m("zebusr_genl_recv_int_from_kernel", "MED", "netlink failed to send to fd");
    r.m("zebusr_evaluate", "ERR", "sync failed, attempting to reconnect");
    r.m("zebusr_genl_open_sock", "ERR", "nl_open_sock: socket failed:");
    r.m("zebusr_connect_to_dulox_zeb", "MED", "zebusr_genl_open_sock failed");
    r.m("zebusr_connect_loop", "LOW", "zebusr_connect_to_dulox_zeb failed on attempt 0");
    r.m("zebusr_genl_open_sock", "MED", "nl_open_sock: skfd = 9");
    r.m("zebusr_connect_to_dulox_zeb", "MED", "zebusr_genl_open_sock complete: sk_fd = 9");
    r.m("zebusr_genl_init_sock", "MED", "ZEB Family id = 30 seq_num = 13").sync(13);
    r.m("zebusr_connect_to_dulox_zeb", "HIGH",
        "zebusr_genl_init_sock complete for ZEBUSR_GENL_FAMILY_ZEB");
    r.m("zebusr_connect_to_dulox_zeb", "HIGH", "CONNECTED to dulox_zeb.ko");
    r.m("zebusr_connect_loop", "HIGH", "zebusr_connect_to_dulox_zeb COMPLETE on attempt 1");
    return {"reconnection",
            r.text,
            {"[   0.090s] 09:00:00.090 L12 SYNC FAILED: no answer (time-out) -> reconnecting",
             "[   0.110s] 09:00:00.110 L14 CONNECT attempt failed at socket: socket failed",
             "[   0.150s] 09:00:00.150 L18 LOOKUP DULOX_ZEB -> id 30",
             "[   0.210s] 09:00:00.210 L25 CONNECTED to dulox_zeb.ko after 1 failed attempt",
             "  connection: 1 reconnections, 1 failed connection attempts, 0 failed lookups, 0 "
             "tables not opened or mapped"}};
}

// Quiet: a flow moved four times in 40 s; a request with no success line
Case flip_flop_case() {
    Log f;
    f.start(false);
    for (int i = 0; i < 4; i++) {
        bool d = i % 2 == 0;
        f.skip(10).m(
            d ? kDown : kBal, "HIGH",
            d ? down("ZEB_SUGG_DOWN: > Sending msg to kernel to request", 1)
              : std::string("  ZEB_SUGG_BAL: > Sending msg to kernel to request that gold flow "
                            "0xb0b0 with pps 40000 avg pps 40000 on cpu[1] can balance to gold "
                            "cpu[5] with avg capacity 180000 cap_w_head 160000"));
        f.m(d ? kDown : kBal, "HIGH",
            d ? "  ZEB_SUGG_DOWN: Move successful" : "  ZEB_SUGG_BAL: Move successful");
    }
    f.skip(1).m(kDown, "HIGH", down("ZEB_SUGG_DOWN: > Sending msg to kernel to request", 0));
    f.skip(1).m("zebusr_sig_handler", "HIGH", "Signal Handler Invoked!");
    return {"flip-flop",
            f.text,
            {"[  20.010s] 09:00:20.010 L4 BAL    flow 0xb0b0 cpu1 -> gold cpu5 | cpu5 avg spare "
             "180000 "
             "- 20000 - flow avg 40000 >= cpu1 avg spare not logged  => accepted",
             "[  41.040s] 09:00:41.040 L10 DOWN   flow 0xb0b0 cpu5 -> silver cpu0 | flow avg 40000 "
             "pps < cpu0 avg spare 65000 - 20000 headroom  => not accepted (answer not logged)",
             "    DOWN          3        2 (1)",
             "    flow 0xb0b0: 4 moves in run 1 at 10.000 s, 20.010 s, 30.020 s, 40.030 s"}};
}

// Verbose switched off and on; a line that is no log line
Case quiet_case() {
    Log q;
    q.start(true).sync(10).m("zebusr_stop_logging", "HIGH", "Stopping verbose logging");
    q.m(kEval, "HIGH", "pid 999 with bps 900000000 has 5995 ms of boost remaining");
    q.m("zebusr_start_logging", "HIGH", "Starting verbose logging");
    q.text += "garbage\n";
    q.sync(12);
    return {
        "quiet",
        q.text,
        {"[   0.050s] 09:00:00.050 L7 VERBOSE off (SIGUSR2): decisions from here show only what "
         "is "
         "always logged",
         "[   0.070s] ??:??:??.??? L10 PROBLEM not a log line (no stamp, function, line number "
         "and level): \"garbage\"",
         "  periods without verbose lines: 1",
         "    lines 7-8, 09:00:00.050 - 09:00:00.060 (0.010 s)", "  problems: 1 (no prefix: 1)"}};
}

// Thirteen moves of one flow in 13 s: twelve times listed, then "...".
Case many_moves_case() {
    zlog::test::Log l;
    l.script("@36000 main_init");
    for (int i = 1; i <= 13; i++)
        l.at(36000 + i).script("down_request b0b0 1 1 5 0 9 9; down_accepted");
    return {"many moves",
            l.text,
            {"    flow 0xb0b0: 13 moves in run 1 at 1.000 s, 2.000 s, 3.000 s, 4.000 s, 5.000 s, "
             "6.000 s, 7.000 s, 8.000 s, 9.000 s, 10.000 s, 11.000 s, 12.000 s, ..."}};
}

// The log is cut after a DOWN's code 0, before its "Move successful".
Case cut_success_case() {
    return {"cut success",
            zlog::test::script("@36000 main_init; main_verbose_boot; sync_start 1; reply 2 0; "
                               "down_request b0b0 1 1 5 0 9 9; move_sent 3; reply 4 0"),
            {"[   0.000s] 10:00:00.000 L7 DOWN   flow 0xb0b0 cpu5 -> silver cpu0 | flow avg 1 pps "
             "< cpu0 avg spare 9 - 20000 headroom  => accepted (no success line)",
             "    DOWN          1        1 (0)", "  refused moves: 0"}};
}

// A run from midnight without verbose lines, longer than the stamps kept:
// the quiet stretch's start is told from the run's clock; problem lines past
// 200 are only counted.
Case long_quiet_case() {
    std::string text = zlog::test::script("@0 main_init");
    for (int i = 0; i < 1 << 16; i++) text += "x\n";
    return {"long quiet",
            text + zlog::test::script("@2 cleanup_done"),
            {"[   0.000s] ??:??:??.??? L202 PROBLEM more problems: only counted from here",
             "[   0.000s] 00:00:00.000 L1 QUIET  lines 1-65538 without verbose lines: tables and "
             "answers there not logged (00:00:00.000 - 00:00:02.000)",
             "  problems: 65536 (no prefix: 65536)"}};
}

// Verbose off: the capacities read before speak no more for later cycles.
Case stale_caps_case() {
    Log a;
    a.start(true).sync(10).caps(kCaps).m("zebusr_stop_logging", "HIGH", "Stopping verbose logging");
    a.m(kBal, "HIGH", bal("ZEB_SUGG_BAL: > Sending msg to kernel to request that"));
    return {"stale caps",
            a.text,
            {"[   0.150s] 09:00:00.150 L17 BAL    flow 0xd00d cpu6 -> gold cpu5 | cpu5 avg spare "
             "180000 - 20000 - flow avg 70000 >= cpu6 avg spare not logged  => not accepted "
             "(answer not logged)"}};
}

const Case kCases[] = {down_case(),        mid_run_case(),    up_and_bal_case(),
                       seg_case(),         boost_case(),      reconnection_case(),
                       flip_flop_case(),   quiet_case(),      many_moves_case(),
                       cut_success_case(), long_quiet_case(), stale_caps_case()};

TEST(Explain, DecisionsStoryAndSummary) {
    for (const Case &k : kCases) {
        SCOPED_TRACE(k.name);
        std::ostringstream out;
        EXPECT_EQ(zlog::explain_text(k.log, out), 0);
        std::istringstream got(out.str());
        std::string line;
        size_t next = 0;
        while (next < k.want.size() && std::getline(got, line)) next += line == k.want[next];
        EXPECT_EQ(next, k.want.size())
            << "missing: " << (next < k.want.size() ? k.want[next] : "") << "\nlog:\n"
            << k.log << "\noutput:\n"
            << out.str();
    }
}

TEST(Explain, CsvAndNothingToRead) {
    std::ostringstream out;
    std::string_view csv =
        "time,seq_num,CPU0,CPU1,CPU2,CPU3,CPU4,CPU5,CPU6,CPU7\n09:00:00.100000,1,1,2,3,4,5,6,7,8\n"
        "09:00:01.100000,2,1,2\n09:00:02.000000,3,1,2,3,4,5,6,7,8\n";
    EXPECT_EQ(zlog::explain_text(Log().start(true).text, out, &csv), 0);
    EXPECT_NE(
        out.str().find("\n  csv: 2 rows, 09:00:00.100 - 09:00:02.000, 1 problems (first: line 3: "
                       "4 fields where a row has 10)\n"),
        std::string::npos)
        << out.str();
    out.str("");
    EXPECT_EQ(zlog::explain_text("", out, &csv), 2);
    EXPECT_EQ(out.str(), "zebusr-log explain: LOG: the log is empty, nothing to explain\n");
}

}  // namespace
