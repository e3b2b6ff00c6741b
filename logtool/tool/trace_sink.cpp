// The trace's clock, its runs, and what each cycle shows: the cycle itself,
// the capacity counters and the flows' CPUs.
#include "trace_sink.hpp"

#include <cstdio>

namespace zlog {

namespace {

constexpr uint64_t kDayUs = 86400ull * 1000000;
constexpr size_t kMaxFlows = 4096;  // tracked at once; more is a log we cannot show anyway
constexpr size_t kMaxMoves = 1024;

bool stamped(const LogLine &l) {
    return l.problem == Problem::None || l.problem == Problem::CrLf ||
           l.problem == Problem::UnknownMessage || l.problem == Problem::WrongLevel;
}

bool sync_ok(const Answer &a) {
    return a.outcome == Outcome::Code && a.code == 0;
}

}  // namespace

uint64_t TraceSink::wall_of_tod(uint64_t tod_us, uint64_t &day_us, uint64_t &last_tod) const {
    // The same rule as run time: a stamp more than 12 hours back is the next day.
    if (tod_us + kDayUs / 2 < last_tod)
        day_us += kDayUs;
    last_tod = tod_us;
    return day_us + tod_us;
}

void TraceSink::line(const LogLine &l) {
    uint64_t w = last_wall_;
    if (stamped(l)) {
        if (!have_stamp_) {
            have_stamp_ = true;
            first_tod_ = last_tod_ = l.tod_us;
        }
        w = wall_of_tod(l.tod_us, day_us_, last_tod_);
        if (run_base_.empty())
            run_base_.push_back(w);  // a log that does not begin with a start
    }
    ring_[l.no % kRing] = {l.no, w};
    last_wall_ = w;
}

uint64_t TraceSink::wall_of_line(uint64_t no, uint64_t fallback) const {
    const auto &slot = ring_[no % kRing];
    return no && slot.first == no ? slot.second : fallback;
}

uint64_t TraceSink::wall(uint64_t run, uint64_t t_us) const {
    if (run_base_.empty())
        return t_us;
    return (run < run_base_.size() ? run_base_[run] : run_base_.back()) + t_us;
}

int TraceSink::pid_at(uint64_t w) const {
    int pid = -1;
    for (size_t r = 0; r < run_base_.size() && run_base_[r] <= w; ++r) pid = pid_of(r);
    return pid;
}

void TraceSink::start_run(uint64_t run, uint64_t line) {
    if (run_base_.size() <= run)
        run_base_.resize(run + 1, last_wall_);
    run_base_[run] = wall_of_line(line, last_wall_);
    enter_run(run, line);
}

// Each run is a process of its own; its tracks start afresh.
void TraceSink::enter_run(uint64_t run, uint64_t line) {
    if (in_run_ && run == run_)
        return;
    if (in_run_)
        finish();
    if (run_base_.size() <= run)
        run_base_.resize(run + 1, wall_of_line(line, last_wall_));
    in_run_ = true;
    run_ = run;
    last_counter_.clear();
    flows_.clear();
    int pid = pid_of(run);
    out_.meta(pid, 0, "process_name",
              "zebusrd run " + std::to_string(run + 1) + " (line " + std::to_string(line) + ")");
    out_.meta(pid, kMainTid, "thread_name", "main");
    out_.meta(pid, kEvalTid, "thread_name", "zeb_eval_thread");
    out_.meta(pid, kBoostTid, "thread_name", "dulox_freq_boost_thread");
    out_.meta(pid, kProblemTid, "thread_name", "log problems");
}

void TraceSink::cycle(const Cycle &c) {
    enter_run(c.run, c.line);
    ++cycles;
    flush_moves(c.line);
    cycle_slice(c);
    caps(c);
    uint64_t ts = wall(c.run, c.t_us);
    for (const FlowEntry &f : c.gold) flow_at(f.hash, f.cpu, ts, false);
    for (const FlowEntry &f : c.ss) flow_at(f.hash, f.cpu, ts, false);
    for (const Decision &d : c.decisions)
        if (d.accepted && (d.kind == Kind::Down || d.kind == Kind::Bal))
            flow_at(d.hash, d.dest, wall(c.run, d.t_us), true);
    std::erase_if(moves_, [&](const Move &m) { return m.line >= c.line && m.line <= c.last_line; });
}

// A failed sync ends the cycle at its answer, so the reconnection that
// follows is a slice of its own, not one the cycle half covers.
void TraceSink::cycle_slice(const Cycle &c) {
    uint64_t start = wall(c.run, c.t_us);
    bool cut = c.connect_sync || !sync_ok(c.sync);
    uint64_t end = cut ? wall_of_line(c.sync.line, start) : wall_of_line(c.last_line, start);
    Args a;
    a.num("line", c.line).num("seq", static_cast<uint64_t>(c.seq));
    a.str("sync", c.sync.outcome == Outcome::Code ? "code " + std::to_string(c.sync.code)
                                                  : outcome_name(c.sync.outcome));
    a.flag("caps_read", c.caps_read).flag("gold_read", c.gold_read).flag("ss_read", c.ss_read);
    a.num("gold_flows", static_cast<uint64_t>(c.gold_len));
    a.num("ss_flows", static_cast<uint64_t>(c.ss_len));
    a.num("decisions", static_cast<uint64_t>(c.decisions.size()));
    out_.slice(pid_of(c.run), kEvalTid, c.connect_sync ? "connect sync" : "cycle", start,
               end > start ? end - start : 0, a);
}

// Counters change only when the value does: a step track shows the same,
// and an idle hour of log stays small.
void TraceSink::caps(const Cycle &c) {
    if (!c.caps_read)
        return;
    uint64_t ts = wall(c.run, c.t_us);
    auto set = [&](const std::string &name, uint64_t v) {
        auto [it, fresh] = last_counter_.try_emplace(name, static_cast<int64_t>(v));
        if (!fresh && it->second == static_cast<int64_t>(v))
            return;
        it->second = static_cast<int64_t>(v);
        out_.counter(pid_of(c.run), name, ts, "pps", static_cast<int64_t>(v));
    };
    for (const CapEntry &e : c.caps) {
        if (e.cpu < 0 || e.cpu >= 64)  // the daemon logs what it read, even nonsense
            continue;
        std::string cpu = "cpu" + std::to_string(e.cpu);
        set(cpu + " spare", e.pps);
        set(cpu + " avg spare", e.avg);
    }
}

// A flow gets a track once it moves: its first point is where it was first
// seen, so the track shows its whole story without one track per idle flow.
void TraceSink::flow_at(uint32_t hash, int cpu, uint64_t ts, bool moved) {
    if (!hash || cpu < 0)
        return;
    char name[32];
    std::snprintf(name, sizeof name, "flow 0x%x", hash);
    int pid = pid_of(run_);
    if (flows_.size() >= kMaxFlows && !flows_.count(hash))
        flows_.clear();
    auto [it, fresh] = flows_.try_emplace(hash, FlowState{ts, cpu, moved});
    FlowState &f = it->second;
    if (fresh) {
        if (moved)
            out_.counter(pid, name, ts, "cpu", cpu);
        return;
    }
    if (cpu == f.cpu && (f.moved || !moved))
        return;
    if (!f.moved)
        out_.counter(pid, name, f.first_t, "cpu", f.cpu);
    f.moved = true;
    if (cpu != f.cpu)
        out_.counter(pid, name, ts, "cpu", cpu);
    f.cpu = cpu;
}

// Moves seen outside any cycle (verbose off) still move their flow.
void TraceSink::flush_moves(uint64_t before_line) {
    std::erase_if(moves_, [&](const Move &m) {
        if (m.line >= before_line)
            return false;
        flow_at(m.hash, m.dest, m.t, true);
        return true;
    });
    if (moves_.size() > kMaxMoves)
        flush_moves(UINT64_MAX);
}

}  // namespace zlog
