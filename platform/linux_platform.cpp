/*
 * The switch model filled from a stock Linux host, and its effects carried
 * out on the host: DHCP kept from the kernel's forwarding with nftables, the
 * hardware binding records written to a state file, binding log lines sent to
 * syslog, and sync buffers carried to the peer daemon's command socket.
 */
#include "linux_platform.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <grp.h>
#include <net/if.h>
#include <poll.h>
#include <stddef.h>
#include <stdlib.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <sstream>

#include "dhcpsnoop.h"
#include "dhcpsnoop_adr.h"
#include "dhcpsnoop_user.h"
#include "linux_nft.h"
#include "dhcpsnoop_platform.h"
#include "peer_transport.h"
#include "switch_model.h"

namespace {

LinuxConfig g_config;
std::map<uint32_t, uint16_t> g_pvid;

/* Every item, empty ones included: "10,,20" has an empty item. */
std::vector<std::string> split(const std::string &s, char sep)
{
    std::vector<std::string> out;
    size_t start = 0;
    for (size_t at; (at = s.find(sep, start)) != std::string::npos; start = at + 1)
        out.push_back(s.substr(start, at - start));
    out.push_back(s.substr(start));
    return out;
}

/* Decimal digits (a leading zero does not make octal), or hexadecimal
 * written with 0x. */
bool parse_num(const std::string &s, unsigned long max, unsigned long &out)
{
    bool hex = s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X');
    const std::string digits = hex ? s.substr(2) : s;
    if (digits.empty() || digits.size() > 10 ||
        digits.find_first_not_of(hex ? "0123456789abcdefABCDEF" : "0123456789") !=
            std::string::npos)
        return false;
    out = strtoul(digits.c_str(), nullptr, hex ? 16 : 10);
    return out <= max;
}

bool parse_vid(const std::string &s, uint16_t &vid)
{
    unsigned long v;
    if (!parse_num(s, 4094, v) || v == 0)
        return false;
    vid = uint16_t(v);
    return true;
}

/* The state file is replaced through a temporary beside it: its directory
 * must exist (or be made) and take new files. */
bool state_writable(const std::string &path)
{
    size_t slash = path.find_last_of('/');
    std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST)
        return false;
    return access(dir.c_str(), W_OK) == 0;
}

/* ---- the command socket ---- */

DhcpsnoopSysOps g_ops;
const DhcpsnoopSysOps *g_inner;
volatile sig_atomic_t g_stop;
bool g_socketInUse;

void on_stop_signal(int) { g_stop = 1; }

bool is_command_socket(const struct sockaddr *addr)
{
    const auto *un = reinterpret_cast<const struct sockaddr_un *>(addr);
    return addr && addr->sa_family == AF_UNIX &&
           strncmp(un->sun_path, DHCPSNOOP_CMD_SOCKET_PATH, sizeof un->sun_path) == 0;
}

/* Someone answers on the socket: a daemon lives there. */
bool socket_live(const char *path)
{
    struct sockaddr_un un;
    memset(&un, 0, sizeof un);
    un.sun_family = AF_UNIX;
    strncpy(un.sun_path, path, sizeof un.sun_path - 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    bool live = connect(fd, reinterpret_cast<struct sockaddr *>(&un), sizeof un) == 0 ||
                errno == EAGAIN;
    close(fd);
    return live;
}

/* A live daemon's socket is never taken over; a dead one's is replaced. */
int guarded_unlink(const char *path)
{
    if (path && strcmp(path, DHCPSNOOP_CMD_SOCKET_PATH) == 0 && socket_live(linux_socket_path())) {
        g_socketInUse = true;
        errno = EADDRINUSE;
        return -1;
    }
    return g_inner->unlink(path);
}

/* The command socket is made 0660, owned by root and the configured group,
 * from the moment it exists; the default one lives in a root-owned
 * directory made for it. */
int guarded_bind(int fd, const struct sockaddr *addr, socklen_t len)
{
    if (!is_command_socket(addr))
        return g_inner->bind(fd, addr, len);
    const char *path = linux_socket_path();
    if (strcmp(path, LINUX_SOCKET_PATH) == 0 && mkdir(LINUX_RUNTIME_DIR, 0755) == 0)
        chown(LINUX_RUNTIME_DIR, 0, 0);
    mode_t old = umask(0117);
    int rc = g_inner->bind(fd, addr, len);
    int e = errno;
    umask(old);
    if (rc == 0 && (chown(path, 0, g_config.socketGid) != 0 || chmod(path, 0660) != 0))
        fprintf(stderr, "dhcpsnoopd: %s: cannot give it to group %s: %s\n", path,
                g_config.socketGroup.c_str(), strerror(errno));
    errno = e;
    return rc;
}

/* Many front ends at once (scripts) wait in the queue rather than fail. */
int roomy_listen(int fd, int backlog)
{
    return g_inner->listen(fd, fd == gDhcpsnoop.cmdSock ? std::max(backlog, SOMAXCONN) : backlog);
}

/* Root, or a process with the socket's group among its groups. */
bool peer_allowed(int fd)
{
    struct ucred cred;
    socklen_t len = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0)
        return false;
    if (cred.uid == 0 || cred.gid == g_config.socketGid)
        return true;
    gid_t groups[256];
    len = sizeof groups;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups, &len) != 0)
        return false;
    for (size_t i = 0; i < len / sizeof(gid_t); i++)
        if (groups[i] == g_config.socketGid)
            return true;
    return false;
}

