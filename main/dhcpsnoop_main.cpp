/*
 * Daemon core: the global record, entry pools, the lock, start-up and
 * shutdown, the select loop and the lease timer.
 */
#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/un.h>

#include <algorithm>

#include "dhcpsnoop.h"
#include "dhcpsnoop_sys.h"
#include "dhcpsnoop_user.h"

DhcpsnoopGlobal gDhcpsnoop;

namespace {

/* 1 once start-up has succeeded. */
uint32_t init;
/* When the lease scan last ran. */
time_t prev_time;

constexpr int SOL_PACKET_LEVEL = 263;
constexpr int PACKET_INFO_OPTION = 20;
constexpr int SOL_NETLINK_LEVEL = 270;
constexpr uint32_t SELECT_TIMEOUT = 60;
constexpr uint32_t SCAN_INTERVAL = 60;

/* Netlink groups joined at start-up; the last two may be missing. */
constexpr int REQUIRED_GROUPS[] = {32, 31, 40, 1, 56};
constexpr int OPTIONAL_GROUPS[] = {57, 40};

/* ---- receive state of the loop, set up once ---------------------------- */

/* The platform's packet-information payload, as last seen. */
constexpr size_t PKTINFO_SIZE = 32;
struct LoopState {
    uint8_t frame[DHCPSNOOP_FRAME_MAX];
    alignas(struct cmsghdr) uint8_t control[128];
    struct sockaddr_ll lladdr;
    struct iovec iov;
    struct msghdr msg;
    uint8_t pktinfo[PKTINFO_SIZE];
    bool pktinfoSeen;
    DhcpsnoopRxPkt rxpkt;
    bool ready;
};
LoopState loop;

bool fd_in_set(int fd, const fd_set *set)
{
    return fd >= 0 && fd < FD_SETSIZE && FD_ISSET(fd, set);
}

/* A time difference as a whole, unsigned 32-bit number of seconds. */
uint32_t seconds_u32(double d)
{
    if (!(d == d))
        return 0;
    if (d >= 9.2e18)
        return UINT32_MAX;
    if (d <= -9.2e18)
        return 0;
    return uint32_t(int64_t(d));
}

void set_empty_lists()
{
    dhcpsnoop_list_init(&gDhcpsnoop.ifList);
    dhcpsnoop_list_init(&gDhcpsnoop.serverList);
    for (int i = 0; i < DHCPSNOOP_HASH_SIZE; i++) {
        dhcpsnoop_list_init(&gDhcpsnoop.userHash[i]);
        dhcpsnoop_list_init(&gDhcpsnoop.macUserHash[i]);
    }
}

void set_option_formats(uint32_t optionMode)
{
    struct Default {
        DhcpsnoopOptFmt *fmt;
        const char *tmpl;
    } defaults[] = {
        {&gDhcpsnoop.circuitIdFmt, "%s.%c.%d:%N"},
        {&gDhcpsnoop.remoteIdFmt, "%d"},
        {&gDhcpsnoop.interfaceIdFmt, "%d %N:%s.%c"},
        {&gDhcpsnoop.remoteId6Fmt, "%s.%c.%d:%N"},
    };
    for (auto &d : defaults) {
        memset(d.fmt, 0, sizeof *d.fmt);
        if (optionMode == 0) {
            d.fmt->mode = 3;
        } else if (optionMode == 5) {
            d.fmt->mode = 5;
            d.fmt->len = uint16_t(strlen(d.tmpl));
            memcpy(d.fmt->text, d.tmpl, d.fmt->len);
        } else {
            d.fmt->mode = uint16_t(optionMode);
        }
    }
}

int open_packet_socket(uint16_t ethType)
{
    return dhcpsnoop_sys->socket(AF_PACKET, SOCK_RAW, htons(ethType));
}

int enable_packet_info(int fd)
{
    int one = 1;
    return dhcpsnoop_sys->setsockopt(fd, SOL_PACKET_LEVEL, PACKET_INFO_OPTION, &one, sizeof one);
}

int join_group(int group)
{
    return dhcpsnoop_sys->setsockopt(gDhcpsnoop.rtSock, SOL_NETLINK_LEVEL, NETLINK_ADD_MEMBERSHIP,
                                     &group, sizeof group);
}

/* Steps 9 to 15 of start-up: the four sockets. */
int open_sockets(DhcpsnoopDeftinstallHook deftinstallHook, DhcpsnoopIfHook ipsgHook,
                 DhcpsnoopIfHook antiArpHook)
{
    gDhcpsnoop.dataSock = open_packet_socket(ETH_P_IP);
    if (gDhcpsnoop.dataSock < 0) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Create data_socket ERROR!\n\r");
        return -1;
    }
    if (enable_packet_info(gDhcpsnoop.dataSock) < 0) {
        perror("[DHCPSNOOP]dataSock setsockopt failed!\r\n");
        return -1;
    }

