// zebusr-log trace on short logs written as the daemon writes them: each case
// asserts every event of the trace, rendered compactly, and its metadata.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "log_text.hpp"
#include "verbs.hpp"

namespace {

const std::string kDir = std::string(ZEBUSR_TEST_RUN_ROOT) + "/trace_test";

// A log under construction: one message every 10 ms from `ms` after midnight.
struct Log {
    explicit Log(uint64_t ms = 9 * 3600000) : ms_(ms) {}
    Log &m(const char *func, const char *level, const std::string &msg) {
        text += zlog::test::prefix(ms_ * 1000, func, 10, level) + msg + "\n";
        ms_ += 10;
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
    Log &sync(int seq, int code = 0) {
        m("zebusr_sync", "LOW",
          "########## SYNC START - seq_num " + std::to_string(seq) + " #############\n");
        return answer(seq + 1, code);
    }
    Log &caps(const std::vector<int> &pps) {
        m("zebusr_read_capacities", "LOW",
          "################## CAP FILE CONTENTS #################");
        for (size_t i = 0; i < pps.size(); i++)
            m("zebusr_read_capacities", "LOW",
              "  ZEB_CAPS: > cpu[" + std::to_string(i) +
                  "] with pps capacity = " + std::to_string(pps[i]) +
                  " | avg pps cap = " + std::to_string(pps[i] + 1) + " bps = 0");
        return *this;
    }
    Log &down(int cpu, int seq, int code) {  // flow 0xb0b0 of cpu5 to a silver cpu
        const char *f = "zebusr_move_gold_flow_down_to_silver";
        m(f, "HIGH",
          "  ZEB_SUGG_DOWN: > Sending msg to kernel to request that gold flow 0xb0b0 with pps "
          "40000 avg pps 40000 on cpu[5] can move to silver cpu[" +
              std::to_string(cpu) + "] with avg capacity 65000 cap_w_head 45000");
        m("zebusr_try_to_move_flow", "LOW", "Sending sugg info to kernel");
        m("zebusr_try_to_move_flow", "MED",
          "Sent suggestion msg with seq_num " + std::to_string(seq));
        answer(seq + 1, code);
        return code ? *this : m(f, "HIGH", "  ZEB_SUGG_DOWN: Move successful");
    }
    Log &connect(int seq) {  // a lookup, the connection's sync, "CONNECTED"
        const char *c = "zebusr_connect_to_dulox_zeb";
        m("zebusr_genl_open_sock", "MED", "nl_open_sock: skfd = 9");
        m(c, "MED", "zebusr_genl_open_sock complete: sk_fd = 9");
        m("zebusr_genl_init_sock", "MED", "ZEB Family id = 30 seq_num = " + std::to_string(seq));
        sync(seq).m(c, "HIGH", "zebusr_genl_init_sock complete for ZEBUSR_GENL_FAMILY_ZEB");
        m(c, "HIGH", "CONNECTED to dulox_zeb.ko");
        return m("zebusr_connect_loop", "HIGH",
                 "zebusr_connect_to_dulox_zeb COMPLETE on attempt 1");
    }
    std::string text;
    uint64_t ms_;
};

std::string slurp(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

// One event a line: "ph pid/tid name @ts +dur key=value..." with the args that
// say what happened; "pids=N" counts a query's per-process args.
std::string render(const nlohmann::json &e) {
    std::ostringstream o;
    o << e["ph"].get<std::string>() << ' ' << e["pid"] << '/' << e["tid"] << ' '
      << e["name"].get<std::string>();
    if (e.contains("ts"))
        o << " @" << e["ts"];
    if (e.contains("dur"))
        o << " +" << e["dur"];
    int pids = 0;
    for (const auto &[k, v] : e["args"].items()) {
        pids += k.rfind("pid ", 0) == 0;  // its tx_bps and boost_left_ms
        for (const char *want :
             {"name", "sync", "answer", "text", "pps", "cpu", "dest", "runs", "cycles", "decisions",
              "first_stamp", "problems", "csv_problems", "clock"})
            if (k == want && !(k == "clock" && v.get<std::string>().rfind("ts:", 0) == 0))
                o << ' ' << k << '=' << (v.is_string() ? v.get<std::string>() : v.dump());
    }
    if (pids)
        o << " pids=" << pids;
    return o.str();
}

// Runs the verb on `log` (and `csv`) with `extra` words; the trace rendered,
// thread names left out, its metadata last; or "exit N" when it fails.
std::string trace(const std::string &log, std::vector<std::string> extra = {},
                  const std::string &csv = "") {
    std::string base = kDir + "/" + ::testing::UnitTest::GetInstance()->current_test_info()->name();
    std::ofstream(base + ".log", std::ios::binary) << log;
    zlog::Words w = {base + ".log", "-o", base + ".json"};
    if (!csv.empty()) {
        std::ofstream(base + ".csv") << csv;
        w.insert(w.end(), {"--csv", base + ".csv"});
    }
    w.insert(w.end(), extra.begin(), extra.end());
    if (int rc = zlog::verb_trace(w))
        return "exit " + std::to_string(rc);
    auto j = nlohmann::json::parse(slurp(base + ".json"));  // throws on invalid JSON
    std::string out;
    for (const auto &e : j["traceEvents"])
        if (e["name"] != "thread_name")
            out += render(e) + "\n";
    nlohmann::json meta = {{"ph", "meta"}, {"pid", 0}, {"tid", 0}, {"name", "-"}};
    meta["args"] = j["metadata"];
    return out + render(meta) + "\n";
}

struct Case {
    const char *name;
    std::string log;
    std::string want;
};

std::vector<Case> cases() {
    std::vector<Case> c;
    Log a;  // two cycles: caps, a refused then an accepted move
    a.start(true).sync(10).caps({65000, 3000}).down(0, 12, -16).down(1, 14, 0);
    a.sync(16).caps({65000, 4000});
    c.push_back(
        {"cycle", a.text,
         "M 1/0 process_name name=zebusrd run 1 (line 1)\n"
         "I 1/0 run start @32400000000\n"
         "I 1/1 DOWN 0xb0b0 cpu5->0 @32400080000 answer=code -16 cpu=5 dest=0 pps=40000\n"
         "I 1/1 DOWN 0xb0b0 cpu5->1 @32400130000 answer=code 0 cpu=5 dest=1 pps=40000\n"
         "X 1/1 cycle @32400020000 +160000 decisions=2 sync=code 0\n"
         "C 1/0 cpu0 spare @32400020000 pps=65000\n"
         "C 1/0 cpu0 avg spare @32400020000 pps=65001\n"
         "C 1/0 cpu1 spare @32400020000 pps=3000\n"
         "C 1/0 cpu1 avg spare @32400020000 pps=3001\n"
         "C 1/0 flow 0xb0b0 @32400130000 cpu=1\n"
         "X 1/1 cycle @32400190000 +50000 decisions=0 sync=code 0\n"
         "C 1/0 cpu1 spare @32400190000 pps=4000\n"
         "C 1/0 cpu1 avg spare @32400190000 pps=4001\n"
         "I 1/0 run end: the log ends @32400240000 text=the log ends\n"
         "meta 0/0 - cycles=2 decisions=2 first_stamp=09:00:00.000000 problems=0 runs=1\n"});
    Log r;  // connected; a sync refused, then one timing out: a reconnection
    r.start(true).connect(1).sync(10, -22).m("zebusr_sync", "LOW",
                                             "########## SYNC START - seq_num 12 #############\n");
    r.m("zebusr_genl_recv_int_from_kernel", "LOW", "  Waiting for kernel to send a msg");
    r.m("zebusr_netlink_msg_recv", "MED", "recv error - len_recv < 0");
    r.m("zebusr_genl_recv_int_from_kernel", "MED", "netlink failed to send to fd");
    r.m("zebusr_evaluate", "ERR", "sync failed, attempting to reconnect");
    r.m("zebusr_genl_open_sock", "ERR", "nl_open_sock: socket failed:");
    r.m("zebusr_connect_to_dulox_zeb", "MED", "zebusr_genl_open_sock failed");
    r.m("zebusr_connect_loop", "LOW", "zebusr_connect_to_dulox_zeb failed on attempt 0");
    r.connect(13);
    c.push_back(
        {"reconnection", r.text,
         "M 1/0 process_name name=zebusrd run 1 (line 1)\n"
         "I 1/0 run start @32400000000\n"
         "I 1/1 lookup DULOX_ZEB @32400040000 answer=code 0\n"
         "X 1/1 connect sync @32400050000 +20000 decisions=0 sync=code 0\n"
         "X 1/1 connect DULOX_ZEB @32400040000 +60000 answer=not logged\n"
         "X 1/1 cycle @32400110000 +20000 decisions=0 sync=code -22\n"
         "X 1/1 cycle @32400140000 +20000 decisions=0 sync=no answer\n"
         "I 1/1 sync failed: no answer @32400180000 answer=no answer\n"
         "X 1/1 connect DULOX_ZEB failed: socket: socket failed, not logged @32400200000 "
         "+0 answer=not logged text=socket: socket failed\n"
         "I 1/1 lookup DULOX_ZEB @32400240000 answer=code 0\n"
         "X 1/1 connect sync @32400250000 +20000 decisions=0 sync=code 0\n"
         "X 1/1 connect DULOX_ZEB @32400240000 +60000 answer=not logged\n"
         "X 1/1 reconnect after sync no answer @32400180000 +120000\n"
         "I 1/0 run end: the log ends @32400300000 text=the log ends\n"
         "meta 0/0 - cycles=4 decisions=0 first_stamp=09:00:00.000000 problems=0 runs=1\n"});
    Log s;  // the daemon restarted: a second process
    s.start(true).sync(10).start(false).sync(10);
    c.push_back(
        {"restart", s.text,
         "M 1/0 process_name name=zebusrd run 1 (line 1)\n"
         "I 1/0 run start @32400000000\n"
         "X 1/1 cycle @32400020000 +20000 decisions=0 sync=code 0\n"
         "I 1/0 run end: the daemon started again with no end lines before @32400040000 "
         "text=the daemon started again with no end lines before\n"
         "M 2/0 process_name name=zebusrd run 2 (line 7)\n"
         "I 2/0 run start @32400050000\n"
         "X 2/1 cycle @32400060000 +20000 decisions=0 sync=code 0\n"
         "X 2/3 no verbose lines @32400050000 +30000 text=0.030 s without verbose lines\n"
         "I 2/0 run end: the log ends @32400080000 text=the log ends\n"
         "meta 0/0 - cycles=2 decisions=0 first_stamp=09:00:00.000000 problems=0 runs=2\n"});
    Log n(86400000 - 30);  // a cycle across midnight
    n.start(true).sync(10).caps({1, 2});
    c.push_back(
        {"midnight", n.text,
         "M 1/0 process_name name=zebusrd run 1 (line 1)\n"
         "I 1/0 run start @86399970000\n"
         "I 1/0 note: midnight passed @86400000000 text=midnight passed\n"
         "X 1/1 cycle @86399990000 +50000 decisions=0 sync=code 0\n"
         "C 1/0 cpu0 spare @86399990000 pps=1\n"
         "C 1/0 cpu0 avg spare @86399990000 pps=2\n"
         "C 1/0 cpu1 spare @86399990000 pps=2\n"
         "C 1/0 cpu1 avg spare @86399990000 pps=3\n"
         "I 1/0 run end: the log ends @86400040000 text=the log ends\n"
         "meta 0/0 - cycles=1 decisions=0 first_stamp=23:59:59.970000 problems=0 runs=1\n"});
    Log q;  // verbose off: moves outside cycles; a refused one moves nothing
    q.start(false).down(0, 12, 0).down(1, 14, -16);
    q.m("zebusr_balance_gold_flows", "HIGH",
        "  ZEB_SUGG_BAL: > Sending msg to kernel to request that gold flow 0xb0b0 with pps 40000 "
        "avg pps 40000 on cpu[0] can balance to gold cpu[5] with avg capacity 180000 cap_w_head "
        "160000");
    q.m("zebusr_balance_gold_flows", "HIGH", "  ZEB_SUGG_BAL: Move successful");
    c.push_back(
        {"quiet moves", q.text,
         "M 1/0 process_name name=zebusrd run 1 (line 1)\n"
         "I 1/0 run start @32400000000\n"
         "I 1/1 DOWN 0xb0b0 cpu5->0 @32400010000 answer=code 0 cpu=5 dest=0 pps=40000\n"
         "I 1/1 DOWN 0xb0b0 cpu5->1 @32400070000 answer=code -16 cpu=5 dest=1 pps=40000\n"
         "I 1/1 BAL 0xb0b0 cpu0->5 @32400120000 answer=code 0 cpu=0 dest=5 pps=40000\n"
         "X 1/3 no verbose lines @32400000000 +130000 text=0.130 s without verbose lines\n"
         "C 1/0 flow 0xb0b0 @32400010000 cpu=0\n"
         "C 1/0 flow 0xb0b0 @32400120000 cpu=5\n"
         "I 1/0 run end: the log ends @32400130000 text=the log ends\n"
         "meta 0/0 - cycles=0 decisions=3 first_stamp=09:00:00.000000 problems=0 runs=1\n"});
    Log p;  // a line that is no log line, with bytes JSON must escape
    p.start(true);
    p.text += "\x01\x7f\xff \"q\" \\ end\n";
    c.push_back(
        {"problem", p.text,
         "M 1/0 process_name name=zebusrd run 1 (line 1)\n"
         "I 1/0 run start @32400000000\n"
         "I 1/3 line 3: bytes that are not text @32400010000 text=\x1\x7F\xC3\xBF \"q\" \\ end\n"
         "I 1/0 run end: the log ends @32400010000 text=the log ends\n"
         "meta 0/0 - cycles=0 decisions=0 first_stamp=09:00:00.000000 problems=1 runs=1\n"});
    Log b;  // a query with one entry more than the driver's list holds
    b.start(true).m("duloxusr_send_pid_bps_req", "LOW",
                    "########## PID - BPS REQUESTED ############\n");
    b.m("duloxusr_send_pid_bps_req", "LOW",
        "########## PID - BYTE RESPONSE SUCCESS ############\n");
    b.m("duloxusr_print_pid_bps_resp", "LOW", "list_len = 33 | timestamp = 4");
    for (int i = 0; i < 33; i++)
        b.m("duloxusr_print_pid_bps_resp", "LOW",
            "pid[" + std::to_string(i) + "] = " + std::to_string(100 + i) + "\t| tx_bps[" +
                std::to_string(i) + "] = 1000 | boost_remaining_ms[" + std::to_string(i) + "] = 0");
    b.m("zebusr_sig_handler", "HIGH", "Signal Handler Invoked!");
    c.push_back(
        {"query", b.text,
         "M 1/0 process_name name=zebusrd run 1 (line 1)\n"
         "I 1/0 run start @32400000000\n"
         "X 1/2 pid/bps query @32400020000 +350000 answer=code 0 pids=64\n"
         "I 1/0 run end: stopped by a signal @32400380000 text=stopped by a signal\n"
         "meta 0/0 - cycles=0 decisions=0 first_stamp=09:00:00.000000 problems=0 runs=1\n"});
    return c;
}

TEST(Trace, EventsOfShortLogs) {
    std::filesystem::create_directories(kDir);
    for (const Case &k : cases()) {
        SCOPED_TRACE(k.name);
        EXPECT_EQ(trace(k.log), k.want) << k.log;
    }
}

// --clock STAMP=SECONDS: every ts moves by SECONDS * 1e6 - STAMP; a bad form
// is refused. A CSV problem goes on the first run's problems track.
TEST(Trace, ClockAndCsv) {
    std::filesystem::create_directories(kDir);
    std::string log = Log().start(true).text;
    // The whole trace of that log with its first stamp at `ts` (or "exit 2").
    auto at = [](const char *clock, uint64_t ts) {
        std::string c = clock, t = std::to_string(ts), t2 = std::to_string(ts + 10000);
        return "M 1/0 process_name name=zebusrd run 1 (line 1)\nI 1/0 run start @" + t +
               "\nI 1/0 run end: the log ends @" + t2 +
               " text=the log ends\nmeta 0/0 - clock=the log's " + c.substr(0, c.find('=')) +
               " is " + c.substr(c.find('=') + 1) +
               " s on the system trace's clock cycles=0 decisions=0 first_stamp=09:00:00.000000 "
               "problems=0 runs=1\n";
    };
    struct {
        const char *clock;
        std::string want;
    } table[] = {
        {"09:00:00.000000=12.5", at("09:00:00.000000=12.5", 12500000)},
        {"08:59:59.000000=0.0000015", at("08:59:59.000000=0.0000015", 1000002)},
        {"09:00:00.000000=0", at("09:00:00.000000=0", 0)},
        {"09:00:00.000000=1e9", at("09:00:00.000000=1e9", 1000000000000000)},
        {"09:00:00.000000", "exit 2"},
        {"9:00=1", "exit 2"},
        {"09:00:00.000000=-1", "exit 2"},
        {"09:00:00.000000=x", "exit 2"},
        {"09:00:00.000000=1x", "exit 2"},
        {"09:00:00.000000=", "exit 2"},
        {"09:00:00.000000=2e9", "exit 2"},
        {"09:00:00.000000=nan", "exit 2"},
    };
    for (const auto &k : table) {
        SCOPED_TRACE(k.clock);
        EXPECT_EQ(trace(log, {"--clock", k.clock}), k.want);
    }
    EXPECT_EQ(
        trace(log, {},
              "time,seq_num,CPU0,CPU1,CPU2,CPU3,CPU4,CPU5,CPU6,CPU7\n09:00:00.000000,1,1,2\n"),
        "M 1/0 process_name name=zebusrd run 1 (line 1)\nI 1/0 run start @32400000000\nI 1/0 "
        "run end: the log ends @32400010000 text=the log ends\nI 1/3 csv line 2: 4 fields "
        "where a row has 10 @0\nmeta 0/0 - csv_problems=1 cycles=0 decisions=0 "
        "first_stamp=09:00:00.000000 problems=0 "
        "runs=1\n");
}

}  // namespace
