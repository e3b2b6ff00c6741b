// The simulator's socket side: accepts the preload's connections, answers
// each datagram through the Module, paces sync replies on the tick, rewrites
// the table files before each sync reply and keeps the transcript.
//
// Time: while the daemon syncs without a break, every sync reply comes exactly
// one tick after the one before, whatever the wall clock does: the clock waits
// for the wall when the daemon is fast, and stops at the next reply's tick
// (the cap) when it is slow. Outside such a run it follows the wall clock.
#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "model.hpp"
#include "module.hpp"
#include "recorded_module.hpp"
#include "recorded_tables.hpp"
#include "scenario.hpp"

namespace sim {

namespace fs = std::filesystem;

struct ServerOptions {
    fs::path run_dir;
    std::string socket_name;   // "@name" for the abstract namespace, else a path
    double time_factor = 1.0;  // real seconds per simulated second
    bool records = true;       // transcript and tables.jsonl; off for benchmarks
    size_t recorded_run = 0;   // the run a recorded scenario serves
};

// Paths inside a run directory.
struct RunPaths {
    fs::path dir;
    fs::path table(const std::string &name) const;  // "caps", "flows", "ss_flows"
    fs::path log() const { return dir / "data/vendor/zebusr/zebusr_log.txt"; }
    fs::path csv() const { return dir / "data/vendor/zebusr/zebusr_caps.csv"; }
    fs::path transcript() const { return dir / "transcript.jsonl"; }
    fs::path tables() const { return dir / "tables.jsonl"; }
    fs::path preload() const { return dir / "preload.jsonl"; }
    fs::path daemon_stdout() const { return dir / "daemon.stdout"; }
    fs::path daemon_stderr() const { return dir / "daemon.stderr"; }
    // Shared simulated clock, read by the preload's sleep(): i64 start
    // (CLOCK_MONOTONIC ns), f64 time factor, i64 held-back simulated ns, i64 cap
    // (simulated ns the clock stops at; INT64_MAX for none).
    fs::path clock() const { return dir / "clock"; }
};

class Server {
   public:
    // Prepares the run directory and binds the socket; throws std::runtime_error.
    Server(const Scenario &s, ServerOptions o);
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Called on the server thread for every transcript record; set before run().
    void set_observer(std::function<void(const nlohmann::ordered_json &)> f) {
        observer_ = std::move(f);
    }
    void run();   // until stop()
    void stop();  // from any thread

    double sim_now() const;
    double to_real_seconds(double sim_s) const { return sim_s * o_.time_factor; }
    const RunPaths &paths() const { return paths_; }
    const std::string &socket_name() const { return o_.socket_name; }
    nlohmann::ordered_json snapshot();  // device state, thread-safe
    uint64_t syncs_answered() const { return syncs_.load(std::memory_order_relaxed); }
    // While on, sync replies wait: the client blocks in its receive, using no
    // CPU, and goes on when they are released (benchmark rounds).
    void hold_syncs(bool on) { hold_.store(on); }
    // A recorded scenario's run is over: both sides wait for steps that are used up.
    bool recorded_done() const { return recorded_done_.load(); }
    nlohmann::ordered_json recorded_progress();  // thread-safe; null when not recorded

   private:
    struct Conn {
        int fd;
        int id;
    };
    struct Pending {
        long tick;  // the reply's tick number
        int fd;
        int conn;
        Response resp;
        nlohmann::ordered_json in;
    };

    void prepare_tables();
    void write_tables(double t);
    void publish(const Response &r, double t);  // the tables a sync reply stands for
    void record(nlohmann::ordered_json rec);
    void accept_one();
    bool serve(Conn &c);
    void send(int fd, int conn, const Response &r, const nlohmann::ordered_json &in, double t);
    void send_due();
    void note_restarts();  // a transcript event for each restart passed
    std::chrono::steady_clock::time_point real_time_of(double sim_s) const;
    double wall_sim() const;  // simulated time by the wall clock, before the cap
    double hold_to(double sim_s);
    void set_cap(std::optional<double> sim_s);
    void end_run();  // the syncs broke off: the clock follows the wall again
    std::optional<double> current_cap() const;
    void share_clock();

    const Scenario &s_;
    ServerOptions o_;
    RunPaths paths_;
    Model model_;
    Module module_;
    std::unique_ptr<RecordedModule> recorded_;
    std::unique_ptr<RecordedTableFiles> recorded_files_;
    std::atomic<bool> recorded_done_{false};
    std::mutex mu_;
    std::ofstream transcript_, tables_;
    std::function<void(const nlohmann::ordered_json &)> observer_;
    std::chrono::steady_clock::time_point start_;
    int listen_fd_ = -1;
    int stop_fd_[2] = {-1, -1};
    std::vector<Conn> conns_;
    std::vector<Pending> pending_;
    std::vector<int> table_fds_;  // caps, flows, ss_flows; -1 while absent
    int64_t *held_ns_ = nullptr;  // in the shared clock page
    int64_t *cap_ns_ = nullptr;   // likewise
    void *clock_page_ = nullptr;
    long last_tick_ = -1;             // tick of the last sync reply
    std::optional<int> steady_conn_;  // the connection whose syncs run on without a break
    int next_conn_ = 1;
    long next_req_ = 1;
    std::atomic<uint64_t> syncs_{0};
    std::atomic<bool> hold_{false};
    std::vector<Pending> held_;
    std::set<size_t> restarts_noted_;
};

}  // namespace sim
