// The words of explain's stream: one line per decision, in the form of the
// simulator's decision stream, and one per step of the connection's story.
#include <cinttypes>
#include <cstdio>
#include <sstream>

#include "explain_impl.hpp"

namespace zlog::explain {

namespace {

// The stamp of a line is trusted only when its prefix was read.
bool stamped(const LogLine &l) {
    switch (l.problem) {
        case Problem::None:
        case Problem::CrLf:
        case Problem::UnknownMessage:
        case Problem::WrongLevel:
            return true;
        default:
            return false;
    }
}

std::string hex(uint32_t v) {
    char b[16];
    std::snprintf(b, sizeof b, "0x%x", v);
    return b;
}

std::string cpu(int c) {
    return "cpu" + std::to_string(c);
}

std::string up_text(const Decision &d, const DecisionContext &c) {
    std::ostringstream o;
    o << "UP     all flows of " << cpu(d.cur) << " -> gold " << cpu(d.dest);
    if (c.refused_dest >= 0)
        o << " (" << cpu(c.refused_dest) << " refused)";
    if (c.cycle && c.cycle->caps_seen)
        o << " | " << cpu(d.cur) << " spare " << d.pps << " pps < 8000 (loaded)";
    else
        o << " | " << cpu(d.cur) << " spare not logged (below 8000 to be chosen)";
    return o.str();
}

std::string down_text(const Decision &d, const DecisionContext &c) {
    std::ostringstream o;
    o << "DOWN   flow " << hex(d.hash) << " " << cpu(d.cur) << " -> silver " << cpu(d.dest);
    if (c.refused_dest >= 0)
        o << " (" << cpu(c.refused_dest) << " refused)";
    o << " | flow avg " << d.avg_pps << " pps < " << cpu(d.dest) << " avg spare " << d.cap
      << " - 20000 headroom";
    return o.str();
}

std::string bal_text(const Decision &d, const DecisionContext &c) {
    std::ostringstream o;
    o << "BAL    flow " << hex(d.hash) << " " << cpu(d.cur) << " -> gold " << cpu(d.dest);
    if (c.refused_dest >= 0)
        o << " (" << cpu(c.refused_dest) << " refused)";
    o << " | " << cpu(d.dest) << " avg spare " << d.cap << " - 20000 - flow avg " << d.avg_pps
      << " >= " << cpu(d.cur) << " avg spare ";
    if (c.cycle && c.cycle->caps_seen && d.cur >= 0 && d.cur < 8)
        o << c.cycle->avg[d.cur];
    else
        o << "not logged";
    return o.str();
}

std::string seg_text(const Decision &d, const DecisionContext &c) {
    std::ostringstream o;
    o << "SEG    flow " << hex(d.hash) << " on " << cpu(d.cur) << " segmentation off | rx "
      << mbps(d.rx_bps);
    if (d.rx_bps >= 300000000)
        o << " (fast: at or above 300 Mbps)";
    else if (!d.stable)
        o << " (stable rate, judged in an earlier cycle)";
    else if (c.prev_avg_known)
        o << " (stable rate: within " << mbps(c.prev_avg >> 2) << " of the previous average "
          << mbps(c.prev_avg) << ")";
    else
        o << " (stable rate)";
    return o.str();
}

std::string boost_text(const Decision &d) {
    std::ostringstream o;
    o << "BOOST ";
    bool first = true;
    for (const BoostEntry &b : d.boosts) {
        o << (first ? " " : "; ") << "pid " << b.pid << " tx " << mbps(b.tx_bps)
          << " (> 500 Mbps), boost left ";
        if (b.boost_left_ms >= 0)
            o << b.boost_left_ms << " ms";
        else
            o << "not logged (at most 1000 ms)";
        first = false;
    }
    return o.str();
}

std::string code_text(const Answer &a) {
    switch (a.outcome) {
        case Outcome::Code:
            return a.code == 0 ? "accepted" : "refused (code " + std::to_string(a.code) + ")";
        case Outcome::NoAnswer:
            return "no answer (time-out or closed socket)";
        case Outcome::Malformed:
            return "malformed answer";
        case Outcome::Error:
            return "NLMSG_ERROR";
        case Outcome::NotSent:
            return "not sent";
        default:
            return "answer not logged";
    }
}

}  // namespace

Clock::Clock() : ring_(kSlots, {0, 0}) {}

void Clock::note(const LogLine &l) {
    ring_[l.no % kSlots] = {l.no, stamped(l) ? l.tod_us % kDayUs : kNoStamp};
}

bool Clock::tod_of(uint64_t line, uint64_t &tod) const {
    const auto &slot = ring_[line % kSlots];
    if (line == 0 || slot.first != line)
        return false;
    tod = slot.second;
    return true;
}

bool Clock::unstamped(uint64_t line) const {
    const auto &slot = ring_[line % kSlots];
    return line != 0 && slot.first == line && slot.second == kNoStamp;
}

Stamp Clock::at(uint64_t run, uint64_t line, uint64_t t_us) {
    Stamp s;
    s.t_us = t_us;
    if (unstamped(line))
        return s;  // a line without a stamp of its own shows none
    if (tod_of(line, s.tod_us)) {
        s.tod_known = true;
        if (run < (1u << 16)) {
            if (offset_.size() <= run)
                offset_.resize(run + 1, -1);
            offset_[run] = int64_t((s.tod_us + kDayUs - t_us % kDayUs) % kDayUs);
        }
    } else if (run < offset_.size() && offset_[run] >= 0) {
        s.tod_us = (uint64_t(offset_[run]) + t_us) % kDayUs;
        s.tod_known = true;
    }
    return s;
}

Stamp Clock::after(const Stamp &from, uint64_t line) const {
    Stamp s = from;
    uint64_t tod;
    if (unstamped(line) || !tod_of(line, tod) || !from.tod_known)
        return s;
    s.t_us = from.t_us + (tod + kDayUs - from.tod_us) % kDayUs;
    s.tod_us = tod;
    return s;
}

std::string clock_text(uint64_t tod_us) {
    uint64_t ms = (tod_us % kDayUs) / 1000;
    char b[24];
    std::snprintf(b, sizeof b, "%02u:%02u:%02u.%03u", unsigned(ms / 3600000),
                  unsigned(ms / 60000 % 60), unsigned(ms / 1000 % 60), unsigned(ms % 1000));
    return b;
}

std::string prefix_text(const Stamp &s, uint64_t line) {
    char b[80];
    std::snprintf(b, sizeof b, "[%8.3fs] %s L%" PRIu64 " ", double(s.t_us) / 1e6,
                  s.tod_known ? clock_text(s.tod_us).c_str() : "??:??:??.???", line);
    return b;
}

std::string mbps(uint64_t bps) {
    char b[32];
    std::snprintf(b, sizeof b, "%.1f Mbps", double(bps) / 1e6);
    return b;
}

std::string answer_text(const Decision &d) {
    if (d.kind == Kind::Boost) {
        if (d.accepted || (d.answer.outcome == Outcome::Code && d.answer.code == 0))
            return "sent, 10000 ms each";
        return d.answer.outcome == Outcome::Unknown ? "sent? (not logged)" : code_text(d.answer);
    }
    if (d.kind != Kind::Seg && d.accepted)
        return "accepted";
    if (d.kind != Kind::Seg && d.answer.accepted())  // a cut log: code 0 is the acceptance
        return "accepted (no success line)";
    if (d.kind != Kind::Seg && d.answer.outcome == Outcome::Unknown)
        return "not accepted (answer not logged)";
    return code_text(d.answer);
}

std::string decision_text(const Decision &d, const DecisionContext &c) {
    std::string s;
    switch (d.kind) {
        case Kind::Up:
            s = up_text(d, c);
            break;
        case Kind::Down:
            s = down_text(d, c);
            break;
        case Kind::Bal:
            s = bal_text(d, c);
            break;
        case Kind::Seg:
            s = seg_text(d, c);
            break;
        case Kind::Boost:
            s = boost_text(d);
            break;
    }
    return s + "  => " + answer_text(d);
}

}  // namespace zlog::explain
