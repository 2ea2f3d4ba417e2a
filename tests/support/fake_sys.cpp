#include "fake_sys.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <sys/ioctl.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

FakeSys g_fake;

/* A served call as "recvmsg:data4" (the socket's kind, else its number). */
void note(const char *fn, int fd)
{
    static const char *const names[] = {"data4", "data6", "cmd", "netlink", "udp", "conn", "other"};
    FakeSock *s = g_fake.sock(fd);
    g_fake.calls.push_back(std::string(fn) + ":" + (s ? names[int(s->kind)] : std::to_string(fd)));
}

/* The socket, or EBADF. */
FakeSock *need(int fd)
{
    FakeSock *s = g_fake.sock(fd);
    if (!s)
        errno = EBADF;
    return s;
}

FakeKind kind_of(int fd)
{
    FakeSock *s = g_fake.sock(fd);
    return s ? s->kind : FakeKind::Other;
}

/* The failure argument of calls that fail by the socket's kind. */
long kind_arg(int fd) { return g_fake.sock(fd) ? long(kind_of(fd)) : -1; }

int new_sock(FakeKind kind, int protocol)
{
    FakeSock s;
    s.fd = g_fake.nextFd++;
    s.kind = kind;
    s.protocol = protocol;
    g_fake.socks[s.fd] = s;
    return s.fd;
}

int f_socket(int domain, int type, int protocol)
{
    if (g_fake.fail("socket", domain))
        return -1;
    FakeKind kind = FakeKind::Other;
    if (domain == AF_PACKET && protocol == htons(ETH_P_IP))
        kind = FakeKind::Data4;
    else if (domain == AF_PACKET && protocol == htons(ETH_P_IPV6))
        kind = FakeKind::Data6;
    else if (domain == AF_UNIX)
        kind = FakeKind::Cmd;
    else if (domain == AF_NETLINK)
        kind = FakeKind::Netlink;
    else if (domain == AF_INET && type == SOCK_DGRAM)
        kind = FakeKind::Udp;
    return new_sock(kind, protocol);
}

int f_setsockopt(int fd, int level, int name, const void *value, socklen_t len)
{
    int v = 0;
    if (value && len >= sizeof v)
        memcpy(&v, value, sizeof v);
    const bool join = level == 270 && name == NETLINK_ADD_MEMBERSHIP;
    FakeSock *s;
    if (g_fake.fail("setsockopt", join ? v : name) || !(s = need(fd)))
        return -1;
    if (join)
        s->groups.push_back(v);
    else
        s->options[{level, name}] = v;
    return 0;
}

int f_bind(int fd, const struct sockaddr *addr, socklen_t len)
{
    FakeSock *s;
    if (g_fake.fail("bind", kind_arg(fd)) || !(s = need(fd)))
        return -1;
    s->bound = true;
    s->bindLen = len;
    if (addr && addr->sa_family == AF_UNIX)
        s->boundPath = reinterpret_cast<const struct sockaddr_un *>(addr)->sun_path;
    return 0;
}

int f_listen(int fd, int backlog)
{
    FakeSock *s;
    if (g_fake.fail("listen", -1) || !(s = need(fd)))
        return -1;
    s->listening = true;
    s->backlog = backlog;
    return 0;
}

int f_accept(int fd, struct sockaddr *, socklen_t *)
{
    note("accept", fd);
    if (g_fake.fail("accept", -1))
        return -1;
    if (g_fake.pendingConns.empty()) {
        errno = EAGAIN;
        return -1;
    }
    int c = new_sock(FakeKind::Conn, 0);
    g_fake.conns[c] = g_fake.pendingConns.front();
    g_fake.pendingConns.pop_front();
    return c;
}

int f_unlink(const char *path)
{
    g_fake.unlinked.push_back(path ? path : "");
    return g_fake.fail("unlink", -1) ? -1 : 0;
}

int f_close(int fd)
{
    g_fake.closedFds.push_back(fd);
    FakeSock *s = need(fd);
    if (!s)
        return -1;
    s->closed = true;
    auto c = g_fake.conns.find(fd);
    if (c != g_fake.conns.end()) {
        c->second.closed = true;
        g_fake.finishedConns.push_back(c->second);
        g_fake.conns.erase(c);
    }
    return 0;
}

