// The move attempt and the three placement policies: which suggestions go out
// in what order, what a refusal leads to, where each search stops, and the
// exact log lines of a decision.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstring>

#include "core/log.h"
#include "netlink/genl_family.h"
#include "policy/policy.h"
#include "steering/tables.h"
#include "steering_tables.h"
#include "test_support.h"

namespace {

using zt::avg;
using zt::Cap;
using zt::Flow;
using zt::pps;
using zt::Sugg;

constexpr uint32_t UP = 1, DOWN = 2, BAL = 3;
constexpr uint64_t k2to31 = 1ull << 31, k2to32 = 1ull << 32;
constexpr auto up = zebusr_move_loaded_silver_cpu_to_gold;
constexpr auto down = zebusr_move_gold_flow_down_to_silver;
constexpr auto bal = zebusr_balance_gold_flows;

// Silver CPUs 0 to 3 without room, then gold CPUs from 4 on.
std::vector<Cap> gold(std::vector<uint64_t> v) {
    v.insert(v.begin(), 4, 0);
    return avg(v);
}
constexpr uint64_t I = 500000;  // an idle CPU

// 128 flows on CPU 4, all idle but the last (0x17f), which any room fits.
std::vector<Flow> idle_then_last() {
    std::vector<Flow> flows;
    for (uint32_t i = 0; i < 128; i++) flows.push_back({0x100 + i, 4, i == 127 ? 100u : 0u});
    return flows;
}
// A first flow on CPU 4, which balancing never moves, then the candidate.
std::vector<Flow> on4(uint64_t avg_pps) {
    return {{0xa, 4, 50}, {0xb, 4, avg_pps}};
}

struct Case {
    const char *name;
    int (*policy)();
    std::vector<Cap> caps;
    std::vector<Flow> flows;
    std::vector<int32_t> codes;  // the kernel's answers, in order
    std::vector<Sugg> sent;
    int result;
    const char *err = nullptr;  // the one ERR line, if any
    int list_len = -1;          // -1: the number of flows
};
void PrintTo(const Case &c, std::ostream *os) {
    *os << c.name;
}

// Case(name, policy, capacity entries, gold flows, the kernel's codes, the
// suggestions sent as {hash, type, cur, dest}, result[, ERR line[, list_len]]).
const std::vector<uint16_t> kMixed = {6, 3, 5, 1, 4, 0, 7, 2};
const Case kCases[] = {
    Case("UpAt7999IsLoaded", up, pps({I, I, 7999, I, I, I, I, I}), {}, {0}, {{0, UP, 2, 4}}, 0),
    Case("UpAt8000IsNot", up, pps({I, I, 8000, I, I, I, I, I}), {}, {}, {}, -1),
    Case("UpHigherIndexWins", up, pps({I, 0, I, 10, I, I, I, I}), {}, {0}, {{0, UP, 3, 4}}, 0),
    Case("UpLoadedGoldStillTakes", up, pps({0, I, I, I, 0, I, I, I}), {}, {0}, {{0, UP, 0, 4}}, 0),
    Case("UpAllGoldRefuseNoOtherSilver", up, pps({1, 1, I, I, I, I, I, I}), {}, {1, 2, -22, -1},
         {{0, UP, 1, 4}, {0, UP, 1, 5}, {0, UP, 1, 6}, {0, UP, 1, 7}}, -1),
    Case("UpByPositionNotCpu", up, pps({I, 100, I, 50, I, I, I, 7999}, kMixed), {}, {3, 0},
         {{0, UP, 2, 6}, {0, UP, 2, 5}}, 0),
    Case("UpCpu8CountsAsGold", up, pps({I, I, I, 0, I, I, I, I}, {0, 1, 2, 3, 8, 9, 2, 1}), {}, {0},
         {{0, UP, 3, 8}}, 0),
    Case("DownOneBelowRoomFits", down, avg({50000, 0, 0, 0}), {{0xa1, 5, 29999}}, {0},
         {{0xa1, DOWN, 5, 0}}, 0),
    Case("DownEqualToRoomDoesNot", down, avg({50000, 0, 0, 0}), {{0xa1, 5, 30000}}, {}, {}, -1),
    Case("DownZeroAverageNeverMoves", down, avg({I, I, I, I}),
         {{0xa1, 4, 0, 5000000}, {0xa2, 6, 10}}, {0}, {{0xa2, DOWN, 6, 0}}, 0),
    Case("DownRefusalTriesNextSilverThenFlow", down, avg({I, 0, I, I}),
         {{0xa1, 4, 100}, {0xa2, 7, 100}}, {3, -1, 12, 0},
         {{0xa1, DOWN, 4, 0}, {0xa1, DOWN, 4, 2}, {0xa1, DOWN, 4, 3}, {0xa2, DOWN, 7, 0}}, 0),
    Case("DownZeroHashStops", down, avg({I}), {{0xa1, 4, 100}, {0, 4, 100}, {0xa3, 4, 100}}, {1},
         {{0xa1, DOWN, 4, 0}}, -1, "Invalid hash, breaking"),
    Case("DownSilverInTableOrder", down, avg({I, 90000, I, 90000, I, 90000, I, 90000}, kMixed),
         {{0xa1, 5, 100}}, {9, 9, 0}, {{0xa1, DOWN, 5, 3}, {0xa1, DOWN, 5, 1}, {0xa1, DOWN, 5, 0}},
         0),
    Case("DownSilverFlowMayGetItsOwnCpu", down, avg({0, I}), {{0xa1, 1, 100}}, {0},
         {{0xa1, DOWN, 1, 1}}, 0),
    // Decided in 64 bits: on its low 32 bits this room would be 30000.
    Case("DownCapacityNotTruncated", down, avg({k2to32 + 50000}), {{0xa1, 4, 40000}}, {0},
         {{0xa1, DOWN, 4, 0}}, 0),
    Case("DownEntry128TriedThenLimit", down, avg({I}), idle_then_last(), {1}, {{0x17f, DOWN, 4, 0}},
         -1, "Max user flows reached", 200),
    Case("DownExactly128EndsQuietly", down, avg({I}), idle_then_last(), {1}, {{0x17f, DOWN, 4, 0}},
         -1, nullptr, 128),
    Case("BalOneFlowPerCpuNeverMoves", bal, gold({0, I, I, I}),
         {{0xa, 4, 100}, {0xb, 5, 100}, {0xc, 6, 100}, {0xd, 7, 100}}, {}, {}, -1),
    // Room 30000 - 20000 for a flow of 10000 against a source of 1000.
    Case("BalFitAtEqualityDoesNot", bal, gold({1000, 30000, 0, 0}), on4(10000), {}, {}, -1),
    Case("BalWorthAtEqualityMoves", bal, gold({1000, 31000, 0, 0}), on4(10000), {0},
         {{0xb, BAL, 4, 5}}, 0),
    Case("BalWorthOneShortStays", bal, gold({1001, 31000, 0, 0}), on4(10000), {}, {}, -1),
    Case("BalIdleFirstFlowStillMarks", bal, gold({0, I, 0, 0}), {{0xa, 4, 0}, {0xb, 4, 100}}, {0},
         {{0xb, BAL, 4, 5}}, 0),
    Case("BalLaterIdleFlowSkipped", bal, gold({0, I, 0, 0}),
         {{0xa, 4, 100}, {0xb, 4, 0}, {0xc, 4, 100}}, {0}, {{0xc, BAL, 4, 5}}, 0),
    Case("BalRefusalTriesOtherGoldThenFlow", bal, gold({0, I, I, I}),
         {{0xa, 4, 100}, {0xb, 4, 100}, {0xc, 4, 100}}, {1, -1, 3, 0},
         {{0xb, BAL, 4, 5}, {0xb, BAL, 4, 6}, {0xb, BAL, 4, 7}, {0xc, BAL, 4, 5}}, 0),
    Case("BalDestAtIndexZero", bal, avg({I, 0, 0, 0, 0, 0, 0, 0}, {5, 0, 1, 2, 3, 4, 6, 7}),
         on4(100), {0}, {{0xb, BAL, 4, 5}}, 0),
    Case("BalFirstFlowPerCpuInterleaved", bal, gold({0, 0, I, 0}),
         {{0xa, 4, 100}, {0xb, 5, 100}, {0xc, 5, 100}, {0xd, 4, 100}}, {2, 0},
         {{0xc, BAL, 5, 6}, {0xd, BAL, 4, 6}}, 0),
    Case("BalSilverAndOwnCpuNeverTake", bal,
         avg({I, I, I, I, I, 0, 0, 0}, {0, 1, 2, 3, 4, 5, 6, 4}), on4(100), {}, {}, -1),
    Case("BalSilverFlowHandledAlike", bal, gold({I}), {{0xa, 1, 100}, {0xb, 1, 100}}, {0},
         {{0xb, BAL, 1, 4}}, 0),
    // CPU 7 is named by no entry: its source capacity is 0, not entry 7's.
    Case("BalUnnamedCpuHasNoCapacity", bal,
         avg({0, 0, 0, 0, 25000, 0, 0, I}, {0, 1, 2, 3, 4, 5, 6, 6}),
         {{0xa, 7, 100}, {0xb, 7, 4000}}, {0}, {{0xb, BAL, 7, 4}}, 0),
    Case("BalCapacityCpu8Disables", bal, avg({0, 0, 0, 0, 0, I, 0, 0}, {0, 1, 2, 8, 4, 5, 6, 7}),
         on4(100), {}, {}, -1, "invalid cpu number, check contents of shared memory"),
    Case("BalCapacityCpu8EvenWithNoFlows", bal,
         avg({0, 0, 0, 0, 0, 0, 0, 0}, {0, 1, 2, 3, 4, 5, 6, 8}), {}, {}, {}, -1,
         "invalid cpu number, check contents of shared memory"),
    Case("BalFlowCpu8Stops", bal, gold({0, I, 0, 0}), {{0xa, 4, 100}, {0xe, 8, 100}, {0xb, 4, 100}},
         {}, {}, -1, "Error: CPU Num is out of range!"),
    Case("BalZeroHashStops", bal, gold({0, I, 0, 0}),
         {{0xa, 4, 100}, {0xb, 4, 100}, {0, 4, 100}, {0xc, 4, 100}}, {1}, {{0xb, BAL, 4, 5}}, -1,
         "Invalid hash, breaking"),
    Case("BalEntry128TriedThenLimit", bal, gold({0, I, 0, 0}), idle_then_last(), {1},
         {{0x17f, BAL, 4, 5}}, -1, "Max user flows reached", 200),
    Case("BalExactly128EndsQuietly", bal, gold({0, I, 0, 0}), idle_then_last(), {1},
         {{0x17f, BAL, 4, 5}}, -1, nullptr, 128),
    // Decided on the low 32 bits read as signed, with wrapping arithmetic.
    Case("BalDestLow32", bal, gold({90000, k2to32 + 100000}), on4(5000), {}, {}, -1),
    Case("BalSourceLow32", bal, gold({k2to32 + 5, 100000}), on4(100), {0}, {{0xb, BAL, 4, 5}}, 0),
    Case("BalDest2to31WrapsIntoAFit", bal, gold({0, k2to31}), on4(100), {0}, {{0xb, BAL, 4, 5}}, 0),
    Case("BalFlowLow32Negative", bal, gold({150, 20100}), on4(k2to32 - 100), {0},
         {{0xb, BAL, 4, 5}}, 0),
};

using zt::count;

class Policies : public ::testing::Test {
   protected:
    void SetUp() override { zeb_family_id = zt::kZebFamily; }
    void TearDown() override {
        cap_list = nullptr;
        gflow_list = nullptr;
        munmap(caps_, 8192);
        munmap(flows_, 8192);
    }
    // Each table ends where a page that cannot be read begins: a policy that
    // reads past its 8 or 128 entries faults.
    void map(const std::vector<Cap> &caps, const std::vector<Flow> &flows, int list_len = -1) {
        cap_list = reinterpret_cast<zebusr_cap_info *>(at_page_end(caps_, zt::cap_table(caps)));
        gflow_list = reinterpret_cast<zebusr_flow_table *>(
            at_page_end(flows_, zt::flow_table(flows, list_len)));
    }
    static uint8_t *at_page_end(uint8_t *&pages, const zt::Bytes &table) {
        if (!pages) {
            pages = static_cast<uint8_t *>(
                mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
            mprotect(pages + 4096, 4096, PROT_NONE);
        }
        return static_cast<uint8_t *>(
            memcpy(pages + 4096 - table.size(), table.data(), table.size()));
    }
    // What the policies themselves log, not the exchanges underneath.
    static std::string policy_lines(const zt::LogCapture &log) {
        return log.messages("zebusr_move_.*|zebusr_balance_gold_flows");
    }
    zt::FakeKernel kernel{&sk_fd};
    uint8_t *caps_ = nullptr, *flows_ = nullptr;
};

class PolicyCases : public Policies, public ::testing::WithParamInterface<Case> {};

// Each suggestion sent is announced; only an accepted one is reported.
TEST_P(PolicyCases, SuggestInOrderAndReport) {
    const Case &c = GetParam();
    zt::LogCapture log(false);
    for (int32_t code : c.codes) kernel.queue_code(code);
    map(c.caps, c.flows, c.list_len);

    EXPECT_EQ(c.policy(), c.result);
    EXPECT_EQ(zt::decode_suggestions(kernel.requests()), c.sent);
    const std::string text = log.text();
    EXPECT_EQ(count(text, "(HIGH):   ZEB_SUGG_"), c.sent.size() + (c.result == 0));
    EXPECT_EQ(count(text, "Move successful"), size_t(c.result == 0));
    EXPECT_EQ(count(text, "(ERR): "), size_t(c.err != nullptr));
    if (c.err)
        EXPECT_NE(text.find(std::string("(ERR): ") + c.err), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Cases, PolicyCases, ::testing::ValuesIn(kCases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(Policies, MissingMappingsAreErrors) {
    zt::LogCapture log(false);
    map({}, {});
    cap_list = nullptr;
    for (auto policy : {up, down, bal}) EXPECT_EQ(policy(), -1);
    map({}, {});
    gflow_list = nullptr;
    for (auto policy : {down, bal}) EXPECT_EQ(policy(), -1);
    EXPECT_TRUE(kernel.requests().empty());
    EXPECT_EQ(log.messages("zebusr_move_loaded_silver_cpu_to_gold"), "cap_list is NULL\n\n");
    EXPECT_EQ(log.messages("zebusr_move_gold_flow_down_to_silver"),
              "cap_list is NULL\ngflow_list is NULL\n");
    EXPECT_EQ(log.messages("zebusr_balance_gold_flows"), "cap_list is NULL\ngflow_list is NULL\n");
}

// Silver CPU 0 is below the headroom (no line), 1 at it (checked, no room).
TEST_F(Policies, DownLogsEveryCheckWithFullValues) {
    zt::LogCapture log(true);
    kernel.queue_code(0);
    map(avg({19999, 20000, k2to32 + 50000, 0}), {{0xbeef, 6, 40000, 5000000000ull}});
    ASSERT_EQ(down(), 0);
    EXPECT_EQ(policy_lines(log), R"(################## GOLD TO SILVER #################
  num gold flows = 1
  ZEB_SUGG_DOWN_CHECK: > Checking that gold flow 0xbeef with pps 5000000000 avg pps 40000 on cpu[6] can move to silver cpu[1] with avg capacity 20000 cap_w_head 0
  ZEB_SUGG_DOWN_CHECK: > Checking that gold flow 0xbeef with pps 5000000000 avg pps 40000 on cpu[6] can move to silver cpu[2] with avg capacity 4295017296 cap_w_head 4294997296
  ZEB_SUGG_DOWN: > Sending msg to kernel to request that gold flow 0xbeef with pps 5000000000 avg pps 40000 on cpu[6] can move to silver cpu[2] with avg capacity 4295017296 cap_w_head 4294997296
  ZEB_SUGG_DOWN: Move successful
)");
}

// The flow's average reads as INT32_MIN and the source's as -10: CPU 5's room
// equals it, CPU 6's remainder wraps negative, CPU 7's room is below zero.
TEST_F(Policies, BalanceLogsFullValuesAndSignedRemainders) {
    zt::LogCapture log(true);
    kernel.queue_code(0);
    map(gold({k2to32 - 10, k2to31 + 20000, 2147483647, 10000}),
        {{0xa, 4, 1}, {0xb, 4, k2to32 + k2to31, 6000000000ull}});
    ASSERT_EQ(bal(), 0);
    EXPECT_EQ(policy_lines(log), R"(################## GOLD BALANCE #################
  num gold flows = 2
  ZEB_SUGG_CHECK_BAL: Checking gold flow balance gold flow 0xb with pps 6000000000 avg pps 6442450944 on cpu[4] can balance to gold cpu[5] with avg capacity 2147503648 cap_w_head 2147483648
other cpu cannot fit the additional gold flow, not moving
  ZEB_SUGG_CHECK_BAL: Checking gold flow balance gold flow 0xb with pps 6000000000 avg pps 6442450944 on cpu[4] can balance to gold cpu[6] with avg capacity 2147483647 cap_w_head 2147463647
other cpu is about equally loaded, not movingdest_cpu_avg_pps-headroom-gflow_avg_pps = -20001 src_cpu_avg_pps = -10
  ZEB_SUGG_CHECK_BAL: Checking gold flow balance gold flow 0xb with pps 6000000000 avg pps 6442450944 on cpu[4] can balance to gold cpu[7] with avg capacity 10000 cap_w_head 18446744073709541616
  ZEB_SUGG_BAL: > Sending msg to kernel to request that gold flow 0xb with pps 6000000000 avg pps 6442450944 on cpu[4] can balance to gold cpu[7] with avg capacity 10000 cap_w_head 18446744073709541616
  ZEB_SUGG_BAL: Move successful
)");
}

// A kernel -1 looks like a local failure; every other code comes back as is.
// A move that cannot be sent awaits no reply.
TEST_F(Policies, MovePassesTheKernelsCodeThrough) {
    zt::LogCapture log(true);
    const int32_t codes[] = {0, 1, -1, -22};
    for (int32_t code : codes) kernel.queue_code(code);
    seq_num = 9;
    for (int32_t code : codes) EXPECT_EQ(zebusr_try_to_move_flow(6, 2, 0xdeadbeef, 2), code);
    EXPECT_EQ(zt::decode_suggestions(kernel.requests()),
              std::vector<Sugg>(std::size(codes), {0xdeadbeef, 2, 6, 2}));
    log.clear();
    sk_fd = -1;
    EXPECT_EQ(zebusr_try_to_move_flow(4, 5, 0x1234, 3), -1);
    EXPECT_EQ(log.messages("zebusr_try_to_move_flow"),
              "Sending sugg info to kernel\nnetlink failed to send to fd\n");
    EXPECT_EQ(log.text().find("Waiting"), std::string::npos);
}

}  // namespace
