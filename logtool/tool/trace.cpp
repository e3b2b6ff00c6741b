// zebusr-log trace LOG [--csv CSV] -o OUT.json: the log as a Chrome JSON
// trace for the Perfetto UI, written while the log is read.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>

#include "csv.hpp"
#include "lines.hpp"
#include "trace_json.hpp"
#include "trace_sink.hpp"
#include "verbs.hpp"

namespace zlog {

namespace {

struct Options {
    std::string log, csv, out;
    int64_t shift_us = 0;
    std::string clock;  // as given, for the metadata
};

// "--clock HH:MM:SS.uuuuuu=SECONDS": the log's stamp STAMP was SECONDS on the
// clock of a system trace (boot time), so both line up in one trace.
bool parse_clock(const std::string &v, Options &o) {
    size_t eq = v.find('=');
    uint64_t tod = 0;
    if (eq == std::string::npos || !parse_stamp(std::string_view(v).substr(0, eq), tod))
        return false;
    char *end = nullptr;
    double s = std::strtod(v.c_str() + eq + 1, &end);
    if (end == v.c_str() + eq + 1 || *end != '\0' || !(s >= 0) || s > 1e9)
        return false;
    o.shift_us = static_cast<int64_t>(s * 1e6 + 0.5) - static_cast<int64_t>(tod);
    o.clock = "the log's " + v.substr(0, eq) + " is " + v.substr(eq + 1) +
              " s on the system trace's clock";
    return true;
}

bool parse_words(const Words &w, Options &o) {
    for (size_t i = 0; i < w.size(); ++i) {
        if (w[i] == "--clock" && i + 1 < w.size()) {
            if (!parse_clock(w[++i], o))
                return false;
        } else if ((w[i] == "--csv" || w[i] == "-o") && i + 1 < w.size()) {
            std::string &dest = w[i] == "-o" ? o.out : o.csv;
            dest = w[++i];
        } else if (o.log.empty() && (w[i] == "-" || w[i][0] != '-'))
            o.log = w[i];
        else
            return false;
    }
    return !o.log.empty() && !o.out.empty();
}

// The CSV capture's rows become counters of the run they fall in; its
// problems become instants on that run's problems track.
class CsvTrace : public CsvSink {
   public:
    CsvTrace(TraceSink &sink, TraceFile &out) : sink_(sink), out_(out), last_(sink.first_tod()) {}
    void on_row(const CsvRow &r) override {
        ts_ = sink_.wall_of_tod(r.tod_us, day_, last_);
        int pid = std::max(sink_.pid_at(ts_), 1);
        for (int cpu = 0; cpu < kCsvCpus; ++cpu) {
            uint64_t v = r.pps[cpu];
            if (rows && prev_[cpu] == v && pid == pid_)
                continue;  // counters are drawn as steps: only changes
            out_.counter(pid, "cpu" + std::to_string(cpu) + " spare (csv)", ts_, "pps",
                         static_cast<int64_t>(v));
            prev_[cpu] = v;
        }
        pid_ = pid;
        ++rows;
    }
    void on_problem(uint64_t no, std::string_view why) override {
        ++problems;
        Args a;
        a.num("csv_line", no).str("problem", why);
        out_.instant(std::max(sink_.pid_at(ts_), 1), kProblemTid,
                     "csv line " + std::to_string(no) + ": " + std::string(why), ts_, a);
    }
    uint64_t rows = 0, problems = 0;

   private:
    TraceSink &sink_;
    TraceFile &out_;
    uint64_t day_ = 0, last_ = 0, ts_ = 0;
    int pid_ = 0;
    std::array<uint64_t, kCsvCpus> prev_{};
};

int run(const Options &o) {
    TraceFile out(o.out);
    out.shift(o.shift_us);
    TraceSink sink(out);
    std::string why;
    if (!read_log(o.log, sink, why)) {
        std::fprintf(stderr, "zebusr-log: %s\n", why.c_str());
        if (o.out != "-")
            std::remove(o.out.c_str());
        return 2;
    }
    sink.finish();
    CsvTrace csv(sink, out);
    if (!o.csv.empty() && !read_csv_file(o.csv, csv, why)) {
        std::fprintf(stderr, "zebusr-log: %s\n", why.c_str());
        return 2;
    }
    Args meta = sink.metadata();
    if (!o.csv.empty())
        meta.num("csv_rows", csv.rows).num("csv_problems", csv.problems);
    if (!o.clock.empty())
        meta.str("clock", o.clock);
    if (!out.finish(meta)) {
        std::fprintf(stderr, "zebusr-log: cannot write %s\n", o.out.c_str());
        return 2;
    }
    std::fprintf(o.out == "-" ? stderr : stdout,
                 "%s: %llu events: %llu cycles, %llu decisions, %llu problems", o.out.c_str(),
                 (unsigned long long)out.events(), (unsigned long long)sink.cycles,
                 (unsigned long long)sink.decisions, (unsigned long long)sink.problems);
    if (!o.csv.empty())
        std::fprintf(o.out == "-" ? stderr : stdout, ", %llu CSV rows, %llu CSV problems",
                     (unsigned long long)csv.rows, (unsigned long long)csv.problems);
    std::fputc('\n', o.out == "-" ? stderr : stdout);
    return 0;
}

}  // namespace

int verb_trace(const Words &w) {
    Options o;
    if (!parse_words(w, o)) {
        std::fputs(
            "usage: zebusr-log trace LOG [--csv CSV] [--clock HH:MM:SS.uuuuuu=SECONDS] "
            "-o OUT.json\n",
            stderr);
        return 2;
    }
    try {
        return run(o);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "zebusr-log: %s\n", e.what());
        return 2;
    }
}

}  // namespace zlog
