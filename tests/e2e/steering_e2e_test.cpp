// The steering connection and its evaluation cycles, seen from outside: the
// real daemon under the simulator, judged by its transcript and its log.
#include <gtest/gtest.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

#include "harness.hpp"

namespace {

using e2e::count;
using e2e::Daemon;
using e2e::missing_in_order;
using Strings = std::vector<std::string>;

// Suggestions and segmentation requests as "<what> at <tick of the cycle's sync
// reply>", in order; a refusal is marked.
Strings decisions(const Daemon &run) {
    Strings out;
    double tick = 0;
    for (const auto &r : run.transcript()) {
        const std::string kind = r.value("kind", ""), dir = r.value("dir", "");
        char at[16];
        snprintf(at, sizeof at, " at %.1f", tick);
        if (kind == "sync" && dir == "out")
            tick = r["t"].get<double>();
        else if (kind == "segmentation" && dir == "in")
            out.push_back(r["hash"].get<std::string>() + (r["seg_enable"] == 0 ? " off" : " on") +
                          at);
        else if (kind == "suggestion" && dir == "in")
            out.push_back(r["sugg_type"].get<std::string>() + " " + r["hash"].get<std::string>() +
                          " " + std::to_string(r["cur_cpu"].get<int>()) + ">" +
                          std::to_string(r["dest_cpu"].get<int>()) + at);
        else if (dir == "out" && r.value("result", "") == "refused")
            out.back() += " refused";
    }
    return out;
}

// Every simulated tick is one cycle, so the default scenario's decisions come
// once each, at fixed ticks; a repeated move would show a stale table.
TEST(Steering, DefaultScenarioDecidesOnceEachInPolicyOrder) {
    Daemon run("default.json", {"-v"});
    ASSERT_TRUE(run.wait_answer("sync", [](auto &in, auto &) { return in["t"] > 14; }))
        << run.describe();
    run.stop();

    // Segmentation off at the first sample of 300 Mbps or more, and at the
    // tenth steady one.
    EXPECT_EQ(decisions(run),
              (Strings{"UP 0x0 2>4 at 2.7", "0xf457 off at 3.5", "DOWN 0xb0b0 5>1 at 6.9",
                       "BAL 0xd00d 6>5 at 10.2", "0x6006 off at 12.9"}));

    const std::string log = run.log(), sync = "########## SYNC START";
    EXPECT_EQ(
        missing_in_order(log, {sync, "zebusr_genl_init_sock complete for ZEBUSR_GENL_FAMILY_ZEB",
                               "open pathname = /proc/zeb/dulox_zeb_caps",
                               "page size = " + std::to_string(sysconf(_SC_PAGESIZE)),
                               "open pathname = /proc/zeb/dulox_zeb_flows",
                               "open pathname = /proc/zeb/dulox_zeb_ss_flows",
                               "CONNECTED to dulox_zeb.ko", sync, "SS FLOW FILE CONTENTS"}),
        "");
    EXPECT_GT(count(log, sync), 100u);
    std::set<uint32_t> boosted;
    for (const auto &[in, out] : run.answers("boost"))
        for (const auto &e : in["entries"]) boosted.insert(e["pid"].get<uint32_t>());
    EXPECT_EQ(boosted, (std::set<uint32_t>{999, 4242}));
}

}  // namespace
