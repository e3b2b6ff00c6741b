// The picture's series gathered from a log while it streams: each CPU's spare
// capacity and each flow's CPU per cycle, and every decision. Memory stays
// bounded whatever the log's length: past kPictureSamples points the series
// keep every other point and take half as many from then on.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "logmodel.hpp"
#include "runview.hpp"

namespace zlog {

inline constexpr size_t kPictureSamples = 4000;  // points per track, at most
inline constexpr size_t kTrackedFlows = 512;     // distinct flows followed
inline constexpr size_t kDrawnFlows = 12;        // more would hide each other
inline constexpr size_t kNamedDecisions = 40;    // beyond, their names cover each other

class PictureSink : public Sink {
   public:
    explicit PictureSink(uint64_t run) : run_(run) {}

    void line(const LogLine &l) override;
    void cycle(const Cycle &c) override;
    void event(const Event &e) override;
    void decision(const Decision &d, uint64_t run) override;

    uint64_t runs() const { return runs_; }      // runs the log holds
    uint64_t cycles() const { return cycles_; }  // of the chosen run, with tables
    size_t points() const { return points_.size(); }

    // The chosen run's series: the flows with decisions first, then the
    // others in the order they appeared, at most kDrawnFlows.
    sim::PictureData data(const std::string &title) const;

   private:
    struct Point {
        double t = 0;
        std::array<double, 8> spare{};
        std::vector<int8_t> cpu;  // per followed flow, -1 when absent
    };
    struct Flow {
        uint32_t hash = 0;
        int moves = 0;                // accepted DOWN and BAL moves
        uint64_t first_decision = 0;  // 1 + index of its first decision, 0 for none
        bool moved_down = false;      // on silver by an accepted move, so in no table
    };

    bool ours(uint64_t run);
    int flow_index(uint32_t hash);
    void tables(const Cycle &c);
    void offer(Point p, bool keep);
    std::vector<size_t> drawn_flows() const;

    uint64_t run_, runs_ = 0, cycles_ = 0, offered_ = 0, stride_ = 1;
    // The run's first stamp, for the time axis: from its RunStart line, or
    // the file's first line when the file starts inside the run.
    int64_t start_tod_us_ = -1;
    uint64_t last_no_ = 0, last_tod_us_ = 0, start_line_ = 0;
    double t_end_ = 0;
    std::vector<Point> points_;
    std::vector<int8_t> where_;  // each followed flow's CPU now
    std::vector<Flow> flows_;
    std::unordered_map<uint32_t, int> index_;
    std::vector<sim::Decision> decisions_;
};

// A decision as the picture labels it ("DOWN 0xb0b0 cpu5->1", "BOOST 4242").
sim::Decision picture_decision(const Decision &d);

}  // namespace zlog
