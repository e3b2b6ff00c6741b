// The device model: capacity from load, averages over samples, moves that
// suggestions make, segmentation and boost state.
#include <gtest/gtest.h>

#include <cerrno>

#include "model.hpp"

namespace {

using namespace sim;

Scenario device() {
    return parse_scenario(R"({
    "tick_ms": 100, "avg_samples": 4,
    "cpus": [{"cpu": 2, "max_pps": 100000, "load_pps": 45000}],
    "flows": [{"hash": "0xa", "cpu": 2, "pps": 50000, "bps": 8},
              {"hash": "0xb", "cpu": 2, "pps": 1000},
              {"hash": "0xc", "cpu": 6, "pps": [[0, 0], [1, 40000]]},
              {"hash": "0xd", "cpu": 3, "pps": 10, "bps": 500, "slow_start": true, "end_s": 1}],
    "processes": [{"pid": 7, "tx_bps": 9, "boost_ms": 1500}, {"pid": 8, "tx_bps": 1, "start_s": 5}]
  })",
                          "m.json");
}

const CapEntry &cap(const std::vector<CapEntry> &v, int cpu) {
    for (const auto &c : v)
        if (c.cpu == cpu)
            return c;
    throw std::out_of_range("cpu");
}

TEST(Model, SpareIsMaximumLessLoadAndAveragesOverTheWindow) {
    Scenario s = device();
    Model m(s);
    auto caps = m.caps();
    ASSERT_EQ(caps.size(), 8u);
    EXPECT_EQ(cap(caps, 2).pps_capacity, 4000u);  // 100000 - 45000 - 50000 - 1000
    EXPECT_EQ(cap(caps, 2).bps, 8u);
    EXPECT_EQ(cap(caps, 6).pps_capacity, 200000u);
    m.advance_to(1.0);  // flow 0xc reaches 40000 on cpu6
    EXPECT_EQ(cap(m.caps(), 6).pps_capacity, 160000u);
    // Samples at 0.7..1.0 s: 172000, 168000, 164000, 160000.
    EXPECT_EQ(cap(m.caps(), 6).avg_pps_capacity, 166000u);
    EXPECT_NEAR(m.sample_time(), 1.0, 1e-9);
}

TEST(Model, UpMovesEveryFlowOfTheCpuAndTheTablesShowIt) {
    Scenario s = device();
    Model m(s);
    auto o = m.suggest({0, 1, 2, 4}, 0);
    EXPECT_EQ(o.code, 0);
    EXPECT_NE(o.effect.find("moved 2 flow(s)"), std::string::npos) << o.effect;
    m.advance_to(0.1);
    EXPECT_EQ(cap(m.caps(), 2).pps_capacity, 55000u);
    EXPECT_EQ(cap(m.caps(), 4).pps_capacity, 200000u - 51000u);
    auto gold = m.gold_flows();
    ASSERT_EQ(gold.size(), 3u);  // 0xa and 0xb join 0xc, in scenario order
    EXPECT_EQ(gold[0].hash, 0xau);
    EXPECT_EQ(gold[0].cpu, 4);
    EXPECT_EQ(gold[0].avg_pps, 50000u);
}

TEST(Model, SingleFlowMovesCheckTheFlowAndItsCpu) {
    Scenario s = device();
    Model m(s);
    m.advance_to(1.0);
    struct Case {
        SuggInfo s;
        int32_t code;
        int cpu_of_c;
    } cases[] = {
        {{0xc, 2, 5, 1}, -EINVAL, 6},                                 // flow is not on cpu5
        {{0x99, 3, 6, 7}, -ENOENT, 6}, {{0xc, 9, 6, 7}, -EINVAL, 6},  // unknown type
        {{0xc, 3, 6, 8}, -EINVAL, 6},                                 // no cpu8
        {{0xc, 3, 6, 7}, 0, 7},        {{0xc, 2, 7, 1}, 0, 1},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(m.suggest(c.s, 1).code, c.code) << c.s.hash << " type " << c.s.type;
        EXPECT_EQ(m.find_flow(0xc)->cpu, c.cpu_of_c);
    }
    m.advance_to(1.1);
    EXPECT_TRUE(m.gold_flows().empty() || m.gold_flows()[0].hash != 0xc);
}

TEST(Model, SlowStartFlowsAreListedThenLingerAtZero) {
    Scenario s = device();
    Model m(s);
    ASSERT_EQ(m.ss_flows().size(), 1u);
    EXPECT_EQ(m.ss_flows()[0].rx_bps, 500u);
    m.advance_to(1.5);
    ASSERT_EQ(m.ss_flows().size(), 1u);
    EXPECT_EQ(m.ss_flows()[0].rx_bps, 0u);
    m.advance_to(2.5);
    EXPECT_TRUE(m.ss_flows().empty());
    EXPECT_EQ(m.segment({0xd, 0}, 2.5).code, 0);
    EXPECT_FALSE(m.find_flow(0xd)->seg_enabled);
    EXPECT_EQ(m.segment({0x99, 0}, 2.5).code, -ENOENT);
}

TEST(Model, BoostTimeCountsDownAndRequestsRenewIt) {
    Scenario s = device();
    Model m(s);
    auto r = m.pid_bps(0.5);
    ASSERT_EQ(r.entries.size(), 1u);  // pid 8 starts at 5 s
    EXPECT_EQ(r.entries[0].boost_remaining_ms, 1000u);
    EXPECT_EQ(m.pid_bps(3).entries[0].boost_remaining_ms, 0u);
    BoostInfo b;
    b.valid = 1;
    b.list_len = 2;
    b.entries = {{1, 10000, 7}, {1, 10000, 55}};
    std::string effect = m.boost(b, 3);
    EXPECT_NE(effect.find("pid 55 unknown"), std::string::npos);
    EXPECT_EQ(m.pid_bps(4).entries[0].boost_remaining_ms, 9000u);
    EXPECT_EQ(m.pid_bps(6).entries.size(), 2u);
    b.valid = 0;
    EXPECT_EQ(m.boost(b, 5), "ignored: record not valid");
}

}  // namespace
