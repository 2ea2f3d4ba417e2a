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

std::string call_name(const char *fn, int fd)
{
    auto it = g_fake.socks.find(fd);
    return std::string(fn) + ":" +
           (it == g_fake.socks.end() ? std::to_string(fd) : fake_kind_name(it->second.kind));
}

FakeKind kind_of(int domain, int type, int protocol)
{
    if (domain == AF_PACKET && protocol == htons(ETH_P_IP))
        return FakeKind::Data4;
    if (domain == AF_PACKET && protocol == htons(ETH_P_IPV6))
        return FakeKind::Data6;
    if (domain == AF_UNIX)
        return FakeKind::Cmd;
    if (domain == AF_NETLINK)
        return FakeKind::Netlink;
    if (domain == AF_INET && type == SOCK_DGRAM)
        return FakeKind::Udp;
    return FakeKind::Other;
}

int f_socket(int domain, int type, int protocol)
{
    if (g_fake.fail("socket", domain))
        return -1;
    FakeSock s;
    s.fd = g_fake.nextFd++;
    s.kind = kind_of(domain, type, protocol);
    s.domain = domain;
    s.type = type;
    s.protocol = protocol;
    g_fake.socks[s.fd] = s;
    g_fake.calls.push_back(call_name("socket", s.fd));
    return s.fd;
}

int f_setsockopt(int fd, int level, int name, const void *value, socklen_t len)
{
    int v = 0;
    if (value && len >= sizeof v)
        memcpy(&v, value, sizeof v);
    long arg = (level == 270 && name == NETLINK_ADD_MEMBERSHIP) ? v : name;
    if (g_fake.fail("setsockopt", arg))
        return -1;
    FakeSock *s = g_fake.sock(fd);
    if (!s) {
        errno = EBADF;
        return -1;
    }
    if (level == 270 && name == NETLINK_ADD_MEMBERSHIP)
        s->groups.push_back(v);
    else
        s->options[{level, name}] = v;
    return 0;
}

int f_bind(int fd, const struct sockaddr *addr, socklen_t len)
{
    FakeSock *s = g_fake.sock(fd);
    if (g_fake.fail("bind", s ? long(s->kind) : -1))
        return -1;
    if (!s) {
        errno = EBADF;
        return -1;
    }
    s->bound = true;
    s->bindLen = len;
    if (addr && addr->sa_family == AF_UNIX)
        s->boundPath = reinterpret_cast<const struct sockaddr_un *>(addr)->sun_path;
    return 0;
}

int f_listen(int fd, int backlog)
{
    if (g_fake.fail("listen", -1))
        return -1;
    FakeSock *s = g_fake.sock(fd);
    if (!s) {
        errno = EBADF;
        return -1;
    }
    s->listening = true;
    s->backlog = backlog;
    return 0;
}

int f_accept(int fd, struct sockaddr *, socklen_t *)
{
    g_fake.calls.push_back(call_name("accept", fd));
    if (g_fake.fail("accept", -1))
        return -1;
    if (g_fake.pendingConns.empty()) {
        errno = EAGAIN;
        return -1;
    }
    FakeSock s;
    s.fd = g_fake.nextFd++;
    s.kind = FakeKind::Conn;
    g_fake.socks[s.fd] = s;
    g_fake.conns[s.fd] = g_fake.pendingConns.front();
    g_fake.pendingConns.pop_front();
    return s.fd;
}

int f_unlink(const char *path)
{
    g_fake.unlinked.push_back(path ? path : "");
    return g_fake.fail("unlink", -1) ? -1 : 0;
}

int f_close(int fd)
{
    g_fake.closedFds.push_back(fd);
    FakeSock *s = g_fake.sock(fd);
    if (!s) {
        errno = EBADF;
        return -1;
    }
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
    if (g_fake.fail("ioctl", -1))
        return -1;
    FakeSock *s = g_fake.sock(fd);
    if (!s) {
        errno = EBADF;
        return -1;
    }
    if (request == FIONBIO && arg)
        s->nonblocking = *arg != 0;
    return 0;
}

