// The stretches of a log: where they start and end, and the order of their
// steps on each connection.
#include "scenario_build.hpp"

#include <cstdio>

namespace zlog::rec {

namespace {

// Items waiting for their place; more than this and the oldest go on anyway
// (a long stretch with events but no cycle).
constexpr size_t kMaxBuffered = 4096;

}  // namespace

Builder::Builder(ScenarioWriter &w, bool expect) : w_(w), keep_(expect) {}

void Builder::line(const LogLine &l) {
    last_line_ = l.no;
    if (const char *r = result_words(l.msg)) {
        Item it;
        it.line = l.no;
        it.result = r;
        push(std::move(it));
    }
    if (l.problem != Problem::None && l.problem != Problem::CrLf)
        return;
    if (have_tod_)
        file_t_ = run_time_us(tod_, file_t_, l.tod_us);
    tod_ = l.tod_us;
    have_tod_ = true;
}

void Builder::push(Item it) {
    it.t = file_t_;
    uint64_t line = it.line;
    buf_.emplace(std::make_pair(line, order_++), std::move(it));
    while (buf_.size() > kMaxBuffered) {
        handle(buf_.begin()->second);
        buf_.erase(buf_.begin());
    }
}

void Builder::drain(uint64_t upto) {
    while (!buf_.empty() && buf_.begin()->first.first <= upto) {
        handle(buf_.begin()->second);
        buf_.erase(buf_.begin());
    }
}

void Builder::cycle(const Cycle &c) {
    Item it;
    it.line = c.line;
    it.cycle = c;
    push(std::move(it));
    drain(c.line);
}

void Builder::event(const Event &e) {
    Item it;
    it.line = e.line;
    it.event = e;
    push(std::move(it));
}

void Builder::decision(const Decision &d, uint64_t) {
    if (d.kind != Kind::Boost)
        return;  // the steering decisions come with their cycle
    Item it;
    it.line = d.line;
    it.boost = d;
    push(std::move(it));
}

void Builder::finish() {
    drain(UINT64_MAX);
    close(last_line_, "the end of the log");
    if (quiet_from_ && quiet_from_ <= last_line_)
        note_skip(quiet_from_, last_line_, quiet_t_, file_t_, "no tables");
    w_.finish(1, last_line_);
}

void Builder::handle(const Item &it) {
    // Told late (a query ends when the next begins), after its stretch closed.
    if (!open_ && it.line <= closed_upto_)
        return;
    now_t_ = it.t;
    if (it.cycle)
        handle_cycle(*it.cycle);
    else if (it.event)
        handle_event(*it.event);
    else if (it.result && !steer_.empty() && steer_.back().expect &&
             it.line <= steer_.back().expect->last_line)
        steer_.back().expect->results.push_back(it.result);
    else if (it.boost && core_ && core_->query) {
        core_->query->boosted.clear();
        for (const BoostEntry &b : it.boost->boosts) core_->query->boosted.push_back(b.pid);
    }
}

void Builder::handle_event(const Event &e) {
    switch (e.kind) {
        case EventKind::RunStart:
            close(e.line - 1, "a restart");
            if (e.number == 1)
                open(e.line, true);
            break;
        case EventKind::RunEnd:
            close(e.line, "the daemon's exit");
            break;
        case EventKind::VerboseOff:
            close(e.line, "verbose logging switched off");
            break;
        case EventKind::Gap:
            if (open_)
                close(e.line - 1, "lines without verbose detail");
            break;
        case EventKind::CoreGaveUp:
            cur_.core_ends = open_;
            break;
        case EventKind::Lookup:
            handle_lookup(e);
            break;
        case EventKind::Query:
            handle_query(e);
            break;
        case EventKind::TableFailed:
            handle_table_failed(e);
            break;
        default:
            break;
    }
}

void Builder::handle_lookup(const Event &e) {
    bool core = e.family == "DULOX_CORE";
    if (!core && e.family != "DULOX_ZEB")
        return;
    if (!open_)
        open(e.line, false);
    bool ok = e.answer.outcome != Outcome::NoAnswer && e.answer.outcome != Outcome::Malformed &&
              e.answer.outcome != Outcome::Error && e.number > 0;
    if (ok)
        (core ? core_id_ : zeb_id_) = e.number;
    Pending p(lookup_step(e.answer, ok ? e.number : 0, e.line));
    if (core) {
        start_core(true);
        push_core(std::move(p));
    } else {
        start_steering(true, false);
        push_steering(std::move(p));
    }
}

void Builder::handle_cycle(const Cycle &c) {
    cycles_seen_++;
    if (c.sync.outcome == Outcome::NotSent)
        return;  // no request reached the module
    if (c.sync.outcome == Outcome::Unknown) {
        flush_steering();  // the cycle before is whole; this sync's answer is not in the log
        return;
    }
    // A sync line is written only with verbose on: this is a stretch.
    if (!open_)
        open(c.line, false);
    bool decided =
        !c.connect_sync && c.ss_read && c.sync.outcome == Outcome::Code && c.sync.code != -1;
    start_steering(false, c.connect_sync);
    Pending p(sync_step(c, decided), true);
    p.connect = c.connect_sync;
    if (decided) {
        for (uint32_t h : c.created) cur_.judged_from.emplace(h, sync_pos_);
        p.expect = CycleExpect{c.index, sync_pos_, c.line, c.last_line, {}, {}};
        for (const Decision &d : c.decisions)
            if (d.kind != Kind::Boost)
                p.expect->decisions.push_back(d);
    }
    sync_pos_++;
    push_steering(std::move(p));
}

void Builder::handle_query(const Event &e) {
    bool failed = e.answer.outcome == Outcome::NoAnswer || e.answer.outcome == Outcome::Malformed ||
                  e.answer.outcome == Outcome::Error;
    if (e.answer.outcome == Outcome::NotSent || (!failed && e.valid && !e.rates_logged))
        return;  // nothing asked, or verbose was off: the list is not known
    if (!open_)
        open(e.line, false);
    start_core(false);
    Pending p(query_step(e));
    p.query = QueryExpect{e.line, e.last_line, {}};
    push_core(std::move(p));
}

// An open failure is served as an absent file after the sync before it. A
// mapping failure needs the file unmappable when the daemon opened it: from
// the connection's sync when it fails in the connection's first cycle.
void Builder::handle_table_failed(const Event &e) {
    std::string t = failed_table(e);
    if (!open_ || steer_.empty() || !steer_.back().sync || t.empty())
        return;
    bool at_open = failed_at_open(e);
    Pending &at =
        !at_open && steer_.size() == 2 && steer_.front().connect ? steer_.front() : steer_.back();
    Json &list = at.step[at_open ? "absent" : "unmappable"];
    if (!list.is_array())
        list = Json::array();
    list.push_back(t);
    if (!at_open)
        steer_.back().ends_run = true;  // the daemon exits in this cycle: it is whole
}

}  // namespace zlog::rec
