// zebusr-log: reads a zebusrd log (and its CSV capture) as a platform
// engineer fetched it from a phone.
#include <cstdio>
#include <cstring>
#include <string>

#include "verbs.hpp"

namespace {

const char kUsage[] =
    "usage: zebusr-log VERB LOG [options]\n"
    "  check LOG                          every line against the table of log lines\n"
    "  explain LOG [--csv CSV]            each decision and why, the connection's story, a summary\n"
    "  trace LOG [--csv CSV] -o OUT.json  a Chrome JSON trace for the Perfetto UI\n"
    "        [--clock HH:MM:SS.uuuuuu=SECONDS]  on a system trace's clock (boot time)\n"
    "  scenario LOG -o OUT.json           the recorded cycles as a simulator scenario\n"
    "  replay LOG [--daemon PATH]         today's zebusrd on the recorded cycles, compared\n"
    "  picture LOG -o OUT.png             the run's picture\n"
    "  lines LOG [--json]                 each line as read, for scripts: NO TIME FUNC LEVEL\n"
    "                                     KEY MESSAGE, tab-separated (KEY ? then the problem\n"
    "                                     for a line that does not match), or JSON objects\n"
    "LOG may be - for standard input. Exit status: 0 done, 1 a line that does not\n"
    "match or a cycle decided otherwise, 2 nothing could be read or wrong words.\n";

struct Verb {
    const char *name;
    int (*run)(const zlog::Words &);
};

const Verb kVerbs[] = {
    {"check", zlog::verb_check},       {"explain", zlog::verb_explain},
    {"trace", zlog::verb_trace},       {"scenario", zlog::verb_scenario},
    {"replay", zlog::verb_replay},     {"picture", zlog::verb_picture},
    {"lines", zlog::verb_lines},
};

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2 || !std::strcmp(argv[1], "-h") || !std::strcmp(argv[1], "--help")) {
        std::fputs(kUsage, argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    zlog::Words words(argv + 2, argv + argc);
    for (const Verb &v : kVerbs)
        if (!std::strcmp(argv[1], v.name))
            return v.run(words);
    std::fprintf(stderr, "zebusr-log: no verb \"%s\"\n%s", argv[1], kUsage);
    return 2;
}
