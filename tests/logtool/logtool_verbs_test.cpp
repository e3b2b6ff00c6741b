// zebusr-log check and lines as scripts run them: the whole output and the
// exit status of each, over one short log with a line of each kind.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>

namespace {

std::string line(const char *stamp, const char *func, unsigned src, const char *level,
                 const char *msg, const char *end) {
    char b[200];
    std::snprintf(b, sizeof b, " %s %40s():%3u (%s): %s%s", stamp, func, src, level, msg, end);
    return b;
}

// Runs the tool; its standard output and error, then "exit N".
std::string run(const std::string &args) {
    std::FILE *p = popen((std::string(ZEBUSR_LOG_TOOL) + " " + args + " 2>&1").c_str(), "r");
    std::string out;
    char buf[4096];
    for (size_t n; p && (n = std::fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    int status = p ? pclose(p) : -1;
    return out + "exit " + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1);
}

TEST(Verbs, CheckAndLinesWholeOutputs) {
    const std::string log = ::testing::TempDir() + "/verbs.log",
                      empty = ::testing::TempDir() + "/verbs_empty.log";
    std::FILE *f = std::fopen(log.c_str(), "w");
    ASSERT_TRUE(f);
    std::fputs((line("09:41:08.977326", "main", 63, "HIGH", "Initializing zebusrd", "\r\n") +
                line("09:41:08.977400", "main", 63, "LOW", "Initializing zebusrd", "\r\n") +
                "garbage\x01\r\n" +
                line("09:41:09.000001", "zebusr_genl_init_sock", 119, "MED",
                     "ZEB Family id = 30 seq_num = -2", "\n"))
                   .c_str(),
               f);
    std::fclose(f);
    ASSERT_TRUE(f = std::fopen(empty.c_str(), "w"));
    std::fclose(f);
    const std::string l2 = line("09:41:08.977400", "main", 63, "LOW", "Initializing zebusrd", "");
    struct {
        std::string args, want;
    } cases[] = {
        {"check " + log,
         log + ":1: note: CR LF line ends (read without the CR)\n" + log +
             ":2: a message of this function at another level: " + l2 + "\n" + log +
             ":3: bytes that are not text: garbage\\x01\n"
             "4 lines: 2 match, 2 do not (1 bytes that are not text; 1 a message of this "
             "function at another level)\nexit 1"},
        {"lines " + log,
         "1\t09:41:08.977326\tmain\tHIGH\tmain_init\tInitializing zebusrd\n"
         "2\t09:41:08.977400\tmain\tLOW\t?\ta message of this function at another level\t"
         "Initializing zebusrd\n"
         "3\t-\t-\t-\t?\tbytes that are not text\tgarbage\\x01\n"
         "4\t09:41:09.000001\tzebusr_genl_init_sock\tMED\tinit_sock_zeb_id\t"
         "ZEB Family id = 30 seq_num = -2\nexit 0"},
        {"lines --json " + log,
         R"j({"no":1,"time":"09:41:08.977326","func":"main","level":"HIGH","key":"main_init","message":"Initializing zebusrd","args":[],"problem":"CR LF line end (read without the CR)"}
{"no":2,"time":"09:41:08.977400","func":"main","level":"LOW","key":null,"message":"Initializing zebusrd","args":[],"problem":"a message of this function at another level"}
{"no":3,"time":null,"func":null,"level":null,"key":null,"message":"garbage\u0001","args":[],"problem":"bytes that are not text"}
{"no":4,"time":"09:41:09.000001","func":"zebusr_genl_init_sock","level":"MED","key":"init_sock_zeb_id","message":"ZEB Family id = 30 seq_num = -2","args":[30,-2],"problem":null}
exit 0)j"},
        {"check " + empty, "zebusr-log: " + empty + " is empty: no lines to check\nexit 2"},
        {"check " + log + ".missing",
         "zebusr-log: cannot read " + log + ".missing: No such file or directory\nexit 2"},
        {"lines " + log + ".missing",
         "zebusr-log: " + log + ".missing: No such file or directory\nexit 2"},
        {"check -x", "usage: zebusr-log check LOG   (LOG may be - for standard input)\nexit 2"},
        {"lines " + log + " --tsv", "usage: zebusr-log lines LOG [--json]\nexit 2"},
    };
    for (const auto &c : cases) EXPECT_EQ(run(c.args), c.want) << c.args;
}

TEST(Verbs, CheckShowsAHundredBadLinesThenCounts) {
    const std::string log = ::testing::TempDir() + "/verbs_bad.log",
                      why = ": not a log line (no stamp, function, line number and level)";
    std::FILE *f = std::fopen(log.c_str(), "w");
    ASSERT_TRUE(f);
    std::string want;
    for (int i = 1; i <= 101; i++) {
        std::fputs("x\n", f);
        want += i <= 100 ? log + ":" + std::to_string(i) + why + ": x\n" : "";
    }
    std::fclose(f);
    EXPECT_EQ(run("check " + log), want + "... and 1 more\n101 lines: 0 match, 101 do not (101" +
                                       why.substr(1) + ")\nexit 1");
}

}  // namespace
