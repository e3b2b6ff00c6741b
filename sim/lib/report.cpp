#include "report.hpp"

#include <cinttypes>
#include <sstream>

namespace sim {

using json = nlohmann::ordered_json;

namespace {

std::string mbps(uint64_t bps) {
    char b[32];
    std::snprintf(b, sizeof b, "%.1f Mbps", double(bps) / 1e6);
    return b;
}

std::string u(const json &j, const char *key) {
    return j.contains(key) ? std::to_string(j[key].get<uint64_t>()) : std::string("?");
}

std::string verdict(const json &out) {
    std::string r = out.value("result", "");
    if (r.empty())
        r = "answered";
    if (out.value("reply", "") == "error")
        r = "NLMSG_ERROR " + std::to_string(out.value("error", 0));
    if (out.value("reply", "") == "none")
        r = "no answer";
    if (out.value("reply", "") == "malformed")
        r = "malformed answer (" + out.value("form", "") + ")";
    if (out.contains("code") && out["code"] != 0)
        r += " (code " + std::to_string(out["code"].get<int>()) + ")";
    if (out.contains("fault"))
        r += " [fault " + out["fault"].get<std::string>() + "]";
    else if (out.contains("effect") && out["code"] == 0)
        r += ": " + out["effect"].get<std::string>();
    return r;
}

std::string suggestion(const json &in, const json &out) {
    const json &s = in.contains("seen") ? in["seen"] : json::object();
    std::string type = in["sugg_type"], cur = std::to_string(in["cur_cpu"].get<int>()),
                dest = std::to_string(in["dest_cpu"].get<int>()), hash = in["hash"];
    std::ostringstream o;
    if (type == "UP") {
        o << "UP     all flows of cpu" << cur << " -> gold cpu" << dest << " | cpu" << cur
          << " spare " << u(s, "cur_pps_capacity") << " pps (loaded below 8000)";
    } else if (type == "DOWN") {
        o << "DOWN   flow " << hash << " cpu" << cur << " -> silver cpu" << dest << " | flow avg "
          << u(s, "flow_avg_pps") << " pps < cpu" << dest << " avg spare "
          << u(s, "dest_avg_pps_capacity") << " - 20000 headroom";
    } else if (type == "BAL") {
        o << "BAL    flow " << hash << " cpu" << cur << " -> gold cpu" << dest << " | cpu" << dest
          << " avg spare " << u(s, "dest_avg_pps_capacity") << " - 20000 - flow avg "
          << u(s, "flow_avg_pps") << " >= cpu" << cur << " avg spare "
          << u(s, "cur_avg_pps_capacity");
    } else {
        o << "MOVE?  type " << in["sugg_type_num"].get<uint32_t>() << " flow " << hash << " cpu"
          << cur << " -> cpu" << dest;
    }
    o << "  => " << verdict(out);
    return o.str();
}

std::string segmentation(const json &in, const json &out) {
    std::ostringstream o;
    const json &s = in["seen"];
    o << "SEG    flow " << in["hash"].get<std::string>();
    if (s.contains("cpu"))
        o << " on cpu" << s["cpu"].get<int>();
    o << " segmentation " << (in["seg_enable"] == 0 ? "off" : "on");
    if (s.contains("rx_bps")) {
        uint64_t bps = s["rx_bps"];
        o << " | rx " << mbps(bps)
          << (bps >= 300000000 ? " (fast: at or above 300 Mbps)" : " (stable rate)");
    }
    o << "  => " << verdict(out);
    return o.str();
}

std::string boost(const json &in, const json &out) {
    std::ostringstream o;
    o << "BOOST ";
    bool first = true;
    for (const auto &e : in["entries"]) {
        o << (first ? " " : "; ") << "pid " << e["pid"].get<uint32_t>();
        if (e.contains("seen"))
            o << " tx " << mbps(e["seen"]["tx_bps"]) << " (> 500 Mbps), boost left "
              << e["seen"]["boost_remaining_ms"].get<uint32_t>() << " ms";
        o << ", asks " << e["boost_period"].get<uint32_t>() << " ms";
        first = false;
    }
    o << "  => " << out.value("effect", std::string("?"));
    return o.str();
}

}  // namespace

std::string Reporter::decision_line(const json &in, const json &out) {
    std::string kind = in.value("kind", "");
    if (kind == "suggestion")
        return suggestion(in, out);
    if (kind == "segmentation")
        return segmentation(in, out);
    if (kind == "boost")
        return boost(in, out);
    if (kind == "family_lookup") {
        std::string r = "LOOKUP " + in.value("family", std::string("?")) + " -> ";
        if (out.value("reply", "") == "family")
            r += "id " + std::to_string(out["id"].get<int>());
        else if (out.value("reply", "") == "error")
            r += "not found (" + verdict(out) + ")";
        else
            r += verdict(out);
        return r;
    }
    if (kind == "malformed")
        return "MALFORMED request from the daemon: " + in.value("problem", std::string("?"));
    if (out.contains("fault") || out.value("reply", "") == "none" ||
        (out.contains("code") && out["code"] != 0))
        return "FAULT  " + kind + " => " + verdict(out);
    return "";
}

void Reporter::print(double t, const std::string &text) {
    if (!live_)
        return;
    std::fprintf(out_, "[%8.3fs] %s\n", t, text.c_str());
    std::fflush(out_);
}

void Reporter::note(double t, const std::string &text) {
    std::lock_guard lock(mu_);
    print(t, text);
}

void Reporter::count(const json &in, const json &out) {
    std::string kind = in.value("kind", "");
    if (kind == "suggestion")
        kind += " " + in["sugg_type"].get<std::string>();
    counts_[kind + " requests"]++;
    if (out.value("result", "") == "accepted")
        counts_[kind + " accepted"]++;
    if (out.contains("fault"))
        counts_["faults applied"]++;
}

void Reporter::on_record(const json &rec) {
    std::lock_guard lock(mu_);
    std::string dir = rec.value("dir", "");
    if (dir == "event") {
        std::string k = rec["kind"];
        if (k.rfind("table_", 0) == 0)
            print(rec["t"], "TABLE  " + rec["table"].get<std::string>() + " " + k.substr(6));
        return;
    }
    long n = rec.value("n", 0L);
    if (dir == "in") {
        pending_[n] = rec;
        return;
    }
    auto it = pending_.find(n);
    if (it == pending_.end())
        return;
    count(it->second, rec);
    std::string line = decision_line(it->second, rec);
    if (!line.empty())
        print(rec["t"], line);
    pending_.erase(it);
}

void Reporter::summary(const json &device, double sim_s, int exit_status) {
    std::lock_guard lock(mu_);
    std::fprintf(out_, "\n== Summary after %.1f simulated seconds ==\n", sim_s);
    std::fprintf(out_, "  evaluation cycles (syncs answered): %d\n", counts_["sync requests"]);
    std::fprintf(out_, "  family lookups: %d\n", counts_["family_lookup requests"]);
    for (const char *t : {"UP", "DOWN", "BAL"}) {
        std::string k = std::string("suggestion ") + t;
        std::fprintf(out_, "  %-5s moves: %d asked, %d accepted\n", t, counts_[k + " requests"],
                     counts_[k + " accepted"]);
    }
    std::fprintf(out_, "  segmentation requests: %d asked, %d accepted\n",
                 counts_["segmentation requests"], counts_["segmentation accepted"]);
    std::fprintf(out_, "  boost requests: %d; throughput queries: %d\n", counts_["boost requests"],
                 counts_["pid_bps_query requests"]);
    if (counts_["malformed requests"])
        std::fprintf(out_, "  malformed requests: %d\n", counts_["malformed requests"]);
    if (counts_["faults applied"])
        std::fprintf(out_, "  faults applied: %d\n", counts_["faults applied"]);
    std::fprintf(out_, "  flows at the end:\n");
    for (const auto &f : device["flows"]) {
        std::string name = f["name"];
        std::fprintf(out_, "    %-10s %-16s cpu%d%s, segmentation %s%s\n",
                     f["hash"].get<std::string>().c_str(), name.c_str(), f["cpu"].get<int>(),
                     f["cpu"] == f["start_cpu"]
                         ? " (not moved)"
                         : (" (from cpu" + std::to_string(f["start_cpu"].get<int>()) + ")").c_str(),
                     f["segmentation"].get<bool>() ? "on" : "off",
                     f["active"].get<bool>() ? "" : ", ended");
    }
    for (const auto &p : device["processes"])
        std::fprintf(out_, "    pid %-6u %-16s boosted %d time(s), %" PRIu64 " ms of boost left\n",
                     p["pid"].get<uint32_t>(), p["name"].get<std::string>().c_str(),
                     p["boosts"].get<int>(), p["boost_remaining_ms"].get<uint64_t>());
    if (exit_status >= 0)
        std::fprintf(out_, "  daemon exit status: %d\n", exit_status);
    std::fflush(out_);
}

}  // namespace sim
