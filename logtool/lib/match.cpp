// A message matched against the formats of its function: an index by
// function name built once from the table, and a small hand-written matcher.
#include <algorithm>
#include <array>
#include <vector>

#include "lines.hpp"

namespace zlog {

namespace {

bool digit(char c) {
    return c >= '0' && c <= '9';
}

// What printf writes for one conversion.
enum class Conv : uint8_t { Lit, Dec32s, Dec32u, Hex32, Dec64s, Dec64u, Hex64, Str };

struct Token {
    Conv conv;
    std::string_view lit;  // Conv::Lit only
};

struct Format {
    Msg msg;
    Level level;
    bool blank;             // ends in "\n": an empty line follows
    uint8_t strs;           // %s conversions: fewer is more specific
    uint16_t first, count;  // its tokens
};

struct Slot {  // one function's formats in the index
    std::string_view func;
    uint16_t begin = 0, end = 0;  // into Table::order
};

constexpr size_t kSlots = 512;  // a power of two, well above the table's functions

struct Table {
    std::vector<Token> tokens;
    std::vector<Format> formats;  // in Msg order
    std::vector<uint16_t> order;  // formats by function, most specific first
    std::array<Slot, kSlots> slots{};
};

size_t hash_name(std::string_view s) {
    size_t h = 2166136261u;
    for (char c : s) h = (h ^ static_cast<unsigned char>(c)) * 16777619u;
    return h;
}

Conv conv_of(bool is_long, char c) {
    switch (c) {
        case 'd':
        case 'i':
            return is_long ? Conv::Dec64s : Conv::Dec32s;
        case 'u':
            return is_long ? Conv::Dec64u : Conv::Dec32u;
        case 'x':
            return is_long ? Conv::Hex64 : Conv::Hex32;
        case 's':
            return Conv::Str;
        default:
            return Conv::Lit;
    }
}

// Splits a printf format into literals and conversions ("%%" is a literal).
Format compile(const MessageInfo &m, Msg msg, std::vector<Token> &tokens) {
    std::string_view f(m.format);
    Format out{
        msg, m.level, !f.empty() && f.back() == '\n', 0, static_cast<uint16_t>(tokens.size()), 0};
    if (out.blank)
        f.remove_suffix(1);
    size_t lit = 0;
    for (size_t i = 0; i < f.size(); i++) {
        if (f[i] != '%' || i + 1 >= f.size())
            continue;
        bool is_long = f[i + 1] == 'l';
        size_t at = i + 1 + is_long;
        Conv c = at < f.size() ? conv_of(is_long, f[at]) : Conv::Lit;
        if (c == Conv::Lit)
            continue;
        if (i > lit)
            tokens.push_back({Conv::Lit, f.substr(lit, i - lit)});
        tokens.push_back({c, {}});
        out.strs += c == Conv::Str;
        lit = i = at;
        lit++;
    }
    if (lit < f.size())
        tokens.push_back({Conv::Lit, f.substr(lit)});
    out.count = static_cast<uint16_t>(tokens.size() - out.first);
    return out;
}

void index_functions(Table &t) {
    for (size_t i = 0; i < t.formats.size(); i++) t.order.push_back(static_cast<uint16_t>(i));
    auto func = [&](uint16_t i) { return std::string_view(kMessages[i].func); };
    std::stable_sort(t.order.begin(), t.order.end(), [&](uint16_t a, uint16_t b) {
        return func(a) != func(b) ? func(a) < func(b) : t.formats[a].strs < t.formats[b].strs;
    });
    for (size_t b = 0, e; b < t.order.size(); b = e) {
        for (e = b + 1; e < t.order.size() && func(t.order[e]) == func(t.order[b]);) e++;
        size_t s = hash_name(func(t.order[b])) & (kSlots - 1);
        while (!t.slots[s].func.empty()) s = (s + 1) & (kSlots - 1);
        t.slots[s] = {func(t.order[b]), static_cast<uint16_t>(b), static_cast<uint16_t>(e)};
    }
}

const Table &table() {
    static const Table t = [] {
        Table t;
        for (int i = 0; i < kMessageCount; i++)
            t.formats.push_back(compile(kMessages[i], static_cast<Msg>(i), t.tokens));
        index_functions(t);
        return t;
    }();
    return t;
}

const Slot *find_function(const Table &t, std::string_view func) {
    for (size_t s = hash_name(func) & (kSlots - 1);; s = (s + 1) & (kSlots - 1)) {
        if (t.slots[s].func.empty())
            return nullptr;
        if (t.slots[s].func == func)
            return &t.slots[s];
    }
}

// ------------------------------------------------------------ numbers

struct Limits {
    bool hex, sign;
    uint64_t max_pos, max_neg;  // largest magnitude either way
};

Limits limits(Conv c) {
    switch (c) {
        case Conv::Dec32s:
            return {false, true, 0x7fffffff, 0x80000000};
        case Conv::Dec32u:
            return {false, false, 0xffffffff, 0};
        case Conv::Hex32:
            return {true, false, 0xffffffff, 0};
        case Conv::Dec64s:
            return {false, true, 0x7fffffffffffffff, 0x8000000000000000};
        case Conv::Hex64:
            return {true, false, ~uint64_t{0}, 0};
        default:
            return {false, false, ~uint64_t{0}, 0};
    }
}

int digit_value(char c, bool hex) {
    if (digit(c))
        return c - '0';
    return hex && c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

// Reads what printf writes for a number conversion at m[pos..]: no leading
// zeros, no "+", a "-" only for signed ones, within the conversion's range.
bool read_number(std::string_view m, size_t &pos, Conv c, Arg &a) {
    Limits lim = limits(c);
    size_t p = pos;
    bool neg = lim.sign && p < m.size() && m[p] == '-';
    p += neg;
    const uint64_t base = lim.hex ? 16 : 10;
    size_t start = p;
    uint64_t v = 0;
    for (int d; p < m.size() && (d = digit_value(m[p], lim.hex)) >= 0; p++) {
        if (v > (~uint64_t{0} - d) / base)
            return false;
        v = v * base + d;
    }
    if (p == start || (m[start] == '0' && p - start > 1) || (neg && v == 0))
        return false;
    if (v > (neg ? lim.max_neg : lim.max_pos))
        return false;
    a.u = neg ? 0 - v : v;
    a.i = static_cast<int64_t>(a.u);
    a.s = {};
    pos = p;
    return true;
}

// ------------------------------------------------------------ messages

bool match_from(const Token *t, const Token *end, std::string_view m, size_t pos, LogLine &out,
                int argi);

// A %s takes the fewest bytes that let the rest of the format match.
bool match_str(const Token *t, const Token *end, std::string_view m, size_t pos, LogLine &out,
               int argi) {
    Arg &a = out.args[argi];
    a.u = 0;
    a.i = 0;
    const Token *next = t + 1;
    for (size_t k = pos; k <= m.size(); k++) {
        if (next == end)
            k = m.size();
        else if (next->conv == Conv::Lit && (k = m.find(next->lit, k)) == std::string_view::npos)
            return false;
        a.s = m.substr(pos, k - pos);
        if (match_from(next, end, m, k, out, argi + 1))
            return true;
    }
    return false;
}

bool match_from(const Token *t, const Token *end, std::string_view m, size_t pos, LogLine &out,
                int argi) {
    for (; t != end; ++t) {
        if (t->conv == Conv::Lit) {
            if (m.substr(pos, t->lit.size()) != t->lit)
                return false;
            pos += t->lit.size();
        } else if (t->conv == Conv::Str) {
            return argi < kMaxArgs && match_str(t, end, m, pos, out, argi);
        } else if (argi >= kMaxArgs || !read_number(m, pos, t->conv, out.args[argi++])) {
            return false;
        }
    }
    if (pos != m.size())
        return false;
    out.nargs = static_cast<uint8_t>(argi);
    return true;
}

}  // namespace

// The function's formats at the line's level first, then at the others (a
// match there is a wrong level).
bool match_message(std::string_view msg, LogLine &out) {
    const Table &t = table();
    const Slot *slot = find_function(t, out.func);
    for (int pass = 0; slot && pass < 2; pass++) {
        for (uint16_t i = slot->begin; i < slot->end; i++) {
            const Format &f = t.formats[t.order[i]];
            if ((f.level == out.level) != (pass == 0))
                continue;
            const Token *first = t.tokens.data() + f.first;
            if (!match_from(first, first + f.count, msg, 0, out, 0))
                continue;
            if (pass == 0) {
                out.msg = f.msg;
                return true;
            }
            out.nargs = 0;
            out.problem = Problem::WrongLevel;
            return false;
        }
    }
    out.nargs = 0;
    out.problem = Problem::UnknownMessage;
    return false;
}

bool ends_with_blank(Msg m) {
    return m != Msg::Unknown && table().formats[static_cast<int>(m)].blank;
}

}  // namespace zlog
