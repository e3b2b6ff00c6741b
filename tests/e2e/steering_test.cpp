// The steering connection and its evaluation cycle, seen from outside: the
// real daemon under the simulator, judged by its transcript and its log.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "harness.hpp"

namespace {

using e2e::DaemonRun;
using e2e::Json;
using Exchange = std::pair<Json, Json>;

constexpr size_t kNone = std::string::npos;
// Slower than the harness default: a 3-second receive time-out that fires
// only because the machine is loaded would be an unplanned reconnection.
constexpr double kTimeFactor = 0.1;

std::vector<std::string> messages(const DaemonRun &run) {
    std::vector<std::string> out;
    for (const auto &e : run.log_entries())
        out.push_back(e.message);
    return out;
}

size_t count(const std::vector<std::string> &msgs, const std::string &m) {
    return static_cast<size_t>(std::count(msgs.begin(), msgs.end(), m));
}

// Index of the first message starting with `prefix` at or after `from`.
size_t find_prefix(const std::vector<std::string> &msgs, const std::string &prefix,
                   size_t from = 0) {
    for (size_t i = from; i < msgs.size(); i++)
        if (msgs[i].rfind(prefix, 0) == 0)
            return i;
    return kNone;
}

std::vector<Exchange> zeb_lookups(const DaemonRun &run) {
    std::vector<Exchange> out;
    for (const auto &a : run.answers("family_lookup"))
        if (a.first.value("family", "") == "DULOX_ZEB")
            out.push_back(a);
    return out;
}

int conn_of(const Exchange &e) { return e.first["conn"].get<int>(); }
double t_of(const Exchange &e) { return e.first["t"].get<double>(); }

std::set<int> disconnected(const DaemonRun &run) {
    std::set<int> out;
    for (const auto &r : run.transcript())
        if (r.value("kind", "") == "disconnect")
            out.insert(r["conn"].get<int>());
    return out;
}

// The requests of one steering connection, cut at each sync: one cycle each.
std::vector<std::vector<Json>> cycles_on(const DaemonRun &run, int conn) {
    std::vector<std::vector<Json>> out;
    for (const auto &r : run.transcript()) {
        if (r.value("dir", "") != "in" || r.value("conn", 0) != conn)
            continue;
        std::string kind = r.value("kind", "");
        if (kind == "sync")
            out.emplace_back();
        else if (!out.empty() && kind != "family_lookup")
            out.back().push_back(r);
    }
    return out;
}

bool accepted(const Json &out) { return out.value("result", "") == "accepted"; }

bool balanced(const Json &in, const Json &out) { return in["sugg_type"] == "BAL" && accepted(out); }

void stop(DaemonRun &run) {
    run.signal(SIGTERM);
    ASSERT_EQ(run.wait_exit(), 0) << run.describe();
}

TEST(SteeringConnect, RetriesEveryThreeSecondsUntilTheFamilyAppears) {
    DaemonRun run(e2e::scenario_file("faults/family-absent-until-time.json"));
    run.options.time_factor = kTimeFactor;
    run.options.args = {"-v"};
    run.start();
    ASSERT_TRUE(run.wait_log("CONNECTED to dulox_zeb.ko")) << run.describe();
    auto lookups = zeb_lookups(run);
    std::set<int> closed = disconnected(run);
    auto msgs = messages(run);
    ASSERT_NO_FATAL_FAILURE(stop(run));

    // Absent until 7 s: the attempts at 0, 3 and 6 s fail, the one at 9 s succeeds.
    ASSERT_GE(lookups.size(), 3u);
    size_t failed = lookups.size() - 1;
    for (size_t i = 0; i < failed; i++) {
        EXPECT_EQ(lookups[i].second["reply"], "error") << i;
        EXPECT_EQ(count(msgs, "zebusr_connect_to_dulox_zeb failed on attempt " + std::to_string(i)),
                  1u);
    }
    EXPECT_EQ(lookups.back().second["reply"], "family");
    EXPECT_GE(t_of(lookups.back()), 7.0);
    for (size_t i = 1; i < lookups.size(); i++)
        EXPECT_GE(t_of(lookups[i]) - t_of(lookups[i - 1]), 2.9) << i;
    EXPECT_EQ(count(msgs, "zebusr_connect_to_dulox_zeb COMPLETE on attempt " +
                              std::to_string(failed)),
              1u);
    EXPECT_EQ(count(msgs, "zebusr_genl_init_sock failed"), failed);
    EXPECT_EQ(run.sleeps(3).size(), failed);

    // Every attempt has a socket of its own; the failed ones are closed again.
    std::set<int> conns;
    for (const auto &l : lookups)
        conns.insert(conn_of(l));
    EXPECT_EQ(conns.size(), lookups.size());
    for (size_t i = 0; i < failed; i++)
        EXPECT_TRUE(closed.count(conn_of(lookups[i]))) << i;
    EXPECT_FALSE(closed.count(conn_of(lookups.back())));
}

TEST(SteeringConnect, SyncsTwiceBackToBackAndOpensTheTablesInBetween) {
    DaemonRun run(e2e::scenario_file("default.json"));
    run.options.time_factor = kTimeFactor;
    run.options.args = {"-v"};
    run.start();
    ASSERT_TRUE(run.wait_log("################## CAP FILE CONTENTS #################"))
        << run.describe();
    // Taken before the stop: the exit handler closes the socket under the
    // running loop, which may then reconnect once more.
    auto lookups = zeb_lookups(run);
    auto transcript = run.transcript();
    ASSERT_NO_FATAL_FAILURE(stop(run));

    ASSERT_EQ(lookups.size(), 1u);
    std::vector<Json> in;
    for (const auto &r : transcript)
        if (r.value("dir", "") == "in" && r.value("conn", 0) == conn_of(lookups[0]))
            in.push_back(r);
    ASSERT_GE(in.size(), 3u);
    EXPECT_EQ(in[0]["kind"], "family_lookup");
    EXPECT_EQ(in[1]["kind"], "sync");
    EXPECT_EQ(in[2]["kind"], "sync");
    EXPECT_EQ(in[1]["record_zero"], true);
    EXPECT_EQ(in[1]["len"], 36);

    auto msgs = messages(run);
    const std::vector<std::string> order = {
        "########## SYNC START - seq_num ",
        "zebusr_genl_init_sock complete for ZEBUSR_GENL_FAMILY_ZEB",
        "open pathname = /proc/zeb/dulox_zeb_caps",
        "open pathname = /proc/zeb/dulox_zeb_flows",
        "open pathname = /proc/zeb/dulox_zeb_ss_flows",
        "CONNECTED to dulox_zeb.ko",
        "########## SYNC START - seq_num ",
        "################## SS FLOW FILE CONTENTS #################",
        "################## CAP FILE CONTENTS #################",
    };
    size_t at = 0;
    for (const auto &step : order) {
        size_t next = find_prefix(msgs, step, at);
        ASSERT_NE(next, kNone) << step << "\n" << run.describe();
        at = next + 1;
    }
    size_t cap = find_prefix(msgs, "cap_fd = ");
    ASSERT_NE(cap, kNone);
    EXPECT_NE(msgs[cap].find(" page size = " + std::to_string(sysconf(_SC_PAGESIZE))), kNone)
        << msgs[cap];
}

TEST(SteeringConnect, MissingSlowStartFileUndoesTheAttemptAndPauses) {
    DaemonRun run(e2e::scenario_file("faults/table-absent.json"));
    run.options.time_factor = kTimeFactor;
    run.options.args = {"-v"};
    run.start();
    ASSERT_TRUE(run.wait_log("CONNECTED to dulox_zeb.ko")) << run.describe();
    auto lookups = zeb_lookups(run);
    std::set<int> closed = disconnected(run);
    auto msgs = messages(run);
    ASSERT_NO_FATAL_FAILURE(stop(run));

    // Absent until 5 s: attempts at 0 and 3 s fail, each after its own sync.
    size_t failed = count(msgs, "init ssflow file failed");
    ASSERT_GE(failed, 2u);
    EXPECT_EQ(lookups.size(), failed + 1);
    EXPECT_EQ(count(msgs, "open: No such file or directory"), failed);
    EXPECT_EQ(run.sleeps(3).size(), failed);
    const char *const undo[] = {"init ssflow file failed", "closing cap file",
                                "closing gflow file",
                                "zebusr_connect_to_dulox_zeb failed on attempt "};
    size_t at = 0;
    for (size_t i = 0; i < failed; i++) {
        for (const char *step : undo) {
            size_t next = find_prefix(msgs, step, at);
            ASSERT_NE(next, kNone) << step << " in attempt " << i;
            at = next + 1;
        }
        EXPECT_TRUE(closed.count(conn_of(lookups[i]))) << i;
    }
    EXPECT_EQ(count(msgs, "closing ssflow file"), 0u);
}

TEST(SteeringCycle, ReadsSlowStartThenCapacitiesThenGoldFlows) {
    DaemonRun run(e2e::scenario_file("default.json"));
    run.options.time_factor = kTimeFactor;
    run.options.args = {"-v"};
    run.start();
    ASSERT_TRUE(run.wait_answer("suggestion", balanced)) << run.describe();
    ASSERT_TRUE(run.wait_answer("segmentation", [](auto &, auto &out) { return accepted(out); }, 2))
        << run.describe();
    ASSERT_NO_FATAL_FAILURE(stop(run));

    // Segmentation requests come before any move suggestion of their cycle.
    auto cycles = cycles_on(run, conn_of(zeb_lookups(run).front()));
    ASSERT_GT(cycles.size(), 100u);
    for (size_t c = 0; c < cycles.size(); c++) {
        bool suggested = false;
        for (const auto &r : cycles[c]) {
            suggested = suggested || r["kind"] == "suggestion";
            if (r["kind"] == "segmentation") {
                EXPECT_FALSE(suggested) << "cycle " << c;
            }
        }
    }

    // Gold flows are read only in cycles that moved nothing up to gold.
    auto msgs = messages(run);
    size_t connected = find_prefix(msgs, "CONNECTED to dulox_zeb.ko");
    size_t s = find_prefix(msgs, "########## SYNC START", connected);
    size_t up_cycles = 0, checked = 0;
    while (s != kNone) {
        size_t next = find_prefix(msgs, "########## SYNC START", s + 1);
        if (next == kNone)
            break;  // the last cycle may be cut short by the signal
        std::vector<std::string> cycle(msgs.begin() + long(s), msgs.begin() + long(next));
        s = next;
        size_t ss = find_prefix(cycle, "################## SS FLOW FILE CONTENTS");
        size_t caps = find_prefix(cycle, "################## CAP FILE CONTENTS");
        size_t gold = find_prefix(cycle, "################## GOLD FLOW FILE CONTENTS");
        bool up = find_prefix(cycle, "dulox_zeb_wq_move_loaded_silver_cpu_to_gold done!") != kNone;
        // The two threads' lines may mix and drop out of the parse.
        if (ss == kNone || caps == kNone)
            continue;
        checked++;
        EXPECT_LT(ss, caps);
        if (up) {
            up_cycles++;
            EXPECT_EQ(gold, kNone) << "gold flows read after a move up";
        } else if (gold != kNone) {
            EXPECT_LT(caps, gold);
        }
    }
    EXPECT_GT(checked, 100u);
    EXPECT_GE(up_cycles, 1u);
}

// How many of the slow-start tables read before request `n` listed `hash`:
// every answered sync rewrites the tables once, in transcript order.
size_t ss_listings_before(const DaemonRun &run, const std::string &hash, long n) {
    std::vector<Json> rows;
    std::ifstream in(run.paths().tables());
    std::string line;
    while (std::getline(in, line))
        rows.push_back(Json::parse(line, nullptr, false));
    size_t written = 1;  // the simulator's own first row
    size_t listed = 0;
    for (const auto &r : run.transcript()) {
        if (r.value("dir", "") == "in" && r.value("n", 0L) == n)
            break;
        if (r.value("dir", "") != "out" || r.value("kind", "") != "sync" || !r.contains("bytes"))
            continue;
        if (written >= rows.size())
            break;
        for (const auto &f : rows[written]["ss_flows"])
            listed += f["hash"] == hash && f["rx_bps"].get<uint64_t>() > 0;
        written++;
    }
    return listed;
}

TEST(SteeringCycle, DefaultScenarioMovesUpDownAndBetweenGoldAndTurnsSegmentationOff) {
    DaemonRun run(e2e::scenario_file("default.json"));
    run.options.time_factor = kTimeFactor;
    run.start();
    ASSERT_TRUE(run.wait_answer("segmentation", [](auto &in, auto &out) {
        return in["hash"] == "0x6006" && accepted(out);
    })) << run.describe();
    ASSERT_TRUE(run.wait_answer("suggestion", balanced)) << run.describe();
    ASSERT_NO_FATAL_FAILURE(stop(run));

    struct Move {
        const char *type;
        const char *hash;
        int cur, dest;
    };
    const Move moves[] = {{"UP", "0x0", 2, 4}, {"DOWN", "0xb0b0", 5, 1}, {"BAL", "0xd00d", 6, 5}};
    for (const auto &m : moves) {
        size_t n = 0;
        for (const auto &[in, out] : run.answers("suggestion"))
            n += accepted(out) && in["sugg_type"] == m.type && in["hash"] == m.hash &&
                 in["cur_cpu"] == m.cur && in["dest_cpu"] == m.dest;
        // A loaded machine may let two cycles see one stale table: then a move repeats.
        EXPECT_GE(n, 1u) << m.type;
    }

    std::map<std::string, std::vector<Exchange>> seg;
    for (const auto &a : run.answers("segmentation"))
        seg[a.first["hash"].get<std::string>()].push_back(a);
    ASSERT_EQ(seg["0xf457"].size(), 1u) << "accepted at once, never asked again";
    ASSERT_EQ(seg["0x6006"].size(), 1u);
    for (const auto &[hash, asks] : seg) {
        EXPECT_EQ(asks.front().first["seg_enable"], 0) << hash;
        EXPECT_TRUE(accepted(asks.front().second)) << hash;
    }
    // The ramping flow is asked for its rate unless a loaded machine let ten
    // cycles see it first; the steady one exactly on its tenth sample.
    const Json &fast = seg["0xf457"].front().first;
    size_t fast_listings = ss_listings_before(run, "0xf457", fast["n"].get<long>());
    EXPECT_GE(fast_listings, 2u);
    if (fast_listings < 10) {
        EXPECT_GE(fast["seen"]["rx_bps"].get<uint64_t>(), 300000000u);
    }
    const Json &steady = seg["0x6006"].front().first;
    EXPECT_LT(steady["seen"]["rx_bps"].get<uint64_t>(), 300000000u);
    EXPECT_EQ(ss_listings_before(run, "0x6006", steady["n"].get<long>()), 10u);
}

TEST(SteeringReconnect, SyncAnsweredMinusOneReconnectsOnAFreshSocket) {
    DaemonRun run(e2e::scenario_file("faults/sync-minus-one.json"));
    run.options.time_factor = kTimeFactor;
    run.options.args = {"-v"};
    run.start();
    ASSERT_TRUE(run.wait_log("CONNECTED to dulox_zeb.ko", 2)) << run.describe();
    ASSERT_TRUE(run.wait_answer("sync", [](auto &in, auto &) { return in["t"] > 6.5; }))
        << run.describe();
    auto lookups = zeb_lookups(run);
    std::set<int> closed = disconnected(run);
    auto msgs = messages(run);
    ASSERT_NO_FATAL_FAILURE(stop(run));

    EXPECT_EQ(count(msgs, "sync failed, attempting to reconnect"), 1u);
    ASSERT_GE(lookups.size(), 2u);
    EXPECT_NE(conn_of(lookups.front()), conn_of(lookups.back()));
    EXPECT_FALSE(closed.count(conn_of(lookups.front())))
        << "a reconnection leaves the old socket open";
    // Attempts whose own sync got -1 close their socket and retry without a pause.
    EXPECT_EQ(count(msgs, "zebusr_sync failed"), lookups.size() - 2);
    for (size_t i = 1; i + 1 < lookups.size(); i++)
        EXPECT_TRUE(closed.count(conn_of(lookups[i]))) << i;
    EXPECT_TRUE(run.sleeps(3).empty());
    EXPECT_EQ(count(msgs, "open pathname = /proc/zeb/dulox_zeb_caps"), 2u);
    EXPECT_EQ(count(msgs, "closing cap file"), 0u) << "a reconnection closes no table file";
}

TEST(SteeringReconnect, SilentModuleTimesOutAndEveryAttemptUsesAFreshSocket) {
    DaemonRun run(e2e::scenario_file("faults/module-silent.json"));
    run.options.time_factor = kTimeFactor;
    run.options.args = {"-v"};
    run.start();
    ASSERT_TRUE(run.wait_log("CONNECTED to dulox_zeb.ko", 2)) << run.describe();
    ASSERT_TRUE(run.wait_answer("sync", [](auto &in, auto &) { return in["t"] > 12.5; }))
        << run.describe();
    auto lookups = zeb_lookups(run);
    std::set<int> closed = disconnected(run);
    auto msgs = messages(run);
    ASSERT_NO_FATAL_FAILURE(stop(run));

    EXPECT_EQ(count(msgs, "sync failed, attempting to reconnect"), 1u);
    size_t failed = count(msgs, "zebusr_sync failed");
    EXPECT_GE(failed, 1u);
    ASSERT_EQ(lookups.size(), failed + 2);
    std::set<int> conns;
    for (const auto &l : lookups)
        conns.insert(conn_of(l));
    EXPECT_EQ(conns.size(), lookups.size());
    // Each attempt waits out one receive time-out at its own sync.
    for (size_t i = 2; i < lookups.size(); i++)
        EXPECT_GE(t_of(lookups[i]) - t_of(lookups[i - 1]), 2.9) << i;
    for (size_t i = 1; i + 1 < lookups.size(); i++)
        EXPECT_TRUE(closed.count(conn_of(lookups[i]))) << i;
    EXPECT_TRUE(run.sleeps(3).empty());
}

TEST(SteeringReconnect, SyncCodesOtherThanMinusOneLetTheCycleGoOn) {
    DaemonRun run(e2e::scenario_file("faults/sync-other-codes.json"));
    run.options.time_factor = kTimeFactor;
    run.options.args = {"-v"};
    run.start();
    ASSERT_TRUE(run.wait_answer("sync", [](auto &in, auto &) { return in["t"] > 6.5; }))
        << run.describe();
    auto syncs = run.answers("sync");
    auto lookups = zeb_lookups(run);
    auto msgs = messages(run);
    ASSERT_NO_FATAL_FAILURE(stop(run));

    std::set<int> codes;
    for (const auto &[in, out] : syncs)
        codes.insert(out["code"].get<int>());
    EXPECT_EQ(codes, (std::set<int>{-2, 0, 5}));
    EXPECT_EQ(lookups.size(), 1u);
    EXPECT_EQ(count(msgs, "sync failed, attempting to reconnect"), 0u);
    EXPECT_EQ(count(msgs, "CONNECTED to dulox_zeb.ko"), 1u);
    for (const std::string code : {"5", "-2"}) {
        size_t at = kNone;
        for (size_t i = 0; i < msgs.size() && at == kNone; i++)
            if (msgs[i].rfind("  kernel seq_num ", 0) == 0 &&
                msgs[i].ends_with(" return code: " + code))
                at = i;
        ASSERT_NE(at, kNone) << code;
        size_t ss = find_prefix(msgs, "################## SS FLOW FILE CONTENTS", at);
        size_t sync = find_prefix(msgs, "########## SYNC START", at);
        EXPECT_LT(ss, sync) << "the cycle after a sync answered " << code;
    }
}

TEST(SteeringTables, UnmappableSlowStartTableEndsTheProcessWithStatusZero) {
    DaemonRun run(e2e::scenario_file("faults/table-unmappable-ss-flows.json"));
    run.start();
    ASSERT_EQ(run.wait_exit(), 0) << run.describe();

    auto entries = run.log_entries();
    auto err = std::find_if(entries.begin(), entries.end(),
                            [](const auto &e) { return e.level == "ERR"; });
    ASSERT_NE(err, entries.end()) << run.describe();
    EXPECT_EQ(err->message, "mmap: No such device");
    // Closed once by the reader, once more at exit.
    auto msgs = messages(run);
    EXPECT_EQ(count(msgs, "closing ssflow file"), 2u);
    EXPECT_EQ(count(msgs, "Cleanup Complete"), 1u);
    EXPECT_EQ(run.answers("sync").size(), 2u) << "ends in the first cycle";
    EXPECT_TRUE(run.answers("suggestion").empty());
}

}  // namespace