    gDhcpsnoop.data6Sock = open_packet_socket(ETH_P_IPV6);
    if (gDhcpsnoop.data6Sock < 0) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Create data6_socket ERROR!\n\r");
        return -1;
    }
    if (enable_packet_info(gDhcpsnoop.data6Sock) < 0) {
        perror("[DHCPSNOOP] data6_socket setsockopt failed\r\n");
        return -1;
    }

    gDhcpsnoop.deftinstallCb = deftinstallHook;
    gDhcpsnoop.ipsgIfGet = ipsgHook;
    gDhcpsnoop.antiArpIfGet = antiArpHook;

    gDhcpsnoop.cmdSock = -1;
    dhcpsnoop_sys->unlink(DHCPSNOOP_CMD_SOCKET_PATH);
    gDhcpsnoop.cmdSock = dhcpsnoop_sys->socket(AF_UNIX, SOCK_STREAM, 0);
    if (gDhcpsnoop.cmdSock <= 0) {
        perror("[DHCPSNOOP] Create cmd_socket ERROR!\r\n");
        return -1;
    }
    struct sockaddr_un un;
    memset(&un, 0, sizeof un);
    un.sun_family = AF_UNIX;
    strncpy(un.sun_path, DHCPSNOOP_CMD_SOCKET_PATH, sizeof un.sun_path - 1);
    if (dhcpsnoop_sys->bind(gDhcpsnoop.cmdSock, reinterpret_cast<struct sockaddr *>(&un),
                            sizeof un) < 0) {
        perror("[DHCPSNOOP] Bind cmd_socket failed!\r\n");
        return -1;
    }
    if (dhcpsnoop_sys->listen(gDhcpsnoop.cmdSock, 10) < 0) {
        perror("[DHCPSNOOP] Listen cmdSock error\r\n");
        return -1;
    }

    gDhcpsnoop.rtSock = dhcpsnoop_sys->socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
    if (gDhcpsnoop.rtSock <= 0) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Create rt_socket failed\r\n");
        return -1;
    }
    struct sockaddr_nl nl;
    memset(&nl, 0, sizeof nl);
    nl.nl_family = AF_NETLINK;
    if (dhcpsnoop_sys->bind(gDhcpsnoop.rtSock, reinterpret_cast<struct sockaddr *>(&nl),
                            sizeof nl) < 0) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Bind rtSock failed\r\n");
        return -1;
    }
    for (int group : REQUIRED_GROUPS) {
        if (join_group(group) < 0) {
            DHCPSNOOP_DEBUG("[DHCPSNOOP] rtSock setsockopt nl_group %d failed\r\n", group);
            return -1;
        }
    }
    for (int group : OPTIONAL_GROUPS) {
        if (join_group(group) < 0)
            DHCPSNOOP_DEBUG("[DHCPSNOOP] rtSock setsockopt nl_group %d failed\r\n", group);
    }
    int one = 1;
    if (dhcpsnoop_sys->ioctl(gDhcpsnoop.rtSock, FIONBIO, &one) < 0) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] rtSock set ioctl failed\r\n");
        return -1;
    }
    return 0;
}

void release_pool(DhcpsnoopList *head, void **pool)
{
    dhcpsnoop_list_init(head);
    if (*pool) {
        dhcpsnoop_sys->free(*pool);
        *pool = nullptr;
    }
}

/* ---- receive path ------------------------------------------------------- */

/* Keep the payload of the first packet-information control message, if the
 * frame brought one.  The walk stays inside the control bytes received. */
