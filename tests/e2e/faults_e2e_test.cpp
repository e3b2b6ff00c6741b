// Faulty kernel answers: each scenario under scenarios/faults/ must drive the
// daemon down its own failure path (a log line only that path writes) and
// leave it running, reconnected exactly as often as the fault calls for.
#include <gtest/gtest.h>

#include <string>

#include "harness.hpp"

namespace {

struct Fault {
    const char *scenario;  // under scenarios/faults/
    const char *line;      // proves the failure path
    size_t connects;       // steering connections in all; 0: not checked
    const char *kind;      // an answer of this kind after `after` s shows it recovered
    double after;
};

void PrintTo(const Fault &f, std::ostream *os) {
    *os << f.scenario;
}

class Faults : public ::testing::TestWithParam<Fault> {};

TEST_P(Faults, TakeTheirFailurePathAndRecover) {
    const Fault &f = GetParam();
    e2e::Daemon run(std::string("faults/") + f.scenario + ".json", {"-v"});
    ASSERT_TRUE(run.wait_log(f.line)) << run.describe();
    ASSERT_TRUE(run.wait_answer(f.kind, [&](auto &in, auto &) { return in["t"] >= f.after; }))
        << run.describe();
    const std::string log = run.log();
    run.stop();
    const size_t connects = e2e::count(log, "CONNECTED to dulox_zeb.ko");
    EXPECT_EQ(connects, f.connects ? f.connects : connects);
    EXPECT_EQ(e2e::count(log, "sync failed, attempting to reconnect"), connects - 1);
}

const Fault kFaults[] = {
    {"malformed-sync-short", "netlink invalid family reply message", 2, "sync", 5},
    {"malformed-sync-len-beyond", "netlink invalid family reply message", 2, "sync", 5},
    {"malformed-sync-oversize", "netlink invalid family reply message", 2, "sync", 5},
    {"malformed-sync-nlmsg-error", "netlink received msg error for family resp", 2, "sync", 5},
    {"malformed-family-reply", "unable to set family id, response is not correct type", 1, "sync",
     7},
    {"module-silent", "recv error - len_recv < 0", 2, "sync", 13},
    {"sync-other-codes", "return code: -2", 1, "sync", 7},
    {"malformed-throughput", "(ERR): netlink failed to send to fd", 1, "boost", 8},
    // Each failed core lookup closes the steering socket under the other
    // thread: how many reconnections that costs depends on timing.
    // Found on the fifth attempt; each failed lookup closes the steering socket.
    {"family-absent-attempts", "duloxusr_connect_to_dulox_core COMPLETE on attempt 4", 0,
     "pid_bps_query", 13},
    {"core-absent", "Dulox Core Driver Thread Exited -dulox_core driver did not respond", 0, "sync",
     90},
};

INSTANTIATE_TEST_SUITE_P(Scenarios, Faults, ::testing::ValuesIn(kFaults), [](const auto &info) {
    std::string name;
    for (const char *c = info.param.scenario; *c; c++)
        if (*c != '-')
            name += c == info.param.scenario || c[-1] == '-' ? char(toupper(*c)) : *c;
    return name;
});

}  // namespace
