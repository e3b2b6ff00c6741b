// The three table files of a recorded run: rewritten from a sync step before
// its reply, made absent until the next reply, or unmappable for good.
#pragma once

#include <array>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <ostream>

#include "recorded.hpp"

namespace sim {

class RecordedTableFiles {
   public:
    using Record = std::function<void(nlohmann::ordered_json)>;  // transcript events

    // `files`: caps, flows, ss_flows. `log`: tables.jsonl, or null. Starts
    // with all three present and empty. Throws std::runtime_error.
    RecordedTableFiles(std::array<std::filesystem::path, 3> files, Record record,
                       std::ostream *log);
    ~RecordedTableFiles();
    RecordedTableFiles(const RecordedTableFiles &) = delete;
    RecordedTableFiles &operator=(const RecordedTableFiles &) = delete;

    void apply(const RecordedStep &step, double t);

   private:
    void make_unmappable(int i, double t);
    void remove(int i, double t);
    void write(int i, double t);
    void log_tables(const RecordedStep &step, double t);

    std::array<std::filesystem::path, 3> files_;
    Record record_;
    std::ostream *log_;
    std::array<int, 3> fds_{-1, -1, -1};
    std::array<Bytes, 3> pages_;
    uint8_t unmappable_ = 0;
};

}  // namespace sim
