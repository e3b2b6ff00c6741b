#include "log_check.h"

#include "lines.hpp"

namespace zt {

namespace {

// Where the message starts: after the " (LEVEL): " that follows the function.
std::string message_of(const zlog::LogLine &l) {
    size_t at = static_cast<size_t>(l.func.data() - l.text.data()) + l.func.size();
    std::string tail = std::string(" (") + zlog::level_name(l.level) + "): ";
    size_t m = l.text.find(tail, at);
    return m == std::string_view::npos ? "" : std::string(l.text.substr(m + tail.size()));
}

// Keeps the first line the reader finds fault with. A missing empty line is
// told with the line that came in its place.
class FirstProblem : public zlog::LineSink {
   public:
    std::string why;
    void on_line(const zlog::LogLine &l) override {
        if (!why.empty() && !missing_blank_)
            return;
        if (missing_blank_) {
            why += std::string(l.text);
            missing_blank_ = false;
            return;
        }
        if (l.problem == zlog::Problem::None)
            return;
        why = std::string(zlog::problem_text(l.problem)) + ", line " + std::to_string(l.no) + ": ";
        if (l.problem == zlog::Problem::MissingBlank)
            missing_blank_ = true;
        else
            why += std::string(l.text);
    }

   private:
    bool missing_blank_ = false;
};

}  // namespace

bool split_log_line(const std::string &line, LogLine *out) {
    zlog::LogLine l;
    zlog::parse_line(line, 1, l);
    if (l.problem != zlog::Problem::None && l.problem != zlog::Problem::UnknownMessage &&
        l.problem != zlog::Problem::WrongLevel)
        return false;
    out->func = std::string(l.func);
    out->level = zlog::level_name(l.level);
    out->message = message_of(l);
    return true;
}

std::string check_log(const std::string &text) {
    FirstProblem first;
    zlog::read_lines_text(text, first);
    return first.why;
}

}  // namespace zt
