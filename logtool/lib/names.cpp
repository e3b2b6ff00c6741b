// The words the tools print for the model's enumerations, in one place.
#include "logmodel.hpp"

namespace zlog {

const char *level_name(Level l) {
    static const char *const kNames[] = {"HIGH", "ERR", "MED", "LOW"};
    return kNames[static_cast<int>(l)];
}

const char *problem_text(Problem p) {
    static const char *const kTexts[] = {
        "",
        "CR LF line end (read without the CR)",
        "bytes that are not text",
        "longer than a megabyte (the rest of the line skipped)",
        "cut: the file ends inside this line",
        "not a log line (no stamp, function, line number and level)",
        "the prefix's columns are out of place",
        "not a message of this function",
        "a message of this function at another level",
        "no empty line after a message that ends in a newline",
        "an empty line where none belongs",
    };
    static_assert(sizeof kTexts / sizeof kTexts[0] ==
                  static_cast<int>(Problem::UnexpectedBlank) + 1);
    return kTexts[static_cast<int>(p)];
}

const char *outcome_name(Outcome o) {
    static const char *const kNames[] = {"not logged", "code",        "no answer",
                                         "malformed",  "NLMSG_ERROR", "not sent"};
    static_assert(sizeof kNames / sizeof kNames[0] == static_cast<int>(Outcome::NotSent) + 1);
    return kNames[static_cast<int>(o)];
}

const char *kind_name(Kind k) {
    static const char *const kNames[] = {"UP", "DOWN", "BAL", "SEG", "BOOST"};
    static_assert(sizeof kNames / sizeof kNames[0] == static_cast<int>(Kind::Boost) + 1);
    return kNames[static_cast<int>(k)];
}

const char *event_name(EventKind k) {
    static const char *const kNames[] = {
        "run start",
        "run end",
        "verbose on",
        "verbose off",
        "csv opened",
        "csv failed",
        "lookup",
        "connect failed",
        "connected",
        "sync failed",
        "core connect failed",
        "core connected",
        "core gave up",
        "query",
        "table failed",
        "thread failed",
        "gap",
        "problem",
        "note",
    };
    static_assert(sizeof kNames / sizeof kNames[0] == static_cast<int>(EventKind::Note) + 1);
    return kNames[static_cast<int>(k)];
}

}  // namespace zlog
