// Lines of the functions both worker threads call (socket, family lookup,
// receive). Each goes to the thread whose own last line puts it at that step;
// when both are, it waits until one thread's next own line settles it: a
// thread that goes on as after a success did not write the failure.
#include "assemble.hpp"

namespace zlog::detail {

namespace {

int index(Slot s) {
    return static_cast<int>(s);
}

Outcome recv_outcome(Msg m) {
    switch (m) {
        case Msg::recv_error:
            return Outcome::NoAnswer;
        case Msg::recv_invalid_reply:
            return Outcome::Malformed;
        case Msg::recv_msg_error:
            return Outcome::Error;
        default:
            return Outcome::Unknown;
    }
}

}  // namespace

void Assembler::on_shared(const LogLine &l) {
    switch (l.msg) {
        case Msg::sock_socket_failed:
        case Msg::sock_bind_failed:
            route(Slot::Sock, l);
            break;
        case Msg::recv_error:
        case Msg::recv_invalid_reply:
        case Msg::recv_msg_error:
            route(Slot::Recv, l);
            break;
        case Msg::init_sock_create_failed:
        case Msg::init_sock_attr_failed:
        case Msg::init_sock_send_failed:
        case Msg::init_sock_id_failed:
            route(Slot::Init, l);
            break;
        case Msg::init_sock_zeb_id:
            lookup("DULOX_ZEB", l, true, eval_);
            settle(boost_t_, Slot::Init);
            settle(boost_t_, Slot::Recv);
            eval_.step = Step::Idle;  // the connection's sync comes next
            break;
        case Msg::init_sock_core_id:
            lookup("DULOX_CORE", l, true, boost_t_);
            settle(eval_, Slot::Init);
            settle(eval_, Slot::Recv);
            boost_t_.step = Step::Idle;
            break;
        default:
            break;  // descriptors, send errors, parameter checks: nothing to rebuild
    }
}

bool Assembler::could(const ThreadState &t, Slot s) const {
    switch (s) {
        case Slot::Sock:
            return t.step == Step::OpenSock;
        case Slot::Init:
            return t.step == Step::InitSock;
        case Slot::Recv:
            return t.step == Step::InitSock || t.step == Step::Waiting;
    }
    return false;
}

void Assembler::route(Slot s, const LogLine &l) {
    bool e = could(eval_, s), b = could(boost_t_, s);
    if (e != b) {
        give(e ? eval_ : boost_t_, s, l.msg, l.no);
        return;
    }
    if (nheld_ == held_.size()) {  // never settled: the oldest is forgotten
        for (size_t i = 1; i < nheld_; i++) held_[i - 1] = held_[i];
        nheld_--;
    }
    held_[nheld_++] = HeldLine{s, l.msg, l.no};
}

void Assembler::give(ThreadState &t, Slot s, Msg m, uint64_t line) {
    t.slots[index(s)] = HeldLine{s, m, line};
    t.has[index(s)] = true;
}

// The thread's own failure of that step: its slot, else the oldest held line.
bool Assembler::take(ThreadState &t, Slot s, HeldLine &out) {
    if (t.has[index(s)]) {
        out = t.slots[index(s)];
        t.has[index(s)] = false;
        return true;
    }
    for (size_t i = 0; i < nheld_; i++) {
        if (held_[i].slot != s)
            continue;
        out = held_[i];
        for (size_t j = i + 1; j < nheld_; j++) held_[j - 1] = held_[j];
        nheld_--;
        return true;
    }
    return false;
}

// The other thread got past that step without failing: the held lines are t's.
void Assembler::settle(ThreadState &t, Slot s) {
    size_t kept = 0;
    for (size_t i = 0; i < nheld_; i++) {
        if (held_[i].slot == s && !t.has[index(s)])
            give(t, s, held_[i].msg, held_[i].line);
        else if (held_[i].slot != s)
            held_[kept++] = held_[i];
    }
    nheld_ = kept;
}

Answer Assembler::recv_answer(ThreadState &t, uint64_t line) {
    Answer a;
    a.line = line;
    HeldLine h;
    if (take(t, Slot::Recv, h)) {
        a.outcome = recv_outcome(h.msg);
        a.line = h.line;
    }
    return a;
}

// A failed family lookup: why, as far as the lines tell.
Answer Assembler::lookup_answer(ThreadState &t, uint64_t line) {
    Answer a = recv_answer(t, line);
    HeldLine h;
    bool init = take(t, Slot::Init, h);
    if (!init || a.outcome != Outcome::Unknown)
        return a;
    a.line = h.line;
    if (h.msg == Msg::init_sock_id_failed)
        a.outcome = Outcome::Malformed;  // a reply, but not a family id
    else
        a.outcome = Outcome::NotSent;
    return a;
}

}  // namespace zlog::detail
