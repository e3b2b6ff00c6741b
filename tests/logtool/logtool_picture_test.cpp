// The picture's series of a long log: thinned evenly to a bounded number of
// points, each point still the values of its own cycle.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>

#include "picture_series.hpp"

namespace {

std::string line(uint64_t t_us, const char *func, int src, const char *level,
                 const std::string &msg) {
    uint64_t s = t_us / 1000000;
    char b[256];
    std::snprintf(b, sizeof b, " %02u:%02u:%02u.%06u %40s():%3d (%s): %s\n", unsigned(s / 3600),
                  unsigned(s / 60 % 60), unsigned(s % 60), unsigned(t_us % 1000000), func, src,
                  level, msg.c_str());
    return b;
}

// Cycle i, 100 ms apart: cpu c has i * 10 + c spare pps, flow 0xb0b0 is on
// gold cpu 4 + i % 4.
std::string cycles(int n) {
    std::string log;
    for (int i = 0; i < n; ++i) {
        uint64_t t = 3600000000ull + uint64_t(i) * 100000;
        std::string seq = std::to_string(i + 3);
        log += line(t, "zebusr_sync", 115, "LOW",
                    "########## SYNC START - seq_num " + seq + " #############") +
               "\n";
        log += line(t + 1, "zebusr_genl_recv_int_from_kernel", 151, "LOW",
                    "  Waiting for kernel to send a msg");
        log += line(t + 2, "zebusr_genl_recv_int_from_kernel", 160, "LOW",
                    "  kernel seq_num " + std::to_string(i + 4) + " return code: 0");
        log += line(t + 3, "zebusr_read_capacities", 44, "LOW",
                    "################## CAP FILE CONTENTS #################");
        for (int c = 0; c < 8; ++c) {
            std::string v = std::to_string(i * 10 + c);
            log += line(t + 4, "zebusr_read_capacities", 47, "LOW",
                        "  ZEB_CAPS: > cpu[" + std::to_string(c) + "] with pps capacity = " + v +
                            " | avg pps cap = " + v + " bps = 0");
        }
        log += line(t + 5, "zebusr_read_gold_flows", 44, "LOW",
                    "################## GOLD FLOW FILE CONTENTS #################");
        log += line(t + 6, "zebusr_read_gold_flows", 45, "LOW", "  num gold flows = 1");
        log += line(t + 7, "zebusr_read_gold_flows", 50, "LOW",
                    "  ZEB_MMAP: > flow 0xb0b0 on cpu[" + std::to_string(4 + i % 4) +
                        "] with rx_pps = 1000 | avg pps = 1000");
    }
    return log;
}

TEST(PictureSeries, LongLogThinsEvenlyAndKeepsEachCyclesValues) {
    // 9000 cycles: halved at 4000 points (stride 2) and again (stride 4).
    zlog::PictureSink sink(0);
    zlog::read_log_text(cycles(9000), sink);
    ASSERT_EQ(sink.cycles(), 9000u);
    sim::PictureData d = sink.data("t");
    ASSERT_LE(d.samples.size(), zlog::kPictureSamples);
    ASSERT_EQ(d.samples.size(), 2250u);
    ASSERT_EQ(d.flows.size(), 1u);
    EXPECT_EQ(d.flows[0].hash, 0xb0b0u);
    for (size_t k = 0; k < d.samples.size(); ++k) {
        const sim::Sample &s = d.samples[k];
        int i = int(k * 4);
        ASSERT_NEAR(s.t, i * 0.1, 1e-6) << k;
        for (int c = 0; c < 8; ++c) ASSERT_EQ(s.spare[size_t(c)], i * 10 + c) << k;
        ASSERT_EQ(s.flow_cpu, std::vector<int>{4 + i % 4}) << k;
    }
}

TEST(PictureSeries, VerboseOffBreaksEveryLineInTimeOrder) {
    // The last cycle ends with the log, after the line that stops verbose
    // logging: the break still comes after it.
    zlog::PictureSink sink(0);
    zlog::read_log_text(cycles(3) + line(3600250000ull, "zebusr_stop_logging", 80, "HIGH",
                                         "Stopping verbose logging"),
                        sink);
    sim::PictureData d = sink.data("t");
    ASSERT_GE(d.samples.size(), 4u);
    for (size_t k = 0; k < d.samples.size(); ++k) {
        const sim::Sample &s = d.samples[k];
        bool brk = k >= 3;
        EXPECT_NEAR(s.t, brk ? 0.25 : k * 0.1, 1e-6) << k;
        for (double v : s.spare) EXPECT_EQ(std::isnan(v), brk) << k;
        EXPECT_EQ(s.flow_cpu, std::vector<int>{brk ? -1 : int(4 + k)}) << k;
    }
}

TEST(PictureSeries, OnlyTheChosenRunIsDrawn) {
    zlog::PictureSink sink(1);
    zlog::read_log_text(cycles(20), sink);
    EXPECT_EQ(sink.runs(), 1u);
    EXPECT_EQ(sink.cycles(), 0u);
    EXPECT_TRUE(sink.data("t").samples.empty());
}

}  // namespace
