// The CSV capture beside the log: how many rows, the time they span, and
// what could not be read. Rows are read one at a time; nothing is kept.
#include <fstream>

#include "explain_impl.hpp"
#include "lines.hpp"

namespace zlog::explain {

namespace {

constexpr size_t kColumns = 10;   // Time, seq_num, CPU0 to CPU7
constexpr size_t kMaxRow = 4096;  // longer rows are problems, not read further

class CsvCount {
   public:
    void row(std::string_view r) {
        no_++;
        if (!r.empty() && r.back() == '\r')
            r.remove_suffix(1);
        // Each SIGUSR1 opens the capture again and writes the header again.
        if (r.substr(0, 5) == "time,")
            return;
        if (no_ == 1)
            problem("no header");
        size_t commas = 0;
        for (char ch : r) commas += ch == ',';
        uint64_t tod;
        if (r.size() > kMaxRow || r.size() < 15 || !parse_stamp(r.substr(0, 15), tod))
            return problem("no time of day");
        if (commas + 1 != kColumns)
            return problem(commas + 1 < kColumns ? "short row" : "long row");
        if (!rows_)
            first_ = tod;
        last_ = tod;
        rows_++;
    }
    void done(Summary &s) const { s.csv(rows_, first_, last_, problems_, first_problem_); }

   private:
    void problem(const char *what) {
        if (!problems_++)
            first_problem_ = "row " + std::to_string(no_) + ": " + what;
    }
    uint64_t no_ = 0, rows_ = 0, first_ = 0, last_ = 0, problems_ = 0;
    std::string first_problem_;
};

}  // namespace

void read_csv_text(std::string_view text, Summary &s) {
    CsvCount c;
    while (!text.empty()) {
        size_t nl = text.find('\n');
        c.row(text.substr(0, nl));
        text.remove_prefix(nl == std::string_view::npos ? text.size() : nl + 1);
    }
    c.done(s);
}

bool read_csv_file(const std::string &path, Summary &s, std::string &why) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        why = "cannot open the CSV";
        return false;
    }
    CsvCount c;
    std::string row;
    char ch;
    // Byte by byte into a bounded row, so a file without line ends stays small.
    while (in.get(ch)) {
        if (ch != '\n') {
            if (row.size() <= kMaxRow)
                row += ch;
            continue;
        }
        c.row(row);
        row.clear();
    }
    if (!row.empty())
        c.row(row);
    c.done(s);
    return true;
}

}  // namespace zlog::explain
