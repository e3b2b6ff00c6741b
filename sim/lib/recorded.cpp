#include "recorded.hpp"

#include <cmath>

namespace sim {

const char *step_fault_name(StepFault f) {
    switch (f) {
        case StepFault::None:
            return "none";
        case StepFault::Absent:
            return "absent";
        case StepFault::Silent:
            return "silent";
        case StepFault::Short:
            return "short";
        case StepFault::NlmsgError:
            return "nlmsg_error";
        case StepFault::WrongSecondAttr:
            return "wrong_second_attr";
    }
    return "?";
}

namespace {

constexpr double kI32Min = -2147483648.0, kI32Max = 2147483647.0;

// Table fields are unsigned 64-bit: read them exactly, not through a double.
uint64_t u64(const Place &p, const Json &v) {
    if (v.is_number_unsigned())
        return v.get<uint64_t>();
    if (v.is_number_float()) {
        double d = v.get<double>();
        if (d >= 0 && d < 18446744073709551616.0 && std::floor(d) == d)
            return uint64_t(d);
    }
    p.fail("must be a whole number from 0 to 18446744073709551615, not " + v.dump());
}

const Json &tuple(const Place &p, const Json &v, size_t n, const char *form) {
    if (!v.is_array() || v.size() != n)
        p.fail(std::string("must be ") + form + ", not " + v.dump());
    return v;
}

std::vector<CapEntry> parse_caps(const Place &p, const Json &v) {
    if (!v.is_array() || v.size() != kCapEntries)
        p.fail("must list the 8 entries in table order");
    std::vector<CapEntry> caps;
    for (size_t i = 0; i < v.size(); ++i) {
        Place pi = p.at(i);
        const Json &e = tuple(pi, v[i], 4, "[cpu, pps, avg, bps]");
        caps.push_back({u64(pi.at(size_t(1)), e[1]), u64(pi.at(size_t(2)), e[2]),
                        u64(pi.at(size_t(3)), e[3]),
                        uint16_t(as_int(pi.at(size_t(0)), e[0], 0, 65535))});
    }
    return caps;
}

void parse_flows(const Place &p, const Json &v, std::vector<FlowEntry> &out, uint16_t &len) {
    check_keys(p, v, {"len", "entries"});
    const Json &entries = required(p, v, "entries");
    Place pe = p.at("entries");
    if (!entries.is_array() || entries.size() > kFlowFit)
        pe.fail("must be a list of at most " + std::to_string(kFlowFit) + " entries");
    out.reserve(entries.size());
    for (size_t i = 0; i < entries.size(); ++i) {
        Place pi = pe.at(i);
        const Json &e = tuple(pi, entries[i], 5, "[hash, cpu, rx_pps, avg_pps, rx_bps]");
        FlowEntry f{u64(pi.at(size_t(2)), e[2]), u64(pi.at(size_t(3)), e[3]),
                    u64(pi.at(size_t(4)), e[4]), hash_value(pi.at(size_t(0)), e[0]),
                    uint16_t(as_int(pi.at(size_t(1)), e[1], 0, 65535))};
        // The log shows an invalid entry by its zero hash: the whole entry is zero.
        out.push_back(f.hash ? f : FlowEntry{});
    }
    len = uint16_t(integer(p, v, "len", int64_t(entries.size()), 0, 65535));
}

RecordedTables parse_tables(const Place &p, const Json &v) {
    check_keys(p, v, {"caps", "flows", "ss_flows"});
    RecordedTables t;
    if (v.contains("caps")) {
        t.caps = parse_caps(p.at("caps"), v["caps"]);
    } else {
        for (uint16_t c = 0; c < kCapEntries; ++c) t.caps.push_back({0, 0, 0, c});
    }
    if (v.contains("flows"))
        parse_flows(p.at("flows"), v["flows"], t.gold, t.gold_len);
    if (v.contains("ss_flows"))
        parse_flows(p.at("ss_flows"), v["ss_flows"], t.ss, t.ss_len);
    return t;
}

uint8_t table_bits(const Place &p, const Json &v) {
    if (!v.is_array())
        p.fail("must be a list of table names");
    uint8_t bits = 0;
    for (size_t i = 0; i < v.size(); ++i) {
        size_t k = 0;
        while (k < 3 && !(v[i].is_string() && v[i].get<std::string>() == kTableNames[k])) ++k;
        if (k == 3)
            p.at(i).fail("must be \"caps\", \"flows\" or \"ss_flows\", not " + v[i].dump());
        bits |= uint8_t(1 << k);
    }
    return bits;
}

StepFault fault_of(const Place &p, const Json &v, std::initializer_list<StepFault> allowed) {
    std::string name = text(p, v, "fault");
    std::string names;
    for (StepFault f : allowed) {
        if (name == step_fault_name(f))
            return f;
        names += (names.empty() ? "" : ", ") + std::string(step_fault_name(f));
    }
    p.at("fault").fail("\"" + name + "\" is not a fault here (expected " + names + ")");
}

// Either "fault" or the proper answer's key; the fault's error when it has one.
StepFault outcome(const Place &p, const Json &v, const char *proper,
                  std::initializer_list<StepFault> allowed, int32_t &error) {
    bool has_fault = v.contains("fault");
    if (has_fault == v.contains(proper))
        p.fail(std::string(has_fault ? "takes" : "needs") + " either \"" + proper +
               "\" or \"fault\"" + (has_fault ? ", not both" : ""));
    StepFault f = has_fault ? fault_of(p, v, allowed) : StepFault::None;
    if (v.contains("error") && f != StepFault::NlmsgError)
        p.at("error").fail("goes only with the nlmsg_error fault");
    error = int32_t(integer(p, v, "error", -22, kI32Min, kI32Max));
    return f;
}

const std::initializer_list<StepFault> kReplyFaults = {StepFault::Silent, StepFault::Short,
                                                       StepFault::NlmsgError};

RecordedAnswer parse_answer(const Place &p, const Json &v) {
    RecordedAnswer a;
    std::string on = text(p, v, "on");
    if (on == "suggestion") {
        check_keys(p, v,
                   {"on", "line", "sugg_type", "cur", "dest", "hash", "code", "fault", "error"});
        a.sugg.type = sugg_type(p.at("sugg_type"), required(p, v, "sugg_type"));
        a.sugg.cur_cpu = uint16_t(as_int(p.at("cur"), required(p, v, "cur"), 0, 65535));
        a.sugg.dest_cpu = uint16_t(as_int(p.at("dest"), required(p, v, "dest"), 0, 65535));
    } else if (on == "segmentation") {
        check_keys(p, v, {"on", "line", "hash", "code", "fault", "error"});
        a.on = Kind::Segmentation;
    } else {
        p.at("on").fail("must be \"suggestion\" or \"segmentation\"");
    }
    a.sugg.hash = hash_value(p.at("hash"), required(p, v, "hash"));
    a.fault = outcome(p, v, "code", kReplyFaults, a.error);
    a.code = int32_t(integer(p, v, "code", 0, kI32Min, kI32Max));
    a.line = long(integer(p, v, "line", 0, 0, 1e15));
    return a;
}

void parse_sync(const Place &p, const Json &v, RecordedStep &s) {
    check_keys(p, v,
               {"on", "line", "code", "fault", "error", "cycle", "tables", "answers", "absent",
                "unmappable"});
    s.fault = outcome(p, v, "code", kReplyFaults, s.error);
    s.code = int32_t(integer(p, v, "code", 0, kI32Min, kI32Max));
    if (s.fault != StepFault::None && (v.contains("tables") || v.contains("answers")))
        p.at("fault").fail("a sync answered with a fault reads no tables and asks nothing");
    if (v.contains("cycle"))
        s.cycle = long(as_int(p.at("cycle"), v["cycle"], 0, 1e15));
    if (v.contains("tables"))
        s.tables = parse_tables(p.at("tables"), v["tables"]);
    if (v.contains("answers")) {
        Place pa = p.at("answers");
        if (!v["answers"].is_array())
            pa.fail("must be a list");
        for (size_t i = 0; i < v["answers"].size(); ++i)
            s.answers.push_back(parse_answer(pa.at(i), v["answers"][i]));
    }
    if (v.contains("absent"))
        s.absent = table_bits(p.at("absent"), v["absent"]);
    if (v.contains("unmappable"))
        s.unmappable = table_bits(p.at("unmappable"), v["unmappable"]);
}

void parse_pid_bps(const Place &p, const Json &v, RecordedStep &s) {
    check_keys(p, v, {"on", "line", "valid", "list_len", "timestamp", "entries", "fault", "error"});
    s.fault = outcome(p, v, "valid", kReplyFaults, s.error);
    if (s.fault != StepFault::None)
        return;
    s.pid.valid = uint8_t(as_int(p.at("valid"), v["valid"], 0, 255));
    s.pid.timestamp = v.contains("timestamp") ? u64(p.at("timestamp"), v["timestamp"]) : 0;
    const Json &entries = v.contains("entries") ? v["entries"] : Json::array();
    Place pe = p.at("entries");
    if (!entries.is_array() || entries.size() > nl::kPidListMax)
        pe.fail("must be a list of at most 32 [pid, tx_bps, boost_remaining_ms] entries");
    for (size_t i = 0; i < entries.size(); ++i) {
        Place pi = pe.at(i);
        const Json &e = tuple(pi, entries[i], 3, "[pid, tx_bps, boost_remaining_ms]");
        s.pid.entries.push_back({u64(pi.at(size_t(1)), e[1]),
                                 uint32_t(as_int(pi.at(size_t(0)), e[0], 0, 4294967295.0)),
                                 uint32_t(as_int(pi.at(size_t(2)), e[2], 0, 4294967295.0))});
    }
    s.pid.list_len = uint16_t(integer(p, v, "list_len", int64_t(entries.size()), 0, 65535));
}

RecordedStep parse_step(const Place &p, const Json &v, bool steering) {
    if (!v.is_object())
        p.fail("must be an object");
    RecordedStep s;
    std::string on = text(p, v, "on");
    if (on == "lookup") {
        check_keys(p, v, {"on", "line", "id", "fault", "error"});
        s.on = Kind::Lookup;
        s.fault = outcome(p, v, "id",
                          {StepFault::Absent, StepFault::Silent, StepFault::Short,
                           StepFault::NlmsgError, StepFault::WrongSecondAttr},
                          s.error);
        s.id = uint16_t(integer(p, v, "id", 0, 17, 65535));
    } else if (steering && on == "sync") {
        s.on = Kind::Sync;
        parse_sync(p, v, s);
    } else if (!steering && on == "pid_bps_query") {
        s.on = Kind::PidBpsQuery;
        parse_pid_bps(p, v, s);
    } else {
        p.at("on").fail(steering ? "a steering step is a \"lookup\" or a \"sync\""
                                 : "a core step is a \"lookup\" or a \"pid_bps_query\"");
    }
    s.line = long(integer(p, v, "line", 0, 0, 1e15));
    return s;
}

std::vector<RecordedStep> parse_steps(const Place &p, const Json &run, const char *key,
                                      bool steering) {
    std::vector<RecordedStep> out;
    if (!run.contains(key))
        return out;
    Place pk = p.at(key);
    const Json &v = run[key];
    if (!v.is_array())
        pk.fail("must be a list of steps");
    out.reserve(v.size());
    for (size_t i = 0; i < v.size(); ++i) {
        out.push_back(parse_step(pk.at(i), v[i], steering));
        out.back().index = i;
    }
    return out;
}

RecordedRun parse_run(const Place &p, const Json &v) {
    check_keys(p, v, {"first_line", "last_line", "verbose", "steering", "core"});
    RecordedRun r;
    r.first_line = long(integer(p, v, "first_line", 0, 0, 1e15));
    r.last_line = long(integer(p, v, "last_line", r.first_line, double(r.first_line), 1e15));
    if (v.contains("verbose")) {
        if (!v["verbose"].is_boolean())
            p.at("verbose").fail("must be true or false");
        r.verbose = v["verbose"].get<bool>();
    }
    r.steering = parse_steps(p, v, "steering", true);
    r.core = parse_steps(p, v, "core", false);
    return r;
}

}  // namespace

Recorded parse_recorded(const Place &p, const Json &v) {
    check_keys(p, v, {"log", "runs"});
    Recorded rec;
    rec.log = text(p, v, "log");
    const Json &runs = required(p, v, "runs");
    Place pr = p.at("runs");
    if (!runs.is_array() || runs.empty())
        pr.fail("must be a list of at least one run");
    for (size_t i = 0; i < runs.size(); ++i) rec.runs.push_back(parse_run(pr.at(i), runs[i]));
    return rec;
}

}  // namespace sim
