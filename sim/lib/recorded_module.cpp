#include "recorded_module.hpp"

#include <cerrno>
#include <stdexcept>

namespace sim {

using json = nlohmann::ordered_json;

namespace {

constexpr FamilyIds kDefaultIds{30, 31};

MalformedForm form_of(StepFault f) {
    return f == StepFault::Short        ? MalformedForm::Short
           : f == StepFault::NlmsgError ? MalformedForm::NlmsgError
                                        : MalformedForm::WrongSecondAttr;
}

bool matches(const RecordedAnswer &a, const Request &r) {
    if (a.on != r.kind)
        return false;
    if (r.kind == Kind::Segmentation)
        return a.sugg.hash == r.seg.hash;
    return a.sugg.type == r.sugg.type && a.sugg.cur_cpu == r.sugg.cur_cpu &&
           a.sugg.dest_cpu == r.sugg.dest_cpu && a.sugg.hash == r.sugg.hash;
}

const RecordedRun &pick(const Recorded &rec, size_t run) {
    if (run >= rec.runs.size())
        throw std::runtime_error("the scenario has " + std::to_string(rec.runs.size()) +
                                 " recorded run(s); there is no run " + std::to_string(run));
    return rec.runs[run];
}

Response none(const std::string &why) {
    return Response{false, {}, {{"reply", "none"}, {"why", why}}};
}

}  // namespace

RecordedModule::RecordedModule(const Recorded &rec, size_t run)
    : run_place_("recorded/runs/" + std::to_string(run)),
      sides_{{"steering", pick(rec, run).steering}, {"core", pick(rec, run).core}} {
    // A side with nothing recorded never gets an answer.
    for (Side &s : sides_) s.held = s.steps.empty();
}

std::string RecordedModule::where(const Side &side, size_t index) const {
    return run_place_ + "/" + side.name + "/" + std::to_string(index);
}

json RecordedModule::progress() const {
    json p = json::object();
    for (const Side &s : sides_)
        p[s.name] = {{"used", s.next}, {"steps", s.steps.size()}, {"held", s.held}};
    return p;
}

// The side's next step if it is the kind of request asked; else the side is
// held: the daemon waits in its receive until it is stopped.
const RecordedStep *RecordedModule::take(Side &side, const Request &r, Response &held) {
    if (side.next >= side.steps.size()) {
        side.held = true;
        held = none(std::string("the ") + side.name + " steps are used up: held");
        return nullptr;
    }
    const RecordedStep &s = side.steps[side.next];
    if (s.on != r.kind) {
        side.held = true;
        held = none("step " + where(side, s.index) + " (line " + std::to_string(s.line) +
                    ") is a " + kind_name(s.on) + ", not a " + kind_name(r.kind) + ": held");
        return nullptr;
    }
    ++side.next;
    return &s;
}

Response RecordedModule::faulted(Response proper, const RecordedStep &s, const Request &r,
                                 std::span<const uint8_t> raw, const std::string &at) const {
    json note = std::string(step_fault_name(s.fault)) + " (" + at + ")";
    if (s.fault == StepFault::Silent) {
        Response resp = none("silent in the log");
        resp.out["fault"] = note;
        return resp;
    }
    if (s.fault == StepFault::Absent) {
        Response resp = error_reply(r, raw, -ENOENT, "family not registered");
        resp.out["fault"] = note;
        return resp;
    }
    uint16_t id = s.id ? s.id : r.family == "DULOX_ZEB" ? kDefaultIds.zeb : kDefaultIds.core;
    Bytes bad = deform_reply(form_of(s.fault), proper.replies[0], r, raw, s.error, id);
    return malformed_answer(std::move(proper), form_of(s.fault), note, std::move(bad));
}

Response RecordedModule::lookup(const RecordedStep &s, const Request &r,
                                std::span<const uint8_t> raw) {
    bool zeb = r.family == "DULOX_ZEB";
    uint16_t id = s.id ? s.id : zeb ? kDefaultIds.zeb : kDefaultIds.core;
    Response resp;
    resp.replies.push_back(encode_family_reply(r.hdr, r.family, id, zeb ? 3 : 2));
    resp.out = {{"reply", "family"}, {"id", id}};
    if (s.fault != StepFault::None)
        return faulted(std::move(resp), s, r, raw, where(sides_[zeb ? 0 : 1], s.index));
    (zeb ? ids_.zeb : ids_.core) = id;
    return resp;
}

Response RecordedModule::sync(const RecordedStep &s, const Request &r,
                              std::span<const uint8_t> raw) {
    Response resp;
    resp.replies.push_back(encode_int_reply(r.hdr, r.hdr.type, r.cmd, s.code));
    resp.out = {{"reply", "code"}, {"code", s.code}};
    if (s.cycle)
        resp.out["cycle"] = *s.cycle;
    if (s.fault != StepFault::None)
        resp = faulted(std::move(resp), s, r, raw, where(sides_[0], s.index));
    if (resp.replies.empty())
        return resp;
    resp.step = &s;  // the table files change before the reply goes out
    cycle_ = &s;
    used_.assign(s.answers.size(), false);
    if (s.tables) {
        seen_.caps = s.tables->caps;
        seen_.gold = s.tables->gold;
        seen_.ss = s.tables->ss;
    }
    return resp;
}

Response RecordedModule::pid_bps(const RecordedStep &s, const Request &r,
                                 std::span<const uint8_t> raw) {
    const PidBpsRecord &rec = s.pid;
    Response resp;
    resp.replies.push_back(encode_pid_bps_reply(r.hdr, r.hdr.type, rec));
    json list = json::array();
    for (const auto &e : rec.entries)
        list.push_back(
            {{"pid", e.pid}, {"tx_bps", e.tx_bps}, {"boost_remaining_ms", e.boost_remaining_ms}});
    resp.out = {{"reply", "pid_bps"},
                {"list_len", rec.list_len},
                {"valid", rec.valid},
                {"timestamp", rec.timestamp},
                {"list", list}};
    if (s.fault != StepFault::None)
        return faulted(std::move(resp), s, r, raw, where(sides_[1], s.index));
    seen_.last_pid = rec;
    return resp;
}

// A suggestion or segmentation request: the first unused answer of the cycle
// that matches it; one the log does not show is refused.
Response RecordedModule::answer(const Request &r, std::span<const uint8_t> raw) {
    size_t i = 0;
    while (cycle_ && i < used_.size() && (used_[i] || !matches(cycle_->answers[i], r))) ++i;
    Response resp;
    if (!cycle_ || i == used_.size()) {
        resp.replies.push_back(encode_int_reply(r.hdr, r.hdr.type, r.cmd, 1));
        resp.out = {
            {"reply", "code"}, {"code", 1}, {"result", "refused"}, {"effect", "not in the log"}};
        return resp;
    }
    used_[i] = true;
    const RecordedAnswer &a = cycle_->answers[i];
    resp.replies.push_back(encode_int_reply(r.hdr, r.hdr.type, r.cmd, a.code));
    resp.out = {{"reply", "code"},
                {"code", a.code},
                {"result", a.code == 0 ? "accepted" : "refused"},
                {"effect", "as in the log"}};
    if (a.fault != StepFault::None) {
        RecordedStep as_step;
        as_step.fault = a.fault;
        as_step.error = a.error;
        resp = faulted(std::move(resp), as_step, r, raw,
                       where(sides_[0], cycle_->index) + "/answers/" + std::to_string(i));
    }
    resp.out["step"] = cycle_->index;
    resp.out["line"] = a.line ? a.line : cycle_->line;
    return resp;
}

Response RecordedModule::request(const Request &r, std::span<const uint8_t> raw) {
    if (r.kind == Kind::Suggestion || r.kind == Kind::Segmentation)
        return answer(r, raw);
    if (r.kind == Kind::Boost)
        return Response{false, {}, {{"reply", "none"}, {"effect", "recorded: nothing applied"}}};
    bool steering = r.kind == Kind::Sync || (r.kind == Kind::Lookup && r.family == "DULOX_ZEB");
    Response held;
    const RecordedStep *s = take(sides_[steering ? 0 : 1], r, held);
    if (!s)
        return held;
    Response resp = r.kind == Kind::Lookup ? lookup(*s, r, raw)
                    : r.kind == Kind::Sync ? sync(*s, r, raw)
                                           : pid_bps(*s, r, raw);
    resp.out["step"] = s->index;
    resp.out["line"] = s->line;
    return resp;
}

Response RecordedModule::handle(std::span<const uint8_t> d, double, json &in) {
    Request r = decode_request(d, ids_);
    describe_request(r, seen_, in);
    if (r.kind == Kind::Malformed) {
        in["hex"] = hex(d);
        if (r.error == 0)
            return none("the kernel drops such a message");
        return error_reply(r, d, r.error, r.problem);
    }
    if (r.kind == Kind::Lookup && r.family != "DULOX_ZEB" && r.family != "DULOX_CORE")
        return error_reply(r, d, -ENOENT, "no family named " + r.family);
    Response resp = request(r, d);
    std::string reply = resp.out.value("reply", "");
    if ((r.hdr.flags & nl::kFlagAck) && reply != "error" && !resp.replies.empty())
        resp.replies.push_back(encode_error(r.hdr, d.first(nl::kHeaderLen), 0));
    return resp;
}

}  // namespace sim
