/* libc's side of the system-call seam. */
#include "dhcpsnoop_sys.h"

#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

static int libc_ioctl(int fd, unsigned long request, int *arg) { return ioctl(fd, request, arg); }
static time_t libc_time(time_t *t) { return time(t); }
static double libc_difftime(time_t a, time_t b) { return difftime(a, b); }

const DhcpsnoopSysOps dhcpsnoop_sys_libc = {
    socket, setsockopt, bind,    listen,      accept,      unlink, close,
    libc_ioctl, select, recvmsg, recvfrom,    recv,        sendto, sendmsg,
    libc_time,  libc_difftime,   calloc,      free,
};

const DhcpsnoopSysOps *dhcpsnoop_sys = &dhcpsnoop_sys_libc;

void dhcpsnoop_sys_set(const DhcpsnoopSysOps *ops) { dhcpsnoop_sys = ops ? ops : &dhcpsnoop_sys_libc; }
