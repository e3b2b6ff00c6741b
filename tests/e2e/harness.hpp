// Whole-process tests: the real zebusrd under the device simulator, judged by
// what the run leaves behind (exit status, log, CSV, transcript, preload calls).
#pragma once

#include <signal.h>

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "session.hpp"

namespace e2e {

using Json = nlohmann::ordered_json;
using Exchange = std::pair<Json, Json>;  // a request and its answer (sim/README.md)

// Real seconds per simulated second. Every sync reply is one tick of simulated
// time whatever the machine's speed, so the factor only has to keep the
// 3-second receive time-out (0.3 s real) clear of scheduling delays on two
// busy cores under ASan.
inline constexpr double kTimeFactor = 0.1;

class Daemon {
   public:
    // `scenario` is a file under scenarios/, or inline JSON when it starts with '{'.
    explicit Daemon(const std::string &scenario, std::vector<std::string> args = {});
    // Holds the whole log to the table of lines (log_check.h).
    ~Daemon();

    void signal(int sig) { session_->signal(sig); }
    int wait_exit();               // exit status, or -1 if still running at the bound
    void stop(int sig = SIGTERM);  // expects exit status 0
    bool wait_until(const std::function<bool()> &cond);  // bounded; polls
    bool wait_log(const std::string &needle, size_t count = 1);
    // A recorded scenario's run has ended by itself (steps used up or daemon gone).
    bool wait_recorded_done() {
        return wait_until([this] { return session_->recorded_done(); });
    }
    bool wait_answer(const std::string &kind,
                     const std::function<bool(const Json &in, const Json &out)> &pred = {},
                     size_t count = 1);

    // The log as written: a message stays whole even where two threads' lines mix.
    std::string log() const;
    std::vector<Json> transcript() const;
    std::vector<Exchange> answers(const std::string &kind) const;
    std::string describe() const;  // for failure messages

   private:
    struct Records;
    std::shared_ptr<Records> records_;
    std::unique_ptr<sim::Session> session_;
};

size_t count(const std::string &text, const std::string &needle);
// The first needle not found after the one before it; "" when all are in order.
std::string missing_in_order(const std::string &text, const std::vector<std::string> &needles);

}  // namespace e2e
