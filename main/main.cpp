/* dhcpsnoopd: the daemon on a stock Linux host. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "dhcpsnoop.h"
#include "linux_platform.h"

int main(int argc, char **argv)
{
    if (linux_platform_init() != 0)
        return 1;
    /* Start-up's result is not looked at: a daemon whose start failed still
     * runs its loop with closed descriptors. */
    dhcpsnoop_start(argc, argv);
    /* The relay socket stays closed unless asked for: with it, an interface
     * that has a relay address reaches its servers by UDP. */
    const char *relay = getenv("DHCPSNOOP_RELAY");
    if (relay && strcmp(relay, "1") == 0 && dhcpsnoop_is_started()) {
        int fd = dhcpsnoop_udp_socket_init();
        if (fd > 0)
            gDhcpsnoop.udpSock = fd;
        else
            fprintf(stderr, "dhcpsnoopd: the relay socket could not be opened\n");
    }
    /* sockets and hooks are in place: the enforcement rules follow them */
    linux_platform_ready(gDhcpsnoop.ipsgIfGet != nullptr, gDhcpsnoop.antiArpIfGet != nullptr);
    fflush(stdout);
    dhcpsnoop_main();
}