bool readable(const FakeSock &s)
{
    if (s.closed)
        return false;
    switch (s.kind) {
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
    g_fake.selectCalls++;
    g_fake.calls.push_back("select");
    g_fake.lastNfds = nfds;
    if (rd)
        g_fake.lastReadSet = *rd;
    else
        FD_ZERO(&g_fake.lastReadSet);
    g_fake.lastTimeout = tv ? tv->tv_sec : -1;
    if (g_fake.selectResult)
        return *g_fake.selectResult;
    fd_set out;
    FD_ZERO(&out);
    int n = 0;
    for (auto &[fd, s] : g_fake.socks) {
        if (fd < nfds && rd && FD_ISSET(fd, rd) && readable(s)) {
            FD_SET(fd, &out);
            n++;
        }
    }
    if (rd)
        *rd = out;
    if (n == 0 && g_fake.selectAdvancesClock && tv)
        g_fake.now += tv->tv_sec;
    return n;
}

/* Write the packet-information message the way the kernel does: only when
 * the caller's control room holds it; the used length is handed back. */
void deliver_control(struct msghdr *msg, const FakeFrame &f)
{
    if (f.rawControl) {
        size_t n = std::min(f.rawControl->size(), size_t(msg->msg_controllen));
        if (msg->msg_control)
            memcpy(msg->msg_control, f.rawControl->data(), n);
        msg->msg_controllen = n;
        return;
    }
    if (!f.withInfo) {
        msg->msg_controllen = 0;
        return;
    }
    uint8_t payload[28] = {0};
    memcpy(payload, &f.ingress, 4);
    memcpy(payload + 20, &f.outerVid, 2);
    memcpy(payload + 22, &f.innerVid, 2);
    payload[24] = f.l2HdrLen;
    if (!msg->msg_control || msg->msg_controllen < CMSG_SPACE(sizeof payload)) {
        msg->msg_flags |= MSG_CTRUNC;
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
    g_fake.calls.push_back(call_name("recvmsg", fd));
    FakeSock *s = g_fake.sock(fd);
    if (g_fake.fail("recvmsg", s ? long(s->kind) : -1))
        return -1;
    std::deque<FakeFrame> *q = nullptr;
    if (s && s->kind == FakeKind::Data4)
        q = &g_fake.frames4;
    else if (s && s->kind == FakeKind::Data6)
        q = &g_fake.frames6;
    if (!q || q->empty()) {
        errno = EAGAIN;
        return -1;
    }
    FakeFrame f = q->front();
    q->pop_front();
    size_t room = msg->msg_iovlen ? msg->msg_iov[0].iov_len : 0;
    size_t n = std::min(room, f.bytes.size());
    if (n)
        memcpy(msg->msg_iov[0].iov_base, f.bytes.data(), n);
    msg->msg_flags = 0;
    if (msg->msg_name && msg->msg_namelen >= sizeof(struct sockaddr_ll)) {
        struct sockaddr_ll ll;
        memset(&ll, 0, sizeof ll);
        ll.sll_family = AF_PACKET;
        ll.sll_ifindex = f.sllIfindex;
        memcpy(msg->msg_name, &ll, sizeof ll);
        msg->msg_namelen = sizeof ll;
    }
    deliver_control(msg, f);
    return f.result == -2 ? ssize_t(n) : f.result;
}

ssize_t f_recvfrom(int fd, void *buf, size_t len, int, struct sockaddr *, socklen_t *)
{
    g_fake.calls.push_back(call_name("recvfrom", fd));
    if (g_fake.fail("recvfrom", -1))
        return -1;
    FakeSock *s = g_fake.sock(fd);
    if (!s || s->kind != FakeKind::Netlink || g_fake.netlink.empty()) {
        errno = EAGAIN;
        return -1;
    }
    std::vector<uint8_t> d = g_fake.netlink.front();
    g_fake.netlink.pop_front();
    size_t n = std::min(len, d.size());
    if (n)
        memcpy(buf, d.data(), n);
    return ssize_t(n);
}

ssize_t f_recv(int fd, void *buf, size_t len, int)
{
    g_fake.calls.push_back(call_name("recv", fd));
    if (g_fake.fail("recv", -1))
        return -1;
    auto it = g_fake.conns.find(fd);
    if (it == g_fake.conns.end()) {
        errno = EBADF;
        return -1;
    }
    FakeConn &c = it->second;
    size_t n = std::min(len, c.input.size() - c.readPos);
    if (c.chunk)
        n = std::min(n, c.chunk);
    if (n)
        memcpy(buf, c.input.data() + c.readPos, n);
    c.readPos += n;
    return ssize_t(n);
}

ssize_t f_sendto(int fd, const void *buf, size_t len, int, const struct sockaddr *addr,
                 socklen_t alen)
{
    g_fake.calls.push_back(call_name("sendto", fd));
    FakeSock *s = g_fake.sock(fd);
    if (g_fake.fail("sendto", s ? long(s->kind) : -1))
        return -1;
    FakeSent sent{fd, s ? s->kind : FakeKind::Other, {}, {}, {}};
    sent.bytes.assign(static_cast<const uint8_t *>(buf), static_cast<const uint8_t *>(buf) + len);
    if (addr)
        sent.addr.assign(reinterpret_cast<const uint8_t *>(addr),
                         reinterpret_cast<const uint8_t *>(addr) + alen);
    g_fake.sent.push_back(sent);
    return ssize_t(len);
}

ssize_t f_sendmsg(int fd, const struct msghdr *msg, int)
{
    g_fake.calls.push_back(call_name("sendmsg", fd));
    FakeSock *s = g_fake.sock(fd);
    if (g_fake.fail("sendmsg", s ? long(s->kind) : -1))
        return -1;
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < msg->msg_iovlen; i++) {
        auto *b = static_cast<const uint8_t *>(msg->msg_iov[i].iov_base);
        bytes.insert(bytes.end(), b, b + msg->msg_iov[i].iov_len);
    }
    auto c = g_fake.conns.find(fd);
    if (c != g_fake.conns.end()) {
        c->second.output.insert(c->second.output.end(), bytes.begin(), bytes.end());
        return ssize_t(bytes.size());
    }
    FakeSent sent{fd, s ? s->kind : FakeKind::Other, bytes, {}, {}};
    if (msg->msg_name)
        sent.addr.assign(static_cast<const uint8_t *>(msg->msg_name),
                         static_cast<const uint8_t *>(msg->msg_name) + msg->msg_namelen);
    if (msg->msg_control)
        sent.control.assign(static_cast<const uint8_t *>(msg->msg_control),
                            static_cast<const uint8_t *>(msg->msg_control) + msg->msg_controllen);
    g_fake.sent.push_back(sent);
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
    if (g_fake.fail("calloc", -1))
        return nullptr;
    void *p = calloc(n, size);
    if (p) {
        g_fake.live.insert(p);
        g_fake.allocations++;
    }
    return p;
}

void f_free(void *p)
{
    g_fake.live.erase(p);
    free(p);
}

const DhcpsnoopSysOps fake_ops = {
    f_socket, f_setsockopt, f_bind,     f_listen, f_accept,  f_unlink,   f_close,
    f_ioctl,  f_select,     f_recvmsg,  f_recvfrom, f_recv,  f_sendto,   f_sendmsg,
    f_time,   f_difftime,   f_calloc,   f_free,
};

} // namespace