int f_ioctl(int fd, unsigned long request, int *arg)
{
    FakeSock *s;
    if (g_fake.fail("ioctl", -1) || !(s = need(fd)))
        return -1;
    if (request == FIONBIO && arg)
        s->nonblocking = *arg != 0;
    return 0;
}

bool readable(const FakeSock &s)
{
    switch (s.closed ? FakeKind::Other : s.kind) {
    case FakeKind::Data4:
        return !g_fake.frames4.empty();
    case FakeKind::Data6:
        return !g_fake.frames6.empty();
    case FakeKind::Cmd:
        return s.listening && !g_fake.pendingConns.empty();
    case FakeKind::Netlink:
        return !g_fake.netlink.empty();
    default:
        return false;
    }
}

int f_select(int nfds, fd_set *rd, fd_set *, fd_set *, struct timeval *tv)
{
    if (g_fake.selectResult)
        return *g_fake.selectResult;
    fd_set out;
    FD_ZERO(&out);
    int n = 0;
    for (auto &[fd, s] : g_fake.socks)
        if (fd < nfds && rd && FD_ISSET(fd, rd) && readable(s)) {
            FD_SET(fd, &out);
            n++;
        }
    if (rd)
        *rd = out;
    if (n == 0 && g_fake.selectAdvancesClock && tv)
        g_fake.now += tv->tv_sec;
    return n;
}

/* The packet-information message as the kernel writes it: only when the
 * caller's control room holds it (else it is cut); the used length is handed back. */
void deliver_control(struct msghdr *msg, const FakeFrame &f)
{
    if (f.rawControl) {
        size_t n = std::min(f.rawControl->size(), size_t(msg->msg_controllen));
        if (msg->msg_control)
            memcpy(msg->msg_control, f.rawControl->data(), n);
        msg->msg_controllen = n;
        return;
    }
    uint8_t payload[28] = {0};
    memcpy(payload, &f.ingress, 4);
    memcpy(payload + 20, &f.outerVid, 2);
    memcpy(payload + 22, &f.innerVid, 2);
    payload[24] = f.l2HdrLen;
    if (!f.withInfo || !msg->msg_control || msg->msg_controllen < CMSG_SPACE(sizeof payload)) {
        msg->msg_controllen = 0;
        return;
    }
    struct cmsghdr *c = CMSG_FIRSTHDR(msg);
    c->cmsg_level = 263;
    c->cmsg_type = 0;
    c->cmsg_len = CMSG_LEN(sizeof payload);
    memcpy(CMSG_DATA(c), payload, sizeof payload);
    msg->msg_controllen = CMSG_SPACE(sizeof payload);
}

ssize_t f_recvmsg(int fd, struct msghdr *msg, int)
{
    note("recvmsg", fd);
    if (g_fake.fail("recvmsg", kind_arg(fd)))
        return -1;
    const FakeKind kind = kind_of(fd);
    auto *q = kind == FakeKind::Data4   ? &g_fake.frames4
              : kind == FakeKind::Data6 ? &g_fake.frames6
                                        : nullptr;
    if (!q || q->empty()) {
        errno = EAGAIN;
        return -1;
    }
    FakeFrame f = q->front();
    q->pop_front();
    size_t n = std::min(msg->msg_iovlen ? msg->msg_iov[0].iov_len : 0, f.bytes.size());
    if (n)
        memcpy(msg->msg_iov[0].iov_base, f.bytes.data(), n);
    if (msg->msg_name && msg->msg_namelen >= sizeof(struct sockaddr_ll)) {
        struct sockaddr_ll ll {};
        ll.sll_family = AF_PACKET;
        ll.sll_ifindex = f.sllIfindex;
        memcpy(msg->msg_name, &ll, sizeof ll);
        msg->msg_namelen = sizeof ll;
    }
    deliver_control(msg, f);
    return f.result == -2 ? ssize_t(n) : f.result;
}

/* Up to `len` bytes of `from` into `buf`. */
size_t hand_over(void *buf, size_t len, const uint8_t *from, size_t have)
{
    size_t n = std::min(len, have);
    if (n)
        memcpy(buf, from, n);
    return n;
}

ssize_t f_recvfrom(int fd, void *buf, size_t len, int, struct sockaddr *, socklen_t *)
{
    note("recvfrom", fd);
    if (g_fake.fail("recvfrom", -1))
        return -1;
    if (kind_of(fd) != FakeKind::Netlink || g_fake.netlink.empty()) {
        errno = EAGAIN;
        return -1;
    }
    std::vector<uint8_t> d = g_fake.netlink.front();
    g_fake.netlink.pop_front();
    return ssize_t(hand_over(buf, len, d.data(), d.size()));
}

