// zebusr-sim: runs the daemon against a simulated device described by a
// scenario file, printing each decision as the simulated kernel answers it.
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "recorded.hpp"
#include "replay.hpp"
#include "report.hpp"
#include "runview.hpp"
#include "scenario.hpp"
#include "session.hpp"

namespace fs = std::filesystem;

namespace {

const char kUsage[] =
    "usage: zebusr-sim [options] SCENARIO.json [-- DAEMON [ARG...]]\n"
    "  -o, --out DIR         run directory (default: sim-out/<scenario>-<time>)\n"
    "  -f, --time-factor F   real seconds per simulated second (default 1)\n"
    "      --tick-ms N       module tick in simulated ms (default: the scenario's)\n"
    "      --duration S      simulated seconds to run (default: the scenario's)\n"
    "      --signal S:NAME   send USR1, USR2, INT or TERM at simulated second S (repeatable)\n"
    "      --preload PATH    preload library (default: next to this program)\n"
    "      --check           only check the scenario\n"
    "      --scorecard       also print the scorecard: the device with the daemon against\n"
    "                        the device left alone\n"
    "      --no-report       no picture (report.png) of the run\n"
    "  -q, --quiet           no line per decision\n"
    "Without a DAEMON the simulator serves alone and prints the environment to start one with.\n"
    "At the end of the duration the daemon gets SIGTERM; with a recorded scenario, once the\n"
    "run's steps are used up; a daemon given no arguments gets \"verbose\" if the logged one was.\n";

struct Timed {
    double at;
    int sig;
    std::string name;
};

struct Args {
    std::string scenario;
    fs::path out;
    double factor = 1;
    std::optional<double> tick_ms;
    std::optional<double> duration;
    std::vector<Timed> signals;
    fs::path preload;
    bool check = false;
    bool quiet = false;
    bool scorecard = false;
    bool report = true;
    size_t run = 0;  // of a recorded scenario
    std::vector<std::string> daemon;
};

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

int signal_number(const std::string &n) {
    if (n == "USR1" || n == "SIGUSR1")
        return SIGUSR1;
    if (n == "USR2" || n == "SIGUSR2")
        return SIGUSR2;
    if (n == "INT" || n == "SIGINT")
        return SIGINT;
    if (n == "TERM" || n == "SIGTERM")
        return SIGTERM;
    throw UsageError("unknown signal " + n);
}

double number(const std::string &opt, const std::string &v) {
    try {
        size_t used = 0;
        double d = std::stod(v, &used);
        if (used == v.size() && d >= 0)
            return d;
    } catch (const std::exception &) {
    }
    throw UsageError(opt + " needs a non-negative number, not \"" + v + "\"");
}

Args parse_args(int argc, char **argv) {
    Args a;
    for (int i = 1; i < argc; ++i) {
        std::string s = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc)
                throw UsageError(s + " needs a value");
            return argv[++i];
        };
        if (s == "--") {
            for (++i; i < argc; ++i) a.daemon.push_back(argv[i]);
        } else if (s == "-o" || s == "--out") {
            a.out = value();
        } else if (s == "-f" || s == "--time-factor") {
            a.factor = number(s, value());
            if (a.factor <= 0)
                throw UsageError("--time-factor must be above 0");
        } else if (s == "--tick-ms") {
            a.tick_ms = number(s, value());
        } else if (s == "--duration") {
            a.duration = number(s, value());
        } else if (s == "--signal") {
            std::string v = value();
            auto c = v.find(':');
            if (c == std::string::npos)
                throw UsageError("--signal wants SECONDS:NAME, not " + v);
            a.signals.push_back(
                {number(s, v.substr(0, c)), signal_number(v.substr(c + 1)), v.substr(c + 1)});
        } else if (s == "--run") {
            double k = number(s, value());
            if (k != double(size_t(k)))
                throw UsageError("--run needs a whole number");
            a.run = size_t(k);
        } else if (s == "--preload") {
            a.preload = value();
        } else if (s == "--check") {
            a.check = true;
        } else if (s == "--scorecard") {
            a.scorecard = true;
        } else if (s == "--no-report") {
            a.report = false;
        } else if (s == "-q" || s == "--quiet") {
            a.quiet = true;
        } else if (s == "-h" || s == "--help") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        } else if (!s.empty() && s[0] == '-') {
            throw UsageError("unknown option " + s);
        } else if (a.scenario.empty()) {
            a.scenario = s;
        } else {
            throw UsageError("unexpected argument " + s + " (put the daemon after --)");
        }
    }
    if (a.scenario.empty())
        throw UsageError("no scenario file given");
    return a;
}