int guarded_accept(int fd, struct sockaddr *addr, socklen_t *len)
{
    int c = g_inner->accept(fd, addr, len);
    if (c < 0 || fd != gDhcpsnoop.cmdSock || peer_allowed(c))
        return c;
    const uint32_t denied = LINUX_REPLY_DENIED;
    send(c, &denied, sizeof denied, MSG_NOSIGNAL | MSG_DONTWAIT);
    close(c);
    errno = EACCES;
    return -1;
}

/* A stop signal ends the wait as a time-out would, so the loop looks at
 * nothing and its caller sees the request. */
int interruptible_select(int n, fd_set *rd, fd_set *wr, fd_set *ex, struct timeval *tv)
{
    if (g_stop)
        return 0;
    int rc = g_inner->select(n, rd, wr, ex, tv);
    if (rc < 0 && errno == EINTR) {
        for (fd_set *set : {rd, wr, ex})
            if (set)
                FD_ZERO(set);
        return 0;
    }
    return rc;
}

/* ---- effects on the host ---- */

/* DHCP kept from the kernel's forwarding on a port: the port's chain in the
 * daemon's nftables table drops it after the daemon's packet sockets have
 * it, and the daemon forwards it. */
int host_trap(uint32_t ifIndex, uint32_t cmd, uint32_t word)
{
    if (!g_config.nftables)
        return 0;
    return linux_nft_trap(ifIndex, word, cmd == 305);
}

/* ---- the hardware state file ----
 *
 * Every record handed to "hardware" is one line of the state file, updated in
 * place: the lines have a fixed width, so a change is one write at a known
 * offset whatever the number of bindings.  A binding's address on a port owns
 * a slot of three lines, one per rule kind (IP source guard, ARP inspection,
 * neither); a line not in use is blank.  The slots and their hash chains are
 * allocated once, from the binding pool's size. */

constexpr size_t HW_LINE = 96;           /* bytes per line, newline included */
constexpr uint32_t HW_KINDS = 3;         /* lines per slot */
constexpr uint32_t HW_SPARE_SLOTS = 64;  /* a binding may move before its old record goes */
constexpr uint32_t HW_OP_ADD = 0x3E800DF;

struct HwSlot {
    uint8_t addr[16];
    uint32_t ifIndex;
    uint32_t next : 24; /* next slot + 1 in the hash chain or the free list; 0 ends it */
    uint32_t ipType : 2;
    uint32_t kinds : 3; /* which of the slot's lines are in use */
};
static_assert(sizeof(HwSlot) == 24, "a hardware state slot is 24 bytes");

/* Allocated zeroed and never written ahead of use, so the pages a slot sits
 * on count toward the daemon's memory only once a binding reaches it. */
struct Calloced {
    void operator()(void *p) const { free(p); }
};
struct HwState {
    int fd = -1;
    std::unique_ptr<HwSlot[], Calloced> slots;
    uint32_t slotCount = 0, slotsUsed = 0; /* slots past slotsUsed were never taken */
    std::unique_ptr<uint32_t[], Calloced> heads; /* slot + 1, 0 = empty chain */
    uint32_t headCount = 0;                      /* a power of two */
    uint32_t freeList = 0;                       /* slot + 1 */
    bool warnedFull = false;
};
HwState g_hw;

