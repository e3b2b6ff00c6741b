// Scenario files: values over time, defaults, and errors that name the file,
// the place and the problem.
#include <gtest/gtest.h>

#include <filesystem>

#include "scenario.hpp"

namespace {

using namespace sim;

TEST(Series, InterpolatesBetweenPointsAndHoldsOutside) {
    Series s{{{1, 10}, {3, 30}, {3, 100}, {5, 100}}};
    EXPECT_EQ(s.at(0), 10);
    EXPECT_EQ(s.at(2), 20);
    EXPECT_EQ(s.at(3), 100);  // two points at one time make a step
    EXPECT_EQ(s.at(9), 100);
    EXPECT_EQ(Series{}.at(1), 0);
}

TEST(Scenario, ReadsEveryPartWithDefaults) {
    Scenario s = parse_scenario(R"({
    "name": "x", "tick_ms": 0, "family_ids": {"DULOX_ZEB": 40},
    "cpus": [{"cpu": 3, "max_pps": 5000, "load_pps": [[0, 1], [2, 3]], "comment": "notes are allowed"}],
    "flows": [{"hash": "0x1F", "cpu": 6, "pps": 7, "end_s": 4, "slow_start": true}, {"hash": 31, "cpu": 0, "pps": 1}],
    "processes": [{"pid": 9, "tx_bps": 1e9, "boost_ms": 500}],
    "faults": [{"kind": "silent", "from_s": 1, "to_s": 2},
               {"kind": "reply_code", "on": "suggestion", "sugg_type": "BAL", "code": -16, "times": 2, "skip": 1},
               {"kind": "thread_create_fails", "nth": 2}]
  })",
                                "t.json");
    EXPECT_EQ(s.tick_ms, 0);
    EXPECT_EQ(s.duration_s, 20);
    EXPECT_EQ(s.ids.zeb, 40);
    EXPECT_EQ(s.ids.core, 31);
    EXPECT_EQ(s.cpus[3].max_pps, 5000);
    EXPECT_EQ(s.cpus[3].load_pps.at(1), 2);
    EXPECT_EQ(s.cpus[2].max_pps, 100000);
    EXPECT_EQ(s.cpus[7].max_pps, 200000);
    ASSERT_EQ(s.flows.size(), 2u);
    EXPECT_EQ(s.flows[0].hash, 0x1fu);
    EXPECT_EQ(s.flows[1].hash, 31u);
    EXPECT_TRUE(s.flows[0].slow_start);
    EXPECT_EQ(s.flows[0].end_s, 4);
    EXPECT_EQ(s.flows[1].end_s, kForever);
    EXPECT_EQ(s.processes[0].boost_ms, 500);
    ASSERT_EQ(s.faults.size(), 3u);
    EXPECT_EQ(s.faults[0].on,
              (std::vector<Kind>{Kind::Sync, Kind::Suggestion, Kind::Segmentation}));
    EXPECT_EQ(s.faults[1].sugg_type, 3u);
    EXPECT_EQ(s.faults[1].where, "faults/1");
    EXPECT_EQ(s.thread_fail_nth(), 2);
}

struct Broken {
    const char *text;
    const char *place;
    const char *problem;
};

TEST(Scenario, BrokenFilesNameThePlaceAndTheProblem) {
    const Broken cases[] = {
        {"{\n  \"flows\": [,]\n}", "t.json:2:13", "invalid JSON"},
        {R"([1])", "t.json: /", "must be an object"},
        {R"({"flowz": []})", "/flowz", "unknown key"},
        {R"({"tick_ms": "fast"})", "/tick_ms", "must be a number"},
        {R"({"cpus": [{"cpu": 8}]})", "/cpus/0/cpu", "between 0 and 7"},
        {R"({"flows": [{"cpu": 1, "pps": 1}]})", "/flows/0", "missing required key \"hash\""},
        {R"({"flows": [{"hash": "0xZZ", "cpu": 1, "pps": 1}]})", "/flows/0/hash", "32-bit hash"},
        {R"({"flows": [{"hash": 1, "cpu": 1, "pps": [[2, 1], [1, 1]]}]})", "/flows/0/pps/1",
         "backwards"},
        {R"({"flows": [{"hash": 1, "cpu": 1, "pps": 1, "start_s": 5, "end_s": 2}]})",
         "/flows/0/end_s", "after start_s"},
        {R"({"processes": [{"pid": 0, "tx_bps": 1}]})", "/processes/0/pid", "between 1"},
        {R"({"faults": [{"kind": "gremlins"}]})", "/faults/0/kind", "not a fault kind"},
        {R"({"faults": [{"kind": "silent", "on": "lookup"}]})", "/faults/0/on",
         "cannot apply to family_lookup"},
        {R"({"faults": [{"kind": "reply_code", "on": "sync"}]})", "/faults/0",
         "missing required key \"code\""},
        {R"({"faults": [{"kind": "malformed_reply", "on": "sync", "form": "wrong_second_attr"}]})",
         "/faults/0/form", "lookups only"},
        {R"({"faults": [{"kind": "family_absent", "family": "DULOX"}]})", "/faults/0/family",
         "DULOX_ZEB"},
        {R"({"faults": [{"kind": "table_absent", "table": "caps", "to_s": 0}]})", "/faults/0/to_s",
         "after from_s"},
        {R"({"family_ids": {"DULOX_ZEB": 16}})", "/family_ids/DULOX_ZEB", "between 17"},
        {R"({"cap_table_order": [0, 1]})", "/cap_table_order", "8 CPU numbers"},
    };
    for (const auto &c : cases) {
        try {
            parse_scenario(c.text, "t.json");
            ADD_FAILURE() << "accepted: " << c.text;
        } catch (const ScenarioError &e) {
            std::string m = e.what();
            EXPECT_EQ(m.rfind("t.json", 0), 0u) << m;
            EXPECT_NE(m.find(c.place), std::string::npos) << m;
            EXPECT_NE(m.find(c.problem), std::string::npos) << m;
        }
    }
}

TEST(Scenario, ShippedFilesAreValid) {
    int n = 0;
    for (const auto &e : std::filesystem::recursive_directory_iterator(ZEBUSR_SCENARIO_DIR)) {
        if (e.path().extension() != ".json")
            continue;
        EXPECT_NO_THROW(load_scenario(e.path().string())) << e.path();
        ++n;
    }
    EXPECT_GT(n, 10);
    EXPECT_THROW(load_scenario("/nonexistent.json"), ScenarioError);
}

}  // namespace
