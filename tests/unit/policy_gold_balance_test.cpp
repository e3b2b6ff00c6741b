// Gold flow balance: the first flow of each CPU stays, the fit and balance
// tests at their edges, their 32-bit signed wrapping, refusals and stops.
#include <gtest/gtest.h>

#include "core/log.h"
#include "netlink/genl_family.h"
#include "policy/policy.h"
#include "steering/tables.h"
#include "steering_tables.h"
#include "test_support.h"

namespace {

using zt::Cap;
using zt::Flow;
using zt::Sugg;

constexpr uint32_t BAL = 3;
constexpr uint64_t k2to31 = 1ull << 31;
constexpr uint64_t k2to32 = 1ull << 32;

// Entry i names CPU i; silver CPUs have no capacity, gold ones the given.
std::vector<Cap> gold_caps(uint64_t c4, uint64_t c5, uint64_t c6, uint64_t c7) {
    std::vector<Cap> caps;
    uint64_t gold[4] = {c4, c5, c6, c7};
    for (uint16_t i = 0; i < 8; i++) caps.push_back({i, 0, i < 4 ? 0 : gold[i - 4]});
    return caps;
}

// Entry 0 opens CPU 4, 1..126 are idle, 127 is the only candidate.
std::vector<Flow> idle_then_last_candidate() {
    std::vector<Flow> flows;
    for (uint32_t i = 0; i < 128; i++) flows.push_back({0x100 + i, 4, i == 127 ? 100u : 0u});
    return flows;
}

// A first flow on CPU 4 (never moved) followed by the candidate `avg`.
std::vector<Flow> second_on_4(uint64_t avg) {
    return {{0xa, 4, 50}, {0xb, 4, avg}};
}

struct Case {
    const char *name;
    std::vector<Cap> caps;
    std::vector<Flow> flows;
    int list_len;  // -1: the number of flows
    std::vector<int32_t> answers;
    std::vector<Sugg> expected;
    int result;
};
void PrintTo(const Case &c, std::ostream *os) {
    *os << c.name;
}

const Case kCases[] = {
    {"OneFlowPerGoldCpuNeverMoves",
     gold_caps(0, 900000, 900000, 900000),
     {{0xa, 4, 100}, {0xb, 5, 100}, {0xc, 6, 100}, {0xd, 7, 100}},
     -1,
     {},
     {},
     -1},
    {"SecondFlowMovesToFirstWorthwhileGold",
     gold_caps(1000, 100000, 0, 900000),
     second_on_4(10000),
     -1,
     {0},
     {{0xb, BAL, 4, 5}},
     0},
    {"FitAtEqualityDoesNotFit", gold_caps(1000, 30000, 0, 0), second_on_4(10000), -1, {}, {}, -1},
    {"BalanceAtEqualityMoves",
     gold_caps(1000, 31000, 0, 0),
     second_on_4(10000),
     -1,
     {0},
     {{0xb, BAL, 4, 5}},
     0},
    {"BalanceOneShortStays", gold_caps(1001, 31000, 0, 0), second_on_4(10000), -1, {}, {}, -1},
    {"FirstFlowMarksItsCpuEvenWithZeroAverage",
     gold_caps(0, 100000, 0, 0),
     {{0xa, 4, 0}, {0xb, 4, 100}},
     -1,
     {0},
     {{0xb, BAL, 4, 5}},
     0},
    {"LaterFlowWithZeroAverageIsSkipped",
     gold_caps(0, 100000, 0, 0),
     {{0xa, 4, 100}, {0xb, 4, 0}, {0xc, 4, 100}},
     -1,
     {0},
     {{0xc, BAL, 4, 5}},
     0},
    {"RefusalTriesOtherGoldThenNextFlow",
     gold_caps(0, 100000, 100000, 100000),
     {{0xa, 4, 100}, {0xb, 4, 100}, {0xc, 4, 100}},
     -1,
     {1, -1, 3, 0},
     {{0xb, BAL, 4, 5}, {0xb, BAL, 4, 6}, {0xb, BAL, 4, 7}, {0xc, BAL, 4, 5}},
     0},
    {"FirstFlowsOfEachCpuInterleaved",
     gold_caps(0, 0, 100000, 0),
     {{0xa, 4, 100}, {0xb, 5, 100}, {0xc, 5, 100}, {0xd, 4, 100}},
     -1,
     {2, 0},
     {{0xc, BAL, 5, 6}, {0xd, BAL, 4, 6}},
     0},
    {"SilverAndOwnCpuAreNeverDestinations",
     {{0, 0, 9000000},
      {1, 0, 9000000},
      {2, 0, 9000000},
      {3, 0, 9000000},
      {4, 0, 9000000},
      {5, 0, 0},
      {6, 0, 0},
      {4, 0, 9000000}},
     second_on_4(100),
     -1,
     {},
     {},
     -1},
    {"FlowOnSilverCpuIsHandledAlike",
     gold_caps(100000, 0, 0, 0),
     {{0xa, 1, 100}, {0xb, 1, 100}},
     -1,
     {0},
     {{0xb, BAL, 1, 4}},
     0},
    // CPU 7 is named by no entry: its source capacity is 0, not entry 7's.
    {"UnnamedCpuHasZeroSourceCapacity",
     {{0, 0, 0},
      {1, 0, 0},
      {2, 0, 0},
      {3, 0, 0},
      {4, 0, 25000},
      {5, 0, 0},
      {6, 0, 0},
      {6, 0, 900000}},
     {{0xa, 7, 100}, {0xb, 7, 4000}},
     -1,
     {0},
     {{0xb, BAL, 7, 4}},
     0},
    {"LaterEntryForTheSameCpuSetsTheSource",
     {{0, 0, 0},
      {1, 0, 0},
      {2, 0, 0},
      {3, 0, 0},
      {4, 0, 1000},
      {5, 0, 100000},
      {6, 0, 0},
      {4, 0, 500000}},
     second_on_4(100),
     -1,
     {},
     {},
     -1},
    {"CapacityCpuEightDisablesBalancing",
     {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {8, 0, 0}, {4, 0, 0}, {5, 0, 100000}, {6, 0, 0}, {7, 0, 0}},
     second_on_4(100),
     -1,
     {},
     {},
     -1},
    {"FlowCpuEightEndsTheSearch",
     gold_caps(0, 100000, 0, 0),
     {{0xa, 4, 100}, {0xe, 8, 100}, {0xb, 4, 100}},
     -1,
     {},
     {},
     -1},
    {"ZeroHashEndsTheSearch",
     gold_caps(0, 100000, 0, 0),
     {{0xa, 4, 100}, {0xb, 4, 100}, {0, 4, 100}, {0xc, 4, 100}},
     -1,
     {1},
     {{0xb, BAL, 4, 5}},
     -1},
    {"ListLengthBoundsTheSearch",
     gold_caps(0, 100000, 0, 0),
     {{0xa, 4, 100}, {0xb, 4, 100}},
     1,
     {},
     {},
     -1},
    {"EntryOf128IsTriedThenTheLimitStops",
     gold_caps(0, 100000, 0, 0),
     idle_then_last_candidate(),
     200,
     {1},
     {{0x17f, BAL, 4, 5}},
     -1},
    {"ListOfExactly128EndsQuietly",
     gold_caps(0, 100000, 0, 0),
     idle_then_last_candidate(),
     128,
     {1},
     {{0x17f, BAL, 4, 5}},
     -1},
    // The decision is made on the low 32 bits, read as signed, wrapping.
    {"DestinationAbove32BitsUsesItsLowBits",
     gold_caps(90000, k2to32 + 100000, 0, 0),
     second_on_4(5000),
     -1,
     {},
     {},
     -1},
    {"SourceAbove32BitsUsesItsLowBits",
     gold_caps(k2to32 + 5, 100000, 0, 0),
     second_on_4(100),
     -1,
     {0},
     {{0xb, BAL, 4, 5}},
     0},
    {"DestinationBelowHeadroomNeverFits",
     gold_caps(0, 10000, 0, 0),
     second_on_4(1),
     -1,
     {},
     {},
     -1},
    {"DestinationOf2To31WrapsIntoAFit",
     gold_caps(0, k2to31, 0, 0),
     second_on_4(100),
     -1,
     {0},
     {{0xb, BAL, 4, 5}},
     0},
    {"DestinationOf2To31PlusHeadroomIsTheMostNegative",
     gold_caps(0, k2to31 + 20000, 0, 0),
     second_on_4(100),
     -1,
     {},
     {},
     -1},
    {"FlowAverageWithTopBitReadsNegative",
     gold_caps(150, 20100, 0, 0),
     second_on_4(k2to32 - 100),
     -1,
     {0},
     {{0xb, BAL, 4, 5}},
     0},
    // A flow read as negative fits wherever the room is above INT32_MIN.
    {"RemainderWrapsNegative",
     gold_caps(0, 2147483647, k2to31 + 20000, k2to31 + 20000),
     second_on_4(k2to31),
     -1,
     {},
     {},
     -1},
};

class GoldBalance : public ::testing::TestWithParam<Case> {
   protected:
    void SetUp() override { zeb_family_id = zt::kZebFamily; }
    void TearDown() override {
        cap_list = nullptr;
        gflow_list = nullptr;
    }
    void map(zt::Bytes &caps, zt::Bytes &flows) {
        cap_list = reinterpret_cast<zebusr_cap_info *>(caps.data());
        gflow_list = reinterpret_cast<zebusr_flow_table *>(flows.data());
    }
};

TEST_P(GoldBalance, SuggestsInOrderAndReportsTheResult) {
    const Case &c = GetParam();
    zt::LogCapture log(false);
    zt::FakeKernel kernel(&sk_fd);
    for (int32_t code : c.answers) kernel.queue_code(code);
    zt::Bytes caps = zt::cap_table(c.caps);
    zt::Bytes flows = zt::flow_table(c.flows, c.list_len);
    map(caps, flows);

    EXPECT_EQ(zebusr_balance_gold_flows(), c.result);
    EXPECT_EQ(zt::decode_suggestions(kernel.requests()), c.expected);
}

INSTANTIATE_TEST_SUITE_P(Cases, GoldBalance, ::testing::ValuesIn(kCases),
                         [](const auto &info) { return std::string(info.param.name); });

std::vector<std::string> policy_lines(const zt::LogCapture &log) {
    std::vector<std::string> out;
    for (const auto &l : log.lines())
        if (l.func.rfind("zebusr_balance", 0) == 0 || l.func.rfind("zebusr_gflow", 0) == 0 ||
            l.func.rfind("zebusr_caps", 0) == 0)
            out.push_back(l.level + " " + l.message);
    return out;
}

TEST_F(GoldBalance, VerboseModeShowsFullValuesAndEveryRejection) {
    zt::LogCapture log(true);
    zt::FakeKernel kernel(&sk_fd);
    kernel.queue_code(0);
    zt::Bytes caps = zt::cap_table(gold_caps(k2to32 + 1000, 10000, 31500, 500000));
    zt::Bytes flows = zt::flow_table({{0xa, 4, 1}, {0xb, 4, 11000, 6000000000ull}});
    map(caps, flows);

    ASSERT_EQ(zebusr_balance_gold_flows(), 0);
    const std::string check =
        "MED   ZEB_SUGG_CHECK_BAL: Checking gold flow balance gold flow 0xb with pps 6000000000 "
        "avg pps 11000 on cpu[4] can balance to gold cpu[";
    std::vector<std::string> expected = {
        "LOW ################## GOLD BALANCE #################",
        "LOW   num gold flows = 2",
        check + "5] with avg capacity 10000 cap_w_head 18446744073709541616",
        "MED other cpu cannot fit the additional gold flow, not moving",
        check + "6] with avg capacity 31500 cap_w_head 11500",
        "MED other cpu is about equally loaded, not movingdest_cpu_avg_pps-headroom-gflow_avg_pps "
        "= 500 src_cpu_avg_pps = 1000",
        check + "7] with avg capacity 500000 cap_w_head 480000",
        "HIGH   ZEB_SUGG_BAL: > Sending msg to kernel to request that gold flow 0xb with pps "
        "6000000000 avg pps 11000 on cpu[4] can balance to gold cpu[7] with avg capacity 500000 "
        "cap_w_head 480000",
        "HIGH   ZEB_SUGG_BAL: Move successful",
    };
    EXPECT_EQ(policy_lines(log), expected);
}

TEST_F(GoldBalance, WrappedQuantitiesAreLoggedSigned) {
    zt::LogCapture log(true);
    zt::FakeKernel kernel(&sk_fd);
    zt::Bytes caps =
        zt::cap_table(gold_caps(k2to32 - 10, 2147483647, k2to31 + 20000, k2to31 + 20000));
    zt::Bytes flows = zt::flow_table(second_on_4(k2to31));
    map(caps, flows);

    ASSERT_EQ(zebusr_balance_gold_flows(), -1);
    EXPECT_TRUE(log.contains(
        "other cpu is about equally loaded, not movingdest_cpu_avg_pps-headroom-gflow_avg_pps = "
        "-20001 src_cpu_avg_pps = -10"));
    EXPECT_TRUE(log.contains(
        "  ZEB_SUGG_CHECK_BAL: Checking gold flow balance gold flow 0xb with pps 0 avg pps "
        "2147483648 on cpu[4] can balance to gold cpu[5] with avg capacity 2147483647 cap_w_head "
        "2147463647"));
    EXPECT_TRUE(kernel.requests().empty());
}

TEST_F(GoldBalance, QuietModeKeepsDecisionsAndErrors) {
    zt::LogCapture log(false);
    zt::FakeKernel kernel(&sk_fd);
    zt::Bytes caps = zt::cap_table(gold_caps(0, 100000, 0, 0));
    zt::Bytes flows = zt::flow_table({{0xa, 4, 100}, {0xb, 9, 100}});
    map(caps, flows);
    ASSERT_EQ(zebusr_balance_gold_flows(), -1);

    // The capacity table is checked before any flow, even with no flows.
    caps = zt::cap_table(
        {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}, {4, 0, 0}, {5, 0, 0}, {6, 0, 0}, {8, 0, 0}});
    flows = zt::flow_table({});
    map(caps, flows);
    ASSERT_EQ(zebusr_balance_gold_flows(), -1);

    std::vector<std::string> expected = {
        "ERR Error: CPU Num is out of range!",
        "ERR invalid cpu number, check contents of shared memory",
    };
    EXPECT_EQ(policy_lines(log), expected);
}

TEST_F(GoldBalance, MissingMappingsAreErrors) {
    zt::LogCapture log(false);
    zt::FakeKernel kernel(&sk_fd);
    zt::Bytes caps = zt::cap_table(gold_caps(0, 100000, 0, 0));
    zt::Bytes flows = zt::flow_table(second_on_4(100));

    map(caps, flows);
    cap_list = nullptr;
    EXPECT_EQ(zebusr_balance_gold_flows(), -1);
    map(caps, flows);
    gflow_list = nullptr;
    EXPECT_EQ(zebusr_balance_gold_flows(), -1);

    EXPECT_TRUE(kernel.requests().empty());
    std::vector<std::string> expected = {"ERR cap_list is NULL", "ERR gflow_list is NULL"};
    EXPECT_EQ(policy_lines(log), expected);
}

}  // namespace
