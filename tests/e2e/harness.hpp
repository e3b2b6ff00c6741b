// Whole-process test harness: runs the real zebusrd under the device simulator
// (libzebusr_preload.so + the sim library) with a scaled clock, and reads back
// what the run left: exit status, log lines, CSV lines, transcript records and
// the sleeps and receive time-outs the daemon asked for.
//
//   #include "harness.hpp"
//   TEST(Steering, MovesDown) {
//     e2e::DaemonRun run(e2e::scenario_file("default.json"));      // or e2e::scenario_json(R"({...})")
//     run.options.args = {"-v"};                             // daemon arguments (verbose)
//     run.start();
//     ASSERT_TRUE(run.wait_answer("suggestion", [](auto& in, auto& out) {
//       return in["sugg_type"] == "DOWN" && out["result"] == "accepted"; }));
//     run.signal(SIGTERM);
//     EXPECT_EQ(run.wait_exit(), 0);
//     EXPECT_EQ(run.sleeps(3).size(), 0u);                   // sleep(3) calls asked for
//   }
//
// Time: one simulated second takes options.time_factor real seconds (default
// 0.02); the daemon's sleep() and SO_RCVTIMEO are scaled the same way and the
// values it asked for are recorded unscaled. Waits poll files with a bound, in
// real seconds; they never sleep a fixed time. Each test gets its own run
// directory under the build tree, named after the test, kept for inspection.
// Transcript records are the simulator's JSON lines (see sim/README.md).
#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "scenario.hpp"
#include "session.hpp"

namespace e2e {

using Json = nlohmann::json;

sim::Scenario scenario_file(const std::string& name);  // relative to scenarios/
sim::Scenario scenario_json(const std::string& text);  // inline JSON

struct Options {
  double time_factor = 0.02;
  std::vector<std::string> args;  // daemon arguments; any argument turns verbose logging on
  std::optional<double> tick_ms;  // overrides the scenario's tick
  double timeout_s = 30;          // default bound of every wait, in real seconds
};

// One parsed log line: "%16s %40s():%3u (%s): message".
struct LogLine {
  std::string stamp, function;
  unsigned line = 0;
  std::string level, message;
};
std::optional<LogLine> parse_log_line(const std::string& text);

class DaemonRun {
 public:
  explicit DaemonRun(sim::Scenario s);
  ~DaemonRun();

  Options options;  // set before start()

  void start();
  void signal(int sig);
  // Exit status (255 for a return of -1, 128+n when killed by signal n); -1 on timeout.
  int wait_exit(std::optional<double> timeout_s = {});

  // Bounded waits; each returns false when the bound passes first.
  bool wait_log(std::string_view needle, int count = 1, std::optional<double> timeout_s = {});
  bool wait_answer(const std::string& kind, std::function<bool(const Json& in, const Json& out)> pred = {},
                   int count = 1, std::optional<double> timeout_s = {});
  bool wait_csv_rows(size_t rows, std::optional<double> timeout_s = {});
  bool wait_sim_time(double sim_s, std::optional<double> timeout_s = {});
  bool wait_until(std::function<bool()> cond, std::optional<double> timeout_s = {});

  std::vector<std::string> log_lines() const;
  std::vector<LogLine> log_entries() const;  // the lines that parse
  std::vector<std::string> csv_lines() const;
  std::vector<Json> transcript() const;
  std::vector<Json> requests(const std::string& kind) const;  // "in" records of that kind
  // (request, answer) pairs of that kind, in order of the answers.
  std::vector<std::pair<Json, Json>> answers(const std::string& kind) const;
  std::vector<Json> preload_records(const std::string& call = {}) const;
  std::vector<double> sleeps(std::optional<unsigned> seconds = {}) const;  // values asked of sleep()
  std::vector<double> receive_timeouts() const;                             // SO_RCVTIMEO seconds asked
  Json device();  // the simulator's device state now
  std::string daemon_stderr() const;
  std::string describe() const;  // stderr and log tail, for failure messages

  sim::Session& session() { return *session_; }
  const sim::RunPaths& paths() const { return session_->paths(); }

 private:
  double bound(std::optional<double> t) const { return t.value_or(options.timeout_s); }
  sim::Scenario scenario_;
  std::unique_ptr<sim::Session> session_;
};

}  // namespace e2e
