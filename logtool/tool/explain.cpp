// zebusr-log explain LOG [--csv CSV]: each decision of the log with the
// numbers that made it and the kernel's answer, the connection's story in
// the same stream, and a summary at the end.
#include "explain.hpp"

#include <cstdio>
#include <iostream>

#include "explain_impl.hpp"
#include "verbs.hpp"

namespace zlog {

namespace explain {

void Explainer::line(const LogLine &l) {
    lines_ = std::max(lines_, l.no);
    clock_.note(l);
    note_line(l);
}

// What the decisions' own lines leave out: the cycle's capacity table and
// each slow-start flow's history average, cycle by cycle.
void Explainer::note_line(const LogLine &l) {
    constexpr size_t kViews = 3, kMaxFlows = 1 << 16;
    switch (l.msg) {
        case Msg::sync_start:
            views_.push_back({l.no, false, {}});
            if (views_.size() > kViews)
                views_.pop_front();
            break;
        case Msg::caps_entry:
            if (!views_.empty() && l.args[0].i >= 0 && l.args[0].i < 8) {
                views_.back().avg[l.args[0].i] = l.args[2].u;
                views_.back().caps_seen = true;
            }
            break;
        case Msg::ht_print_history: {
            if (flow_avg_.size() >= kMaxFlows)
                flow_avg_.clear();
            FlowAvg &f = flow_avg_[uint32_t(l.args[0].u)];
            uint64_t sync = views_.empty() ? 0 : views_.back().sync_line;
            if (f.sync_b != sync)
                f = {f.sync_b, f.avg_b, sync, 0};
            f.avg_b = l.args[2].u;
            break;
        }
        case Msg::main_init:
        case Msg::log_verbose_off:
            // Cycles from here leave no tables: nothing seen so far speaks for them.
            views_.clear();
            flow_avg_.clear();
            break;
        default:
            break;
    }
}

const CycleView *Explainer::view_before(uint64_t line, const CycleView **prev) const {
    *prev = nullptr;
    for (size_t i = views_.size(); i-- > 0;)
        if (views_[i].sync_line < line) {
            if (i > 0)
                *prev = &views_[i - 1];
            return &views_[i];
        }
    return nullptr;
}

DecisionContext Explainer::context(const Decision &d, uint64_t run) const {
    DecisionContext c;
    const CycleView *prev;
    c.cycle = view_before(d.line, &prev);
    auto it = flow_avg_.find(d.hash);
    if (d.kind == Kind::Seg && prev && it != flow_avg_.end()) {
        const FlowAvg &f = it->second;
        if (f.sync_a == prev->sync_line || f.sync_b == prev->sync_line) {
            c.prev_avg_known = true;
            c.prev_avg = f.sync_b == prev->sync_line ? f.avg_b : f.avg_a;
        }
    }
    uint64_t sync = c.cycle ? c.cycle->sync_line : 0;
    const Refusal &r = refusal_;
    if (refusal_set_ && r.kind == d.kind && r.run == run && r.sync == sync && r.hash == d.hash &&
        r.cur == d.cur)
        c.refused_dest = r.dest;
    return c;
}

void Explainer::cycle(const Cycle &c) {
    summary_.cycle(c);
}

void Explainer::event(const Event &e) {
    Stamp from = clock_.at(e.run, e.line, e.t_us);
    Stamp to = e.kind == EventKind::Gap ? clock_.after(from, e.last_line) : from;
    summary_.event(e, from, to);
    if (e.kind == EventKind::Problem && ++problems_printed_ > kMaxPrinted) {
        if (problems_printed_ == kMaxPrinted + 1)
            out_ << prefix_text(from, e.line) << "PROBLEM more problems: only counted from here\n";
        return;
    }
    std::string text = event_text(e);
    if (text.empty())
        return;
    out_ << prefix_text(from, e.line) << text;
    if (e.kind == EventKind::Gap && to.t_us >= from.t_us && from.tod_known)
        out_ << " (" << clock_text(from.tod_us) << " - " << clock_text(to.tod_us) << ")";
    out_ << '\n';
}

void Explainer::decision(const Decision &d, uint64_t run) {
    DecisionContext c = context(d, run);
    Stamp s = clock_.at(run, d.line, d.t_us);
    out_ << prefix_text(s, d.line) << decision_text(d, c) << '\n';
    summary_.decision(d, run);
    if (d.kind == Kind::Up || d.kind == Kind::Down || d.kind == Kind::Bal) {
        // A refusal sends the same move on to the next destination; say so there.
        refusal_set_ = !d.accepted && d.answer.outcome == Outcome::Code && d.answer.code != 0;
        refusal_ = {d.kind, run, c.cycle ? c.cycle->sync_line : 0, d.hash, d.cur, d.dest};
    }
}

}  // namespace explain

namespace {

const char kUsage[] = "usage: zebusr-log explain LOG [--csv CSV]\n";

// After the log: an empty one is said to be so (exit 2); otherwise the CSV,
// when given, and the summary.
int finish(explain::Explainer &ex, std::ostream &out, std::ostream &err, const char *name) {
    if (ex.lines() == 0) {
        err << "zebusr-log explain: " << name << ": the log is empty, nothing to explain\n";
        return 2;
    }
    ex.summary().print(out, ex.lines());
    return 0;
}

}  // namespace

int explain_text(std::string_view log, std::ostream &out, const std::string_view *csv) {
    explain::Explainer ex(out);
    read_log_text(log, ex);
    if (csv)
        explain::read_csv_text(*csv, ex.summary());
    return finish(ex, out, out, "LOG");
}

int verb_explain(const Words &w) {
    std::string log, csv;
    bool with_csv = false;
    for (size_t i = 0; i < w.size(); i++) {
        if (w[i] == "--csv" && i + 1 < w.size()) {
            csv = w[++i];
            with_csv = true;
        } else if (log.empty() && (w[i] == "-" || w[i].rfind('-', 0) != 0)) {
            log = w[i];
        } else {
            std::fputs(kUsage, stderr);
            return 2;
        }
    }
    if (log.empty()) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    std::ios::sync_with_stdio(false);
    explain::Explainer ex(std::cout);
    std::string why;
    if (!read_log(log, ex, why)) {
        std::cerr << "zebusr-log explain: " << why << "\n";  // why names the file
        return 2;
    }
    if (with_csv && ex.lines() > 0 && !explain::read_csv_file(csv, ex.summary(), why))
        std::cout << "zebusr-log explain: " << csv << ": " << why << "\n";
    return finish(ex, std::cout, std::cerr, log.c_str());
}

}  // namespace zlog
