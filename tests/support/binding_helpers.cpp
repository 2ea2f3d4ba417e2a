#include "binding_helpers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "switch_model.h"

DhcpsnoopUserKey v4key(uint8_t a, uint8_t b, uint8_t c, uint8_t d)
{
    DhcpsnoopUserKey k{};
    k.ipType = DHCPSNOOP_IPTYPE_V4;
    memcpy(k.ipAddr, std::array{a, b, c, d}.data(), 4);
    return k;
}

DhcpsnoopUserKey v6key(std::initializer_list<uint8_t> bytes)
{
    DhcpsnoopUserKey k{};
    k.ipType = DHCPSNOOP_IPTYPE_V6;
    std::copy(bytes.begin(), bytes.end(), k.ipAddr);
    return k;
}

DhcpsnoopPktInfo client_request(DhcpsnoopIf *ifp, uint32_t ifIndex, uint16_t svlan,
                                const Mac &mac, uint32_t rxTime)
{
    DhcpsnoopPktInfo info{};
    info.ifp = ifp;
    info.ifIndex = ifIndex;
    info.svlan = svlan;
    info.chaddr = const_cast<uint8_t *>(mac.data());
    info.rxTime = rxTime;
    return info;
}

DhcpsnoopUser *make_user(const DhcpsnoopUserKey &key, uint8_t userType, uint32_t ifIndex,
                         uint16_t vid, const Mac &mac)
{
    DhcpsnoopUser *u = dhcpsnoop_user_table_add(&key);
    if (!u)
        return nullptr;
    u->userType = userType;
    u->ifIndex = ifIndex;
    u->vid = u->origVid = vid;
    memcpy(u->mac, mac.data(), 6);
    u->macMark = DHCPSNOOP_MAC_MARK;
    u->bindState = DHCPSNOOP_BIND_BOUND;
    u->leaseTime = 3600;
    return u;
}

void set_role(DhcpsnoopRole role)
{
    sim_model().hwScalars[53] = role == DHCPSNOOP_ROLE_MASTER ? 0 : 1;
    sim_model().hwScalars[54] = role == DHCPSNOOP_ROLE_NONE ? 1 : 0;
}

static size_t list_length(const DhcpsnoopList &head)
{
    size_t n = 0;
    for (const DhcpsnoopList *e = head.next; e != &head; e = e->next)
        n++;
    return n;
}

size_t user_count()
{
    size_t n = 0;
    for (auto &head : gDhcpsnoop.userHash)
        n += list_length(head);
    return n;
}

size_t free_user_nodes() { return list_length(gDhcpsnoop.userFreeList); }

std::vector<DhcpsnoopServer *> server_list()
{
    std::vector<DhcpsnoopServer *> out;
    for (DhcpsnoopList *n = gDhcpsnoop.serverList.next; n != &gDhcpsnoop.serverList; n = n->next)
        out.push_back(dhcpsnoop_entry<DhcpsnoopServer>(n));
    return out;
}

std::vector<std::vector<uint8_t>> sync_buffers()
{
    std::vector<std::vector<uint8_t>> out;
    for (auto &s : sim_model().scalarSyncs)
        if (s.code == DHCPSNOOP_SYNC_CODE)
            out.push_back(s.data);
    return out;
}

std::vector<uint8_t> server_record(uint32_t ip, uint32_t vid, uint32_t ifIndex, uint32_t add)
{
    DhcpsnoopServer s{};
    s.serverIp = ip;
    s.vid = vid;
    s.ifIndex = ifIndex;
    std::vector<uint8_t> out(16);
    EXPECT_EQ(dhcpsnoop_sync_server_pkt_build(&s, add, out.data()), 16u);
    return out;
}

void BindingFixture::startWithPorts(uint16_t userMax)
{
    start(8, userMax);
    set_role(DHCPSNOOP_ROLE_NONE);
    port3 = enablePort(3);
    port4 = enablePort(4);
    model().addVlanIf(100, 10, "vlan10");
    ASSERT_EQ(dhcpsnoop_if_enable(100), 0u);
    vlan10 = dhcpsnoop_if_lookup(100);
}
