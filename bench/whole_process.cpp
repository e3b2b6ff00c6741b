// Whole-process benchmark: the real zebusrd against the simulator answering
// every sync at once, on full tables (8 CPUs, 128 gold flows, 128 slow-start
// flows) arranged so that every policy scans everything and, once the first
// cycles have turned segmentation off for the fast flows, nothing but syncs
// is sent. Beside it runs the floor (cycle_floor): only the system calls a
// cycle must make. Rounds alternate: the simulator holds one side's sync
// reply, so it waits in its receive, while the other runs;
// CPU time is the kernel's account of the evaluation thread (the floor's
// only thread), so neither side's waiting for the simulator counts.
//
//   process_bench [--rounds N] [--round-s S] [--out DIR] [--json FILE]
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "scenario.hpp"
#include "session.hpp"

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;

namespace {

constexpr int kFlows = 128;

// Silver CPUs keep 30000 pps spare: never loaded (8000), and every one is
// examined for each gold flow, which never fits (20000 + 20000 headroom).
// Gold CPUs all keep 360000 spare, so no balance move pays. Every flow is in
// slow start at 400 Mbps: turned off once in the second cycle, then only
// sampled and judged.
std::string full_tables() {
    json cpus = json::array(), flows = json::array();
    for (int c = 0; c < 8; ++c)
        cpus.push_back(
            {{"cpu", c}, {"max_pps", c < 4 ? 100000 : 1000000}, {"load_pps", c < 4 ? 70000 : 0}});
    for (int i = 0; i < kFlows; ++i) {
        char h[16];
        std::snprintf(h, sizeof h, "0x%x", 0x10000 + i);
        flows.push_back({{"hash", h},
                         {"name", "flow" + std::to_string(i)},
                         {"cpu", 4 + i % 4},
                         {"pps", 20000},
                         {"bps", 400000000},
                         {"slow_start", true}});
    }
    return json{{"name", "full-tables"},
                {"duration_s", 1e6},
                {"tick_ms", 0},
                {"cpus", cpus},
                {"flows", flows}}
        .dump();
}

struct Counters {
    uint64_t allocs[8];
    int32_t tids[8];
};

void sleep_s(double s) {
    std::this_thread::sleep_for(std::chrono::duration<double>(s));
}

double now_s() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

uint64_t thread_cpu_ns(pid_t pid, int tid) {
    std::ifstream f("/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/schedstat");
    uint64_t ns = 0;
    f >> ns;
    return ns;
}

uint64_t size_of(const fs::path &p) {
    std::error_code ec;
    auto n = fs::file_size(p, ec);
    return ec ? 0 : n;
}

uint64_t newlines(const fs::path &p, uint64_t from, uint64_t to) {
    int fd = ::open(p.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return 0;
    std::vector<char> buf(1 << 20);
    uint64_t n = 0;
    for (uint64_t at = from; at < to;) {
        ssize_t r = ::pread(fd, buf.data(), std::min<uint64_t>(buf.size(), to - at), off_t(at));
        if (r <= 0)
            break;
        n += uint64_t(std::count(buf.begin(), buf.begin() + r, '\n'));
        at += uint64_t(r);
    }
    ::close(fd);
    return n;
}

std::string status_field(pid_t pid, const std::string &key) {
    std::ifstream f("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(f, line);)
        if (line.rfind(key + ":", 0) == 0) {
            std::istringstream in(line.substr(key.size() + 1));
            std::string v;
            in >> v;
            return v;
        }
    return "?";
}

struct Side {
    std::unique_ptr<sim::Session> ses;
    fs::path log;
    Counters *counters = nullptr;
    int tid = 0;
};

struct Sample {
    double wall;
    uint64_t cpu_ns, cycles, allocs_eval, allocs_all, log_bytes;
};

Sample sample(const Side &s) {
    Sample x{
        now_s(),       thread_cpu_ns(s.ses->pid(), s.tid), s.ses->server().syncs_answered(), 0, 0,
        size_of(s.log)};
    if (s.counters) {
        x.allocs_eval = __atomic_load_n(&s.counters->allocs[1], __ATOMIC_RELAXED);
        for (uint64_t a : s.counters->allocs) x.allocs_all += a;
    }
    return x;
}

struct Round {
    double ns_per_cycle, cycles_per_s;
    uint64_t cycles, allocs_eval, allocs_all, log_bytes, log_lines;
};

Round measure(Side &s, double secs) {
    s.ses->server().hold_syncs(false);
    sleep_s(0.05);
    Sample a = sample(s);
    sleep_s(secs);
    Sample b = sample(s);
    s.ses->server().hold_syncs(true);
    Round r{};
    r.cycles = b.cycles - a.cycles;
    double c = double(std::max<uint64_t>(r.cycles, 1));
    r.ns_per_cycle = double(b.cpu_ns - a.cpu_ns) / c;
    r.cycles_per_s = double(r.cycles) / (b.wall - a.wall);
    r.allocs_eval = b.allocs_eval - a.allocs_eval;
    r.allocs_all = b.allocs_all - a.allocs_all;
    r.log_bytes = b.log_bytes - a.log_bytes;
    r.log_lines = newlines(s.log, a.log_bytes, b.log_bytes);
    // The stream keeps its offset; the file only keeps its size.
    if (::truncate(s.log.c_str(), 0) != 0 && errno != ENOENT)
        std::perror("truncate");
    return r;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    size_t n = v.size();
    return n == 0 ? 0 : n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// Lengths of the writes of one steady cycle of a verbose log: the lines
// between the last two sync lines, an empty line joined to the line before
// it (a message that ends in its own newline is one write).
std::vector<size_t> cycle_line_lengths(const fs::path &log) {
    std::ifstream f(log, std::ios::binary);
    uint64_t size = size_of(log), keep = uint64_t(16) << 20;
    f.seekg(std::streamoff(size > keep ? size - keep : 0));
    std::vector<std::string> lines;
    for (std::string l; std::getline(f, l);) lines.push_back(l);
    if (!lines.empty())
        lines.pop_back();  // maybe cut short
    std::vector<size_t> syncs;
    for (size_t i = 0; i < lines.size(); ++i)
        if (lines[i].find("SYNC START") != std::string::npos)
            syncs.push_back(i);
    std::vector<size_t> lens;
    if (syncs.size() < 2)
        return lens;
    for (size_t i = syncs[syncs.size() - 2]; i < syncs.back(); ++i) {
        if (lines[i].empty() && !lens.empty())
            lens.back() += 1;
        else
            lens.push_back(lines[i].size() + 1);
    }
    return lens;
}

struct Options {
    int rounds = 7;
    double round_s = 1.0;
    fs::path out = "/tmp/zebusr-process-bench";
    fs::path json_out;
};

Side start(const sim::Scenario &sc, const fs::path &dir, const fs::path &program,
           std::vector<std::string> args, const std::string &preload, bool count) {
    fs::remove_all(dir);
    sim::SessionOptions o;
    o.scenario = sc;
    o.run_dir = dir;
    o.daemon = program;
    o.args = std::move(args);
    o.preload = preload;
    o.records = false;
    Side s;
    s.ses = std::make_unique<sim::Session>(o);
    Counters *page = nullptr;
    if (count) {
        int fd = ::open((dir / "counters").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0 || ::ftruncate(fd, 4096) != 0)
            throw std::runtime_error("counters file");
        void *m = ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        ::close(fd);
        if (m == MAP_FAILED)
            throw std::runtime_error("counters mapping");
        page = static_cast<Counters *>(m);
    }
    s.ses->start_daemon();
    s.counters = page;
    double until = now_s() + 10;
    while (now_s() < until && s.ses->server().syncs_answered() < 200) sleep_s(0.01);
    if (s.ses->server().syncs_answered() < 200)
        throw std::runtime_error(program.string() + " did not reach 200 cycles in 10 s; see " +
                                 dir.string());
    s.tid = page ? __atomic_load_n(&page->tids[1], __ATOMIC_ACQUIRE) : s.ses->pid();
    sleep_s(0.3);
    return s;
}

std::string machine() {
    std::ifstream f("/proc/cpuinfo");
    std::string model = "?";
    for (std::string l; std::getline(f, l);)
        if (l.rfind("model name", 0) == 0) {
            model = l.substr(l.find(':') + 2);
            break;
        }
    utsname u{};
    ::uname(&u);
    double load[1] = {0};
    ::getloadavg(load, 1);
    char b[512];
    std::snprintf(b, sizeof b, "%s, %ld CPUs online, Linux %s, load average %.2f at start",
                  model.c_str(), sysconf(_SC_NPROCESSORS_ONLN), u.release, load[0]);
    return b;
}

}  // namespace

int main(int argc, char **argv) {
    Options opt;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto val = [&] { return i + 1 < argc ? std::string(argv[++i]) : std::string(); };
        if (a == "--rounds")
            opt.rounds = std::max(1, std::stoi(val()));
        else if (a == "--round-s")
            opt.round_s = std::clamp(std::stod(val()), 0.1, 2.5);  // under the 3 s time-out
        else if (a == "--out")
            opt.out = val();
        else if (a == "--json")
            opt.json_out = val();
        else {
            std::fprintf(stderr,
                         "usage: process_bench [--rounds N] [--round-s S] [--out DIR] "
                         "[--json FILE]\n");
            return 2;
        }
    }
    fs::path bin = fs::read_symlink("/proc/self/exe").parent_path();
    fs::path daemon = bin / "../zebusrd", floor = bin / "cycle_floor";
    std::string preload = (bin / "../sim/libzebusr_preload.so").lexically_normal().string();
    std::string count = (bin / "../sim/libzebusr_count.so").lexically_normal().string();
    sim::Scenario sc = sim::parse_scenario(full_tables(), "<full tables>");
    json report = {{"machine", machine()}, {"rounds", opt.rounds}, {"round_s", opt.round_s}};
    std::printf(
        "zebusrd whole-process benchmark: %d alternated rounds of %.1f s per side\n"
        "machine: %s\n\n",
        opt.rounds, opt.round_s, report["machine"].get<std::string>().c_str());
    std::printf("%-8s %14s %14s %8s %10s %10s %12s %12s %12s\n", "mode", "zebusrd ns/cyc",
                "floor ns/cyc", "ratio", "cycles/s", "floor c/s", "allocs/cyc", "lines/cyc",
                "bytes/cyc");
    try {
        for (bool verbose : {false, true}) {
            const char *mode = verbose ? "verbose" : "quiet";
            std::vector<std::string> dargs;
            if (verbose)
                dargs.push_back("verbose");
            Side d = start(sc, opt.out / (std::string("zebusrd-") + mode), daemon, dargs,
                           preload + ":" + count, true);
            d.log = d.ses->paths().log();
            d.ses->server().hold_syncs(true);
            sleep_s(0.05);
            std::vector<size_t> lens = cycle_line_lengths(d.log);
            fs::path lens_file = opt.out / (std::string("lines-") + mode + ".txt");
            {
                std::ofstream lf(lens_file);
                for (size_t n : lens) lf << n << '\n';
            }
            Side f = start(sc, opt.out / (std::string("floor-") + mode), floor,
                           {lens_file.string()}, preload, false);
            f.log = f.ses->paths().dir / "data/vendor/zebusr/floor_log.txt";
            f.ses->server().hold_syncs(true);
            std::vector<double> ratio, dns, fns, dcps, fcps;
            uint64_t cycles = 0, allocs_eval = 0, allocs_all = 0, bytes = 0, lines = 0;
            for (int r = 0; r < opt.rounds; ++r) {
                Round a = measure(d, opt.round_s);
                Round b = measure(f, opt.round_s);
                dns.push_back(a.ns_per_cycle);
                fns.push_back(b.ns_per_cycle);
                ratio.push_back(a.ns_per_cycle / b.ns_per_cycle);
                dcps.push_back(a.cycles_per_s);
                fcps.push_back(b.cycles_per_s);
                cycles += a.cycles;
                allocs_eval += a.allocs_eval;
                allocs_all += a.allocs_all;
                bytes += a.log_bytes;
                lines += a.log_lines;
            }
            d.ses->server().hold_syncs(false);
            sleep_s(0.2);
            json m = {{"zebusrd_ns_per_cycle", median(dns)},
                      {"floor_ns_per_cycle", median(fns)},
                      {"ratio_median", median(ratio)},
                      {"ratios", ratio},
                      {"zebusrd_cycles_per_s", median(dcps)},
                      {"floor_cycles_per_s", median(fcps)},
                      {"cycles_measured", cycles},
                      {"allocs_per_cycle_eval_thread", double(allocs_eval) / double(cycles)},
                      {"allocs_per_cycle_all_threads", double(allocs_all) / double(cycles)},
                      {"log_lines_per_cycle", double(lines) / double(cycles)},
                      {"log_bytes_per_cycle", double(bytes) / double(cycles)},
                      {"floor_lines_per_cycle", lens.size()},
                      {"vm_rss_kb", status_field(d.ses->pid(), "VmRSS")},
                      {"rss_anon_kb", status_field(d.ses->pid(), "RssAnon")},
                      {"rss_file_kb", status_field(d.ses->pid(), "RssFile")},
                      {"floor_vm_rss_kb", status_field(f.ses->pid(), "VmRSS")}};
            report[mode] = m;
            std::printf("%-8s %14.0f %14.0f %8.3f %10.0f %10.0f %12.4f %12.1f %12.0f\n", mode,
                        median(dns), median(fns), median(ratio), median(dcps), median(fcps),
                        double(allocs_eval) / double(cycles), double(lines) / double(cycles),
                        double(bytes) / double(cycles));
            std::fflush(stdout);
            f.ses->server().hold_syncs(false);
        }
    } catch (const std::exception &e) {
        std::fprintf(stderr, "process_bench: %s\n", e.what());
        return 1;
    }
    auto rss = [&](const char *mode, const char *k) { return report[mode][k].get<std::string>(); };
    std::printf(
        "\nresident memory, zebusrd quiet: VmRSS %s kB (anonymous %s kB, file-backed %s kB); "
        "verbose: %s kB; the floor: %s kB\n",
        rss("quiet", "vm_rss_kb").c_str(), rss("quiet", "rss_anon_kb").c_str(),
        rss("quiet", "rss_file_kb").c_str(), rss("verbose", "vm_rss_kb").c_str(),
        rss("quiet", "floor_vm_rss_kb").c_str());
    std::printf("ratio per round, quiet:");
    for (double r : report["quiet"]["ratios"]) std::printf(" %.3f", r);
    std::printf("\nratio per round, verbose:");
    for (double r : report["verbose"]["ratios"]) std::printf(" %.3f", r);
    std::printf("\nallocations per steady cycle, all threads: quiet %.4f, verbose %.4f\n",
                report["quiet"]["allocs_per_cycle_all_threads"].get<double>(),
                report["verbose"]["allocs_per_cycle_all_threads"].get<double>());
    if (!opt.json_out.empty())
        std::ofstream(opt.json_out) << report.dump(2) << '\n';
    return 0;
}
