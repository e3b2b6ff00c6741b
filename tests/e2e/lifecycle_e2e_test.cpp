// How the daemon starts and ends: arguments, stop signals, threads that
// cannot start, tables that cannot be mapped.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "harness.hpp"

namespace {

using e2e::count;
using e2e::Daemon;
using Strings = std::vector<std::string>;

const char kQuiet[] = R"({"name": "quiet"})";

size_t detail_lines(const std::string &log) {
    return count(log, "(LOW): ") + count(log, "(MED): ");
}

void connected(Daemon &run) {
    ASSERT_TRUE(run.wait_log("CONNECTED to dulox core driver")) << run.describe();
    ASSERT_TRUE(run.wait_log("CONNECTED to dulox_zeb.ko")) << run.describe();
    ASSERT_TRUE(run.wait_answer("sync", {}, 3)) << run.describe();
}

struct End {
    const char *scenario;
    Strings args;  // any argument turns verbose logging on
    int sig;       // sent once connected; 0: the daemon ends by itself
    int status;
    const char *never;
    Strings lines;  // in this order
};

void PrintTo(const End &e, std::ostream *os) {
    *os << e.scenario;
}

class ProcessEnd : public ::testing::TestWithParam<End> {};

TEST_P(ProcessEnd, LogsItsWayOutAndExitsWithItsStatus) {
    const End &e = GetParam();
    Daemon run(e.scenario, e.args);
    if (e.sig) {
        ASSERT_NO_FATAL_FAILURE(connected(run));
        if (!e.args.empty()) {  // the logging signals, each seen through before the next
            run.signal(SIGUSR1);
            ASSERT_TRUE(run.wait_log("CSV File opened")) << run.describe();
            run.signal(SIGUSR2);
            ASSERT_TRUE(run.wait_log("Stopping verbose logging")) << run.describe();
        }
        run.signal(e.sig);
    }
    ASSERT_EQ(run.wait_exit(), e.status) << run.describe();
    const std::string log = run.log();
    EXPECT_TRUE(log.substr(0, log.find('\n')).ends_with("(HIGH): Initializing zebusrd")) << log;
    EXPECT_EQ(count(log, "Enabling verbose logging at bootup"), size_t(!e.args.empty()));
    EXPECT_EQ(detail_lines(log) > 0, !e.args.empty());
    EXPECT_EQ(e2e::missing_in_order(log, e.lines), "") << log;
    EXPECT_EQ(count(log, e.never), 0u);
}

// A case whose log ends with `lines` and then the clean-up.
End row(const char *scenario, Strings args, int sig, int status, const char *never, Strings lines) {
    lines.insert(lines.end(), {"Attempting to clean up", "closing cap file", "closing gflow file",
                               "closing ssflow file", "Cleanup Complete"});
    return {scenario, args, sig, status, never, lines};
}

const End kEnds[] = {
    row(kQuiet, {}, SIGTERM, 0, "Exiting main", {"Signal Handler Invoked!"}),
    row(kQuiet, {""}, SIGINT, 0, "Exiting main", {"Signal Handler Invoked!"}),
    row(kQuiet, {"a", "b"}, SIGTERM, 0, "Exiting main", {"Signal Handler Invoked!"}),
    row("faults/thread-eval-fails.json", {}, 0, 255, "Starting dulox_freq_boost_thread...",
        {"Starting zeb_eval_thread...", "Failed to start zeb eval thread - rc = 11\n\n"}),
    row("faults/thread-boost-fails.json", {}, 0, 255, "Dulox Core Driver Thread Started",
        {"Starting dulox_freq_boost_thread...",
         "Failed to start dulox_freq_boost_thread - rc = 11\n\n"}),
    // Closed once by the reader, once more at exit.
    row("faults/table-unmappable-caps.json", {}, 0, 0, "Signal Handler Invoked!",
        {"CONNECTED to dulox_zeb.ko", "mmap failure: No such device", "closing cap file"}),
    row("faults/table-unmappable-flows.json", {}, 0, 0, "Signal Handler Invoked!",
        {"CONNECTED to dulox_zeb.ko", "mmap: No such device", "closing gflow file"}),
    row("faults/table-unmappable-ss-flows.json", {}, 0, 0, "Signal Handler Invoked!",
        {"CONNECTED to dulox_zeb.ko", "mmap: No such device", "closing ssflow file"}),
};

const char *const kEndNames[] = {
    "Sigterm",          "SigintEmptyArgument", "SigtermTwoArguments", "EvalThreadFails",
    "BoostThreadFails", "CapsUnmappable",      "GoldFlowsUnmappable", "SlowStartFlowsUnmappable"};

INSTANTIATE_TEST_SUITE_P(Cases, ProcessEnd, ::testing::ValuesIn(kEnds),
                         [](const auto &info) { return std::string(kEndNames[info.index]); });

}  // namespace
