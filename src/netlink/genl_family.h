// Family resolution through the generic netlink controller.
#pragma once

#include <cstdint>

#include "netlink/nl_msg.h"

enum zebusr_genl_family_type : uint32_t {
    ZEBUSR_GENL_FAMILY_ZEB = 0,
    ZEBUSR_GENL_FAMILY_DULOX = 1,
};

#define ZEBUSR_GENL_FAMILY_ZEB_NAME "DULOX_ZEB"
#define ZEBUSR_GENL_FAMILY_DULOX_NAME "DULOX_CORE"

constexpr uint16_t ZEBUSR_GENL_ID_CTRL = 16;
constexpr uint8_t ZEBUSR_CTRL_CMD_GETFAMILY = 3;
constexpr uint16_t ZEBUSR_CTRL_ATTR_FAMILY_ID = 1;
constexpr uint16_t ZEBUSR_CTRL_ATTR_FAMILY_NAME = 2;

// The evaluation thread owns it; the boost thread's failed lookup and the
// exit handler close it from their own threads.
extern std::atomic<int> sk_fd;
extern int duloxusr_genl_sk_fd;
extern uint16_t zeb_family_id;
extern uint16_t dulox_family_id;

int zebusr_genl_init_sock(int fd, uint32_t family_type);
int zebusr_genl_set_family_attr(zebusr_nl_msg *msg, uint32_t family_type);
int zebusr_genl_get_family_id_from_resp(const zebusr_nl_msg *msg, uint32_t family_type);
