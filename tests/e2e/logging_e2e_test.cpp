// Whole-process tests of the run-time logging switches: SIGUSR1 turns verbose
// logging and the CSV capture on, SIGUSR2 turns both off.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <regex>

#include "harness.hpp"

namespace {

using e2e::DaemonRun;

const char kHeader[] = "time,seq_num,CPU0,CPU1,CPU2,CPU3,CPU4,CPU5,CPU6,CPU7";

// Spare capacity 20000 + 10000 x CPU number, listed in reverse table order,
// so a row written by table position instead of CPU number shows.
const char kCaps[] = R"({
  "name": "csv", "duration_s": 600,
  "cpus": [{"cpu": 0, "max_pps": 20000}, {"cpu": 1, "max_pps": 30000}, {"cpu": 2, "max_pps": 40000},
           {"cpu": 3, "max_pps": 50000}, {"cpu": 4, "max_pps": 60000}, {"cpu": 5, "max_pps": 70000},
           {"cpu": 6, "max_pps": 80000}, {"cpu": 7, "max_pps": 90000}],
  "cap_table_order": [7, 6, 5, 4, 3, 2, 1, 0]
})";

size_t syncs(const DaemonRun& run) { return run.answers("sync").size(); }

bool detail(const e2e::LogLine& e) { return e.level == "LOW" || e.level == "MED"; }

class CsvCapture : public ::testing::Test {
 protected:
  void SetUp() override {
    run.start();
    ASSERT_TRUE(run.wait_log("CONNECTED to dulox_zeb.ko")) << run.describe();
    ASSERT_TRUE(run.wait_answer("sync", {}, 3));
  }
  void TearDown() override {
    run.signal(SIGTERM);
    EXPECT_EQ(run.wait_exit(), 0) << run.describe();
  }
  void start_capture(int rows, int nth = 1) {
    run.signal(SIGUSR1);
    ASSERT_TRUE(run.wait_log("CSV File opened", nth)) << run.describe();
    ASSERT_TRUE(run.wait_csv_rows(size_t(rows))) << run.describe();
  }
  DaemonRun run{e2e::scenario_json(kCaps)};
};

TEST_F(CsvCapture, Usr1WritesTheHeaderThenOneRowPerCycleByCpuNumber) {
  EXPECT_TRUE(run.csv_lines().empty());
  ASSERT_NO_FATAL_FAILURE(start_capture(5));
  auto rows = run.csv_lines();
  EXPECT_EQ(rows[0], kHeader);
  static const std::regex row(R"(^\d\d:\d\d:\d\d\.\d{6},(\d+),20000,30000,40000,50000,60000,70000,80000,90000$)");
  long last_seq = -1;
  for (size_t i = 1; i < rows.size(); ++i) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(rows[i], m, row)) << rows[i];
    long seq = std::stol(m.str(1));
    EXPECT_GT(seq, last_seq);
    last_seq = seq;
  }
  auto entries = run.log_entries();
  auto on = std::find_if(entries.begin(), entries.end(), [](auto& e) { return e.message == "Starting verbose logging"; });
  ASSERT_NE(on, entries.end());
  EXPECT_EQ(on->level, "HIGH");
  EXPECT_TRUE(std::none_of(entries.begin(), on, detail)) << "no detail before SIGUSR1";
  EXPECT_TRUE(std::any_of(on, entries.end(), detail)) << "detail after SIGUSR1";
}

TEST_F(CsvCapture, Usr2StopsRowsAndDetailLines) {
  ASSERT_NO_FATAL_FAILURE(start_capture(3));
  run.signal(SIGUSR2);
  ASSERT_TRUE(run.wait_log("Stopping verbose logging"));
  size_t after = syncs(run);
  ASSERT_TRUE(run.wait_until([&] { return syncs(run) >= after + 2; }));
  size_t rows = run.csv_lines().size();
  after = syncs(run);
  ASSERT_TRUE(run.wait_until([&] { return syncs(run) >= after + 5; }));
  EXPECT_EQ(run.csv_lines().size(), rows);

  auto entries = run.log_entries();
  auto off = std::find_if(entries.begin(), entries.end(), [](auto& e) { return e.message == "Stopping verbose logging"; });
  ASSERT_NE(off, entries.end());
  // A line whose gate was passed just before the signal may still land.
  auto late = std::count_if(off, entries.end(), detail);
  EXPECT_LE(late, 2) << run.describe();
}

long seq(const std::string& row) { return std::stol(row.substr(row.find(',') + 1)); }

TEST_F(CsvCapture, SecondUsr1TruncatesAndWritesTheHeaderAgain) {
  ASSERT_NO_FATAL_FAILURE(start_capture(4));
  long last = seq(run.csv_lines().back());
  ASSERT_NO_FATAL_FAILURE(start_capture(2, 2));
  auto rows = run.csv_lines();
  EXPECT_EQ(rows[0], kHeader);
  EXPECT_EQ(std::count(rows.begin(), rows.end(), std::string(kHeader)), 1);
  // Only rows of cycles after the second signal remain.
  for (size_t i = 1; i < rows.size(); ++i) EXPECT_GT(seq(rows[i]), last) << rows[i];
}

}  // namespace
