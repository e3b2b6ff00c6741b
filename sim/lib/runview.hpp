// What a person looks at after a run: a picture of it, and a scorecard of the
// device with the daemon against the device left alone.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "replay.hpp"
#include "scenario.hpp"

namespace sim {

// Writes report.png into `dir` (its data and gnuplot script under report/).
// Returns the picture's path, or "" with the reason in `why`.
std::filesystem::path write_picture(const std::filesystem::path &dir, const Scenario &s,
                                    const std::vector<Decision> &decisions, const Replay &run,
                                    std::string &why);

// Per CPU: seconds overloaded and packets not carried; per flow: moves; per
// process: boosts. Both ways, side by side, with the difference.
std::string scorecard(const Scenario &s, const std::vector<Decision> &decisions,
                      const Replay &alone, const Replay &with);

}  // namespace sim