void take_packet_info()
{
    size_t total = std::min<size_t>(loop.msg.msg_controllen, sizeof loop.control);
    if (!loop.msg.msg_control || total < sizeof(struct cmsghdr))
        return;
    size_t off = 0;
    while (off + sizeof(struct cmsghdr) <= total) {
        struct cmsghdr h;
        memcpy(&h, loop.control + off, sizeof h);
        if (h.cmsg_len < sizeof(struct cmsghdr))
            return;
        if (h.cmsg_level == SOL_PACKET_LEVEL) {
            size_t end = std::min<size_t>(off + h.cmsg_len, total);
            size_t start = off + CMSG_LEN(0);
            size_t n = end > start ? std::min(end - start, PKTINFO_SIZE) : 0;
            memset(loop.pktinfo, 0, sizeof loop.pktinfo);
            memcpy(loop.pktinfo, loop.control + start, n);
            loop.pktinfoSeen = true;
            return;
        }
        off += CMSG_ALIGN(h.cmsg_len);
    }
}

uint32_t pktinfo_u32(size_t off)
{
    uint32_t v;
    memcpy(&v, loop.pktinfo + off, sizeof v);
    return v;
}

uint16_t pktinfo_u16(size_t off)
{
    uint16_t v;
    memcpy(&v, loop.pktinfo + off, sizeof v);
    return v;
}

void receive_frame(int fd, uint16_t etherType)
{
    bool v4 = etherType == DHCPSNOOP_ETH_IP;
    /* the kernel shrinks both rooms to what it wrote: give them back, or a
     * frame without packet information takes it from every later frame */
    loop.msg.msg_namelen = sizeof loop.lladdr;
    loop.msg.msg_controllen = sizeof loop.control;
    ssize_t n = dhcpsnoop_sys->recvmsg(fd, &loop.msg, 0);
    if (n == 0) {
        perror(v4 ? "[DHCPSNOOP]: recvmsg error len!\r\n" : "[DHCPSNOOP]: recvmsg error len!");
        return;
    }
    if (n < 0)
        return; /* nothing was received */
    if (size_t(n) > sizeof loop.frame)
        n = sizeof loop.frame;

    take_packet_info();
    if (!loop.pktinfoSeen) {
        DHCPSNOOP_DEBUG_D(v4 ? "[DHCPSNOOP]: rxpktInfo was NULL!\r\n"
                             : "[DHCPSNOOP] rxpktInfo was NULL!");
        return;
    }

    uint32_t ingress = pktinfo_u32(0);
    uint16_t outerVid = pktinfo_u16(20);
    DhcpsnoopIf *inIf = dhcpsnoop_if_lookup(ingress);
    if (!inIf) {
        uint32_t request[7] = {0, 0, 0, 0, outerVid, 3, 0};
        uint32_t index = 0;
        if (qorIndexTrans(request, 7, &index) != 0) {
            DHCPSNOOP_DEBUG_D(v4 ? "[DHCPSNOOP]: qor index trans error!\r\n"
                                 : "[DHCPSNOOP] qor index trans error!\r\n");
            return;
        }
        inIf = dhcpsnoop_if_lookup(index);
        if (!inIf)
            return;
    }

    DhcpsnoopRxPkt &rx = loop.rxpkt;
    rx.valid = 1;
    rx.len = uint16_t(n);
    memcpy(rx.data, loop.frame, size_t(n));
    /* An option inserted later grows the frame into the bytes behind it:
     * they must not be an earlier frame's. */
    memset(rx.data + n, 0, sizeof rx.data - size_t(n));
    rx.inIf = inIf;
    if (v4) {
        rx.ifIndex = ingress;
    } else {
        int sll = loop.lladdr.sll_ifindex;
        rx.ifIndex = uint32_t(sll);
    }
    rx.innerVid = pktinfo_u16(22);
    rx.outerVid = outerVid;
    rx.l2HdrLen = loop.pktinfo[24];
    rx.etherType = etherType;
    dhcpsnoop_recv(&rx);
}

