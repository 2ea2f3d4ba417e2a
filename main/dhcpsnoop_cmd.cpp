/* Command server on the local management socket. */
#include "dhcpsnoop.h"
#include "dhcpsnoop_sys.h"

/* Request decoding arrives with the management interface; until then a
 * connection is accepted and closed without an answer, so that a waiting
 * front end is not left hanging and the loop is not woken again for it. */
int dhcpsnoop_cmd_server(void)
{
    int fd = dhcpsnoop_sys->accept(gDhcpsnoop.cmdSock, nullptr, nullptr);
    if (fd > 0)
        dhcpsnoop_sys->close(fd);
    return -1;
}
