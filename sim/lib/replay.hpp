// A run seen afterwards: the decisions its transcript holds, and the device
// stepped tick by tick with those moves applied (or none, for the device left
// alone). The picture and the scorecard are drawn from these.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "scenario.hpp"

namespace sim {

struct Decision {
    double t = 0;
    std::string kind;  // UP, DOWN, BAL, SEG, BOOST
    bool accepted = false;
    uint32_t hash = 0;  // moves and segmentation
    int cur = -1, dest = -1;
    std::vector<uint32_t> pids;  // boosts
    std::string label;           // a few words for the picture
};

// Every suggestion, segmentation and boost request with its answer, in order.
std::vector<Decision> read_decisions(const std::filesystem::path &transcript);

struct Sample {
    double t = 0;
    std::array<double, kCpus> spare{}, excess{};  // pps
    std::vector<int> flow_cpu;                    // per scenario flow; -1 while inactive
};

struct Replay {
    double tick_s = 0.1;
    std::vector<Sample> samples;    // one per tick over [0, duration)
    std::vector<int> flow_moves;    // per scenario flow
    std::vector<int> flow_end_cpu;  // per scenario flow
};

// The accepted moves among `decisions` are applied at their time; the
// others are ignored, so an empty list leaves the device alone.
Replay replay(const Scenario &s, const std::vector<Decision> &decisions, double duration_s);

}  // namespace sim
