#include "trace_json.hpp"

#include <stdexcept>

namespace zlog {

void append_json_string(std::string &out, std::string_view s) {
    static const char kHex[] = "0123456789abcdef";
    out += '"';
    for (char ch : s) {
        auto c = static_cast<unsigned char>(ch);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += ch;
        } else if (c < 0x20 || c >= 0x7f) {
            out += "\\u00";
            out += kHex[c >> 4];
            out += kHex[c & 15];
        } else {
            out += ch;
        }
    }
    out += '"';
}

void Args::key(std::string_view k) {
    if (!text_.empty())
        text_ += ',';
    append_json_string(text_, k);
    text_ += ':';
}

Args &Args::num(std::string_view k, uint64_t v) {
    key(k);
    text_ += std::to_string(v);
    return *this;
}

Args &Args::num(std::string_view k, int64_t v) {
    key(k);
    text_ += std::to_string(v);
    return *this;
}

Args &Args::str(std::string_view k, std::string_view v) {
    key(k);
    append_json_string(text_, v);
    return *this;
}

Args &Args::flag(std::string_view k, bool v) {
    key(k);
    text_ += v ? "true" : "false";
    return *this;
}

TraceFile::TraceFile(const std::string &path) {
    if (path == "-") {
        f_ = stdout;
    } else {
        f_ = std::fopen(path.c_str(), "w");
        own_ = true;
    }
    if (!f_)
        throw std::runtime_error("cannot create " + path);
    std::fputs("{\"traceEvents\":[\n", f_);
}

TraceFile::~TraceFile() {
    if (own_ && f_)
        std::fclose(f_);
}

void TraceFile::begin(char ph, int pid, int tid, std::string_view name) {
    buf_.clear();
    if (events_++)
        buf_ += ",\n";
    buf_ += "{\"cat\":\"zebusrd\",\"ph\":\"";
    buf_ += ph;
    buf_ += "\",\"pid\":" + std::to_string(pid) + ",\"tid\":" + std::to_string(tid) + ",\"name\":";
    append_json_string(buf_, name);
}

void TraceFile::end(const std::string &tail) {
    buf_ += tail;
    buf_ += '}';
    std::fwrite(buf_.data(), 1, buf_.size(), f_);
}

std::string TraceFile::ts(uint64_t t) const {
    return std::to_string(static_cast<int64_t>(t) + shift_);
}

void TraceFile::meta(int pid, int tid, std::string_view what, std::string_view name) {
    begin('M', pid, tid, what);
    end(",\"args\":" + ('{' + Args().str("name", name).json() + '}'));
}

void TraceFile::counter(int pid, std::string_view name, uint64_t ts, std::string_view series,
                        int64_t v) {
    begin('C', pid, 0, name);
    end(",\"ts\":" + this->ts(ts) + ",\"args\":{" + Args().num(series, v).json() + '}');
}

void TraceFile::instant(int pid, int tid, std::string_view name, uint64_t ts, const Args &args) {
    begin('I', pid, tid, name);  // what Chrome writes; DevTools reads no 'i'
    end(",\"s\":\"t\",\"ts\":" + this->ts(ts) + ",\"args\":{" + args.json() + '}');
}

void TraceFile::slice(int pid, int tid, std::string_view name, uint64_t ts, uint64_t dur,
                      const Args &args) {
    begin('X', pid, tid, name);
    end(",\"ts\":" + this->ts(ts) + ",\"dur\":" + std::to_string(dur) + ",\"args\":{" +
        args.json() + '}');
}

bool TraceFile::finish(const Args &metadata) {
    std::fprintf(f_, "\n],\"displayTimeUnit\":\"ms\",\"metadata\":{%s}}\n",
                 metadata.json().c_str());
    bool ok = std::fflush(f_) == 0 && !std::ferror(f_);
    if (own_) {
        ok = std::fclose(f_) == 0 && ok;
        f_ = nullptr;
    }
    return ok;
}

}  // namespace zlog
