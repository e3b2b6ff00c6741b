// Gold flow down to silver: the headroom test, the order of flows and of
// silver CPUs, refusals, and the three ways the search ends.
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

constexpr uint32_t DOWN = 2;

// Entry i names CPU i; the silver CPUs get the given average capacities,
// the gold ones far more than any flow here needs.
std::vector<Cap> silver_caps(uint64_t c0, uint64_t c1, uint64_t c2, uint64_t c3) {
    std::vector<Cap> caps;
    uint64_t silver[4] = {c0, c1, c2, c3};
    for (uint16_t i = 0; i < 8; i++) caps.push_back({i, 0, i < 4 ? silver[i] : 10000000});
    return caps;
}

// 128 entries on CPU 5: all idle (avg 0) except the last, which fits CPU 0.
std::vector<Flow> idle_then_last_fits() {
    std::vector<Flow> flows;
    for (uint32_t i = 0; i < 128; i++) flows.push_back({0x100 + i, 5, i == 127 ? 1u : 0u});
    return flows;
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
    {"EmptyTable", silver_caps(90000, 90000, 90000, 90000), {}, -1, {}, {}, -1},
    {"OneBelowHeadroomFits",
     silver_caps(50000, 0, 0, 0),
     {{0xa1, 5, 29999}},
     -1,
     {0},
     {{0xa1, DOWN, 5, 0}},
     0},
    {"EqualToCapacityLessHeadroomDoesNotFit",
     silver_caps(50000, 0, 0, 0),
     {{0xa1, 5, 30000}},
     -1,
     {},
     {},
     -1},
    {"ExactlyHeadroomFitsNothing",
     silver_caps(20000, 20001, 19999, 0),
     {{0xa1, 5, 1, 900000}},
     -1,
     {},
     {},
     -1},
    {"ZeroAverageIsNeverMoved",
     silver_caps(90000, 90000, 90000, 90000),
     {{0xa1, 4, 0, 5000000}, {0xa2, 6, 10}},
     -1,
     {0},
     {{0xa2, DOWN, 6, 0}},
     0},
    {"RefusalOffersSameFlowToNextSilverThenNextFlow",
     silver_caps(90000, 0, 90000, 90000),
     {{0xa1, 4, 100}, {0xa2, 7, 100}},
     -1,
     {3, -1, 12, 0},
     {{0xa1, DOWN, 4, 0}, {0xa1, DOWN, 4, 2}, {0xa1, DOWN, 4, 3}, {0xa2, DOWN, 7, 0}},
     0},
    {"EveryCandidateRefused",
     silver_caps(90000, 90000, 0, 0),
     {{0xa1, 4, 100}, {0xa2, 5, 100}},
     -1,
     {1, 1, 1, 1},
     {{0xa1, DOWN, 4, 0}, {0xa1, DOWN, 4, 1}, {0xa2, DOWN, 5, 0}, {0xa2, DOWN, 5, 1}},
     -1},
    {"ZeroHashStopsTheSearch",
     silver_caps(90000, 0, 0, 0),
     {{0xa1, 4, 100}, {0, 4, 100}, {0xa3, 4, 100}},
     -1,
     {1},
     {{0xa1, DOWN, 4, 0}},
     -1},
    {"ListLengthBoundsTheSearch",
     silver_caps(90000, 0, 0, 0),
     {{0xa1, 4, 100}, {0xa2, 4, 100}},
     1,
     {1},
     {{0xa1, DOWN, 4, 0}},
     -1},
    {"SilverInTableOrderNotCpuOrder",
     {{6, 0, 9000000},
      {3, 0, 90000},
      {5, 0, 9000000},
      {1, 0, 90000},
      {4, 0, 9000000},
      {0, 0, 90000},
      {7, 0, 9000000},
      {2, 0, 90000}},
     {{0xa1, 5, 100}},
     -1,
     {9, 9, 0},
     {{0xa1, DOWN, 5, 3}, {0xa1, DOWN, 5, 1}, {0xa1, DOWN, 5, 0}},
     0},
    {"GoldCpusAreNeverDestinations", silver_caps(0, 0, 0, 0), {{0xa1, 4, 100}}, -1, {}, {}, -1},
    // The flow's own CPU is not looked at: a silver flow may be offered its own CPU.
    {"FlowOnSilverCpuIsHandledAlike",
     silver_caps(0, 90000, 0, 0),
     {{0xa1, 1, 100}},
     -1,
     {0},
     {{0xa1, DOWN, 1, 1}},
     0},
    // Decided in 64 bits: on its low 32 bits this capacity would be 50000.
    {"CapacityAbove32BitsIsNotTruncated",
     silver_caps((1ull << 32) + 50000, 0, 0, 0),
     {{0xa1, 4, 40000}},
     -1,
     {0},
     {{0xa1, DOWN, 4, 0}},
     0},
    {"EntryOf128IsTriedThenTheLimitStops",
     silver_caps(90000, 0, 0, 0),
     idle_then_last_fits(),
     200,
     {1},
     {{0x17f, DOWN, 5, 0}},
     -1},
    {"ListOfExactly128EndsQuietly",
     silver_caps(90000, 0, 0, 0),
     idle_then_last_fits(),
     128,
     {1},
     {{0x17f, DOWN, 5, 0}},
     -1},
};

class GoldToSilver : public ::testing::TestWithParam<Case> {
   protected:
    void SetUp() override { zeb_family_id = zt::kZebFamily; }
    void TearDown() override {
        cap_list = nullptr;
        gflow_list = nullptr;
    }
    void map(const zt::Bytes &caps, const zt::Bytes &flows) {
        cap_list = reinterpret_cast<zebusr_cap_info *>(const_cast<uint8_t *>(caps.data()));
        gflow_list = reinterpret_cast<zebusr_flow_table *>(const_cast<uint8_t *>(flows.data()));
    }
};

