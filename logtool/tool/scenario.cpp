// zebusr-log scenario LOG -o OUT.json: the log's cycles with tables as the
// simulator's recorded scenario.
#include <cstdio>
#include <fstream>
#include <iostream>

#include "scenario_build.hpp"
#include "verbs.hpp"

namespace zlog {

namespace {

const char kUsage[] = "usage: zebusr-log scenario LOG -o OUT.json\n";

}  // namespace

int verb_scenario(const Words &w) {
    std::string log, out;
    bool extra = false;
    for (size_t i = 0; i < w.size(); i++) {
        if (w[i] == "-o" && i + 1 < w.size())
            out = w[++i];
        else if (log.empty())
            log = w[i];
        else
            extra = true;
    }
    if (log.empty() || out.empty() || extra) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    std::ofstream file;
    if (out != "-") {
        file.open(out, std::ios::binary | std::ios::trunc);
        if (!file) {
            std::fprintf(stderr, "zebusr-log: cannot write %s\n", out.c_str());
            return 2;
        }
    }
    std::ostream &os = out == "-" ? std::cout : file;
    rec::ScenarioWriter writer(os, log);
    rec::Builder b(writer, false);
    std::string why;
    if (!rec::build_scenario(log, b, why)) {
        std::fprintf(stderr, "zebusr-log: %s\n", why.c_str());
        return 2;
    }
    FILE *note = out == "-" ? stderr : stdout;
    for (const std::string &s : b.skipped()) std::fprintf(note, "%s\n", s.c_str());
    std::fprintf(note, "%zu run%s written to %s\n", writer.runs(), writer.runs() == 1 ? "" : "s",
                 out.c_str());
    if (!os) {
        std::fprintf(stderr, "zebusr-log: writing %s failed\n", out.c_str());
        return 2;
    }
    return 0;
}

}  // namespace zlog
