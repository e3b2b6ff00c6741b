// Whole-process view of the steering decisions: what a refusal leads to,
// one accepted move per cycle in policy order, the verbose-only capacity
// check, and the exits when a table cannot be mapped.
#include <gtest/gtest.h>
#include <signal.h>

#include <map>
#include <string>
#include <vector>

#include "harness.hpp"

namespace {

using e2e::DaemonRun;
using e2e::Json;

bool accepted(const Json &out) {
    return out.value("result", "") == "accepted";
}

// Silver CPU 2 is overloaded from the start; nothing else happens.
const char kLoadedSilver[] = R"({
  "name": "loaded-silver", "duration_s": 60,
  "cpus": [{"cpu": 2, "max_pps": 100000, "load_pps": 45000}],
  "flows": [{"hash": "0x2222", "name": "heavy", "cpu": 2, "pps": 52000}]%s
})";

std::string loaded_silver(const std::string &extra) {
    std::string text = kLoadedSilver;
    text.replace(text.find("%s"), 2, extra);
    return text;
}

// The suggestions of each cycle, a cycle being what follows one sync.
std::vector<std::vector<std::pair<Json, Json>>> suggestions_by_cycle(const DaemonRun &run) {
    std::vector<std::vector<std::pair<Json, Json>>> cycles(1);
    std::map<long, Json> pending;
    for (const Json &r : run.transcript()) {
        std::string dir = r.value("dir", "");
        std::string kind = r.value("kind", "");
        if (dir == "in" && kind == "sync")
            cycles.emplace_back();
        if (kind != "suggestion")
            continue;
        if (dir == "in")
            pending[r["n"].get<long>()] = r;
        else if (dir == "out" && pending.count(r["n"].get<long>()))
            cycles.back().push_back({pending[r["n"].get<long>()], r});
    }
    return cycles;
}

int policy_rank(const Json &in) {
    std::string type = in.value("sugg_type", "");
    return type == "UP" ? 0 : type == "DOWN" ? 1 : 2;
}

TEST(Steering, RefusedUpGoesToTheNextGoldCpusInTheSameCycle) {
    DaemonRun run(e2e::scenario_file("faults/suggestion-refused.json"));
    run.start();
    ASSERT_TRUE(run.wait_answer("suggestion", [](auto &, auto &out) { return accepted(out); }))
        << run.describe();
    run.signal(SIGTERM);
    EXPECT_EQ(run.wait_exit(), 0) << run.describe();

    auto cycles = suggestions_by_cycle(run);
    const std::vector<std::pair<Json, Json>> *first = nullptr;
    for (const auto &c : cycles)
        if (!c.empty() && !first)
            first = &c;
    ASSERT_NE(first, nullptr);
    ASSERT_EQ(first->size(), 3u) << run.describe();
    const int dests[] = {4, 5, 6};
    for (size_t i = 0; i < 3; i++) {
        const Json &in = (*first)[i].first;
        EXPECT_EQ(in["sugg_type"], "UP");
        EXPECT_EQ(in["hash"], "0x0");
        EXPECT_EQ(in["cur_cpu"], 2);
        EXPECT_EQ(in["dest_cpu"], dests[i]);
        EXPECT_EQ(accepted((*first)[i].second), i == 2);
    }
}

TEST(Steering, AtMostOneMovePerCycleAndPoliciesInOrder) {
    DaemonRun run(e2e::scenario_file("default.json"));
    run.options.args = {"-v"};
    run.start();
    for (const char *type : {"UP", "DOWN", "BAL"})
        ASSERT_TRUE(run.wait_answer(
            "suggestion",
            [&](auto &in, auto &out) { return in["sugg_type"] == type && accepted(out); }))
            << type << "\n"
            << run.describe();
    run.signal(SIGTERM);
    EXPECT_EQ(run.wait_exit(), 0) << run.describe();

    for (const auto &cycle : suggestions_by_cycle(run)) {
        for (size_t i = 0; i < cycle.size(); i++) {
            // Nothing follows an accepted move, and no policy runs after a later one.
            if (i > 0) {
                EXPECT_FALSE(accepted(cycle[i - 1].second)) << cycle[i].first.dump();
                EXPECT_LE(policy_rank(cycle[i - 1].first), policy_rank(cycle[i].first));
            }
        }
    }
    EXPECT_TRUE(run.wait_log("ZEB_SUGG_UP: Move successful"));
    EXPECT_TRUE(run.wait_log("ZEB_SUGG_DOWN: Move successful"));
    EXPECT_TRUE(run.wait_log("ZEB_SUGG_BAL: Move successful"));
}

// A capacity entry naming CPU 8 is only noticed by the verbose check, which
// then skips the move up to gold; a quiet daemon moves the silver CPU's flows.
TEST(Steering, CpuEightInTheCapacityTableStopsTheMoveUpOnlyWhenVerbose) {
    const std::string order = R"(,
  "cap_table_order": [0, 1, 2, 3, 4, 5, 6, 8])";
    {
        DaemonRun quiet(e2e::scenario_json(loaded_silver(order)));
        quiet.start();
        ASSERT_TRUE(quiet.wait_answer("suggestion", [](auto &in, auto &out) {
            return in["sugg_type"] == "UP" && in["cur_cpu"] == 2 && in["dest_cpu"] == 4 &&
                   accepted(out);
        })) << quiet.describe();
        quiet.signal(SIGTERM);
        EXPECT_EQ(quiet.wait_exit(), 0) << quiet.describe();
    }
    DaemonRun verbose(e2e::scenario_json(loaded_silver(order)));
    verbose.options.args = {"-v"};
    verbose.start();
    ASSERT_TRUE(verbose.wait_answer("sync", {}, 6)) << verbose.describe();
    ASSERT_TRUE(verbose.wait_log("invalid cpu number, check contents of shared memory", 3))
        << verbose.describe();
    verbose.signal(SIGTERM);
    EXPECT_EQ(verbose.wait_exit(), 0) << verbose.describe();
    EXPECT_TRUE(verbose.requests("suggestion").empty()) << verbose.describe();
}

struct Unmappable {
    const char *scenario;
    const char *error_prefix;
    const char *closing;
};

class UnmappableTable : public ::testing::TestWithParam<Unmappable> {};

TEST_P(UnmappableTable, EndsTheDaemonWithStatusZeroAfterItsErrorAndClose) {
    const Unmappable &u = GetParam();
    DaemonRun run(e2e::scenario_file(u.scenario));
    run.start();
    EXPECT_EQ(run.wait_exit(), 0) << run.describe();

    auto entries = run.log_entries();
    size_t at = entries.size();
    for (size_t i = 0; i < entries.size(); i++)
        if (entries[i].level == "ERR" && entries[i].message.rfind(u.error_prefix, 0) == 0) {
            at = i;
            break;
        }
    ASSERT_LT(at + 1, entries.size()) << run.describe();
    EXPECT_EQ(entries[at + 1].level, "HIGH");
    EXPECT_EQ(entries[at + 1].message, u.closing);
    EXPECT_TRUE(run.requests("suggestion").empty());
}

INSTANTIATE_TEST_SUITE_P(Tables, UnmappableTable,
                         ::testing::Values(Unmappable{"faults/table-unmappable-caps.json",
                                                      "mmap failure: ", "closing cap file"},
                                           Unmappable{"faults/table-unmappable-flows.json",
                                                      "mmap: ", "closing gflow file"}),
                         [](const auto &info) {
                             return std::string(info.index == 0 ? "Caps" : "GoldFlows");
                         });

}  // namespace
