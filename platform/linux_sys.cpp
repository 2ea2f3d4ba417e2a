/*
 * The system-call seam on a stock Linux kernel.
 *
 * The switch kernel traps DHCP to two protocol-bound packet sockets and
 * attaches a packet-information message to every frame.  A stock kernel
 * does neither: a socket bound to ETH_P_IP gets 802.1Q frames with the tag
 * removed and no VLAN in the auxiliary data, and on bridged ports only the
 * bridge sees them.  So the data sockets listen on ETH_P_ALL with a kernel
 * filter, the auxiliary data is turned into the packet-information message,
 * a stripped tag is put back, a checksum left to the hardware is completed
 * and the daemon's own transmissions are not read back.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <linux/rtnetlink.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>

#include "dhcpsnoop.h"
#include "linux_platform.h"
#include "switch_model.h"

namespace {

constexpr int SOL_PACKET_LEVEL = 263;
constexpr int PACKET_INFO_OPTION = 20;
constexpr size_t PKTINFO_SIZE = 28;
constexpr int MAX_SKIPPED = 64;

enum class Family { None, V4, V6 };
constexpr int MAX_FD = 1024;
Family dataFamily[MAX_FD];
bool netlinkFd[MAX_FD];

Family family_of(int fd) { return fd >= 0 && fd < MAX_FD ? dataFamily[fd] : Family::None; }

uint16_t be16(const uint8_t *p) { return uint16_t(p[0] << 8 | p[1]); }
void put16(uint8_t *p, uint32_t v)
{
    p[0] = uint8_t(v >> 8);
    p[1] = uint8_t(v);
}

/* A classic BPF program written with labels: jumps name their target and
 * are turned into the forward offsets the kernel wants when it is done. */
struct BpfAsm {
    struct Ins {
        uint16_t code;
        int jt, jf; /* labels; -1 falls through */
        uint32_t k;
    };
    std::vector<Ins> ins;
    std::vector<int> at;
    int label()
    {
        at.push_back(-1);
        return int(at.size()) - 1;
    }
    void bind(int l) { at[size_t(l)] = int(ins.size()); }
    void op(uint16_t code, uint32_t k = 0) { ins.push_back({code, -1, -1, k}); }
    void jmp(uint16_t cond, uint32_t k, int jt, int jf = -1)
    {
        ins.push_back({uint16_t(BPF_JMP | cond | BPF_K), jt, jf, k});
    }
    void ja(int l) { ins.push_back({BPF_JMP | BPF_JA, l, -1, 0}); }
    std::vector<sock_filter> done() const
    {
        std::vector<sock_filter> out;
        for (size_t i = 0; i < ins.size(); i++) {
            const Ins &n = ins[i];
            auto rel = [&](int l) { return l < 0 ? 0u : uint32_t(at[size_t(l)] - int(i) - 1); };
            if (n.code == (BPF_JMP | BPF_JA))
                out.push_back(sock_filter{n.code, 0, 0, rel(n.jt)});
            else
                out.push_back(sock_filter{n.code, uint8_t(rel(n.jt)), uint8_t(rel(n.jf)), n.k});
        }
        return out;
    }
};

} // namespace

/* Accept IPv4 (resp. IPv6) UDP frames for the DHCP ports behind up to two
 * tags of the given TPIDs left in the data (the kernel often takes the outer
 * one off).  The transport header is found the way the stack finds it: after
 * the IPv4 header length the header gives, or after the IPv6 extension
 * headers (up to four), so clients that send options are not lost. */
