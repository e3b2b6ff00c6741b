// The CSV capture, row by row; every row that does not read says why.
#include "csv.hpp"

#include <cstdio>

#include "lines.hpp"

namespace zlog {

CsvSink::~CsvSink() = default;

namespace {

// A decimal number printf could write in 64 bits; a seq_num printed signed
// may carry a "-" (its bits are kept).
bool read_u64(std::string_view f, bool allow_minus, uint64_t &v) {
    bool neg = allow_minus && !f.empty() && f[0] == '-';
    f.remove_prefix(neg);
    if (f.empty() || f.size() > 20)
        return false;
    v = 0;
    for (char c : f) {
        if (c < '0' || c > '9' || v > (~uint64_t{0} - (c - '0')) / 10)
            return false;
        v = v * 10 + (c - '0');
    }
    if (neg)
        v = 0 - v;
    return true;
}

bool read_seq(std::string_view f, uint32_t &seq) {
    uint64_t v;
    if (!read_u64(f, true, v))
        return false;
    auto s = static_cast<int64_t>(v);
    if (s < INT32_MIN || s > int64_t{UINT32_MAX})
        return false;
    seq = static_cast<uint32_t>(v);
    return true;
}

}  // namespace

void CsvReader::feed(std::string_view bytes) {
    split_.feed(bytes, [this](std::string_view t, bool too_long, bool cut) {
        line_done(t, too_long, cut);
    });
}

void CsvReader::finish() {
    split_.finish(
        [this](std::string_view t, bool too_long, bool cut) { line_done(t, too_long, cut); });
}

void CsvReader::line_done(std::string_view text, bool too_long, bool cut) {
    no_++;
    if (cut)
        return sink_.on_problem(no_, "cut: the file ends inside this row");
    if (too_long)
        return sink_.on_problem(no_, "a row longer than a megabyte");
    if (!text.empty() && text.back() == '\r') {
        text.remove_suffix(1);
        if (!crlf_told_)
            sink_.on_problem(no_, "CR LF line ends (read without the CR)");
        crlf_told_ = true;
    }
    if (!all_text(text))
        return sink_.on_problem(no_, "bytes that are not text");
    if (text == kCsvHeader) {
        if (no_ > 1)
            sink_.on_problem(no_, "the header again: a new capture starts here");
        return;
    }
    if (no_ == 1)
        sink_.on_problem(no_, "no header (time,seq_num,CPU0,...,CPU7)");
    if (text.empty())
        return sink_.on_problem(no_, "an empty line");
    row(text);
}

// "HH:MM:SS.uuuuuu,SEQ,P0,...,P7"
void CsvReader::row(std::string_view text) {
    std::array<std::string_view, kCsvFields> f;
    int n = 0;
    for (size_t start = 0;; n++) {
        size_t comma = text.find(',', start);
        if (n < kCsvFields)
            f[n] = text.substr(start, comma - start);
        if (comma == std::string_view::npos)
            break;
        start = comma + 1;
    }
    char why[96];
    if (++n != kCsvFields) {
        std::snprintf(why, sizeof why, "%d fields where a row has %d", n, kCsvFields);
        return sink_.on_problem(no_, why);
    }
    CsvRow r;
    r.no = no_;
    if (f[0].size() != kStampWidth - 1 || !parse_stamp(f[0], r.tod_us))
        return sink_.on_problem(no_, "the time is not HH:MM:SS.uuuuuu");
    if (!read_seq(f[1], r.seq))
        return sink_.on_problem(no_, "the seq_num is not a number");
    for (int c = 0; c < kCsvCpus; c++) {
        if (!read_u64(f[2 + c], false, r.pps[c])) {
            std::snprintf(why, sizeof why, "CPU%d is not a number", c);
            return sink_.on_problem(no_, why);
        }
    }
    sink_.on_row(r);
}

void read_csv_text(std::string_view text, CsvSink &sink) {
    CsvReader r(sink);
    r.feed(text);
    r.finish();
}

bool read_csv_file(const std::string &path, CsvSink &sink, std::string &why) {
    CsvReader r(sink);
    bool ok = read_chunks(
        path, [&](std::string_view bytes) { r.feed(bytes); }, why);
    r.finish();
    return ok;
}

}  // namespace zlog
