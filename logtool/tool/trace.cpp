// zebusr-log trace LOG [--csv CSV] -o OUT.json: the log as a Chrome JSON
// trace for the Perfetto UI, written while the log is read.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>

#include "csv.hpp"
#include "trace_json.hpp"
#include "trace_sink.hpp"
#include "verbs.hpp"

namespace zlog {

namespace {

struct Options {
    std::string log, csv, out;
};

bool parse_words(const Words &w, Options &o) {
    for (size_t i = 0; i < w.size(); ++i) {
        if ((w[i] == "--csv" || w[i] == "-o") && i + 1 < w.size()) {
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
            out_.counter(pid, "cpu" + std::to_string(cpu) + " spare pps (csv)", ts_, "pps",
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
        std::fputs("usage: zebusr-log trace LOG [--csv CSV] -o OUT.json\n", stderr);
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