std::vector<sock_filter> linux_dhcp_filter(bool v6, const std::vector<uint16_t> &tpids)
{
    const uint16_t ethType = v6 ? ETH_P_IPV6 : ETH_P_IP;
    const uint32_t p1 = v6 ? 546 : 67, p2 = v6 ? 547 : 68;
    constexpr int MAX_EXT = 4;
    BpfAsm a;
    const int drop = a.label(), ports = a.label(), walk = a.label();
    int l3[3] = {a.label(), a.label(), a.label()};
    /* the ethertype behind 0, 1 or 2 tags */
    for (int depth = 0; depth < 3; depth++) {
        a.op(BPF_LD | BPF_H | BPF_ABS, 12 + 4 * uint32_t(depth));
        a.jmp(BPF_JEQ, ethType, l3[depth]);
        if (depth == 2) {
            a.ja(drop);
            break;
        }
        const int next = a.label();
        for (uint16_t t : tpids)
            a.jmp(BPF_JEQ, t, next);
        a.ja(drop);
        a.bind(next);
    }
    for (int depth = 0; depth < 3; depth++) {
        const uint32_t k = 14 + 4 * uint32_t(depth);
        a.bind(l3[depth]);
        if (v6) {
            a.op(BPF_LDX | BPF_IMM, k + 40);
            a.op(BPF_LD | BPF_B | BPF_ABS, k + 6);
            a.ja(walk);
        } else {
            a.op(BPF_LD | BPF_B | BPF_ABS, k + 9);
            a.jmp(BPF_JEQ, IPPROTO_UDP, -1, drop);
            a.op(BPF_LDX | BPF_B | BPF_MSH, k); /* X = header length */
            a.op(BPF_MISC | BPF_TXA);
            a.op(BPF_ALU | BPF_ADD | BPF_K, k);
            a.op(BPF_MISC | BPF_TAX);
            a.ja(ports);
        }
    }
    if (v6) {
        /* A = the next header, X = where it starts */
        a.bind(walk);
        for (int i = 0; i <= MAX_EXT; i++) {
            a.jmp(BPF_JEQ, IPPROTO_UDP, ports);
            if (i == MAX_EXT)
                break;
            const int fixed = a.label(), sized = a.label(), next = a.label();
            a.jmp(BPF_JEQ, IPPROTO_FRAGMENT, fixed);
            a.jmp(BPF_JEQ, IPPROTO_HOPOPTS, sized);
            a.jmp(BPF_JEQ, IPPROTO_ROUTING, sized);
            a.jmp(BPF_JEQ, IPPROTO_DSTOPTS, sized, drop);
            a.bind(fixed); /* a fragment header is 8 bytes */
            a.op(BPF_LD | BPF_B | BPF_IND, 0);
            a.op(BPF_ST, 0);
            a.op(BPF_MISC | BPF_TXA);
            a.op(BPF_ALU | BPF_ADD | BPF_K, 8);
            a.ja(next);
            a.bind(sized); /* the others say their length in 8-byte units past the first */
            a.op(BPF_LD | BPF_B | BPF_IND, 0);
            a.op(BPF_ST, 0);
            a.op(BPF_LD | BPF_B | BPF_IND, 1);
            a.op(BPF_ALU | BPF_ADD | BPF_K, 1);
            a.op(BPF_ALU | BPF_LSH | BPF_K, 3);
            a.op(BPF_ALU | BPF_ADD | BPF_X);
            a.bind(next);
            a.op(BPF_MISC | BPF_TAX);
            a.op(BPF_LD | BPF_MEM, 0);
        }
        a.ja(drop);
    }
    /* X = the transport header: either port in the DHCP pair */
    a.bind(ports);
    for (uint32_t off : {0u, 2u}) {
        const int other = a.label();
        a.op(BPF_LD | BPF_H | BPF_IND, off);
        a.jmp(BPF_JGE, p1, -1, other);
        a.jmp(BPF_JGT, p2, other);
        a.op(BPF_RET | BPF_K, 0xFFFF);
        a.bind(other);
    }
    a.bind(drop);
    a.op(BPF_RET | BPF_K, 0);
    return a.done();
}

namespace {

/* The tag protocols a port may carry: the usual three and any a port of
 * the configuration names. */
std::vector<uint16_t> accepted_tpids()
{
    std::vector<uint16_t> t = {ETH_P_8021Q, ETH_P_8021AD, 0x9100};
    for (auto &[idx, p] : sim_model().ports)
        if (p.tpid && std::find(t.begin(), t.end(), p.tpid) == t.end())
            t.push_back(p.tpid);
    return t;
}

int attach_filter(int fd, Family f)
{
    std::vector<sock_filter> code = linux_dhcp_filter(f == Family::V6, accepted_tpids());
    struct sock_fprog prog = {uint16_t(code.size()), code.data()};
    return setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &prog, sizeof prog);
}

