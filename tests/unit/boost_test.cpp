// The core-driver connection against this machine's real controller (which
// knows no "DULOX_CORE"), which processes get boosted, and the exact bytes
// of both core requests.
#include "boost/boost.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <regex>
#include <string>
#include <vector>

#include "core/log.h"
#include "netlink/genl_family.h"
#include "test_support.h"

namespace {

using zt::Bytes;
using Pids = std::vector<uint32_t>;

constexpr uint16_t kCoreId = 0x1e;
constexpr uint32_t kStartSeq = 7;
constexpr uint32_t kReplySeq = 500;

struct Proc {
    uint64_t tx_bps;
    uint32_t pid, boost_remaining_ms;
};
using Procs = std::vector<Proc>;

// The 528-byte throughput record, written from its offsets.
Bytes bps_record(const Procs &procs, uint16_t list_len, uint8_t valid = 1) {
    Bytes p(528, 0);
    for (size_t i = 0; i < procs.size(); i++) {
        zt::put_u64(p, 16 * i, procs[i].tx_bps);
        zt::put_u32(p, 16 * i + 8, procs[i].pid);
        zt::put_u32(p, 16 * i + 12, procs[i].boost_remaining_ms);
    }
    zt::put_u64(p, 512, 1234);
    zt::put_u16(p, 520, list_len);
    zt::put_u8(p, 522, valid);
    return p;
}

// The whole zero-filled record.
const Bytes kQuery = zt::request_image(552, kCoreId, kStartSeq, 1, 532, 3);

// Sent without awaiting a reply, so it carries the query reply's successor.
Bytes boost_request(const Pids &pids) {
    Bytes b = zt::request_image(424, kCoreId, kReplySeq + 1, 2, 404, 4);
    for (size_t n = 0; n < pids.size(); n++) {
        zt::put_u32(b, 24 + 12 * n, 1);
        zt::put_u32(b, 24 + 12 * n + 4, 10000);
        zt::put_u32(b, 24 + 12 * n + 8, pids[n]);
    }
    zt::put_u16(b, 24 + 392, static_cast<uint16_t>(pids.size()));
    zt::put_u8(b, 24 + 394, 1);
    return b;
}

// Fast senders 1000, 1001, ... with at most 1000 ms left, and their pids.
Procs fast_senders(uint32_t n) {
    Procs out;
    for (uint32_t i = 0; i < n; i++) out.push_back({600000000ULL + i, 1000 + i, i * 30});
    return out;
}
Pids fast_pids(uint32_t n) {
    Pids out;
    for (uint32_t i = 0; i < n; i++) out.push_back(1000 + i);
    return out;
}

class BoostTest : public ::testing::Test {
   protected:
    void SetUp() override { dulox_family_id = kCoreId; }
    zt::LogCapture log{true};
    zt::FakeKernel kernel{&duloxusr_genl_sk_fd};

