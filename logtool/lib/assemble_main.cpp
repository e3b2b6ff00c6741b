// Lines of main, the signal handlers, the clean-up and the table files: how
// a run ends, its logging switches, and tables that could not be used.
#include "assemble.hpp"

namespace zlog::detail {

namespace {

std::string words(const LogLine &l, int i) {
    return std::string(l.args[i].s);
}

// The table a file or mapping message is about, in the daemon's own words.
const char *table_of(Msg m) {
    switch (m) {
        case Msg::cap_file_open_failed:
        case Msg::munmap_caps_failed:
        case Msg::caps_mmap_failed:
            return "cap";
        case Msg::gflow_file_open_failed:
        case Msg::munmap_gflows_failed:
        case Msg::gold_mmap_failed:
            return "gflow";
        default:
            return "ssflow";
    }
}

}  // namespace

void Assembler::on_main(const LogLine &l) {
    switch (l.msg) {
        case Msg::main_eval_failed:
        case Msg::main_boost_failed: {
            Event &e = fresh(EventKind::ThreadFailed, l.no);
            e.number = l.args[0].i;
            e.text = l.msg == Msg::main_eval_failed ? "zeb_eval_thread" : "dulox_freq_boost_thread";
            emit(e);
            set_end(e.text + " could not start (rc = " + std::to_string(e.number) + ")", true);
            break;
        }
        case Msg::main_join_eval_failed:
        case Msg::main_join_boost_failed:
            note(l.no,
                 "a worker thread could not be joined (rc = " + std::to_string(l.args[0].i) + ")");
            break;
        case Msg::main_exit:
            set_end("both worker threads ended and main returned", true);
            break;
        case Msg::sig_handler:
            stopping_ = true;
            set_end("stopped by a signal", true);
            break;
        case Msg::cleanup_done:
            cleaned_ = true;
            break;
        case Msg::log_verbose_on:
            verbose_on(l);
            break;
        case Msg::log_verbose_off:
            verbose_off(l);
            break;
        case Msg::log_csv_opened:
            emit(fresh(EventKind::CsvOpened, l.no));
            break;
        case Msg::log_csv_failed:
            emit(fresh(EventKind::CsvFailed, l.no));
            break;
        default:
            on_table_file(l);
            break;
    }
}

// "open: %s", "munmap ...: %s" and the readers' "mmap: %s": a table the
// daemon could not use. A mapping that fails ends the process on purpose.
bool Assembler::on_table_failed(const LogLine &l) {
    const char *what = nullptr;
    switch (l.msg) {
        case Msg::cap_file_open_failed:
        case Msg::gflow_file_open_failed:
        case Msg::ssflow_file_open_failed:
            what = "open";
            break;
        case Msg::caps_mmap_failed:
        case Msg::gold_mmap_failed:
        case Msg::ss_mmap_failed:
            what = "mmap";
            break;
        case Msg::munmap_caps_failed:
        case Msg::munmap_gflows_failed:
        case Msg::munmap_ssflows_failed:
            what = "munmap";
            break;
        default:
            return false;
    }
    // After the stop signal the clean-up closes the table files under a cycle
    // still running: its failure then is the exit's, not the module's.
    if (stopping_) {
        note(l.no,
             std::string(what) + " " + table_of(l.msg) +
                 " table after the stop signal (the clean-up closed its file): " + words(l, 0));
        return true;
    }
    Event &e = fresh(EventKind::TableFailed, l.no);
    e.family = table_of(l.msg);
    e.text = std::string(what) + " " + e.family + " table: " + words(l, 0);
    emit(e);
    if (what[0] != 'o')
        set_end("exit: the " + e.family + " table could not be " +
                    (what[1] == 'm' ? "mapped" : "unmapped") + " (" + words(l, 0) + ")",
                true);
    return true;
}

void Assembler::on_table_file(const LogLine &l) {
    on_table_failed(l);
}

}  // namespace zlog::detail
