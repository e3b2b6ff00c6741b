#include "model.hpp"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <numeric>

namespace sim {

using json = nlohmann::ordered_json;

namespace {
// How long an ended slow-start flow is still listed, with zero rates, so the
// reader sees it leave.
constexpr double kSsLinger = 1.0;
uint64_t u64(double v) {
    return v <= 0 ? 0 : uint64_t(std::llround(v));
}
}  // namespace

std::string hash_str(uint32_t h) {
    char b[16];
    std::snprintf(b, sizeof b, "0x%x", h);
    return b;
}

const char *sugg_name(uint32_t type) {
    switch (type) {
        case 1:
            return "UP";
        case 2:
            return "DOWN";
        case 3:
            return "BAL";
    }
    return "unknown";
}

void Window::push(double v) {
    v_.push_back(v);
    while (int(v_.size()) > n_) v_.pop_front();
}

double Window::mean() const {
    return v_.empty() ? 0 : std::accumulate(v_.begin(), v_.end(), 0.0) / double(v_.size());
}

Model::Model(const Scenario &s) : s_(s) {
    for (const auto &f : s.flows) {
        FlowState st;
        st.plan = &f;
        st.cpu = f.cpu;
        st.avg = Window(s.avg_samples);
        flows_.push_back(st);
    }
    cpus_.resize(kCpus);
    for (auto &c : cpus_) c.avg = Window(s.avg_samples);
    for (const auto &p : s.processes) procs_.push_back({&p, p.start_s + p.boost_ms / 1000.0, 0});
    sample(0);
}

void Model::advance_to(double t) {
    if (s_.tick_ms <= 0) {
        if (t > sample_t_)
            sample(t);
        return;
    }
    double tick = s_.tick_ms / 1000.0;
    long now = long(std::floor(t / tick + 1e-9));
    // Older ticks than one window back cannot show in any average.
    long first = std::max(last_tick_ + 1, now - long(s_.avg_samples));
    for (long k = first; k <= now; ++k) sample(double(k) * tick);
    last_tick_ = std::max(last_tick_, now);
}

void Model::sample(double t) {
    sample_t_ = t;
    std::vector<double> load(kCpus), bps(kCpus);
    for (int c = 0; c < kCpus; ++c) {
        load[c] = s_.cpus[c].load_pps.at(t);
        bps[c] = s_.cpus[c].load_bps.at(t);
    }
    for (auto &f : flows_) {
        f.active = t >= f.plan->start_s && t < f.plan->end_s;
        f.pps = f.active ? f.plan->pps.at(t) : 0;
        f.bps = f.active ? f.plan->bps.at(t) : 0;
        if (!f.active)
            continue;
        f.avg.push(f.pps);
        load[f.cpu] += f.pps;
        bps[f.cpu] += f.bps;
    }
    for (int c = 0; c < kCpus; ++c) {
        cpus_[c].spare = std::max(0.0, s_.cpus[c].max_pps - load[c]);
        cpus_[c].excess = std::max(0.0, load[c] - s_.cpus[c].max_pps);
        cpus_[c].bps = bps[c];
        cpus_[c].avg.push(cpus_[c].spare);
    }
}

std::vector<CapEntry> Model::caps() const {
    std::vector<CapEntry> v;
    for (int c : s_.cap_order) {
        if (c >= kCpus) {
            v.push_back({0, 0, 0, uint16_t(c)});  // a bad entry a scenario asked for
            continue;
        }
        const CpuState &cs = cpus_[c];
        v.push_back({u64(cs.spare), u64(cs.avg.mean()), u64(cs.bps), uint16_t(c)});
    }
    return v;
}

static FlowEntry entry(const FlowState &f) {
    return {u64(f.pps), u64(f.avg.mean()), u64(f.bps), f.plan->hash, uint16_t(f.cpu)};
}

std::vector<FlowEntry> Model::gold_flows() const {
    std::vector<FlowEntry> v;
    for (const auto &f : flows_)
        if (f.active && f.cpu >= 4)
            v.push_back(entry(f));
    return v;
}

std::vector<FlowEntry> Model::ss_flows() const {
    std::vector<FlowEntry> v;
    for (const auto &f : flows_) {
        if (!f.plan->slow_start)
            continue;
        if (f.active)
            v.push_back(entry(f));
        else if (sample_t_ >= f.plan->end_s && sample_t_ < f.plan->end_s + kSsLinger)
            v.push_back({0, 0, 0, f.plan->hash, uint16_t(f.cpu)});
    }
    return v;
}

PidBpsRecord Model::pid_bps(double t) const {
    PidBpsRecord r;
    for (const auto &p : procs_) {
        if (t < p.plan->start_s || t >= p.plan->end_s)
            continue;
        double left = std::max(0.0, (p.boost_until - t) * 1000.0);
        r.entries.push_back(
            {u64(p.plan->tx_bps.at(t)), p.plan->pid, uint32_t(std::min(left, 4294967295.0))});
    }
    r.list_len = uint16_t(r.entries.size());
    r.timestamp = u64(t * 1000.0);
    r.valid = 1;
    return r;
}

FlowState *Model::find_active(uint32_t hash) {
    for (auto &f : flows_)
        if (f.active && f.plan->hash == hash)
            return &f;
    return nullptr;
}

const FlowState *Model::find_flow(uint32_t hash) const {
    for (const auto &f : flows_)
        if (f.plan->hash == hash)
            return &f;
    return nullptr;
}

Model::Outcome Model::suggest(const SuggInfo &s, double) {
    if (s.cur_cpu >= kCpus || s.dest_cpu >= kCpus)
        return {-EINVAL, "refused: CPU number out of range"};
    if (s.type == 1) {
        std::string moved;
        int n = 0;
        for (auto &f : flows_) {
            if (!f.active || f.cpu != s.cur_cpu)
                continue;
            f.cpu = s.dest_cpu;
            ++f.moves;
            ++n;
            moved += (moved.empty() ? "" : ", ") + hash_str(f.plan->hash);
        }
        return {0, "moved " + std::to_string(n) + " flow(s) from cpu" + std::to_string(s.cur_cpu) +
                       " to cpu" + std::to_string(s.dest_cpu) +
                       (moved.empty() ? "" : " (" + moved + ")")};
    }
    if (s.type != 2 && s.type != 3)
        return {-EINVAL, "refused: unknown suggestion type"};
    FlowState *f = find_active(s.hash);
    if (!f)
        return {-ENOENT, "refused: no flow " + hash_str(s.hash)};
    if (f->cpu != s.cur_cpu)
        return {-EINVAL,
                "refused: flow " + hash_str(s.hash) + " is on cpu" + std::to_string(f->cpu)};
    f->cpu = s.dest_cpu;
    ++f->moves;
    return {0, "moved flow " + hash_str(s.hash) + " from cpu" + std::to_string(s.cur_cpu) +
                   " to cpu" + std::to_string(s.dest_cpu)};
}

Model::Outcome Model::segment(const SegInfo &s, double t) {
    for (auto &f : flows_) {
        if (f.plan->hash != s.hash)
            continue;
        bool on = s.seg_enable != 0;
        f.seg_enabled = on;
        f.seg_changes.push_back({t, on});
        return {0, std::string("segmentation ") + (on ? "on" : "off") + " for flow " +
                       hash_str(s.hash)};
    }
    return {-ENOENT, "refused: no flow " + hash_str(s.hash)};
}

std::string Model::boost(const BoostInfo &b, double t) {
    if (b.valid != 1)
        return "ignored: record not valid";
    if (b.list_len > nl::kPidListMax)
        return "ignored: list_len above 32";
    std::string out;
    for (const auto &e : b.entries) {
        auto it = std::find_if(procs_.begin(), procs_.end(),
                               [&](const ProcState &p) { return p.plan->pid == e.pid; });
        std::string what;
        if (it == procs_.end()) {
            what = "pid " + std::to_string(e.pid) + " unknown";
        } else if (e.boost_en) {
            it->boost_until = t + e.boost_period / 1000.0;
            ++it->boosts;
            what = "pid " + std::to_string(e.pid) + " boosted for " +
                   std::to_string(e.boost_period) + " ms";
        } else {
            it->boost_until = t;
            what = "pid " + std::to_string(e.pid) + " boost ended";
        }
        out += (out.empty() ? "" : "; ") + what;
    }
    return out;
}

json Model::snapshot(double t) const {
    json flows = json::array();
    for (const auto &f : flows_) {
        json seg = json::array();
        for (auto [when, on] : f.seg_changes) seg.push_back({{"t", when}, {"enabled", on}});
        flows.push_back({{"hash", hash_str(f.plan->hash)},
                         {"name", f.plan->name},
                         {"cpu", f.cpu},
                         {"start_cpu", f.plan->cpu},
                         {"active", f.active},
                         {"moves", f.moves},
                         {"segmentation", f.seg_enabled},
                         {"seg_changes", seg}});
    }
    json procs = json::array();
    for (const auto &p : procs_)
        procs.push_back({{"pid", p.plan->pid},
                         {"name", p.plan->name},
                         {"boosts", p.boosts},
                         {"boost_remaining_ms", u64(std::max(0.0, (p.boost_until - t) * 1000.0))}});
    json cpus = json::array();
    for (int c = 0; c < kCpus; ++c)
        cpus.push_back({{"cpu", c},
                        {"spare_pps", u64(cpus_[c].spare)},
                        {"avg_spare_pps", u64(cpus_[c].avg.mean())}});
    return {{"t", t}, {"cpus", cpus}, {"flows", flows}, {"processes", procs}};
}

}  // namespace sim
