// What the log reader hands its sink, as text: one cycle, decision or
// event a line, every field a test may want to see.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "logmodel.hpp"

namespace zlog::test {

inline std::string answer(const Answer &a) {
    if (a.outcome == Outcome::Code)
        return "code " + std::to_string(a.code) + "@" + std::to_string(a.line);
    return std::string(outcome_name(a.outcome)) + (a.line ? "@" + std::to_string(a.line) : "");
}

inline std::string flows(const std::vector<FlowEntry> &v) {
    if (v.size() > 4)
        return " " + std::to_string(v.size()) + " entries";
    std::string s;
    for (const auto &f : v) {
        char b[96];
        std::snprintf(b, sizeof b, " %x/%d/%lu/%lu/%lu", f.hash, f.cpu, (unsigned long)f.rx_pps,
                      (unsigned long)f.avg_pps, (unsigned long)f.rx_bps);
        s += b;
    }
    return s;
}

// Everything the sink gets, one item a line.
struct Transcript : Sink {
    std::string out;
    void cycle(const Cycle &c) override {
        char b[160];
        std::snprintf(b, sizeof b, "cycle r%lu#%lu %lu-%lu t=%lu seq=%u%s sync=%s",
                      (unsigned long)c.run, (unsigned long)c.index, (unsigned long)c.line,
                      (unsigned long)c.last_line, (unsigned long)c.t_us, c.seq,
                      c.connect_sync ? " connect" : "", answer(c.sync).c_str());
        out += b;
        if (c.ss_read)
            out += " ss" + std::to_string(c.ss_len) + (c.ss_max ? "max" : "") + ":" + flows(c.ss);
        for (auto h : c.created) out += " +" + std::to_string(h);
        for (auto h : c.removed) out += " -" + std::to_string(h);
        for (const auto &n : c.history)
            out += " h" + std::to_string(n.hash) + "/" + std::to_string(n.bucket) + "/" +
                   std::to_string(n.rx_bps) + "/" + std::to_string(n.stable) +
                   std::to_string(n.seg_enabled) + "/" + std::to_string(n.len) + "/" +
                   std::to_string(n.avg);
        if (c.caps_read)
            out += " caps" + std::to_string(c.caps.size()) + (c.caps_bad_cpu ? "bad" : "");
        if (c.gold_read)
            out += " gold" + std::to_string(c.gold_len) + (c.gold_max ? "max" : "") + ":" +
                   flows(c.gold);
        out += " dec=" + std::to_string(c.decisions.size()) + (c.complete ? " complete\n" : "\n");
    }
    void decision(const Decision &d, uint64_t run) override {
        char b[200];
        std::snprintf(b, sizeof b, "%s r%lu@%lu t=%lu %x %d>%d %lu/%lu/%lu/%lu bps=%lu%s",
                      kind_name(d.kind), (unsigned long)run, (unsigned long)d.line,
                      (unsigned long)d.t_us, d.hash, d.cur, d.dest, (unsigned long)d.pps,
                      (unsigned long)d.avg_pps, (unsigned long)d.cap, (unsigned long)d.cap_w_head,
                      (unsigned long)d.rx_bps, d.stable ? " stable" : "");
        out += b;
        for (const auto &x : d.boosts)
            out += " pid" + std::to_string(x.pid) + "/" + std::to_string(x.tx_bps) + "/" +
                   std::to_string(x.boost_left_ms);
        out += " " + answer(d.answer) + (d.accepted ? " accepted\n" : "\n");
    }
    void event(const Event &e) override {
        out += std::string(event_name(e.kind)) + " r" + std::to_string(e.run) + "@" +
               std::to_string(e.line);
        if (e.last_line != e.line)
            out += "-" + std::to_string(e.last_line);
        if (!e.family.empty())
            out += " " + e.family;
        if (e.number)
            out += " n=" + std::to_string(e.number);
        if (e.answer.outcome != Outcome::Unknown || e.answer.line)
            out += " " + answer(e.answer);
        if (e.kind == EventKind::RunEnd)
            out += " t=" + std::to_string(e.t_us);
        if (e.kind == EventKind::Query)
            out += std::string(e.valid ? " valid" : " invalid") +
                   " len=" + std::to_string(e.list_len) +
                   " rates=" + std::to_string(e.rates.size()) +
                   (e.timestamp ? " ts=" + std::to_string(e.timestamp) : "");
        if (e.problem != Problem::None)
            out += std::string(" [") + problem_text(e.problem) + "]";
        std::string text = e.text.substr(0, 72);
        for (char &c : text) c = c < ' ' ? '?' : c;
        out += text.empty() ? "\n" : ": " + text + "\n";
    }
};

inline std::string assemble(const std::string &text) {
    Transcript t;
    read_log_text(text, t);
    return t.out;
}

}  // namespace zlog::test
