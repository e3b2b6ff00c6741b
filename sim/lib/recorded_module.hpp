// The kernel side of a recorded run: each request answered as the log shows
// it was answered, in the order the daemon sent them on each connection.
#pragma once

#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <vector>

#include "module.hpp"
#include "recorded.hpp"

namespace sim {

class RecordedModule {
   public:
    // Throws std::runtime_error when the scenario has no run `run`.
    RecordedModule(const Recorded &rec, size_t run);

    // The ids the lookups have given so far, for decoding requests.
    FamilyIds ids() const { return ids_; }
    Response handle(std::span<const uint8_t> dgram, double t, nlohmann::ordered_json &in);
    // Both sides are held: their steps are used up (or went another way).
    bool done() const { return sides_[0].held && sides_[1].held; }
    nlohmann::ordered_json progress() const;  // steps used per side

   private:
    struct Side {
        const char *name;
        const std::vector<RecordedStep> &steps;
        size_t next = 0;
        bool held = false;
    };

    const RecordedStep *take(Side &side, const Request &r, Response &held);
    Response faulted(Response proper, const RecordedStep &s, const Request &r,
                     std::span<const uint8_t> raw, const std::string &where) const;
    Response lookup(const RecordedStep &s, const Request &r, std::span<const uint8_t> raw);
    Response sync(const RecordedStep &s, const Request &r, std::span<const uint8_t> raw);
    Response pid_bps(const RecordedStep &s, const Request &r, std::span<const uint8_t> raw);
    Response answer(const Request &r, std::span<const uint8_t> raw);
    Response request(const Request &r, std::span<const uint8_t> raw);
    std::string where(const Side &side, size_t index) const;

    std::string run_place_;
    Side sides_[2];  // steering, core
    FamilyIds ids_;
    const RecordedStep *cycle_ = nullptr;  // the steering side's last sync answered
    std::vector<bool> used_;               // its answers already given
    Seen seen_;
};

}  // namespace sim
