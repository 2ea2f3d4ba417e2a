/* What every harness shares: a daemon started on the fake system calls, the
 * check that the tables hold together, and a quiet standard output. */
#ifndef DHCPSNOOP_FUZZ_STATE_H
#define DHCPSNOOP_FUZZ_STATE_H

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <map>
#include <set>

#include "dhcpsnoop.h"
#include "dhcpsnoop_nm.h"
#include "dhcpsnoop_sys.h"
#include "dhcpsnoop_user.h"
#include "fake_sys.h"
#include "switch_model.h"

/* A daemon stopped and set up again on fresh fake system calls and an empty
 * switch model; the caller adds ports and calls dhcpsnoop_init_ex. */
inline FakeSys &fuzz_restart(bool clockStill)
{
    dhcpsnoop_shutdown();
    FakeSys &sys = FakeSys::get();
    sys.reset();
    sys.install();
    if (clockStill) {
        sys.selectAdvancesClock = false;
        dhcpsnoop_timer_reset();
    }
    dhcpsnoop_main_setup();
    sim_model().reset();
    return sys;
}

/* The pools and tables hold together, or abort: every node of a pool is on
 * exactly one list (free list or table), so free + used = pool size; links
 * point back; every binding and MAC user is what its table's lookup finds.
 * Unless the bindings came from a Master (own false), their hardware flags
 * are known kinds, each with where it came from, and each interface's user
 * count equals its dynamic bindings (its port's and its VLAN's). */
inline void fuzz_check_tables(bool own = true)
{
    std::set<const DhcpsnoopList *> seen;
    auto walk = [&](DhcpsnoopList *head, const void *pool, size_t size, uint16_t max,
                    auto &&each) {
        size_t n = 0;
        for (DhcpsnoopList *e = head->next; e != head; e = e->next, n++) {
            size_t off = size_t(reinterpret_cast<const char *>(e) - static_cast<const char *>(pool));
            if (e->next->prev != e || e->prev->next != e || !seen.insert(e).second ||
                reinterpret_cast<const char *>(e) < static_cast<const char *>(pool) ||
                off % size != 0 || off / size >= max)
                abort();
            each(e);
        }
        return n;
    };
    auto none = [](DhcpsnoopList *) {};
    DhcpsnoopGlobal &g = gDhcpsnoop;

    std::map<const DhcpsnoopIf *, size_t> counted;
    auto user = [&](DhcpsnoopList *e) {
        DhcpsnoopUser *u = dhcpsnoop_entry<DhcpsnoopUser>(e);
        if (dhcpsnoop_user_lookup(dhcpsnoop_user_key(u)) != u ||
            (own && (u->hwFlags & ~(DHCPSNOOP_HW_IPSG | DHCPSNOOP_HW_DAI)) != 0) ||
            (own && u->userType == DHCPSNOOP_USER_DYNAMIC && u->bindState == DHCPSNOOP_BIND_BOUND &&
             (u->hwFlags & DHCPSNOOP_HW_IPSG) && u->ipsgSource == 0))
            abort();
        if (u->userType == DHCPSNOOP_USER_DYNAMIC) {
            counted[dhcpsnoop_if_lookup(u->ifIndex)]++;
            counted[dhcpsnoop_if_lookup_by_vid(u->vid)]++;
        }
    };
    auto macUser = [&](DhcpsnoopList *e) {
        DhcpsnoopMacUser *m = dhcpsnoop_entry<DhcpsnoopMacUser>(e);
        if (dhcpsnoop_mac_user_lookup(m->mac) != m)
            abort();
    };
    const size_t us = sizeof(DhcpsnoopUser);
    size_t users = walk(&g.userFreeList, g.userPool, us, g.userMax, none);
    for (DhcpsnoopList &head : g.userHash)
        users += walk(&head, g.userPool, us, g.userMax, user);
    for (DhcpsnoopList &head : g.macUserHash)
        users += walk(&head, g.userPool, us, g.userMax, macUser);

    uint32_t lastIndex = 0;
    auto iface = [&](DhcpsnoopList *e) {
        const DhcpsnoopIf *f = dhcpsnoop_entry<DhcpsnoopIf>(e);
        if (f->ifIndex < lastIndex || (own && f->curUser != counted[f]))
            abort();
        lastIndex = f->ifIndex;
    };
    const size_t is = sizeof(DhcpsnoopIf), ss = sizeof(DhcpsnoopServer);
    if (users != g.userMax ||
        walk(&g.ifFreeList, g.ifPool, is, g.ifMax, none) +
                walk(&g.ifList, g.ifPool, is, g.ifMax, iface) != g.ifMax ||
        walk(&g.serverFreeList, g.serverPool, ss, g.serverMax, none) +
                walk(&g.serverList, g.serverPool, ss, g.serverMax, none) != g.serverMax)
        abort();
}

/* The daemon's hex dumps and notices go to standard output: keep it quiet. */
extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    if (!freopen("/dev/null", "w", stdout))
        abort();
    return 0;
}

#endif
