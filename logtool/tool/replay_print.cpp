// Both sides' lines of the first difference: the cycle's own lines (its
// tables, checks, requests and answers; not the history table's print nor
// the other thread's lines), or the boost thread's query and boost.
#include <cinttypes>
#include <cstdio>

#include "lines.hpp"
#include "replay.hpp"

namespace zlog::rec {

namespace {

constexpr size_t kMaxShown = 60;  // lines per side

bool boost_thread(std::string_view f) {
    return f.starts_with("dulox") || f == "zebusr_genl_recv_pid_byte_info_from_kernel";
}

bool history_print(std::string_view f) {
    return f.starts_with("zebusr_ht_");
}

class Excerpt : public LineSink {
   public:
    Excerpt(uint64_t from, uint64_t to, bool query) : from_(from), to_(to), query_(query) {}
    void on_line(const LogLine &l) override {
        if (l.no < from_ || l.no > to_ || done_)
            return;
        if (query_) {
            // From the query to the thread's next evaluation.
            if (!boost_thread(l.func))
                return;
            if (l.msg == Msg::boost_evaluating && l.no > from_) {
                done_ = true;
                return;
            }
        } else if (boost_thread(l.func) || history_print(l.func) || l.text.empty()) {
            return;
        }
        if (shown.size() < kMaxShown)
            shown.push_back(std::to_string(l.no) + ": " + std::string(l.text));
        else
            more++;
    }
    std::vector<std::string> shown;
    size_t more = 0;

   private:
    uint64_t from_, to_;
    bool query_;
    bool done_ = false;
};

void show(const char *side, const std::string &path, uint64_t from, uint64_t to, bool query) {
    if (from == 0) {
        std::printf("  %s: no such %s\n", side, query ? "query" : "cycle");
        return;
    }
    Excerpt ex(from, query ? from + 400 : to, query);
    std::string why;
    if (!read_lines_file(path, ex, why)) {
        std::printf("  %s: %s\n", side, why.c_str());
        return;
    }
    std::printf("  %s (%s):\n", side, path.c_str());
    for (const std::string &s : ex.shown) std::printf("    %s\n", s.c_str());
    if (ex.more)
        std::printf("    ... %zu more lines\n", ex.more);
}

std::string joined(const std::vector<std::string> &w) {
    if (w.empty())
        return "nothing";
    std::string s;
    for (const std::string &x : w) s.append(s.empty() ? "" : "; ").append(x);
    return s;
}

}  // namespace

void print_difference(const Difference &d, const std::string &original_log,
                      const fs::path &replay_log) {
    std::printf("first difference: run %zu, the %s at line %" PRIu64 " of the log\n", d.run + 1,
                d.query ? "throughput query" : "cycle", d.line);
    std::printf("  original decided: %s\n", joined(d.original).c_str());
    std::printf("  replay decided:   %s\n", joined(d.replay).c_str());
    show("original", original_log, d.line, d.last_line, d.query);
    show("replay", replay_log.string(), d.replay_line, d.replay_last, d.query);
}

}  // namespace zlog::rec
