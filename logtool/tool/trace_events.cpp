// The trace's instants and slices: decisions, the connection's story, the
// boost thread's queries, the runs' edges and the log's problems.
#include <cstdio>

#include "trace_sink.hpp"

namespace zlog {

namespace {

std::string hex(uint32_t h) {
    char b[16];
    std::snprintf(b, sizeof b, "0x%x", h);
    return b;
}

std::string answer_text(const Answer &a) {
    if (a.outcome == Outcome::Code)
        return "code " + std::to_string(a.code);
    return outcome_name(a.outcome);
}

std::string stamp(uint64_t tod) {
    char b[32];
    std::snprintf(b, sizeof b, "%02u:%02u:%02u.%06u", unsigned(tod / 3600000000ull % 24),
                  unsigned(tod / 60000000 % 60), unsigned(tod / 1000000 % 60),
                  unsigned(tod % 1000000));
    return b;
}

std::string decision_name(const Decision &d) {
    std::string n = kind_name(d.kind);
    switch (d.kind) {
        case Kind::Up:
            return n + " cpu" + std::to_string(d.cur) + "->" + std::to_string(d.dest);
        case Kind::Down:
        case Kind::Bal:
            return n + " " + hex(d.hash) + " cpu" + std::to_string(d.cur) + "->" +
                   std::to_string(d.dest);
        case Kind::Seg:
            return n + " " + hex(d.hash) + " cpu" + std::to_string(d.cur);
        case Kind::Boost:
            break;
    }
    n += " pid";
    for (size_t i = 0; i < d.boosts.size() && i < 8; ++i)
        n += " " + std::to_string(d.boosts[i].pid);
    return d.boosts.size() > 8 ? n + " ..." : n;
}

Args decision_args(const Decision &d) {
    Args a;
    a.num("line", d.line);
    if (d.kind == Kind::Boost) {
        for (const BoostEntry &b : d.boosts) {
            std::string p = "pid " + std::to_string(b.pid);
            a.num(p + " tx_bps", b.tx_bps).num(p + " boost_left_ms", b.boost_left_ms);
        }
    } else {
        a.num("cpu", d.cur);
        if (d.kind != Kind::Up)
            a.str("hash", hex(d.hash));
        if (d.kind == Kind::Seg) {
            a.num("rx_bps", d.rx_bps).flag("stable", d.stable);
        } else if (d.kind == Kind::Up) {
            a.num("dest", d.dest).num("pps", d.pps).num("index", d.avg_pps);
        } else {
            a.num("dest", d.dest).num("pps", d.pps).num("avg_pps", d.avg_pps);
            a.num("cap", d.cap).num("cap_w_head", d.cap_w_head);
        }
    }
    a.str("answer", answer_text(d.answer)).num("answer_line", d.answer.line);
    return a.flag("accepted", d.accepted);
}

}  // namespace

void TraceSink::decision(const Decision &d, uint64_t run) {
    enter_run(run, d.line);
    ++decisions;
    uint64_t ts = wall(run, d.t_us);
    out_.instant(pid_of(run), d.kind == Kind::Boost ? kBoostTid : kEvalTid, decision_name(d), ts,
                 decision_args(d));
    if (d.accepted && (d.kind == Kind::Down || d.kind == Kind::Bal))
        moves_.push_back({d.line, ts, d.hash, d.dest});
}

void TraceSink::event(const Event &e) {
    if (e.kind == EventKind::RunStart)
        start_run(e.run, e.line);
    else
        enter_run(e.run, e.line);
    switch (e.kind) {
        case EventKind::Lookup:
        case EventKind::ConnectFailed:
        case EventKind::Connected:
        case EventKind::SyncFailed:
        case EventKind::CoreConnectFailed:
        case EventKind::CoreConnected:
        case EventKind::CoreGaveUp:
            return connection(e);
        case EventKind::Query:
            return query(e);
        case EventKind::Problem:
            return problem(e);
        default:
            return other(e);
    }
}

void TraceSink::close(std::optional<Open> &o, int tid, const std::string &name, uint64_t t,
                      Args args) {
    uint64_t start = o && o->t <= t ? o->t : t;
    out_.slice(pid_of(run_), tid, name, start, t - start, args);
    o.reset();
}

// A connection attempt runs from its first lookup to "CONNECTED" or the
// failure; a reconnection from "sync failed" to "CONNECTED".
void TraceSink::connection(const Event &e) {
    uint64_t t = wall(e.run, e.t_us);
    bool core = e.family == "DULOX_CORE" ||
                (e.kind != EventKind::Lookup && e.kind != EventKind::ConnectFailed &&
                 e.kind != EventKind::Connected && e.kind != EventKind::SyncFailed);
    int tid = core ? kBoostTid : kEvalTid;
    std::optional<Open> &attempt = core ? core_attempt_ : attempt_;
    Args a;
    a.num("line", e.line).str("answer", answer_text(e.answer));
    if (!e.text.empty())
        a.str("text", e.text);
    std::string family = core ? "DULOX_CORE" : "DULOX_ZEB";
    std::string why =
        e.text.empty() ? answer_text(e.answer) : e.text + ", " + answer_text(e.answer);
    switch (e.kind) {
        case EventKind::Lookup:
            if (!attempt)
                attempt = Open{t, {}};
            a.num("id", e.number);
            return out_.instant(pid_of(run_), tid, "lookup " + e.family, t, a);
        case EventKind::SyncFailed:
            if (!reconnect_)
                reconnect_ = Open{t, "sync " + answer_text(e.answer)};
            return out_.instant(pid_of(run_), tid, "sync failed: " + answer_text(e.answer), t, a);
        case EventKind::Connected:
            close(attempt_, kEvalTid, "connect " + family, t, a.num("failed_before", e.number));
            if (reconnect_)
                close(reconnect_, kEvalTid, "reconnect after " + reconnect_->cause, t, Args());
            return;
        case EventKind::CoreConnected:
            return close(core_attempt_, kBoostTid, "connect " + family, t, a);
        case EventKind::CoreGaveUp:
            out_.instant(pid_of(run_), tid, "core gave up", t, a);
            if (!core_attempt_)
                return;
            [[fallthrough]];
        default:
            return close(attempt, tid, "connect " + family + " failed: " + why, t, a);
    }
}

void TraceSink::query(const Event &e) {
    uint64_t ts = wall(e.run, e.t_us);
    uint64_t end = wall_of_line(e.last_line, ts);
    Args a;
    a.num("line", e.line).str("answer", answer_text(e.answer)).flag("valid", e.valid);
    a.num("list_len", static_cast<uint64_t>(e.list_len)).num("timestamp", e.timestamp);
    for (size_t i = 0; i < e.rates.size() && i < 32; ++i) {
        std::string p = "pid " + std::to_string(e.rates[i].pid);
        a.num(p + " tx_bps", e.rates[i].tx_bps);
        a.num(p + " boost_left_ms", static_cast<int64_t>(e.rates[i].boost_left_ms));
    }
    bool failed = e.answer.outcome != Outcome::Unknown && e.answer.outcome != Outcome::Code;
    std::string name = failed ? "pid/bps query: " + answer_text(e.answer) : "pid/bps query";
    out_.slice(pid_of(run_), kBoostTid, name, ts, end > ts ? end - ts : 0, a);
}

void TraceSink::problem(const Event &e) {
    ++problems;
    Args a;
    a.num("line", e.line).str("problem", problem_text(e.problem));
    if (!e.text.empty())
        a.str("text", e.text.substr(0, 200));  // a line may be a megabyte long
    out_.instant(pid_of(run_), kProblemTid,
                 "line " + std::to_string(e.line) + ": " + problem_text(e.problem),
                 wall(e.run, e.t_us), a);
}

void TraceSink::other(const Event &e) {
    uint64_t ts = wall(e.run, e.t_us);
    Args a;
    a.num("line", e.line);
    if (!e.text.empty())
        a.str("text", e.text.substr(0, 200));
    std::string name = event_name(e.kind);
    if (e.kind == EventKind::Gap) {
        uint64_t end = wall_of_line(e.last_line, ts);
        a.num("last_line", e.last_line);
        return out_.slice(pid_of(run_), kProblemTid, "no verbose lines", ts,
                          end > ts ? end - ts : 0, a);
    }
    if (e.kind == EventKind::RunEnd)
        finish();
    if (e.kind == EventKind::VerboseOff)
        last_counter_.clear();  // the first table after the gap is drawn whole
    int tid = e.kind == EventKind::TableFailed ? kEvalTid : kMainTid;
    out_.instant(pid_of(run_), tid, e.text.empty() ? name : name + ": " + e.text.substr(0, 120), ts,
                 a);
}

// Whatever is still open ends where the run's lines end.
void TraceSink::finish() {
    flush_moves(UINT64_MAX);
    if (!in_run_)
        return;
    if (attempt_)
        close(attempt_, kEvalTid, "connect DULOX_ZEB (unfinished)", last_wall_, Args());
    if (reconnect_)
        close(reconnect_, kEvalTid, "reconnect after " + reconnect_->cause + " (unfinished)",
              last_wall_, Args());
    if (core_attempt_)
        close(core_attempt_, kBoostTid, "connect DULOX_CORE (unfinished)", last_wall_, Args());
}

Args TraceSink::metadata() const {
    Args a;
    a.str("clock",
          "ts: microseconds since midnight of the log's first day (its date is not in the "
          "log), from the daemon's time-of-day stamps, going on past midnight; each run's "
          "times are its first stamp plus the run time");
    a.str("first_stamp", have_stamp_ ? stamp(first_tod_) : "none");
    a.num("runs", static_cast<uint64_t>(run_base_.size())).num("cycles", cycles);
    return a.num("decisions", decisions).num("problems", problems);
}

}  // namespace zlog
