// The log as a stream of lines: read in fixed chunks, each line parsed as it
// completes, the empty lines that "\n" messages leave consumed on the way.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "lines.hpp"

namespace zlog {

LineSink::~LineSink() = default;

LineReader::LineReader(LineSink &sink) : sink_(sink) {}
LineReader::~LineReader() = default;

void LineReader::feed(std::string_view bytes) {
    split_.feed(bytes, [this](std::string_view t, bool too_long, bool cut) {
        line_done(t, too_long, cut);
    });
}

void LineReader::finish() {
    split_.finish(
        [this](std::string_view t, bool too_long, bool cut) { line_done(t, too_long, cut); });
    blank_due_ = false;
}

// A line that is not what the table allows, handed on unmatched; the prefix
// fields stay as far as they could be read.
void LineReader::hand_on(Problem p) {
    line_.problem = p;
    line_.msg = Msg::Unknown;
    line_.nargs = 0;
    sink_.on_line(line_);
}

void LineReader::line_done(std::string_view text, bool too_long, bool cut) {
    no_++;
    bool crlf = !too_long && !cut && !text.empty() && text.back() == '\r';
    if (crlf)
        text.remove_suffix(1);
    if (text.empty() && !too_long && !cut) {
        if (!blank_due_)
            hand_on_blank(Problem::UnexpectedBlank);
        blank_due_ = false;
        return;
    }
    if (blank_due_)
        hand_on_blank(Problem::MissingBlank);
    blank_due_ = false;
    bool matched = parse_line(text, no_, line_);
    if (cut || too_long || !all_text(text))
        return hand_on(cut ? Problem::Cut : too_long ? Problem::TooLong : Problem::NotText);
    if (matched && crlf)
        line_.problem = Problem::CrLf;
    sink_.on_line(line_);
    blank_due_ = matched && ends_with_blank(line_.msg);
}

void LineReader::hand_on_blank(Problem p) {
    parse_line({}, no_, line_);
    hand_on(p);
}

void read_lines_text(std::string_view text, LineSink &sink) {
    LineReader r(sink);
    r.feed(text);
    r.finish();
}

bool read_lines_file(const std::string &path, LineSink &sink, std::string &why) {
    LineReader r(sink);
    return read_lines_file(path, r, why);
}

bool read_lines_file(const std::string &path, LineReader &r, std::string &why) {
    bool ok = read_chunks(
        path, [&](std::string_view bytes) { r.feed(bytes); }, why);
    r.finish();
    return ok;
}

bool read_chunks(const std::string &path, const std::function<void(std::string_view)> &feed,
                 std::string &why) {
    int fd = path == "-" ? 0 : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        why = path + ": " + std::strerror(errno);
        return false;
    }
    std::unique_ptr<char[]> buf(new char[kReadChunk]);
    uint64_t total = 0;
    ssize_t n;
    while ((n = ::read(fd, buf.get(), kReadChunk)) != 0) {
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            break;
        total += n;
        feed(std::string_view(buf.get(), n));
    }
    int err = n < 0 ? errno : 0;
    if (fd != 0)
        ::close(fd);
    if (err)
        why = path + ": " + std::strerror(err);
    return !err || total > 0;
}

}  // namespace zlog
