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

#include <fstream>
#include <sstream>

#include "dhcpsnoop_adr.h"
#include "dhcpsnoop_user.h"
#include "linux_nft.h"
#include "dhcpsnoop_platform.h"
#include "peer_transport.h"
#include "switch_model.h"

namespace {

LinuxConfig g_config;
std::map<uint32_t, uint16_t> g_pvid;
std::map<std::string, std::array<uint8_t, 44>> g_hardware;

std::vector<std::string> split(const std::string &s, char sep)
{
    std::vector<std::string> out;
    std::string cur;
    std::istringstream in(s);
    while (std::getline(in, cur, sep))
        if (!cur.empty())
            out.push_back(cur);
    return out;
}

bool parse_num(const std::string &s, unsigned long max, unsigned long &out)
{
    if (s.empty())
        return false;
    char *end = nullptr;
    errno = 0;
    out = strtoul(s.c_str(), &end, 0);
    return errno == 0 && end && *end == '\0' && out <= max;
}

bool parse_vid(const std::string &s, uint16_t &vid)
{
    unsigned long v;
    if (!parse_num(s, 4094, v) || v == 0)
        return false;
    vid = uint16_t(v);
    return true;
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

std::string record_key(uint32_t ifIndex, const uint8_t *rec)
{
    char buf[128];
    snprintf(buf, sizeof buf, "%u/%02x/%02x", ifIndex, rec[36], rec[37]);
    std::string k = buf;
    for (int i = 16; i < 32; i++) {
        snprintf(buf, sizeof buf, "%02x", rec[i]);
        k += buf;
    }
    return k;
}

void write_hardware_state()
{
    const std::string &path = g_config.hardwareState;
    if (path.empty())
        return;
    std::string dir = path.substr(0, path.find_last_of('/'));
    if (!dir.empty())
        mkdir(dir.c_str(), 0755);
    std::string tmp = path + ".tmp";
    FILE *f = fopen(tmp.c_str(), "w");
    if (!f)
        return;
    fprintf(f, "# port ip mac vlan rules (ipsg, dai)\n");
    for (auto &[key, r] : g_hardware) {
        uint32_t ifIndex = uint32_t(strtoul(key.c_str(), nullptr, 10));
        char ip[INET6_ADDRSTRLEN] = "-";
        if (r[39] == 0x20)
            inet_ntop(AF_INET, &r[16], ip, sizeof ip);
        else if (r[39] == 0x80)
            inet_ntop(AF_INET6, &r[16], ip, sizeof ip);
        char name[IF_NAMESIZE] = {0};
        if (!if_indextoname(ifIndex, name))
            snprintf(name, sizeof name, "%u", ifIndex);
        uint16_t vid;
        memcpy(&vid, &r[6], 2);
        fprintf(f, "%s %s %02x:%02x:%02x:%02x:%02x:%02x %u %s%s\n", name, ip, r[0], r[1], r[2],
                r[3], r[4], r[5], vid, (r[37] & 0x80) ? "ipsg" : "", (r[37] & 0x40) ? " dai" : "");
    }
    fclose(f);
    rename(tmp.c_str(), path.c_str());
}

void host_hardware(uint32_t ifIndex, uint32_t op, const uint8_t *rec)
{
    std::string key = record_key(ifIndex, rec);
    if (op == 0x3E800DF) {
        std::array<uint8_t, 44> copy;
        memcpy(copy.data(), rec, 44);
        g_hardware[key] = copy;
    } else {
        g_hardware.erase(key);
    }
    write_hardware_state();
}

/* Under systemd (it sets INVOCATION_ID for every service it starts, and
 * JOURNAL_STREAM when standard output goes to the journal) the syslog line
 * reaches the journal already; a copy on standard output would show twice. */
bool under_service_manager()
{
    return getenv("INVOCATION_ID") || getenv("JOURNAL_STREAM");
}

void host_log(const std::string &line)
{
    std::string text = line;
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.pop_back();
    syslog(LOG_INFO, "%s", text.c_str());
    if (under_service_manager())
        return;
    printf("%s\n", text.c_str());
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
                } else if (w[i] == "tpid" && i + 1 < w.size()) {
                    if (!parse_num(w[++i], 0xFFFF, v) || v == 0)
                        return fail("bad tpid " + w[i]);
                    p.tpid = uint16_t(v);
                } else if (w[i] == "vlans" && i + 1 < w.size()) {
                    for (auto &x : split(w[++i], ',')) {
                        uint16_t vid;
                        if (!parse_vid(x, vid))
                            return fail("bad vlan " + x);
                        p.vlans.push_back(vid);
                    }
                } else {
                    return fail("unknown port setting " + w[i]);
                }
            }
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
            (kw == "ipsg" ? out.ipsg : out.dai).push_back(f);
        } else if (kw == "hostname") {
            if (w.size() != 2)
                return fail("hostname needs a name");
            out.hostname = w[1];
        } else if (kw == "hardware-state") {
            if (w.size() != 2)
                return fail("hardware-state needs a path");
            out.hardwareState = w[1];
        } else if (kw == "trap") {
            if (w.size() != 2 || (w[1] != "nftables" && w[1] != "none"))
                return fail("trap is nftables or none");
            out.nftables = w[1] == "nftables";
        } else {
            return fail("unknown statement " + kw);
        }
    }
    return 0;
}

uint16_t linux_port_pvid(uint32_t ifIndex)
{
    auto it = g_pvid.find(ifIndex);
    return it == g_pvid.end() ? 1 : it->second;
}

int linux_platform_init(void)
{
    const char *path = getenv("DHCPSNOOP_CONFIG");
    if (!path || !*path)
        path = "/etc/dhcpsnoop.conf";
    std::ifstream file(path);
    std::string error;
    if (file) {
        std::stringstream text;
        text << file.rdbuf();
        if (linux_config_parse(text.str(), g_config, error) != 0) {
            fprintf(stderr, "dhcpsnoopd: %s: %s\n", path, error.c_str());
            return -1;
        }
    } else {
        g_config = LinuxConfig();
    }
    if (g_config.ports.empty()) {
        /* no ports configured (the installed file names none): every
         * interface but loopback is an access port */
        struct if_nameindex *all = if_nameindex();
        for (struct if_nameindex *i = all; i && i->if_index; i++) {
            if (strcmp(i->if_name, "lo") == 0)
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
    openlog("dhcpsnoopd", LOG_PID | LOG_NDELAY, LOG_DAEMON);
    write_hardware_state();
    /* the table goes with the daemon, however it ends */
    if (g_config.nftables && linux_nft_start() == 0)
        atexit(linux_nft_stop);
    dhcpsnoop_sys_set(linux_sys_ops());
    return 0;
}

void linux_platform_ready(bool ipsgHook, bool daiHook)
{
    if (g_config.nftables)
        linux_nft_enforce(ipsgHook, daiHook);
    notify_ready();
}
