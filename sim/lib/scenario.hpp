// A scenario: the simulated device, its traffic over time and the faults to
// inject. Loaded from JSON; every problem names the file and the place.
#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "netlink.hpp"

namespace sim {

struct Recorded;

inline constexpr double kForever = std::numeric_limits<double>::infinity();
inline constexpr int kCpus = 8;

// A value over simulated time: linear between points, held flat outside them.
struct Series {
    std::vector<std::pair<double, double>> points;
    double at(double t) const;
};

struct CpuPlan {
    double max_pps = 0;
    Series load_pps;  // load that is not one of the listed flows
    Series load_bps;
};

struct FlowPlan {
    uint32_t hash = 0;
    std::string name;
    int cpu = 0;
    Series pps;
    Series bps;
    double start_s = 0;
    double end_s = kForever;
    bool slow_start = false;
};

struct ProcessPlan {
    uint32_t pid = 0;
    std::string name;
    Series tx_bps;
    double start_s = 0;
    double end_s = kForever;
    double boost_ms = 0;  // boost time left at start
};

enum class FaultKind {
    FamilyAbsent,
    Silent,
    ReplyCode,
    MalformedReply,
    PidRecord,
    TableUnmappable,
    TableAbsent,
    ThreadCreateFails,
    Restart,
};
const char *fault_kind_name(FaultKind k);

enum class MalformedForm { Short, LenBeyond, NlmsgError, WrongSecondAttr, Oversize };

struct FaultPlan {
    FaultKind kind = FaultKind::Silent;
    std::string where;  // "faults/3", for the transcript
    double from_s = 0;
    double to_s = kForever;
    uint64_t skip = 0;
    uint64_t times = std::numeric_limits<uint64_t>::max();
    std::vector<Kind> on;  // requests it applies to
    std::string family;    // family_absent, or a lookup filter
    int32_t code = 0;      // reply_code; nlmsg_error's error
    uint32_t sugg_type = 0;
    MalformedForm form = MalformedForm::Short;
    std::optional<int> valid;
    std::optional<int> list_len;
    std::string table;  // "caps", "flows" or "ss_flows"
    int nth = 0;        // thread_create_fails
    double at_s = 0;    // restart: when the families unregister
    double down_s = 0;  // restart: how long they stay away
    FamilyIds new_ids;  // restart: 0 for a family that stays as it is
};

struct Scenario {
    std::string file;
    std::string name;
    std::string description;
    double duration_s = 20;
    double tick_ms = 100;
    int avg_samples = 10;
    FamilyIds ids{30, 31};
    std::array<CpuPlan, kCpus> cpus;
    std::array<int, kCpus> cap_order{0, 1, 2, 3, 4, 5, 6, 7};
    std::vector<FlowPlan> flows;
    std::vector<ProcessPlan> processes;
    std::vector<FaultPlan> faults;
    // Set for a scenario served from a log (recorded.hpp): no model, no faults.
    std::shared_ptr<const Recorded> recorded;

    int thread_fail_nth() const;  // 0 when no thread fault
    // The family ids registered at simulated second t: 0 for a family that a
    // restart has taken away for the moment.
    FamilyIds ids_at(double t) const;
    // The first restart after `from` up to `to`, and the last one up to t.
    const FaultPlan *restart_in(double from, double to) const;
    const FaultPlan *last_restart(double t) const;
};

struct ScenarioError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Both throw ScenarioError with "FILE: PLACE: PROBLEM".
Scenario load_scenario(const std::string &path);
Scenario parse_scenario(const std::string &text, const std::string &file);

}  // namespace sim