int l_socket(int domain, int type, int protocol)
{
    if (domain == AF_PACKET && type == SOCK_RAW &&
        (protocol == htons(ETH_P_IP) || protocol == htons(ETH_P_IPV6))) {
        Family f = protocol == htons(ETH_P_IP) ? Family::V4 : Family::V6;
        int fd = socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL));
        if (fd < 0)
            return fd;
        int one = 1;
        if (fd >= MAX_FD || attach_filter(fd, f) < 0 ||
            setsockopt(fd, SOL_PACKET, PACKET_AUXDATA, &one, sizeof one) < 0) {
            int e = errno;
            close(fd);
            errno = e;
            return -1;
        }
        dataFamily[fd] = f;
        return fd;
    }
    int fd = socket(domain, type, protocol);
    if (fd >= 0 && fd < MAX_FD)
        netlinkFd[fd] = domain == AF_NETLINK;
    return fd;
}

int l_setsockopt(int fd, int level, int name, const void *value, socklen_t len)
{
    /* the packet information is made here from the auxiliary data */
    if (family_of(fd) != Family::None && level == SOL_PACKET_LEVEL && name == PACKET_INFO_OPTION)
        return 0;
    if (fd >= 0 && fd < MAX_FD && netlinkFd[fd] && level == SOL_NETLINK &&
        name == NETLINK_ADD_MEMBERSHIP && value && len >= sizeof(int)) {
        int group;
        memcpy(&group, value, sizeof group);
        /* link events are the stock kernel's link group; the platform's own
         * groups do not exist here and have nothing to deliver */
        if (group != RTNLGRP_LINK)
            return 0;
    }
    return setsockopt(fd, level, name, value, len);
}

/* The daemon's command socket path, moved where DHCPSNOOP_SOCKET says. */
const struct sockaddr *remap_unix(const struct sockaddr *addr, socklen_t len, struct sockaddr_un &tmp)
{
    if (!addr || addr->sa_family != AF_UNIX || len < sizeof(sa_family_t))
        return addr;
    const auto *un = reinterpret_cast<const struct sockaddr_un *>(addr);
    if (strncmp(un->sun_path, DHCPSNOOP_CMD_SOCKET_PATH, sizeof un->sun_path) != 0)
        return addr;
    memset(&tmp, 0, sizeof tmp);
    tmp.sun_family = AF_UNIX;
    strncpy(tmp.sun_path, linux_socket_path(), sizeof tmp.sun_path - 1);
    return reinterpret_cast<const struct sockaddr *>(&tmp);
}

int l_bind(int fd, const struct sockaddr *addr, socklen_t len)
{
    struct sockaddr_un tmp;
    return bind(fd, remap_unix(addr, len, tmp), len);
}

int l_unlink(const char *path)
{
    if (path && strcmp(path, DHCPSNOOP_CMD_SOCKET_PATH) == 0)
        path = linux_socket_path();
    return unlink(path);
}

int l_ioctl(int fd, unsigned long request, int *arg) { return ioctl(fd, request, arg); }

/* Write the packet-information message into the caller's control room. */
void put_packet_info(struct msghdr *msg, const LinuxRxInfo &info)
{
    uint8_t payload[PKTINFO_SIZE] = {0};
    memcpy(payload, &info.ingress, 4);
    memcpy(payload + 20, &info.outerVid, 2);
    memcpy(payload + 22, &info.innerVid, 2);
    payload[24] = info.l2HdrLen;
    if (!msg->msg_control || msg->msg_controllen < CMSG_SPACE(sizeof payload)) {
        msg->msg_flags |= MSG_CTRUNC;
        msg->msg_controllen = 0;
        return;
    }
    struct cmsghdr *c = CMSG_FIRSTHDR(msg);
    c->cmsg_level = SOL_PACKET_LEVEL;
    c->cmsg_type = 0;
    c->cmsg_len = CMSG_LEN(sizeof payload);
    memcpy(CMSG_DATA(c), payload, sizeof payload);
    msg->msg_controllen = CMSG_SPACE(sizeof payload);
}

/* Every frame queued on a data socket is read in one call per wake-up and
 * handed to the daemon one by one; select reports the socket readable while
 * frames it has not taken are left. */
constexpr int RX_BATCH = 32;
constexpr size_t RX_CONTROL = 256;

struct RxBatch {
    int fd = -1;
    int count = 0, next = 0;
    uint8_t frame[RX_BATCH][DHCPSNOOP_FRAME_MAX + 4];
    alignas(struct cmsghdr) uint8_t control[RX_BATCH][RX_CONTROL];
    struct sockaddr_ll ll[RX_BATCH];
    struct iovec iov[RX_BATCH];
    struct mmsghdr msgs[RX_BATCH];
};
RxBatch rxBatch[2]; /* one per family */

