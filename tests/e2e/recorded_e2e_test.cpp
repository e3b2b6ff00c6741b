// A recorded scenario served to the real daemon: every request answered by the
// step the log gives it, the tables read as the steps wrote them, and the run
// ending by itself once both connections' steps are used up.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "harness.hpp"

namespace {

using e2e::Daemon;
using e2e::Json;
using Strings = std::vector<std::string>;

std::string str(const Json &v) {
    return v.is_string() ? v.get<std::string>() : v.dump();
}

std::string request(const Json &in) {
    const std::string kind = in["kind"];
    if (kind == "family_lookup")
        return "lookup " + str(in["family"]);
    if (kind == "suggestion")
        return str(in["sugg_type"]) + " " + str(in["hash"]) + " " + str(in["cur_cpu"]) + ">" +
               str(in["dest_cpu"]) + " " + in["seen"].dump();
    if (kind == "segmentation")
        return "seg " + str(in["hash"]) + (in["seg_enable"] == 0 ? " off " : " on ") +
               in["seen"].dump();
    if (kind == "boost")
        return "boost " + in["entries"].dump();
    return kind;
}

std::string answer(const Json &out) {
    std::string a = str(out["reply"]);
    for (const char *key : {"id", "code", "form", "effect", "why"})
        if (out.contains(key))
            a += " " + str(out[key]);
    if (out.contains("step"))
        a += " @" + str(out["step"]) + "/" + str(out["line"]);
    return a;
}

// "request: answer @step/line" per side, in the order the daemon asked, up to
// the first request held once the side's steps are used up: what follows it
// (a receive time-out, a new lookup) depends on how soon the stop comes.
std::map<std::string, Strings> exchanges(const Daemon &run) {
    std::map<long, Json> asked;
    std::map<std::string, Strings> sides;
    for (const Json &r : run.transcript()) {
        if (r["dir"] == "in") {
            asked[r["n"].get<long>()] = r;
            continue;
        }
        if (r["dir"] != "out")
            continue;
        const Json &in = asked.at(r["n"].get<long>());
        Strings &side = sides[in.value("family", "") == "DULOX_CORE" ? "core" : "steering"];
        if (side.empty() || side.back().find("steps are used up: held") == std::string::npos)
            side.push_back(request(in) + ": " + answer(r));
    }
    return sides;
}

// The lines the daemon logs of the tables it mapped, built from the scenario
// file itself: slow-start flows, capacities, then the gold flows when read.
Strings table_lines(const Json &steps) {
    Strings lines;
    char b[256];
    for (const Json &s : steps) {
        if (!s.contains("tables"))
            continue;
        const Json &t = s["tables"];
        for (const Json &f : t.value("ss_flows", Json::object()).value("entries", Json::array())) {
            snprintf(b, sizeof b,
                     "ZEB_SLOW: > ss flow %s on cpu[%d] with rx_pps = %lu | avg pps = %lu | "
                     "rx_bps = %lu",
                     str(f[0]).c_str(), f[1].get<int>(), f[2].get<unsigned long>(),
                     f[3].get<unsigned long>(), f[4].get<unsigned long>());
            lines.push_back(b);
        }
        for (const Json &c : t["caps"]) {
            snprintf(b, sizeof b,
                     "ZEB_CAPS: > cpu[%d] with pps capacity = %lu | avg pps cap = %lu bps = %lu",
                     c[0].get<int>(), c[1].get<unsigned long>(), c[2].get<unsigned long>(),
                     c[3].get<unsigned long>());
            lines.push_back(b);
        }
        if (!t.contains("flows"))
            continue;
        lines.push_back("num gold flows = " +
                        str(t["flows"].value("len", Json(t["flows"]["entries"].size()))));
        for (const Json &f : t["flows"]["entries"]) {
            if (str(f[0]) == "0x0")
                break;  // the daemon stops at an invalid entry
            snprintf(b, sizeof b,
                     "ZEB_MMAP: > flow %s on cpu[%d] with rx_pps = %lu | avg pps = %lu",
                     str(f[0]).c_str(), f[1].get<int>(), f[2].get<unsigned long>(),
                     f[3].get<unsigned long>());
            lines.push_back(b);
        }
    }
    return lines;
}

const char kUp24[] =
    R"(UP 0x0 2>4 {"cur_pps_capacity":7400,"cur_avg_pps_capacity":14000,"dest_avg_pps_capacity":)";
const char kUp3[] = R"(UP 0x0 3>)";
const char kUp3Seen[] = R"({"cur_pps_capacity":5000,"cur_avg_pps_capacity":9000,)";

TEST(Recorded, EveryRequestIsAnsweredByItsStepAndTheRunEndsByItself) {
    Daemon run("recorded/basic.json", {"verbose"});
    ASSERT_TRUE(run.wait_recorded_done()) << run.describe();
    run.stop();

    const std::string refused = ": code 1 not in the log";
    const std::string seen3 = std::string(kUp3Seen) + R"("dest_avg_pps_capacity":)";
    auto sides = exchanges(run);
    EXPECT_EQ(
        sides["steering"],
        (Strings{"lookup DULOX_ZEB: family 30 @0/12", "sync: code 0 @1/14", "sync: code 0 @2/20",
                 std::string(kUp24) + "180000}: code 1 as in the log @2/29",
                 std::string(kUp24).replace(9, 1, "5") + "140000}: code 0 as in the log @2/31",
                 "sync: code 0 @3/40",
                 R"(seg 0xf457 off {"rx_bps":600000000,"cpu":3}: code 0 as in the log @3/47)",
                 R"(DOWN 0xb0b0 5>1 {"dest_avg_pps_capacity":65000,"cur_pps_capacity":140000,)"
                 R"("cur_avg_pps_capacity":140000,"flow_avg_pps":40000,"flow_rx_pps":40000}: )"
                 "code 0 as in the log @3/58",
                 "sync: code 0 @4/70",
                 R"(BAL 0xd00d 6>5 {"dest_avg_pps_capacity":180000,"cur_pps_capacity":40000,)"
                 R"("cur_avg_pps_capacity":89000,"flow_avg_pps":70000,"flow_rx_pps":70000}: )"
                 "code 0 as in the log @4/88",
                 "sync: none silent in the log @5/95", "lookup DULOX_ZEB: family 30 @6/130",
                 "sync: code 0 @7/132", "sync: code 0 @8/140",
                 kUp3 + std::string("4 ") + seen3 + "128000}" + refused,
                 kUp3 + std::string("5 ") + seen3 + "180000}" + refused,
                 kUp3 + std::string("6 ") + seen3 + "110000}" + refused,
                 kUp3 + std::string("7 ") + seen3 + "180000}" + refused,
                 "sync: none the steering steps are used up: held"}));
    EXPECT_EQ(sides["core"],
              (Strings{"lookup DULOX_CORE: family 31 @0/10", "pid_bps_query: pid_bps @1/16",
                       R"(boost [{"pid":4242,"boost_en":1,"boost_period":10000,"seen":)"
                       R"({"tx_bps":600000000,"boost_remaining_ms":0}}]: none recorded: )"
                       "nothing applied",
                       "pid_bps_query: pid_bps @2/60", "pid_bps_query: malformed short @3/120",
                       "pid_bps_query: none the core steps are used up: held"}));

    std::ifstream in(std::filesystem::path(__FILE__).parent_path() /
                     "../../scenarios/recorded/basic.json");
    Json steps = Json::parse(in)["recorded"]["runs"][0]["steering"];
    const std::string log = run.log();
    EXPECT_EQ(e2e::missing_in_order(log, table_lines(steps)), "");
    EXPECT_EQ(e2e::count(log, "ZEB_CAPS: >"), 4u * 8);  // four cycles, no more
}

}  // namespace
