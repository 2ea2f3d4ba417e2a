/*
 * The platform carries sync buffers between control units: on the peer they
 * arrive at the daemon's command socket as a global Set with command 19 and
 * the buffer as a byte value.
 */
#include "peer_transport.h"

#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "dhcpsnoop_adr.h"

int dhcpsnoop_peer_send(const char *path, const QorTextPair *buffer, int timeoutMs)
{
    if (!path || !*path || !buffer || !buffer->buf || buffer->len > 1400)
        return -1;
    uint8_t body[1520];
    AdrBuf a;
    adr_start(&a, body, sizeof body);
    int32_t zero = 0;
    if (adr_encodefunc(&a, 0) || adr_encoderetcode(&a, 0) || adr_encodecmd(&a, 19) ||
        adr_encodeindexheader(&a, 0) || adr_encodeindex(&a, 2, &zero, 4) ||
        adr_encodedata(&a, 0, uint16_t(buffer->len), buffer->buf))
        return -1;
    uint32_t len = adr_count(&a);

    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    struct sockaddr_un un;
    memset(&un, 0, sizeof un);
    un.sun_family = AF_UNIX;
    strncpy(un.sun_path, path, sizeof un.sun_path - 1);
    struct timeval tv = {timeoutMs / 1000, (timeoutMs % 1000) * 1000};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    int rc = -1;
    if (connect(fd, reinterpret_cast<struct sockaddr *>(&un), sizeof un) == 0 &&
        send(fd, &len, 4, MSG_NOSIGNAL) == 4 && send(fd, body, len, MSG_NOSIGNAL) == ssize_t(len)) {
        uint32_t replyLen = 0;
        if (recv(fd, &replyLen, 4, MSG_WAITALL) == 4)
            rc = 0;
    }
    close(fd);
    return rc;
}
