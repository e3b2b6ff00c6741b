// The CSV capture beside the log: how many rows, the time they span, and
// what could not be read. The shared CSV reader streams the rows; nothing is
// kept but counts.
#include "csv.hpp"
#include "explain_impl.hpp"

namespace zlog::explain {

namespace {

class CsvCount : public CsvSink {
   public:
    void on_row(const CsvRow &r) override {
        if (!rows_++)
            first_ = r.tod_us;
        last_ = r.tod_us;
    }
    void on_problem(uint64_t no, std::string_view why) override {
        if (!problems_++)
            first_problem_ = "line " + std::to_string(no) + ": " + std::string(why);
    }
    void done(Summary &s) const { s.csv(rows_, first_, last_, problems_, first_problem_); }

   private:
    uint64_t rows_ = 0, first_ = 0, last_ = 0, problems_ = 0;
    std::string first_problem_;
};

}  // namespace

void read_csv_text(std::string_view text, Summary &s) {
    CsvCount c;
    zlog::read_csv_text(text, c);
    c.done(s);
}

bool read_csv_file(const std::string &path, Summary &s, std::string &why) {
    CsvCount c;
    if (!zlog::read_csv_file(path, c, why))
        return false;
    c.done(s);
    return true;
}

}  // namespace zlog::explain
