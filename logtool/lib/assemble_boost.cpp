// The boost thread: once a second a query of the per-process rates (an
// event, with the list when verbose) and, when some process qualifies, one
// boost decision made of that evaluation's "Boosting pid" lines.
#include "assemble.hpp"

namespace zlog::detail {

namespace {

constexpr size_t kMaxRates = 64;  // the driver's list holds at most 32

}  // namespace

void Assembler::on_boost(const LogLine &l) {
    if (boost_open_ && t_us_ > boost_last_t_ + kBoostGapUs)
        flush_boost();  // a later evaluation: the quiet one before has ended
    boost_last_t_ = t_us_;
    if (on_boost_connect(l) || on_query(l))
        return;
    switch (l.msg) {
        case Msg::boost_evaluating:
            emit_query();
            flush_boost();
            rates_fresh_ = false;
            boost_t_.step = Step::Idle;
            break;
        case Msg::eval_boost_left:
            emit_query();
            break;
        case Msg::eval_boosting:
            emit_query();
            boosting(l);
            break;
        case Msg::boost_req_sent:
            if (boost_open_) {
                boost_.answer = Answer{Outcome::Code, 0, l.no};
                boost_.accepted = true;
                flush_boost();
            }
            break;
        case Msg::boost_req_invalid_args:
        case Msg::boost_req_create_failed:
        case Msg::boost_req_attr_failed:
        case Msg::boost_req_send_failed:
            if (boost_open_) {
                boost_.answer = Answer{Outcome::NotSent, 0, l.no};
                boost_.accepted = false;
                flush_boost();
            }
            break;
        default:
            break;  // the request's print: it repeats what the decision holds
    }
}

bool Assembler::on_query(const LogLine &l) {
    switch (l.msg) {
        case Msg::query_requested:
            start_query(l);
            boost_t_.step = Step::Waiting;
            return true;
        case Msg::recv_pid_waiting:
            boost_t_.step = Step::Waiting;
            return true;
        case Msg::query_success:
            boost_t_.step = Step::Idle;
            settle(eval_, Slot::Recv);
            if (query_open_)
                query_.answer = Answer{Outcome::Code, 0, l.no};
            return true;
        case Msg::recv_pid_failed:
            boost_t_.step = Step::Idle;
            query_failed(l, recv_answer(boost_t_, l.no));
            return true;
        case Msg::query_invalid_args:
        case Msg::query_create_failed:
        case Msg::query_attr_failed:
        case Msg::query_send_failed:
            query_failed(l, Answer{Outcome::NotSent, 0, l.no});
            return true;
        case Msg::query_failure:
        case Msg::eval_query_failed:
        case Msg::eval_not_valid:
        case Msg::eval_bad_len:
            emit_query();  // the evaluation's verdict: the query is over
            return true;
        default:
            return rate_line(l);
    }
}

// The rate list as duloxusr_print_pid_bps_resp writes it.
bool Assembler::rate_line(const LogLine &l) {
    switch (l.msg) {
        case Msg::rates_header:
        case Msg::rates_null:
        case Msg::rates_bad_len:
            break;
        case Msg::rates_not_valid:
            query_.valid = false;
            break;
        case Msg::rates_list_len:
            query_.list_len = static_cast<uint32_t>(l.args[0].u);
            query_.timestamp = l.args[1].u;
            query_.rates_logged = true;
            break;
        case Msg::rates_entry:
            if (query_.rates.size() < kMaxRates)
                query_.rates.push_back(RateEntry{static_cast<uint32_t>(l.args[1].u), l.args[3].u,
                                                 static_cast<int32_t>(l.args[5].i)});
            break;
        default:
            return false;
    }
    if (query_open_)
        query_.last_line = l.no;
    return true;
}

void Assembler::start_query(const LogLine &l) {
    emit_query();
    Event &q = query_;
    q.kind = EventKind::Query;
    q.run = run_;
    q.line = q.last_line = l.no;
    q.t_us = t_us_;
    q.answer = Answer{};
    q.valid = true;
    q.list_len = 0;
    q.timestamp = 0;
    q.rates.clear();
    q.rates_logged = false;
    query_open_ = rates_fresh_ = true;
}

void Assembler::query_failed(const LogLine &l, Answer a) {
    if (!query_open_)
        start_query(l);  // verbose off: only the failure is written
    query_.answer = a;
    query_.valid = false;
    query_.last_line = l.no;
    emit_query();
}

void Assembler::emit_query() {
    if (!query_open_)
        return;
    query_open_ = false;
    sink_.event(query_);
}

void Assembler::boosting(const LogLine &l) {
    uint32_t pid = static_cast<uint32_t>(l.args[0].u);
    if (boost_open_)
        for (const auto &b : boost_.boosts)
            if (b.pid == pid)  // a pid twice: the next evaluation (verbose off)
                flush_boost();
    if (!boost_open_) {
        boost_.kind = Kind::Boost;
        boost_.line = l.no;
        boost_.t_us = t_us_;
        boost_.boosts.clear();
        boost_.answer = Answer{};
        boost_.accepted = !verbose_;  // verbose off: the HIGH lines are all there is
        boost_open_ = true;
    }
    if (boost_.boosts.size() >= kMaxRates)
        return;
    BoostEntry b{pid, l.args[1].u, -1};
    if (rates_fresh_)
        for (const auto &r : query_.rates)
            if (r.pid == pid)
                b.boost_left_ms = r.boost_left_ms;
    boost_.boosts.push_back(b);
}

void Assembler::flush_boost() {
    if (!boost_open_)
        return;
    boost_open_ = false;
    sink_.decision(boost_, run_);
}

}  // namespace zlog::detail
