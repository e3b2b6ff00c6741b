// Every line the daemon writes, one enumerator a row of log_lines.tsv (the
// table is compiled in: see gen_messages.cmake).
#pragma once

#include <cstdint>

namespace zlog {

enum class Level : uint8_t { High, Err, Med, Low };

enum class Msg : uint16_t {
#define ZLOG_MESSAGE(key, func, level, format) key,
#include "log_messages.inc"
#undef ZLOG_MESSAGE
    Unknown,
};

inline constexpr int kMessageCount = static_cast<int>(Msg::Unknown);

struct MessageInfo {
    const char *key;
    const char *func;
    Level level;
    const char *format;  // as printf takes it; a final '\n' means an empty line follows
};

inline constexpr MessageInfo kMessages[] = {
#define ZLOG_MESSAGE(key, func, level, format) {#key, func, Level::level, format},
#include "log_messages.inc"
#undef ZLOG_MESSAGE
};
static_assert(sizeof kMessages / sizeof kMessages[0] == kMessageCount);

inline const MessageInfo &message_info(Msg m) { return kMessages[static_cast<int>(m)]; }

}  // namespace zlog
