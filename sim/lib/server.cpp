#include "server.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace sim {

using json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

namespace {

const char *const kTables[] = {"caps", "flows", "ss_flows"};
constexpr int64_t kNoCap = INT64_MAX;
// How long the clock may stand at its cap: one receive time-out.
constexpr double kCapGrace = 3.0;

[[noreturn]] void sys_fail(const std::string &what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

socklen_t make_addr(const std::string &name, sockaddr_un &a) {
    std::memset(&a, 0, sizeof a);
    a.sun_family = AF_UNIX;
    bool abstract = !name.empty() && name[0] == '@';
    if (name.size() >= sizeof a.sun_path)
        throw std::runtime_error("socket name too long: " + name);
    std::memcpy(a.sun_path, name.data(), name.size());
    if (abstract)
        a.sun_path[0] = '\0';
    return socklen_t(offsetof(sockaddr_un, sun_path) + name.size() + (abstract ? 0 : 1));
}

}  // namespace

fs::path RunPaths::table(const std::string &name) const {
    return dir / "proc/zeb" / ("dulox_zeb_" + name);
}

Server::Server(const Scenario &s, ServerOptions o)
    : s_(s), o_(std::move(o)), paths_{o_.run_dir}, model_(s), module_(s, model_) {
    fs::create_directories(paths_.dir / "proc/zeb");
    fs::create_directories(paths_.dir / "data/vendor/zebusr");
    for (const fs::path &p : {paths_.log(), paths_.csv(), paths_.preload(), paths_.daemon_stdout(),
                              paths_.daemon_stderr()})
        fs::remove(p);
    transcript_.open(paths_.transcript(), std::ios::trunc);
    tables_.open(paths_.tables(), std::ios::trunc);
    if (!transcript_ || !tables_)
        throw std::runtime_error("cannot write in " + paths_.dir.string());
    if (s_.recorded) {
        recorded_ = std::make_unique<RecordedModule>(*s_.recorded, o_.recorded_run);
        recorded_files_ = std::make_unique<RecordedTableFiles>(
            std::array<fs::path, 3>{paths_.table("caps"), paths_.table("flows"),
                                    paths_.table("ss_flows")},
            [this](json rec) { record(std::move(rec)); }, o_.records ? &tables_ : nullptr);
    } else {
        prepare_tables();
        write_tables(0);
    }
    listen_fd_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (listen_fd_ < 0)
        sys_fail("socket");
    sockaddr_un a;
    socklen_t len = make_addr(o_.socket_name, a);
    if (o_.socket_name[0] != '@')
        ::unlink(o_.socket_name.c_str());
    if (::bind(listen_fd_, reinterpret_cast<sockaddr *>(&a), len) != 0)
        sys_fail("bind " + o_.socket_name);
    if (::listen(listen_fd_, 16) != 0)
        sys_fail("listen");
    if (::pipe2(stop_fd_, O_CLOEXEC | O_NONBLOCK) != 0)
        sys_fail("pipe");
    start_ = Clock::now();
    share_clock();
}

void Server::share_clock() {
    int fd = ::open(paths_.clock().c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || ::ftruncate(fd, 4096) != 0)
        sys_fail("clock file");
    clock_page_ = ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    if (clock_page_ == MAP_FAILED)
        sys_fail("mmap clock file");
    auto *p = static_cast<uint8_t *>(clock_page_);
    int64_t start_ns =
        std::chrono::duration_cast<std::chrono::nanoseconds>(start_.time_since_epoch()).count();
    std::memcpy(p, &start_ns, 8);
    std::memcpy(p + 8, &o_.time_factor, 8);
    held_ns_ = reinterpret_cast<int64_t *>(p + 16);
    cap_ns_ = reinterpret_cast<int64_t *>(p + 24);
    __atomic_store_n(held_ns_, 0, __ATOMIC_RELEASE);
    __atomic_store_n(cap_ns_, kNoCap, __ATOMIC_RELEASE);
}

Server::~Server() {
    if (clock_page_)
        ::munmap(clock_page_, 4096);
    for (auto &c : conns_) ::close(c.fd);
    for (int fd : table_fds_)
        if (fd >= 0)
            ::close(fd);
    for (int fd : {listen_fd_, stop_fd_[0], stop_fd_[1]})
        if (fd >= 0)
            ::close(fd);
    if (!o_.socket_name.empty() && o_.socket_name[0] != '@')
        ::unlink(o_.socket_name.c_str());
}

double Server::wall_sim() const {
    double held = held_ns_ ? double(__atomic_load_n(held_ns_, __ATOMIC_ACQUIRE)) / 1e9 : 0.0;
    return std::chrono::duration<double>(Clock::now() - start_).count() / o_.time_factor - held;
}

std::optional<double> Server::current_cap() const {
    int64_t cap = cap_ns_ ? __atomic_load_n(cap_ns_, __ATOMIC_ACQUIRE) : kNoCap;
    return cap == kNoCap ? std::nullopt : std::optional<double>(double(cap) / 1e9);
}

double Server::sim_now() const {
    auto cap = current_cap();
    return cap ? std::min(wall_sim(), *cap) : wall_sim();
}

Clock::time_point Server::real_time_of(double sim_s) const {
    double held = double(__atomic_load_n(held_ns_, __ATOMIC_ACQUIRE)) / 1e9;
    return start_ + std::chrono::duration_cast<Clock::duration>(
                        std::chrono::duration<double>((sim_s + held) * o_.time_factor));
}

// Moves the wall-clock origin so that the clock reads sim_s now if it had
// passed it; returns how far it was held back.
double Server::hold_to(double sim_s) {
    double over = wall_sim() - sim_s;
    if (over <= 0)
        return 0;
    __atomic_add_fetch(held_ns_, int64_t(over * 1e9), __ATOMIC_RELEASE);
    return over;
}

void Server::set_cap(std::optional<double> sim_s) {
    __atomic_store_n(cap_ns_, sim_s ? int64_t(std::llround(*sim_s * 1e9)) : kNoCap,
                     __ATOMIC_RELEASE);
}

void Server::end_run() {
    steady_conn_.reset();
    set_cap(std::nullopt);
}

void Server::record(json rec) {
    if (rec.contains("t"))
        rec["t"] = std::round(rec["t"].get<double>() * 1e6) / 1e6;
    if (o_.records) {
        transcript_ << rec.dump() << '\n';
        transcript_.flush();
    }
    if (observer_)
        observer_(rec);
}

static bool absent_at(const Scenario &s, const std::string &table, double t) {
    for (const auto &f : s.faults)
        if (f.kind == FaultKind::TableAbsent && f.table == table && t >= f.from_s && t < f.to_s)
            return true;
    return false;
}

static bool unmappable(const Scenario &s, const std::string &table) {
    for (const auto &f : s.faults)
        if (f.kind == FaultKind::TableUnmappable && f.table == table)
            return true;
    return false;
}

// A FIFO opens read-write but cannot be mapped: an honest unmappable table.
void Server::prepare_tables() {
    table_fds_.assign(3, -1);
    for (int i = 0; i < 3; ++i) {
        fs::path p = paths_.table(kTables[i]);
        fs::remove(p);
        if (unmappable(s_, kTables[i]) && ::mkfifo(p.c_str(), 0600) != 0)
            sys_fail("mkfifo " + p.string());
    }
}

void Server::write_tables(double t) {
    std::vector<Bytes> pages = {encode_caps(model_.caps()), encode_flows(model_.gold_flows()),
                                encode_flows(model_.ss_flows())};
    for (int i = 0; i < 3; ++i) {
        const std::string name = kTables[i];
        if (unmappable(s_, name))
            continue;
        fs::path p = paths_.table(name);
        bool absent = absent_at(s_, name, t);
        if (absent && table_fds_[i] >= 0) {
            ::close(table_fds_[i]);
            table_fds_[i] = -1;
            ::unlink(p.c_str());
            record({{"t", t}, {"dir", "event"}, {"kind", "table_removed"}, {"table", name}});
        }
        if (absent)
            continue;
        if (table_fds_[i] < 0) {
            table_fds_[i] = ::open(p.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
            if (table_fds_[i] < 0)
                sys_fail("open " + p.string());
            if (t > 0)
                record({{"t", t}, {"dir", "event"}, {"kind", "table_created"}, {"table", name}});
        }
        // In place: the daemon keeps the file mapped.
        if (::pwrite(table_fds_[i], pages[i].data(), pages[i].size(), 0) !=
            ssize_t(pages[i].size()))
            sys_fail("pwrite " + p.string());
    }
    auto caps = model_.caps();
    auto gold = model_.gold_flows();
    auto ss = model_.ss_flows();
    if (o_.records)
        tables_ << json{{"t", t},
                        {"sample_t", model_.sample_time()},
                        {"caps", caps_json(caps)},
                        {"gold_flows", flows_json(gold)},
                        {"ss_flows", flows_json(ss)}}
                       .dump()
                << '\n';
    tables_.flush();
    module_.published(std::move(caps), std::move(gold), std::move(ss));
}

void Server::publish(const Response &r, double t) {
    if (!recorded_) {
        model_.advance_to(t);
        write_tables(t);
    } else if (r.step) {
        recorded_files_->apply(*r.step, t);
    }
}

void Server::accept_one() {
    int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0)
        return;
    conns_.push_back({fd, next_conn_++});
    record({{"t", sim_now()}, {"dir", "event"}, {"kind", "connect"}, {"conn", conns_.back().id}});
}

void Server::send(int fd, int conn, const Response &r, const json &in, double t) {
    if (in["kind"] == "sync") {
        if (r.replies.empty()) {
            end_run();
        } else {
            publish(r, t);
            syncs_.fetch_add(1, std::memory_order_relaxed);
        }
    }
    json out = {{"t", t}, {"n", in["n"]}, {"conn", conn}, {"dir", "out"}, {"kind", in["kind"]}};
    json sizes = json::array();
    for (const Bytes &b : r.replies) {
        ssize_t n = ::send(fd, b.data(), b.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        sizes.push_back(b.size());
        if (n != ssize_t(b.size()))
            out["send_error"] = n < 0 ? std::strerror(errno) : "partial";
    }
    for (auto &[k, v] : r.out.items()) out[k] = v;
    if (!r.replies.empty())
        out["bytes"] = sizes;
    record(out);
}

bool Server::serve(Conn &c) {
    static thread_local uint8_t buf[65536];
    ssize_t n = ::recv(c.fd, buf, sizeof buf, MSG_DONTWAIT);
    if (n < 0)
        return errno == EAGAIN || errno == EINTR;
    if (n == 0) {
        record({{"t", sim_now()}, {"dir", "event"}, {"kind", "disconnect"}, {"conn", c.id}});
        return false;
    }
    double t = sim_now();
    std::span<const uint8_t> dgram(buf, size_t(n));
    Request peek = decode_request(dgram, recorded_ ? recorded_->ids() : s_.ids_at(t));
    if (peek.kind == Kind::Lookup && peek.family == "DULOX_ZEB")
        end_run();
    double tick = s_.tick_ms / 1000.0;
    std::optional<long> reply_tick;
    double held = 0;
    if (peek.kind == Kind::Sync && tick > 0) {
        if (steady_conn_ == c.id) {
            reply_tick = last_tick_ + 1;
            held =
                hold_to(double(*reply_tick) * tick);  // a slow daemon: the clock waited at the cap
        } else {
            end_run();
            reply_tick = std::max(long(std::ceil(t / tick - 1e-9)), last_tick_ + 1);
        }
        t = sim_now();
    }
    json in = {{"t", t}, {"n", next_req_++}, {"conn", c.id}, {"dir", "in"}};
    if (held > 0)
        in["clock_held_s"] = held;
    Response r = recorded_ ? recorded_->handle(dgram, t, in) : module_.handle(dgram, t, in);
    record(in);
    if (hold_ && peek.kind == Kind::Sync && !r.replies.empty())
        held_.push_back({0, c.fd, c.id, std::move(r), in});
    else if (r.at_tick && reply_tick && !r.replies.empty())
        pending_.push_back({*reply_tick, c.fd, c.id, std::move(r), in});
    else
        send(c.fd, c.id, r, in, t);
    if (recorded_ && recorded_->done())
        recorded_done_.store(true);  // after the held request's record
    return true;
}

void Server::send_due() {
    auto now = Clock::now();
    double tick = s_.tick_ms / 1000.0;
    for (size_t i = 0; i < pending_.size();) {
        double t = double(pending_[i].tick) * tick;
        if (real_time_of(t) > now) {
            ++i;
            continue;
        }
        Pending p = std::move(pending_[i]);
        pending_.erase(pending_.begin() + long(i));
        hold_to(t);  // sent late: the clock reads the reply's tick
        // A module that went away meanwhile never answers.
        if (const FaultPlan *f = s_.restart_in(p.in["t"].get<double>(), t)) {
            Response lost{false, {}, {{"reply", "none"}, {"why", "module restarted"}}};
            lost.out["fault"] = fault_note(*f);
            send(p.fd, p.conn, lost, p.in, t);
            continue;
        }
        last_tick_ = p.tick;
        steady_conn_ = p.conn;
        set_cap(t + tick);
        send(p.fd, p.conn, p.resp, p.in, t);
    }
}

void Server::note_restarts() {
    double now = sim_now();
    for (size_t i = 0; i < s_.faults.size(); ++i) {
        const FaultPlan &f = s_.faults[i];
        if (f.kind != FaultKind::Restart || now < f.at_s || restarts_noted_.count(i))
            continue;
        restarts_noted_.insert(i);
        json ids = json::object();
        if (f.new_ids.zeb)
            ids["DULOX_ZEB"] = f.new_ids.zeb;
        if (f.new_ids.core)
            ids["DULOX_CORE"] = f.new_ids.core;
        record({{"t", f.at_s},
                {"dir", "event"},
                {"kind", "module_restart"},
                {"family_ids", ids},
                {"down_s", f.down_s},
                {"fault", fault_note(f)}});
    }
}

void Server::run() {
    for (;;) {
        std::vector<pollfd> fds = {{stop_fd_[0], POLLIN, 0}, {listen_fd_, POLLIN, 0}};
        for (auto &c : conns_) fds.push_back({c.fd, POLLIN, 0});
        timespec ts{};
        timespec *timeout = nullptr;
        auto next = Clock::time_point::max();
        for (auto &p : pending_)
            next = std::min(next, real_time_of(double(p.tick) * s_.tick_ms / 1000.0));
        if (auto cap = current_cap())
            next = std::min(next, real_time_of(*cap + kCapGrace));
        if (!held_.empty())
            next = std::min(next, Clock::now() + std::chrono::milliseconds(2));
        if (next != Clock::time_point::max()) {
            auto wait = std::max(Clock::duration::zero(), next - Clock::now());
            auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(wait).count();
            ts = {time_t(ns / 1000000000), long(ns % 1000000000)};
            timeout = &ts;
        }
        if (::ppoll(fds.data(), fds.size(), timeout, nullptr) < 0 && errno != EINTR)
            sys_fail("ppoll");
        if (fds[0].revents)
            return;
        std::lock_guard lock(mu_);
        if (fds[1].revents & POLLIN)
            accept_one();
        for (size_t i = 2; i < fds.size(); ++i) {
            if (!fds[i].revents)
                continue;
            int fd = fds[i].fd;
            auto it = std::find_if(conns_.begin(), conns_.end(),
                                   [&](const Conn &c) { return c.fd == fd; });
            if (it == conns_.end() || serve(*it))
                continue;
            std::erase_if(pending_, [&](const Pending &p) { return p.fd == fd; });
            std::erase_if(held_, [&](const Pending &p) { return p.fd == fd; });
            if (steady_conn_ == it->id)
                end_run();
            ::close(fd);
            conns_.erase(it);
        }
        send_due();
        note_restarts();
        if (!hold_ && !held_.empty()) {
            for (auto &h : held_) send(h.fd, h.conn, h.resp, h.in, sim_now());
            held_.clear();
        }
        // A client that stopped syncing without going away: time runs again.
        if (auto cap = current_cap(); cap && wall_sim() >= *cap + kCapGrace) {
            hold_to(*cap);
            end_run();
        }
    }
}

void Server::stop() {
    char c = 1;
    [[maybe_unused]] ssize_t n = ::write(stop_fd_[1], &c, 1);
}

json Server::recorded_progress() {
    std::lock_guard lock(mu_);
    return recorded_ ? recorded_->progress() : json();
}

json Server::snapshot() {
    std::lock_guard lock(mu_);
    return model_.snapshot(sim_now());
}

}  // namespace sim
