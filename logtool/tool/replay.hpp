// zebusr-log replay: each stretch of a log served to a fresh zebusrd under
// the simulator's recorded mode, and the replay's log compared with the
// original, decision by decision.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "scenario.hpp"
#include "scenario_build.hpp"

namespace zlog::rec {

namespace fs = std::filesystem;

// Where the two sides first part: one cycle or one throughput query.
struct Difference {
    size_t run = 0;                             // index of the stretch
    bool query = false;                         // a query's boosts, not a cycle
    uint64_t line = 0, last_line = 0;           // the original's lines
    uint64_t replay_line = 0, replay_last = 0;  // the replay's, 0 when it has none
    std::vector<std::string> original, replay;  // the decisions' words
};

// How one stretch's replay compared.
struct RunOutcome {
    size_t cycles = 0, cycles_same = 0;
    size_t queries = 0, queries_same = 0;
    std::optional<Difference> first;  // the earliest by the original's lines
    std::string problem;              // the replay could not be run or read
    fs::path log;                     // the replay's log
    double seconds = 0;               // real time the replay took
};

// Reads the replay's log and compares it with what the stretch expects.
RunOutcome compare_run(const fs::path &replay_log, const RunExpect &r, size_t run);

struct ReplayOptions {
    fs::path daemon, preload;
    fs::path dir;  // scenario.json and a directory per run
    bool records = false;
};

// Serves run `k` of the scenario to a fresh daemon until its steps are used
// up, then stops it and compares.
RunOutcome replay_run(const sim::Scenario &s, const RunExpect &r, size_t k, const ReplayOptions &o);

// The build's zebusrd and preload library, which replay runs unless told
// otherwise.
fs::path default_daemon();
fs::path default_preload();

// Prints both sides' lines of a difference.
void print_difference(const Difference &d, const std::string &original_log,
                      const fs::path &replay_log);

}  // namespace zlog::rec
