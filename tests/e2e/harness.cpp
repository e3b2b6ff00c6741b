#include "harness.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

namespace e2e {

namespace fs = std::filesystem;

sim::Scenario scenario_file(const std::string& name) {
  return sim::load_scenario(std::string(ZEBUSR_SCENARIO_DIR) + "/" + name);
}

sim::Scenario scenario_json(const std::string& text) { return sim::parse_scenario(text, "inline scenario"); }

std::optional<LogLine> parse_log_line(const std::string& text) {
  static const std::regex re(R"(^( \d\d:\d\d:\d\d\.\d{6}) ( *)(\S+)\(\):( *)(\d+) \((HIGH|ERR|MED|LOW)\): (.*)$)");
  std::smatch m;
  if (!std::regex_match(text, m, re)) return std::nullopt;
  // %40s and %3u: padding plus text fill the width exactly, or the text is wider.
  auto fills = [](size_t pad, size_t len, size_t width) { return pad + len == width || (pad == 0 && len > width); };
  if (!fills(m.length(2), m.length(3), 40) || !fills(m.length(4), m.length(5), 3)) return std::nullopt;
  return LogLine{m.str(1), m.str(3), unsigned(std::stoul(m.str(5))), m.str(6), m.str(7)};
}

namespace {

std::vector<std::string> read_lines(const fs::path& p) {
  std::vector<std::string> out;
  std::ifstream in(p);
  std::string line;
  while (std::getline(in, line)) out.push_back(line);
  return out;
}

std::vector<Json> read_json_lines(const fs::path& p) {
  std::vector<Json> out;
  for (const auto& l : read_lines(p)) {
    if (l.empty()) continue;
    auto j = Json::parse(l, nullptr, false);
    if (!j.is_discarded()) out.push_back(std::move(j));  // a line still being written
  }
  return out;
}

std::string test_name() {
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string n = info ? std::string(info->test_suite_name()) + "." + info->name() : "no-test";
  for (char& c : n)
    if (c == '/') c = '_';
  return n;
}

}  // namespace

DaemonRun::DaemonRun(sim::Scenario s) : scenario_(std::move(s)) {}

DaemonRun::~DaemonRun() = default;

void DaemonRun::start() {
  sim::SessionOptions o;
  o.scenario = scenario_;
  o.run_dir = fs::path(ZEBUSR_E2E_RUN_ROOT) / test_name();
  fs::remove_all(o.run_dir);
  o.daemon = ZEBUSR_DAEMON;
  o.preload = ZEBUSR_PRELOAD;
  o.args = options.args;
  o.time_factor = options.time_factor;
  o.tick_ms = options.tick_ms;
  session_ = std::make_unique<sim::Session>(std::move(o));
  session_->start_daemon();
}

void DaemonRun::signal(int sig) { session_->signal(sig); }

int DaemonRun::wait_exit(std::optional<double> timeout_s) {
  auto st = session_->wait_exit(bound(timeout_s));
  return st ? *st : -1;
}

bool DaemonRun::wait_until(std::function<bool()> cond, std::optional<double> timeout_s) {
  auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(bound(timeout_s));
  while (!cond()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

bool DaemonRun::wait_log(std::string_view needle, int count, std::optional<double> timeout_s) {
  return wait_until(
      [&] {
        int n = 0;
        for (const auto& l : log_lines()) n += l.find(needle) != std::string::npos;
        return n >= count;
      },
      timeout_s);
}

bool DaemonRun::wait_answer(const std::string& kind, std::function<bool(const Json&, const Json&)> pred, int count,
                      std::optional<double> timeout_s) {
  return wait_until(
      [&] {
        int n = 0;
        for (const auto& [in, out] : answers(kind)) n += !pred || pred(in, out);
        return n >= count;
      },
      timeout_s);
}

bool DaemonRun::wait_csv_rows(size_t rows, std::optional<double> timeout_s) {
  return wait_until([&] { return csv_lines().size() >= rows + 1; }, timeout_s);
}

bool DaemonRun::wait_sim_time(double sim_s, std::optional<double> timeout_s) {
  return wait_until([&] { return session_->sim_now() >= sim_s; }, timeout_s);
}

std::vector<std::string> DaemonRun::log_lines() const { return read_lines(paths().log()); }

std::vector<LogLine> DaemonRun::log_entries() const {
  std::vector<LogLine> out;
  for (const auto& l : log_lines())
    if (auto e = parse_log_line(l)) out.push_back(*e);
  return out;
}

std::vector<std::string> DaemonRun::csv_lines() const { return read_lines(paths().csv()); }

std::vector<Json> DaemonRun::transcript() const { return read_json_lines(paths().transcript()); }

std::vector<Json> DaemonRun::requests(const std::string& kind) const {
  std::vector<Json> out;
  for (auto& r : transcript())
    if (r.value("dir", "") == "in" && r.value("kind", "") == kind) out.push_back(r);
  return out;
}

std::vector<std::pair<Json, Json>> DaemonRun::answers(const std::string& kind) const {
  std::map<long, Json> in;
  std::vector<std::pair<Json, Json>> out;
  for (auto& r : transcript()) {
    if (r.value("kind", "") != kind) continue;
    if (r.value("dir", "") == "in") in[r["n"].get<long>()] = r;
    if (r.value("dir", "") == "out" && in.count(r["n"].get<long>())) out.push_back({in[r["n"].get<long>()], r});
  }
  return out;
}

std::vector<Json> DaemonRun::preload_records(const std::string& call) const {
  std::vector<Json> out;
  for (auto& r : read_json_lines(paths().preload()))
    if (call.empty() || r.value("call", "") == call) out.push_back(r);
  return out;
}

std::vector<double> DaemonRun::sleeps(std::optional<unsigned> seconds) const {
  std::vector<double> out;
  for (auto& r : preload_records("sleep"))
    if (!seconds || r["seconds"].get<double>() == *seconds) out.push_back(r["seconds"].get<double>());
  return out;
}

std::vector<double> DaemonRun::receive_timeouts() const {
  std::vector<double> out;
  for (auto& r : preload_records("SO_RCVTIMEO")) out.push_back(r["seconds"].get<double>());
  return out;
}

Json DaemonRun::device() { return Json::parse(session_->server().snapshot().dump()); }

std::string DaemonRun::daemon_stderr() const {
  std::ifstream in(paths().daemon_stderr());
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

std::string DaemonRun::describe() const {
  std::ostringstream o;
  o << "run directory: " << paths().dir.string() << "\ndaemon stderr:\n" << daemon_stderr() << "\nlog tail:\n";
  auto lines = log_lines();
  for (size_t i = lines.size() > 20 ? lines.size() - 20 : 0; i < lines.size(); ++i) o << lines[i] << '\n';
  return o.str();
}

}  // namespace e2e