uint32_t hw_kind(uint8_t ruleFlags) { return ruleFlags & 0x80 ? 0 : ruleFlags & 0x40 ? 1 : 2; }

uint32_t hw_hash(uint32_t ifIndex, uint8_t ipType, const uint8_t *addr)
{
    uint32_t h = 2166136261u ^ ifIndex ^ (uint32_t(ipType) << 24);
    for (int i = 0; i < 16; i++)
        h = (h ^ addr[i]) * 16777619u;
    return h ^ (h >> 15);
}

void hw_write_line(uint32_t line, const char *text)
{
    char buf[HW_LINE];
    memset(buf, ' ', sizeof buf);
    if (text)
        memcpy(buf, text, std::min(strlen(text), HW_LINE - 1));
    buf[HW_LINE - 1] = '\n';
    if (pwrite(g_hw.fd, buf, sizeof buf, off_t(line) * off_t(HW_LINE)) != ssize_t(sizeof buf))
        fprintf(stderr, "dhcpsnoopd: hardware state: %s\n", strerror(errno));
}

/* The line of a record: port ip mac vlan rules. */
void hw_format(uint32_t ifIndex, const uint8_t *r, char *out, size_t size)
{
    char ip[INET6_ADDRSTRLEN] = "-";
    if (r[39] == 0x20)
        inet_ntop(AF_INET, &r[16], ip, sizeof ip);
    else if (r[39] == 0x80)
        inet_ntop(AF_INET6, &r[16], ip, sizeof ip);
    char name[IF_NAMESIZE] = {0};
    auto port = sim_model().ports.find(ifIndex);
    if (port != sim_model().ports.end() && !port->second.name.empty())
        snprintf(name, sizeof name, "%s", port->second.name.c_str());
    else
        snprintf(name, sizeof name, "%u", ifIndex);
    uint16_t vid;
    memcpy(&vid, &r[6], 2);
    snprintf(out, size, "%s %s %02x:%02x:%02x:%02x:%02x:%02x %u %s%s", name, ip, r[0], r[1], r[2],
             r[3], r[4], r[5], vid, (r[37] & 0x80) ? "ipsg" : "", (r[37] & 0x40) ? " dai" : "");
}

void host_hardware(uint32_t ifIndex, uint32_t op, const uint8_t *rec)
{
    linux_hw_state_update(ifIndex, op, rec);
}

/* Under systemd (it sets INVOCATION_ID for every service it starts, and
 * JOURNAL_STREAM when standard output goes to the journal) the syslog line
 * reaches the journal already; a copy on standard output would show twice. */
bool under_service_manager()
{
    return getenv("INVOCATION_ID") || getenv("JOURNAL_STREAM");
}

void host_log(std::string_view line)
{
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.remove_suffix(1);
    syslog(LOG_INFO, "%.*s", int(line.size()), line.data());
    if (under_service_manager())
        return;
    printf("%.*s\n", int(line.size()), line.data());
    fflush(stdout);
}

/* Tell the service manager that the daemon is ready (the plain notify
 * socket protocol: one datagram to NOTIFY_SOCKET; '@' names an abstract
 * socket).  Nothing happens when no service manager asked for it. */
void notify_ready()
{
    const char *path = getenv("NOTIFY_SOCKET");
    if (!path || (path[0] != '/' && path[0] != '@') || strlen(path) >= sizeof(sockaddr_un::sun_path))
        return;
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path, strlen(path));
    if (path[0] == '@')
        addr.sun_path[0] = '\0';
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return;
    char msg[64];
    int n = snprintf(msg, sizeof msg, "READY=1\nMAINPID=%d", int(getpid()));
    sendto(fd, msg, size_t(n), MSG_NOSIGNAL, reinterpret_cast<struct sockaddr *>(&addr),
           socklen_t(offsetof(struct sockaddr_un, sun_path) + strlen(path)));
    close(fd);
}

/* Sync buffers go to the peer daemon's command socket. */
int peer_transport(uint32_t code, void *data, uint32_t)
{
    if (code != 0x40013 || g_config.peer.empty() || !data)
        return 0;
    return dhcpsnoop_peer_send(g_config.peer.c_str(), static_cast<const QorTextPair *>(data));
}

