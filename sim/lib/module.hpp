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

struct RecordedStep;

struct Response {
    bool at_tick = false;  // a sync reply waits for the module's tick
    std::vector<Bytes> replies;
    nlohmann::ordered_json out;          // transcript record of the answer
    const RecordedStep *step = nullptr;  // recorded mode: the step that answered
};

// What the daemon last read: the tables and the throughput answer, so that a
// request's record can show the values it was decided on.
struct Seen {
    std::vector<CapEntry> caps;
    std::vector<FlowEntry> gold, ss;
    PidBpsRecord last_pid;
};

// The transcript record of a request.
void describe_request(const Request &r, const Seen &seen, nlohmann::ordered_json &in);
Response error_reply(const Request &r, std::span<const uint8_t> raw, int32_t err,
                     const std::string &why);
// `proper` changed into the malformed form; `family_id` for wrong_second_attr.
Bytes deform_reply(MalformedForm form, Bytes proper, const Request &r, std::span<const uint8_t> raw,
                   int32_t error, uint16_t family_id);
Response malformed_answer(Response resp, MalformedForm form, nlohmann::ordered_json fault,
                          Bytes deformed);

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

    const Scenario &s_;
    Model &m_;
    std::vector<uint64_t> matched_;
    std::vector<uint64_t> applied_;
    Seen seen_;
};

nlohmann::ordered_json fault_note(const FaultPlan &f);

}  // namespace sim
