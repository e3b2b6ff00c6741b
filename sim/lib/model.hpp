// The simulated device: CPUs with packet-rate maxima, flows placed on them,
// processes that send. Sampled on the module's tick; suggestions and
// segmentation and boost requests change it.
#pragma once

#include <deque>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "scenario.hpp"
#include "tables.hpp"

namespace sim {

// Mean of the last n samples.
class Window {
   public:
    explicit Window(int n) : n_(n) {}
    void push(double v);
    double mean() const;

   private:
    int n_;
    std::deque<double> v_;
};

struct FlowState {
    const FlowPlan *plan = nullptr;
    int cpu = 0;
    bool active = false;
    double pps = 0;
    double bps = 0;
    Window avg{1};
    bool seg_enabled = true;
    std::vector<std::pair<double, bool>> seg_changes;  // (time, enabled)
    int moves = 0;
};

struct CpuState {
    double spare = 0;
    double excess = 0;  // demand above max_pps: packets the CPU cannot carry
    double bps = 0;
    Window avg{1};
};

struct ProcState {
    const ProcessPlan *plan = nullptr;
    double boost_until = 0;
    int boosts = 0;
};

class Model {
   public:
    explicit Model(const Scenario &s);

    // Takes the samples due up to simulated time t (one per tick, or one now
    // when the tick is 0).
    void advance_to(double t);
    double sample_time() const { return sample_t_; }

    std::vector<CapEntry> caps() const;
    std::vector<FlowEntry> gold_flows() const;
    std::vector<FlowEntry> ss_flows() const;
    PidBpsRecord pid_bps(double t) const;

    struct Outcome {
        int32_t code = 0;
        std::string effect;
    };
    Outcome suggest(const SuggInfo &s, double t);
    Outcome segment(const SegInfo &s, double t);
    std::string boost(const BoostInfo &b, double t);

    const std::vector<FlowState> &flows() const { return flows_; }
    const std::vector<CpuState> &cpus() const { return cpus_; }
    const std::vector<ProcState> &processes() const { return procs_; }
    const FlowState *find_flow(uint32_t hash) const;
    nlohmann::ordered_json snapshot(double t) const;

   private:
    void sample(double t);
    FlowState *find_active(uint32_t hash);

    const Scenario &s_;
    std::vector<FlowState> flows_;
    std::vector<CpuState> cpus_;
    std::vector<ProcState> procs_;
    double sample_t_ = 0;
    long last_tick_ = 0;
};

std::string hash_str(uint32_t h);
const char *sugg_name(uint32_t type);

}  // namespace sim
