/* A second daemon in a child process on the simulated platform, reached only
 * through its command socket at a private path; its packet and netlink
 * sockets are quiet ends of socket pairs, so it needs no privilege. */
#ifndef DHCPSNOOP_CHILD_DAEMON_HELPERS_H
#define DHCPSNOOP_CHILD_DAEMON_HELPERS_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

struct ChildDaemonOptions {
    std::vector<uint32_t> ports;                        /* named swp<index> */
    std::vector<std::pair<uint32_t, uint16_t>> vlanIfs; /* index, VLAN */
    int32_t s53 = 1, s54 = 1;                           /* redundancy scalars: None */
    bool enablePorts = false;
};

class ChildDaemon {
public:
    /* False when it did not come up within a few seconds. */
    bool start(const std::string &socketPath, const ChildDaemonOptions &options);
    void stop();
    ~ChildDaemon() { stop(); }
    /* dhcpsnoopctl against it: exit status, standard output. */
    int ctl(const std::vector<std::string> &args, std::string &out) const;

    std::string path;
    pid_t pid = -1;
};

#endif
