// The scenario document written as the log is read: one step a line, so a
// log of any length is written in the memory of one step. The core side's
// steps wait in a temporary file until their run's steering steps are out.
#include <filesystem>
#include <stdexcept>

#include "scenario_build.hpp"

namespace zlog::rec {

ScenarioWriter::ScenarioWriter(std::ostream &out, const std::string &log_path)
    : out_(out), log_(log_path) {
    spool_ = std::tmpfile();
    if (!spool_)
        throw std::runtime_error("cannot make a temporary file for the core steps");
    Json name = "recorded", log = log_path;
    out_ << "{\n\"name\": " << name.dump() << ",\n\"recorded\": {\n\"log\": " << log.dump()
         << ",\n\"runs\": [";
}

ScenarioWriter::~ScenarioWriter() {
    if (spool_)
        std::fclose(spool_);
}

void ScenarioWriter::begin_run(uint64_t first_line) {
    out_ << (runs_++ ? ",\n" : "\n") << "{\"first_line\": " << first_line
         << ", \"verbose\": true,\n\"steering\": [";
    steering_n_ = core_n_ = 0;
    std::rewind(spool_);
}

void ScenarioWriter::steering(const Json &step) {
    out_ << (steering_n_++ ? ",\n  " : "\n  ") << step.dump();
}

void ScenarioWriter::core(const Json &step) {
    std::string s = (core_n_++ ? ",\n  " : "\n  ") + step.dump();
    if (std::fwrite(s.data(), 1, s.size(), spool_) != s.size())
        throw std::runtime_error("cannot write the core steps' temporary file");
}

void ScenarioWriter::end_run(uint64_t last_line) {
    out_ << "],\n\"core\": [";
    long end = std::ftell(spool_);
    std::rewind(spool_);
    char buf[1 << 14];
    for (long left = end; left > 0;) {
        size_t n = std::fread(buf, 1, std::min<long>(left, sizeof buf), spool_);
        if (n == 0)
            throw std::runtime_error("cannot read the core steps back");
        out_.write(buf, n);
        left -= long(n);
    }
    std::rewind(spool_);
    out_ << "],\n\"last_line\": " << last_line << "}";
}

void ScenarioWriter::finish(uint64_t first_line, uint64_t last_line) {
    std::string file =
        log_ == "-" ? "standard input" : std::filesystem::path(log_).filename().string();
    Json d = file + " lines " + std::to_string(first_line) + "-" + std::to_string(last_line);
    out_ << "\n]},\n\"description\": " << d.dump() << "\n}\n";
    out_.flush();
}

}  // namespace zlog::rec
