#include "child_daemon_helpers.h"

#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <set>

#include "dhcpsnoop.h"
#include "dhcpsnoopctl.h"
#include "dhcpsnoop_sys.h"
#include "switch_model.h"

namespace {

std::string g_path;
std::set<int> g_quiet;

int quiet_socket(int domain, int type, int protocol)
{
    if (domain != AF_PACKET && domain != AF_NETLINK)
        return socket(domain, type, protocol);
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, sv) < 0)
        return -1;
    g_quiet.insert(sv[0]);
    return sv[0];
}

int quiet_setsockopt(int fd, int level, int name, const void *value, socklen_t len)
{
    return g_quiet.count(fd) ? 0 : setsockopt(fd, level, name, value, len);
}

int quiet_ioctl(int fd, unsigned long request, int *arg)
{
    return g_quiet.count(fd) ? 0 : ioctl(fd, request, arg);
}

int private_unlink(const char *) { return unlink(g_path.c_str()); }

int private_bind(int fd, const struct sockaddr *addr, socklen_t len)
{
    if (g_quiet.count(fd))
        return 0;
    if (!addr || addr->sa_family != AF_UNIX)
        return bind(fd, addr, len);
    struct sockaddr_un un {};
    un.sun_family = AF_UNIX;
    strncpy(un.sun_path, g_path.c_str(), sizeof un.sun_path - 1);
    return bind(fd, reinterpret_cast<struct sockaddr *>(&un), sizeof un);
}

} // namespace

bool ChildDaemon::start(const std::string &socketPath, const ChildDaemonOptions &o)
{
    path = socketPath;
    int p[2];
    if (pipe(p) != 0)
        return false;
    fflush(nullptr);
    pid = fork();
    if (pid < 0)
        return false;
    if (pid == 0) {
        close(p[0]);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        g_path = socketPath;
        SwitchModel &m = sim_model();
        m.reset();
        for (uint32_t idx : o.ports)
            m.addPort(idx, "swp" + std::to_string(idx));
        for (auto &[idx, vid] : o.vlanIfs)
            m.addVlanIf(idx, vid, "vlan" + std::to_string(vid));
        m.hwScalars[53] = o.s53;
        m.hwScalars[54] = o.s54;
        static DhcpsnoopSysOps ops = dhcpsnoop_sys_libc;
        ops.socket = quiet_socket;
        ops.setsockopt = quiet_setsockopt;
        ops.bind = private_bind;
        ops.unlink = private_unlink;
        ops.ioctl = quiet_ioctl;
        dhcpsnoop_sys_set(&ops);
        /* forget whatever daemon the parent was running, without touching
         * its descriptors or memory */
        memset(&gDhcpsnoop, 0, sizeof gDhcpsnoop);
        gDhcpsnoop.dataSock = gDhcpsnoop.data6Sock = gDhcpsnoop.udpSock = -1;
        gDhcpsnoop.cmdSock = gDhcpsnoop.rtSock = -1;
        dhcpsnoop_shutdown();
        dhcpsnoop_timer_reset();
        if (dhcpsnoop_init_ex(20, 2000, 0, 3, nullptr, nullptr, nullptr) != 0)
            _exit(1);
        if (o.enablePorts)
            for (uint32_t idx : o.ports)
                dhcpsnoop_if_enable(idx);
        if (write(p[1], "r", 1) != 1)
            _exit(1);
        dhcpsnoop_main_setup();
        for (;;)
            dhcpsnoop_main_pass();
    }
    close(p[1]);
    struct pollfd pf = {p[0], POLLIN, 0};
    char c = 0;
    bool up = poll(&pf, 1, 10000) == 1 && read(p[0], &c, 1) == 1;
    close(p[0]);
    return up;
}

void ChildDaemon::stop()
{
    if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        pid = -1;
    }
}

int ChildDaemon::ctl(const std::vector<std::string> &args, std::string &out) const
{
    std::vector<std::string> all = {"dhcpsnoopctl", "--socket", path, "-n", "--timeout", "5"};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (auto &a : all)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    char *buf = nullptr;
    size_t size = 0;
    FILE *o = open_memstream(&buf, &size);
    FILE *e = fopen("/dev/null", "w");
    int rc = dhcpsnoopctl_run(int(all.size()), argv.data(), o, e);
    fclose(o);
    fclose(e);
    out.assign(buf ? buf : "", size);
    free(buf);
    return rc;
}