    // One evaluation against one answer; gives every request sent.
    // `cut` bytes short of the whole answer.
    std::vector<Bytes> evaluate(const Bytes &answer, uint16_t reply_type = 0x20, size_t cut = 0) {
        seq_num = kStartSeq;
        log.clear();
        Bytes reply = zt::reply(kReplySeq, answer, reply_type);
        reply.resize(reply.size() - cut);
        zt::put_u32(reply, 0, static_cast<uint32_t>(reply.size()));
        kernel.queue(reply);
        duloxusr_evalute_pid_bps_info();
        return kernel.requests();
    }
};

// Which path ran shows in what the evaluation itself logs.
TEST_F(BoostTest, ChoosesFastSendersWithLittleBoostLeft) {
    const Procs all32 = fast_senders(32);
    const uint64_t big = (1ull << 32) + 1;  // decided on all 64 bits
    const struct {
        Procs procs;
        uint16_t list_len;
        uint8_t valid;
        Pids boosted;
        const char *log;
    } cases[] = {
        // clang-format off
        {{{600000000, 101, 0}, {400000000, 102, 0}, {900000000, 103, 5000}}, 3, 1, {101},
         "Boosting pid 101 with bps 600000000\npid 103 with bps 900000000 has 5000 ms of boost remaining\n"},
        {{{500000000, 201, 0}, {500000001, 202, 0}, {big, 203, 0}}, 3, 1, {202, 203},
         "Boosting pid 202 with bps 500000001\nBoosting pid 203 with bps 4294967297\n"},
        {{{600000000, 301, 1000}, {600000000, 302, 1001}}, 2, 1, {301},
         "Boosting pid 301 with bps 600000000\npid 302 with bps 600000000 has 1001 ms of boost remaining\n"},
        {{{500000000, 501, 0}}, 1, 1, {}, ""},
        {all32, 2, 1, fast_pids(2), nullptr},
        {all32, 32, 1, fast_pids(32), nullptr},
        {all32, 33, 1, {}, "Invalid list len\n"},
        {all32, 32, 0, {}, "error: info is not valid\n"},
        {all32, 32, 2, {}, "error: info is not valid\n"},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.list_len);
        std::vector<Bytes> want = {kQuery};
        if (!c.boosted.empty())
            want.push_back(boost_request(c.boosted));
        EXPECT_EQ(evaluate(bps_record(c.procs, c.list_len, c.valid)), want);
        EXPECT_EQ(seq_num.load(), kReplySeq + 1);
        if (c.log)
            EXPECT_EQ(log.messages("duloxusr_evalute_pid_bps_info"), c.log);
        EXPECT_EQ(zt::count(log.text(), "PID - BOOST REQUESTED"), c.boosted.empty() ? 0u : 1u);
    }
}

TEST_F(BoostTest, VerboseShowsTheExchange) {
    evaluate(bps_record({{600000000, 101, 0}, {UINT64_MAX, 7, UINT32_MAX}}, 2));
    EXPECT_EQ(log.messages("duloxusr_(send|print).*"),
              R"(########## PID - BPS REQUESTED ############

########## PID - BYTE RESPONSE SUCCESS ############

------------ PID / BPS RESPONSE -------------
list_len = 2 | timestamp = 1234
pid[0] = 101	| tx_bps[0] = 600000000 | boost_remaining_ms[0] = 0
pid[1] = 7	| tx_bps[1] = 18446744073709551615 | boost_remaining_ms[1] = -1
########## PID - BOOST REQUESTED ############

------------ PID BOOST REQUEST -------------
list_len = 1
pid[0] = 101	| boost_en[0] = 1 | boost_period[0] = 10000
)");
    evaluate(bps_record({}, 33));
    EXPECT_EQ(log.messages("duloxusr_print.*"),
              "------------ PID / BPS RESPONSE -------------\nlist_len = 33 | timestamp = 1234\n"
              "Invalid list len\n");
    duloxusr_pid_boost_info req = {};
    req.valid = 1;
    req.list_len = 33;
    log.clear();
    duloxusr_print_pid_boost_req(&req);
    req.valid = 0;
    duloxusr_print_pid_boost_req(&req);
    duloxusr_print_pid_boost_req(nullptr);
    duloxusr_print_pid_bps_resp(nullptr);
    EXPECT_EQ(log.messages(), R"(------------ PID BOOST REQUEST -------------
list_len = 33
Invalid list len
------------ PID BOOST REQUEST -------------
error: boost request is not valid
------------ PID BOOST REQUEST -------------
Invalid arg: Null pointer passed!
------------ PID / BPS RESPONSE -------------
Invalid arg: Null pointer passed!
)");
}

// An error answer, or one too short for the record, stops the call.
TEST_F(BoostTest, FailedQueryStopsTheCall) {
    for (uint16_t type : {2, 0x20}) {
        EXPECT_EQ(evaluate(bps_record(fast_senders(2), 2), type, type == 2 ? 0 : 1),
                  std::vector<Bytes>{kQuery});
        EXPECT_EQ(seq_num.load(), kStartSeq);
        std::string m = log.messages();
        EXPECT_EQ(m.substr(m.find("  Waiting")),
                  std::string("  Waiting for kernel to send a msg\n") +
                      (type == 2 ? "netlink received msg error for family resp\n"
                                 : "netlink invalid family reply message\n") +
                      "netlink failed to send to fd\n"
                      "########## PID - BYTE RESPONSE FAILURE ############\n\n"
                      "Failed to query pid bps list from kernel\n");
    }
    duloxusr_genl_sk_fd = -1;
    log.clear();
    EXPECT_EQ(duloxusr_send_pid_boost_req(nullptr), -1);
    duloxusr_pid_boost_info req = {};
    EXPECT_EQ(duloxusr_send_pid_boost_req(&req), -1);
    EXPECT_EQ(duloxusr_send_pid_bps_req(nullptr, nullptr), -1);
    EXPECT_EQ(log.messages(),
              "error: invalid args\nerror 9 on sendto\nnetlink failed to send to fd\n"
              "error: invalid args\n");
}

