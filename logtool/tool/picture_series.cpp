#include "picture_series.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "model.hpp"

namespace zlog {

namespace {

constexpr double kUs = 1e6;

bool is_move(Kind k) {
    return k == Kind::Down || k == Kind::Bal;
}

bool valid_cpu(int c) {
    return c >= 0 && c < 8;
}

}  // namespace

sim::Decision picture_decision(const Decision &d) {
    sim::Decision x;
    x.t = double(d.t_us) / kUs;
    x.kind = kind_name(d.kind);
    x.accepted = d.accepted;
    x.hash = d.hash;
    x.cur = d.cur;
    x.dest = d.dest;
    std::string arrow = " cpu" + std::to_string(d.cur) + "->" + std::to_string(d.dest);
    switch (d.kind) {
        case Kind::Up:
            x.label = x.kind + arrow;
            break;
        case Kind::Down:
        case Kind::Bal:
            x.label = x.kind + " " + sim::hash_str(d.hash) + arrow;
            break;
        case Kind::Seg:
            x.label = "SEG off " + sim::hash_str(d.hash);
            break;
        case Kind::Boost:
            x.label = "BOOST";
            for (const auto &b : d.boosts) {
                x.pids.push_back(b.pid);
                x.label += " " + std::to_string(b.pid);
            }
            break;
    }
    return x;
}

bool PictureSink::ours(uint64_t run) {
    runs_ = std::max(runs_, run + 1);
    return run == run_;
}

int PictureSink::flow_index(uint32_t hash) {
    if (auto it = index_.find(hash); it != index_.end())
        return it->second;
    if (hash == 0 || flows_.size() >= kTrackedFlows)
        return -1;
    int i = int(flows_.size());
    index_.emplace(hash, i);
    flows_.push_back({hash});
    where_.push_back(-1);
    return i;
}

// Where each flow is as the cycle's tables say: a flow in neither table is
// gone. A cycle without flow tables tells nothing, so the last word stays.
// A flow moved down to silver is in no table unless it is in slow start: it
// stays where the move put it until a table shows it again.
void PictureSink::tables(const Cycle &c) {
    if (!c.gold_read && !c.ss_read)
        return;
    for (size_t i = 0; i < where_.size(); ++i)
        if (!flows_[i].moved_down)
            where_[i] = -1;
    for (const auto *table : {&c.gold, &c.ss})
        for (const FlowEntry &f : *table)
            if (int i = flow_index(f.hash); i >= 0 && valid_cpu(f.cpu)) {
                where_[size_t(i)] = int8_t(f.cpu);
                flows_[size_t(i)].moved_down = false;
            }
}

void PictureSink::cycle(const Cycle &c) {
    if (!ours(c.run) || (!c.caps_read && !c.gold_read && !c.ss_read))
        return;
    ++cycles_;
    tables(c);
    Point p;
    p.t = double(c.t_us) / kUs;
    p.spare.fill(NAN);
    for (const CapEntry &e : c.caps)
        if (valid_cpu(e.cpu))
            p.spare[size_t(e.cpu)] = double(e.pps);
    p.cpu = where_;
    offer(std::move(p), false);
    t_end_ = std::max(t_end_, double(c.t_us) / kUs);
    // An accepted move holds until a later table says otherwise.
    for (const Decision &d : c.decisions)
        if (is_move(d.kind) && d.accepted && valid_cpu(d.dest))
            if (int i = flow_index(d.hash); i >= 0) {
                where_[size_t(i)] = int8_t(d.dest);
                flows_[size_t(i)].moved_down = d.dest < 4;
            }
}

void PictureSink::line(const LogLine &l) {
    if (l.problem != Problem::None && l.problem != Problem::CrLf)
        return;
    if ((run_ == 0 && start_tod_us_ < 0) || l.no == start_line_)
        start_tod_us_ = int64_t(l.tod_us);
    last_no_ = l.no;
    last_tod_us_ = l.tod_us;
}

void PictureSink::event(const Event &e) {
    if (!ours(e.run))
        return;
    if (e.kind == EventKind::RunStart) {  // its line may come before or after it
        start_line_ = e.line;
        start_tod_us_ = e.line == last_no_ ? int64_t(last_tod_us_) : -1;
    }
    t_end_ = std::max(t_end_, double(e.t_us) / kUs);
    if (e.kind != EventKind::Gap && e.kind != EventKind::VerboseOff)
        return;
    // A break in every line: nothing is known until the tables come back.
    Point p;
    p.t = double(e.t_us) / kUs;
    p.spare.fill(NAN);
    p.cpu.assign(where_.size(), -1);
    offer(std::move(p), true);
}

void PictureSink::decision(const Decision &d, uint64_t run) {
    if (!ours(run))
        return;
    decisions_.push_back(picture_decision(d));
    t_end_ = std::max(t_end_, double(d.t_us) / kUs);
    if (d.kind == Kind::Up || d.kind == Kind::Boost)
        return;
    if (int i = flow_index(d.hash); i >= 0) {
        Flow &f = flows_[size_t(i)];
        if (!f.first_decision)
            f.first_decision = decisions_.size();
        f.moves += is_move(d.kind) && d.accepted;
    }
}

// Every stride_-th point is kept; when the series are full, every other
// point goes and the stride doubles, so a long log is drawn evenly.
void PictureSink::offer(Point p, bool keep) {
    if (offered_++ % stride_ != 0 && !keep)
        return;
    points_.push_back(std::move(p));
    if (points_.size() < kPictureSamples)
        return;
    size_t n = 1;  // the first stays where it is (a self-move would empty it)
    for (size_t i = 2; i < points_.size(); i += 2) points_[n++] = std::move(points_[i]);
    points_.resize(n);
    stride_ *= 2;
}

std::vector<size_t> PictureSink::drawn_flows() const {
    std::vector<size_t> order(flows_.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = i;
    auto rank = [&](size_t i) {
        uint64_t fd = flows_[i].first_decision;
        return fd ? fd : UINT64_MAX;
    };
    std::stable_sort(order.begin(), order.end(),
                     [&](size_t a, size_t b) { return rank(a) < rank(b); });
    if (order.size() > kDrawnFlows)
        order.resize(kDrawnFlows);
    return order;
}

sim::PictureData PictureSink::data(const std::string &title) const {
    sim::PictureData d;
    d.title = title;
    d.xlabel = "seconds since the run's first line";
    if (start_tod_us_ >= 0) {
        uint64_t s = uint64_t(start_tod_us_) / 1000000;
        char b[64];
        std::snprintf(b, sizeof b, "seconds since %02u:%02u:%02u, the run's first line",
                      unsigned(s / 3600 % 24), unsigned(s / 60 % 60), unsigned(s % 60));
        d.xlabel = b;
    }
    d.duration = t_end_ > 0 ? t_end_ : 1;
    d.max_labels = kNamedDecisions;
    std::vector<size_t> drawn = drawn_flows();
    for (size_t i : drawn) {
        int m = flows_[i].moves;
        d.flows.push_back({flows_[i].hash, m ? "moved " + std::to_string(m) + "x" : ""});
    }
    if (drawn.size() < flows_.size())
        d.flow_note = "; " + std::to_string(drawn.size()) + " of " + std::to_string(flows_.size()) +
                      " flows, those with decisions first";
    for (const Point &p : points_) {
        sim::Sample s;
        s.t = p.t;
        s.spare = p.spare;
        for (size_t i : drawn) s.flow_cpu.push_back(i < p.cpu.size() ? p.cpu[i] : -1);
        d.samples.push_back(std::move(s));
    }
    // A cycle is handed over when the next one starts, after the events of
    // its lines: the points come nearly, not quite, in time order.
    std::stable_sort(d.samples.begin(), d.samples.end(),
                     [](const sim::Sample &a, const sim::Sample &b) { return a.t < b.t; });
    d.decisions = decisions_;
    return d;
}

}  // namespace zlog
