#include "recorded_tables.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <stdexcept>

namespace sim {

using json = nlohmann::ordered_json;

namespace {

[[noreturn]] void sys_fail(const std::string &what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

std::vector<CapEntry> empty_caps() {
    std::vector<CapEntry> caps;
    for (uint16_t c = 0; c < kCapEntries; ++c) caps.push_back({0, 0, 0, c});
    return caps;
}

}  // namespace

RecordedTableFiles::RecordedTableFiles(std::array<std::filesystem::path, 3> files, Record record,
                                       std::ostream *log)
    : files_(std::move(files)), record_(std::move(record)), log_(log) {
    pages_ = {encode_caps(empty_caps()), encode_flows({}), encode_flows({})};
    for (int i = 0; i < 3; ++i) {
        std::filesystem::remove(files_[i]);
        write(i, 0);
    }
}

RecordedTableFiles::~RecordedTableFiles() {
    for (int fd : fds_)
        if (fd >= 0)
            ::close(fd);
}

// A FIFO opens read-write but cannot be mapped, as the table_unmappable fault.
void RecordedTableFiles::make_unmappable(int i, double t) {
    if (fds_[i] >= 0)
        ::close(fds_[i]);
    fds_[i] = -1;
    std::filesystem::remove(files_[i]);
    if (::mkfifo(files_[i].c_str(), 0600) != 0)
        sys_fail("mkfifo " + files_[i].string());
    unmappable_ |= uint8_t(1 << i);
    record_({{"t", t}, {"dir", "event"}, {"kind", "table_unmappable"}, {"table", kTableNames[i]}});
}

void RecordedTableFiles::remove(int i, double t) {
    if (fds_[i] < 0)
        return;
    ::close(fds_[i]);
    fds_[i] = -1;
    ::unlink(files_[i].c_str());
    record_({{"t", t}, {"dir", "event"}, {"kind", "table_removed"}, {"table", kTableNames[i]}});
}

// In place: the daemon keeps the file open from one connection to the next.
void RecordedTableFiles::write(int i, double t) {
    if (fds_[i] < 0) {
        fds_[i] = ::open(files_[i].c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (fds_[i] < 0)
            sys_fail("open " + files_[i].string());
        if (t > 0)
            record_(
                {{"t", t}, {"dir", "event"}, {"kind", "table_created"}, {"table", kTableNames[i]}});
    }
    const Bytes &page = pages_[i];
    if (::pwrite(fds_[i], page.data(), page.size(), 0) != ssize_t(page.size()))
        sys_fail("pwrite " + files_[i].string());
}

void RecordedTableFiles::log_tables(const RecordedStep &step, double t) {
    if (!log_)
        return;
    const RecordedTables &tb = *step.tables;
    json rec = {{"t", std::round(t * 1e6) / 1e6}, {"step", step.index}, {"line", step.line}};
    if (step.cycle)
        rec["cycle"] = *step.cycle;
    rec["caps"] = caps_json(tb.caps);
    rec["gold_flows"] = flows_json(tb.gold);
    rec["gold_len"] = tb.gold_len;
    rec["ss_flows"] = flows_json(tb.ss);
    rec["ss_len"] = tb.ss_len;
    *log_ << rec.dump() << '\n';
    log_->flush();
}

void RecordedTableFiles::apply(const RecordedStep &step, double t) {
    if (step.tables) {
        pages_ = {encode_caps(step.tables->caps),
                  encode_flows(step.tables->gold, step.tables->gold_len),
                  encode_flows(step.tables->ss, step.tables->ss_len)};
        log_tables(step, t);
    }
    for (int i = 0; i < 3; ++i) {
        uint8_t bit = uint8_t(1 << i);
        if ((step.unmappable & bit) && !(unmappable_ & bit))
            make_unmappable(i, t);
        if (unmappable_ & bit)
            continue;
        if (step.absent & bit)
            remove(i, t);
        else if (fds_[i] < 0 || step.tables)
            write(i, t);
    }
}

}  // namespace sim