RxBatch &batch_of(int fd)
{
    RxBatch &b = rxBatch[family_of(fd) == Family::V4 ? 0 : 1];
    if (b.fd != fd) {
        b.fd = fd;
        b.count = b.next = 0;
    }
    return b;
}

bool batch_pending(int fd)
{
    if (family_of(fd) == Family::None)
        return false;
    const RxBatch &b = rxBatch[family_of(fd) == Family::V4 ? 0 : 1];
    return b.fd == fd && b.next < b.count;
}

/* Frames the daemon sends on the data sockets wait here and leave in one
 * call when the loop is about to wait, or when the queue is full. */
constexpr int TX_BATCH = 32;
struct TxQueue {
    int count = 0;
    int fd[TX_BATCH];
    uint8_t frame[TX_BATCH][DHCPSNOOP_FRAME_MAX + 4];
    struct sockaddr_ll addr[TX_BATCH];
    struct iovec iov[TX_BATCH];
    struct mmsghdr msgs[TX_BATCH];
};
TxQueue txQueue;

void flush_sends()
{
    TxQueue &q = txQueue;
    int at = 0;
    while (at < q.count) {
        int run = 1;
        while (at + run < q.count && q.fd[at + run] == q.fd[at])
            run++;
        int r = sendmmsg(q.fd[at], q.msgs + at, unsigned(run), 0);
        if (r <= 0) {
            /* that frame is lost, as a failed send of one frame would be */
            fprintf(stderr, "dhcpsnoopd: a frame to interface %d was not sent: %s\n",
                    q.addr[at].sll_ifindex, strerror(errno));
            r = 1;
        }
        at += r;
    }
    q.count = 0;
}

ssize_t l_sendto(int fd, const void *buf, size_t len, int flags, const struct sockaddr *addr,
                 socklen_t alen)
{
    if (family_of(fd) == Family::None || len > DHCPSNOOP_FRAME_MAX + 4 || !addr ||
        alen > sizeof(struct sockaddr_ll) || flags != 0)
        return sendto(fd, buf, len, flags, addr, alen);
    TxQueue &q = txQueue;
    if (q.count == TX_BATCH)
        flush_sends();
    int i = q.count++;
    q.fd[i] = fd;
    memcpy(q.frame[i], buf, len);
    memset(&q.addr[i], 0, sizeof q.addr[i]);
    memcpy(&q.addr[i], addr, alen);
    q.iov[i] = {q.frame[i], len};
    memset(&q.msgs[i], 0, sizeof q.msgs[i]);
    q.msgs[i].msg_hdr.msg_name = &q.addr[i];
    q.msgs[i].msg_hdr.msg_namelen = alen;
    q.msgs[i].msg_hdr.msg_iov = &q.iov[i];
    q.msgs[i].msg_hdr.msg_iovlen = 1;
    return ssize_t(len);
}

int l_select(int nfds, fd_set *rd, fd_set *wr, fd_set *ex, struct timeval *timeout)
{
    int pending = 0;
    fd_set ready;
    FD_ZERO(&ready);
    for (const RxBatch &b : rxBatch)
        if (rd && b.fd >= 0 && b.fd < nfds && FD_ISSET(b.fd, rd) && batch_pending(b.fd)) {
            FD_SET(b.fd, &ready);
            pending++;
        }
    if (!pending) {
        flush_sends();
        return select(nfds, rd, wr, ex, timeout);
    }
    /* frames already read: no need to ask the kernel or to wait */
    *rd = ready;
    if (wr)
        FD_ZERO(wr);
    if (ex)
        FD_ZERO(ex);
    return pending;
}

int l_close(int fd)
{
    if (family_of(fd) != Family::None) {
        flush_sends();
        batch_of(fd).fd = -1;
        dataFamily[fd] = Family::None;
    }
    if (fd >= 0 && fd < MAX_FD)
        netlinkFd[fd] = false;
    return close(fd);
}

/* Read what the kernel holds for a data socket into its batch; only a read
 * that select announced may wait for the first frame. */
