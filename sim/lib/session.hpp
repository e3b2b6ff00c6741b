// One run: the simulator on its own thread and the real daemon started
// under the preload library, both in one run directory.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "scenario.hpp"
#include "server.hpp"

namespace sim {

struct SessionOptions {
    Scenario scenario;
    fs::path run_dir;
    fs::path daemon;                // the zebusrd binary
    fs::path preload;               // libzebusr_preload.so
    std::vector<std::string> args;  // daemon arguments
    double time_factor = 1.0;
    std::optional<double> tick_ms;  // overrides the scenario's
    bool records = true;            // transcript and tables.jsonl
    size_t recorded_run = 0;        // the run a recorded scenario serves
    std::function<void(const nlohmann::ordered_json &)> observer;  // runs on the simulator thread
};

class Session {
   public:
    explicit Session(SessionOptions o);  // starts the simulator; throws on setup errors
    ~Session();                          // kills a daemon still running, stops the simulator
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    void start_daemon();
    void signal(int sig);
    // Exit status (128 + signal when killed), or nothing if still running after timeout_s.
    std::optional<int> wait_exit(double timeout_s);
    bool daemon_running() const { return pid_ > 0 && !status_; }
    std::optional<int> exit_status() const { return status_; }
    void kill_daemon();
    // A recorded scenario's run is over: both sides' steps are used up, or
    // the daemon has exited (then reaped). Always false for other scenarios.
    bool recorded_done();

    pid_t pid() const { return pid_; }
    double sim_now() const { return server_->sim_now(); }
    double time_factor() const { return o_.time_factor; }
    const RunPaths &paths() const { return server_->paths(); }
    const Scenario &scenario() const { return o_.scenario; }
    Server &server() { return *server_; }

   private:
    SessionOptions o_;
    std::unique_ptr<Server> server_;
    std::thread thread_;
    pid_t pid_ = -1;
    std::optional<int> status_;
};

// A fresh abstract socket name for this process.
std::string unique_socket_name();

}  // namespace sim