bool kernel_mac(const char *name, std::array<uint8_t, 6> &mac)
{
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0)
        return false;
    struct ifreq ifr;
    memset(&ifr, 0, sizeof ifr);
    strncpy(ifr.ifr_name, name, IFNAMSIZ - 1);
    bool ok = ioctl(fd, SIOCGIFHWADDR, &ifr) == 0;
    close(fd);
    if (ok)
        memcpy(mac.data(), ifr.ifr_hwaddr.sa_data, 6);
    return ok;
}

} // namespace

int linux_config_parse(const std::string &text, LinuxConfig &out, std::string &error)
{
    out = LinuxConfig();
    std::istringstream in(text);
    std::string line;
    int lineNo = 0;
    auto fail = [&](const std::string &why) {
        error = "line " + std::to_string(lineNo) + ": " + why;
        return -1;
    };
    while (std::getline(in, line)) {
        lineNo++;
        size_t hash = line.find('#');
        if (hash != std::string::npos)
            line.resize(hash);
        std::vector<std::string> w;
        std::istringstream words(line);
        for (std::string x; words >> x;)
            w.push_back(x);
        if (w.empty())
            continue;
        const std::string &kw = w[0];
        if (kw == "port") {
            if (w.size() < 2)
                return fail("port needs a name");
            LinuxPortConfig p;
            p.name = w[1];
            if (p.name.size() >= IF_NAMESIZE)
                return fail("port name too long: " + p.name);
            for (size_t i = 2; i < w.size(); i++) {
                unsigned long v;
                if (w[i] == "pvid" && i + 1 < w.size()) {
                    if (!parse_vid(w[++i], p.pvid))
                        return fail("bad pvid " + w[i]);
                } else if (w[i] == "tagged") {
                    p.tagged = true;
                } else if (w[i] == "untagged") {
                    p.tagged = false;
                } else if (w[i] == "router") {
                    p.router = true;
                } else if (w[i] == "bridge") {
                    p.router = false;
                } else if (w[i] == "excluded") {
                    p.excluded = true;
                } else if (w[i] == "max-users" && i + 1 < w.size()) {
                    if (!parse_num(w[++i], 0xFFFF, v) || v == 0)
                        return fail("bad max-users " + w[i]);
                    p.maxUsers = uint16_t(v);
                } else if (w[i] == "tpid" && i + 1 < w.size()) {
                    if (!parse_num(w[++i], 0xFFFF, v) || v == 0)
                        return fail("bad tpid " + w[i]);
                    p.tpid = uint16_t(v);
                } else if (w[i] == "vlans" && i + 1 < w.size()) {
                    for (auto &x : split(w[++i], ',')) {
                        uint16_t vid;
                        if (x.empty())
                            return fail("empty item in vlans " + w[i]);
                        if (!parse_vid(x, vid))
                            return fail("bad vlan " + x);
                        p.vlans.push_back(vid);
                    }
                } else {
                    return fail("unknown port setting " + w[i]);
                }
            }
            for (auto &q : out.ports)
                if (q.name == p.name)
                    return fail("port " + p.name + " is already declared");
            out.ports.push_back(p);
        } else if (kw == "vlan") {
            uint16_t vid;
            if (w.size() < 3 || !parse_vid(w[1], vid) || w[2] != "interface" || w.size() > 4)
                return fail("expected: vlan VID interface [NAME]");
            out.vlanInterfaces[vid] = w.size() == 4 ? w[3] : "vlan" + w[1];
        } else if (kw == "role") {
            if (w.size() != 2 || (w[1] != "none" && w[1] != "master" && w[1] != "slave"))
                return fail("role is none, master or slave");
            out.role = w[1];
        } else if (kw == "peer") {
            if (w.size() != 2)
                return fail("peer needs a socket path");
            out.peer = w[1];
        } else if (kw == "ipsg" || kw == "dai") {
            unsigned long v;
            if (w.size() != 4 || w[2] != "items" || !parse_num(w[3], 0xFF, v))
                return fail("expected: " + kw + " PORT|vlanVID items 0xHH");
            LinuxFeatureConfig f;
            f.items = uint8_t(v);
            if (w[1].rfind("vlan", 0) == 0 && parse_vid(w[1].substr(4), f.vlan))
                ;
            else
                f.port = w[1];
            f.line = lineNo;
            (kw == "ipsg" ? out.ipsg : out.dai).push_back(f);
        } else if (kw == "hostname") {
            if (w.size() != 2)
                return fail("hostname needs a name");
            out.hostname = w[1];
        } else if (kw == "hardware-state") {
            if (w.size() != 2)
                return fail("hardware-state needs a path");
            out.hardwareState = w[1];
            if (!state_writable(out.hardwareState))
                return fail("hardware-state " + w[1] + " cannot be written: " + strerror(errno));
        } else if (kw == "trap") {
            if (w.size() != 2 || (w[1] != "nftables" && w[1] != "none"))
                return fail("trap is nftables or none");
            out.nftables = w[1] == "nftables";
        } else if (kw == "binding-guard") {
            if (w.size() != 2 || (w[1] != "on" && w[1] != "off"))
                return fail("binding-guard is on or off");
            out.bindingGuard = w[1] == "on";
        } else if (kw == "socket-group") {
            if (w.size() != 2)
                return fail("socket-group needs a group name");
            struct group *g = getgrnam(w[1].c_str());
            if (!g)
                return fail("no group " + w[1]);
            out.socketGroup = w[1];
            out.socketGid = g->gr_gid;
        } else {
            return fail("unknown statement " + kw);
        }
    }
    /* the features name ports, which may be declared anywhere in the file */
    for (auto *list : {&out.ipsg, &out.dai}) {
        for (auto &f : *list) {
            bool known = f.port.empty();
            for (auto &p : out.ports)
                known = known || p.name == f.port;
            if (!known) {
                lineNo = f.line;
                return fail(std::string(list == &out.ipsg ? "ipsg" : "dai") + " on " + f.port +
                            ", which is not a declared port");
            }
        }
    }
    return 0;
}