TEST_P(GoldToSilver, SuggestsInOrderAndReportsTheResult) {
    const Case &c = GetParam();
    zt::LogCapture log(false);
    zt::FakeKernel kernel(&sk_fd);
    for (int32_t code : c.answers) kernel.queue_code(code);
    zt::Bytes caps = zt::cap_table(c.caps);
    zt::Bytes flows = zt::flow_table(c.flows, c.list_len);
    map(caps, flows);

    EXPECT_EQ(zebusr_move_gold_flow_down_to_silver(), c.result);
    EXPECT_EQ(zt::decode_suggestions(kernel.requests()), c.expected);
    size_t limit = c.list_len > 128 ? 1 : 0;
    EXPECT_EQ(log.count("Max user flows reached"), limit);
}

INSTANTIATE_TEST_SUITE_P(Cases, GoldToSilver, ::testing::ValuesIn(kCases),
                         [](const auto &info) { return std::string(info.param.name); });

std::vector<std::string> policy_lines(const zt::LogCapture &log) {
    std::vector<std::string> out;
    for (const auto &l : log.lines())
        if (l.func.rfind("zebusr_move_gold", 0) == 0 || l.func.rfind("zebusr_gflow", 0) == 0)
            out.push_back(l.level + " " + l.message);
    return out;
}

TEST_F(GoldToSilver, VerboseModeShowsEveryCheckWithFullValues) {
    zt::LogCapture log(true);
    zt::FakeKernel kernel(&sk_fd);
    kernel.queue_code(5);
    kernel.queue_code(0);
    zt::Bytes caps = zt::cap_table(silver_caps(19999, 20000, (1ull << 32) + 50000, 0));
    zt::Bytes flows = zt::flow_table({{0xbeef, 6, 40000, 5000000000ull}, {0xcafe, 4, 7, 8}});
    map(caps, flows);

    ASSERT_EQ(zebusr_move_gold_flow_down_to_silver(), 0);
    std::vector<std::string> expected = {
        "LOW ################## GOLD TO SILVER #################",
        "MED   num gold flows = 2",
        "MED   ZEB_SUGG_DOWN_CHECK: > Checking that gold flow 0xbeef with pps 5000000000 avg pps "
        "40000 on cpu[6] can move to silver cpu[1] with avg capacity 20000 cap_w_head 0",
        "MED   ZEB_SUGG_DOWN_CHECK: > Checking that gold flow 0xbeef with pps 5000000000 avg pps "
        "40000 on cpu[6] can move to silver cpu[2] with avg capacity 4295017296 cap_w_head "
        "4294997296",
        "HIGH   ZEB_SUGG_DOWN: > Sending msg to kernel to request that gold flow 0xbeef with pps "
        "5000000000 avg pps 40000 on cpu[6] can move to silver cpu[2] with avg capacity "
        "4295017296 cap_w_head 4294997296",
        "MED   ZEB_SUGG_DOWN_CHECK: > Checking that gold flow 0xcafe with pps 8 avg pps 7 on "
        "cpu[4] can move to silver cpu[1] with avg capacity 20000 cap_w_head 0",
        "MED   ZEB_SUGG_DOWN_CHECK: > Checking that gold flow 0xcafe with pps 8 avg pps 7 on "
        "cpu[4] can move to silver cpu[2] with avg capacity 4295017296 cap_w_head 4294997296",
        "HIGH   ZEB_SUGG_DOWN: > Sending msg to kernel to request that gold flow 0xcafe with pps 8 "
        "avg pps 7 on cpu[4] can move to silver cpu[2] with avg capacity 4295017296 cap_w_head "
        "4294997296",
        "HIGH   ZEB_SUGG_DOWN: Move successful",
    };
    EXPECT_EQ(policy_lines(log), expected);
}

TEST_F(GoldToSilver, QuietModeKeepsDecisionsAndErrors) {
    zt::LogCapture log(false);
    zt::FakeKernel kernel(&sk_fd);
    kernel.queue_code(1);
    zt::Bytes caps = zt::cap_table(silver_caps(90000, 0, 0, 0));
    zt::Bytes flows = zt::flow_table({{0xa1, 4, 100, 200}, {0, 4, 100}});
    map(caps, flows);

    ASSERT_EQ(zebusr_move_gold_flow_down_to_silver(), -1);
    std::vector<std::string> expected = {
        "HIGH   ZEB_SUGG_DOWN: > Sending msg to kernel to request that gold flow 0xa1 with pps 200 "
        "avg pps 100 on cpu[4] can move to silver cpu[0] with avg capacity 90000 cap_w_head 70000",
        "ERR Invalid hash, breaking",
    };
    EXPECT_EQ(policy_lines(log), expected);
}

TEST_F(GoldToSilver, MissingMappingsAreErrors) {
    zt::LogCapture log(false);
    zt::FakeKernel kernel(&sk_fd);
    zt::Bytes caps = zt::cap_table(silver_caps(90000, 0, 0, 0));
    zt::Bytes flows = zt::flow_table({{0xa1, 4, 100}});

    map(caps, flows);
    cap_list = nullptr;
    EXPECT_EQ(zebusr_move_gold_flow_down_to_silver(), -1);
    map(caps, flows);
    gflow_list = nullptr;
    EXPECT_EQ(zebusr_move_gold_flow_down_to_silver(), -1);

    EXPECT_TRUE(kernel.requests().empty());
    std::vector<std::string> expected = {"ERR cap_list is NULL", "ERR gflow_list is NULL"};
    EXPECT_EQ(policy_lines(log), expected);
}

}  // namespace
