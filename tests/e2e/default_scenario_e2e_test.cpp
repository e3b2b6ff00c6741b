// The shipped default scenario must drive every decision the daemon makes:
// the run command shows these to a new user.
#include <gtest/gtest.h>
#include <signal.h>

#include <functional>

#include "harness.hpp"

namespace {

using e2e::Json;

bool accepted(const Json& out) { return out.value("result", "") == "accepted"; }

TEST(DefaultScenario, ExercisesEveryPolicySegmentationAndBoostInTwentySeconds) {
  e2e::DaemonRun run(e2e::scenario_file("default.json"));
  run.options.args = {"-v"};
  run.start();
  for (const char* type : {"UP", "DOWN", "BAL"})
    ASSERT_TRUE(run.wait_answer("suggestion", [&](auto& in, auto& out) { return in["sugg_type"] == type && accepted(out); }))
        << type << "\n" << run.describe();
  ASSERT_TRUE(run.wait_answer("segmentation", [](auto&, auto& out) { return accepted(out); }, 2)) << run.describe();
  ASSERT_TRUE(run.wait_answer("boost", {}, 2)) << run.describe();
  auto device = run.device();
  run.signal(SIGTERM);
  EXPECT_EQ(run.wait_exit(), 0) << run.describe();

  // The first of each decision comes within the scenario's 20 s.
  auto first_times = [&](const std::string& kind, std::function<bool(const Json&, const Json&)> pred) {
    std::vector<double> t;
    for (const auto& [in, out] : run.answers(kind))
      if (pred(in, out)) t.push_back(out["t"].get<double>());
    return t;
  };
  for (const char* type : {"UP", "DOWN", "BAL"}) {
    auto t = first_times("suggestion", [&](auto& in, auto& out) { return in["sugg_type"] == type && accepted(out); });
    ASSERT_FALSE(t.empty());
    EXPECT_LE(t[0], 20.0) << type;
  }
  auto seg = first_times("segmentation", [](auto&, auto& out) { return accepted(out); });
  auto boost = first_times("boost", [](auto&, auto&) { return true; });
  ASSERT_GE(seg.size(), 2u);
  ASSERT_GE(boost.size(), 2u);
  EXPECT_LE(seg[1], 20.0);
  EXPECT_LE(boost[1], 20.0);
  std::map<std::string, Json> flows;
  for (const auto& f : device["flows"]) flows[f["name"]] = f;
  EXPECT_EQ(flows["game-stream"]["cpu"], 4);  // up from silver cpu2
  EXPECT_EQ(flows["video-call"]["cpu"], 1);   // down from gold cpu5
  EXPECT_EQ(flows["download"]["cpu"], 5);     // balanced from gold cpu6
  EXPECT_EQ(flows["4k-download"]["segmentation"], false);
  EXPECT_EQ(flows["music-stream"]["segmentation"], false);
  for (const auto& p : device["processes"]) EXPECT_EQ(p["boosts"].get<int>() > 0, p["name"] != "messaging") << p.dump();
}

}  // namespace
