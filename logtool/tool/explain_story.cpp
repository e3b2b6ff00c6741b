// The connection's story in explain's stream: lookups, connections and
// their failures, reconnections and why, the core driver, verbose on and
// off, runs starting and ending, quiet stretches and problem lines.
#include <string>

#include "explain_impl.hpp"

namespace zlog::explain {

namespace {

std::string why(const Answer &a) {
    switch (a.outcome) {
        case Outcome::Code:
            return "code " + std::to_string(a.code);
        case Outcome::NoAnswer:
            return "no answer (time-out)";
        case Outcome::Malformed:
            return "malformed answer";
        case Outcome::Error:
            return "NLMSG_ERROR";
        case Outcome::NotSent:
            return "request not sent";
        default:
            return "cause not logged";
    }
}

std::string attempts(int64_t failed) {
    if (failed <= 0)
        return "at the first attempt";
    return "after " + std::to_string(failed) +
           (failed == 1 ? " failed attempt" : " failed attempts");
}

std::string lookup_text(const Event &e) {
    bool found = e.number >= 0 && (e.answer.outcome == Outcome::Unknown || e.answer.accepted());
    std::string fam = e.family.empty() ? std::string("family") : e.family;
    if (found)
        return "LOOKUP " + fam + " -> id " + std::to_string(e.number);
    return "LOOKUP " + fam + " -> failed: " + why(e.answer);
}

std::string query_text(const Event &e) {
    if (e.answer.outcome != Outcome::Unknown && !e.answer.accepted())
        return "QUERY  rate list of the core driver failed: " + why(e.answer);
    if (!e.valid)
        return "QUERY  rate list not valid: no boost this second";
    if (e.list_len > 32)
        return "QUERY  rate list of " + std::to_string(e.list_len) +
               " entries (more than 32): no boost this second";
    return "";
}

std::string with_text(const char *head, const std::string &text) {
    return text.empty() ? std::string(head) : std::string(head) + ": " + text;
}

// "... failed at first sync: no answer (time-out)"
std::string failed_text(const char *head, const Event &e) {
    std::string s = std::string(head) + (e.text.empty() ? std::string() : " at " + e.text);
    return e.answer.outcome == Outcome::Unknown ? s : s + ": " + why(e.answer);
}

// A problem line's text, short and printable: it may be a megabyte of bytes.
std::string clip(std::string_view t) {
    constexpr size_t kShown = 60;
    std::string s;
    for (size_t i = 0; i < t.size() && i < kShown; i++)
        s += (t[i] >= 0x20 && t[i] < 0x7f) ? t[i] : '?';
    return '"' + s + (t.size() > kShown ? "...\"" : "\"");
}

std::string run_text(const Event &e) {
    std::string s = "RUN    run " + std::to_string(e.run + 1);
    if (e.kind == EventKind::RunStart && !e.text.empty())
        return s + ": " + e.text;
    if (e.kind == EventKind::RunStart)
        return s + " starts, verbose " + (e.number ? "on at boot" : "off at boot");
    return s + " ends" + (e.text.empty() ? std::string() : ": " + e.text);
}

}  // namespace

std::string event_text(const Event &e) {
    switch (e.kind) {
        case EventKind::RunStart:
        case EventKind::RunEnd:
            return run_text(e);
        case EventKind::VerboseOn:
            return "VERBOSE on (SIGUSR1)";
        case EventKind::VerboseOff:
            return "VERBOSE off (SIGUSR2): decisions from here show only what is always logged";
        case EventKind::CsvOpened:
            return "CSV    capture opened";
        case EventKind::CsvFailed:
            return "CSV    capture could not be opened";
        case EventKind::Lookup:
            return lookup_text(e);
        case EventKind::ConnectFailed:
            return failed_text("CONNECT attempt failed", e);
        case EventKind::Connected:
            return "CONNECTED to dulox_zeb.ko " + attempts(e.number);
        case EventKind::SyncFailed:
            return "SYNC FAILED: " + why(e.answer) + " -> reconnecting";
        case EventKind::CoreConnectFailed:
            return failed_text("CORE   connect attempt failed", e);
        case EventKind::CoreConnected:
            return "CORE   CONNECTED to dulox core driver " + attempts(e.number);
        case EventKind::CoreGaveUp:
            return "CORE   gave up: the core driver did not respond (no boosts from here)";
        case EventKind::Query:
            return query_text(e);
        case EventKind::TableFailed:
            return with_text("TABLE  could not be opened or mapped", e.text);
        case EventKind::ThreadFailed:
            return with_text("THREAD could not start", e.text);
        case EventKind::Gap:
            return "QUIET  lines " + std::to_string(e.line) + "-" + std::to_string(e.last_line) +
                   " without verbose lines: tables and answers there not logged";
        case EventKind::Problem:
            return std::string("PROBLEM ") + problem_text(e.problem) +
                   (e.text.empty() ? std::string() : ": " + clip(e.text));
        case EventKind::Note:
            return "NOTE   " + e.text;
    }
    return "";
}

}  // namespace zlog::explain
