// zebusr-log replay LOG [--daemon PATH] [--preload PATH] [--keep DIR]:
// today's zebusrd on the log's recorded cycles, compared decision by decision.
#include "replay.hpp"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "verbs.hpp"

namespace zlog {

namespace {

const char kUsage[] =
    "usage: zebusr-log replay LOG [--daemon PATH] [--preload PATH] [--keep DIR]\n"
    "  --keep DIR  keep the scenario and each run's directory (log, transcript) in DIR\n";

struct Args {
    std::string log;
    rec::ReplayOptions o;
    bool keep = false;
};

bool parse(const Words &w, Args &a) {
    a.o.daemon = rec::default_daemon();
    a.o.preload = rec::default_preload();
    for (size_t i = 0; i < w.size(); i++) {
        bool has_value = i + 1 < w.size();
        if (w[i] == "--daemon" && has_value)
            a.o.daemon = w[++i];
        else if (w[i] == "--preload" && has_value)
            a.o.preload = w[++i];
        else if (w[i] == "--keep" && has_value)
            a.o.dir = w[++i], a.keep = true;
        else if (a.log.empty() && (w[i] == "-" || !w[i].starts_with("--")))
            a.log = w[i];
        else
            return false;
    }
    return !a.log.empty();
}

// A directory of our own under TMPDIR, removed at the end.
rec::fs::path temp_dir() {
    const char *t = std::getenv("TMPDIR");
    std::string pattern = std::string(t && *t ? t : "/tmp") + "/zebusr-replay-XXXXXX";
    if (!mkdtemp(pattern.data()))
        throw std::runtime_error("cannot make a directory under " + pattern);
    return pattern;
}

// The scenario written into the directory, with what each stretch decided.
bool build(const Args &a, const rec::fs::path &file, std::vector<rec::RunExpect> &runs) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    if (!out)
        throw std::runtime_error("cannot write " + file.string());
    rec::ScenarioWriter writer(out, a.log);
    rec::Builder b(writer, true);
    std::string why;
    if (!rec::build_scenario(a.log, b, why)) {
        std::fprintf(stderr, "zebusr-log: %s\n", why.c_str());
        return false;
    }
    for (const std::string &s : b.skipped()) std::printf("%s\n", s.c_str());
    runs = std::move(b.expected());
    return true;
}

void print_run(size_t k, const rec::RunExpect &r, const rec::RunOutcome &o) {
    std::printf("run %zu (lines %" PRIu64 "-%" PRIu64 ", %.1f s in the log): ", k + 1, r.first_line,
                r.last_line, r.seconds);
    if (!o.problem.empty())
        std::printf("%s; ", o.problem.c_str());
    std::printf("%zu of %zu cycles and %zu of %zu queries the same, replayed in %.1f s\n",
                o.cycles_same, o.cycles, o.queries_same, o.queries, o.seconds);
}

int replay(const Args &a) {
    std::vector<rec::RunExpect> runs;
    if (!build(a, a.o.dir / "scenario.json", runs))
        return 2;
    if (runs.empty()) {
        std::printf("nothing to replay: the log has no whole cycle with tables\n");
        return 2;
    }
    sim::Scenario s = sim::load_scenario((a.o.dir / "scenario.json").string());
    size_t cycles = 0, same = 0, queries = 0, queries_same = 0;
    bool failed = false;
    std::optional<rec::Difference> first;
    rec::fs::path first_log;
    for (size_t k = 0; k < runs.size(); k++) {
        rec::RunOutcome o = rec::replay_run(s, runs[k], k, a.o);
        print_run(k, runs[k], o);
        std::fflush(stdout);
        cycles += o.cycles, same += o.cycles_same;
        queries += o.queries, queries_same += o.queries_same;
        failed |= !o.problem.empty();
        if (o.first && !first)
            first = o.first, first_log = o.log;
    }
    if (first)
        rec::print_difference(*first, a.log, first_log);
    std::printf("%zu of %zu throughput queries boosted the same\n", queries_same, queries);
    std::printf("%zu of %zu cycles decided the same\n", same, cycles);
    return first || failed ? 1 : 0;
}

}  // namespace

rec::fs::path rec::default_daemon() {
    return ZEBUSR_DAEMON_DEFAULT;
}

rec::fs::path rec::default_preload() {
    return ZEBUSR_PRELOAD_DEFAULT;
}

int verb_replay(const Words &w) {
    Args a;
    if (!parse(w, a)) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    // A directory of our own goes whatever happens in it.
    struct Remove {
        rec::fs::path dir;
        ~Remove() {
            std::error_code ec;
            if (!dir.empty())
                rec::fs::remove_all(dir, ec);
        }
    } remove;
    try {
        if (a.keep) {
            rec::fs::create_directories(a.o.dir);
        } else {
            a.o.dir = temp_dir();
            remove.dir = a.o.dir;
        }
        return replay(a);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "zebusr-log: %s\n", e.what());
        return 2;
    }
}

}  // namespace zlog
