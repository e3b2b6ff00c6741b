// The assembler over short logs written as the daemon writes them, cycles
// and decisions: each case compares everything the sink receives as text.
#include <gtest/gtest.h>

#include <string>

#include "assemble_text.hpp"
#include "log_text.hpp"

namespace zlog::test {
namespace {

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
}  // namespace zlog::test