uint16_t linux_port_pvid(uint32_t ifIndex)
{
    auto it = g_pvid.find(ifIndex);
    return it == g_pvid.end() ? 1 : it->second;
}

int linux_args_check(int argc, char **argv, std::string &error)
{
    static const char *const what[] = {"", "the interface pool size", "the binding pool size",
                                       "the source-guard switch", "the ARP-inspection switch",
                                       "the auto-provisioning switch"};
    if (argc > 6) {
        error = "at most five arguments";
        return -1;
    }
    for (int i = 1; i < argc; i++) {
        unsigned long v;
        const unsigned long max = i <= 2 ? 0xFFFF : 1;
        if (!argv[i] || !parse_num(argv[i], max, v) || (argv[i][0] == '0' && argv[i][1] == 'x')) {
            error = std::string("argument ") + std::to_string(i) + " (" + what[i] + ") must be " +
                    (max == 1 ? "0 or 1" : "a number from 0 to 65535") + ", not '" +
                    (argv[i] ? argv[i] : "") + "'";
            return -1;
        }
    }
    return 0;
}

int linux_platform_init(void)
{
    const char *path = getenv("DHCPSNOOP_CONFIG");
    if (!path || !*path)
        path = "/etc/dhcpsnoop.conf";
    openlog("dhcpsnoopd", LOG_PID, LOG_DAEMON);
    std::string error;
    if (access(path, F_OK) == 0) {
        std::ifstream file(path);
        if (!file) {
            fprintf(stderr, "dhcpsnoopd: %s: %s\n", path, strerror(errno));
            return -1;
        }
        std::stringstream text;
        text << file.rdbuf();
        if (linux_config_parse(text.str(), g_config, error) != 0) {
            fprintf(stderr, "dhcpsnoopd: %s: %s\n", path, error.c_str());
            return -1;
        }
    } else {
        /* no configuration: every interface but loopback (and the bridges
         * that join ports, which are no ports themselves) is an access port */
        host_log(std::string("no configuration file ") + path + ": every interface but lo is a port");
        g_config = LinuxConfig();
    }
    if (g_config.ports.empty()) {
        /* no ports configured (the installed file names none): every
         * interface but loopback is an access port */
        struct if_nameindex *all = if_nameindex();
        for (struct if_nameindex *i = all; i && i->if_index; i++) {
            std::string bridge = std::string("/sys/class/net/") + i->if_name + "/bridge";
            if (strcmp(i->if_name, "lo") == 0 || access(bridge.c_str(), F_OK) == 0)
                continue;
            LinuxPortConfig p;
            p.name = i->if_name;
            g_config.ports.push_back(p);
        }
        if (all)
            if_freenameindex(all);
    }

    SwitchModel &m = sim_model();
    m.reset();
    m.record = false;
    m.echoDebug = true;
    for (auto &p : g_config.ports) {
        uint32_t idx = if_nametoindex(p.name.c_str());
        if (idx == 0) {
            fprintf(stderr, "dhcpsnoopd: no interface %s on this host\n", p.name.c_str());
            return -1;
        }
        SimPort &sp = m.addPort(idx, p.name);
        kernel_mac(p.name.c_str(), sp.mac);
        sp.routerMode = p.router;
        sp.tpid = p.tpid == 0x8100 ? 0 : p.tpid;
        sp.untagged = p.tagged ? 0 : 1;
        sp.excluded = p.excluded ? 1 : 0;
        sp.location = {1, 0, idx & 0xFF, 0, 0, 0, 1};
        g_pvid[idx] = p.pvid;
        m.vlanMembers[p.pvid].push_back(idx);
        for (uint16_t v : p.vlans)
            if (v != p.pvid)
                m.vlanMembers[v].push_back(idx);
    }
    for (auto &[vid, name] : g_config.vlanInterfaces)
        m.addVlanIf(LINUX_VLAN_IF_BASE + vid, vid, name);

    if (g_config.role == "master") {
        m.hwScalars[53] = 0;
    } else if (g_config.role == "slave") {
        m.hwScalars[53] = 1;
        m.hwScalars[54] = 0;
    } else {
        m.hwScalars[53] = 1;
        m.hwScalars[54] = 1;
    }
    auto feature = [&](const std::vector<LinuxFeatureConfig> &list,
                       std::map<uint32_t, SimHookAnswer> &answers) {
        for (auto &f : list) {
            uint32_t idx = f.port.empty() ? LINUX_VLAN_IF_BASE + f.vlan : if_nametoindex(f.port.c_str());
            if (idx)
                answers[idx] = SimHookAnswer{0, 1, f.items};
        }
    };
    feature(g_config.ipsg, m.ipsg);
    feature(g_config.dai, m.dai);
    if (!g_config.hostname.empty()) {
        m.hostname = g_config.hostname;
    } else {
        char host[256] = {0};
        gethostname(host, sizeof host - 1);
        m.hostname = host;
    }

    m.onTrap = host_trap;
    m.onHwUser = [](uint32_t ifIndex, uint32_t op, const uint8_t *rec) {
        host_hardware(ifIndex, op, rec);
        linux_nft_binding(ifIndex, op == DHCPSNOOP_HW_OP_ADD, rec);
    };
    m.onHwCounter = [](uint32_t ifIndex, uint32_t attr) {
        return linux_nft_drops(ifIndex, attr == DHCPSNOOP_IF_ATTR_IPSG_DROPS
                                            ? NftDrop::SourceGuard
                                            : NftDrop::ArpInspection);
    };
    m.onLog = host_log;
    m.onScalarSync = peer_transport;
    g_ops = *linux_sys_ops();
    g_inner = linux_sys_ops();
    g_ops.bind = guarded_bind;
    g_ops.unlink = guarded_unlink;
    g_ops.accept = guarded_accept;
    g_ops.listen = roomy_listen;
    g_ops.select = interruptible_select;
    dhcpsnoop_sys_set(&g_ops);
    /* A second daemon must not touch the first one's table: the table is
     * replaced at start and removed at exit, so refuse before making it. */
    if (socket_live(linux_socket_path())) {
        g_socketInUse = true;
        fprintf(stderr, "dhcpsnoopd: another daemon is serving %s; not starting\n",
                linux_socket_path());
        return -1;
    }
    /* the table goes with the daemon, however it ends */
    if (g_config.nftables && linux_nft_start() == 0)
        atexit(linux_nft_stop);

    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_stop_signal;
    sa.sa_flags = SA_RESTART; /* select alone returns early, and says so */
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    return 0;
}

