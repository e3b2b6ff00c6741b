#include "module.hpp"

#include <algorithm>
#include <cerrno>

namespace sim {

using json = nlohmann::ordered_json;

json fault_note(const FaultPlan &f) {
    return std::string(fault_kind_name(f.kind)) + " (" + f.where + ")";
}

void Module::published(std::vector<CapEntry> caps, std::vector<FlowEntry> gold,
                       std::vector<FlowEntry> ss) {
    seen_.caps = std::move(caps);
    seen_.gold = std::move(gold);
    seen_.ss = std::move(ss);
}

const FaultPlan *Module::fault(FaultKind k, const Request &r, double t) {
    for (size_t i = 0; i < s_.faults.size(); ++i) {
        const FaultPlan &f = s_.faults[i];
        if (f.kind != k || std::find(f.on.begin(), f.on.end(), r.kind) == f.on.end())
            continue;
        if (r.kind == Kind::Lookup && !f.family.empty() && f.family != r.family)
            continue;
        if (f.sugg_type && r.kind == Kind::Suggestion && f.sugg_type != r.sugg.type)
            continue;
        if (t < f.from_s || t >= f.to_s)
            continue;
        if (++matched_[i] <= f.skip || applied_[i] >= f.times)
            continue;
        ++applied_[i];
        return &f;
    }
    return nullptr;
}

Bytes Module::deform(const FaultPlan &f, Bytes proper, const Request &r,
                     std::span<const uint8_t> raw, double t) {
    uint16_t id = r.family == "DULOX_ZEB" ? s_.ids_at(t).zeb : s_.ids_at(t).core;
    return deform_reply(f.form, std::move(proper), r, raw, f.code, id);
}

Bytes deform_reply(MalformedForm form, Bytes proper, const Request &r, std::span<const uint8_t> raw,
                   int32_t error, uint16_t family_id) {
    switch (form) {
        case MalformedForm::Short:
            proper.resize(12);
            return proper;
        case MalformedForm::LenBeyond:
            put_u32(proper, 0, uint32_t(proper.size() + 64));
            return proper;
        case MalformedForm::NlmsgError:
            return encode_error(r.hdr, raw.first(r.hdr.len), error);
        case MalformedForm::WrongSecondAttr:
            return encode_family_reply(r.hdr, r.family, family_id, r.family == "DULOX_ZEB" ? 3 : 2,
                                       false);
        case MalformedForm::Oversize:
            proper.resize(2048, 0);
            put_u32(proper, 0, 2048);
            return proper;
    }
    return proper;
}

namespace {

const char *form_name(MalformedForm f) {
    switch (f) {
        case MalformedForm::Short:
            return "short";
        case MalformedForm::LenBeyond:
            return "len_beyond";
        case MalformedForm::NlmsgError:
            return "nlmsg_error";
        case MalformedForm::WrongSecondAttr:
            return "wrong_second_attr";
        case MalformedForm::Oversize:
            return "oversize";
    }
    return "?";
}

Response apply_malformed(Response resp, const FaultPlan *f, Bytes deformed) {
    return malformed_answer(std::move(resp), f->form, fault_note(*f), std::move(deformed));
}

}  // namespace

Response error_reply(const Request &r, std::span<const uint8_t> raw, int32_t err,
                     const std::string &why) {
    Response resp;
    resp.replies.push_back(encode_error(r.hdr, raw.first(r.hdr.len), err));
    resp.out = {{"reply", "error"}, {"error", err}, {"why", why}};
    return resp;
}

Response malformed_answer(Response resp, MalformedForm form, json fault, Bytes deformed) {
    resp.replies = {std::move(deformed)};
    resp.out["reply"] = "malformed";
    resp.out["form"] = form_name(form);
    resp.out["fault"] = std::move(fault);
    return resp;
}

Response Module::lookup(const Request &r, std::span<const uint8_t> raw, double t) {
    bool known = r.family == "DULOX_ZEB" || r.family == "DULOX_CORE";
    if (!known)
        return error_reply(r, raw, -ENOENT, "no family named " + r.family);
    bool zeb = r.family == "DULOX_ZEB";
    uint16_t id = zeb ? s_.ids_at(t).zeb : s_.ids_at(t).core;
    if (id == 0) {
        Response resp = error_reply(r, raw, -ENOENT, "family not registered: module restarting");
        resp.out["fault"] = fault_note(*s_.last_restart(t));
        return resp;
    }
    if (const FaultPlan *f = fault(FaultKind::FamilyAbsent, r, t)) {
        Response resp = error_reply(r, raw, -ENOENT, "family not registered");
        resp.out["fault"] = fault_note(*f);
        return resp;
    }
    Response resp;
    resp.replies.push_back(encode_family_reply(r.hdr, r.family, id, zeb ? 3 : 2));
    resp.out = {{"reply", "family"}, {"id", id}};
    if (const FaultPlan *f = fault(FaultKind::MalformedReply, r, t))
        return apply_malformed(resp, f, deform(*f, resp.replies[0], r, raw, t));
    return resp;
}

Response Module::int_reply(const Request &r, std::span<const uint8_t> raw, double t) {
    Response resp;
    resp.at_tick = r.kind == Kind::Sync;
    int32_t code = 0;
    std::string effect;
    const FaultPlan *forced = fault(FaultKind::ReplyCode, r, t);
    if (forced) {
        code = forced->code;
        effect = "not applied: reply code forced";
    } else if (r.kind == Kind::Suggestion) {
        auto o = m_.suggest(r.sugg, t);
        code = o.code;
        effect = o.effect;
    } else if (r.kind == Kind::Segmentation) {
        auto o = m_.segment(r.seg, t);
        code = o.code;
        effect = o.effect;
    }
    resp.replies.push_back(encode_int_reply(r.hdr, r.hdr.type, r.cmd, code));
    resp.out = {{"reply", "code"}, {"code", code}};
    if (r.kind != Kind::Sync)
        resp.out["result"] = code == 0 ? "accepted" : "refused";
    if (!effect.empty())
        resp.out["effect"] = effect;
    if (forced)
        resp.out["fault"] = fault_note(*forced);
    if (const FaultPlan *f = fault(FaultKind::MalformedReply, r, t))
        return apply_malformed(resp, f, deform(*f, resp.replies[0], r, raw, t));
    return resp;
}

Response Module::pid_bps(const Request &r, std::span<const uint8_t> raw, double t) {
    PidBpsRecord rec = m_.pid_bps(t);
    Response resp;
    resp.out = {{"reply", "pid_bps"}};
    if (const FaultPlan *f = fault(FaultKind::PidRecord, r, t)) {
        if (f->valid)
            rec.valid = uint8_t(*f->valid);
        if (f->list_len)
            rec.list_len = uint16_t(*f->list_len);
        resp.out["fault"] = fault_note(*f);
    }
    seen_.last_pid = rec;
    json list = json::array();
    for (size_t i = 0; i < rec.entries.size() && i < nl::kPidListMax; ++i)
        list.push_back({{"pid", rec.entries[i].pid},
                        {"tx_bps", rec.entries[i].tx_bps},
                        {"boost_remaining_ms", rec.entries[i].boost_remaining_ms}});
    resp.out["list_len"] = rec.list_len;
    resp.out["valid"] = rec.valid;
    resp.out["timestamp"] = rec.timestamp;
    resp.out["list"] = list;
    resp.replies.push_back(encode_pid_bps_reply(r.hdr, r.hdr.type, rec));
    if (const FaultPlan *f = fault(FaultKind::MalformedReply, r, t))
        return apply_malformed(resp, f, deform(*f, resp.replies[0], r, raw, t));
    return resp;
}

Response Module::boost(const Request &r, double t) {
    Response resp;
    resp.out = {{"reply", "none"}, {"effect", m_.boost(r.boost, t)}};
    return resp;
}

namespace {

json seen_suggestion(const Seen &read, const SuggInfo &s) {
    json seen = json::object();
    for (const auto &c : read.caps) {
        if (c.cpu == s.cur_cpu) {
            seen["cur_pps_capacity"] = c.pps_capacity;
            seen["cur_avg_pps_capacity"] = c.avg_pps_capacity;
        }
        if (c.cpu == s.dest_cpu)
            seen["dest_avg_pps_capacity"] = c.avg_pps_capacity;
    }
    for (const auto &f : read.gold)
        if (s.hash && f.hash == s.hash) {
            seen["flow_avg_pps"] = f.avg_pps;
            seen["flow_rx_pps"] = f.rx_pps;
            break;
        }
    return seen;
}

json seen_segmentation(const Seen &seen, uint32_t hash) {
    for (const auto &f : seen.ss)
        if (f.hash == hash)
            return {{"rx_bps", f.rx_bps}, {"cpu", f.cpu}};
    return json::object();
}

}  // namespace

void describe_request(const Request &r, const Seen &seen, json &in) {
    in["kind"] = kind_name(r.kind);
    in["dgram"] = r.datagram_len;
    if (r.datagram_len >= nl::kHeaderLen) {
        in["len"] = r.hdr.len;
        in["type"] = r.hdr.type;
        in["flags"] = r.hdr.flags;
        in["seq"] = r.hdr.seq;
        in["pid"] = r.hdr.pid;
    }
    if (r.datagram_len >= nl::kGenlHeaderLen) {
        in["cmd"] = r.cmd;
        in["version"] = r.version;
    }
    if (!r.family.empty())
        in["family"] = r.family;
    switch (r.kind) {
        case Kind::Sync:
            in["record_zero"] =
                r.sugg.hash == 0 && r.sugg.type == 0 && r.sugg.cur_cpu == 0 && r.sugg.dest_cpu == 0;
            break;
        case Kind::Suggestion:
            in["hash"] = hash_str(r.sugg.hash);
            in["sugg_type"] = sugg_name(r.sugg.type);
            in["sugg_type_num"] = r.sugg.type;
            in["cur_cpu"] = r.sugg.cur_cpu;
            in["dest_cpu"] = r.sugg.dest_cpu;
            in["seen"] = seen_suggestion(seen, r.sugg);
            break;
        case Kind::Segmentation:
            in["hash"] = hash_str(r.seg.hash);
            in["seg_enable"] = r.seg.seg_enable;
            in["seen"] = seen_segmentation(seen, r.seg.hash);
            break;
        case Kind::PidBpsQuery:
            in["record_zero"] = !r.query_nonzero;
            break;
        case Kind::Boost: {
            json e = json::array();
            for (const auto &b : r.boost.entries) {
                json one = {
                    {"pid", b.pid}, {"boost_en", b.boost_en}, {"boost_period", b.boost_period}};
                for (const auto &p : seen.last_pid.entries)
                    if (p.pid == b.pid)
                        one["seen"] = {{"tx_bps", p.tx_bps},
                                       {"boost_remaining_ms", p.boost_remaining_ms}};
                e.push_back(one);
            }
            in["list_len"] = r.boost.list_len;
            in["valid"] = r.boost.valid;
            in["entries"] = e;
            in["stray_bytes"] = r.boost.stray_bytes;
            break;
        }
        case Kind::Malformed:
            in["problem"] = r.problem;
            break;
        case Kind::Lookup:
            break;
    }
}

Response Module::handle(std::span<const uint8_t> d, double t, json &in) {
    Request r = decode_request(d, s_.ids_at(t));
    describe_request(r, seen_, in);
    if (r.kind == Kind::Malformed) {
        in["hex"] = hex(d);
        if (r.error == 0)
            return Response{
                false, {}, {{"reply", "none"}, {"why", "the kernel drops such a message"}}};
        Response resp = error_reply(r, d, r.error, r.problem);
        // An id that a restart retired, as the kernel answers it.
        if (const FaultPlan *f = s_.last_restart(t); f && r.error == -ENOENT)
            resp.out["fault"] = fault_note(*f);
        return resp;
    }
    if (r.kind != Kind::Lookup) {
        if (const FaultPlan *f = fault(FaultKind::Silent, r, t))
            return Response{
                false,
                {},
                {{"reply", "none"}, {"why", "module silent"}, {"fault", fault_note(*f)}}};
    }
    Response resp;
    switch (r.kind) {
        case Kind::Lookup:
            resp = lookup(r, d, t);
            break;
        case Kind::PidBpsQuery:
            resp = pid_bps(r, d, t);
            break;
        case Kind::Boost:
            resp = boost(r, t);
            break;
        default:
            resp = int_reply(r, d, t);
            break;
    }
    if ((r.hdr.flags & nl::kFlagAck) && resp.out.value("reply", "") != "error")
        resp.replies.push_back(encode_error(r.hdr, d.first(nl::kHeaderLen), 0));
    return resp;
}

}  // namespace sim
