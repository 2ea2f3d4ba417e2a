/*
 * dhcpsnoopctl: the operator's front end to the snooping daemon.
 *
 * Every command line becomes one or more management requests on the daemon's
 * local stream socket (one request and one reply per connection), and the
 * replies become tables, JSON or an error message with an exit status:
 *   0 success, 1 the daemon answered with an error code, 2 usage error,
 *   3 the daemon could not be reached, timed out or rejected the request.
 */
#ifndef DHCPSNOOPCTL_H
#define DHCPSNOOPCTL_H

#include <stdint.h>
#include <stdio.h>

#include <functional>
#include <string>
#include <vector>

/* Run one command line (argv[0] is the program name); returns the exit status. */
int dhcpsnoopctl_run(int argc, char **argv, FILE *out, FILE *err);

namespace dhcpsnoopctl {

constexpr const char *DEFAULT_SOCKET = "/run/dhcpsnoop/dhcpsnoop.sock";
constexpr const char *SOCKET_ENV = "DHCPSNOOP_SOCKET";
constexpr int DEFAULT_TIMEOUT_MS = 5000;
/* The daemon reads a request into a buffer of this many bytes. */
constexpr uint32_t REQUEST_MAX = 1520;
/* A reply longer than this is not one of the daemon's. */
constexpr uint32_t REPLY_MAX = 65536;
/* The reply length word of a connection refused for its credentials. */
constexpr uint32_t REPLY_DENIED = 0xFFFFFFFFu;

enum ExitStatus { EXIT_OK = 0, EXIT_RESULT = 1, EXIT_USAGE = 2, EXIT_COMM = 3 };

/* How one exchange on the socket ended. */
enum class Xfer { ok, not_running, timeout, rejected, io_error, bad_reply, denied };

/* The funcs of the management requests. */
enum Func : uint32_t {
    F_GLOBAL_SET = 0, F_GLOBAL_SYNC = 1, F_GLOBAL_GET = 2,
    F_IF_FIRST = 3, F_IF_NEXT = 4, F_IF_SET = 5, F_IF_SYNC = 6, F_IF_GET = 7,
    F_USER_FIRST = 8, F_USER_NEXT = 9, F_USER_SET = 10, F_USER_SYNC = 11, F_USER_GET = 12,
    F_VLAN_FIRST = 13, F_VLAN_NEXT = 14, F_VLAN_SET = 15, F_VLAN_GET = 16,
    F_SERVER_FIRST = 17, F_SERVER_NEXT = 18, F_SERVER_SET = 19, F_SERVER_SYNC = 20,
    F_SERVER_GET = 21,
    F_USER_PAGE = 22, /* a page of bindings; see dhcpsnoop_adr.h */
    F_COUNT = 23
};

/* Data item types of a request. */
constexpr uint8_t DT_BYTES = 0, DT_U32 = 2, DT_U32_PAIR = 4;
/* Type bytes written in the index item headers. */
constexpr uint8_t IT_BYTES = 0, IT_U32 = 2;

/*
 * One exchange: connect to `path`, send the 4-byte length and the body, and
 * read the reply body.  Every step is bounded by `timeoutMs` in all.  On
 * failure `detail` says what went wrong.
 */
Xfer exchange(const char *path, int timeoutMs, const uint8_t *req, uint32_t len,
              std::vector<uint8_t> &reply, std::string &detail);

/* Stand-in for the socket exchange (tests); the path and timeout in force
 * are passed along.  An empty function restores the socket. */
using Transport = std::function<Xfer(const char *path, int timeoutMs, const uint8_t *req,
                                     uint32_t len, std::vector<uint8_t> &reply,
                                     std::string &detail)>;
void set_transport(Transport t);

/* The operator's wording of a daemon result code. */
std::string result_text(int32_t rc);

} // namespace dhcpsnoopctl

#endif
