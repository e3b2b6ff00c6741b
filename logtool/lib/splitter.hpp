// Splits bytes that arrive in pieces into lines, keeping at most kMaxLine
// bytes of a line: the log's and the CSV's readers share it.
#pragma once

#include <cstring>
#include <functional>
#include <string>
#include <string_view>

#include "logmodel.hpp"

namespace zlog {

inline constexpr size_t kReadChunk = 1 << 16;  // bytes read from a file at a time

// on_line(text, too_long, cut) is called once per line, without its '\n';
// `text` is valid only during the call.
class Splitter {
   public:
    template <class F>
    void feed(std::string_view bytes, F &&on_line) {
        while (!bytes.empty()) {
            const void *nl = std::memchr(bytes.data(), '\n', bytes.size());
            size_t len = nl ? static_cast<const char *>(nl) - bytes.data() : bytes.size();
            std::string_view piece = bytes.substr(0, len);
            bytes.remove_prefix(nl ? len + 1 : len);
            if (nl && partial_.empty() && !skipping_) {  // the usual case: no copy
                on_line(piece.substr(0, kMaxLine), piece.size() > kMaxLine, false);
                continue;
            }
            keep(piece);
            if (nl)
                flush(on_line, false);
        }
    }

    template <class F>
    void finish(F &&on_line) {
        if (!partial_.empty() || skipping_)
            flush(on_line, true);
    }

   private:
    void keep(std::string_view piece) {
        size_t room = kMaxLine - partial_.size();
        if (piece.size() > room)
            skipping_ = true;
        partial_.append(piece.substr(0, room));
    }

    template <class F>
    void flush(F &&on_line, bool cut) {
        on_line(std::string_view(partial_), skipping_, cut);
        partial_.clear();
        skipping_ = false;
    }

    std::string partial_;    // a line split across pieces, at most kMaxLine bytes
    bool skipping_ = false;  // the current line is past kMaxLine
};

// Reads a file (path "-" is standard input) in chunks of kReadChunk bytes
// into `feed`. False, with `why`, when it cannot be opened or nothing at all
// can be read; an error after some bytes sets `why` and returns true.
bool read_chunks(const std::string &path, const std::function<void(std::string_view)> &feed,
                 std::string &why);

// Whether a byte is one a text line may hold: TAB, or not a control byte.
inline bool text_byte(unsigned char c) {
    return c == '\t' || (c >= 0x20 && c != 0x7f);
}

inline bool all_text(std::string_view s) {
    for (unsigned char c : s)
        if (!text_byte(c))
            return false;
    return true;
}

}  // namespace zlog
