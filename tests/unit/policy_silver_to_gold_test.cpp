// Loaded silver CPU up to gold: which silver CPU, which gold CPUs in what
// order, and what a refusal leads to.
#include <gtest/gtest.h>

#include "core/log.h"
#include "netlink/genl_family.h"
#include "policy/policy.h"
#include "steering/tables.h"
#include "steering_tables.h"
#include "test_support.h"

namespace {

using zt::Cap;
using zt::Sugg;

constexpr uint32_t UP = 1;

// Eight idle CPUs, entry i naming CPU i; `loaded` maps index -> pps_capacity.
std::vector<Cap> caps_with(std::initializer_list<std::pair<int, uint64_t>> loaded) {
    std::vector<Cap> caps;
    for (uint16_t i = 0; i < 8; i++) caps.push_back({i, 500000, 500000});
    for (auto [index, pps] : loaded) caps[index].pps = pps;
    return caps;
}

struct Case {
    const char *name;
    std::vector<Cap> caps;
    std::vector<int32_t> answers;
    std::vector<Sugg> expected;
    int result;
};
void PrintTo(const Case &c, std::ostream *os) {
    *os << c.name;
}

const Case kCases[] = {
    {"SilverAt7999IsLoaded", caps_with({{2, 7999}}), {0}, {{0, UP, 2, 4}}, 0},
    {"SilverAt8000IsNot", caps_with({{2, 8000}}), {}, {}, -1},
    {"HigherIndexWinsWhenTwoAreLoaded", caps_with({{1, 0}, {3, 10}}), {0}, {{0, UP, 3, 4}}, 0},
    {"LoadedGoldIsNotASource", caps_with({{5, 0}}), {}, {}, -1},
    {"LoadedGoldIsStillADestination", caps_with({{0, 0}, {4, 0}}), {0}, {{0, UP, 0, 4}}, 0},
    {"AveragePlaysNoPart",
     {{0, 9000, 0},
      {1, 9000, 0},
      {2, 9000, 0},
      {3, 9000, 0},
      {4, 0, 0},
      {5, 0, 0},
      {6, 0, 0},
      {7, 0, 0}},
     {},
     {},
     -1},
    {"RefusalTriesNextGoldInTableOrder",
     caps_with({{1, 100}}),
     {7, -1, 0},
     {{0, UP, 1, 4}, {0, UP, 1, 5}, {0, UP, 1, 6}},
     0},
    {"EveryGoldRefusesAndNoOtherSilverIsTried",
     caps_with({{0, 1}, {1, 1}}),
     {1, 2, -22, -1},
     {{0, UP, 1, 4}, {0, UP, 1, 5}, {0, UP, 1, 6}, {0, UP, 1, 7}},
     -1},
    {"PositionIsNotCpuNumber",
     {{6, 500000, 0},
      {3, 100, 0},
      {5, 500000, 0},
      {2, 500000, 0},
      {1, 500000, 0},
      {7, 500000, 0},
      {0, 7999, 0},
      {4, 500000, 0}},
     {3, 0},
     {{0, UP, 0, 6}, {0, UP, 0, 5}},
     0},
    {"AllSilverTableSendsNothing",
     {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}, {0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}},
     {},
     {},
     -1},
    // Unchecked CPU numbers count as gold here.
    {"CpuNumberEightIsOfferedAsGold",
     {{0, 500000, 0},
      {1, 500000, 0},
      {2, 500000, 0},
      {3, 0, 0},
      {8, 500000, 0},
      {9, 500000, 0},
      {2, 500000, 0},
      {1, 500000, 0}},
     {0},
     {{0, UP, 3, 8}},
     0},
};

class SilverToGold : public ::testing::TestWithParam<Case> {
   protected:
    void SetUp() override { zeb_family_id = zt::kZebFamily; }
    void TearDown() override { cap_list = nullptr; }
};

