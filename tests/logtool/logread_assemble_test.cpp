// The assembler over short logs written as the daemon writes them: each case
// compares everything the sink receives (cycles, decisions, events) as text.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "logmodel.hpp"

namespace zlog {
namespace {

// Lines in the daemon's prefix format from a script: steps separated by ';'
// or a new line, each a message key and its arguments ('_' for a blank in
// one), "@SECONDS" for the stamp, and two shorthands: "reply SEQ CODE" (the
// wait and the kernel's code) and "caps PPS" (a capacity table whose entry 6
// names silver cpu 2 again, with that pps).
class Log {
   public:
    Log &at(double seconds) {
        us_ = static_cast<uint64_t>(seconds * 1e6 + 0.5);
        return *this;
    }
    Log &put(Msg m, const std::vector<std::string> &args = {}) {
        const MessageInfo &info = message_info(m);
        uint64_t s = us_ / 1000000 % 86400;
        char prefix[128];
        std::snprintf(prefix, sizeof prefix,
                      " %02u:%02u:%02u.%06u %40s():%3u (%s): ", unsigned(s / 3600),
                      unsigned(s / 60 % 60), unsigned(s % 60), unsigned(us_ % 1000000), info.func,
                      42u, level_name(info.level));
        text += prefix;
        size_t next = 0;
        for (const char *f = info.format; *f; f++) {
            if (*f != '%') {
                text += *f;
                continue;
            }
            while (*++f == 'l') {
            }
            text += next < args.size() ? args[next++] : "0";
        }
        text += "\n";
        us_ += 10;  // lines of one step come microseconds apart
        return *this;
    }
    Log &script(std::string steps) {
        std::replace(steps.begin(), steps.end(), '\n', ';');
        std::istringstream in(steps);
        for (std::string step; std::getline(in, step, ';');) run(step);
        return *this;
    }
    std::string text;