void receive_netlink()
{
    struct sockaddr_nl addr;
    socklen_t alen = sizeof addr;
    memset(&addr, 0, sizeof addr);
    ssize_t n = dhcpsnoop_sys->recvfrom(gDhcpsnoop.rtSock, loop.frame, sizeof loop.frame, 0,
                                        reinterpret_cast<struct sockaddr *>(&addr), &alen);
    if (n != 0)
        dhcpsnoop_notify_recv(loop.frame, int32_t(n));
    else
        perror("[DHCPSNOOP]: recvfrom rt_socket  failed!\r\n ");
}

} // namespace

/* ---- pools and lock ------------------------------------------------------ */

int32_t dhcpsnoop_memlist_init(DhcpsnoopList *head, void **pool, uint32_t entrySize,
                               uint32_t count)
{
    dhcpsnoop_list_init(head);
    /* room for the two link words at least, and aligned for them */
    size_t size = std::max<size_t>(entrySize, sizeof(DhcpsnoopList));
    size = (size + alignof(DhcpsnoopList) - 1) / alignof(DhcpsnoopList) * alignof(DhcpsnoopList);
    if (count == 0)
        count = 1;
    uint8_t *block = static_cast<uint8_t *>(dhcpsnoop_sys->calloc(count, size));
    if (!block)
        return -1;
    *pool = block;
    for (uint32_t i = 0; i < count; i++)
        dhcpsnoop_list_insert_after(head, reinterpret_cast<DhcpsnoopList *>(block + i * size));
    return 0;
}

/* The daemon has one thread; the pair marks where a lock on semId belongs. */
void dhcpsnoop_lock(void) {}
void dhcpsnoop_unlock(void) {}

/* ---- start-up and shutdown ---------------------------------------------- */

int dhcpsnoop_start(int argc, char **argv)
{
    qorCatchSegFault(argc, argv);
    signal(SIGPIPE, SIG_IGN);
    int args[6] = {0, 0, 0, 0, 0, 0};
    for (int i = 1; i < argc && i < 6; i++)
        args[i] = argv[i] ? atoi(argv[i]) : 0;
    return dhcpsnoop_init_ex(uint16_t(args[1]), uint16_t(args[2]), 0, 3,
                             args[5] ? deftinstall_client_entry_callback : nullptr,
                             args[3] ? ipsgIfGetApi : nullptr,
                             args[4] ? arpAntiAttackIfGetApi : nullptr);
}

int32_t dhcpsnoop_init_ex(uint16_t ifCount, uint16_t userCount, uint16_t serverCount,
                          uint32_t optionMode, DhcpsnoopDeftinstallHook deftinstallHook,
                          DhcpsnoopIfHook ipsgHook, DhcpsnoopIfHook antiArpHook)
{
    if (init)
        return 0;
    memset(&gDhcpsnoop, 0, sizeof gDhcpsnoop);

    gDhcpsnoop.semId = OsixCreateMSem(9);
    if (gDhcpsnoop.semId == 0) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Failed to create semaphore for dhcpSnoop\n\r");
        goto fail;
    }
    set_empty_lists();

    gDhcpsnoop.ifMax = ifCount ? ifCount : DHCPSNOOP_DEFAULT_IF_MAX;
    if (dhcpsnoop_memlist_init(&gDhcpsnoop.ifFreeList, &gDhcpsnoop.ifPool, sizeof(DhcpsnoopIf),
                               gDhcpsnoop.ifMax) != 0) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Failed to allocate memory for interface free list\r\n");
        goto fail;
    }
    gDhcpsnoop.userMax = userCount ? userCount : DHCPSNOOP_DEFAULT_USER_MAX;
    if (dhcpsnoop_memlist_init(&gDhcpsnoop.userFreeList, &gDhcpsnoop.userPool,
                               sizeof(DhcpsnoopUser), gDhcpsnoop.userMax) != 0) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Failed to allocate memory for user free list\r\n");
        goto fail;
    }
    gDhcpsnoop.serverMax = serverCount ? serverCount : DHCPSNOOP_DEFAULT_SERVER_MAX;
    if (dhcpsnoop_memlist_init(&gDhcpsnoop.serverFreeList, &gDhcpsnoop.serverPool,
                               sizeof(DhcpsnoopServer), gDhcpsnoop.serverMax) != 0) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Failed to allocate memory for server free list\r\n");
        goto fail;
    }
    if (dhcpsnoop_user_index_init(gDhcpsnoop.userMax) != 0) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Failed to allocate memory for the user index\r\n");
        goto fail;
    }

    gDhcpsnoop.enterpriseNum = DHCPSNOOP_ENTERPRISE_NUMBER;
    set_option_formats(optionMode);

    if (open_sockets(deftinstallHook, ipsgHook, antiArpHook) != 0)
        goto fail;

    init = 1;
    return 0;

