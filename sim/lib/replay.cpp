#include "replay.hpp"

#include <cmath>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "model.hpp"

namespace sim {

using json = nlohmann::ordered_json;

namespace {

Decision decision(const json &in, const json &out) {
    Decision d;
    d.t = out.value("t", in.value("t", 0.0));
    std::string kind = in.value("kind", "");
    if (kind == "boost") {
        d.kind = "BOOST";
        d.accepted = out.value("effect", std::string()).find("boosted") != std::string::npos;
        d.label = "BOOST";
        for (const auto &e : in["entries"]) {
            d.pids.push_back(e.value("pid", 0u));
            d.label += " " + std::to_string(d.pids.back());
        }
        return d;
    }
    d.hash = uint32_t(std::stoul(in.value("hash", std::string("0")), nullptr, 16));
    d.accepted = out.value("result", "") == "accepted";
    if (kind == "segmentation") {
        d.kind = "SEG";
        d.label = std::string("SEG ") + (in.value("seg_enable", 0u) ? "on " : "off ") +
                  in["hash"].get<std::string>();
        return d;
    }
    d.kind = in.value("sugg_type", std::string("MOVE?"));
    d.cur = in.value("cur_cpu", -1);
    d.dest = in.value("dest_cpu", -1);
    d.label = d.kind + (d.kind == "UP" ? "" : " " + in["hash"].get<std::string>()) + " cpu" +
              std::to_string(d.cur) + "->" + std::to_string(d.dest);
    return d;
}

}  // namespace

std::vector<Decision> read_decisions(const std::filesystem::path &transcript) {
    std::ifstream f(transcript);
    if (!f)
        throw std::runtime_error("cannot read " + transcript.string());
    std::map<long, json> pending;
    std::vector<Decision> out;
    for (std::string line; std::getline(f, line);) {
        json r = json::parse(line, nullptr, false);
        if (r.is_discarded() || !r.contains("n"))
            continue;
        std::string kind = r.value("kind", "");
        if (kind != "suggestion" && kind != "segmentation" && kind != "boost")
            continue;
        long n = r["n"];
        if (r.value("dir", "") == "in") {
            pending[n] = std::move(r);
        } else if (auto it = pending.find(n); it != pending.end()) {
            out.push_back(decision(it->second, r));
            pending.erase(it);
        }
    }
    return out;
}

Replay replay(const Scenario &scenario, const std::vector<Decision> &decisions, double duration_s) {
    Scenario s = scenario;
    if (s.tick_ms <= 0)
        s.tick_ms = 100;
    Replay r;
    r.tick_s = s.tick_ms / 1000.0;
    Model m(s);
    size_t next = 0;
    long ticks = long(std::ceil(duration_s / r.tick_s - 1e-9));
    for (long k = 0; k < ticks; ++k) {
        double t = double(k) * r.tick_s;
        // A move answered before this tick's sync reply shows in its sample.
        for (; next < decisions.size() && decisions[next].t <= t + 1e-9; ++next) {
            const Decision &d = decisions[next];
            if (!d.accepted || d.cur < 0)
                continue;
            uint32_t type = d.kind == "UP" ? 1 : d.kind == "DOWN" ? 2 : 3;
            m.suggest({d.hash, type, uint16_t(d.cur), uint16_t(d.dest)}, d.t);
        }
        if (k > 0)
            m.advance_to(t);
        Sample smp;
        smp.t = t;
        for (int c = 0; c < kCpus; ++c) {
            smp.spare[c] = m.cpus()[c].spare;
            smp.excess[c] = m.cpus()[c].excess;
        }
        for (const auto &f : m.flows()) smp.flow_cpu.push_back(f.active ? f.cpu : -1);
        r.samples.push_back(std::move(smp));
    }
    for (const auto &f : m.flows()) {
        r.flow_moves.push_back(f.moves);
        r.flow_end_cpu.push_back(f.cpu);
    }
    return r;
}

}  // namespace sim
