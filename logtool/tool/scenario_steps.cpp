// The recorded format's step objects, made from what the log tells, and the
// words a decision is compared by.
#include <cstdio>

#include "scenario_build.hpp"

namespace zlog::rec {

namespace {

std::string hex(uint32_t v) {
    char b[16];
    std::snprintf(b, sizeof b, "0x%x", v);
    return b;
}

// The simulator's fault for a request the log shows unanswered or answered
// wrongly; "" when the log shows no fault (or nothing at all).
const char *fault_of(const Answer &a, bool lookup) {
    switch (a.outcome) {
        case Outcome::NoAnswer:
            return "silent";
        case Outcome::Malformed:
            return "short";
        case Outcome::Error:
            return lookup ? "absent" : "nlmsg_error";
        default:
            return "";
    }
}

// Puts the answer on the step: its code, or its fault. False when the log
// does not say how the kernel answered.
bool set_answer(Json &step, const Answer &a, bool lookup) {
    if (a.outcome == Outcome::Code) {
        step["code"] = a.code;
        return true;
    }
    const char *f = fault_of(a, lookup);
    if (!*f)
        return false;
    step["fault"] = f;
    return true;
}

const char *sugg_name(Kind k) {
    return k == Kind::Up ? "UP" : k == Kind::Down ? "DOWN" : "BAL";
}

Json answer_of(const Decision &d) {
    Json a;
    if (d.kind == Kind::Seg) {
        a["on"] = "segmentation";
        a["hash"] = hex(d.hash);
    } else {
        a["on"] = "suggestion";
        a["sugg_type"] = sugg_name(d.kind);
        a["cur"] = d.cur;
        a["dest"] = d.dest;
        a["hash"] = hex(d.kind == Kind::Up ? 0 : d.hash);
    }
    a["line"] = d.line;
    if (!set_answer(a, d.answer, false))
        return nullptr;
    return a;
}

Json flows_of(uint16_t len, const std::vector<FlowEntry> &es) {
    Json entries = Json::array();
    for (const FlowEntry &e : es)
        entries.push_back({hex(e.hash), e.cpu, e.rx_pps, e.avg_pps, e.rx_bps});
    return {{"len", len}, {"entries", std::move(entries)}};
}

Json tables_of(const Cycle &c) {
    Json t = Json::object();
    if (c.caps_read) {
        Json caps = Json::array();
        for (const CapEntry &e : c.caps) caps.push_back({e.cpu, e.pps, e.avg, e.bps});
        t["caps"] = std::move(caps);
    }
    if (c.gold_read)
        t["flows"] = flows_of(c.gold_len, c.gold);
    if (c.ss_read)
        t["ss_flows"] = flows_of(c.ss_len, c.ss);
    return t;
}

}  // namespace

std::string decision_words(const Decision &d) {
    std::string w = kind_name(d.kind);
    char b[96];
    if (d.kind == Kind::Up)
        std::snprintf(b, sizeof b, " cpu %d -> %d", d.cur, d.dest);
    else if (d.kind == Kind::Seg)
        std::snprintf(b, sizeof b, " 0x%x", d.hash);
    else
        std::snprintf(b, sizeof b, " 0x%x cpu %d -> %d", d.hash, d.cur, d.dest);
    w += b;
    if (d.kind == Kind::Boost) {
        for (const BoostEntry &e : d.boosts) w.append(" ").append(std::to_string(e.pid));
        return w;
    }
    return w + (d.accepted ? ", accepted" : ", not accepted");
}

std::vector<std::string> judged_words(const std::vector<Decision> &ds, const RunExpect &r,
                                      size_t pos) {
    std::vector<std::string> out;
    for (const Decision &d : ds) {
        if (d.kind == Kind::Boost)
            continue;
        if (d.kind == Kind::Seg) {
            auto it = r.judged_from.find(d.hash);
            if (it == r.judged_from.end() || it->second > pos)
                continue;
        }
        out.push_back(decision_words(d));
    }
    return out;
}

const char *result_words(Msg m) {
    switch (m) {
        case Msg::caps_moved_up:
            return "result: a silver cpu's flows moved up";
        case Msg::caps_not_moved:
            return "result: nothing moved up";
        case Msg::gold_moved_down:
            return "result: a gold flow moved down";
        case Msg::gold_balanced:
            return "result: a gold flow balanced";
        case Msg::gold_not_moved:
            return "result: no gold flow moved";
        default:
            return nullptr;
    }
}

Json lookup_step(const Answer &a, int64_t id, uint64_t line) {
    Json s = {{"on", "lookup"}};
    if (a.outcome == Outcome::Code || id > 0)
        s["id"] = id;
    else if (!set_answer(s, a, true))
        s["fault"] = "wrong_second_attr";  // answered, but with no id the daemon could take
    s["line"] = line;
    return s;
}

Json sync_step(const Cycle &c, bool with_tables) {
    Json s = {{"on", "sync"}};
    if (!set_answer(s, c.sync, false))
        s["code"] = 0;
    s["line"] = c.line;
    if (!with_tables)
        return s;
    s["cycle"] = c.index;
    s["tables"] = tables_of(c);
    Json answers = Json::array();
    for (const Decision &d : c.decisions)
        if (d.kind != Kind::Boost)
            if (Json a = answer_of(d); !a.is_null())
                answers.push_back(std::move(a));
    s["answers"] = std::move(answers);
    return s;
}

Json query_step(const Event &e) {
    Json s = {{"on", "pid_bps_query"}};
    if (e.answer.outcome != Outcome::Code && e.answer.outcome != Outcome::Unknown) {
        if (!set_answer(s, e.answer, false))
            s["fault"] = "silent";
    } else {
        s["valid"] = e.valid ? 1 : 0;
        s["list_len"] = e.list_len;
        s["timestamp"] = e.timestamp;
        Json entries = Json::array();
        for (const RateEntry &r : e.rates) entries.push_back({r.pid, r.tx_bps, r.boost_left_ms});
        s["entries"] = std::move(entries);
    }
    s["line"] = e.line;
    return s;
}

std::string failed_table(const Event &e) {
    if (e.text.starts_with("munmap"))
        return "";  // the simulator has no such fault
    if (e.family == "cap")
        return "caps";
    if (e.family == "gflow")
        return "flows";
    if (e.family == "ssflow")
        return "ss_flows";
    return "";
}

bool failed_at_open(const Event &e) {
    return e.text.starts_with("open");
}

}  // namespace zlog::rec