fail:
    dhcpsnoop_shutdown();
    return -1;
}

int32_t dhcpsnoop_init(uint16_t ifCount, uint16_t userCount)
{
    return dhcpsnoop_init_ex(ifCount, userCount, 0, 3, nullptr, nullptr, nullptr);
}

int dhcpsnoop_udp_socket_init(void)
{
    int fd = dhcpsnoop_sys->socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Create server socket ERROR,errno 0x%0x!\r\n", errnoGet());
        return -1;
    }
    int one = 1;
    struct {
        int name;
        const char *msg;
    } options[] = {
        {SO_BROADCAST, "[DHCPSNOOP] Set socket BROADCAST option ERROR,errno 0x%0x!\r\n"},
        {SO_REUSEADDR, "[DHCPSNOOP] Set socket REUSEPORT option ERROR,errno 0x%0x!\r\n"},
        {SO_RCVBUF, "[DHCPSNOOP] Set socket SO_RCVBUF option ERROR,errno 0x%0x!\r\n"},
    };
    for (auto &o : options) {
        if (dhcpsnoop_sys->setsockopt(fd, SOL_SOCKET, o.name, &one, sizeof one) < 0) {
            DHCPSNOOP_DEBUG(o.msg, errnoGet());
            dhcpsnoop_sys->close(fd);
            return -1;
        }
    }
    struct sockaddr_in sin;
    memset(&sin, 0, sizeof sin);
    sin.sin_family = AF_INET;
    sin.sin_port = htons(67);
    sin.sin_addr.s_addr = htonl(INADDR_ANY);
    if (dhcpsnoop_sys->bind(fd, reinterpret_cast<struct sockaddr *>(&sin), sizeof sin) < 0) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Udp socket bind ERROR, errorno 0x%0x!\r\n", errnoGet());
        dhcpsnoop_sys->close(fd);
        return -1;
    }
    return fd;
}

void dhcpsnoop_shutdown(void)
{
    if (gDhcpsnoop.semId) {
        OsixDeleteSem(gDhcpsnoop.semId);
        gDhcpsnoop.semId = 0;
    }
    for (int32_t *fd : {&gDhcpsnoop.dataSock, &gDhcpsnoop.data6Sock, &gDhcpsnoop.udpSock}) {
        if (*fd > 0) {
            dhcpsnoop_sys->close(*fd);
            *fd = -1;
        }
    }
    /* A start-up that failed early leaves both at 0 from the zero fill, so
     * descriptor 0 is closed here and the socket path removed. */
    if (gDhcpsnoop.cmdSock != -1) {
        dhcpsnoop_sys->close(gDhcpsnoop.cmdSock);
        dhcpsnoop_sys->unlink(DHCPSNOOP_CMD_SOCKET_PATH);
        gDhcpsnoop.cmdSock = -1;
    }
    if (gDhcpsnoop.rtSock != -1) {
        dhcpsnoop_sys->close(gDhcpsnoop.rtSock);
        gDhcpsnoop.rtSock = -1;
    }
    release_pool(&gDhcpsnoop.ifFreeList, &gDhcpsnoop.ifPool);
    dhcpsnoop_user_index_release();
    release_pool(&gDhcpsnoop.userFreeList, &gDhcpsnoop.userPool);
    release_pool(&gDhcpsnoop.serverFreeList, &gDhcpsnoop.serverPool);
    init = 0;
}

uint32_t dhcpsnoop_is_started(void) { return init; }

/* ---- main loop and lease timer ------------------------------------------ */