   private:
    void run(const std::string &step) {
        std::istringstream words(step);
        std::string key, w;
        std::vector<std::string> args;
        words >> key;
        if (!key.empty() && key[0] == '@') {
            at(std::stod(key.substr(1)));
            words >> key;
        }
        while (words >> w) {
            std::replace(w.begin(), w.end(), '_', ' ');
            args.push_back(w);
        }
        if (key == "reply")
            put(Msg::recv_int_waiting).put(Msg::recv_int_code, args);
        else if (key == "caps")
            caps(args.at(0));
        else if (!key.empty())
            put(msg(key), args);
    }
    void caps(const std::string &silver_pps) {
        put(Msg::caps_header);
        const char *cpus = "01234527";
        for (int i = 0; i < 8; i++)
            put(Msg::caps_entry, {std::string(1, cpus[i]),
                                  i == 6 ? silver_pps : std::to_string(20000 + i), "50000", "0"});
    }
    static Msg msg(const std::string &key) {
        for (int i = 0; i < kMessageCount; i++)
            if (key == kMessages[i].key)
                return static_cast<Msg>(i);
        ADD_FAILURE() << "no message " << key;
        return Msg::Unknown;
    }
    uint64_t us_ = 0;
};

std::string answer(const Answer &a) {
    if (a.outcome == Outcome::Code)
        return "code " + std::to_string(a.code) + "@" + std::to_string(a.line);
    return std::string(outcome_name(a.outcome)) + (a.line ? "@" + std::to_string(a.line) : "");
}

std::string flows(const std::vector<FlowEntry> &v) {
    if (v.size() > 4)
        return " " + std::to_string(v.size()) + " entries";
    std::string s;
    for (const auto &f : v) {
        char b[96];
        std::snprintf(b, sizeof b, " %x/%d/%lu/%lu/%lu", f.hash, f.cpu, (unsigned long)f.rx_pps,
                      (unsigned long)f.avg_pps, (unsigned long)f.rx_bps);
        s += b;
    }
    return s;
}

// Everything the sink gets, one item a line.
struct Transcript : Sink {
    std::string out;
    void cycle(const Cycle &c) override {
        char b[160];
        std::snprintf(b, sizeof b, "cycle r%lu#%lu %lu-%lu t=%lu seq=%u%s sync=%s",
                      (unsigned long)c.run, (unsigned long)c.index, (unsigned long)c.line,
                      (unsigned long)c.last_line, (unsigned long)c.t_us, c.seq,
                      c.connect_sync ? " connect" : "", answer(c.sync).c_str());
        out += b;
        if (c.ss_read)
            out += " ss" + std::to_string(c.ss_len) + (c.ss_max ? "max" : "") + ":" + flows(c.ss);
        for (auto h : c.created) out += " +" + std::to_string(h);
        for (auto h : c.removed) out += " -" + std::to_string(h);
        for (const auto &n : c.history)
            out += " h" + std::to_string(n.hash) + "/" + std::to_string(n.bucket) + "/" +
                   std::to_string(n.rx_bps) + "/" + std::to_string(n.stable) +
                   std::to_string(n.seg_enabled) + "/" + std::to_string(n.len) + "/" +
                   std::to_string(n.avg);
        if (c.caps_read)
            out += " caps" + std::to_string(c.caps.size()) + (c.caps_bad_cpu ? "bad" : "");
        if (c.gold_read)
            out += " gold" + std::to_string(c.gold_len) + (c.gold_max ? "max" : "") + ":" +
                   flows(c.gold);
        out += " dec=" + std::to_string(c.decisions.size()) + (c.complete ? " complete\n" : "\n");
    }
    void decision(const Decision &d, uint64_t run) override {
        char b[200];
        std::snprintf(b, sizeof b, "%s r%lu@%lu t=%lu %x %d>%d %lu/%lu/%lu/%lu bps=%lu%s",
                      kind_name(d.kind), (unsigned long)run, (unsigned long)d.line,
                      (unsigned long)d.t_us, d.hash, d.cur, d.dest, (unsigned long)d.pps,
                      (unsigned long)d.avg_pps, (unsigned long)d.cap, (unsigned long)d.cap_w_head,
                      (unsigned long)d.rx_bps, d.stable ? " stable" : "");
        out += b;
        for (const auto &x : d.boosts)
            out += " pid" + std::to_string(x.pid) + "/" + std::to_string(x.tx_bps) + "/" +
                   std::to_string(x.boost_left_ms);
        out += " " + answer(d.answer) + (d.accepted ? " accepted\n" : "\n");
    }
    void event(const Event &e) override {
        out += std::string(event_name(e.kind)) + " r" + std::to_string(e.run) + "@" +
               std::to_string(e.line);
        if (e.last_line != e.line)
            out += "-" + std::to_string(e.last_line);
        if (!e.family.empty())
            out += " " + e.family;
        if (e.number)
            out += " n=" + std::to_string(e.number);
        if (e.answer.outcome != Outcome::Unknown || e.answer.line)
            out += " " + answer(e.answer);
        if (e.kind == EventKind::RunEnd)
            out += " t=" + std::to_string(e.t_us);
        if (e.kind == EventKind::Query)
            out += std::string(e.valid ? " valid" : " invalid") +
                   " len=" + std::to_string(e.list_len) +
                   " rates=" + std::to_string(e.rates.size()) +
                   (e.timestamp ? " ts=" + std::to_string(e.timestamp) : "");
        if (e.problem != Problem::None)
            out += std::string(" [") + problem_text(e.problem) + "]";
        std::string text = e.text.substr(0, 72);
        for (char &c : text) c = c < ' ' ? '?' : c;
        out += text.empty() ? "\n" : ": " + text + "\n";
    }
};

std::string assemble(const std::string &text) {
    Transcript t;
    read_log_text(text, t);
    return t.out;
}

std::string script(const char *steps) {
    return Log{}.script(steps).text;
}

// CR LF, bytes that are not text, a megabyte line, a stray empty line, then
// a capacity entry for cpu 8 and a gold table of 200 flows.
std::string messy() {
    std::string text = script("@36000 main_init; main_verbose_boot");
    text.replace(text.find('\n'), 1, "\r\n");
    text += std::string("x\0y\n", 4) + std::string(kMaxLine + 5, 'z') + "\n\n";
    Log l;
    l.script("@36000.001 sync_start 1; recv_int_code 2 0; ss_header; ss_count 200; ss_max");
    l.script("caps_header; caps_entry 8 1 1 1");
    l.script("caps_bad_cpu; gold_header; gold_count 200");
    for (int i = 1; i <= 128; i++) l.put(Msg::gold_entry, {std::to_string(i), "4", "1", "1"});
    return text + l.put(Msg::gold_max).text;
}

// Both threads wait on a reply when a receive fails: the line is the boost
// thread's only once the evaluation goes on as after a success; a query list
// past what the driver holds; lines in CR LF from the third on.
std::string shared_receive() {
    Log l;
    l.script(R"(@36000 main_init; main_verbose_boot; sync_start 1; recv_int_waiting; recv_error
query_requested; recv_pid_waiting; recv_invalid_reply; recv_pid_failed; recv_int_failed
sync_start 2; recv_int_waiting; query_requested; recv_pid_waiting; recv_msg_error; query_success
query_requested; recv_pid_waiting; recv_error; recv_pid_failed; recv_int_failed
@36001 query_requested; recv_pid_waiting; query_success; rates_header; rates_list_len 70 77)");
    for (int i = 0; i < 70; i++)
        l.put(Msg::rates_entry, {std::to_string(i), std::to_string(100 + i), "0", "5", "0", "9"});
    l.script("eval_boost_left 100 5 9; sync_start 3");
    std::string text = l.text;
    size_t third = text.find('\n', text.find('\n', text.find('\n') + 1) + 1);
    for (size_t at = third; at != std::string::npos; at = text.find('\n', at + 2))
        text.replace(at, 1, "\r\n");
    return text;
}

struct Case {
    const char *name;
    std::string log;
    const char *want;
};

const Case kCases[] = {
    {"empty", "", ""},
    {"cycle_with_tables_down_refused_then_accepted",
     script(R"(@36000 main_init; main_verbose_boot; eval_started; sock_fd 6; connect_sock_done 6
init_sock_zeb_id 30 1; sync_start 1; reply 2 0; connect_family_done; connect_complete 0
@36000.5 sync_start 2; recv_int_code 3 0; ss_header; ss_count 3; ss_entry a1 2 100 90 5000
ht_create_adding a1 1; ss_bad_hash; ss_entry b2 3 10 10 0; ht_remove_removing 2 b2
ht_print_header; ht_print_node 1 a1 5000 0 1; ht_print_history a1 1 5000 5000; caps 20000
gold_header; gold_count 3; gold_entry c3 5 40000 39000; gold_bad_hash
down_request c3 40000 39000 5 0 65000 45000; move_sent 3; reply 4 -16
down_request c3 40000 39000 5 1 70000 50000; recv_int_code 5 0; down_accepted
@36001 sig_handler; cleanup_done)"),
     R"(run start r0@1 n=1
lookup r0@6 DULOX_ZEB n=30 code 0@6
cycle r0#0 7-11 t=60 seq=1 connect sync=code 0@10 dec=0 complete
connected r0@12
DOWN r0@39 t=500250 c3 5>0 40000/39000/65000/45000 bps=0 code -16@42
DOWN r0@43 t=500290 c3 5>1 40000/39000/70000/50000 bps=0 code 0@44 accepted
cycle r0#1 13-45 t=500000 seq=2 sync=code 0@15 ss3: a1/2/100/90/5000 0/0/0/0/0 b2/3/10/10/0 +161 -178 h161/1/5000/01/1/5000 caps8 gold3: c3/5/40000/39000/0 0/0/0/0/0 dec=2 complete
run end r0@47 t=1000010: stopped by a signal; clean-up complete
)"},
    {"up_lost_reply_then_accepted_and_seg_refused",
     script(R"(@36000 main_init; main_verbose_boot; sync_start 5; reply 6 0; ss_header; ss_count 1
ss_entry d4 2 1 1 400000000; ss_stable d4; ss_seg_disabling d4; seg_sent 6; reply 7 -5
caps 3000; up_loaded 2 6; up_request 2 4; recv_int_waiting; recv_error; recv_int_failed
up_request 2 5; move_send_failed; up_request 2 7; recv_int_code 8 0; up_accepted; sync_start 8)"),
     R"(run start r0@1 n=1
SEG r0@11 t=90 d4 2>-1 0/0/0/0 bps=400000000 stable code -5@14
UP r0@26 t=230 0 2>4 3000/6/0/0 bps=0 no answer@28
UP r0@30 t=270 0 2>5 3000/6/0/0 bps=0 not sent@31
UP r0@32 t=290 0 2>7 3000/6/0/0 bps=0 code 0@33 accepted
cycle r0#0 3-34 t=20 seq=5 sync=code 0@6 ss1: d4/2/1/1/400000000 caps8 dec=4 complete
cycle r0#1 35-35 t=320 seq=8 sync=not logged dec=0
run end r0@35 t=320: the log ends
)"},
    {"sync_time_out_and_reconnection",
     script(
         R"(@36000 main_init; @36001 log_verbose_on; log_csv_opened; sync_start 9; recv_int_waiting
recv_error; recv_int_failed; eval_sync_failed; connect_sock_done 7; recv_msg_error
init_sock_send_failed; connect_init_sock_failed; connect_attempt_failed 0
@36004 sock_bind_failed; connect_sock_failed; connect_attempt_failed 1; connect_sock_done 8
init_sock_zeb_id 30 10; sync_start 10; reply 11 0; connect_family_done
cap_file_open_failed No_such_file_or_directory; connect_file_failed cap
connect_attempt_failed 2; connect_sock_done 9; sync_start 11; reply 12 0; connect_family_done
connect_complete 3)"),
     R"(run start r0@1
verbose on r0@2
gap r0@1: 1.000 s without verbose lines
csv opened r0@3
cycle r0#0 4-9 t=1000020 seq=9 sync=no answer@7 dec=0 complete
sync failed r0@9 no answer@7
lookup r0@13 DULOX_ZEB n=-1 NLMSG_ERROR@11: the family could not be resolved
connect failed r0@13 NLMSG_ERROR@11: family lookup
connect failed r0@16 n=1: socket: bind failed
lookup r0@19 DULOX_ZEB n=30 code 0@19
cycle r0#1 20-24 t=4000050 seq=10 connect sync=code 0@23 dec=0 complete
table failed r0@25 cap: open cap table: No such file or directory
connect failed r0@26 n=2: cap file
cycle r0#2 29-33 t=4000130 seq=11 connect sync=code 0@32 dec=0 complete
connected r0@34 n=3
run end r0@34 t=4000170: the log ends
)"},
    {"threads_cross_on_lookups_and_replies",
     script(R"(@36000 main_init; main_verbose_boot; eval_started; boost_started; connect_sock_done 6
core_sock_done 7; recv_msg_error; recv_error; init_sock_send_failed; init_sock_send_failed
core_init_sock_failed; connect_init_sock_failed; connect_sock_done 8; core_sock_done 9
recv_invalid_reply; init_sock_zeb_id 30 1; init_sock_send_failed; core_init_sock_failed
sync_start 1; recv_int_waiting; query_requested; recv_pid_waiting; recv_invalid_reply
recv_pid_failed; recv_error; recv_int_failed; connect_sync_failed; core_connect_complete 2
log_csv_failed; core_not_accepting 30)"),
     R"(run start r0@1 n=1
lookup r0@11 DULOX_CORE n=-1 NLMSG_ERROR@7: the family could not be resolved
core connect failed r0@11 NLMSG_ERROR@7: family lookup
lookup r0@12 DULOX_ZEB n=-1 no answer@8: the family could not be resolved
connect failed r0@12 no answer@8: family lookup
lookup r0@16 DULOX_ZEB n=30 code 0@16
lookup r0@18 DULOX_CORE n=-1 malformed@15: the family could not be resolved
core connect failed r0@18 n=1 malformed@15: family lookup
query r0@22-26 malformed@25 invalid len=0 rates=0
cycle r0#0 19-29 t=180 seq=1 connect sync=no answer@27 dec=0 complete
connect failed r0@29 n=1 no answer@27: first sync
core connected r0@30 n=2
csv failed r0@31
core gave up r0@32 n=30
run end r0@32 t=290: the log ends
)"},
    {"quiet_stretch",
     script(R"(@36000 main_init; main_verbose_boot; sync_start 3; recv_int_code 4 0; log_verbose_off
down_request c3 40000 39000 5 0 65000 45000; down_request c3 40000 39000 5 1 70000 50000
down_accepted; bal_request d5 7 6 6 5 180000 160000; bal_accepted
eval_boost_left 99 900000000 5000; eval_boosting 42 600000000
@36001 eval_boosting 42 600000000; @36002 recv_pid_failed; log_verbose_on; boost_evaluating
query_requested; recv_pid_waiting; query_success; rates_header; rates_list_len 2 77
rates_entry 0 42 0 600000000 0 800; rates_entry 1 99 1 100 1 0
eval_boosting 42 600000000; boost_req_sent)"),
     R"(run start r0@1 n=1
verbose off r0@6
cycle r0#0 3-5 t=20 seq=3 sync=code 0@5 dec=0
DOWN r0@7 t=50 c3 5>0 40000/39000/65000/45000 bps=0 not logged
DOWN r0@8 t=60 c3 5>1 40000/39000/70000/50000 bps=0 code 0@9 accepted
BAL r0@10 t=80 d5 6>5 7/6/180000/160000 bps=0 code 0@11 accepted
BOOST r0@13 t=110 0 -1>-1 0/0/0/0 bps=0 pid42/600000000/-1 not logged accepted
BOOST r0@14 t=1000000 0 -1>-1 0/0/0/0 bps=0 pid42/600000000/-1 not logged accepted
query r0@15 not logged@15 invalid len=0 rates=0
verbose on r0@16
gap r0@6-15: 2.000 s without verbose lines
query r0@18-26 code 0@21 valid len=2 rates=2 ts=77
BOOST r0@27 t=2000100 0 -1>-1 0/0/0/0 bps=0 pid42/600000000/800 code 0@28 accepted
run end r0@28 t=2000110: the log ends
)"},
    {"midnight_restart_and_cut",
     script("@86399.9 recv_int_code 5 0; @86400.2 sig_handler; @86399.95 recv_int_code 6 0; "
            "@86400.3 cleanup_done; main_init; main_start_eval") +
         " 00:00:01.000000 cut",
     R"(run start r0@1: the log starts mid-run
note r0@1: the log starts inside a run: no "Initializing zebusrd" before this line
note r0@2: midnight passed
run end r0@4 t=400000: stopped by a signal; clean-up complete
run start r1@5
problem r1@7 [cut: the file ends inside this line]:  00:00:01.000000 cut
gap r1@5-7: 0.000 s without verbose lines
run end r1@7 t=10: the log is cut inside its last line
)"},
    {"messy_lines_and_invalid_tables", messy(),
     R"(run start r0@1 n=1
note r0@1: lines end in CR LF (read without the CR)
problem r0@3 [bytes that are not text]: x?y
problem r0@4 [longer than a megabyte (the rest of the line skipped)]: zzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzz
problem r0@5 [an empty line where none belongs]
cycle r0#0 6-145 t=1000 seq=1 sync=code 0@8 ss200max: caps1bad gold200max: 128 entries dec=0
run end r0@145 t=2380: the log ends
)"},
    {"shared_receive_errors_and_a_long_rate_list", shared_receive(),
     R"(run start r0@1 n=1
note r0@3: lines end in CR LF (read without the CR)
query r0@7-11 malformed@10 invalid len=0 rates=0
cycle r0#0 3-12 t=20 seq=1 sync=no answer@6 dec=0 complete
query r0@16 code 0@20 valid len=0 rates=0
query r0@22-26 no answer@25 invalid len=0 rates=0
query r0@28-104 code 0@31 valid len=70 rates=64 ts=77
cycle r0#1 13-27 t=100 seq=2 sync=NLMSG_ERROR@19 dec=0 complete
cycle r0#2 106-106 t=1000760 seq=3 sync=not logged dec=0
run end r0@106 t=1000760: the log ends
)"},
    {"deliberate_exits",
     script(R"(@36000 main_init; caps_mmap_failed No_such_device; cleanup_done; main_init
main_eval_failed 11; cleanup_done)"),
     R"(run start r0@1
table failed r0@2 cap: mmap cap table: No such device
gap r0@1-3: 0.000 s without verbose lines
run end r0@3 t=20: exit: the cap table could not be mapped (No such device); clean-up compl
run start r1@4
thread failed r1@5 n=11: zeb_eval_thread
gap r1@4-7: 0.000 s without verbose lines
run end r1@7 t=20: zeb_eval_thread could not start (rc = 11); clean-up complete
)"},
};

class Assemble : public ::testing::TestWithParam<Case> {};

TEST_P(Assemble, Transcript) {
    EXPECT_EQ(assemble(GetParam().log), GetParam().want);
}

INSTANTIATE_TEST_SUITE_P(Logs, Assemble, ::testing::ValuesIn(kCases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(RunTime, MidnightAndCrossingStamps) {
    constexpr uint64_t kDay = 86400000000ull, kHalf = kDay / 2;
    struct {
        uint64_t prev_tod, prev_run, tod, want;
    } cases[] = {
        {1000, 50, 1500, 550},           // forward
        {1000, 50, 990, 40},             // the threads' stamps cross: kept as they are
        {1000, 5, 990, 0},               // never before the run's first line
        {kDay - 100, 7, 200, 307},       // midnight
        {kHalf + 10, 0, 9, kHalf - 1},   // back by just over 12 hours: midnight
        {kHalf + 10, kHalf + 1, 10, 1},  // back by exactly 12 hours: a step back
    };
    for (const auto &c : cases)
        EXPECT_EQ(run_time_us(c.prev_tod, c.prev_run, c.tod), c.want) << c.prev_tod << " " << c.tod;
}

}  // namespace
}  // namespace zlog
