// The line reader and the CSV reader: real lines of every shape, and every
// way a line or a row can be wrong.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "csv.hpp"
#include "lines.hpp"
#include "log_text.hpp"

namespace zlog {
namespace {

// A line as the daemon's writer puts it.
std::string W(const char *func, unsigned src, const char *level, const std::string &msg) {
    return test::prefix(34868977326, func, src, level) + msg;  // at 09:41:08.977326
}

const char *kProblems[] = {"ok",      "crlf",    "nottext", "toolong", "cut",  "noprefix",
                           "columns", "unknown", "level",   "noblank", "blank"};

// "key a1 a2 ..." for a matched line (numbers "u" or "u/i" when i differs),
// else the problem's name.
std::string render(const LogLine &l) {
    std::string out = l.msg == Msg::Unknown ? "" : message_info(l.msg).key;
    if (l.problem != Problem::None)
        out += std::string(out.empty() ? "" : ":") + kProblems[static_cast<int>(l.problem)];
    for (int i = 0; i < l.nargs; i++) {
        const Arg &a = l.args[i];
        if (!a.s.empty())
            out += " '" + std::string(a.s) + "'";
        else
            out += " " + std::to_string(a.u) +
                   (static_cast<uint64_t>(a.i) == a.u && a.i >= 0 ? "" : "/" + std::to_string(a.i));
    }
    return out;
}

const std::string kZb = "zebusr_genl_recv_pid_byte_info_from_kernel";  // 42 columns

// Real lines of every shape and what the reader makes of each.
const struct LineCase {
    std::string text, want;
} kLineCases[] = {
    {W("main", 63, "HIGH", "Initializing zebusrd"), "main_init"},
    {W("zebusr_genl_recv_int_from_kernel", 160, "LOW", "  kernel seq_num 4 return code: -1"),
     "recv_int_code 4 18446744073709551615/-1"},
    {W("zebusr_genl_recv_int_from_kernel", 160, "LOW",
       "  kernel seq_num 2147483647 return "
       "code: -2147483648"),
     "recv_int_code 2147483647 18446744071562067968/-2147483648"},
    {W(kZb.c_str(), 23, "LOW", "  Waiting for kernel to send a msg"), "recv_pid_waiting"},
    {" 09:41:08.977783 " + kZb + "():1234 (ERR): netlink failed to send to fd", "recv_pid_failed"},
    {W("zebusr_read_gold_flows", 50, "LOW",
       "  ZEB_MMAP: > flow 0xffffffff on cpu[0] with rx_pps = 18446744073709551615 | avg pps = "
       "0"),
     "gold_entry 4294967295 0 18446744073709551615/-1 0"},
    {W("duloxusr_print_pid_bps_resp", 45, "LOW",
       "pid[0] = 4242\t| tx_bps[0] = 100000000 | boost_remaining_ms[0] = 5995"),
     "rates_entry 0 4242 0 100000000 0 5995"},
    {W("zebusr_ht_debug_print", 116, "LOW",
       "zebusr_ht_debug_print: \tbkt[7]: hash = 0xf457 | rx_bps = 5 | is_stable = 0 | "
       "is_segmentation_enabled = 1 "),
     "ht_print_node 7 62551 5 0 1"},
    {W("zebusr_sync", 115, "LOW", "########## SYNC START - seq_num 3 #############"),
     "sync_start 3"},
    {W("zebusr_connect_to_dulox_zeb", 51, "MED", "zebusr_init_cap_file complete"),
     "connect_file_done 'cap'"},
    {W("zebusr_connect_to_dulox_zeb", 51, "MED", "init a file failed file failed"),
     "connect_file_failed 'a file failed'"},
    {W("zebusr_init_cap_file", 48, "ERR", "open: No such file or directory"),
     "cap_file_open_failed 'No such file or directory'"},
    // The source line takes up to 9 digits.
    {W("main", 123456789, "HIGH", "Initializing zebusrd"), "main_init"},
    {W("main", 1234567890, "HIGH", "Initializing zebusrd"), "noprefix"},
    // What printf cannot have written: out of range, signs, leading zeros.
    {W("zebusr_genl_recv_int_from_kernel", 160, "LOW",
       "  kernel seq_num 2147483648 return "
       "code: 0"),
     "unknown"},
    {W("zebusr_init_cap_file", 44, "HIGH", "cap_fd = 8 page size = -1"), "unknown"},
    {W("zebusr_init_cap_file", 44, "HIGH", "cap_fd = 08 page size = 1"), "unknown"},
    {W("zebusr_init_cap_file", 44, "HIGH", "cap_fd = -0 page size = 1"), "unknown"},
    {W("zebusr_init_cap_file", 44, "HIGH", "cap_fd = 8 page size = 18446744073709551616"),
     "unknown"},
    {W("zebusr_read_gold_flows", 50, "LOW",
       "  ZEB_MMAP: > flow 0x1ffffffff on cpu[0] with rx_pps = 1 | avg pps = 0"),
     "unknown"},
    {W("zebusr_init_cap_file", 44, "HIGH", "cap_fd = 8 page size = 4096 "), "unknown"},
    {W("main", 63, "HIGH", "Exiting"), "unknown"},
    {W("no_such_function", 63, "HIGH", "Exiting main"), "unknown"},
    {W("main", 63, "LOW", "Initializing zebusrd"), "level"},
    {W("zebusr_genl_init_sock", 119, "LOW", "DULOX Family id = 31"), "level"},
    // Columns: each part one column off, or spaced otherwise.
    {" " + W("main", 63, "HIGH", "Exiting main"), "columns"},
    {W("main", 63, "HIGH", "Exiting main").substr(1), "columns"},
    {" 09:41:08.977326                                    main(): 63 (HIGH): Exiting main",
     "columns"},
    {" 09:41:08.977326                                     main():63 (HIGH): Exiting main",
     "columns"},
    {" 09:41:08.977326                                     main(): 063 (HIGH): Exiting main",
     "columns"},
    {" 09:41:08.977326  " + kZb + "():1234 (ERR): netlink failed to send to fd", "columns"},
    {"09:41:08.977326 main(): 63 (HIGH): Exiting main", "columns"},
    {" 24:41:08.977326                                     main(): 63 (HIGH): Exiting main",
     "noprefix"},
    {W("main", 63, "INFO", "Exiting main"), "noprefix"},
    {"Exiting main", "noprefix"},
    {"", "noprefix"},
};

TEST(ParseLine, EachShapeOfLine) {
    for (const LineCase &c : kLineCases) {
        LogLine l;
        bool ok = parse_line(c.text, 7, l);
        EXPECT_EQ(render(l), c.want) << c.text;
        EXPECT_EQ(ok, l.problem == Problem::None) << c.text;
    }
    for (size_t at : {1, 2, 4, 5, 7, 8, 10, 11, 12, 13, 14, 15}) {  // a letter for a stamp digit
        std::string t = W("main", 63, "HIGH", "Exiting main");
        t[at] = 'x';
        LogLine l;
        parse_line(t, 7, l);
        EXPECT_EQ(render(l), "noprefix") << t;
    }
    LogLine l;  // views into the text: the text outlives it
    const std::string leap =
        " 23:59:60.999999 " + kZb + "():1234 (ERR): netlink failed to send to fd";
    ASSERT_TRUE(parse_line(leap, 9, l));
    EXPECT_EQ(l.tod_us, 86400999999u);
    EXPECT_EQ(l.no, 9u);
    EXPECT_EQ(l.func, kZb);
    EXPECT_EQ(l.src_line, 1234u);
    EXPECT_EQ(l.level, Level::Err);
}

struct Transcript : LineSink {
    std::string out;
    void on_line(const LogLine &l) override {
        out += std::to_string(l.no) + " " + render(l) + " [" + std::string(l.text.substr(0, 12)) +
               "]\n";
    }
};

std::string read_in_pieces(const std::string &text, size_t piece) {
    Transcript t;
    LineReader r(t);
    for (size_t i = 0; i < text.size(); i += piece) r.feed(std::string_view(text).substr(i, piece));
    r.finish();
    return t.out;
}

TEST(ReadLines, ProblemsOfTheStream) {
    const std::string init = W("main", 63, "HIGH", "Initializing zebusrd");
    const std::string sync = W("zebusr_sync", 115, "LOW",
                               "########## SYNC START - seq_num 3 "
                               "#############");
    const std::string big(2 << 20, 'x');
    struct Case {
        std::string text, want;
    } cases[] = {
        {init + "\n" + sync + "\n\n" + init + "\n",
         "1 main_init [ 09:41:08.97]\n2 sync_start 3 [ 09:41:08.97]\n4 main_init [ 09:41:08.97]\n"},
        {sync + "\n" + init + "\n\n",
         "1 sync_start 3 [ 09:41:08.97]\n2 noblank []\n2 main_init [ 09:41:08.97]\n3 blank []\n"},
        {init + "\r\n" + sync + "\r\n\r\n" + "x\r\n",
         "1 main_init:crlf [ 09:41:08.97]\n2 sync_start:crlf 3 [ 09:41:08.97]\n"
         "4 noprefix [x]\n"},
        {init + "\n" + init.substr(0, 30) + std::string(1, '\0') + "\n" + init + "\x01\n",
         "1 main_init [ 09:41:08.97]\n2 nottext [ 09:41:08.97]\n3 nottext [ 09:41:08.97]\n"},
        {init + "\n" + big + "\n" + init + "\n",
         "1 main_init [ 09:41:08.97]\n2 toolong [xxxxxxxxxxxx]\n3 main_init [ 09:41:08.97]\n"},
        {init + "\n" + init, "1 main_init [ 09:41:08.97]\n2 cut [ 09:41:08.97]\n"},
        {init + "\n" + init.substr(0, 5) + std::string(1, '\0'),
         "1 main_init [ 09:41:08.97]\n2 cut [ 09:4" + std::string(1, '\0') + "]\n"},
        {sync + "\n", "1 sync_start 3 [ 09:41:08.97]\n"},
        {"\n\t\n", "1 blank []\n2 noprefix [\t]\n"},
        {"", ""},
    };
    for (const Case &c : cases) {
        Transcript t;
        read_lines_text(c.text, t);
        EXPECT_EQ(t.out, c.want) << c.text.substr(0, 200);
        EXPECT_EQ(read_in_pieces(c.text, 7), c.want);
    }
    EXPECT_EQ(read_in_pieces(init + "\n" + big + "\n", 1 << 16),
              "1 main_init [ 09:41:08.97]\n2 toolong [xxxxxxxxxxxx]\n");
}

TEST(ReadLines, TooLongKeepsTheFirstMegabyte) {
    struct Size : LineSink {
        size_t size = 0;
        void on_line(const LogLine &l) override { size = l.text.size(); }
    } s;
    read_lines_text(std::string(kMaxLine + 1, 'y') + "\n", s);
    EXPECT_EQ(s.size, kMaxLine);
    read_lines_text(std::string(kMaxLine, 'y') + "\n", s);
    EXPECT_EQ(s.size, kMaxLine);
}

TEST(ReadLines, FromAFile) {
    const std::string dir = ::testing::TempDir(), empty = dir + "/logread_empty.txt",
                      one = dir + "/logread_one.txt";
    const std::string init = W("main", 63, "HIGH", "Initializing zebusrd") + "\n";
    std::FILE *f = std::fopen(empty.c_str(), "w");
    ASSERT_TRUE(f);
    std::fclose(f);
    ASSERT_TRUE(f = std::fopen(one.c_str(), "w"));
    std::fputs(init.c_str(), f);
    std::fclose(f);
    struct Case {
        std::string path;
        bool ok;
        std::string why, lines;
    } cases[] = {
        {dir + "/logread_missing.txt", false,
         dir + "/logread_missing.txt: No such file or directory", ""},
        {dir, false, dir + ": Is a directory", ""},
        {empty, true, "", ""},  // an error number left over from before is not this file's
        {one, true, "", "1 main_init [ 09:41:08.97]\n"},
    };
    for (const Case &c : cases) {
        Transcript t;
        std::string why;
        errno = EINTR;
        EXPECT_EQ(read_lines_file(c.path, t, why), c.ok) << c.path;
        EXPECT_EQ(why, c.why);
        EXPECT_EQ(t.out, c.lines);
    }
}

struct CsvTranscript : CsvSink {
    std::string out;
    void on_row(const CsvRow &r) override {
        out += std::to_string(r.no) + ": " + std::to_string(r.tod_us) + " " + std::to_string(r.seq);
        for (uint64_t p : r.pps) out += " " + std::to_string(p);
        out += "\n";
    }
    void on_problem(uint64_t no, std::string_view why) override {
        out += std::to_string(no) + ": " + std::string(why) + "\n";
    }
};

TEST(ReadCsv, RowsAndProblems) {
    const std::string h = std::string(kCsvHeader) + "\n";
    const std::string row = "00:00:01.000002,14,0,1,2,3,4,5,6,18446744073709551615";
    const std::string rowv = "1000002 14 0 1 2 3 4 5 6 18446744073709551615\n";
    struct Case {
        std::string text, want;
    } cases[] = {
        {h + row + "\n" + row + "\n", "2: " + rowv + "3: " + rowv},
        {row + "\n", "1: no header (time,seq_num,CPU0,...,CPU7)\n1: " + rowv},
        {h + row + "\n" + h + "23:59:59.999999,-1,0,0,0,0,0,0,0,0\n",
         "2: " + rowv +
             "3: the header again: a new capture starts here\n"
             "4: 86399999999 4294967295 0 0 0 0 0 0 0 0\n"},
        {h + "00:00:01.000002,14,0,1,2,3,4,5,6\n" + row + ",7\n",
         "2: 9 fields where a row has 10\n3: 11 fields where a row has 10\n"},
        {h + "00:00:01.000002,14,0,1,2,x3,4,5,6,7\n00:00:01.000002,14,0,1,2,3,4,5,6,\n",
         "2: CPU3 is not a number\n3: CPU7 is not a number\n"},
        {h + "0:00:01.000002,14,0,1,2,3,4,5,6,7\n00:00:01.000002,4294967296,0,1,2,3,4,5,6,7\n",
         "2: the time is not HH:MM:SS.uuuuuu\n3: the seq_num is not a number\n"},
        {h + row + "\r\n" + row + "\r\n",
         "2: CR LF line ends (read without the CR)\n2: " + rowv + "3: " + rowv},
        {h + row + std::string(1, '\0') + "\n\n" + row,
         "2: bytes that are not text\n3: an empty line\n4: cut: the file ends inside this row\n"},
    };
    for (const Case &c : cases) {
        CsvTranscript t;
        read_csv_text(c.text, t);
        EXPECT_EQ(t.out, c.want) << c.text;
    }
}

}  // namespace
}  // namespace zlog
