/* Platform events from the netlink socket, and the binding events sent back. */
#include <string.h>

#include "dhcpsnoop.h"

/* Event handling arrives with the platform-events work; until then every
 * datagram is read and ignored. */
int dhcpsnoop_notify_recv(uint8_t *, int32_t) { return 0; }

#include "dhcpsnoop_user.h"

namespace {
constexpr uint32_t NOTIFY_RECORD_LEN = 72;
constexpr uint32_t NOTIFY_BODY_LEN = 48;
constexpr uint32_t NOTIFY_BODY_OFFSET = 24;
constexpr uint32_t NOTIFY_KIND = 51;
constexpr uint32_t NOTIFY_NETLINK_TYPE = 16;
static_assert(NOTIFY_BODY_OFFSET + NOTIFY_BODY_LEN == NOTIFY_RECORD_LEN);
} // namespace

/* Frame a 48-byte event body for the platform's netlink sender. */
int dhcpsnoop_notify_send(const uint8_t *body48, uint32_t event)
{
    uint8_t record[256];
    memset(record, 0, sizeof record);
    const uint32_t kind = NOTIFY_KIND, len = NOTIFY_RECORD_LEN;
    const uint16_t ev = uint16_t(event);
    memcpy(record + 4, &kind, 4);
    memcpy(record + 8, &len, 4);
    memcpy(record + 12, &ev, 2);
    if (body48)
        memcpy(record + NOTIFY_BODY_OFFSET, body48, NOTIFY_BODY_LEN);
    DHCPSNOOP_DEBUG("[DHCPSNOOP]  Send notify: event %d\r\n", int(event));
    return qorNetlinkSend(NOTIFY_NETLINK_TYPE, 0, record, NOTIFY_RECORD_LEN);
}
