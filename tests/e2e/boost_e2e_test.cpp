// The boost thread against the simulated core driver: one query a second,
// boosts and their renewal, and a driver that registers late.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "harness.hpp"

namespace {

using e2e::count;
using e2e::Daemon;
using Pids = std::vector<std::vector<uint32_t>>;

Pids boosted(const Daemon &run) {
    Pids out;
    for (const auto &[in, out_] : run.answers("boost")) {
        out.emplace_back();
        for (const auto &e : in["entries"]) out.back().push_back(e["pid"].get<uint32_t>());
    }
    return out;
}

// The uploader is boosted at once and again when 1000 ms or less are left;
// the backup only once the boost it started with runs low; the messenger never.
TEST(Boost, FastSendersAreBoostedAndRenewedOnceASecondAtMost) {
    Daemon run(R"({"name": "boost", "processes": [
        {"pid": 4242, "name": "uploader", "tx_bps": 800000000},
        {"pid": 777, "name": "messaging", "tx_bps": 2000000},
        {"pid": 999, "name": "backup", "tx_bps": 900000000, "boost_ms": 5000}]})");
    ASSERT_TRUE(run.wait_until([&] { return boosted(run).size() >= 3; })) << run.describe();
    const std::string log = run.log();
    run.stop();

    EXPECT_EQ(boosted(run), (Pids{{4242}, {999}, {4242}}));
    const size_t queries = run.answers("pid_bps_query").size(), pauses = run.sleeps(1);
    EXPECT_GE(queries, 10u);
    EXPECT_TRUE(pauses == queries || pauses + 1 == queries) << pauses << " " << queries;
    // Decisions are logged without verbose logging; nothing else is.
    EXPECT_EQ(count(log, "(HIGH): Boosting pid 4242 with bps 800000000"), 2u);
    EXPECT_GE(count(log, "(HIGH): pid 999 with bps 900000000 has "), 1u);
    EXPECT_EQ(count(log, "(LOW): "), 0u);
}

// Each failed lookup closes the steering socket, which the evaluation thread
// then has to replace.
TEST(Boost, CoreDriverFoundOnTheFifthAttempt) {
    Daemon run("faults/family-absent-attempts.json", {"-v"});
    ASSERT_TRUE(run.wait_answer("pid_bps_query", {}, 3)) << run.describe();
    const std::string log = run.log();
    run.stop();

    std::vector<std::string> want;
    for (int i = 0; i < 4; i++)
        want.push_back("duloxusr_connect_to_dulox_core failed on attempt " + std::to_string(i));
    want.push_back("CONNECTED to dulox core driver");
    want.push_back("duloxusr_connect_to_dulox_core COMPLETE on attempt 4");
    EXPECT_EQ(e2e::missing_in_order(log, want), "");
    std::vector<std::string> core;
    size_t zeb = 0;
    for (const auto &[in, out] : run.answers("family_lookup")) {
        if (in["family"] == "DULOX_CORE")
            core.push_back(out["reply"]);
        else
            zeb += out["reply"] == "family";
    }
    EXPECT_EQ(core, (std::vector<std::string>{"error", "error", "error", "error", "family"}));
    EXPECT_GE(zeb, 2u) << "the steering socket was not closed";
}

}  // namespace
