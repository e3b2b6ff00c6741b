// The preload library and the simulator's server together: this test binary
// starts itself again as a client under the preload and talks netlink the way
// the daemon does, through the calls the preload redirects.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "bytes.hpp"
#include "session.hpp"

namespace {

using namespace sim;
using Json = nlohmann::json;

struct NlAddr {
    uint16_t family = 16, pad = 0;
    uint32_t pid = 0, groups = 0;
};

Bytes genl(uint16_t type, uint8_t cmd, uint16_t attr, const Bytes &payload) {
    Bytes b(20 + align4(4 + payload.size()), 0);
    put_u32(b, 0, uint32_t(b.size()));
    put_u16(b, 4, type);
    put_u16(b, 6, 1);
    put_u32(b, 12, uint32_t(getpid()));
    b[16] = cmd;
    b[17] = 1;
    put_u16(b, 20, uint16_t(4 + payload.size()));
    put_u16(b, 22, attr);
    std::copy(payload.begin(), payload.end(), b.begin() + 24);
    return b;
}

Bytes round_trip(int fd, const Bytes &req) {
    NlAddr to;
    sendto(fd, req.data(), req.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    Bytes buf(1044);
    ssize_t n = recvfrom(fd, buf.data(), buf.size(), MSG_WAITALL, nullptr, nullptr);
    buf.resize(n < 0 ? 0 : size_t(n));
    return buf;
}

void *idle(void *) {
    return nullptr;
}

// Runs in the child, under the preload; prints its findings as JSON.
int client_main() {
    Json r;
    int fd = socket(16, SOCK_RAW, 16);
    NlAddr me;
    r["bind"] = bind(fd, reinterpret_cast<sockaddr *>(&me), sizeof me);
    timeval tv{3, 0};
    r["setsockopt"] = setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    Bytes name = {'D', 'U', 'L', 'O', 'X', '_', 'Z', 'E', 'B', 0};
    Bytes fam = round_trip(fd, genl(16, 3, 2, name));
    uint16_t id = fam.size() >= 32 ? get_u16(fam, 20 + align4(get_u16(fam, 20)) + 4) : 0;
    r["family_id"] = id;
    Bytes sync = round_trip(fd, genl(id, 4, 3, Bytes(12, 0)));
    r["sync_code"] = sync.size() >= 28 ? get_i32(sync, 24) : 999;
    usleep(10000);  // ten ticks of wall time: a slow cycle
    round_trip(fd, genl(id, 4, 3, Bytes(12, 0)));

    int caps = open("/proc/zeb/dulox_zeb_caps", O_RDWR | O_SYNC);
    void *map =
        caps < 0 ? MAP_FAILED : mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, caps, 0);
    if (map != MAP_FAILED) {
        auto *page = static_cast<const uint8_t *>(map);
        r["cpu2_spare"] = get_u64(std::span<const uint8_t>(page, 4096), 2 * 26);
    }
    int ss = open("/proc/zeb/dulox_zeb_ss_flows", O_RDWR | O_SYNC);
    r["ss_open"] = ss >= 0;
    r["ss_mmap_errno"] =
        mmap(nullptr, 4096, PROT_READ, MAP_SHARED, ss, 0) == MAP_FAILED ? errno : 0;
    FILE *log = fopen("/data/vendor/zebusr/zebusr_log.txt", "w+");
    r["fopen"] = log != nullptr;
    if (log) {
        fputs("hello\n", log);
        fclose(log);
    }
    sleep(3);
    pthread_t t;
    r["thread1"] = pthread_create(&t, nullptr, idle, nullptr);
    if (r["thread1"] == 0)
        pthread_join(t, nullptr);
    r["thread2"] = pthread_create(&t, nullptr, idle, nullptr);
    uint8_t junk[10] = {1, 2, 3};
    send(fd, junk, sizeof junk, 0);  // the kernel drops it: the receive times out
    uint8_t buf[64];
    errno = 0;
    r["junk_recv"] = recv(fd, buf, sizeof buf, 0);
    r["junk_errno"] = errno;
    std::printf("%s\n", r.dump().c_str());
    return 0;
}

const bool g_client = [] {
    if (std::getenv("ZEBUSR_PRELOAD_TEST_CLIENT"))
        std::exit(client_main());
    return false;
}();

std::vector<Json> json_lines(const fs::path &p) {
    std::vector<Json> out;
    std::ifstream in(p);
    for (std::string l; std::getline(in, l);)
        if (!l.empty())
            out.push_back(Json::parse(l));
    return out;
}

TEST(Preload, RedirectsTheDaemonsCallsToTheSimulator) {
    SessionOptions o;
    o.scenario = parse_scenario(R"({
    "tick_ms": 100, "cpus": [{"cpu": 2, "load_pps": 30000}],
    "faults": [{"kind": "table_unmappable", "table": "ss_flows"}, {"kind": "thread_create_fails", "nth": 2}]
  })",
                                "preload.json");
    o.run_dir = fs::path(ZEBUSR_TEST_RUN_ROOT) / "preload";
    o.daemon = fs::read_symlink("/proc/self/exe");
    o.preload = ZEBUSR_PRELOAD;
    o.time_factor = 0.01;
    fs::remove_all(o.run_dir);
    Session ses(o);
    setenv("ZEBUSR_PRELOAD_TEST_CLIENT", "1", 1);
    ses.start_daemon();
    unsetenv("ZEBUSR_PRELOAD_TEST_CLIENT");
    ASSERT_EQ(ses.wait_exit(30), 0);

    std::ifstream out(ses.paths().daemon_stdout());
    std::string line;
    std::getline(out, line);
    Json r = Json::parse(line);
    EXPECT_EQ(r["bind"], 0);
    EXPECT_EQ(r["setsockopt"], 0);
    EXPECT_EQ(r["family_id"], 30);
    EXPECT_EQ(r["sync_code"], 0);
    EXPECT_EQ(r["cpu2_spare"], 70000);
    EXPECT_EQ(r["ss_open"], true);
    EXPECT_EQ(r["ss_mmap_errno"], ENODEV);
    EXPECT_EQ(r["fopen"], true);
    EXPECT_EQ(r["thread1"], 0);
    EXPECT_EQ(r["thread2"], EAGAIN);
    EXPECT_EQ(r["junk_recv"], -1);
    EXPECT_EQ(r["junk_errno"], EAGAIN);
    std::ifstream log(ses.paths().log());
    std::getline(log, line);
    EXPECT_EQ(line, "hello");

    std::map<std::string, std::vector<Json>> calls;
    for (auto &c : json_lines(ses.paths().preload())) calls[c["call"]].push_back(c);
    ASSERT_EQ(calls["sleep"].size(), 1u);
    EXPECT_EQ(calls["sleep"][0]["seconds"], 3);
    EXPECT_DOUBLE_EQ(calls["sleep"][0]["scaled_s"].get<double>(), 0.03);
    ASSERT_EQ(calls["SO_RCVTIMEO"].size(), 1u);
    EXPECT_DOUBLE_EQ(calls["SO_RCVTIMEO"][0]["seconds"].get<double>(), 3.0);
    ASSERT_EQ(calls["pthread_create"].size(), 1u);
    EXPECT_EQ(calls["pthread_create"][0]["n"], 2);

    std::map<std::string, Json> in, outs;
    std::vector<double> sync_replies;
    for (auto &rec : json_lines(ses.paths().transcript())) {
        if (rec["dir"] == "in")
            in[rec["kind"]] = rec;
        if (rec["dir"] == "out")
            outs[rec["kind"]] = rec;
        if (rec["dir"] == "out" && rec["kind"] == "sync")
            sync_replies.push_back(rec["t"]);
    }
    EXPECT_NE(in["malformed"].value("problem", "").find("shorter than a netlink header"),
              std::string::npos);
    EXPECT_EQ(outs["malformed"]["reply"], "none");
    // Syncs are answered on the module's tick, one tick apart however slow the
    // client: the clock waited at the second reply's tick.
    ASSERT_EQ(sync_replies.size(), 2u);
    EXPECT_NEAR(sync_replies[1] - sync_replies[0], 0.1, 1e-6);
    EXPECT_GT(in["sync"].value("clock_held_s", 0.0), 0.5);
    double t = outs["sync"]["t"];
    EXPECT_NEAR(t / 0.1, std::round(t / 0.1), 1e-6);
    EXPECT_GE(t, in["sync"]["t"].get<double>());
}

}  // namespace
