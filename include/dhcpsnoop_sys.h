/*
 * The system-call seam.
 *
 * The daemon reaches its sockets, the clock and its start-up allocations only
 * through this table.  By default it holds libc's functions; tests install a
 * double that delivers frames, datagrams and connections, fails any call and
 * moves the clock, and a stock-kernel platform may adapt what the kernel gives.
 */
#ifndef DHCPSNOOP_SYS_H
#define DHCPSNOOP_SYS_H

#include <stddef.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <time.h>

struct DhcpsnoopSysOps {
    int (*socket)(int domain, int type, int protocol);
    int (*setsockopt)(int fd, int level, int name, const void *value, socklen_t len);
    int (*bind)(int fd, const struct sockaddr *addr, socklen_t len);
    int (*listen)(int fd, int backlog);
    int (*accept)(int fd, struct sockaddr *addr, socklen_t *len);
    int (*unlink)(const char *path);
    int (*close)(int fd);
    int (*ioctl)(int fd, unsigned long request, int *arg);
    int (*select)(int nfds, fd_set *rd, fd_set *wr, fd_set *ex, struct timeval *timeout);
    ssize_t (*recvmsg)(int fd, struct msghdr *msg, int flags);
    ssize_t (*recvfrom)(int fd, void *buf, size_t len, int flags, struct sockaddr *addr,
                        socklen_t *alen);
    ssize_t (*recv)(int fd, void *buf, size_t len, int flags);
    ssize_t (*sendto)(int fd, const void *buf, size_t len, int flags,
                      const struct sockaddr *addr, socklen_t alen);
    ssize_t (*sendmsg)(int fd, const struct msghdr *msg, int flags);
    time_t (*time)(time_t *t);
    double (*difftime)(time_t a, time_t b);
    void *(*calloc)(size_t n, size_t size);
    void (*free)(void *p);
};

/* The table in force; never null. */
extern const DhcpsnoopSysOps *dhcpsnoop_sys;
/* libc's table. */
extern const DhcpsnoopSysOps dhcpsnoop_sys_libc;
/* Install a table (null restores libc's). */
void dhcpsnoop_sys_set(const DhcpsnoopSysOps *ops);

#endif
