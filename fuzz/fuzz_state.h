/* The daemon's global state made by hand for a harness: empty tables and
 * small pools, no sockets.  Called before every input so that each one
 * starts from the same state. */
#ifndef DHCPSNOOP_FUZZ_STATE_H
#define DHCPSNOOP_FUZZ_STATE_H

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "dhcpsnoop.h"
#include "dhcpsnoop_sys.h"
#include "dhcpsnoop_user.h"

inline void fuzz_fresh_state(uint16_t ifMax, uint16_t userMax, uint16_t serverMax)
{
    for (void **pool : {&gDhcpsnoop.ifPool, &gDhcpsnoop.userPool, &gDhcpsnoop.serverPool})
        if (*pool)
            dhcpsnoop_sys->free(*pool);
    memset(&gDhcpsnoop, 0, sizeof gDhcpsnoop);
    dhcpsnoop_list_init(&gDhcpsnoop.ifList);
    dhcpsnoop_list_init(&gDhcpsnoop.serverList);
    for (int i = 0; i < DHCPSNOOP_HASH_SIZE; i++) {
        dhcpsnoop_list_init(&gDhcpsnoop.userHash[i]);
        dhcpsnoop_list_init(&gDhcpsnoop.macUserHash[i]);
    }
    gDhcpsnoop.ifMax = ifMax;
    gDhcpsnoop.userMax = userMax;
    gDhcpsnoop.serverMax = serverMax;
    gDhcpsnoop.dataSock = gDhcpsnoop.data6Sock = gDhcpsnoop.udpSock = -1;
    gDhcpsnoop.cmdSock = gDhcpsnoop.rtSock = -1;
    gDhcpsnoop.enterpriseNum = DHCPSNOOP_ENTERPRISE_NUMBER;
    if (dhcpsnoop_memlist_init(&gDhcpsnoop.ifFreeList, &gDhcpsnoop.ifPool, sizeof(DhcpsnoopIf),
                               ifMax) != 0 ||
        dhcpsnoop_memlist_init(&gDhcpsnoop.userFreeList, &gDhcpsnoop.userPool,
                               sizeof(DhcpsnoopUser), userMax) != 0 ||
        dhcpsnoop_memlist_init(&gDhcpsnoop.serverFreeList, &gDhcpsnoop.serverPool,
                               sizeof(DhcpsnoopServer), serverMax) != 0 ||
        dhcpsnoop_user_index_init(userMax) != 0)
        abort();
}

inline size_t fuzz_chain_length(const DhcpsnoopList *head)
{
    size_t n = 0;
    for (const DhcpsnoopList *e = head->next; e != head; e = e->next)
        n++;
    return n;
}

/* The daemon's hex dumps go to standard output; keep it quiet while fuzzing. */
inline void fuzz_quiet_stdout()
{
    if (!freopen("/dev/null", "w", stdout))
        abort();
}

#endif
