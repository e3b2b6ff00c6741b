// The connections' story: each attempt of the steering connection and of the
// core-driver connection, the family lookups, and what made an attempt fail.
#include "assemble.hpp"

namespace zlog::detail {

void Assembler::lookup(const char *family, const LogLine &l, bool ok, ThreadState &t) {
    Event &e = fresh(EventKind::Lookup, l.no);
    e.family = family;
    if (ok) {
        e.number = static_cast<int64_t>(l.args[0].u);
        e.answer = Answer{Outcome::Code, 0, l.no};
    } else {
        e.number = -1;
        e.answer = lookup_answer(t, l.no);
        e.text = "the family could not be resolved";
    }
    emit(e);
}

void Assembler::connect_failed(EventKind k, ThreadState &t, const LogLine &l,
                               const std::string &step, Answer a) {
    Event &e = fresh(k, l.no);
    e.number = t.attempts++;
    e.text = step;
    e.answer = a;
    emit(e);
}

// The socket step's own words, when the shared line was seen.
std::string Assembler::sock_words(ThreadState &t) {
    HeldLine h;
    if (!take(t, Slot::Sock, h))
        return "socket";
    return h.msg == Msg::sock_bind_failed ? "socket: bind failed" : "socket: socket failed";
}

void Assembler::reconnecting(ThreadState &t) {
    t.step = Step::OpenSock;
    t.has = {};
}

bool Assembler::on_eval_connect(const LogLine &l) {
    switch (l.msg) {
        case Msg::eval_started:
            reconnecting(eval_);
            eval_.attempts = 0;
            eval_connecting_ = true;
            return true;
        case Msg::connect_attempt_failed:
            reconnecting(eval_);
            eval_.attempts = static_cast<int>(l.args[0].i) + 1;
            return true;
        case Msg::connect_sock_failed:
            connect_failed(EventKind::ConnectFailed, eval_, l, sock_words(eval_), Answer{});
            return true;
        case Msg::connect_sock_done:
            eval_.step = Step::InitSock;
            eval_connecting_ = true;
            return true;
        case Msg::connect_init_sock_failed:
            lookup("DULOX_ZEB", l, false, eval_);
            connect_failed(EventKind::ConnectFailed, eval_, l, "family lookup", ev_.answer);
            eval_.step = Step::OpenSock;
            return true;
        case Msg::connect_sync_failed:
            first_sync_failed(l);
            return true;
        default:
            return on_eval_connected(l);
    }
}

// The connection's own sync failed: its cycle ends, and so does the attempt.
void Assembler::first_sync_failed(const LogLine &l) {
    Answer a = sync_answer_;
    if (cycle_open_) {
        cycle_.connect_sync = true;
        close_cycle(true);
    }
    connect_failed(EventKind::ConnectFailed, eval_, l, "first sync", a);
    eval_.step = Step::OpenSock;
}

bool Assembler::on_eval_connected(const LogLine &l) {
    switch (l.msg) {
        case Msg::connect_family_done:
            if (cycle_open_) {
                cycle_.connect_sync = true;
                close_cycle(true);
            }
            eval_.step = Step::Idle;
            return true;
        case Msg::connect_file_failed:
            connect_failed(EventKind::ConnectFailed, eval_, l, std::string(l.args[0].s) + " file",
                           Answer{});
            eval_.step = Step::OpenSock;
            return true;
        case Msg::connect_complete: {
            Event &e = fresh(EventKind::Connected, l.no);
            e.number = l.args[0].i;
            emit(e);
            eval_.step = Step::Idle;
            eval_.attempts = 0;
            eval_connecting_ = false;
            sync_answer_ = Answer{};
            return true;
        }
        case Msg::connect_file_done:
        case Msg::connect_connected:
            return true;
        default:
            return false;
    }
}

bool Assembler::on_boost_connect(const LogLine &l) {
    switch (l.msg) {
        case Msg::boost_started:
            reconnecting(boost_t_);
            boost_t_.attempts = 0;
            return true;
        case Msg::core_connect_failed:
            reconnecting(boost_t_);
            boost_t_.attempts = static_cast<int>(l.args[0].i) + 1;
            return true;
        case Msg::core_sock_failed:
            connect_failed(EventKind::CoreConnectFailed, boost_t_, l, sock_words(boost_t_),
                           Answer{});
            return true;
        case Msg::core_sock_done:
            boost_t_.step = Step::InitSock;
            return true;
        case Msg::core_init_sock_failed:
            lookup("DULOX_CORE", l, false, boost_t_);
            connect_failed(EventKind::CoreConnectFailed, boost_t_, l, "family lookup", ev_.answer);
            boost_t_.step = Step::OpenSock;
            return true;
        case Msg::core_connect_complete: {
            Event &e = fresh(EventKind::CoreConnected, l.no);
            e.number = l.args[0].i;
            emit(e);
            boost_t_.step = Step::Idle;
            return true;
        }
        case Msg::core_not_accepting: {
            Event &e = fresh(EventKind::CoreGaveUp, l.no);
            e.number = l.args[0].i;
            emit(e);
            return true;
        }
        case Msg::core_family_done:
        case Msg::core_connected:
        case Msg::boost_gave_up:
            boost_t_.step = Step::Idle;
            return true;
        default:
            return false;
    }
}

}  // namespace zlog::detail
