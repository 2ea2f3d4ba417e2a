/*
 * Relay server list: the DHCP servers heard answering, newest first.  A full
 * pool gives up its newest entry for the next server.
 */
#include <string.h>

#include "dhcpsnoop_user.h"

DhcpsnoopServer *dhcpsnoop_server_lookup(uint32_t serverIp, uint32_t vid, uint32_t ifIndex)
{
    DhcpsnoopList *head = &gDhcpsnoop.serverList;
    for (DhcpsnoopList *n = head->next; n != head; n = n->next) {
        DhcpsnoopServer *s = dhcpsnoop_entry<DhcpsnoopServer>(n);
        if (s->serverIp == serverIp && s->vid == vid && s->ifIndex == ifIndex)
            return s;
    }
    return nullptr;
}

namespace {
DhcpsnoopServer *take_free_server()
{
    DhcpsnoopList *n = gDhcpsnoop.serverFreeList.next;
    dhcpsnoop_list_unlink(n);
    DhcpsnoopServer *s = dhcpsnoop_entry<DhcpsnoopServer>(n);
    memset(s, 0, sizeof *s);
    dhcpsnoop_list_init(&s->link);
    return s;
}
} // namespace

DhcpsnoopServer *dhcpsnoop_server_alloc(void)
{
    if (!dhcpsnoop_list_empty(&gDhcpsnoop.serverFreeList))
        return take_free_server();
    if (dhcpsnoop_list_empty(&gDhcpsnoop.serverList))
        return nullptr;
    /* the newest entry makes way; older servers stay known */
    dhcpsnoop_server_delete(dhcpsnoop_entry<DhcpsnoopServer>(gDhcpsnoop.serverList.next));
    return take_free_server();
}

void dhcpsnoop_server_add(uint32_t serverIp, uint32_t vid, uint32_t ifIndex)
{
    DhcpsnoopServer *s = dhcpsnoop_server_alloc();
    if (!s)
        return;
    s->serverIp = serverIp;
    s->vid = vid;
    s->ifIndex = ifIndex;
    dhcpsnoop_list_insert_after(&gDhcpsnoop.serverList, &s->link);
    if (dhcpsnoop_running_role_get() == DHCPSNOOP_ROLE_MASTER)
        dhcpsnoop_sync_server_send(s, 1);
}

void dhcpsnoop_server_delete(DhcpsnoopServer *entry)
{
    if (!entry)
        return;
    if (dhcpsnoop_running_role_get() == DHCPSNOOP_ROLE_MASTER)
        dhcpsnoop_sync_server_send(entry, 0);
    dhcpsnoop_list_unlink(&entry->link);
    memset(entry, 0, sizeof *entry);
    dhcpsnoop_list_insert_after(&gDhcpsnoop.serverFreeList, &entry->link);
}
