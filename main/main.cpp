/* dhcpsnoopd: the daemon on a stock Linux host. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "dhcpsnoop.h"
#include "linux_platform.h"

int main(int argc, char **argv)
{
    std::string error;
    if (linux_args_check(argc, argv, error) != 0) {
        fprintf(stderr, "dhcpsnoopd: %s\n", error.c_str());
        return 1;
    }
    if (linux_platform_init() != 0)
        return 1;
    /* A daemon that cannot serve is of no use to anyone: end, so that a
     * service manager sees it and may start it again. */
    if (dhcpsnoop_start(argc, argv) != 0) {
        if (linux_socket_in_use())
            fprintf(stderr, "dhcpsnoopd: another daemon is serving %s; not starting\n",
                    linux_socket_path());
        else
            fprintf(stderr, "dhcpsnoopd: start-up failed (command socket %s)\n",
                    linux_socket_path());
        return 1;
    }
    linux_platform_started();
    /* The relay socket stays closed unless asked for: with it, an interface
     * that has a relay address reaches its servers by UDP. */
    const char *relay = getenv("DHCPSNOOP_RELAY");
    if (relay && strcmp(relay, "1") == 0) {
        int fd = dhcpsnoop_udp_socket_init();
        if (fd > 0)
            gDhcpsnoop.udpSock = fd;
        else
            fprintf(stderr, "dhcpsnoopd: the relay socket could not be opened\n");
    }
    /* sockets and hooks are in place: the enforcement rules follow them */
    linux_platform_ready(gDhcpsnoop.ipsgIfGet != nullptr, gDhcpsnoop.antiArpIfGet != nullptr);
    fflush(stdout);

    dhcpsnoop_main_setup();
    while (!linux_stop_requested())
        dhcpsnoop_main_pass();

    /* Stopped: the traps come off every snooping interface, so the kernel
     * forwards DHCP again, and the command socket goes. */
    DhcpsnoopList *head = &gDhcpsnoop.ifList;
    for (DhcpsnoopList *n = head->next; n != head; n = n->next) {
        DhcpsnoopIf *e = dhcpsnoop_entry<DhcpsnoopIf>(n);
        dhcpsnoop_if_state_notify(e->ifIndex, dhcpsnoop_if_version(e), 0);
    }
    dhcpsnoop_shutdown();
    fprintf(stderr, "dhcpsnoopd: stopped\n");
    return 0;
}
