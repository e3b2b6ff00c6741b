// explain's summary: counters kept while the log streams by, printed at the
// end. Lists are capped so that memory does not grow with the log.
#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "explain_impl.hpp"

namespace zlog::explain {

namespace {

constexpr size_t kMaxRuns = 4096;   // runs counted one by one; later ones share a slot
constexpr size_t kMaxFlows = 4096;  // flows followed for flip-flops before pruning
constexpr size_t kMaxPids = 4096;   // processes counted one by one
constexpr size_t kTimesShown = 12;  // move times listed per flip-flopping flow

const char *problem_name(size_t p) {
    static const char *const kNames[] = {"",
                                         "CR LF",
                                         "not text",
                                         "too long",
                                         "cut",
                                         "no prefix",
                                         "columns",
                                         "unknown message",
                                         "wrong level",
                                         "missing empty line",
                                         "unexpected empty line"};
    static_assert(sizeof kNames / sizeof kNames[0] ==
                  static_cast<size_t>(Problem::UnexpectedBlank) + 1);
    return kNames[p];
}

bool is_move(Kind k) {
    return k == Kind::Up || k == Kind::Down || k == Kind::Bal;
}

// Code 0 is the acceptance, even when a cut log lost the move's success line.
bool accepted(const Decision &d) {
    return d.accepted || d.answer.accepted();
}

std::string seconds(uint64_t us) {
    char b[32];
    std::snprintf(b, sizeof b, "%.3f s", double(us) / 1e6);
    return b;
}

std::string when(const Stamp &s) {
    return s.tod_known ? clock_text(s.tod_us) : std::string("??:??:??.???");
}

}  // namespace

Summary::Run &Summary::run(uint64_t i) {
    runs_seen_ = std::max(runs_seen_, i + 1);
    if (i >= kMaxRuns)
        return spare_run_;
    if (runs_.size() <= i)
        runs_.resize(i + 1);
    return runs_[i];
}

void Summary::seen(uint64_t i, uint64_t line, uint64_t t_us) {
    Run &r = run(i);
    if (line && (!r.first_line || line < r.first_line))
        r.first_line = line;
    r.last_line = std::max(r.last_line, line);
    r.t_end_us = std::max(r.t_end_us, t_us);
}

void Summary::decision(const Decision &d, uint64_t run_index) {
    size_t k = static_cast<size_t>(d.kind);
    asked_[k]++;
    bool ok = accepted(d);
    accepted_[k] += ok;
    if (!ok && d.answer.outcome == Outcome::Unknown)
        unlogged_[k]++;
    if (is_move(d.kind) && !ok) {
        if (d.answer.outcome == Outcome::Code)
            refused_[d.answer.code]++;
        else if (d.answer.outcome != Outcome::Unknown)
            unanswered_[d.answer.outcome]++;
    }
    if (ok && (d.kind == Kind::Down || d.kind == Kind::Bal))
        move(d, run_index);
    if (d.kind == Kind::Boost && ok)
        for (const BoostEntry &b : d.boosts)
            if (boosts_.size() < kMaxPids || boosts_.count(b.pid))
                boosts_[b.pid]++;
    seen(run_index, d.line, d.t_us);
}

// Each flow's accepted moves of the last 60 s of run time; the densest
// window with more than three is kept.
void Summary::move(const Decision &d, uint64_t run_index) {
    Flip &f = flips_[d.hash];
    if (f.run != run_index)
        f.recent.clear();
    f.run = run_index;
    while (!f.recent.empty() && d.t_us - f.recent.front() > kFlipWindowUs) f.recent.pop_front();
    f.recent.push_back(d.t_us);
    if (f.recent.size() > kFlipMoves && f.recent.size() > f.worst.size()) {
        f.worst.assign(f.recent.begin(), f.recent.end());
        f.worst_run = run_index;
    }
    if (flips_.size() <= kMaxFlows)
        return;
    for (auto it = flips_.begin(); it != flips_.end();) {
        bool idle = it->second.recent.empty() || it->second.run != run_index ||
                    d.t_us - it->second.recent.back() > kFlipWindowUs;
        it = it->second.worst.empty() && idle ? flips_.erase(it) : std::next(it);
    }
}

void Summary::cycle(const Cycle &c) {
    cycles_++;
    run(c.run).cycles++;
    seen(c.run, c.line, c.t_us);
}

void Summary::event(const Event &e, const Stamp &from, const Stamp &to) {
    Run &r = run(e.run);
    seen(e.run, std::max(e.line, e.last_line), std::max(e.t_us, to.t_us));
    switch (e.kind) {
        case EventKind::RunStart:
            r.started = true;
            r.verbose_boot = e.number != 0;
            r.first_line = e.line;
            r.first = from;
            restarts_ += e.run > 0;
            break;
        case EventKind::RunEnd:
            r.end = e.text.empty() ? std::string("ended") : e.text;
            break;
        case EventKind::Gap:
            quiet_count_++;
            if (quiet_.size() < kKeep)
                quiet_.push_back({e.line, e.last_line, from, to});
            break;
        case EventKind::Problem:
            problems_[std::min<size_t>(static_cast<size_t>(e.problem), problems_.size() - 1)]++;
            break;
        case EventKind::SyncFailed:
            reconnects_++;
            break;
        case EventKind::ConnectFailed:
            connect_failures_++;
            break;
        case EventKind::Lookup:
            lookups_failed_ +=
                !event_text(e).empty() && event_text(e).find("failed") != std::string::npos;
            break;
        case EventKind::Query:
            queries_++;
            queries_failed_ += !event_text(e).empty();
            break;
        case EventKind::TableFailed:
            table_failures_++;
            break;
        case EventKind::CoreGaveUp:
            core_gave_up_++;
            break;
        default:
            break;
    }
}

void Summary::csv(uint64_t rows, uint64_t first_tod, uint64_t last_tod, uint64_t problems,
                  const std::string &first_problem) {
    csv_ = {true, rows, first_tod, last_tod, problems, first_problem};
}

void Summary::print_runs(std::ostream &o) const {
    uint64_t run_us = 0;
    for (const Run &r : runs_) run_us += r.t_end_us;
    o << "  runs: " << runs_seen_ << " (daemon restarts: " << restarts_ << ")\n";
    for (size_t i = 0; i < runs_.size() && i < kKeep; i++) {
        const Run &r = runs_[i];
        o << "    run " << i + 1 << ": lines " << r.first_line << "-" << r.last_line;
        if (r.started)
            o << ", from " << when(r.first) << " (verbose " << (r.verbose_boot ? "on" : "off")
              << " at boot)";
        else
            o << " (the log begins inside this run)";
        o << ", " << seconds(r.t_end_us) << " of run time; "
          << (r.end.empty() ? std::string("its end is not in the log") : r.end) << "\n";
    }
    if (runs_seen_ > kKeep)
        o << "    (" << runs_seen_ - kKeep << " more runs not listed)\n";
    char rate[64];
    std::snprintf(rate, sizeof rate, "%.2f", run_us ? double(cycles_) * 1e6 / double(run_us) : 0.0);
    o << "  cycles seen: " << cycles_ << " (" << rate << " per second of run time)\n";
    o << "  periods without verbose lines: " << quiet_count_ << "\n";
    for (const Quiet &q : quiet_)
        o << "    lines " << q.from_line << "-" << q.to_line << ", " << when(q.from) << " - "
          << when(q.to) << " (" << seconds(q.to.t_us - std::min(q.to.t_us, q.from.t_us)) << ")\n";
    if (quiet_count_ > quiet_.size())
        o << "    (" << quiet_count_ - quiet_.size() << " more not listed)\n";
}

void Summary::print_decisions(std::ostream &o) const {
    o << "  decisions: asked, accepted (answer not logged)\n";
    for (size_t k = 0; k < asked_.size(); k++) {
        char b[96];
        std::snprintf(b, sizeof b, "    %-6s %8" PRIu64 " %8" PRIu64 " (%" PRIu64 ")\n",
                      kind_name(static_cast<Kind>(k)), asked_[k], accepted_[k], unlogged_[k]);
        o << b;
    }
    uint64_t refused = 0;
    for (const auto &[code, n] : refused_) refused += n;
    o << "  refused moves: " << refused;
    const char *sep = " (";
    for (const auto &[code, n] : refused_) {
        o << sep << "code " << code << ": " << n;
        sep = ", ";
    }
    o << (refused ? ")\n" : "\n");
    for (const auto &[outcome, n] : unanswered_)
        o << "  moves with " << outcome_name(outcome) << ": " << n << "\n";
}

void Summary::print_flips(std::ostream &o) const {
    std::vector<std::pair<uint32_t, const Flip *>> flips;
    for (const auto &[hash, f] : flips_)
        if (!f.worst.empty())
            flips.push_back({hash, &f});
    std::sort(flips.begin(), flips.end());
    o << "  flip-flops (a flow moved more than three times within 60 s): " << flips.size() << "\n";
    for (size_t i = 0; i < flips.size() && i < kKeep; i++) {
        const Flip &f = *flips[i].second;
        char h[16];
        std::snprintf(h, sizeof h, "0x%x", flips[i].first);
        o << "    flow " << h << ": " << f.worst.size() << " moves in run " << f.worst_run + 1
          << " at";
        for (size_t j = 0; j < f.worst.size() && j < kTimesShown; j++)
            o << (j ? ", " : " ") << seconds(f.worst[j]);
        o << (f.worst.size() > kTimesShown ? ", ...\n" : "\n");
    }
    o << "  boosts per pid:";
    if (boosts_.empty())
        o << " none";
    for (const auto &[pid, n] : boosts_) o << " " << pid << " (" << n << ")";
    o << "\n";
}

void Summary::print_story(std::ostream &o) const {
    o << "  connection: " << reconnects_ << " reconnections, " << connect_failures_
      << " failed connection attempts, " << lookups_failed_ << " failed lookups, "
      << table_failures_ << " tables not opened or mapped"
      << (core_gave_up_ ? ", the core driver gave up" : "") << "\n";
    o << "  rate-list queries: " << queries_ << " (" << queries_failed_ << " without a list)\n";
    uint64_t total = 0;
    for (uint64_t n : problems_) total += n;
    o << "  problems: " << total;
    const char *sep = " (";
    for (size_t p = 0; p < problems_.size(); p++)
        if (problems_[p]) {
            o << sep << problem_name(p) << ": " << problems_[p];
            sep = ", ";
        }
    o << (total ? ")\n" : "\n");
    if (!csv_.read)
        return;
    o << "  csv: " << csv_.rows << " rows";
    if (csv_.rows)
        o << ", " << clock_text(csv_.first_tod) << " - " << clock_text(csv_.last_tod);
    o << ", " << csv_.problems << " problems"
      << (csv_.first_problem.empty() ? std::string() : " (first: " + csv_.first_problem + ")")
      << "\n";
}

void Summary::print(std::ostream &o, uint64_t lines) const {
    o << "\n== Summary of " << lines << " lines ==\n";
    print_runs(o);
    print_decisions(o);
    print_flips(o);
    print_story(o);
}

}  // namespace zlog::explain
