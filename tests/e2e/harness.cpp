#include "harness.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include "log_check.h"

namespace e2e {

namespace {

constexpr double kBound = 60;  // real seconds a wait may take before it fails

std::string read_file(const sim::fs::path &p) {
    std::ifstream in(p);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

}  // namespace

// The transcript as the simulator writes it, without reading the file back.
struct Daemon::Records {
    mutable std::mutex mu;
    std::vector<Json> all;
};

Daemon::Daemon(const std::string &scenario, std::vector<std::string> args)
    : records_(std::make_shared<Records>()) {
    const auto *test = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string(test->test_suite_name()) + "." + test->name();
    std::replace(name.begin(), name.end(), '/', '_');
    sim::SessionOptions o;
    o.scenario = scenario.starts_with('{')
                     ? sim::parse_scenario(scenario, "inline")
                     : sim::load_scenario(std::string(ZEBUSR_SCENARIO_DIR) + "/" + scenario);
    o.run_dir = sim::fs::path(ZEBUSR_E2E_RUN_ROOT) / name;
    sim::fs::remove_all(o.run_dir);
    o.daemon = ZEBUSR_DAEMON;
    o.preload = ZEBUSR_PRELOAD;
    o.args = std::move(args);
    o.time_factor = kTimeFactor;
    o.observer = [r = records_](const Json &rec) {
        std::lock_guard lock(r->mu);
        r->all.push_back(rec);
    };
    session_ = std::make_unique<sim::Session>(std::move(o));
    session_->start_daemon();
}

Daemon::~Daemon() {
    EXPECT_EQ(zt::check_log(log()), "") << describe();
}

int Daemon::wait_exit() {
    return session_->wait_exit(kBound).value_or(-1);
}

void Daemon::stop(int sig) {
    signal(sig);
    EXPECT_EQ(wait_exit(), 0) << describe();
}

bool Daemon::wait_until(const std::function<bool()> &cond) {
    auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(kBound);
    while (!cond()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

bool Daemon::wait_log(const std::string &needle, size_t n) {
    return wait_until([&] { return count(log(), needle) >= n; });
}

bool Daemon::wait_answer(const std::string &kind,
                         const std::function<bool(const Json &, const Json &)> &pred, size_t n) {
    return wait_until([&] {
        auto all = answers(kind);
        return size_t(std::count_if(all.begin(), all.end(), [&](const Exchange &e) {
                   return !pred || pred(e.first, e.second);
               })) >= n;
    });
}

std::string Daemon::log() const {
    return read_file(session_->paths().log());
}

std::vector<Json> Daemon::transcript() const {
    std::lock_guard lock(records_->mu);
    return records_->all;
}

std::vector<Exchange> Daemon::answers(const std::string &kind) const {
    std::map<long, Json> asked;
    std::vector<Exchange> out;
    for (const auto &r : transcript()) {
        if (r.value("kind", "") != kind)
            continue;
        long n = r["n"].get<long>();
        if (r["dir"] == "in")
            asked[n] = r;
        else if (r["dir"] == "out" && asked.count(n))
            out.push_back({asked[n], r});
    }
    return out;
}

std::string Daemon::describe() const {
    std::string text = log();
    return "run directory: " + session_->paths().dir.string() + "\ndaemon stderr:\n" +
           read_file(session_->paths().daemon_stderr()) + "\nlog tail:\n" +
           text.substr(text.size() > 3000 ? text.size() - 3000 : 0);
}

size_t count(const std::string &text, const std::string &needle) {
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
        n++;
    return n;
}

std::string missing_in_order(const std::string &text, const std::vector<std::string> &needles) {
    size_t at = 0;
    for (const auto &n : needles) {
        at = text.find(n, at);
        if (at == std::string::npos)
            return n;
        at += n.size();
    }
    return "";
}

}  // namespace e2e
