#include "scenario.hpp"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <sstream>

#include "json_place.hpp"
#include "recorded.hpp"

namespace sim {

using nlohmann::json;

double Series::at(double t) const {
    if (points.empty())
        return 0;
    if (t <= points.front().first)
        return points.front().second;
    for (size_t i = 1; i < points.size(); ++i) {
        auto [t1, v1] = points[i];
        if (t < t1) {
            auto [t0, v0] = points[i - 1];
            return t1 == t0 ? v1 : v0 + (v1 - v0) * (t - t0) / (t1 - t0);
        }
    }
    return points.back().second;
}

const char *fault_kind_name(FaultKind k) {
    switch (k) {
        case FaultKind::FamilyAbsent:
            return "family_absent";
        case FaultKind::Silent:
            return "silent";
        case FaultKind::ReplyCode:
            return "reply_code";
        case FaultKind::MalformedReply:
            return "malformed_reply";
        case FaultKind::PidRecord:
            return "pid_record";
        case FaultKind::TableUnmappable:
            return "table_unmappable";
        case FaultKind::TableAbsent:
            return "table_absent";
        case FaultKind::ThreadCreateFails:
            return "thread_create_fails";
        case FaultKind::Restart:
            return "restart";
    }
    return "?";
}

int Scenario::thread_fail_nth() const {
    for (const auto &f : faults)
        if (f.kind == FaultKind::ThreadCreateFails)
            return f.nth;
    return 0;
}

// Restarts are listed in time order and do not overlap (checked on loading).
FamilyIds Scenario::ids_at(double t) const {
    FamilyIds now = ids;
    for (const auto &f : faults) {
        if (f.kind != FaultKind::Restart || t < f.at_s)
            continue;
        bool down = t < f.at_s + f.down_s;
        if (f.new_ids.zeb)
            now.zeb = down ? 0 : f.new_ids.zeb;
        if (f.new_ids.core)
            now.core = down ? 0 : f.new_ids.core;
    }
    return now;
}

const FaultPlan *Scenario::restart_in(double from, double to) const {
    for (const auto &f : faults)
        if (f.kind == FaultKind::Restart && f.at_s > from && f.at_s <= to)
            return &f;
    return nullptr;
}

const FaultPlan *Scenario::last_restart(double t) const {
    const FaultPlan *last = nullptr;
    for (const auto &f : faults)
        if (f.kind == FaultKind::Restart && f.at_s <= t)
            last = &f;
    return last;
}

namespace {

constexpr double kRateMax = 1.8e19;  // fits an unsigned 64-bit table field

Series series(const Place &p, const json &v) {
    Series s;
    if (v.is_number()) {
        s.points.push_back({0, as_number(p, v, 0, kRateMax)});
        return s;
    }
    if (!v.is_array() || v.empty())
        p.fail("must be a number or a list of [time_s, value] points, not " + v.dump());
    for (size_t i = 0; i < v.size(); ++i) {
        Place pi = p.at(i);
        if (!v[i].is_array() || v[i].size() != 2)
            pi.fail("must be a [time_s, value] pair, not " + v[i].dump());
        double t = as_number(pi.at(size_t(0)), v[i][0], 0, 1e9);
        double x = as_number(pi.at(size_t(1)), v[i][1], 0, kRateMax);
        if (!s.points.empty() && t < s.points.back().first)
            pi.fail("times must not go backwards");
        s.points.push_back({t, x});
    }
    return s;
}

Series series_or(const Place &p, const json &obj, const char *key, double def) {
    if (!obj.contains(key))
        return Series{{{0, def}}};
    return series(p.at(key), obj[key]);
}

void window(const Place &p, const json &o, double &from, double &to) {
    from = number(p, o, "start_s", 0, 0, 1e9);
    to = o.contains("end_s") && !o["end_s"].is_null() ? as_number(p.at("end_s"), o["end_s"], 0, 1e9)
                                                      : kForever;
    if (to <= from)
        p.at("end_s").fail("must come after start_s");
}

void parse_cpus(const Place &p, const json &v, Scenario &s) {
    for (int c = 0; c < kCpus; ++c) s.cpus[c].max_pps = c < 4 ? 100000 : 200000;
    if (!v.is_array())
        p.fail("must be a list of CPU objects");
    for (size_t i = 0; i < v.size(); ++i) {
        Place pi = p.at(i);
        check_keys(pi, v[i], {"cpu", "max_pps", "load_pps", "load_bps"});
        int c = int(as_int(pi.at("cpu"), required(pi, v[i], "cpu"), 0, kCpus - 1));
        CpuPlan &cs = s.cpus[c];
        cs.max_pps = number(pi, v[i], "max_pps", cs.max_pps, 1, kRateMax);
        cs.load_pps = series_or(pi, v[i], "load_pps", 0);
        cs.load_bps = series_or(pi, v[i], "load_bps", 0);
    }
}

void parse_cap_order(const Place &p, const json &v, Scenario &s) {
    if (!v.is_array() || v.size() != kCpus)
        p.fail("must list the 8 CPU numbers in table order");
    for (size_t i = 0; i < v.size(); ++i) s.cap_order[i] = int(as_int(p.at(i), v[i], 0, 65535));
}

FlowPlan parse_flow(const Place &p, const json &v) {
    check_keys(p, v, {"hash", "name", "cpu", "pps", "bps", "start_s", "end_s", "slow_start"});
    FlowPlan f;
    f.hash = hash_value(p.at("hash"), required(p, v, "hash"));
    f.name = text(p, v, "name");
    f.cpu = int(as_int(p.at("cpu"), required(p, v, "cpu"), 0, kCpus - 1));
    f.pps = series(p.at("pps"), required(p, v, "pps"));
    f.bps = series_or(p, v, "bps", 0);
    window(p, v, f.start_s, f.end_s);
    if (v.contains("slow_start")) {
        if (!v["slow_start"].is_boolean())
            p.at("slow_start").fail("must be true or false");
        f.slow_start = v["slow_start"].get<bool>();
    }
    return f;
}

ProcessPlan parse_process(const Place &p, const json &v) {
    check_keys(p, v, {"pid", "name", "tx_bps", "start_s", "end_s", "boost_ms"});
    ProcessPlan pr;
    pr.pid = uint32_t(as_int(p.at("pid"), required(p, v, "pid"), 1, 4294967295.0));
    pr.name = text(p, v, "name");
    pr.tx_bps = series(p.at("tx_bps"), required(p, v, "tx_bps"));
    window(p, v, pr.start_s, pr.end_s);
    pr.boost_ms = number(p, v, "boost_ms", 0, 0, 4294967295.0);
    return pr;
}

std::vector<Kind> parse_on_one(const Place &p, const std::string &s) {
    if (s == "lookup")
        return {Kind::Lookup};
    if (s == "sync")
        return {Kind::Sync};
    if (s == "suggestion")
        return {Kind::Suggestion};
    if (s == "segmentation")
        return {Kind::Segmentation};
    if (s == "pid_bps_query")
        return {Kind::PidBpsQuery};
    if (s == "boost")
        return {Kind::Boost};
    if (s == "steering")
        return {Kind::Sync, Kind::Suggestion, Kind::Segmentation};
    if (s == "core")
        return {Kind::PidBpsQuery, Kind::Boost};
    p.fail("\"" + s +
           "\" is not a request (expected lookup, sync, suggestion, segmentation, pid_bps_query, "
           "boost, steering or core)");
}

std::vector<Kind> parse_on(const Place &p, const json &v) {
    if (v.is_string())
        return parse_on_one(p, v.get<std::string>());
    if (!v.is_array() || v.empty())
        p.fail("must be a request name or a list of them");
    std::vector<Kind> out;
    for (size_t i = 0; i < v.size(); ++i) {
        if (!v[i].is_string())
            p.at(i).fail("must be a request name");
        auto k = parse_on_one(p.at(i), v[i].get<std::string>());
        out.insert(out.end(), k.begin(), k.end());
    }
    return out;
}

void require_on_within(const Place &p, const FaultPlan &f, std::initializer_list<Kind> allowed) {
    for (Kind k : f.on)
        if (std::find(allowed.begin(), allowed.end(), k) == allowed.end())
            p.fail(std::string("this fault cannot apply to ") + kind_name(k) + " requests");
}

std::string family_name(const Place &p, const json &v, const char *key) {
    std::string f = text(p, v, key);
    if (f != "DULOX_ZEB" && f != "DULOX_CORE")
        p.at(key).fail("must be \"DULOX_ZEB\" or \"DULOX_CORE\"");
    return f;
}

std::string table_name(const Place &p, const json &v) {
    std::string t = text(p, v, "table");
    if (t != "caps" && t != "flows" && t != "ss_flows")
        p.at("table").fail("must be \"caps\", \"flows\" or \"ss_flows\"");
    return t;
}

MalformedForm parse_form(const Place &p, const std::string &s) {
    if (s == "short")
        return MalformedForm::Short;
    if (s == "len_beyond")
        return MalformedForm::LenBeyond;
    if (s == "nlmsg_error")
        return MalformedForm::NlmsgError;
    if (s == "wrong_second_attr")
        return MalformedForm::WrongSecondAttr;
    if (s == "oversize")
        return MalformedForm::Oversize;
    p.fail("\"" + s +
           "\" is not a form (expected short, len_beyond, nlmsg_error, wrong_second_attr or "
           "oversize)");
}

void parse_fault_body(const Place &p, const json &v, FaultPlan &f) {
    switch (f.kind) {
        case FaultKind::FamilyAbsent:
            check_keys(p, v, {"kind", "from_s", "to_s", "skip", "times", "family"});
            required(p, v, "family");
            f.family = family_name(p, v, "family");
            f.on = {Kind::Lookup};
            break;
        case FaultKind::Silent:
            check_keys(p, v, {"kind", "from_s", "to_s", "skip", "times", "on"});
            f.on = v.contains("on") ? parse_on(p.at("on"), v["on"]) : parse_on_one(p, "steering");
            require_on_within(
                p.at("on"), f,
                {Kind::Sync, Kind::Suggestion, Kind::Segmentation, Kind::PidBpsQuery, Kind::Boost});
            break;
        case FaultKind::ReplyCode:
            check_keys(p, v,
                       {"kind", "from_s", "to_s", "skip", "times", "on", "code", "sugg_type"});
            f.on = parse_on(p.at("on"), required(p, v, "on"));
            require_on_within(p.at("on"), f, {Kind::Sync, Kind::Suggestion, Kind::Segmentation});
            f.code =
                int32_t(as_int(p.at("code"), required(p, v, "code"), -2147483648.0, 2147483647.0));
            if (v.contains("sugg_type"))
                f.sugg_type = sugg_type(p.at("sugg_type"), v["sugg_type"]);
            break;
        case FaultKind::MalformedReply:
            check_keys(
                p, v, {"kind", "from_s", "to_s", "skip", "times", "on", "form", "error", "family"});
            f.on = parse_on(p.at("on"), required(p, v, "on"));
            require_on_within(p.at("on"), f,
                              {Kind::Lookup, Kind::Sync, Kind::Suggestion, Kind::Segmentation,
                               Kind::PidBpsQuery});
            required(p, v, "form");
            f.form = parse_form(p.at("form"), text(p, v, "form"));
            f.code = int32_t(integer(p, v, "error", -5, -2147483648.0, 2147483647.0));
            if (v.contains("family"))
                f.family = family_name(p, v, "family");
            if (f.form == MalformedForm::WrongSecondAttr &&
                (f.on.size() != 1 || f.on[0] != Kind::Lookup))
                p.at("form").fail(
                    "wrong_second_attr applies to family lookups only (\"on\": \"lookup\")");
            break;
        case FaultKind::PidRecord:
            check_keys(p, v, {"kind", "from_s", "to_s", "skip", "times", "valid", "list_len"});
            f.on = {Kind::PidBpsQuery};
            if (v.contains("valid"))
                f.valid = int(as_int(p.at("valid"), v["valid"], 0, 255));
            if (v.contains("list_len"))
                f.list_len = int(as_int(p.at("list_len"), v["list_len"], 0, 65535));
            if (!f.valid && !f.list_len)
                p.fail("needs \"valid\" or \"list_len\"");
            break;
        case FaultKind::TableUnmappable:
            check_keys(p, v, {"kind", "table"});
            required(p, v, "table");
            f.table = table_name(p, v);
            break;
        case FaultKind::TableAbsent:
            check_keys(p, v, {"kind", "table", "to_s"});
            required(p, v, "table");
            f.table = table_name(p, v);
            break;
        case FaultKind::ThreadCreateFails:
            check_keys(p, v, {"kind", "nth"});
            f.nth = int(as_int(p.at("nth"), required(p, v, "nth"), 1, 1000));
            break;
        case FaultKind::Restart: {
            check_keys(p, v, {"kind", "at_s", "down_s", "family_ids"});
            f.at_s = as_number(p.at("at_s"), required(p, v, "at_s"), 0, 1e9);
            f.down_s = number(p, v, "down_s", 0, 0, 1e6);
            const json &ids = required(p, v, "family_ids");
            Place pi = p.at("family_ids");
            check_keys(pi, ids, {"DULOX_ZEB", "DULOX_CORE"});
            f.new_ids.zeb = uint16_t(integer(pi, ids, "DULOX_ZEB", 0, 17, 65535));
            f.new_ids.core = uint16_t(integer(pi, ids, "DULOX_CORE", 0, 17, 65535));
            if (!f.new_ids.zeb && !f.new_ids.core)
                pi.fail("must name DULOX_ZEB, DULOX_CORE or both");
            break;
        }
    }
}

FaultPlan parse_fault(const Place &p, const json &v) {
    if (!v.is_object())
        p.fail("must be an object");
    static const std::pair<const char *, FaultKind> kinds[] = {
        {"family_absent", FaultKind::FamilyAbsent},
        {"silent", FaultKind::Silent},
        {"reply_code", FaultKind::ReplyCode},
        {"malformed_reply", FaultKind::MalformedReply},
        {"pid_record", FaultKind::PidRecord},
        {"table_unmappable", FaultKind::TableUnmappable},
        {"table_absent", FaultKind::TableAbsent},
        {"thread_create_fails", FaultKind::ThreadCreateFails},
        {"restart", FaultKind::Restart}};
    std::string k = text(p, v, "kind");
    FaultPlan f;
    f.where = p.path().substr(1);
    auto it =
        std::find_if(std::begin(kinds), std::end(kinds), [&](auto &e) { return k == e.first; });
    if (it == std::end(kinds))
        p.at("kind").fail(
            "\"" + k +
            "\" is not a fault kind (expected family_absent, silent, reply_code, malformed_reply, "
            "pid_record, table_unmappable, table_absent, thread_create_fails or restart)");
    f.kind = it->second;
    f.from_s = number(p, v, "from_s", 0, 0, 1e9);
    f.to_s = number(p, v, "to_s", kForever, 0, 1e9);
    f.skip = uint64_t(integer(p, v, "skip", 0, 0, 1e15));
    if (v.contains("times"))
        f.times = uint64_t(as_int(p.at("times"), v["times"], 0, 1e15));
    parse_fault_body(p, v, f);
    if (f.to_s <= f.from_s)
        p.at("to_s").fail("must come after from_s");
    return f;
}

template <class T, class F>
std::vector<T> list(const Place &p, const json &doc, const char *key, F parse_one) {
    std::vector<T> out;
    if (!doc.contains(key))
        return out;
    const json &v = doc[key];
    Place pk = p.at(key);
    if (!v.is_array())
        pk.fail("must be a list");
    for (size_t i = 0; i < v.size(); ++i) out.push_back(parse_one(pk.at(i), v[i]));
    return out;
}

void parse_family_ids(const Place &p, const json &v, Scenario &s) {
    check_keys(p, v, {"DULOX_ZEB", "DULOX_CORE"});
    s.ids.zeb = uint16_t(integer(p, v, "DULOX_ZEB", s.ids.zeb, 17, 65535));
    s.ids.core = uint16_t(integer(p, v, "DULOX_CORE", s.ids.core, 17, 65535));
    if (s.ids.zeb == s.ids.core)
        p.fail("the two families need distinct ids");
}

// Each restart leaves two distinct ids and comes after the one before is over.
void check_restarts(const Place &p, const Scenario &s) {
    FamilyIds now = s.ids;
    double free_from = 0;
    for (size_t i = 0; i < s.faults.size(); ++i) {
        const FaultPlan &f = s.faults[i];
        if (f.kind != FaultKind::Restart)
            continue;
        Place pf = p.at(i);
        if (f.at_s < free_from)
            pf.at("at_s").fail(
                "restarts must be listed in time order, each after the one before "
                "is back");
        free_from = f.at_s + f.down_s;
        if (f.new_ids.zeb)
            now.zeb = f.new_ids.zeb;
        if (f.new_ids.core)
            now.core = f.new_ids.core;
        if (now.zeb == now.core)
            pf.at("family_ids").fail("the two families need distinct ids");
    }
}

std::string line_col(const std::string &text, size_t byte) {
    size_t line = 1, col = 1;
    for (size_t i = 0; i < byte && i < text.size(); ++i) {
        if (text[i] == '\n') {
            ++line;
            col = 1;
        } else {
            ++col;
        }
    }
    return std::to_string(line) + ":" + std::to_string(col);
}

}  // namespace

Scenario parse_scenario(const std::string &text_in, const std::string &file) {
    json doc;
    try {
        doc = json::parse(text_in);
    } catch (const json::parse_error &e) {
        std::string what = e.what();
        auto col = what.find(", column ");
        auto pos = col == std::string::npos ? std::string::npos : what.find(": ", col);
        throw ScenarioError(
            file + ":" + line_col(text_in, e.byte > 0 ? e.byte - 1 : 0) +
            ": invalid JSON: " + (pos == std::string::npos ? what : what.substr(pos + 2)));
    }
    Place root{file, ""};
    check_keys(root, doc,
               {"name", "description", "duration_s", "tick_ms", "avg_samples", "family_ids", "cpus",
                "cap_table_order", "flows", "processes", "faults", "recorded"});
    Scenario s;
    s.file = file;
    s.name = text(root, doc, "name", "unnamed");
    s.description = text(root, doc, "description");
    s.duration_s = number(root, doc, "duration_s", 20, 0.001, 1e6);
    s.tick_ms = number(root, doc, "tick_ms", 100, 0, 60000);
    s.avg_samples = int(integer(root, doc, "avg_samples", 10, 1, 1000));
    if (doc.contains("family_ids"))
        parse_family_ids(root.at("family_ids"), doc["family_ids"], s);
    parse_cpus(root.at("cpus"), doc.contains("cpus") ? doc["cpus"] : json::array(), s);
    if (doc.contains("cap_table_order"))
        parse_cap_order(root.at("cap_table_order"), doc["cap_table_order"], s);
    s.flows = list<FlowPlan>(root, doc, "flows", parse_flow);
    s.processes = list<ProcessPlan>(root, doc, "processes", parse_process);
    s.faults = list<FaultPlan>(root, doc, "faults", parse_fault);
    check_restarts(root.at("faults"), s);
    if (doc.contains("recorded")) {
        s.recorded =
            std::make_shared<const Recorded>(parse_recorded(root.at("recorded"), doc["recorded"]));
        s.tick_ms = 0;  // replies come as fast as the daemon asks
        s.faults.clear();
    }
    return s;
}

Scenario load_scenario(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw ScenarioError(path + ": cannot be read");
    std::stringstream ss;
    ss << in.rdbuf();
    return parse_scenario(ss.str(), path);
}

}  // namespace sim
