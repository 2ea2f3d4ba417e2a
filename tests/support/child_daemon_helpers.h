/*
 * A second daemon in a child process, on the simulated platform, reachable
 * only through its command socket at a private path.  Its packet and
 * netlink sockets are quiet ends of socket pairs, so it needs no privilege.
 */
#ifndef DHCPSNOOP_CHILD_DAEMON_HELPERS_H
#define DHCPSNOOP_CHILD_DAEMON_HELPERS_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

class ChildDaemon {
public:
    /* Start a daemon whose model has the given ports and redundancy scalars
     * (53, 54).  Returns false when it did not come up within a few seconds. */
    bool start(const std::string &socketPath, const std::vector<uint32_t> &ports, int32_t s53,
               int32_t s54);
    void stop();
    ~ChildDaemon() { stop(); }
    /* dhcpsnoopctl against it: exit status, standard output. */
    int ctl(const std::vector<std::string> &args, std::string &out) const;

    std::string path;
    pid_t pid = -1;
};

#endif
