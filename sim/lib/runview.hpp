// What a person looks at after a run: a picture of it, and a scorecard of the
// device with the daemon against the device left alone.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "replay.hpp"
#include "scenario.hpp"

namespace sim {

// What the picture draws, whichever way it was learnt: a simulated run
// replayed tick by tick, or a daemon's log read back cycle by cycle.
struct PictureFlow {
    uint32_t hash = 0;
    std::string name;
};

struct PictureData {
    std::string title;  // before the decision counts
    std::string xlabel = "simulated seconds";
    std::string flow_note;  // after the flow panel's title
    double duration = 0;
    size_t max_labels = SIZE_MAX;  // more decisions than this go unnamed
    std::vector<PictureFlow> flows;
    std::vector<Sample> samples;  // spare NaN where unknown; flow_cpu per flow
    std::vector<Decision> decisions;
};

// Writes report.png into `dir` (its data and gnuplot script under report/).
// Returns the picture's path, or "" with the reason in `why`.
std::filesystem::path draw_picture(const std::filesystem::path &dir, const PictureData &p,
                                   std::string &why);

// The picture of a simulated run.
std::filesystem::path write_picture(const std::filesystem::path &dir, const Scenario &s,
                                    const std::vector<Decision> &decisions, const Replay &run,
                                    std::string &why);

// Per CPU: seconds overloaded and packets not carried; per flow: moves; per
// process: boosts. Both ways, side by side, with the difference.
std::string scorecard(const Scenario &s, const std::vector<Decision> &decisions,
                      const Replay &alone, const Replay &with);

}  // namespace sim
