// The parts of zebusr-log explain: the clock that gives items their
// wall-clock stamps, the words for decisions and events, the summary's
// counters and the sink that ties them together. Everything kept is a
// counter or small per-flow state, so any size of log explains in the same
// memory.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <ostream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "logmodel.hpp"

namespace zlog::explain {

inline constexpr uint64_t kDayUs = 86400ull * 1000000;
inline constexpr uint64_t kFlipWindowUs = 60ull * 1000000;
inline constexpr size_t kFlipMoves = 3;  // more moves than this in the window is a flip-flop

// Where an item stands: its run time and, when known, its wall-clock stamp.
struct Stamp {
    uint64_t t_us = 0;
    uint64_t tod_us = 0;
    bool tod_known = false;
};

// Stamps of recent lines by line number, and each run's distance between
// stamp and run time for items whose line has left the ring.
class Clock {
   public:
    Clock();
    void note(const LogLine &l);
    Stamp at(uint64_t run, uint64_t line, uint64_t t_us);
    // A later line of the same run known by its number only (the end of a
    // quiet stretch): its run time from the stamps' difference.
    Stamp after(const Stamp &from, uint64_t line) const;

   private:
    static constexpr size_t kSlots = 1 << 16;
    static constexpr uint64_t kNoStamp = ~0ull;
    bool tod_of(uint64_t line, uint64_t &tod) const;
    bool unstamped(uint64_t line) const;
    std::vector<std::pair<uint64_t, uint64_t>> ring_;  // (line, tod), slot line % kSlots
    std::vector<int64_t> offset_;                      // per run: tod - t, -1 unknown
};

std::string clock_text(uint64_t tod_us);                 // "09:41:15.878"
std::string prefix_text(const Stamp &s, uint64_t line);  // "[   6.901s] 09:41:15.878 L4521 "
std::string mbps(uint64_t bps);                          // "325.0 Mbps"

// The capacity table of one cycle, as its lines said.
struct CycleView {
    uint64_t sync_line = 0;
    bool caps_seen = false;
    std::array<uint64_t, 8> avg{};  // by cpu number, a later entry overwriting
};

// What a decision's line does not carry and the lines around it tell.
struct DecisionContext {
    const CycleView *cycle = nullptr;  // the cycle the decision was made in, if seen
    bool prev_avg_known = false;       // SEG: the flow's history average before the sample
    uint64_t prev_avg = 0;
    int refused_dest = -1;  // the destination refused just before, for the same move
};

std::string answer_text(const Decision &d);
std::string decision_text(const Decision &d, const DecisionContext &c);
std::string event_text(const Event &e);  // empty when the event is only counted

// Counters for the summary.
class Summary {
   public:
    void decision(const Decision &d, uint64_t run);
    void cycle(const Cycle &c);
    void event(const Event &e, const Stamp &from, const Stamp &to);
    void seen(uint64_t run, uint64_t line, uint64_t t_us);  // any item of a run
    void csv(uint64_t rows, uint64_t first_tod, uint64_t last_tod, uint64_t problems,
             const std::string &first_problem);
    void print(std::ostream &o, uint64_t lines) const;

   private:
    struct Run {
        bool started = false, verbose_boot = false;
        uint64_t first_line = 0, last_line = 0, t_end_us = 0, cycles = 0;
        Stamp first;
        std::string end;
    };
    struct Quiet {
        uint64_t from_line, to_line;
        Stamp from, to;
    };
    struct Flip {
        uint64_t run = 0, worst_run = 0;
        std::deque<uint64_t> recent;  // move times within the window
        std::vector<uint64_t> worst;  // the most moves seen in one window
    };
    struct Csv {
        bool read = false;
        uint64_t rows = 0, first_tod = 0, last_tod = 0, problems = 0;
        std::string first_problem;
    };
    Run &run(uint64_t i);
    void move(const Decision &d, uint64_t run);
    void print_runs(std::ostream &o) const;
    void print_decisions(std::ostream &o) const;
    void print_flips(std::ostream &o) const;
    void print_story(std::ostream &o) const;

    static constexpr size_t kKeep = 64;  // runs, quiet stretches, flows listed in full
    std::vector<Run> runs_;
    Run spare_run_;
    uint64_t runs_seen_ = 0, restarts_ = 0, cycles_ = 0;
    std::vector<Quiet> quiet_;
    uint64_t quiet_count_ = 0;
    std::array<uint64_t, 5> asked_{}, accepted_{}, unlogged_{};
    std::map<int32_t, uint64_t> refused_;
    std::map<Outcome, uint64_t> unanswered_;
    std::unordered_map<uint32_t, Flip> flips_;
    std::map<uint32_t, uint64_t> boosts_;
    std::array<uint64_t, 11> problems_{};
    uint64_t reconnects_ = 0, connect_failures_ = 0, lookups_failed_ = 0, queries_ = 0,
             queries_failed_ = 0, table_failures_ = 0, core_gave_up_ = 0;
    Csv csv_;
};

// The CSV capture's rows, time span and problems, into the summary.
void read_csv_text(std::string_view text, Summary &s);
bool read_csv_file(const std::string &path, Summary &s, std::string &why);

// The sink: prints each decision and event as it arrives, feeds the summary.
class Explainer : public Sink {
   public:
    explicit Explainer(std::ostream &out) : out_(out) {}
    void line(const LogLine &l) override;
    void cycle(const Cycle &c) override;
    void event(const Event &e) override;
    void decision(const Decision &d, uint64_t run) override;
    Summary &summary() { return summary_; }
    uint64_t lines() const { return lines_; }

   private:
    struct FlowAvg {  // the history print's average in the last two cycles that printed it
        uint64_t sync_a = 0, avg_a = 0, sync_b = 0, avg_b = 0;
    };
    struct Refusal {
        Kind kind;
        uint64_t run, sync;
        uint32_t hash;
        int cur, dest;
    };
    void note_line(const LogLine &l);
    const CycleView *view_before(uint64_t line, const CycleView **prev) const;
    DecisionContext context(const Decision &d, uint64_t run) const;

    static constexpr size_t kMaxPrinted = 200;  // problem lines printed one by one
    std::ostream &out_;
    Clock clock_;
    Summary summary_;
    uint64_t lines_ = 0, problems_printed_ = 0;
    std::deque<CycleView> views_;  // the last few cycles' capacity tables
    std::unordered_map<uint32_t, FlowAvg> flow_avg_;
    bool refusal_set_ = false;
    Refusal refusal_{};
};

}  // namespace zlog::explain
