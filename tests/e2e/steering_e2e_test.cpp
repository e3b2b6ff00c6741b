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

std::vector<int> zeb_conns(const Daemon &run) {
    std::vector<int> out;
    for (const auto &[in, out_] : run.answers("family_lookup"))
        if (in["family"] == "DULOX_ZEB")
            out.push_back(in["conn"].get<int>());
    return out;
}

std::set<int> closed_conns(const Daemon &run) {
    std::set<int> out;
    for (const auto &r : run.transcript())
        if (r.value("kind", "") == "disconnect")
            out.insert(r["conn"].get<int>());
    return out;
}

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
    // Each cycle: slow-start flows, capacities, then the gold flows only
    // while nothing has moved; every policy stops the ones after it.
    const Strings steps = {"SS FLOW FILE CONTENTS", "Disabling segmentation",  "CAP FILE CONTENTS",
                           "SILVER TO GOLD",        "GOLD FLOW FILE CONTENTS", "GOLD TO SILVER",
                           "GOLD BALANCE"};
    size_t cycles = 0;
    size_t at = log.find(sync, log.find("CONNECTED to dulox_zeb.ko"));
    for (size_t end; at != std::string::npos && (end = log.find(sync, at + 1)) != std::string::npos;
         at = end, cycles++) {  // the last cycle may be cut short by the signal
        const std::string cycle = log.substr(at, end - at);
        Strings seen;
        for (const auto &s : steps)
            if (cycle.find(s) != std::string::npos)
                seen.push_back(s);
        EXPECT_EQ(missing_in_order(cycle, seen), "") << cycle;
        EXPECT_EQ(missing_in_order(cycle, {steps[0], steps[2], steps[3]}), "") << cycle;
        if (count(cycle, "ZEB_SUGG_UP: Move successful")) {
            EXPECT_EQ(count(cycle, "GOLD FLOW FILE CONTENTS"), 0u);
        }
        if (count(cycle, "ZEB_SUGG_DOWN: Move successful")) {
            EXPECT_EQ(count(cycle, "GOLD BALANCE"), 0u);
        }
    }
    EXPECT_GT(cycles, 100u);
    std::set<uint32_t> boosted;
    for (const auto &[in, out] : run.answers("boost"))
        for (const auto &e : in["entries"]) boosted.insert(e["pid"].get<uint32_t>());
    EXPECT_EQ(boosted, (std::set<uint32_t>{999, 4242}));
}

struct Retry {
    const char *scenario;
    Strings failure;  // one failed attempt, in order
};

void PrintTo(const Retry &r, std::ostream *os) {
    *os << r.scenario;
}

class ConnectRetry : public ::testing::TestWithParam<Retry> {};

// Each failed attempt undoes itself and pauses 3 s; the loop never gives up.
TEST_P(ConnectRetry, UndoesEachAttemptPausesAndCountsThem) {
    Daemon run(GetParam().scenario, {"-v"});
    ASSERT_TRUE(run.wait_log("CONNECTED to dulox_zeb.ko")) << run.describe();
    const std::string log = run.log();
    const auto conns = zeb_conns(run);
    const auto closed = closed_conns(run);
    run.stop();

    const size_t failed = count(log, GetParam().failure[0]);
    ASSERT_GE(failed, 2u);
    Strings want;
    for (size_t i = 0; i < failed; i++) {
        want.insert(want.end(), GetParam().failure.begin(), GetParam().failure.end());
        want.push_back("zebusr_connect_to_dulox_zeb failed on attempt " + std::to_string(i));
    }
    want.push_back("zebusr_connect_to_dulox_zeb COMPLETE on attempt " + std::to_string(failed));
    EXPECT_EQ(missing_in_order(log, want), "");
    EXPECT_EQ(run.sleeps(3), failed);
    ASSERT_EQ(conns.size(), failed + 1);
    for (size_t i = 0; i < conns.size(); i++)
        EXPECT_EQ(closed.count(conns[i]), size_t(i < failed)) << "attempt " << i;
}

INSTANTIATE_TEST_SUITE_P(
    Faults, ConnectRetry,
    ::testing::Values(Retry{"faults/family-absent-until-time.json",
                            {"netlink received msg error for family resp",
                             "zebusr_genl_init_sock failed"}},
                      Retry{"faults/table-absent.json",
                            {"open: No such file or directory", "init ssflow file failed",
                             "closing cap file", "closing gflow file"}}),
    [](const auto &info) { return info.index == 0 ? "FamilyAbsent" : "SlowStartTableAbsent"; });

// A sync answered -1 reconnects on a fresh socket and fresh table files; the
// old ones stay open, and a connection whose own sync fails retries at once.
TEST(Steering, SyncAnsweredMinusOneReconnects) {
    Daemon run("faults/sync-minus-one.json", {"-v"});
    ASSERT_TRUE(run.wait_answer("sync", [](auto &in, auto &) { return in["t"] > 7.5; }))
        << run.describe();
    const std::string log = run.log();
    const auto conns = zeb_conns(run);
    const auto closed = closed_conns(run);
    run.stop();

    EXPECT_EQ(count(log, "sync failed, attempting to reconnect"), 1u);
    // How many attempts fall inside the window depends on the machine's speed;
    // each one in it fails at its own sync, closes its socket and is not paused.
    ASSERT_GE(conns.size(), 2u);
    EXPECT_EQ(count(log, "zebusr_sync failed"), conns.size() - 2);
    for (size_t i = 0; i < conns.size(); i++)
        EXPECT_EQ(closed.count(conns[i]), size_t(i > 0 && i + 1 < conns.size()))
            << "connection " << i;
    EXPECT_EQ(run.sleeps(3), 0u);
    EXPECT_EQ(count(log, "open pathname = /proc/zeb/dulox_zeb_caps"), 2u);
    EXPECT_EQ(count(log, "closing cap file"), 0u);
}

}  // namespace
