// Reading scenario JSON with every problem reported as "FILE: PLACE: PROBLEM".
// A place is a chain of keys and indexes that becomes text only when something
// fails, so a large recorded run checks its many entries without building a
// string for each.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <string>

namespace sim {

class Place {
   public:
    Place(const std::string &file, std::string path) : file_(file), own_(std::move(path)) {}

    // A child place refers to this one: keep this one alive while it is used.
    Place at(const char *key) const { return Place(file_, this, key, 0); }
    Place at(size_t i) const { return Place(file_, this, nullptr, i); }
    Place at(const std::string &key) const { return Place(file_, path() + "/" + key); }

    std::string path() const;
    const std::string &file() const { return file_; }
    [[noreturn]] void fail(const std::string &problem) const;

   private:
    Place(const std::string &file, const Place *parent, const char *key, size_t index)
        : file_(file), parent_(parent), key_(key), index_(index) {}

    const std::string &file_;
    const Place *parent_ = nullptr;
    const char *key_ = nullptr;  // else index_
    size_t index_ = 0;
    std::string own_;  // the whole path of a place without a parent
};

using Json = nlohmann::json;

void check_keys(const Place &p, const Json &obj, std::initializer_list<const char *> allowed);
double as_number(const Place &p, const Json &v, double min, double max);
int64_t as_int(const Place &p, const Json &v, double min, double max);
double number(const Place &p, const Json &obj, const char *key, double def, double min, double max);
int64_t integer(const Place &p, const Json &obj, const char *key, int64_t def, double min,
                double max);
const Json &required(const Place &p, const Json &obj, const char *key);
std::string text(const Place &p, const Json &obj, const char *key, const std::string &def = {});
uint32_t hash_value(const Place &p, const Json &v);
// "UP", "DOWN", "BAL" or 1 to 3.
uint32_t sugg_type(const Place &p, const Json &v);

}  // namespace sim
