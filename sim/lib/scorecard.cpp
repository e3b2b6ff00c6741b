#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "model.hpp"
#include "runview.hpp"

namespace sim {

namespace {

// The steering module's own notion of a silver CPU short of room.
constexpr double kTightPps = 8000;

struct CpuScore {
    double tight_s = 0, over_s = 0, lost_pkts = 0;
};

std::vector<CpuScore> cpu_scores(const Replay &r) {
    std::vector<CpuScore> v(kCpus);
    for (const auto &smp : r.samples)
        for (int c = 0; c < kCpus; ++c) {
            v[c].tight_s += smp.spare[c] < kTightPps ? r.tick_s : 0;
            v[c].over_s += smp.excess[c] > 0 ? r.tick_s : 0;
            v[c].lost_pkts += smp.excess[c] * r.tick_s;
        }
    return v;
}

void add(std::string &out, const char *fmt, ...) {
    char b[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(b, sizeof b, fmt, ap);
    va_end(ap);
    out += b;
}

}  // namespace

std::string scorecard(const Scenario &s, const std::vector<Decision> &ds, const Replay &alone,
                      const Replay &with) {
    std::string o;
    double dur = double(with.samples.size()) * with.tick_s;
    add(o, "== Scorecard: scenario %s, %.1f simulated seconds, left alone vs with zebusrd ==\n",
        s.name.c_str(), dur);
    add(o,
        "  tight: spare below 8000 pps; overloaded: more packets than max_pps; lost: packets "
        "beyond max_pps\n\n");
    add(o, "  %-12s | %8s %8s %10s | %8s %8s %10s | %8s %8s %10s\n", "", "alone", "", "", "zebusrd",
        "", "", "change", "", "");
    add(o, "  %-12s | %8s %8s %10s | %8s %8s %10s | %8s %8s %10s\n", "cpu", "tight s", "over s",
        "lost pkts", "tight s", "over s", "lost pkts", "tight s", "over s", "lost pkts");
    auto a = cpu_scores(alone), w = cpu_scores(with);
    CpuScore ta, tw;
    auto row = [&](const std::string &name, const CpuScore &x, const CpuScore &y) {
        add(o, "  %-12s | %8.1f %8.1f %10.0f | %8.1f %8.1f %10.0f | %+8.1f %+8.1f %+10.0f\n",
            name.c_str(), x.tight_s, x.over_s, x.lost_pkts, y.tight_s, y.over_s, y.lost_pkts,
            y.tight_s - x.tight_s, y.over_s - x.over_s, y.lost_pkts - x.lost_pkts);
    };
    for (int c = 0; c < kCpus; ++c) {
        row("cpu" + std::to_string(c) + (c < 4 ? " silver" : " gold"), a[c], w[c]);
        ta = {ta.tight_s + a[c].tight_s, ta.over_s + a[c].over_s, ta.lost_pkts + a[c].lost_pkts};
        tw = {tw.tight_s + w[c].tight_s, tw.over_s + w[c].over_s, tw.lost_pkts + w[c].lost_pkts};
    }
    row("all", ta, tw);

    add(o, "\n  %-24s | %-14s | %-14s | %-6s |\n", "", "alone", "zebusrd", "change");
    add(o, "  %-24s | %6s %7s | %6s %7s | %6s | %s\n", "flow", "moves", "end cpu", "moves",
        "end cpu", "moves", "segmentation off (zebusrd)");
    for (size_t i = 0; i < s.flows.size(); ++i) {
        const auto &f = s.flows[i];
        std::string seg = "-";
        for (const auto &d : ds)
            if (d.kind == "SEG" && d.accepted && d.hash == f.hash) {
                char b[32];
                std::snprintf(b, sizeof b, "at %.1f s", d.t);
                seg = b;
                break;
            }
        add(o, "  %-24s | %6d %7d | %6d %7d | %+6d | %s\n",
            (hash_str(f.hash) + " " + f.name).c_str(), alone.flow_moves[i], alone.flow_end_cpu[i],
            with.flow_moves[i], with.flow_end_cpu[i], with.flow_moves[i] - alone.flow_moves[i],
            seg.c_str());
    }
    if (!s.processes.empty()) {
        add(o, "\n  %-24s | %-14s | %-14s\n", "process", "alone: boosts", "zebusrd: boosts");
        for (const auto &p : s.processes) {
            int n = 0;
            for (const auto &d : ds)
                if (d.kind == "BOOST" && d.accepted)
                    n += int(std::count(d.pids.begin(), d.pids.end(), p.pid));
            add(o, "  %-24s | %14d | %14d\n", (std::to_string(p.pid) + " " + p.name).c_str(), 0, n);
        }
    }
    return o;
}

}  // namespace sim