TEST_P(SilverToGold, SuggestsInOrderAndReportsTheResult) {
    const Case &c = GetParam();
    zt::LogCapture log(false);
    zt::FakeKernel kernel(&sk_fd);
    for (int32_t code : c.answers) kernel.queue_code(code);
    zt::Bytes caps = zt::cap_table(c.caps);
    cap_list = reinterpret_cast<zebusr_cap_info *>(caps.data());

    EXPECT_EQ(zebusr_move_loaded_silver_cpu_to_gold(), c.result);
    EXPECT_EQ(zt::decode_suggestions(kernel.requests()), c.expected);
}

INSTANTIATE_TEST_SUITE_P(Cases, SilverToGold, ::testing::ValuesIn(kCases),
                         [](const auto &info) { return std::string(info.param.name); });

// Only what the policy itself writes, not the exchange underneath it.
std::vector<std::string> policy_lines(const zt::LogCapture &log) {
    std::vector<std::string> out;
    for (const auto &l : log.lines())
        if (l.func.rfind("zebusr_move_loaded", 0) == 0 || l.func.rfind("zebusr_caps", 0) == 0)
            out.push_back(l.level + " " + l.message);
    return out;
}

TEST_F(SilverToGold, VerboseModeAddsTheHeaderAndTheChosenCpu) {
    zt::LogCapture log(true);
    zt::FakeKernel kernel(&sk_fd);
    kernel.queue_code(4);
    kernel.queue_code(0);
    zt::Bytes caps = zt::cap_table(caps_with({{5, 10}}));
    cap_list = reinterpret_cast<zebusr_cap_info *>(caps.data());

    ASSERT_EQ(zebusr_move_loaded_silver_cpu_to_gold(), -1);  // index 5 is gold: nothing loaded
    caps = zt::cap_table(caps_with({{2, 10}}));
    cap_list = reinterpret_cast<zebusr_cap_info *>(caps.data());
    ASSERT_EQ(zebusr_move_loaded_silver_cpu_to_gold(), 0);

    std::vector<std::string> expected = {
        "LOW ################## SILVER TO GOLD ##################",
        "LOW ################## SILVER TO GOLD ##################",
        "MED   Move all flows on cpu 2 at index 2",
        "HIGH   ZEB_SUGG_UP: Sending msg to kernel to request that all flows on cpu 2 be moved to "
        "gold cpu 4",
        "HIGH   ZEB_SUGG_UP: Sending msg to kernel to request that all flows on cpu 2 be moved to "
        "gold cpu 5",
        "HIGH   ZEB_SUGG_UP: Move successful",
    };
    EXPECT_EQ(policy_lines(log), expected);
    // The chosen-CPU line carries its own newline, so an empty line follows it.
    EXPECT_NE(log.text().find("(MED):   Move all flows on cpu 2 at index 2\n\n"),
              std::string::npos);
}

TEST_F(SilverToGold, QuietModeKeepsOnlyTheDecisions) {
    zt::LogCapture log(false);
    zt::FakeKernel kernel(&sk_fd);
    kernel.queue_code(0);
    zt::Bytes caps = zt::cap_table(caps_with({{0, 10}}));
    cap_list = reinterpret_cast<zebusr_cap_info *>(caps.data());

    ASSERT_EQ(zebusr_move_loaded_silver_cpu_to_gold(), 0);
    std::vector<std::string> expected = {
        "HIGH   ZEB_SUGG_UP: Sending msg to kernel to request that all flows on cpu 0 be moved to "
        "gold cpu 4",
        "HIGH   ZEB_SUGG_UP: Move successful",
    };
    EXPECT_EQ(policy_lines(log), expected);
}

TEST_F(SilverToGold, MissingMappingIsAnErrorWithItsOwnNewline) {
    zt::LogCapture log(false);
    zt::FakeKernel kernel(&sk_fd);
    cap_list = nullptr;

    EXPECT_EQ(zebusr_move_loaded_silver_cpu_to_gold(), -1);
    EXPECT_TRUE(kernel.requests().empty());
    EXPECT_NE(log.text().find("(ERR): cap_list is NULL\n\n"), std::string::npos);
}

}  // namespace
