// zebusr-log's readers (the log's and the CSV capture's) over any bytes: a
// phone's log may be cut, mangled or not a log at all. Whatever it holds, the reader must not crash
// or hang, and what it hands on must hold together. Every field is read, so that a view into freed
// or foreign memory is caught by ASan.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "csv.hpp"
#include "lines.hpp"
#include "logmodel.hpp"

namespace {

using namespace zlog;

#define REQUIRE(c)                                                \
    do {                                                          \
        if (!(c)) {                                               \
            std::fprintf(stderr, "logread_fuzz: %s fails\n", #c); \
            std::abort();                                         \
        }                                                         \
    } while (0)

constexpr uint64_t kDayUs = 86401ull * 1000000;  // a leap second's stamp included
constexpr size_t kMaxCaps = 8, kMaxFlows = 128;

volatile uint64_t g_sink;  // keeps the reads of every byte

void touch(std::string_view s) {
    uint64_t h = s.size();
    for (unsigned char c : s) h = h * 31 + c;
    g_sink = g_sink + h;
}

// One line as any reader hands it on.
void check_line(const LogLine &l) {
    touch(l.text);
    touch(l.func);
    REQUIRE(l.text.size() <= kMaxLine);
    REQUIRE(l.text.find('\n') == std::string_view::npos);
    REQUIRE(l.nargs <= kMaxArgs);
    bool matched = l.problem == Problem::None || l.problem == Problem::CrLf;
    REQUIRE(matched == (l.msg != Msg::Unknown));
    if (!matched)
        return;
    const MessageInfo &m = message_info(l.msg);
    REQUIRE(l.func == m.func);
    REQUIRE(l.level == m.level);
    REQUIRE(l.tod_us < kDayUs);
    for (int k = 0; k < l.nargs; k++) touch(l.args[k].s);
}

// The lines in a form to compare two readings by.
struct Record : LineSink {
    std::vector<std::string> out;
    uint64_t last = 0, missing_blanks = 0;
    void on_line(const LogLine &l) override {
        check_line(l);
        // A missing empty line is told as a line of its own, before the line
        // that came instead, under that line's number.
        if (l.problem == Problem::MissingBlank)
            missing_blanks++;
        REQUIRE(l.no > last || (l.no == last && l.problem != Problem::MissingBlank));
        last = l.no;
        std::string r = std::to_string(l.no) + ' ' + std::to_string(int(l.problem)) + ' ' +
                        std::to_string(int(l.msg)) + ' ' + std::string(l.text);
        for (int k = 0; k < l.nargs; k++)
            r += ' ' + std::to_string(l.args[k].u) + ' ' + std::string(l.args[k].s);
        out.push_back(std::move(r));
    }
};

// What the assembler rebuilds, held to what any log allows.
struct Model : Sink {
    uint64_t lines = 0;  // the highest line number handed on so far
    uint64_t last_run = 0, last_index = 0;
    bool any_cycle = false;

    void line(const LogLine &l) override {
        check_line(l);
        REQUIRE(l.no >= lines);
        lines = l.no;
    }
    void within(uint64_t no) const { REQUIRE(no >= 1 && no <= lines); }
    void answer(const Answer &a) const {
        if (a.line)
            within(a.line);
        REQUIRE(a.outcome <= Outcome::NotSent);
    }
    void cycle(const Cycle &c) override {
        within(c.line);
        REQUIRE(c.last_line >= c.line && c.last_line <= lines);
        REQUIRE(c.caps.size() <= kMaxCaps);
        REQUIRE(c.gold.size() <= kMaxFlows);
        REQUIRE(c.ss.size() <= kMaxFlows);
        REQUIRE(c.run >= last_run);
        REQUIRE(!any_cycle || c.run > last_run || c.index > last_index);
        last_run = c.run;
        last_index = c.index;
        any_cycle = true;
        answer(c.sync);
        uint64_t sum = c.seq + c.ss_len + c.gold_len + c.t_us;
        for (const CapEntry &e : c.caps) sum += e.cpu + e.pps + e.avg + e.bps;
        for (const auto *t : {&c.gold, &c.ss})
            for (const FlowEntry &e : *t) sum += e.hash + e.cpu + e.rx_pps + e.avg_pps + e.rx_bps;
        for (const HistoryNode &n : c.history) sum += n.hash + n.bucket + n.rx_bps + n.len + n.avg;
        for (uint32_t h : c.created) sum += h;
        for (uint32_t h : c.removed) sum += h;
        g_sink = g_sink + sum;
        for (const Decision &d : c.decisions) decision(d, c.run);
    }
    void event(const Event &e) override {
        within(e.line);
        if (e.last_line)
            REQUIRE(e.last_line >= e.line && e.last_line <= lines);
        REQUIRE(e.kind <= EventKind::Note);
        answer(e.answer);
        touch(e.family);
        touch(e.text);
        uint64_t sum = e.number + e.list_len + e.timestamp + e.t_us;
        for (const RateEntry &r : e.rates) sum += r.pid + r.tx_bps + r.boost_left_ms;
        g_sink = g_sink + sum;
    }
    void decision(const Decision &d, uint64_t run) override {
        within(d.line);
        REQUIRE(d.kind <= Kind::Boost);
        answer(d.answer);
        uint64_t sum = run + d.t_us + d.hash + d.cur + d.dest + d.pps + d.avg_pps + d.cap +
                       d.cap_w_head + d.rx_bps + d.stable + d.accepted;
        for (const BoostEntry &b : d.boosts) sum += b.pid + b.tx_bps + b.boost_left_ms;
        g_sink = g_sink + sum;
    }
};

// The CSV capture's rows and problems, each once, in line order.
struct Csv : CsvSink {
    uint64_t last = 0, told = 0;
    std::vector<std::string> out;
    void on_row(const CsvRow &r) override {
        REQUIRE(r.no > last);
        REQUIRE(r.tod_us < kDayUs);
        last = r.no;
        std::string s =
            std::to_string(r.no) + ' ' + std::to_string(r.tod_us) + ' ' + std::to_string(r.seq);
        for (uint64_t p : r.pps) s += ' ' + std::to_string(p);
        out.push_back(std::move(s));
    }
    void on_problem(uint64_t no, std::string_view why) override {
        REQUIRE(no >= told && no >= 1 && !why.empty());
        touch(why);
        told = no;
        out.push_back(std::to_string(no) + " ? " + std::string(why));
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string_view text(reinterpret_cast<const char *>(data), size);

    Record whole;
    read_lines_text(text, whole);
    uint64_t physical = 1;
    for (char c : text) physical += c == '\n';
    REQUIRE(whole.out.size() - whole.missing_blanks <= physical);

    // Bytes that arrive in pieces read the same, wherever they are cut.
    Record pieces;
    {
        LineReader r(pieces);
        size_t cut = size ? data[0] * size / 256 : 0;
        r.feed(text.substr(0, cut));
        r.feed(text.substr(cut, size / 3));
        r.feed(text.substr(cut + size / 3 < size ? cut + size / 3 : size));
        r.finish();
    }
    REQUIRE(pieces.out == whole.out);

    Model model;
    read_log_text(text, model);
    REQUIRE(model.lines <= physical);

    Csv csv, csv_pieces;
    read_csv_text(text, csv);
    REQUIRE(csv.last <= physical && csv.told <= physical);
    {
        CsvReader r(csv_pieces);
        size_t cut = size ? data[size - 1] * size / 256 : 0;
        r.feed(text.substr(0, cut));
        r.feed(text.substr(cut));
        r.finish();
    }
    REQUIRE(csv_pieces.out == csv.out);
    return 0;
}