fs::path default_out(const std::string &name) {
    char stamp[32];
    std::time_t now = std::time(nullptr);
    std::strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", std::localtime(&now));
    return fs::path("sim-out") / (name + "-" + stamp);
}

fs::path self_dir() {
    return fs::read_symlink("/proc/self/exe").parent_path();
}

volatile sig_atomic_t g_interrupted = 0;
void on_interrupt(int) {
    g_interrupted = 1;
}

void sleep_real(double s) {
    std::this_thread::sleep_for(std::chrono::duration<double>(s));
}

void print_device(const sim::Scenario &s, size_t run) {
    std::printf("Scenario %s (%s): %s\n", s.name.c_str(), s.file.c_str(), s.description.c_str());
    if (s.recorded) {
        const sim::RecordedRun &r = s.recorded->runs.at(run);
        std::printf(
            "  recorded run %zu of %zu: log lines %ld-%ld, %zu steering and %zu core steps\n", run,
            s.recorded->runs.size(), r.first_line, r.last_line, r.steering.size(), r.core.size());
        std::fflush(stdout);
        return;
    }
    std::printf("  device: 8 CPUs, max pps");
    for (int c = 0; c < sim::kCpus; ++c) std::printf(" cpu%d=%.0f", c, s.cpus[c].max_pps);
    std::printf("\n  %zu flow(s), %zu process(es), %zu fault(s), tick %.0f ms\n", s.flows.size(),
                s.processes.size(), s.faults.size(), s.tick_ms);
    for (const auto &f : s.flows)
        std::printf("    flow %-10s %-16s on cpu%d from %.1fs%s\n", sim::hash_str(f.hash).c_str(),
                    f.name.c_str(), f.cpu, f.start_s, f.slow_start ? " (slow start)" : "");
    for (const auto &p : s.processes)
        std::printf("    pid  %-10u %-16s from %.1fs\n", p.pid, p.name.c_str(), p.start_s);
    std::fflush(stdout);
}

sim::SessionOptions session_options(const Args &a, const sim::Scenario &sc, sim::Reporter &rep) {
    sim::SessionOptions o;
    o.scenario = sc;
    o.run_dir = a.out.empty() ? default_out(sc.name) : a.out;
    o.time_factor = a.factor;
    o.tick_ms = a.tick_ms;
    o.recorded_run = a.run;
    o.preload = a.preload.empty() ? self_dir() / "libzebusr_preload.so" : a.preload;
    if (!a.daemon.empty()) {
        o.daemon = a.daemon[0];
        o.args.assign(a.daemon.begin() + 1, a.daemon.end());
        // Any argument turns verbose logging on, as the logged daemon had it.
        if (sc.recorded && o.args.empty() && sc.recorded->runs.at(a.run).verbose)
            o.args.push_back("verbose");
    }
    o.observer = [&rep](const nlohmann::ordered_json &r) { rep.on_record(r); };
    return o;
}

// Until the duration (a recorded run: until its steps are used up), sending
// the timed signals; then stops the daemon. Its exit status, or -1.
int serve_until_done(const Args &a, sim::Session &ses, sim::Reporter &rep, double duration) {
    bool recorded = bool(ses.scenario().recorded);
    auto going = [&] {
        if (g_interrupted)
            return false;
        if (recorded)
            return !ses.recorded_done();
        return ses.sim_now() < duration && (a.daemon.empty() || !ses.wait_exit(0));
    };
    auto pending = a.signals;
    while (going()) {
        for (auto it = pending.begin(); it != pending.end();) {
            if (ses.sim_now() < it->at) {
                ++it;
                continue;
            }
            rep.note(ses.sim_now(), "SIGNAL SIG" + it->name + " sent to the daemon");
            ses.signal(it->sig);
            it = pending.erase(it);
        }
        sleep_real(0.005);
    }
    if (a.daemon.empty())
        return -1;
    if (ses.daemon_running()) {
        rep.note(ses.sim_now(), recorded ? "SIGNAL SIGTERM sent to the daemon (recorded run done)"
                                         : "SIGNAL SIGTERM sent to the daemon (end of run)");
        ses.signal(SIGTERM);
    }
    auto st = ses.wait_exit(5);
    if (!st) {
        rep.note(ses.sim_now(), "daemon did not stop within 5 s; killed");
        ses.kill_daemon();
        st = ses.exit_status();
    }
    int status = st.value_or(-1);
    rep.note(ses.sim_now(), "daemon exited with status " + std::to_string(status));
    return status;
}