int fill_batch(RxBatch &b, int flags, bool mayWait)
{
    for (int i = 0; i < RX_BATCH; i++) {
        b.iov[i] = {b.frame[i], DHCPSNOOP_FRAME_MAX};
        memset(&b.msgs[i], 0, sizeof b.msgs[i]);
        struct msghdr &m = b.msgs[i].msg_hdr;
        memset(&b.ll[i], 0, sizeof b.ll[i]);
        m.msg_name = &b.ll[i];
        m.msg_namelen = sizeof b.ll[i];
        m.msg_iov = &b.iov[i];
        m.msg_iovlen = 1;
        m.msg_control = b.control[i];
        m.msg_controllen = RX_CONTROL;
    }
    if (mayWait)
        flush_sends();
    b.count = b.next = 0;
    int n = recvmmsg(b.fd, b.msgs, RX_BATCH, flags | (mayWait ? MSG_WAITFORONE : MSG_DONTWAIT),
                     nullptr);
    if (n > 0)
        b.count = n;
    return n;
}

ssize_t l_recvmsg(int fd, struct msghdr *msg, int flags)
{
    if (family_of(fd) == Family::None)
        return recvmsg(fd, msg, flags);
    RxBatch &b = batch_of(fd);
    bool mayWait = b.next >= b.count;
    for (int skipped = 0; skipped < MAX_SKIPPED;) {
        if (b.next >= b.count) {
            int n = fill_batch(b, flags, mayWait);
            mayWait = false;
            if (n <= 0)
                return n;
        }
        int at = b.next++;
        ssize_t n = ssize_t(b.msgs[at].msg_len);
        if (n <= 0)
            return n;
        uint8_t *frame = b.frame[at];
        struct msghdr &m = b.msgs[at].msg_hdr;
        const struct sockaddr_ll &ll = b.ll[at];
        skipped++;
        if (ll.sll_pkttype == PACKET_OUTGOING)
            continue; /* our own transmissions, and the host's */
        uint32_t ingress = uint32_t(ll.sll_ifindex);
        auto port = sim_model().ports.find(ingress);
        if (port == sim_model().ports.end() || port->second.isVlanIf)
            continue; /* not a switch port */

        bool vlanValid = false, csumNotReady = false;
        uint16_t tci = 0, tpid = 0;
        for (struct cmsghdr *c = CMSG_FIRSTHDR(&m); c; c = CMSG_NXTHDR(&m, c)) {
            if (c->cmsg_level != SOL_PACKET || c->cmsg_type != PACKET_AUXDATA ||
                c->cmsg_len < CMSG_LEN(sizeof(struct tpacket_auxdata)))
                continue;
            struct tpacket_auxdata aux;
            memcpy(&aux, CMSG_DATA(c), sizeof aux);
            vlanValid = (aux.tp_status & TP_STATUS_VLAN_VALID) || aux.tp_vlan_tci != 0;
            csumNotReady = aux.tp_status & TP_STATUS_CSUMNOTREADY;
            tci = aux.tp_vlan_tci;
            tpid = (aux.tp_status & TP_STATUS_VLAN_TPID_VALID) ? aux.tp_vlan_tpid : 0;
        }
        uint16_t portTpid = port->second.tpid ? port->second.tpid : 0x8100;
        LinuxRxInfo info;
        uint32_t len = linux_adapt_frame(frame, uint32_t(n), sizeof b.frame[at], vlanValid, tci,
                                         tpid, csumNotReady, ingress, linux_port_pvid(ingress),
                                         portTpid, info);
        size_t room = msg->msg_iovlen ? msg->msg_iov[0].iov_len : 0;
        len = uint32_t(std::min<size_t>(len, room));
        memcpy(msg->msg_iov[0].iov_base, frame, len);
        msg->msg_flags = 0;
        if (msg->msg_name && msg->msg_namelen >= sizeof ll) {
            memcpy(msg->msg_name, &ll, sizeof ll);
            msg->msg_namelen = sizeof ll;
        }
        put_packet_info(msg, info);
        return ssize_t(len);
    }
    errno = EAGAIN;
    return -1;
}

ssize_t l_recvfrom(int fd, void *buf, size_t len, int flags, struct sockaddr *addr,
                   socklen_t *alen)
{
    ssize_t n = recvfrom(fd, buf, len, flags, addr, alen);
    if (n > 0 && fd >= 0 && fd < MAX_FD && netlinkFd[fd])
        linux_filter_netlink(static_cast<uint8_t *>(buf), size_t(n));
    return n;
}

time_t l_time(time_t *t) { return time(t); }
double l_difftime(time_t a, time_t b) { return difftime(a, b); }

const DhcpsnoopSysOps linux_ops = {
    l_socket, l_setsockopt, l_bind,    listen,     accept, l_unlink, l_close,
    l_ioctl,  l_select,     l_recvmsg, l_recvfrom, recv,   l_sendto, sendmsg,
    l_time,   l_difftime,   calloc,   free,
};

