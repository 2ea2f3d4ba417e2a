/*
 * The Linux platform: the switch model filled from a stock Linux host and a
 * small configuration file, and the system-call seam adapted to a stock
 * kernel.  Used by dhcpsnoopd on a plain Linux box.
 */
#ifndef DHCPSNOOP_LINUX_PLATFORM_H
#define DHCPSNOOP_LINUX_PLATFORM_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <linux/filter.h>

#include "dhcpsnoop_sys.h"

struct LinuxPortConfig {
    std::string name;
    uint16_t pvid = 1;
    bool tagged = false;
    std::vector<uint16_t> vlans;
    bool router = false;
    uint16_t tpid = 0x8100;
    bool excluded = false;
    uint16_t maxUsers = 0; /* 0: an eighth of the binding pool */
};

struct LinuxFeatureConfig {
    std::string port; /* a port name, or empty for a VLAN */
    uint16_t vlan = 0;
    uint8_t items = 0;
    int line = 0;
};

struct LinuxConfig {
    std::vector<LinuxPortConfig> ports;
    std::map<uint16_t, std::string> vlanInterfaces; /* VID -> name */
    std::string role = "none";
    std::string peer;
    std::vector<LinuxFeatureConfig> ipsg, dai;
    std::string hostname;
    std::string hardwareState = "/run/dhcpsnoop/hardware";
    bool nftables = true;
    bool bindingGuard = true;
    std::string socketGroup = "root"; /* besides root, may use the command socket */
    uint32_t socketGid = 0;
};

/* The command socket's default path and its root-owned directory. */
constexpr const char *LINUX_RUNTIME_DIR = "/run/dhcpsnoop";
constexpr const char *LINUX_SOCKET_PATH = "/run/dhcpsnoop/dhcpsnoop.sock";
/* The reply length word sent on a command connection whose peer is neither
 * root nor in the socket's group; the front end knows it. */
constexpr uint32_t LINUX_REPLY_DENIED = 0xFFFFFFFFu;

/* Index of the VLAN interface of a VID in the switch model. */
constexpr uint32_t LINUX_VLAN_IF_BASE = 1000000;

/* Parse a configuration text.  Returns 0, or -1 with `error` naming the
 * line and what is wrong with it. */
int linux_config_parse(const std::string &text, LinuxConfig &out, std::string &error);

/* Fill the switch model from the configuration (DHCPSNOOP_CONFIG, default
 * /etc/dhcpsnoop.conf; every non-loopback interface when it is absent) and
 * the kernel, connect the model's effects to the host (nftables traps,
 * hardware state file, system log, peer transport) and install the stock
 * kernel's system-call seam.  Returns 0, or -1 after printing why. */
int linux_platform_init(void);

/* The daemon's arguments: up to five, the pool sizes 0-65535, the switches
 * 0 or 1.  Returns 0, or -1 with `error` saying which and why. */
int linux_args_check(int argc, char **argv, std::string &error);

/* After the daemon's start-up: each port's user limit (its max-users, else an
 * eighth of the binding pool, never more than the pool), the binding guard
 * from the configuration, and the hardware state file opened with room for
 * the binding pool's records.  Returns 0, or -1 when the file cannot be made. */
int linux_platform_started(void);

/* SIGTERM or SIGINT has asked the daemon to stop. */
bool linux_stop_requested(void);

/* A daemon already serves the command socket (start-up then fails). */
bool linux_socket_in_use(void);

/* The hardware state file: one fixed-width line per record handed to
 * hardware, updated in place (see dist/dhcpsnoop.conf.example).  Opening it
 * (an empty path: no file) truncates it and allocates the slots for
 * `bindings` addresses once; an update is the platform's hardware callback
 * (op 0x3E800DF adds or replaces a record, anything else removes it). */
int linux_hw_state_open(const char *path, uint32_t bindings);
void linux_hw_state_update(uint32_t ifIndex, uint32_t op, const uint8_t *rec);
/* The daemon has started: the enforcement rules of the ports whose IP
 * source guard (ARP inspection) it feeds through its hooks go in, and a
 * service manager that asked for it is told the daemon is ready. */
void linux_platform_ready(bool ipsgHook, bool daiHook);

/* The PVID of a port of the model (1 when unknown). */
uint16_t linux_port_pvid(uint32_t ifIndex);

/* ---- the stock kernel's side of the system-call seam ---- */

/* The packet-information payload the daemon expects, built from what a
 * stock kernel tells about a frame. */
struct LinuxRxInfo {
    uint32_t ingress;
    uint16_t outerVid, innerVid;
    uint8_t l2HdrLen;
};

/* Turn a frame as a stock kernel hands it to a packet socket into the frame
 * the switch would have trapped: a VLAN tag the kernel took off (vlanValid,
 * tci, tpid) is put back, a UDP checksum the kernel left for the hardware
 * (csumNotReady) is completed.  `frame` has room for `room` bytes; returns
 * the new length and fills `info` (untagged frames get the port's PVID). */
uint32_t linux_adapt_frame(uint8_t *frame, uint32_t len, uint32_t room, bool vlanValid,
                           uint16_t tci, uint16_t tpid, bool csumNotReady, uint32_t ingress,
                           uint16_t pvid, uint16_t portTpid, LinuxRxInfo &info);

/* Make a stock kernel's link messages harmless to the platform's event
 * handling: attributes whose numbers the platform uses for aggregation
 * events are renamed.  Walks the datagram in place. */
void linux_filter_netlink(uint8_t *buf, size_t len);

/* The kernel filter of a data socket: DHCPv4 (v6: DHCPv6) frames behind up
 * to two tags of the TPIDs given, wherever the IP header puts the ports. */
std::vector<sock_filter> linux_dhcp_filter(bool v6, const std::vector<uint16_t> &tpids);

const DhcpsnoopSysOps *linux_sys_ops(void);
/* The command socket's path: DHCPSNOOP_SOCKET or the daemon's default. */
const char *linux_socket_path(void);

#endif
