// Human-readable account of a run: one line per decision as it is answered,
// and a closing summary.
#pragma once

#include <cstdio>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

namespace sim {

class Reporter {
   public:
    explicit Reporter(std::FILE *out, bool live = true) : out_(out), live_(live) {}

    void on_record(const nlohmann::ordered_json &rec);  // Session observer
    void note(double t, const std::string &text);       // lines of the runner itself
    void summary(const nlohmann::ordered_json &device, double sim_s, int exit_status);

    // The decision line for an answered request, or "" when it is not one.
    static std::string decision_line(const nlohmann::ordered_json &in,
                                     const nlohmann::ordered_json &out);

   private:
    void count(const nlohmann::ordered_json &in, const nlohmann::ordered_json &out);
    void print(double t, const std::string &text);

    std::FILE *out_;
    bool live_;
    std::mutex mu_;
    std::map<long, nlohmann::ordered_json> pending_;
    std::map<std::string, int> counts_;
};

}  // namespace sim