void dhcpsnoop_main_setup(void)
{
    memset(&loop, 0, sizeof loop);
    loop.iov.iov_base = loop.frame;
    loop.iov.iov_len = sizeof loop.frame;
    loop.msg.msg_name = &loop.lladdr;
    loop.msg.msg_namelen = sizeof loop.lladdr;
    loop.msg.msg_iov = &loop.iov;
    loop.msg.msg_iovlen = 1;
    loop.msg.msg_control = loop.control;
    loop.msg.msg_controllen = sizeof loop.control;
    loop.ready = true;
}

void dhcpsnoop_main_pass(void)
{
    if (!loop.ready)
        dhcpsnoop_main_setup();

    fd_set rd;
    FD_ZERO(&rd);
    int highest = 0;
    for (int fd : {gDhcpsnoop.dataSock, gDhcpsnoop.data6Sock, gDhcpsnoop.cmdSock,
                   gDhcpsnoop.rtSock}) {
        if (fd > 0 && fd < FD_SETSIZE) {
            FD_SET(fd, &rd);
            highest = std::max(highest, fd);
        }
    }
    struct timeval tv = {SELECT_TIMEOUT, 0};
    int ready = dhcpsnoop_sys->select(highest + 1, &rd, nullptr, nullptr, &tv);

    if (dhcpsnoop_running_role_get() != DHCPSNOOP_ROLE_SLAVE)
        dhcpsnoop_user_timer_check();
    if (ready == 0)
        return;

    if (gDhcpsnoop.dataSock >= 0 && fd_in_set(gDhcpsnoop.dataSock, &rd))
        receive_frame(gDhcpsnoop.dataSock, DHCPSNOOP_ETH_IP);
    if (gDhcpsnoop.data6Sock >= 0 && fd_in_set(gDhcpsnoop.data6Sock, &rd))
        receive_frame(gDhcpsnoop.data6Sock, DHCPSNOOP_ETH_IPV6);
    if (gDhcpsnoop.cmdSock >= 0 && fd_in_set(gDhcpsnoop.cmdSock, &rd))
        dhcpsnoop_cmd_server();
    if (gDhcpsnoop.rtSock < 0)
        return;
    if (fd_in_set(gDhcpsnoop.rtSock, &rd))
        receive_netlink();
}

void dhcpsnoop_main(void)
{
    dhcpsnoop_main_setup();
    for (;;)
        dhcpsnoop_main_pass();
}

void dhcpsnoop_timer_reset(void) { prev_time = 0; }

const DhcpsnoopRxPkt *dhcpsnoop_main_rxpkt(void) { return &loop.rxpkt; }

void dhcpsnoop_user_timer_check(void)
{
    time_t now = dhcpsnoop_sys->time(nullptr);
    if (seconds_u32(dhcpsnoop_sys->difftime(now, prev_time)) < SCAN_INTERVAL)
        return;
    DHCPSNOOP_DEBUG("[DHCPSNOOP] Timeout, check the user binding table!\r\n");
    prev_time = now;

    for (int b = 0; b < DHCPSNOOP_HASH_SIZE; b++) {
        DhcpsnoopList *head = &gDhcpsnoop.userHash[b];
        for (DhcpsnoopList *n = head->next, *next; n != head; n = next) {
            next = n->next;
            DhcpsnoopUser *u = dhcpsnoop_entry<DhcpsnoopUser>(n);
            if (u->userType != DHCPSNOOP_USER_DYNAMIC ||
                dhcpsnoop_sys->difftime(now, time_t(u->leaseStart)) < double(u->leaseTime))
                continue;
            char mac[DHCPSNOOP_MAC_TEXT];
            DHCPSNOOP_DEBUG("[DHCPSNOOP] User time out, mac:%s.\r\n", dhcpsnoop_mac_text(u->mac, mac));
            dhcpsnoop_user_delete(u);
        }
    }
    for (int b = 0; b < DHCPSNOOP_HASH_SIZE; b++) {
        DhcpsnoopList *head = &gDhcpsnoop.macUserHash[b];
        for (DhcpsnoopList *n = head->next, *next; n != head; n = next) {
            next = n->next;
            DhcpsnoopMacUser *m = dhcpsnoop_entry<DhcpsnoopMacUser>(n);
            if (dhcpsnoop_sys->difftime(now, time_t(m->seenTime)) >= double(m->ageTime))
                dhcpsnoop_mac_user_delete(m);
        }
    }
}
