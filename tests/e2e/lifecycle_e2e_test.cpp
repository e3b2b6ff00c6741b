// Whole-process tests of the daemon's life: log shape, verbosity at start-up,
// stop signals with their clean-up lines, and worker threads that cannot start.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <regex>

#include "harness.hpp"

namespace {

using e2e::DaemonRun;

const char kQuiet[] = R"({"name": "quiet", "description": "no traffic: nothing to decide", "duration_s": 600})";

std::vector<std::string> messages(const DaemonRun& run) {
  std::vector<std::string> out;
  for (const auto& e : run.log_entries()) out.push_back(e.message);
  return out;
}

bool has(const std::vector<std::string>& v, const std::string& s) { return std::find(v.begin(), v.end(), s) != v.end(); }

size_t stamps(const std::string& line) {
  static const std::regex stamp(R"( \d\d:\d\d:\d\d\.\d{6} )");
  return size_t(std::distance(std::sregex_iterator(line.begin(), line.end(), stamp), std::sregex_iterator()));
}

void connect_and_cycle(DaemonRun& run, int syncs = 3) {
  ASSERT_TRUE(run.wait_log("CONNECTED to dulox_zeb.ko")) << run.describe();
  ASSERT_TRUE(run.wait_answer("sync", {}, syncs)) << run.describe();
}

void stop(DaemonRun& run, int sig = SIGTERM) {
  run.signal(sig);
  ASSERT_EQ(run.wait_exit(), 0) << run.describe();
}

// Threads may interleave a line's three writes; such lines are tolerated only
// where the file shows it (a line with two stamps), so a wrong prefix fails.
TEST(LogFile, EveryLineHasThePrefixShape) {
  DaemonRun run(e2e::scenario_file("default.json"));
  run.options.args = {"-v"};
  run.start();
  ASSERT_NO_FATAL_FAILURE(connect_and_cycle(run, 30));
  ASSERT_TRUE(run.wait_answer("pid_bps_query", {}, 3));
  ASSERT_NO_FATAL_FAILURE(stop(run));

  auto lines = run.log_lines();
  ASSERT_GT(lines.size(), 100u);
  size_t mixed = 0, irregular = 0, sync_lines = 0;
  std::set<std::string> levels;
  for (size_t i = 0; i < lines.size(); ++i) {
    const std::string& l = lines[i];
    mixed += stamps(l) >= 2;
    if (l.empty()) {
      EXPECT_TRUE(i > 0 && !lines[i - 1].empty()) << "empty line " << i << " does not follow a message";
      continue;
    }
    auto e = e2e::parse_log_line(l);
    if (!e) {
      ++irregular;
      EXPECT_TRUE(stamps(l) != 1 || l.rfind(" ", 0) != 0) << "line " << i << " has a bad prefix: " << l;
      continue;
    }
    levels.insert(e->level);
    // A message that carries its own newline leaves an empty line after it.
    if (e->message.rfind("########## SYNC START - seq_num ", 0) == 0 && i + 1 < lines.size() &&
        (lines[i + 1].empty() || e2e::parse_log_line(lines[i + 1]))) {
      ++sync_lines;
      EXPECT_EQ(lines[i + 1], "") << "line " << i + 1;
    }
  }
  EXPECT_LE(irregular, 3 * mixed) << run.describe();
  EXPECT_GT(sync_lines, 0u);
  // ERR may show too: the exit handler closes tables the cycle is using.
  for (const char* level : {"HIGH", "MED", "LOW"}) EXPECT_TRUE(levels.count(level)) << level;
  EXPECT_EQ(run.log_entries().front().message, "Initializing zebusrd");
}

struct Verbosity {
  std::vector<std::string> args;
  bool verbose;
};

std::string verbosity_name(size_t i) {
  static const char* const names[] = {"NoArgument", "OneArgument", "EmptyArgument", "TwoArguments"};
  return names[i];
}

class StartupVerbosity : public ::testing::TestWithParam<Verbosity> {};

// Any argument, even an empty string, turns verbose logging on from the start.
TEST_P(StartupVerbosity, FollowsTheArgumentCount) {
  DaemonRun run(e2e::scenario_json(kQuiet));
  run.options.args = GetParam().args;
  run.start();
  ASSERT_NO_FATAL_FAILURE(connect_and_cycle(run));
  ASSERT_NO_FATAL_FAILURE(stop(run));
  auto entries = run.log_entries();
  bool detail = std::any_of(entries.begin(), entries.end(), [](auto& e) { return e.level == "LOW" || e.level == "MED"; });
  EXPECT_EQ(detail, GetParam().verbose);
  EXPECT_EQ(has(messages(run), "Enabling verbose logging at bootup"), GetParam().verbose);
  ASSERT_GE(entries.size(), 2u);
  EXPECT_EQ(entries[0].message, "Initializing zebusrd");
  EXPECT_EQ(entries[0].level, "HIGH");
}

INSTANTIATE_TEST_SUITE_P(Args, StartupVerbosity,
                         ::testing::Values(Verbosity{{}, false}, Verbosity{{"-v"}, true}, Verbosity{{""}, true},
                                           Verbosity{{"a", "b"}, true}),
                         [](const auto& info) { return verbosity_name(info.index); });

class StopSignal : public ::testing::TestWithParam<int> {};

TEST_P(StopSignal, ExitsZeroAfterTheCleanUpLines) {
  DaemonRun run(e2e::scenario_json(kQuiet));
  run.start();
  ASSERT_NO_FATAL_FAILURE(connect_and_cycle(run));
  ASSERT_TRUE(run.wait_log("CONNECTED to dulox core driver"));
  ASSERT_NO_FATAL_FAILURE(stop(run, GetParam()));

  const std::vector<std::string> expected = {"Signal Handler Invoked!", "Attempting to clean up", "closing cap file",
                                             "closing gflow file",      "closing ssflow file",    "Cleanup Complete"};
  auto msgs = messages(run);
  auto from = std::find(msgs.begin(), msgs.end(), expected[0]);
  ASSERT_NE(from, msgs.end()) << run.describe();
  std::vector<std::string> tail;
  std::copy_if(from, msgs.end(), std::back_inserter(tail), [&](auto& m) { return has(expected, m); });
  EXPECT_EQ(tail, expected);
  EXPECT_EQ(msgs.back(), "Cleanup Complete");
  // Each socket asked for a 3-second receive time-out.
  auto timeouts = run.receive_timeouts();
  EXPECT_EQ(timeouts, std::vector<double>(timeouts.size(), 3.0));
  EXPECT_GE(timeouts.size(), 2u);
}

INSTANTIATE_TEST_SUITE_P(Signals, StopSignal, ::testing::Values(SIGTERM, SIGINT),
                         [](const auto& info) { return info.param == SIGTERM ? "SIGTERM" : "SIGINT"; });

struct ThreadFault {
  int nth;
  std::string message;
  std::string never;  // a line the thread that did not start would have written
};

class WorkerThread : public ::testing::TestWithParam<ThreadFault> {};

TEST_P(WorkerThread, ThatCannotStartEndsTheDaemonWith255) {
  const auto& p = GetParam();
  DaemonRun run(e2e::scenario_json(R"({"name": "thread", "faults": [{"kind": "thread_create_fails", "nth": )" +
                             std::to_string(p.nth) + "}]}"));
  run.start();
  ASSERT_EQ(run.wait_exit(), 255) << run.describe();

  auto lines = run.log_lines();
  auto at = std::find_if(lines.begin(), lines.end(), [&](auto& l) {
    auto e = e2e::parse_log_line(l);
    return e && e->level == "ERR" && e->message == p.message;
  });
  ASSERT_NE(at, lines.end()) << run.describe();
  ASSERT_NE(at + 1, lines.end());
  EXPECT_EQ(*(at + 1), "") << "the message ends in its own newline";
  auto msgs = messages(run);
  EXPECT_FALSE(has(msgs, p.never));
  EXPECT_TRUE(has(msgs, "Attempting to clean up"));
  EXPECT_TRUE(has(msgs, "Cleanup Complete"));
  auto calls = run.preload_records("pthread_create");
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0]["n"], p.nth);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, WorkerThread,
    ::testing::Values(ThreadFault{1, "Failed to start zeb eval thread - rc = 11", "ZEB Evaluation Thread Started"},
                      ThreadFault{2, "Failed to start dulox_freq_boost_thread - rc = 11", "Dulox Core Driver Thread Started"}),
    [](const auto& info) { return info.param.nth == 1 ? "EvalThread" : "BoostThread"; });

}  // namespace
