// One stretch replayed: a fresh daemon under the simulator's recorded mode,
// stopped once both of its connections wait for steps that are used up.
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "replay.hpp"
#include "session.hpp"

namespace zlog::rec {

namespace {

using Clock = std::chrono::steady_clock;

// The daemon's sleeps (a second between throughput queries, 3 s after a
// failed connection attempt) and receive time-outs follow the time factor;
// sync replies come at once. A short stretch keeps the whole-process tests'
// factor, whose 0.3 s receive time-out no scheduling delay reaches; a long
// one goes faster, so an hour's log replays in seconds.
constexpr double kMaxFactor = 0.1;
constexpr double kMinFactor = 0.005;
constexpr double kBudgetS = 3;  // real seconds of sleeps a stretch may cost

// A replay that uses no step for this long has stopped for good (a daemon
// that hangs): it is stopped and reported.
constexpr auto kStall = std::chrono::seconds(60);

double factor_for(const RunExpect &r) {
    if (r.sleep_s <= 0)
        return kMaxFactor;
    return std::clamp(kBudgetS / r.sleep_s, kMinFactor, kMaxFactor);
}

// The run is over when the simulator says so, or when the boost thread gave
// up in the log (it asks nothing after its last step) and its steps are used
// while the steering side waits.
bool over(sim::Session &s, const RunExpect &r, const nlohmann::ordered_json &p) {
    if (s.recorded_done())
        return true;
    const auto &core = p["core"];
    return r.core_ends && core["used"] == core["steps"] && p["steering"]["held"] == true;
}

// Waits until the run is over; false when it stalled.
bool wait_done(sim::Session &s, const RunExpect &r) {
    std::string last;
    auto moved = Clock::now();
    for (;;) {
        nlohmann::ordered_json p = s.server().recorded_progress();
        if (over(s, r, p))
            return true;
        std::string now = p.dump();
        if (now != last) {
            last = now;
            moved = Clock::now();
        } else if (Clock::now() - moved > kStall) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

}  // namespace

RunOutcome replay_run(const sim::Scenario &s, const RunExpect &r, size_t k,
                      const ReplayOptions &o) {
    sim::SessionOptions so;
    so.scenario = s;
    so.run_dir = o.dir / ("run-" + std::to_string(k + 1));
    so.daemon = o.daemon;
    so.preload = o.preload;
    so.args = {"verbose"};
    so.time_factor = factor_for(r);
    so.records = o.records;
    so.recorded_run = k;
    fs::remove_all(so.run_dir);
    fs::path log = so.run_dir / "data/vendor/zebusr/zebusr_log.txt";
    auto start = Clock::now();
    std::string problem;
    try {
        sim::Session session(std::move(so));
        session.start_daemon();
        if (!wait_done(session, r))
            problem = "the replay used no step for a minute: stopped";
        session.signal(SIGTERM);
        if (!session.wait_exit(10))
            session.kill_daemon();
    } catch (const std::exception &e) {
        problem = std::string("the replay could not run: ") + e.what();
    }
    RunOutcome out = problem.empty() || fs::exists(log) ? compare_run(log, r, k) : RunOutcome{};
    out.log = log;
    out.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (!problem.empty())
        out.problem = problem;
    return out;
}

}  // namespace zlog::rec
