// zebusr-log replay on the logs of the simulator's own runs: the default
// scenario and every story replay with each cycle decided the same; a log
// with one answer, one table value or one boost changed shows the difference
// at that cycle or query; a stretch with verbose logging off is named and
// skipped, and the run after it replays on a fresh daemon.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "replay.hpp"
#include "session.hpp"

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// The whole-process tests' factor: the daemon's 3 s receive time-out is
// 0.3 s of real time, beyond any scheduling delay.
constexpr double kTimeFactor = 0.1;

void wait_sim(sim::Session &s, double t) {
    while (s.sim_now() < t && s.daemon_running())
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

// Runs a scenario under the simulator with verbose logging, sending each
// signal at its simulated second, and returns the daemon's log.
fs::path live_log(const std::string &scenario, const std::string &name,
                  const std::vector<std::pair<double, int>> &signals = {}) {
    sim::SessionOptions o;
    o.scenario = sim::load_scenario(std::string(ZEBUSR_SOURCE_DIR) + "/scenarios/" + scenario);
    o.run_dir = fs::path(ZEBUSR_TEST_RUN_ROOT) / ("replay-" + name);
    fs::remove_all(o.run_dir);
    o.daemon = zlog::rec::default_daemon();
    o.preload = zlog::rec::default_preload();
    o.args = {"verbose"};
    o.time_factor = kTimeFactor;
    o.records = false;
    double end = o.scenario.duration_s;
    sim::Session s(std::move(o));
    s.start_daemon();
    for (auto [at, sig] : signals) {
        wait_sim(s, at);
        s.signal(sig);
    }
    wait_sim(s, end);
    s.signal(SIGTERM);
    EXPECT_EQ(s.wait_exit(60), std::optional<int>(0));
    return s.paths().log();
}

const fs::path &default_log() {
    static const fs::path log = live_log("default.json", "default");
    return log;
}

struct Result {
    int status = -1;
    std::string out;
};

Result replay(const fs::path &log) {
    std::string cmd = std::string(ZEBUSR_LOG_TOOL) + " replay '" + log.string() + "' 2>&1";
    Result r;
    FILE *p = popen(cmd.c_str(), "r");
    char buf[4096];
    for (size_t n; p && (n = fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
    int st = p ? pclose(p) : -1;
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

Lines read_lines(const fs::path &p) {
    Lines v;
    std::ifstream in(p);
    for (std::string l; std::getline(in, l);) v.push_back(l);
    return v;
}

fs::path write_lines(const Lines &v, const std::string &name) {
    fs::path p = fs::path(ZEBUSR_TEST_RUN_ROOT) / ("replay-" + name + ".txt");
    std::ofstream out(p);
    for (const std::string &l : v) out << l << "\n";
    return p;
}

// Index of the first line at or after `from` holding `needle`.
size_t find(const Lines &v, const std::string &needle, size_t from = 0) {
    for (size_t i = from; i < v.size(); i++)
        if (v[i].find(needle) != std::string::npos)
            return i;
    ADD_FAILURE() << "no line holds \"" << needle << "\"";
    return v.size();
}

// Index of the last line before `to` holding `needle`.
size_t find_back(const Lines &v, const std::string &needle, size_t to) {
    for (size_t i = to; i-- > 0;)
        if (v[i].find(needle) != std::string::npos)
            return i;
    ADD_FAILURE() << "no line before " << to << " holds \"" << needle << "\"";
    return 0;
}

void replace(std::string &line, const std::string &from, const std::string &to) {
    size_t at = line.find(from);
    ASSERT_NE(at, std::string::npos) << line;
    line.replace(at, from.size(), to);
}

// "N of M cycles decided the same" with N == M > 0, and the same for queries.
void expect_all_same(const Result &r) {
    EXPECT_EQ(r.status, 0) << r.out;
    std::smatch m;
    ASSERT_TRUE(
        std::regex_search(r.out, m, std::regex(R"((\d+) of (\d+) cycles decided the same)")))
        << r.out;
    EXPECT_EQ(m[1], m[2]) << r.out;
    EXPECT_GT(std::stoi(m[2]), 50) << r.out;
    ASSERT_TRUE(std::regex_search(
        r.out, m, std::regex(R"((\d+) of (\d+) throughput queries boosted the same)")));
    EXPECT_EQ(m[1], m[2]) << r.out;
    EXPECT_GT(std::stoi(m[2]), 5) << r.out;
}

TEST(Replay, SimulatedRunsDecideTheSame) {
    std::vector<std::string> scenarios = {"default.json"};
    for (const auto &e : fs::directory_iterator(fs::path(ZEBUSR_SOURCE_DIR) / "scenarios/stories"))
        scenarios.push_back("stories/" + e.path().filename().string());
    ASSERT_GE(scenarios.size(), 5u);
    // Failures the log records, served back as faults: lookups refused while
    // the module is away, throughput answers refused, invalid and too long.
    scenarios.push_back("faults/family-absent-until-time.json");
    scenarios.push_back("faults/malformed-throughput.json");
    for (const std::string &s : scenarios) {
        SCOPED_TRACE(s);
        fs::path log = s == "default.json" ? default_log() : live_log(s, fs::path(s).stem());
        expect_all_same(replay(log));
    }
}

// One change to a real log; the replay shows the difference where it lies.
struct Change {
    const char *name;
    // Edits the lines; returns the 0-based line the difference is told at.
    std::function<size_t(Lines &)> edit;
    const char *what;  // "cycle" or "throughput query"
};

const Change kChanges[] = {
    {"a move refused",
     [](Lines &v) {
         size_t ok = find(v, "ZEB_SUGG_DOWN: Move successful");
         replace(v[ok - 1], "return code: 0", "return code: 1");
         v.erase(v.begin() + long(ok));
         return find_back(v, "SYNC START", ok);
     },
     "cycle"},
    {"a silver cpu loaded",
     [](Lines &v) {
         size_t cap = find(v, "ZEB_CAPS: > cpu[3] with pps capacity = 25000 ");
         replace(v[cap], "capacity = 25000", "capacity = 7999");
         return find_back(v, "SYNC START", cap);
     },
     "cycle"},
    {"a segmentation request refused",
     [](Lines &v) {
         size_t code = find(v, "return code: 0", find(v, "Disabling segmentation for hash"));
         replace(v[code], "return code: 0", "return code: 5");
         return find(v, "SYNC START", code);  // asked again in the next cycle
     },
     "cycle"},
    {"another pid boosted",
     [](Lines &v) {
         size_t boost = find(v, "Boosting pid 4242 ");
         replace(v[boost], "pid 4242", "pid 4243");
         return find_back(v, "PID - BPS REQUESTED", boost);
     },
     "throughput query"},
};

TEST(Replay, AChangedLogShowsWhereItDiffers) {
    for (const Change &c : kChanges) {
        SCOPED_TRACE(c.name);
        Lines v = read_lines(default_log());
        size_t at = c.edit(v);
        Result r = replay(write_lines(v, c.name));
        EXPECT_EQ(r.status, 1) << r.out;
        std::string where = "first difference: run 1, the " + std::string(c.what) + " at line " +
                            std::to_string(at + 1) + " of the log\n";
        EXPECT_NE(r.out.find(where), std::string::npos) << where << r.out;
        // Both sides' lines, the original's with its numbers.
        EXPECT_NE(r.out.find("    " + std::to_string(at + 1) + ": " + v[at]), std::string::npos)
            << r.out;
        EXPECT_NE(r.out.find("  replay ("), std::string::npos) << r.out;
    }
}

TEST(Replay, AQuietStretchIsNamedAndTheRestReplays) {
    fs::path log = live_log("default.json", "quiet", {{5, SIGUSR2}, {10, SIGUSR1}});
    Lines v = read_lines(log);
    size_t off = find(v, "Stopping verbose logging");
    // The next run starts at the first request the log shows again.
    size_t on = find(v, "Starting verbose logging");
    size_t back = std::min(find(v, "SYNC START", on), find(v, "PID - BPS REQUESTED", on));
    Result r = replay(log);
    expect_all_same(r);
    std::string quiet =
        "lines " + std::to_string(off + 2) + "-" + std::to_string(back) + " (about ";
    EXPECT_NE(r.out.find(quiet), std::string::npos) << quiet << "\n" << r.out;
    EXPECT_NE(r.out.find("run 2 (lines " + std::to_string(back + 1) + "-"), std::string::npos)
        << r.out;
}

}  // namespace
