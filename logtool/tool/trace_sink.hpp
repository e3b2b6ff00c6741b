// The trace verb's Sink: turns what the log reader rebuilds into Chrome trace
// events as they arrive. It keeps only small state (the current run's open
// connection attempts, the last value of each counter, a ring of recent
// lines' times), so a log of any size is traced in the same memory.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "logmodel.hpp"
#include "trace_json.hpp"

namespace zlog {

// Threads of each run's process.
inline constexpr int kMainTid = 0, kEvalTid = 1, kBoostTid = 2, kProblemTid = 3;

class TraceSink : public Sink {
   public:
    explicit TraceSink(TraceFile &out) : out_(out) {}

    void line(const LogLine &l) override;
    void cycle(const Cycle &c) override;
    void event(const Event &e) override;
    void decision(const Decision &d, uint64_t run) override;

    // Closes what is still open and says how times were made.
    void finish();
    Args metadata() const;

    // Wall-clock microseconds (time of day on the log's first day, going on
    // past midnight) of a time of day seen in the log's order; for the CSV.
    uint64_t wall_of_tod(uint64_t tod_us, uint64_t &day_us, uint64_t &last_tod) const;
    // The run a wall-clock time falls in, and its process id; -1 before any.
    int pid_at(uint64_t wall) const;
    bool any_stamp() const { return have_stamp_; }
    uint64_t first_tod() const { return first_tod_; }

    uint64_t cycles = 0, decisions = 0, problems = 0;

   private:
    struct Open {  // a connection attempt or reconnection not yet ended
        uint64_t t = 0;
        std::string cause;
    };
    struct FlowState {
        uint64_t first_t = 0;
        int cpu = -1;
        bool moved = false;
    };
    struct Move {
        uint64_t line = 0, t = 0;
        uint32_t hash = 0;
        int dest = -1;
    };

    static int pid_of(uint64_t run) { return static_cast<int>(run % 1000000) + 1; }
    uint64_t wall(uint64_t run, uint64_t t_us) const;
    uint64_t wall_of_line(uint64_t no, uint64_t fallback) const;
    void enter_run(uint64_t run, uint64_t line);
    void start_run(uint64_t run, uint64_t line);

    void cycle_slice(const Cycle &c);
    void caps(const Cycle &c);
    void flow_at(uint32_t hash, int cpu, uint64_t ts, bool moved);
    void flush_moves(uint64_t before_line);

    void connection(const Event &e);
    void close(std::optional<Open> &o, int tid, const std::string &name, uint64_t t, Args args);
    void query(const Event &e);
    void other(const Event &e);
    void problem(const Event &e);

    TraceFile &out_;
    // Clock: the log's stamps made monotonic across midnight.
    bool have_stamp_ = false;
    uint64_t first_tod_ = 0, day_us_ = 0, last_tod_ = 0, last_wall_ = 0;
    static constexpr size_t kRing = 1 << 14;                   // more than a verbose cycle's lines
    std::array<std::pair<uint64_t, uint64_t>, kRing> ring_{};  // line no, wall
    // Runs: the wall-clock time of each run's first line.
    std::vector<uint64_t> run_base_;
    uint64_t run_ = 0;
    bool in_run_ = false;
    // The current run's state.
    std::optional<Open> attempt_, reconnect_, core_attempt_;
    std::unordered_map<std::string, int64_t> last_counter_;
    std::unordered_map<uint32_t, FlowState> flows_;
    std::vector<Move> moves_;  // accepted moves not yet matched to their cycle
};

}  // namespace zlog
