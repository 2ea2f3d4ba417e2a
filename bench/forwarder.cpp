/*
 * The least a DHCP forwarder can do, as the yardstick for bench/dora.sh:
 * two ports, one packet socket each (ETH_P_ALL), every frame read on one
 * sent out of the other, nothing looked at but the direction.  The kernel's
 * own forwarding of DHCP is kept off by the script (the same ingress drop
 * the daemon installs).
 *
 *   bench_forwarder PORT_A PORT_B
 */
#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace {
int open_port(const char *name, int &index)
{
    index = int(if_nametoindex(name));
    int fd = socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL));
    if (fd < 0 || index == 0)
        return -1;
    struct sockaddr_ll ll;
    memset(&ll, 0, sizeof ll);
    ll.sll_family = AF_PACKET;
    ll.sll_protocol = htons(ETH_P_ALL);
    ll.sll_ifindex = index;
    return bind(fd, reinterpret_cast<struct sockaddr *>(&ll), sizeof ll) == 0 ? fd : -1;
}

bool is_dhcp(const unsigned char *f, ssize_t n)
{
    if (n < 14 + 20 + 8)
        return false;
    unsigned type = unsigned(f[12]) << 8 | f[13];
    size_t l4 = type == ETH_P_IP ? 14 + size_t(f[14] & 15) * 4 : type == ETH_P_IPV6 ? 54 : 0;
    if (!l4 || size_t(n) < l4 + 4 || (type == ETH_P_IP ? f[23] : f[20]) != 17)
        return false;
    unsigned dport = unsigned(f[l4 + 2]) << 8 | f[l4 + 3];
    return dport == 67 || dport == 68 || dport == 546 || dport == 547;
}
} // namespace

int main(int argc, char **argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: bench_forwarder PORT_A PORT_B\n");
        return 2;
    }
    int index[2];
    int fd[2] = {open_port(argv[1], index[0]), open_port(argv[2], index[1])};
    if (fd[0] < 0 || fd[1] < 0) {
        perror("bench_forwarder");
        return 1;
    }
    struct pollfd p[2] = {{fd[0], POLLIN, 0}, {fd[1], POLLIN, 0}};
    unsigned char frame[2048];
    for (;;) {
        if (poll(p, 2, -1) < 0)
            return 1;
        for (int i = 0; i < 2; i++) {
            if (!(p[i].revents & POLLIN))
                continue;
            struct sockaddr_ll from;
            socklen_t len = sizeof from;
            ssize_t n = recvfrom(fd[i], frame, sizeof frame, MSG_DONTWAIT,
                                 reinterpret_cast<struct sockaddr *>(&from), &len);
            if (n <= 0 || from.sll_pkttype == PACKET_OUTGOING || !is_dhcp(frame, n))
                continue;
            struct sockaddr_ll to;
            memset(&to, 0, sizeof to);
            to.sll_family = AF_PACKET;
            to.sll_ifindex = index[1 - i];
            to.sll_halen = 6;
            memcpy(to.sll_addr, frame, 6);
            sendto(fd[1 - i], frame, size_t(n), 0, reinterpret_cast<struct sockaddr *>(&to), sizeof to);
        }
    }
}