// The picture and the scorecard replay the device tick by tick from the
// transcript, so both ways are sampled alike.
fs::path picture_and_scorecard(const Args &a, const sim::Scenario &sc, const sim::RunPaths &p,
                               double duration) {
    auto decisions = sim::read_decisions(p.transcript());
    auto with = sim::replay(sc, decisions, duration);
    std::string card = sim::scorecard(sc, decisions, sim::replay(sc, {}, duration), with);
    std::ofstream(p.dir / "scorecard.txt") << card;
    if (a.scorecard)
        std::printf("\n%s", card.c_str());
    fs::path png;
    std::string why;
    if (a.report && (png = sim::write_picture(p.dir, sc, decisions, with, why)).empty())
        std::printf("\nNo picture of the run: %s\n", why.c_str());
    return png;
}

void print_outputs(const sim::RunPaths &p, bool scorecard, const fs::path &png) {
    std::printf(
        "\nOutput folder: %s\n  log         %s\n  csv         %s\n  transcript  %s\n  tables      "
        "%s\n"
        "  preload     %s\n",
        fs::absolute(p.dir).c_str(), fs::relative(p.log(), p.dir).c_str(),
        fs::relative(p.csv(), p.dir).c_str(), p.transcript().filename().c_str(),
        p.tables().filename().c_str(), p.preload().filename().c_str());
    if (scorecard)
        std::printf("  scorecard   scorecard.txt\n");
    if (!png.empty())
        std::printf("  picture     %s\n", fs::absolute(png).c_str());
}

int run(const Args &a, const sim::Scenario &sc) {
    double duration = a.duration.value_or(sc.duration_s);
    sim::Reporter rep(stdout, !a.quiet);
    sim::SessionOptions o = session_options(a, sc, rep);
    print_device(sc, a.run);
    sim::Session ses(o);
    ::signal(SIGINT, on_interrupt);
    ::signal(SIGTERM, on_interrupt);
    if (a.daemon.empty()) {
        std::printf(
            "Simulator serving for %s. Start the daemon with:\n"
            "  LD_PRELOAD=%s ZEBUSR_SIM_SOCKET=%s ZEBUSR_SIM_RUNDIR=%s ZEBUSR_SIM_TIME_FACTOR=%g "
            "ASAN_OPTIONS=verify_asan_link_order=0 zebusrd\n",
            sc.recorded ? "the recorded run"
                        : (std::to_string(duration) + " simulated seconds").c_str(),
            fs::absolute(o.preload).c_str(), ses.server().socket_name().c_str(),
            fs::absolute(ses.paths().dir).c_str(), a.factor);
    } else {
        std::printf("Starting %s under the simulator (time factor %g)\n\n", o.daemon.c_str(),
                    a.factor);
        ses.start_daemon();
    }
    std::fflush(stdout);
    int status = serve_until_done(a, ses, rep, duration);
    const auto &p = ses.paths();
    if (sc.recorded) {  // no device model: what is left is how far the run went
        auto progress = ses.server().recorded_progress();
        std::printf("\nRecorded run %zu: %s\n", a.run, progress.dump().c_str());
        std::ofstream(p.dir / "summary.json") << progress.dump(2) << '\n';
        print_outputs(p, false, {});
        return 0;
    }
    auto device = ses.server().snapshot();
    rep.summary(device, ses.sim_now(), status);
    std::ofstream(p.dir / "summary.json") << device.dump(2) << '\n';
    print_outputs(p, true, picture_and_scorecard(a, sc, p, duration));
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    Args a;
    sim::Scenario sc;
    try {
        a = parse_args(argc, argv);
        sc = sim::load_scenario(a.scenario);
    } catch (const UsageError &e) {
        std::fprintf(stderr, "zebusr-sim: %s\n%s", e.what(), kUsage);
        return 2;
    } catch (const sim::ScenarioError &e) {
        std::fprintf(stderr, "zebusr-sim: %s\n", e.what());
        return 2;
    }
    if (sc.recorded && a.run >= sc.recorded->runs.size()) {
        std::fprintf(stderr, "zebusr-sim: %s has %zu recorded run(s); there is no run %zu\n",
                     a.scenario.c_str(), sc.recorded->runs.size(), a.run);
        return 2;
    }
    if (a.check) {
        std::printf("%s: scenario \"%s\" is valid\n", a.scenario.c_str(), sc.name.c_str());
        return 0;
    }
    try {
        return run(a, sc);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "zebusr-sim: %s\n", e.what());
        return 1;
    }
}