int linux_platform_started(void)
{
    const uint32_t pool = gDhcpsnoop.userMax;
    for (auto &p : g_config.ports) {
        auto it = sim_model().ports.find(if_nametoindex(p.name.c_str()));
        if (it == sim_model().ports.end())
            continue;
        uint32_t share = p.maxUsers ? p.maxUsers : std::max<uint32_t>(1, pool / 8);
        it->second.maxUsers = std::min(share, pool);
    }
    gDhcpsnoop.bindingGuard = g_config.bindingGuard ? 1 : 0;
    return linux_hw_state_open(g_config.hardwareState.c_str(), pool);
}

bool linux_stop_requested(void) { return g_stop != 0; }

bool linux_socket_in_use(void) { return g_socketInUse; }

int linux_hw_state_open(const char *path, uint32_t bindings)
{
    if (g_hw.fd >= 0)
        close(g_hw.fd);
    g_hw = HwState();
    if (!path || !*path)
        return 0;
    std::string dir(path);
    dir = dir.substr(0, dir.find_last_of('/'));
    if (!dir.empty() && dir != path)
        mkdir(dir.c_str(), 0755);
    g_hw.fd = open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (g_hw.fd < 0) {
        fprintf(stderr, "dhcpsnoopd: hardware state %s: %s\n", path, strerror(errno));
        return -1;
    }
    g_hw.slotCount = bindings + HW_SPARE_SLOTS;
    g_hw.headCount = 64;
    while (g_hw.headCount < g_hw.slotCount / 2)
        g_hw.headCount <<= 1;
    g_hw.slots.reset(static_cast<HwSlot *>(calloc(g_hw.slotCount, sizeof(HwSlot))));
    g_hw.heads.reset(static_cast<uint32_t *>(calloc(g_hw.headCount, sizeof(uint32_t))));
    if (!g_hw.slots || !g_hw.heads) {
        fprintf(stderr, "dhcpsnoopd: no memory for the hardware state\n");
        close(g_hw.fd);
        g_hw = HwState();
        return -1;
    }
    hw_write_line(0, "# port ip mac vlan rules (ipsg, dai); fixed-width lines, blank = free");
    return 0;
}

