#include "session.hpp"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>

extern char **environ;

namespace sim {

std::string unique_socket_name() {
    static std::atomic<int> n{0};
    auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
    return "@zebusr-sim-" + std::to_string(::getpid()) + "-" + std::to_string(n++) + "-" +
           std::to_string(stamp);
}

Session::Session(SessionOptions o) : o_(std::move(o)) {
    // A daemon under a slow checker (valgrind) needs more real time per
    // simulated second, or it misses the scenario's early events.
    if (const char *scale = std::getenv("ZEBUSR_SIM_TIME_SCALE"))
        o_.time_factor *= std::max(1.0, std::strtod(scale, nullptr));
    if (o_.tick_ms && !o_.scenario.recorded)  // a recorded run is unpaced
        o_.scenario.tick_ms = *o_.tick_ms;
    server_ = std::make_unique<Server>(
        o_.scenario, ServerOptions{o_.run_dir, unique_socket_name(), o_.time_factor, o_.records,
                                   o_.recorded_run});
    if (o_.observer)
        server_->set_observer(o_.observer);
    thread_ = std::thread([this] { server_->run(); });
}

Session::~Session() {
    kill_daemon();
    server_->stop();
    thread_.join();
}

namespace {

std::vector<std::string> daemon_env(const SessionOptions &o, const Server &s) {
    std::vector<std::string> env;
    std::string asan = "verify_asan_link_order=0";
    for (char **e = environ; *e; ++e) {
        std::string v = *e;
        if (v.rfind("LD_PRELOAD=", 0) == 0 || v.rfind("ZEBUSR_SIM_", 0) == 0)
            continue;
        if (v.rfind("ASAN_OPTIONS=", 0) == 0) {
            asan = v.substr(13) + ":verify_asan_link_order=0";
            continue;
        }
        env.push_back(v);
    }
    env.push_back("ASAN_OPTIONS=" + asan);
    env.push_back("LD_PRELOAD=" + o.preload.string());
    env.push_back("ZEBUSR_SIM_SOCKET=" + s.socket_name());
    env.push_back("ZEBUSR_SIM_RUNDIR=" + s.paths().dir.string());
    env.push_back("ZEBUSR_SIM_TIME_FACTOR=" + std::to_string(o.time_factor));
    if (int nth = o.scenario.thread_fail_nth())
        env.push_back("ZEBUSR_SIM_FAIL_PTHREAD_CREATE=" + std::to_string(nth));
    return env;
}

// ZEBUSR_DAEMON_WRAPPER: words put before the daemon's command (a checker
// such as valgrind), split at blanks and looked up on PATH.
std::vector<std::string> wrapper_words() {
    std::vector<std::string> words;
    const char *w = std::getenv("ZEBUSR_DAEMON_WRAPPER");
    std::istringstream in(w ? w : "");
    for (std::string word; in >> word;) words.push_back(word);
    return words;
}

std::vector<char *> cstrs(std::vector<std::string> &v) {
    std::vector<char *> p;
    for (auto &s : v) p.push_back(s.data());
    p.push_back(nullptr);
    return p;
}

}  // namespace

void Session::start_daemon() {
    if (pid_ > 0)
        throw std::logic_error("daemon already started");
    std::vector<std::string> argv = wrapper_words();
    bool wrapped = !argv.empty();
    argv.push_back(o_.daemon.string());
    argv.insert(argv.end(), o_.args.begin(), o_.args.end());
    std::vector<std::string> env = daemon_env(o_, *server_);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 1, paths().daemon_stdout().c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&fa, 2, paths().daemon_stderr().c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    auto a = cstrs(argv);
    auto e = cstrs(env);
    int rc = wrapped ? posix_spawnp(&pid_, a[0], &fa, nullptr, a.data(), e.data())
                     : posix_spawn(&pid_, a[0], &fa, nullptr, a.data(), e.data());
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0) {
        pid_ = -1;
        throw std::runtime_error("cannot start " + o_.daemon.string() + ": " + std::strerror(rc));
    }
}

void Session::signal(int sig) {
    if (daemon_running())
        ::kill(pid_, sig);
}

std::optional<int> Session::wait_exit(double timeout_s) {
    if (status_ || pid_ <= 0)
        return status_;
    auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout_s);
    for (;;) {
        int st = 0;
        pid_t r = ::waitpid(pid_, &st, WNOHANG);
        if (r == pid_) {
            status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
            return status_;
        }
        if (std::chrono::steady_clock::now() >= end)
            return std::nullopt;
        ::usleep(2000);
    }
}

bool Session::recorded_done() {
    if (!o_.scenario.recorded)
        return false;
    return server_->recorded_done() || (pid_ > 0 && wait_exit(0));
}

void Session::kill_daemon() {
    if (!daemon_running())
        return;
    ::kill(pid_, SIGKILL);
    wait_exit(10);
}

}  // namespace sim
