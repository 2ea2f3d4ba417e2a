/* The system-call seam in memory: queued frames, netlink datagrams and command
 * connections, what the daemon sent, failing calls and a clock of our own. */
#ifndef DHCPSNOOP_FAKE_SYS_H
#define DHCPSNOOP_FAKE_SYS_H

#include <sys/select.h>
#include <sys/socket.h>

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "dhcpsnoop_sys.h"

enum class FakeKind { Data4, Data6, Cmd, Netlink, Udp, Conn, Other };

struct FakeSock {
    int fd = -1;
    FakeKind kind = FakeKind::Other;
    int protocol = 0;
    std::map<std::pair<int, int>, int> options; /* (level, name) -> int value */
    std::vector<int> groups;                    /* netlink groups joined */
    bool bound = false, listening = false, nonblocking = false, closed = false;
    int backlog = 0;
    std::string boundPath;
    socklen_t bindLen = 0;
};

/* One frame for a data socket, with the packet-information message's fields. */
struct FakeFrame {
    std::vector<uint8_t> bytes;
    bool withInfo = true;
    uint32_t ingress = 0;
    uint16_t outerVid = 0, innerVid = 0;
    uint8_t l2HdrLen = 14;
    int sllIfindex = 0;
    std::optional<std::vector<uint8_t>> rawControl; /* control bytes as given */
    ssize_t result = -2;                            /* recvmsg's result (-2: the length) */
};

struct FakeConn {
    std::vector<uint8_t> input; /* what the client sends */
    size_t readPos = 0;
    std::vector<uint8_t> output; /* what the daemon answered */
    bool closed = false;
    size_t chunk = 0; /* most bytes one recv hands over (0: no limit) */
};

struct FakeSent {
    int fd;
    std::vector<uint8_t> bytes, addr, control;
};

class FakeSys {
public:
    static FakeSys &get();
    void install();
    void uninstall();
    void reset();

    /* Fail the nth call (1-based; 0 = every call) of `fn` whose argument is
     * `arg` (-1 = any): the domain for socket, the option name for setsockopt
     * (the group for netlink memberships), the socket's kind otherwise. */
    void failCall(const std::string &fn, int nth = 1, long arg = -1, int err = EIO);

    int fdOf(FakeKind kind) const; /* the newest open socket of that kind */
    size_t openCount() const;
    FakeSock *sock(int fd);

    std::deque<FakeFrame> frames4, frames6;
    std::deque<std::vector<uint8_t>> netlink;
    std::deque<FakeConn> pendingConns;
    std::optional<int> selectResult;
    bool selectAdvancesClock = true; /* a select with nothing ready waits out its time-out */
    time_t now = 1000000;

    std::vector<std::string> calls; /* the receives and accepts: "recvmsg:data4", "accept:cmd" */
    std::vector<int> closedFds;
    std::vector<std::string> unlinked;
    std::vector<FakeSent> sent;
    std::map<int, FakeConn> conns;
    std::vector<FakeConn> finishedConns;
    size_t liveAllocations() const { return live.size(); }

    int fail(const char *fn, long arg);
    std::map<int, FakeSock> socks;
    int nextFd = 3;
    std::set<void *> live;

private:
    struct Fail {
        std::string fn;
        int nth;
        long arg;
        int err;
        int seen;
    };
    std::vector<Fail> fails;
};

#endif
