#include "json_place.hpp"

#include <algorithm>
#include <cmath>
#include <sstream>

#include "scenario.hpp"

namespace sim {

std::string Place::path() const {
    if (!parent_)
        return own_;
    return parent_->path() + "/" + (key_ ? std::string(key_) : std::to_string(index_));
}

void Place::fail(const std::string &problem) const {
    std::string p = path();
    throw ScenarioError(file_ + ": " + (p.empty() ? "/" : p) + ": " + problem);
}

namespace {

std::string join(std::initializer_list<const char *> names) {
    std::string s;
    for (const char *n : names) s += (s.empty() ? "" : ", ") + std::string(n);
    return s;
}

}  // namespace

void check_keys(const Place &p, const Json &obj, std::initializer_list<const char *> allowed) {
    if (!obj.is_object())
        p.fail("must be an object");
    for (const auto &[key, value] : obj.items()) {
        bool ok = key == "comment" || std::any_of(allowed.begin(), allowed.end(),
                                                  [&](const char *a) { return key == a; });
        if (!ok)
            p.at(key).fail("unknown key (expected one of: " + join(allowed) + ", comment)");
    }
}

double as_number(const Place &p, const Json &v, double min, double max) {
    if (!v.is_number())
        p.fail("must be a number, not " + v.dump());
    double d = v.get<double>();
    if (!(d >= min && d <= max)) {
        std::ostringstream o;
        o << "must be between " << min << " and " << max << ", not " << v.dump();
        p.fail(o.str());
    }
    return d;
}

int64_t as_int(const Place &p, const Json &v, double min, double max) {
    double d = as_number(p, v, min, max);
    if (std::floor(d) != d)
        p.fail("must be a whole number, not " + v.dump());
    return int64_t(d);
}

double number(const Place &p, const Json &obj, const char *key, double def, double min,
              double max) {
    return obj.contains(key) ? as_number(p.at(key), obj[key], min, max) : def;
}

int64_t integer(const Place &p, const Json &obj, const char *key, int64_t def, double min,
                double max) {
    return obj.contains(key) ? as_int(p.at(key), obj[key], min, max) : def;
}

const Json &required(const Place &p, const Json &obj, const char *key) {
    if (!obj.contains(key))
        p.fail(std::string("missing required key \"") + key + "\"");
    return obj[key];
}

std::string text(const Place &p, const Json &obj, const char *key, const std::string &def) {
    if (!obj.contains(key))
        return def;
    if (!obj[key].is_string())
        p.at(key).fail("must be a string, not " + obj[key].dump());
    return obj[key].get<std::string>();
}

uint32_t hash_value(const Place &p, const Json &v) {
    if (v.is_string()) {
        const std::string s = v.get<std::string>();
        size_t used = 0;
        unsigned long long h = 0;
        try {
            h = std::stoull(s, &used, 0);
        } catch (const std::exception &) {
            used = 0;
        }
        if (used != s.size() || s.empty() || h > 0xffffffffULL)
            p.fail("must be a 32-bit hash such as \"0x1a2b\", not " + v.dump());
        return uint32_t(h);
    }
    return uint32_t(as_int(p, v, 0, 4294967295.0));
}

uint32_t sugg_type(const Place &p, const Json &v) {
    if (v.is_string()) {
        std::string s = v.get<std::string>();
        if (s == "UP")
            return 1;
        if (s == "DOWN")
            return 2;
        if (s == "BAL")
            return 3;
        p.fail("must be \"UP\", \"DOWN\" or \"BAL\"");
    }
    return uint32_t(as_int(p, v, 1, 3));
}

}  // namespace sim
