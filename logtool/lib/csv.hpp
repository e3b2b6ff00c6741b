// The CSV capture the daemon writes while verbose logging is on: a header
// "time,seq_num,CPU0,...,CPU7" at each SIGUSR1 (which truncates the file,
// though captures may have been joined), then one row per cycle
// "HH:MM:SS.uuuuuu,SEQ,P0,...,P7". Read as a stream, like the log.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "splitter.hpp"

namespace zlog {

inline constexpr int kCsvCpus = 8;
inline constexpr int kCsvFields = 2 + kCsvCpus;
inline constexpr std::string_view kCsvHeader =
    "time,seq_num,CPU0,CPU1,CPU2,CPU3,CPU4,CPU5,CPU6,CPU7";

struct CsvRow {
    uint64_t no = 0;      // 1-based line number in the file
    uint64_t tod_us = 0;  // the stamp: microseconds since midnight
    uint32_t seq = 0;
    std::array<uint64_t, kCsvCpus> pps{};
};

// Rows that read, and what is wrong where (`why` valid during the call).
// A header after the first line is reported as a problem: a new capture.
class CsvSink {
   public:
    virtual ~CsvSink();
    virtual void on_row(const CsvRow &row) = 0;
    virtual void on_problem(uint64_t no, std::string_view why) = 0;
};

class CsvReader {
   public:
    explicit CsvReader(CsvSink &sink) : sink_(sink) {}
    void feed(std::string_view bytes);
    void finish();
    uint64_t lines() const { return no_; }

   private:
    void line_done(std::string_view text, bool too_long, bool cut);
    void row(std::string_view text);

    CsvSink &sink_;
    Splitter split_;
    uint64_t no_ = 0;
    bool crlf_told_ = false;  // CR LF is told once, at its first line
};

void read_csv_text(std::string_view text, CsvSink &sink);

// Path "-" is standard input. False, with `why`, only when the file cannot be
// opened or read at all.
bool read_csv_file(const std::string &path, CsvSink &sink, std::string &why);

}  // namespace zlog
