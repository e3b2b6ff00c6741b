// How the daemon starts and ends (arguments, stop signals, threads that cannot
// start, tables that cannot be mapped) and the run-time logging signals.
#include <gtest/gtest.h>

#include <regex>
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

// SIGUSR1: verbose lines and a CSV row per cycle, by CPU number; SIGUSR2:
// neither; SIGUSR1 again: the file starts over.
TEST(LoggingSignals, SwitchVerboseLinesAndTheCsvCapture) {
    // Spare capacity 20000 + 10000 x CPU, listed in reverse: a row by table
    // position would show.
    Daemon run(R"({"name": "csv", "cap_table_order": [7, 6, 5, 4, 3, 2, 1, 0], "cpus": [
        {"cpu": 0, "max_pps": 20000}, {"cpu": 1, "max_pps": 30000}, {"cpu": 2, "max_pps": 40000},
        {"cpu": 3, "max_pps": 50000}, {"cpu": 4, "max_pps": 60000}, {"cpu": 5, "max_pps": 70000},
        {"cpu": 6, "max_pps": 80000}, {"cpu": 7, "max_pps": 90000}]})");
    ASSERT_NO_FATAL_FAILURE(connected(run));
    auto syncs = [&](size_t more) {
        size_t n = run.answers("sync").size() + more;
        return run.wait_answer("sync", {}, n);
    };
    EXPECT_TRUE(run.csv().empty());
    EXPECT_EQ(detail_lines(run.log()), 0u);

    run.signal(SIGUSR1);
    ASSERT_TRUE(run.wait_until([&] { return run.csv().size() >= 4; })) << run.describe();
    auto rows = run.csv();
    EXPECT_EQ(rows[0], "time,seq_num,CPU0,CPU1,CPU2,CPU3,CPU4,CPU5,CPU6,CPU7");
    static const std::regex row(
        R"(\d\d:\d\d:\d\d\.\d{6},\d+,20000,30000,40000,50000,60000,70000,80000,90000)");
    EXPECT_TRUE(std::regex_match(rows[1], row)) << rows[1];
    EXPECT_GT(detail_lines(run.log()), 0u);

    run.signal(SIGUSR2);
    ASSERT_TRUE(run.wait_log("Stopping verbose logging") && syncs(2));
    const size_t csv_rows = run.csv().size(), details = detail_lines(run.log());
    ASSERT_TRUE(syncs(5));
    EXPECT_EQ(run.csv().size(), csv_rows);
    EXPECT_EQ(detail_lines(run.log()), details);

    const long last = std::stol(run.csv().back().substr(16));
    run.signal(SIGUSR1);
    ASSERT_TRUE(run.wait_log("CSV File opened", 2) &&
                run.wait_until([&] { return run.csv().size() >= 3; }));
    rows = run.csv();
    EXPECT_EQ(rows[0].substr(0, 5), "time,");
    for (size_t i = 1; i < rows.size(); i++)
        EXPECT_GT(std::stol(rows[i].substr(16)), last) << rows[i];
    run.stop();
}

}  // namespace
