#include "netlink.hpp"

#include <cerrno>
#include <cstdio>
#include <map>

namespace sim {

const char *kind_name(Kind k) {
    switch (k) {
        case Kind::Lookup:
            return "family_lookup";
        case Kind::Sync:
            return "sync";
        case Kind::Suggestion:
            return "suggestion";
        case Kind::Segmentation:
            return "segmentation";
        case Kind::PidBpsQuery:
            return "pid_bps_query";
        case Kind::Boost:
            return "boost";
        case Kind::Malformed:
            return "malformed";
    }
    return "?";
}

namespace {

struct Attr {
    uint16_t len = 0;
    size_t payload = 0;  // offset of the payload in the message
};

Request malformed(Request r, std::string problem, int error) {
    r.kind = Kind::Malformed;
    r.problem = std::move(problem);
    r.error = error;
    return r;
}

std::string num(uint64_t v) {
    return std::to_string(v);
}

// Walks the attribute area as the kernel's validating parser does; keeps the
// first attribute of each type. An empty string means the area is well formed.
std::string parse_attrs(std::span<const uint8_t> m, size_t end, std::map<uint16_t, Attr> &out) {
    size_t off = nl::kGenlHeaderLen;
    while (end - off >= 4) {
        uint16_t len = get_u16(m, off);
        uint16_t type = get_u16(m, off + 2) & 0x3fff;
        if (len < 4 || len > end - off)
            return "attribute at offset " + num(off) + " has nla_len " + num(len) + " but " +
                   num(end - off) + " bytes remain";
        out.try_emplace(type, Attr{len, off + 4});
        off += align4(len);
        if (off > end)
            break;
    }
    return {};
}

// Finds the attribute `type` with at least `need` payload bytes.
const Attr *need_attr(const std::map<uint16_t, Attr> &attrs, uint16_t type, size_t need) {
    auto it = attrs.find(type);
    if (it == attrs.end() || it->second.len < need + 4)
        return nullptr;
    return &it->second;
}

Request decode_ctrl(Request r, std::span<const uint8_t> m, const std::map<uint16_t, Attr> &attrs) {
    r.family = "nlctrl";
    if (r.cmd != nl::kCtrlGetFamily)
        return malformed(r, "controller command " + num(r.cmd) + " is not GETFAMILY (3)",
                         -EOPNOTSUPP);
    const Attr *a = need_attr(attrs, nl::kCtrlAttrFamilyName, 1);
    if (!a)
        return malformed(r, "family lookup without a family name attribute (type 2)", -EINVAL);
    std::string name;
    size_t i = 0;
    for (; i + 4 < a->len && m[a->payload + i] != 0; ++i) name.push_back(char(m[a->payload + i]));
    if (i + 4 >= a->len)
        return malformed(r, "family name attribute is not NUL-terminated", -EINVAL);
    r.kind = Kind::Lookup;
    r.family = name;
    return r;
}

Request decode_zeb(Request r, std::span<const uint8_t> m, const std::map<uint16_t, Attr> &attrs) {
    r.family = "DULOX_ZEB";
    if (r.cmd == nl::kCmdSugg || r.cmd == nl::kCmdSync) {
        const Attr *a = need_attr(attrs, nl::kAttrSugg, nl::kSuggLen);
        if (!a)
            return malformed(r, "command " + num(r.cmd) + " without a 12-byte attribute of type 3",
                             -EINVAL);
        r.kind = r.cmd == nl::kCmdSync ? Kind::Sync : Kind::Suggestion;
        r.sugg = {get_u32(m, a->payload), get_u32(m, a->payload + 4), get_u16(m, a->payload + 8),
                  get_u16(m, a->payload + 10)};
        return r;
    }
    if (r.cmd == nl::kCmdSeg) {
        const Attr *a = need_attr(attrs, nl::kAttrSeg, nl::kSegLen);
        if (!a)
            return malformed(r, "command 3 without an 8-byte attribute of type 4", -EINVAL);
        r.kind = Kind::Segmentation;
        r.seg = {get_u32(m, a->payload), get_u32(m, a->payload + 4)};
        return r;
    }
    return malformed(r, "steering command " + num(r.cmd) + " is unknown", -EOPNOTSUPP);
}

BoostInfo decode_boost(std::span<const uint8_t> m, size_t p) {
    BoostInfo b;
    b.list_len = get_u16(m, p + 392);
    b.valid = m[p + 394];
    size_t n = b.list_len < nl::kPidListMax ? b.list_len : nl::kPidListMax;
    for (size_t i = 0; i < n; ++i)
        b.entries.push_back(
            {get_u32(m, p + 12 * i), get_u32(m, p + 12 * i + 4), get_u32(m, p + 12 * i + 8)});
    for (size_t i = 12 * n; i < 392; ++i) b.stray_bytes |= m[p + i] != 0;
    for (size_t i = 395; i < nl::kPidBoostLen; ++i) b.stray_bytes |= m[p + i] != 0;
    return b;
}

Request decode_core(Request r, std::span<const uint8_t> m, const std::map<uint16_t, Attr> &attrs) {
    r.family = "DULOX_CORE";
    if (r.cmd == nl::kCmdPidBps) {
        const Attr *a = need_attr(attrs, nl::kAttrPidBytes, nl::kPidBpsLen);
        if (!a)
            return malformed(r, "command 1 without a 528-byte attribute of type 3", -EINVAL);
        r.kind = Kind::PidBpsQuery;
        for (size_t i = 0; i < nl::kPidBpsLen; ++i) r.query_nonzero |= m[a->payload + i] != 0;
        return r;
    }
    if (r.cmd == nl::kCmdPidBoost) {
        const Attr *a = need_attr(attrs, nl::kAttrPidBoost, nl::kPidBoostLen);
        if (!a)
            return malformed(r, "command 2 without a 400-byte attribute of type 4", -EINVAL);
        r.kind = Kind::Boost;
        r.boost = decode_boost(m, a->payload);
        return r;
    }
    return malformed(r, "core command " + num(r.cmd) + " is unknown", -EOPNOTSUPP);
}

}  // namespace

Request decode_request(std::span<const uint8_t> d, const FamilyIds &ids) {
    Request r;
    r.datagram_len = d.size();
    if (d.size() < nl::kHeaderLen)
        return malformed(
            r, "datagram of " + num(d.size()) + " bytes is shorter than a netlink header", 0);
    r.hdr = {get_u32(d, 0), get_u16(d, 4), get_u16(d, 6), get_u32(d, 8), get_u32(d, 12)};
    if (r.hdr.len < nl::kHeaderLen || r.hdr.len > d.size())
        return malformed(r,
                         "nlmsg_len " + num(r.hdr.len) + " does not fit the datagram of " +
                             num(d.size()) + " bytes",
                         0);
    if (!(r.hdr.flags & nl::kFlagRequest))
        return malformed(r, "nlmsg_flags " + num(r.hdr.flags) + " lack the request flag", 0);
    if (r.hdr.type < nl::kMinType)
        return malformed(r, "nlmsg_type " + num(r.hdr.type) + " is a netlink control message", 0);
    auto m = d.first(r.hdr.len);
    if (r.hdr.len < nl::kGenlHeaderLen)
        return malformed(
            r, "nlmsg_len " + num(r.hdr.len) + " leaves no room for the generic header", -EINVAL);
    r.cmd = m[16];
    r.version = m[17];
    if (r.hdr.type != nl::kCtrlId && r.hdr.type != ids.zeb && r.hdr.type != ids.core)
        return malformed(r, "nlmsg_type " + num(r.hdr.type) + " names no registered family",
                         -ENOENT);
    std::map<uint16_t, Attr> attrs;
    if (auto p = parse_attrs(m, r.hdr.len, attrs); !p.empty())
        return malformed(r, p, -EINVAL);
    if (r.hdr.type == nl::kCtrlId)
        return decode_ctrl(r, m, attrs);
    if (r.hdr.type == ids.zeb)
        return decode_zeb(r, m, attrs);
    return decode_core(r, m, attrs);
}

namespace {

Bytes header(size_t total, uint16_t type, const Header &req) {
    Bytes b(total, 0);
    put_u32(b, 0, uint32_t(total));
    put_u16(b, 4, type);
    put_u16(b, 6, 0);
    put_u32(b, 8, req.seq);
    put_u32(b, 12, req.pid);
    return b;
}

void append_attr(Bytes &b, uint16_t type, std::span<const uint8_t> payload) {
    size_t off = b.size();
    b.resize(off + align4(4 + payload.size()), 0);
    put_u16(b, off, uint16_t(4 + payload.size()));
    put_u16(b, off + 2, type);
    for (size_t i = 0; i < payload.size(); ++i) b[off + 4 + i] = payload[i];
}

void append_u32_attr(Bytes &b, uint16_t type, uint32_t v) {
    uint8_t p[4];
    put_u32(p, 0, v);
    append_attr(b, type, p);
}

void finish(Bytes &b) {
    put_u32(b, 0, uint32_t(b.size()));
}

}  // namespace

Bytes encode_family_reply(const Header &req, std::string_view name, uint16_t id, int n_ops,
                          bool id_second) {
    Bytes b = header(nl::kGenlHeaderLen, nl::kCtrlId, req);
    b[16] = nl::kCtrlNewFamily;
    b[17] = 2;  // controller family version
    Bytes nm(name.begin(), name.end());
    nm.push_back(0);
    uint8_t idp[2];
    put_u16(idp, 0, id);
    append_attr(b, nl::kCtrlAttrFamilyName, nm);
    if (id_second)
        append_attr(b, nl::kCtrlAttrFamilyId, idp);
    append_u32_attr(b, nl::kCtrlAttrVersion, 1);
    if (!id_second)
        append_attr(b, nl::kCtrlAttrFamilyId, idp);
    append_u32_attr(b, nl::kCtrlAttrHdrSize, 0);
    append_u32_attr(b, nl::kCtrlAttrMaxAttr, 4);
    Bytes ops;
    for (int i = 0; i < n_ops; ++i) {
        Bytes op;
        append_u32_attr(op, 1, uint32_t(i + 1));  // CTRL_ATTR_OP_ID
        append_u32_attr(op, 2, 0);                // CTRL_ATTR_OP_FLAGS
        append_attr(ops, uint16_t(nl::kNested | (i + 1)), op);
    }
    append_attr(b, nl::kNested | nl::kCtrlAttrOps, ops);
    finish(b);
    return b;
}

Bytes encode_error(const Header &req, std::span<const uint8_t> orig, int32_t error) {
    Bytes b = header(nl::kHeaderLen + 4 + orig.size(), nl::kError, req);
    put_i32(b, 16, error);
    for (size_t i = 0; i < orig.size(); ++i) b[20 + i] = orig[i];
    return b;
}

Bytes encode_int_reply(const Header &req, uint16_t family_id, uint8_t cmd, int32_t code) {
    Bytes b = header(nl::kGenlHeaderLen, family_id, req);
    b[16] = cmd;
    b[17] = 1;
    uint8_t p[4];
    put_i32(p, 0, code);
    append_attr(b, 1, p);
    finish(b);
    return b;
}

Bytes encode_pid_bps_reply(const Header &req, uint16_t family_id, const PidBpsRecord &rec) {
    Bytes b = header(nl::kGenlHeaderLen, family_id, req);
    b[16] = nl::kCmdPidBps;
    b[17] = 1;
    Bytes p(nl::kPidBpsLen, 0);
    for (size_t i = 0; i < rec.entries.size() && i < nl::kPidListMax; ++i) {
        put_u64(p, 16 * i, rec.entries[i].tx_bps);
        put_u32(p, 16 * i + 8, rec.entries[i].pid);
        put_u32(p, 16 * i + 12, rec.entries[i].boost_remaining_ms);
    }
    put_u64(p, 512, rec.timestamp);
    put_u16(p, 520, rec.list_len);
    put_u8(p, 522, rec.valid);
    append_attr(b, nl::kAttrPidBytes, p);
    finish(b);
    return b;
}

std::string hex(std::span<const uint8_t> b, size_t max) {
    std::string s;
    char buf[4];
    for (size_t i = 0; i < b.size() && i < max; ++i) {
        std::snprintf(buf, sizeof buf, "%02x", b[i]);
        s += buf;
    }
    if (b.size() > max)
        s += "...";
    return s;
}

}  // namespace sim
