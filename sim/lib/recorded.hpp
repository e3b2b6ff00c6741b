// A recorded scenario: the daemon's requests answered from a log instead of the
// device model. Each run is one daemon process's worth of requests, kept as two
// independent queues (the steering and the core connection).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "json_place.hpp"
#include "netlink.hpp"
#include "tables.hpp"

namespace sim {

enum class StepFault { None, Absent, Silent, Short, NlmsgError, WrongSecondAttr };
const char *step_fault_name(StepFault f);

// Bits of the table files, in the order caps, flows, ss_flows.
inline constexpr uint8_t kCapsBit = 1, kFlowsBit = 2, kSsFlowsBit = 4;
inline constexpr const char *kTableNames[] = {"caps", "flows", "ss_flows"};

struct RecordedTables {
    std::vector<CapEntry> caps;  // always 8, in table order
    std::vector<FlowEntry> gold, ss;
    uint16_t gold_len = 0, ss_len = 0;  // the list lengths written at offset 0
};

// How the kernel answered one suggestion or segmentation request of a cycle.
struct RecordedAnswer {
    Kind on = Kind::Suggestion;  // or Kind::Segmentation
    SuggInfo sugg;               // segmentation: only the hash
    int32_t code = 0;
    StepFault fault = StepFault::None;
    int32_t error = -22;
    long line = 0;
};

struct RecordedStep {
    Kind on = Kind::Sync;  // Lookup, Sync or PidBpsQuery
    size_t index = 0;      // in its side's list
    long line = 0;
    StepFault fault = StepFault::None;
    int32_t error = -22;  // the nlmsg_error fault's
    uint16_t id = 0;      // lookup
    int32_t code = 0;     // sync
    std::optional<long> cycle;
    std::optional<RecordedTables> tables;
    std::vector<RecordedAnswer> answers;
    uint8_t absent = 0, unmappable = 0;  // table bits
    PidBpsRecord pid;                    // throughput answer
};

struct RecordedRun {
    long first_line = 0, last_line = 0;
    bool verbose = false;
    std::vector<RecordedStep> steering, core;
};

struct Recorded {
    std::string log;
    std::vector<RecordedRun> runs;
};

// Throws ScenarioError with "FILE: PLACE: PROBLEM".
Recorded parse_recorded(const Place &p, const Json &v);

}  // namespace sim