ssize_t f_recv(int fd, void *buf, size_t len, int)
{
    if (g_fake.fail("recv", -1))
        return -1;
    auto it = g_fake.conns.find(fd);
    if (it == g_fake.conns.end()) {
        errno = EBADF;
        return -1;
    }
    FakeConn &c = it->second;
    size_t n = hand_over(buf, c.chunk ? std::min(len, c.chunk) : len, c.input.data() + c.readPos,
                         c.input.size() - c.readPos);
    c.readPos += n;
    return ssize_t(n);
}

std::vector<uint8_t> bytes_of(const void *p, size_t n)
{
    auto *b = static_cast<const uint8_t *>(p);
    return p ? std::vector<uint8_t>(b, b + n) : std::vector<uint8_t>();
}

ssize_t f_sendto(int fd, const void *buf, size_t len, int, const struct sockaddr *addr,
                 socklen_t alen)
{
    if (g_fake.fail("sendto", kind_arg(fd)))
        return -1;
    g_fake.sent.push_back({fd, bytes_of(buf, len), bytes_of(addr, alen), {}});
    return ssize_t(len);
}

ssize_t f_sendmsg(int fd, const struct msghdr *msg, int)
{
    if (g_fake.fail("sendmsg", kind_arg(fd)))
        return -1;
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < msg->msg_iovlen; i++) {
        auto part = bytes_of(msg->msg_iov[i].iov_base, msg->msg_iov[i].iov_len);
        bytes.insert(bytes.end(), part.begin(), part.end());
    }
    auto c = g_fake.conns.find(fd);
    if (c != g_fake.conns.end())
        c->second.output.insert(c->second.output.end(), bytes.begin(), bytes.end());
    else
        g_fake.sent.push_back({fd, bytes, bytes_of(msg->msg_name, msg->msg_namelen),
                               bytes_of(msg->msg_control, msg->msg_controllen)});
    return ssize_t(bytes.size());
}

time_t f_time(time_t *t)
{
    if (t)
        *t = g_fake.now;
    return g_fake.now;
}

double f_difftime(time_t a, time_t b) { return difftime(a, b); }

void *f_calloc(size_t n, size_t size)
{
    void *p = g_fake.fail("calloc", -1) ? nullptr : calloc(n, size);
    if (p)
        g_fake.live.insert(p);
    return p;
}

void f_free(void *p)
{
    g_fake.live.erase(p);
    free(p);
}

const DhcpsnoopSysOps fake_ops = {
    f_socket,  f_setsockopt, f_bind, f_listen, f_accept,  f_unlink, f_close,    f_ioctl,  f_select,
    f_recvmsg, f_recvfrom,   f_recv, f_sendto, f_sendmsg, f_time,   f_difftime, f_calloc, f_free,
};

} // namespace

FakeSys &FakeSys::get() { return g_fake; }
void FakeSys::install() { dhcpsnoop_sys_set(&fake_ops); }
void FakeSys::uninstall() { dhcpsnoop_sys_set(nullptr); }

void FakeSys::reset()
{
    for (void *p : live)
        free(p);
    live.clear();
    *this = FakeSys();
}

void FakeSys::failCall(const std::string &fn, int nth, long arg, int err)
{
    fails.push_back({fn, nth, arg, err, 0});
}

int FakeSys::fail(const char *fn, long arg)
{
    for (auto &f : fails)
        if (f.fn == fn && (f.arg == -1 || f.arg == arg) && (++f.seen == f.nth || f.nth == 0)) {
            errno = f.err;
            return 1;
        }
    return 0;
}

int FakeSys::fdOf(FakeKind kind) const
{
    int fd = -1;
    for (auto &[n, s] : socks)
        if (s.kind == kind && !s.closed)
            fd = n;
    return fd;
}

size_t FakeSys::openCount() const
{
    size_t n = 0;
    for (auto &[fd, s] : socks)
        n += !s.closed;
    return n;
}

FakeSock *FakeSys::sock(int fd)
{
    auto it = socks.find(fd);
    return it == socks.end() ? nullptr : &it->second;
}