// Connected on the second attempt (the first cannot make a socket), then one
// evaluation a second for as long as the process lives.
TEST_F(BoostTest, MonitorRetriesThenEvaluatesOnceASecond) {
    kernel.queue(zt::family_reply(0, "DULOX_CORE", kCoreId));
    for (int i = 0; i < 3; i++) kernel.queue(zt::reply(kReplySeq, bps_record({}, 0)));
    zt::events();
    // The socket made is descriptor 0, as good as any.
    EXPECT_EXIT((syscall(SYS_close, 0), zt::fake_netlink = kernel.daemon_fd(),
                 zt::fail({"socket", "", EMFILE}), alarm(1), dulox_freq_boost_monitor(nullptr)),
                ::testing::KilledBySignal(SIGALRM), "");
    zt::Lines events = zt::events();
    events.resize(9);
    EXPECT_EQ(events, (zt::Lines{"sleep 3", "socket", "send lookup", "send cmd 1", "sleep 1",
                                 "send cmd 1", "sleep 1", "send cmd 1", "sleep 1"}));
    const std::string m =
        std::regex_replace(log.messages("dulox.*"), std::regex("sk_fd = \\d+"), "sk_fd = N");
    EXPECT_EQ(
        m.substr(0, m.find("Evaluating")),
        "Dulox Core Driver Thread Started\nzebusr_genl_open_sock failed\n"
        "duloxusr_connect_to_dulox_core failed on attempt 0\n"
        "zebusr_genl_open_sock complete: duloxusr_genl_sk_fd = N\n"
        "zebusr_genl_init_sock complete for ZEBUSR_GENL_FAMILY_DULOX\n"
        "CONNECTED to dulox core driver\nduloxusr_connect_to_dulox_core COMPLETE on attempt 1\n");
}

bool fd_open(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// A pipe stands in for the steering socket so that its closing can be seen.
TEST(BoostConnect, FailedLookupsCloseTheSteeringSocketAndEndOnlyTheThread) {
    zt::LogCapture log{true};
    int steering[2];
    ASSERT_EQ(pipe(steering), 0);
    sk_fd = steering[0];
    zt::events();
    EXPECT_EQ(duloxusr_connect_to_dulox_core(), -1);
    EXPECT_FALSE(fd_open(steering[0]));
    EXPECT_TRUE(fd_open(duloxusr_genl_sk_fd));  // the core socket stays open
    EXPECT_EQ(zt::events(), zt::Lines{});
    EXPECT_EQ(log.messages("duloxusr_.*"),
              "zebusr_genl_open_sock complete: duloxusr_genl_sk_fd = " +
                  std::to_string(duloxusr_genl_sk_fd) + "\nzebusr_genl_init_sock failed\n");

    log.clear();
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, dulox_freq_boost_monitor, nullptr), 0);
    void *result = &thread;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(zt::events(), zt::Lines(29, "sleep 3"));
    std::string want = "Dulox Core Driver Thread Started\n";
    for (int i = 0; i < 30; i++)
        want += "duloxusr_connect_to_dulox_core failed on attempt " + std::to_string(i) + "\n";
    want +=
        "Core Driver not accepting connections -30 attempts made\n"
        "Dulox Core Driver Thread Exited -dulox_core driver did not respond\n";
    EXPECT_EQ(log.messages("dulox_freq_boost_monitor|duloxusr_connect_loop"), want);
    close(steering[1]);
}

}  // namespace
