// The assembler over the connection's story, the two threads' shared
// receives and messy or cut logs: each case compares everything the sink
// receives as text.
#include <gtest/gtest.h>

#include <string>

#include "assemble_text.hpp"
#include "log_text.hpp"

namespace zlog::test {
namespace {

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

class Story : public ::testing::TestWithParam<Case> {};

TEST_P(Story, Transcript) {
    EXPECT_EQ(assemble(GetParam().log), GetParam().want);
}

INSTANTIATE_TEST_SUITE_P(Logs, Story, ::testing::ValuesIn(kCases),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
}  // namespace zlog::test