/* Internet checksum of a pseudo-header sum plus bytes. */
uint16_t fold(uint32_t sum, const uint8_t *p, size_t n)
{
    for (size_t i = 0; i + 1 < n; i += 2)
        sum += be16(p + i);
    if (n & 1)
        sum += uint32_t(p[n - 1]) << 8;
    while (sum >> 16)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return uint16_t(~sum);
}

void complete_udp_checksum(uint8_t *frame, uint32_t len, uint32_t l3)
{
    if (l3 + 1 > len)
        return;
    uint8_t *ip = frame + l3;
    uint32_t sum = 0;
    uint8_t *udp;
    if ((ip[0] >> 4) == 4) {
        uint32_t ihl = (ip[0] & 0x0F) * 4u;
        if (l3 + ihl + 8 > len || ip[9] != 17)
            return;
        udp = ip + ihl;
        for (int i = 12; i < 20; i += 2)
            sum += be16(ip + i);
    } else if ((ip[0] >> 4) == 6) {
        if (l3 + 48 > len || ip[6] != 17)
            return;
        udp = ip + 40;
        for (int i = 8; i < 40; i += 2)
            sum += be16(ip + i);
    } else {
        return;
    }
    uint32_t udpLen = be16(udp + 4);
    if (udpLen < 8 || size_t(udp - frame) + udpLen > len)
        return;
    sum += 17 + udpLen;
    put16(udp + 6, 0);
    uint16_t ck = fold(sum, udp, udpLen);
    put16(udp + 6, ck ? ck : 0xFFFF);
}

} // namespace

uint32_t linux_adapt_frame(uint8_t *frame, uint32_t len, uint32_t room, bool vlanValid,
                           uint16_t tci, uint16_t tpid, bool csumNotReady, uint32_t ingress,
                           uint16_t pvid, uint16_t portTpid, LinuxRxInfo &info)
{
    if (vlanValid && len >= 12 && len + 4 <= room) {
        memmove(frame + 16, frame + 12, len - 12);
        put16(frame + 12, tpid ? tpid : 0x8100);
        put16(frame + 14, tci);
        len += 4;
    }
    /* count the tags in front of the payload, at most two */
    uint32_t off = 12;
    uint16_t vids[2] = {0, 0};
    int tags = 0;
    while (tags < 2 && off + 4 <= len) {
        uint16_t t = be16(frame + off);
        if (t != 0x8100 && t != 0x88A8 && t != 0x9100 && t != portTpid)
            break;
        vids[tags++] = be16(frame + off + 2) & 0x0FFF;
        off += 4;
    }
    info.ingress = ingress;
    info.outerVid = tags ? vids[0] : pvid;
    info.innerVid = tags > 1 ? vids[1] : 0;
    info.l2HdrLen = uint8_t(off + 2);
    if (csumNotReady)
        complete_udp_checksum(frame, len, off + 2);
    return len;
}

void linux_filter_netlink(uint8_t *buf, size_t len)
{
    size_t off = 0;
    while (off + sizeof(struct nlmsghdr) <= len) {
        struct nlmsghdr h;
        memcpy(&h, buf + off, sizeof h);
        if (h.nlmsg_len < sizeof h || h.nlmsg_len > len - off)
            return;
        if (h.nlmsg_type == RTM_NEWLINK) {
            size_t a = off + 32; /* header and interface information */
            size_t end = off + h.nlmsg_len;
            while (a + 4 <= end) {
                uint16_t alen, atype;
                memcpy(&alen, buf + a, 2);
                memcpy(&atype, buf + a + 2, 2);
                if (alen < 4 || alen > end - a)
                    break;
                uint16_t t = atype & 0x3FFF;
                if (t == 38 || t == 49 || t == 52 || t == 53) {
                    uint16_t renamed = 0x3FFF;
                    memcpy(buf + a + 2, &renamed, 2);
                }
                a += (size_t(alen) + 3) & ~size_t(3);
            }
        }
        off += (size_t(h.nlmsg_len) + 3) & ~size_t(3);
    }
}

const DhcpsnoopSysOps *linux_sys_ops(void) { return &linux_ops; }

const char *linux_socket_path(void)
{
    const char *p = getenv("DHCPSNOOP_SOCKET");
    return p && *p ? p : LINUX_SOCKET_PATH;
}
