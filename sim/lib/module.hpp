// The kernel side of one netlink request: the controller and the two modules
// answer it from the device model, with the scenario's faults applied.
#pragma once

#include <nlohmann/json.hpp>
#include <span>
#include <vector>

#include "model.hpp"
#include "netlink.hpp"
#include "scenario.hpp"

namespace sim {

struct Response {
    bool at_tick = false;  // a sync reply waits for the module's tick
    std::vector<Bytes> replies;
    nlohmann::ordered_json out;  // transcript record of the answer
};

class Module {
   public:
    Module(const Scenario &s, Model &m)
        : s_(s), m_(m), matched_(s.faults.size()), applied_(s.faults.size()) {}

    // Decodes one datagram; fills `in` with its transcript record.
    Response handle(std::span<const uint8_t> dgram, double t, nlohmann::ordered_json &in);

    // The tables just written, so records can show what the daemon saw.
    void published(std::vector<CapEntry> caps, std::vector<FlowEntry> gold,
                   std::vector<FlowEntry> ss);

   private:
    const FaultPlan *fault(FaultKind k, const Request &r, double t);
    Response lookup(const Request &r, std::span<const uint8_t> raw, double t);
    Response int_reply(const Request &r, std::span<const uint8_t> raw, double t);
    Response pid_bps(const Request &r, std::span<const uint8_t> raw, double t);
    Response boost(const Request &r, double t);
    Bytes deform(const FaultPlan &f, Bytes proper, const Request &r, std::span<const uint8_t> raw,
                 double t);
    void describe(const Request &r, nlohmann::ordered_json &in) const;
    nlohmann::ordered_json seen_suggestion(const SuggInfo &s) const;
    nlohmann::ordered_json seen_segmentation(uint32_t hash) const;

    const Scenario &s_;
    Model &m_;
    std::vector<uint64_t> matched_;
    std::vector<uint64_t> applied_;
    std::vector<CapEntry> caps_;
    std::vector<FlowEntry> gold_, ss_;
    PidBpsRecord last_pid_;
};

nlohmann::ordered_json fault_note(const FaultPlan &f);

}  // namespace sim
