#include "netlink/genl_family.h"

#include <cstring>

#include "core/log.h"

std::atomic<int> sk_fd{0};
int duloxusr_genl_sk_fd = 0;
uint16_t zeb_family_id = 0;
uint16_t dulox_family_id = 0;

static uint16_t *zebusr_family_id_slot(uint32_t family_type) {
    switch (family_type) {
        case ZEBUSR_GENL_FAMILY_ZEB:
            return &zeb_family_id;
        case ZEBUSR_GENL_FAMILY_DULOX:
            return &dulox_family_id;
        default:
            return nullptr;
    }
}

static const char *zebusr_family_name(uint32_t family_type) {
    switch (family_type) {
        case ZEBUSR_GENL_FAMILY_ZEB:
            return ZEBUSR_GENL_FAMILY_ZEB_NAME;
        case ZEBUSR_GENL_FAMILY_DULOX:
            return ZEBUSR_GENL_FAMILY_DULOX_NAME;
        default:
            return nullptr;
    }
}

int zebusr_genl_set_family_attr(zebusr_nl_msg *msg, uint32_t family_type) {
    if (!msg) {
        ZLOG(ERR, "invalid param: msg ptr is null");
        return -1;
    }
    if (msg->n.nlmsg_type != ZEBUSR_GENL_ID_CTRL || msg->g.cmd != ZEBUSR_CTRL_CMD_GETFAMILY) {
        ZLOG(ERR, "invalid param: input msg has wrong type");
        return -1;
    }
    // The attribute type goes in before the family type is judged.
    zebusr_nlattr attr = {0, ZEBUSR_CTRL_ATTR_FAMILY_NAME};
    memcpy(&msg->buf[offsetof(zebusr_nlattr, nla_type)], &attr.nla_type, sizeof(attr.nla_type));

    const char *name = zebusr_family_name(family_type);
    if (!name) {
        ZLOG(ERR, "invalid param: invalid family type %d", static_cast<int>(family_type));
        return -1;
    }
    zebusr_nl_msg_put_attr(msg, ZEBUSR_CTRL_ATTR_FAMILY_NAME, name,
                           static_cast<uint16_t>(strlen(name) + 1));
    return 0;
}

int zebusr_genl_get_family_id_from_resp(const zebusr_nl_msg *msg, uint32_t family_type) {
    if (!msg) {
        ZLOG(ERR, "invalid param: msg ptr is null");
        return -1;
    }
    // The controller puts the family name first and the id second; an id
    // attribute that the message does not wholly hold is a wrong reply.
    const uint8_t *raw = reinterpret_cast<const uint8_t *>(msg);
    size_t end = msg->n.nlmsg_len < sizeof(*msg) ? msg->n.nlmsg_len : sizeof(*msg);
    zebusr_nlattr first;
    memcpy(&first, raw + ZEBUSR_NLA_OFFSET, sizeof(first));
    size_t id_attr = ZEBUSR_NLA_OFFSET + zebusr_nla_align(first.nla_len);
    zebusr_nlattr second = {0, 0};
    uint16_t id = 0;
    if (id_attr + sizeof(second) + sizeof(id) <= end) {
        memcpy(&second, raw + id_attr, sizeof(second));
        memcpy(&id, raw + id_attr + sizeof(second), sizeof(id));
    }
    if (second.nla_type != ZEBUSR_CTRL_ATTR_FAMILY_ID) {
        ZLOG(ERR, "unable to set family id, response is not correct type");
        return -1;
    }

    uint16_t *slot = zebusr_family_id_slot(family_type);
    if (!slot) {
        ZLOG(ERR, "invalid param: family type: %d", static_cast<int>(family_type));
        return -1;
    }
    *slot = id;
    return 0;
}

int zebusr_genl_init_sock(int fd, uint32_t family_type) {
    // Cleared so the reserved field and the rounding bytes carry no stack leftovers.
    zebusr_nl_msg request = {};
    zebusr_nl_msg reply;

    if (zebusr_create_genl_msg(&request, ZEBUSR_GENL_ID_CTRL, ZEBUSR_CTRL_CMD_GETFAMILY) < 0) {
        ZLOG(MED, "failed to create netlink message");
        return -1;
    }
    if (zebusr_genl_set_family_attr(&request, family_type) < 0) {
        ZLOG(MED, "failed to set attribute to query family id");
        return -1;
    }
    if (zebusr_netlink_msg_send(fd, &request, request.n.nlmsg_len) < 0) {
        ZLOG(MED, "netlink failed to send to fd");
        return -1;
    }
    if (zebusr_netlink_msg_recv(fd, &reply) < 0) {
        ZLOG(MED, "netlink failed to send to fd");
        return -1;
    }
    if (zebusr_genl_get_family_id_from_resp(&reply, family_type) < 0) {
        ZLOG(MED, "netlink failed to get family id from response");
        return -1;
    }

    if (family_type == ZEBUSR_GENL_FAMILY_ZEB)
        ZLOG(MED, "ZEB Family id = %u seq_num = %d", zeb_family_id,
             static_cast<int>(seq_num.load(std::memory_order_relaxed)));
    else
        ZLOG(MED, "DULOX Family id = %u", dulox_family_id);
    return 0;
}