void linux_hw_state_update(uint32_t ifIndex, uint32_t op, const uint8_t *rec)
{
    if (g_hw.fd < 0 || !rec)
        return;
    uint8_t ipType = rec[36] & 3;
    uint32_t kind = hw_kind(rec[37]);
    uint32_t &head = g_hw.heads[hw_hash(ifIndex, ipType, rec + 16) & (g_hw.headCount - 1)];
    uint32_t prev = 0, at = head; /* slot + 1 */
    while (at) {
        const HwSlot &s = g_hw.slots[at - 1];
        if (s.ifIndex == ifIndex && s.ipType == ipType && memcmp(s.addr, rec + 16, 16) == 0)
            break;
        prev = at;
        at = s.next;
    }
    if (op == HW_OP_ADD) {
        if (!at) {
            if (g_hw.freeList) {
                at = g_hw.freeList;
                g_hw.freeList = g_hw.slots[at - 1].next;
            } else if (g_hw.slotsUsed < g_hw.slotCount) {
                at = ++g_hw.slotsUsed;
            } else {
                if (!g_hw.warnedFull)
                    fprintf(stderr, "dhcpsnoopd: hardware state file full; records beyond %u "
                                    "addresses are not written\n", g_hw.slotCount);
                g_hw.warnedFull = true;
                return;
            }
            HwSlot &s = g_hw.slots[at - 1];
            memcpy(s.addr, rec + 16, 16);
            s.ifIndex = ifIndex;
            s.ipType = ipType;
            s.kinds = 0;
            s.next = head;
            head = at;
        }
        HwSlot &s = g_hw.slots[at - 1];
        uint32_t first = 1 + (at - 1) * HW_KINDS;
        if (!s.kinds) /* the slot's other lines are blank, never holes */
            for (uint32_t k = 0; k < HW_KINDS; k++)
                if (k != kind)
                    hw_write_line(first + k, nullptr);
        char text[HW_LINE];
        hw_format(ifIndex, rec, text, sizeof text);
        hw_write_line(first + kind, text);
        s.kinds = s.kinds | (1u << kind);
        return;
    }
    if (!at || !(g_hw.slots[at - 1].kinds & (1u << kind)))
        return;
    HwSlot &s = g_hw.slots[at - 1];
    hw_write_line(1 + (at - 1) * HW_KINDS + kind, nullptr);
    s.kinds = s.kinds & ~(1u << kind);
    if (s.kinds)
        return;
    /* the slot's last line went: unchain it and reuse it first */
    if (prev)
        g_hw.slots[prev - 1].next = s.next;
    else
        head = s.next;
    s.next = g_hw.freeList;
    g_hw.freeList = at;
}


void linux_platform_ready(bool ipsgHook, bool daiHook)
{
    if (g_config.nftables)
        linux_nft_enforce(ipsgHook, daiHook);
    notify_ready();
}
