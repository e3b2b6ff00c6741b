// Generic netlink as the kernel side sees it: decoding the daemon's requests
// and encoding the replies of the controller and of the two modules.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "bytes.hpp"

namespace sim {

namespace nl {
inline constexpr uint16_t kError = 2;     // NLMSG_ERROR
inline constexpr uint16_t kMinType = 16;  // NLMSG_MIN_TYPE
inline constexpr uint16_t kCtrlId = 16;   // GENL_ID_CTRL
inline constexpr uint16_t kFlagRequest = 1;
inline constexpr uint16_t kFlagAck = 4;
inline constexpr uint8_t kCtrlNewFamily = 1;
inline constexpr uint8_t kCtrlGetFamily = 3;
inline constexpr uint16_t kCtrlAttrFamilyId = 1;
inline constexpr uint16_t kCtrlAttrFamilyName = 2;
inline constexpr uint16_t kCtrlAttrVersion = 3;
inline constexpr uint16_t kCtrlAttrHdrSize = 4;
inline constexpr uint16_t kCtrlAttrMaxAttr = 5;
inline constexpr uint16_t kCtrlAttrOps = 6;
inline constexpr uint16_t kNested = 0x8000;
// steering family
inline constexpr uint8_t kCmdSugg = 2, kCmdSeg = 3, kCmdSync = 4;
inline constexpr uint16_t kAttrSugg = 3, kAttrSeg = 4;
inline constexpr size_t kSuggLen = 12, kSegLen = 8;
// core family
inline constexpr uint8_t kCmdPidBps = 1, kCmdPidBoost = 2;
inline constexpr uint16_t kAttrPidBytes = 3, kAttrPidBoost = 4;
inline constexpr size_t kPidBpsLen = 528, kPidBoostLen = 400;
inline constexpr size_t kPidListMax = 32;
inline constexpr size_t kHeaderLen = 16, kGenlHeaderLen = 20;
}  // namespace nl

enum class Kind { Lookup, Sync, Suggestion, Segmentation, PidBpsQuery, Boost, Malformed };
const char *kind_name(Kind k);

struct Header {
    uint32_t len = 0;
    uint16_t type = 0;
    uint16_t flags = 0;
    uint32_t seq = 0;
    uint32_t pid = 0;
};

struct SuggInfo {
    uint32_t hash = 0;
    uint32_t type = 0;
    uint16_t cur_cpu = 0;
    uint16_t dest_cpu = 0;
};

struct SegInfo {
    uint32_t hash = 0;
    uint32_t seg_enable = 0;
};

struct BoostEntry {
    uint32_t boost_en = 0;
    uint32_t boost_period = 0;
    uint32_t pid = 0;
};

struct BoostInfo {
    std::vector<BoostEntry> entries;  // the first min(list_len, 32)
    uint16_t list_len = 0;
    uint8_t valid = 0;
    bool stray_bytes = false;  // reserved, padding or unused entries not zero
};

struct PidBpsEntry {
    uint64_t tx_bps = 0;
    uint32_t pid = 0;
    uint32_t boost_remaining_ms = 0;
};

struct PidBpsRecord {
    std::vector<PidBpsEntry> entries;  // at most 32 are encoded
    uint64_t timestamp = 0;
    uint16_t list_len = 0;
    uint8_t valid = 1;
};

struct FamilyIds {
    uint16_t zeb = 0;
    uint16_t core = 0;
};

struct Request {
    Kind kind = Kind::Malformed;
    Header hdr;
    uint8_t cmd = 0;
    uint8_t version = 0;
    size_t datagram_len = 0;
    std::string family;  // lookup: the name asked for; otherwise the family addressed
    SuggInfo sugg;
    SegInfo seg;
    BoostInfo boost;
    bool query_nonzero = false;  // throughput query whose record is not all zero
    std::string problem;         // why the request is malformed
    int error = 0;               // malformed: 0 = the kernel drops it, else -errno it answers
};

Request decode_request(std::span<const uint8_t> dgram, const FamilyIds &ids);

Bytes encode_family_reply(const Header &req, std::string_view name, uint16_t id, int n_ops,
                          bool id_second = true);
Bytes encode_error(const Header &req, std::span<const uint8_t> orig, int32_t error);
Bytes encode_int_reply(const Header &req, uint16_t family_id, uint8_t cmd, int32_t code);
Bytes encode_pid_bps_reply(const Header &req, uint16_t family_id, const PidBpsRecord &rec);

std::string hex(std::span<const uint8_t> b, size_t max = 64);

}  // namespace sim