const char *fake_kind_name(FakeKind k)
{
    switch (k) {
    case FakeKind::Data4:
        return "data4";
    case FakeKind::Data6:
        return "data6";
    case FakeKind::Cmd:
        return "cmd";
    case FakeKind::Netlink:
        return "netlink";
    case FakeKind::Udp:
        return "udp";
    case FakeKind::Conn:
        return "conn";
    default:
        return "other";
    }
}

FakeSys &FakeSys::get() { return g_fake; }

void FakeSys::install() { dhcpsnoop_sys_set(&fake_ops); }
void FakeSys::uninstall() { dhcpsnoop_sys_set(nullptr); }

void FakeSys::reset()
{
    for (void *p : live)
        free(p);
    live.clear();
    *this = FakeSys();
    FD_ZERO(&lastReadSet);
}

void FakeSys::failCall(const std::string &fn, int nth, long arg, int err)
{
    fails.push_back({fn, nth, arg, err, 0});
}

int FakeSys::fail(const char *fn, long arg)
{
    for (auto &f : fails) {
        if (f.fn != fn || (f.arg != -1 && f.arg != arg))
            continue;
        f.seen++;
        if (f.nth == 0 || f.seen == f.nth) {
            errno = f.err;
            return 1;
        }
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
        if (!s.closed)
            n++;
    return n;
}

FakeSock *FakeSys::sock(int fd)
{
    auto it = socks.find(fd);
    return it == socks.end() ? nullptr : &it->second;
}
