/*
 * dhcpsnoopctl: command-line parsing, request building, the socket exchange
 * and the formatting of answers.
 */
#include "dhcpsnoopctl.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <errno.h>
#include <net/if.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <initializer_list>
#include <map>
#include <memory>
#include <utility>

#include "dhcpsnoop_adr.h"

namespace dhcpsnoopctl {

namespace {

Transport g_transport;

/* ------------------------------------------------------------------------ */
/* The socket exchange                                                       */
/* ------------------------------------------------------------------------ */

int64_t now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

/* Wait for `events` on fd until the deadline: 1 ready, 0 timed out, -1 error. */
int wait_for(int fd, short events, int64_t deadline)
{
    for (;;) {
        int64_t left = deadline - now_ms();
        if (left <= 0)
            return 0;
        struct pollfd p = {fd, events, 0};
        int rc = poll(&p, 1, int(left > 60000 ? 60000 : left));
        if (rc > 0)
            return 1;
        if (rc < 0 && errno != EINTR)
            return -1;
    }
}

class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

std::string errno_text(const char *what, int e)
{
    return std::string(what) + ": " + strerror(e);
}

constexpr int CONNECT_RETRY_MS = 20;

/* Who may use the socket: root and the group that owns it. */
std::string denied_text(const char *path)
{
    std::string group = "root";
    struct stat st;
    if (stat(path, &st) == 0) {
        struct group *g = getgrgid(st.st_gid);
        group = g ? g->gr_name : std::to_string(st.st_gid);
    }
    return "permission denied: run as root or as a member of " + group;
}

/* Read exactly n bytes; Xfer::ok, or how it failed (`eof` set on a clean end). */
Xfer read_full(int fd, uint8_t *dst, size_t n, int64_t deadline, bool &eof, std::string &detail)
{
    size_t got = 0;
    eof = false;
    while (got < n) {
        ssize_t r = recv(fd, dst + got, n - got, 0);
        if (r > 0) {
            got += size_t(r);
            continue;
        }
        if (r == 0) {
            eof = true;
            return Xfer::bad_reply;
        }
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            detail = errno_text("reading the reply", errno);
            return Xfer::io_error;
        }
        int w = wait_for(fd, POLLIN, deadline);
        if (w == 0) {
            detail = "no reply from the daemon in time";
            return Xfer::timeout;
        }
        if (w < 0) {
            detail = errno_text("waiting for the reply", errno);
            return Xfer::io_error;
        }
    }
    return Xfer::ok;
}

} // namespace

namespace {

/* Connect to the daemon's socket; the descriptor is handed to `out`. */
Xfer connect_to(const char *path, int64_t deadline, std::unique_ptr<Fd> &out,
                std::string &detail)
{
    struct sockaddr_un un;
    memset(&un, 0, sizeof un);
    un.sun_family = AF_UNIX;
    if (!path || !*path || strlen(path) >= sizeof un.sun_path) {
        detail = "socket path is empty or too long";
        return Xfer::io_error;
    }
    memcpy(un.sun_path, path, strlen(path));

    out = std::make_unique<Fd>(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    Fd &fd = *out;
    if (fd.get() < 0) {
        detail = errno_text("socket", errno);
        return Xfer::io_error;
    }
    while (connect(fd.get(), reinterpret_cast<struct sockaddr *>(&un), sizeof un) < 0) {
        int e = errno;
        if (e == ENOENT || e == ECONNREFUSED || e == ENOTSOCK) {
            detail = std::string("nothing is listening on ") + path;
            return Xfer::not_running;
        }
        if (e == EACCES || e == EPERM) {
            detail = denied_text(path);
            return Xfer::denied;
        }
        if (e == EINTR)
            continue;
        if (e == EAGAIN) {
            /* The daemon's queue of connections is full: the socket is left
             * unconnected, so try again until the deadline. */
            if (now_ms() >= deadline) {
                detail = "the daemon did not accept the connection in time";
                return Xfer::timeout;
            }
            poll(nullptr, 0, CONNECT_RETRY_MS);
            continue;
        }
        if (e != EINPROGRESS) {
            detail = errno_text("connect", e);
            return Xfer::io_error;
        }
        int w = wait_for(fd.get(), POLLOUT, deadline);
        if (w <= 0) {
            detail = w == 0 ? "the daemon did not accept the connection in time"
                            : errno_text("connect", errno);
            return w == 0 ? Xfer::timeout : Xfer::io_error;
        }
        int soerr = 0;
        socklen_t sl = sizeof soerr;
        getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &soerr, &sl);
        if (soerr) {
            detail = errno_text("connect", soerr);
            return soerr == ECONNREFUSED ? Xfer::not_running : Xfer::io_error;
        }
        break;
    }
    return Xfer::ok;
}

/* One request and its reply on a connected socket. */
Xfer transfer(const Fd &fd, const char *path, int64_t deadline, const uint8_t *req, uint32_t len,
              std::vector<uint8_t> &reply, std::string &detail)
{
    /* Length and body leave in one piece: the daemon reads the body with a
     * single receive right after the length. */
    std::vector<uint8_t> msg(4 + size_t(len));
    memcpy(msg.data(), &len, 4);
    if (len)
        memcpy(msg.data() + 4, req, len);
    size_t sent = 0;
    while (sent < msg.size()) {
        ssize_t r = send(fd.get(), msg.data() + sent, msg.size() - sent, MSG_NOSIGNAL);
        if (r > 0) {
            sent += size_t(r);
            continue;
        }
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0 && errno == EPIPE)
            break; /* refused unread: the daemon's word on it may be waiting */
        if (r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            int w = wait_for(fd.get(), POLLOUT, deadline);
            if (w == 0) {
                detail = "the daemon did not take the request in time";
                return Xfer::timeout;
            }
            if (w > 0)
                continue;
        }
        detail = errno_text("sending the request", errno);
        return Xfer::io_error;
    }

    uint8_t lenBytes[4];
    bool eof = false;
    Xfer x = read_full(fd.get(), lenBytes, 4, deadline, eof, detail);
    if (x != Xfer::ok) {
        if (eof)
            detail = "the daemon closed the connection without an answer";
        return x;
    }
    uint32_t rlen;
    memcpy(&rlen, lenBytes, 4);
    if (rlen == REPLY_DENIED) {
        detail = denied_text(path);
        return Xfer::denied;
    }
    if (rlen == 0) {
        detail = "the daemon rejected the request";
        return Xfer::rejected;
    }
    if (rlen > REPLY_MAX) {
        detail = "reply length " + std::to_string(rlen) + " is not plausible";
        return Xfer::bad_reply;
    }
    reply.resize(rlen);
    x = read_full(fd.get(), reply.data(), rlen, deadline, eof, detail);
    if (x != Xfer::ok) {
        if (eof)
            detail = "the reply was cut short";
        reply.clear();
        return x;
    }
    return Xfer::ok;
}

/* The exchange on a connection that may be kept for further requests (the
 * pages of one listing): made on first use, dropped on any failure. */
Xfer exchange_held(std::unique_ptr<Fd> &fd, const char *path, int timeoutMs, const uint8_t *req,
                   uint32_t len, std::vector<uint8_t> &reply, std::string &detail)
{
    reply.clear();
    detail.clear();
    int64_t deadline = now_ms() + (timeoutMs > 0 ? timeoutMs : 1);
    if (!fd) {
        Xfer x = connect_to(path, deadline, fd, detail);
        if (x != Xfer::ok) {
            fd.reset();
            return x;
        }
    }
    Xfer x = transfer(*fd, path, deadline, req, len, reply, detail);
    if (x != Xfer::ok)
        fd.reset();
    return x;
}

} // namespace

Xfer exchange(const char *path, int timeoutMs, const uint8_t *req, uint32_t len,
              std::vector<uint8_t> &reply, std::string &detail)
{
    std::unique_ptr<Fd> fd;
    return exchange_held(fd, path, timeoutMs, req, len, reply, detail);
}

void set_transport(Transport t) { g_transport = std::move(t); }

std::string result_text(int32_t rc)
{
    switch (uint32_t(rc)) {
    case 0:
        return "success";
    case 0x3E80002:
        return "no such entry or interface";
    case 0x3E80003:
        return "the entry already exists or is an IP source guard binding";
    case 0x3E80004:
        return "the hardware layer refused the change";
    case 0x3E8000C:
        return "the binding is bound and cannot be changed (unbind it first)";
    case 0x3E8000D:
        return "the text is too short or too long, or there is no room for the answer";
    case 0x3E80010:
        return "unknown command or value, or a precondition is not met";
    case 0x3E8001A:
        return "null key";
    case 12:
        return "no free entry left in the daemon's table";
    case 22:
        return "value out of range";
    case 0xFFFFFFFFu:
        return "not found";
    default:
        return "unexpected result";
    }
}

namespace {

/* ------------------------------------------------------------------------ */
/* Requests and replies                                                      */
/* ------------------------------------------------------------------------ */

using Key = std::array<uint8_t, 20>;

enum class IndexKind { global, number, key, pair };

IndexKind index_kind(uint32_t func)
{
    if (func <= F_GLOBAL_GET)
        return IndexKind::global;
    if ((func >= F_USER_FIRST && func <= F_USER_GET) || func == F_USER_PAGE)
        return IndexKind::key;
    if (func >= F_SERVER_FIRST)
        return IndexKind::pair;
    return IndexKind::number;
}

struct Request {
    uint32_t func = 0;
    uint32_t cmd = 0;
    int32_t index = 0; /* interface index or VLAN id */
    Key key{};
    uint32_t pair[2] = {0, 0};
    uint8_t dataType = DT_U32;
    std::vector<uint8_t> data;
};

struct Item {
    uint8_t type;
    std::vector<uint8_t> bytes;
    uint32_t u32() const
    {
        uint32_t v = 0;
        memcpy(&v, bytes.data(), bytes.size() < 4 ? bytes.size() : 4);
        return v;
    }
};

struct Reply {
    int32_t rc = 0;
    std::vector<Item> items;
};

std::vector<uint8_t> u32_bytes(uint32_t v)
{
    std::vector<uint8_t> b(4);
    memcpy(b.data(), &v, 4);
    return b;
}

Request numeric(uint32_t func, uint32_t cmd, uint32_t value)
{
    Request r;
    r.func = func;
    r.cmd = cmd;
    r.dataType = DT_U32;
    r.data = u32_bytes(value);
    return r;
}

Request bytes_req(uint32_t func, uint32_t cmd, std::vector<uint8_t> bytes)
{
    Request r;
    r.func = func;
    r.cmd = cmd;
    r.dataType = DT_BYTES;
    r.data = std::move(bytes);
    return r;
}

struct Usage {
    std::string msg;
    std::string topic;
};
struct Abort {
    int status;
};

/* Encode a request; `dataPos` gets the offset where its data item starts,
 * which is where the reply's data item will be. */
std::vector<uint8_t> encode(const Request &r, uint32_t &dataPos)
{
    std::vector<uint8_t> buf(REQUEST_MAX);
    AdrBuf a;
    adr_start(&a, buf.data(), uint32_t(buf.size()));
    int bad = adr_encodefunc(&a, r.func) | adr_encoderetcode(&a, 0) | adr_encodecmd(&a, r.cmd);
    switch (index_kind(r.func)) {
    case IndexKind::global: {
        /* Global requests carry no index, yet the daemon reads one value. */
        int32_t unused = 0;
        bad |= adr_encodeindexheader(&a, 0) | adr_encodeindex(&a, IT_U32, &unused, 4);
        break;
    }
    case IndexKind::number:
        bad |= adr_encodeindexheader(&a, 1) | adr_encodeindex(&a, IT_U32, &r.index, 4);
        break;
    case IndexKind::key:
        bad |= adr_encodeindexheader(&a, 3) | adr_encodeindex(&a, IT_BYTES, &r.key[0], 1) |
               adr_encodeindex(&a, IT_BYTES, &r.key[1], 3) |
               adr_encodeindex(&a, IT_BYTES, &r.key[4], 16);
        break;
    case IndexKind::pair:
        bad |= adr_encodeindexheader(&a, 2) | adr_encodeindex(&a, IT_U32, &r.pair[0], 4) |
               adr_encodeindex(&a, IT_U32, &r.pair[1], 4);
        break;
    }
    dataPos = adr_count(&a);
    bad |= adr_encodedata(&a, r.dataType, uint16_t(r.data.size()), r.data.data());
    if (bad || r.data.size() > 0xFFFF)
        throw Usage{"the value is too long for one request", ""};
    buf.resize(adr_count(&a));
    return buf;
}

/* Read the result word and, on success, up to `want` data items at dataPos. */
bool decode_reply(std::vector<uint8_t> body, uint32_t func, uint32_t dataPos, int want,
                  Reply &out, std::string &why)
{
    AdrBuf a;
    adr_start(&a, body.data(), uint32_t(body.size()));
    uint32_t f = 0, cmd = 0;
    if (adr_decodefunc(&a, &f) || adr_decoderetcode(&a, &out.rc) || adr_decodecmd(&a, &cmd)) {
        why = "the reply's header words are malformed";
        return false;
    }
    if (f != func) {
        why = "the reply is for func " + std::to_string(f) + ", not " + std::to_string(func);
        return false;
    }
    out.items.clear();
    if (out.rc != 0 || want == 0)
        return true;
    if (adr_pos(&a, dataPos)) {
        why = "the reply ends before its data";
        return false;
    }
    for (int i = 0; i < want; i++) {
        uint8_t hdr = 0, type = 0;
        uint16_t len = 0;
        if (!adr_getchar(&a, &hdr, 1) || hdr != ADR_DATA_HEADER || !adr_getchar(&a, &type, 1) ||
            adr_getushort(&a, &len)) {
            why = "the reply's data item is malformed";
            return false;
        }
        Item it{type, std::vector<uint8_t>(len)};
        if (len && !adr_getchar(&a, it.bytes.data(), len)) {
            why = "the reply's data item runs past its end";
            return false;
        }
        out.items.push_back(std::move(it));
    }
    return true;
}

/* ------------------------------------------------------------------------ */
/* Output helpers                                                            */
/* ------------------------------------------------------------------------ */

std::string json_str(const std::string &s)
{
    std::string o = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            o += '\\';
            o += char(c);
        } else if (c < 0x20 || c >= 0x7f) {
            char b[8];
            snprintf(b, sizeof b, "\\u%04x", c);
            o += b;
        } else {
            o += char(c);
        }
    }
    return o + "\"";
}

/* Bytes of an option text for a terminal: quoted, non-printables escaped. */
std::string quoted(const uint8_t *p, size_t n)
{
    std::string o = "\"";
    for (size_t i = 0; i < n; i++) {
        unsigned char c = p[i];
        if (c == '"' || c == '\\') {
            o += '\\';
            o += char(c);
        } else if (c < 0x20 || c >= 0x7f) {
            char b[8];
            snprintf(b, sizeof b, "\\x%02x", c);
            o += b;
        } else {
            o += char(c);
        }
    }
    return o + "\"";
}

/* One JSON object, its members in the order they were added. */
class JsonObj {
public:
    JsonObj &num(const char *k, int64_t v) { return raw(k, std::to_string(v)); }
    JsonObj &str(const char *k, const std::string &v) { return raw(k, json_str(v)); }
    JsonObj &boolean(const char *k, bool v) { return raw(k, v ? "true" : "false"); }
    JsonObj &null(const char *k) { return raw(k, "null"); }
    JsonObj &raw(const char *k, const std::string &v)
    {
        body_ += (body_.empty() ? "" : ",") + json_str(k) + ":" + v;
        return *this;
    }
    std::string text() const { return "{" + body_ + "}"; }

private:
    std::string body_;
};

struct Table {
    std::vector<std::string> head;
    std::vector<std::vector<std::string>> rows;

    void print(FILE *out) const
    {
        std::vector<size_t> w;
        auto widen = [&](const std::vector<std::string> &r) {
            if (w.size() < r.size())
                w.resize(r.size(), 0);
            for (size_t i = 0; i < r.size(); i++)
                w[i] = std::max(w[i], r[i].size());
        };
        widen(head);
        for (auto &r : rows)
            widen(r);
        auto line = [&](const std::vector<std::string> &r) {
            std::string s;
            for (size_t i = 0; i < r.size(); i++) {
                s += r[i];
                if (i + 1 < r.size())
                    s += std::string(w[i] - r[i].size() + 2, ' ');
            }
            fprintf(out, "%s\n", s.c_str());
        };
        if (!head.empty())
            line(head);
        for (auto &r : rows)
            line(r);
    }
};

std::string ipv4_text(uint32_t hostOrder)
{
    struct in_addr in;
    in.s_addr = htonl(hostOrder);
    char b[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &in, b, sizeof b);
    return b;
}

std::string key_text(const Key &k)
{
    char b[INET6_ADDRSTRLEN];
    if (k[0] == 1)
        return inet_ntop(AF_INET, &k[4], b, sizeof b) ? b : "?";
    if (k[0] == 2)
        return inet_ntop(AF_INET6, &k[4], b, sizeof b) ? b : "?";
    return "type" + std::to_string(k[0]) + ":?";
}

std::string mac_text(const std::vector<uint8_t> &m)
{
    if (m.size() < 6)
        return "-";
    char b[20];
    snprintf(b, sizeof b, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
    return b;
}

const char *onoff(uint32_t v) { return v ? "on" : "off"; }

const char *version_text(uint32_t v)
{
    switch (v) {
    case 1:
        return "ipv4";
    case 2:
        return "ipv6";
    case 3:
        return "both";
    default:
        return "none";
    }
}

/* What the daemon does with a client frame that already has option 82. */
const char *policy_text(uint32_t v)
{
    switch (v & 3) {
    case 0:
        return "keep";
    case 1:
        return "drop";
    case 2:
        return "keep-default";
    default:
        return "append";
    }
}

const char *user_type_text(uint32_t t)
{
    switch (t) {
    case 1:
        return "dynamic";
    case 2:
        return "static";
    case 4:
        return "ipsg";
    default:
        return "other";
    }
}

const char *bind_state_text(uint32_t s)
{
    switch (s) {
    case 1:
        return "bound";
    case 2:
    case 3:
        return "unbound";
    case 4:
        return "requested";
    default:
        return "unknown";
    }
}

constexpr uint32_t LEASE_INFINITE = 0xFFFFFFFFu;
constexpr size_t TEXT_MAX = 128;
/* Room asked for when reading an option text back (typed form included). */
constexpr uint16_t TEXT_ROOM = TEXT_MAX + 2;
/* Room for the three pieces of a user key in an iteration reply. */
constexpr uint16_t KEY_ROOM = (4 + 1) + (4 + 3) + (4 + 16) - 4;
/* Room for the two words of a server-ip key in an iteration reply. */
constexpr uint16_t PAIR_ROOM = 2 * (4 + 4) - 4;
/* No listing walks further than this; a daemon answering in a circle would
 * otherwise keep the front end busy for ever. */
constexpr size_t WALK_MAX = 1u << 20;

/* ------------------------------------------------------------------------ */
/* Argument parsing                                                          */
/* ------------------------------------------------------------------------ */

class Args {
public:
    Args(std::vector<std::string> w, std::string topic) : w_(std::move(w)), topic_(std::move(topic))
    {}
    bool more() const { return i_ < w_.size(); }
    const std::string &peek() const
    {
        static const std::string empty;
        return more() ? w_[i_] : empty;
    }
    std::string next(const char *what)
    {
        if (!more())
            throw Usage{std::string("missing ") + what, topic_};
        return w_[i_++];
    }
    void done() const
    {
        if (more())
            throw Usage{"unexpected '" + w_[i_] + "'", topic_};
    }
    const std::string &topic() const { return topic_; }

private:
    std::vector<std::string> w_;
    std::string topic_;
    size_t i_ = 0;
};

uint32_t parse_u32(const std::string &s, uint32_t lo, uint32_t hi, const char *what,
                   const std::string &topic)
{
    const char *p = s.c_str();
    char *end = nullptr;
    errno = 0;
    unsigned long long v = (*p >= '0' && *p <= '9') ? strtoull(p, &end, 0) : 0;
    if (!end || *end || errno || v < lo || v > hi)
        throw Usage{std::string(what) + " must be a number from " + std::to_string(lo) + " to " +
                        std::to_string(hi) + ", not '" + s + "'",
                    topic};
    return uint32_t(v);
}

bool parse_onoff(const std::string &s, const std::string &topic)
{
    if (s == "on" || s == "enable" || s == "yes" || s == "1")
        return true;
    if (s == "off" || s == "disable" || s == "no" || s == "0")
        return false;
    throw Usage{"expected on or off, not '" + s + "'", topic};
}

uint32_t parse_ipv4(const std::string &s, const std::string &topic)
{
    struct in_addr in;
    if (inet_pton(AF_INET, s.c_str(), &in) != 1)
        throw Usage{"'" + s + "' is not an IPv4 address", topic};
    return ntohl(in.s_addr);
}

Key parse_ip_key(const std::string &s, const std::string &topic)
{
    Key k{};
    if (inet_pton(AF_INET, s.c_str(), &k[4]) == 1) {
        k[0] = 1;
        return k;
    }
    if (inet_pton(AF_INET6, s.c_str(), &k[4]) == 1) {
        k[0] = 2;
        return k;
    }
    throw Usage{"'" + s + "' is not an IPv4 or IPv6 address", topic};
}

std::vector<uint8_t> parse_mac(const std::string &s, const std::string &topic)
{
    std::vector<uint8_t> m;
    size_t i = 0;
    auto hex = [](char c) -> int {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return -1;
    };
    while (m.size() < 6) {
        if (i + 2 > s.size() || hex(s[i]) < 0 || hex(s[i + 1]) < 0)
            break;
        m.push_back(uint8_t(hex(s[i]) * 16 + hex(s[i + 1])));
        i += 2;
        if (m.size() < 6) {
            if (i >= s.size() || (s[i] != ':' && s[i] != '-'))
                break;
            i++;
        }
    }
    if (m.size() != 6 || i != s.size())
        throw Usage{"'" + s + "' is not a MAC address (aa:bb:cc:dd:ee:ff)", topic};
    return m;
}

std::vector<uint8_t> parse_hex(const std::string &s, const std::string &topic)
{
    std::vector<uint8_t> b;
    std::string d;
    for (char c : s)
        if (c != ':' && c != ' ')
            d += c;
    if (d.size() % 2)
        throw Usage{"hex bytes must come in pairs of digits", topic};
    for (size_t i = 0; i < d.size(); i += 2) {
        char pair[3] = {d[i], d[i + 1], 0};
        char *end = nullptr;
        unsigned long v = strtoul(pair, &end, 16);
        if (*end || !isxdigit(static_cast<unsigned char>(pair[0])))
            throw Usage{"'" + s + "' is not a string of hex bytes", topic};
        b.push_back(uint8_t(v));
    }
    return b;
}

std::vector<uint8_t> text_bytes(const std::string &s, const std::string &topic)
{
    if (s.size() > TEXT_MAX)
        throw Usage{"a text holds at most " + std::to_string(TEXT_MAX) + " bytes", topic};
    return std::vector<uint8_t>(s.begin(), s.end());
}

/* ------------------------------------------------------------------------ */
/* The session: options in force and the request/reply round trip           */
/* ------------------------------------------------------------------------ */

using Hints = std::initializer_list<std::pair<uint32_t, const char *>>;

class Session {
public:
    Session(FILE *out, FILE *err) : out(out), err(err) {}

    FILE *out;
    FILE *err;
    std::string path;
    int timeoutMs = DEFAULT_TIMEOUT_MS;
    bool json = false;
    bool sync = false;
    bool numeric = false;

    uint32_t setFunc(uint32_t setF) const
    {
        /* Each Set has a twin that the daemon serves alike. */
        return sync ? setF + 1 : setF;
    }

    /* With `keep` the connection stays open for the next request (the pages
     * of one listing); drop it with `held.reset()`. */
    Reply call(const Request &r, int want, const std::string &what, bool keep = false)
    {
        uint32_t dataPos = 0;
        std::vector<uint8_t> req = encode(r, dataPos);
        std::vector<uint8_t> body;
        std::string detail;
        if (!keep)
            held.reset();
        Xfer x = g_transport ? g_transport(path.c_str(), timeoutMs, req.data(),
                                           uint32_t(req.size()), body, detail)
                             : exchange_held(held, path.c_str(), timeoutMs, req.data(),
                                             uint32_t(req.size()), body, detail);
        if (x == Xfer::ok) {
            Reply rep;
            std::string why;
            if (decode_reply(std::move(body), r.func, dataPos, want, rep, why))
                return rep;
            x = Xfer::bad_reply;
            detail = why;
        }
        const char *lead = "";
        switch (x) {
        case Xfer::not_running:
            lead = "the daemon is not running";
            break;
        case Xfer::timeout:
            lead = "timed out";
            break;
        case Xfer::rejected:
            lead = "the daemon rejected the request";
            break;
        case Xfer::denied:
            lead = detail.c_str();
            break;
        case Xfer::bad_reply:
            lead = "bad reply";
            break;
        default:
            lead = "cannot talk to the daemon";
            break;
        }
        std::string d = detail.empty() || detail == lead ? "" : " (" + detail + ")";
        fprintf(err, "dhcpsnoopctl: %s: %s%s\n", what.c_str(), lead, d.c_str());
        throw Abort{EXIT_COMM};
    }

    void fail(const std::string &what, int32_t rc, Hints hints = {})
    {
        char code[16];
        if (uint32_t(rc) >= 0x10000 && rc > 0)
            snprintf(code, sizeof code, "0x%X", unsigned(rc));
        else
            snprintf(code, sizeof code, "%d", rc);
        std::string hint;
        for (auto &h : hints)
            if (h.first == uint32_t(rc))
                hint = std::string("; ") + h.second;
        fprintf(err, "dhcpsnoopctl: %s: %s (%s)%s\n", what.c_str(), result_text(rc).c_str(), code,
                hint.c_str());
        throw Abort{EXIT_RESULT};
    }

    Reply must(const Request &r, int want, const std::string &what, Hints hints = {})
    {
        Reply rep = call(r, want, what);
        if (rep.rc != 0)
            fail(what, rep.rc, hints);
        return rep;
    }

    uint32_t get_u32(Request r, const std::string &what, Hints hints = {})
    {
        r.dataType = DT_U32;
        r.data = u32_bytes(0);
        Reply rep = must(r, 1, what, hints);
        if (rep.items[0].bytes.size() != 4) {
            fprintf(err, "dhcpsnoopctl: %s: bad reply (value of %zu bytes)\n", what.c_str(),
                    rep.items[0].bytes.size());
            throw Abort{EXIT_COMM};
        }
        return rep.items[0].u32();
    }

    /* A value read with room for `room` bytes; rc is left to the caller. */
    Reply get_bytes(Request r, uint16_t room, const std::string &what)
    {
        r.dataType = DT_BYTES;
        r.data.assign(room, 0);
        return call(r, 1, what);
    }

    void ifname_into(JsonObj &o, uint32_t ifIndex) const
    {
        const std::string &n = known_name(ifIndex);
        if (!n.empty())
            o.str("interface", n);
        else
            o.null("interface");
        o.num("ifindex", ifIndex);
    }

    std::string ifname(uint32_t ifIndex) const
    {
        const std::string &n = known_name(ifIndex);
        return n.empty() ? std::to_string(ifIndex) : n;
    }

    std::unique_ptr<Fd> held;

private:
    /* The kernel is asked once per interface, not once per row. */
    mutable std::map<uint32_t, std::string> names_;
    const std::string &known_name(uint32_t ifIndex) const
    {
        auto it = names_.find(ifIndex);
        if (it != names_.end())
            return it->second;
        char b[IF_NAMESIZE];
        return names_[ifIndex] = !numeric && if_indextoname(ifIndex, b) ? b : "";
    }
};

uint32_t parse_if(const std::string &s, const std::string &topic)
{
    if (!s.empty() && s.find_first_not_of("0123456789") == std::string::npos)
        return parse_u32(s, 1, 0x7FFFFFFF, "an interface index", topic);
    unsigned idx = if_nametoindex(s.c_str());
    if (idx == 0)
        throw Usage{"no interface named '" + s + "' (give its name or index)", topic};
    return idx;
}

/* ------------------------------------------------------------------------ */
/* Help                                                                      */
/* ------------------------------------------------------------------------ */

const char *const HELP_TOP =
    "Usage: dhcpsnoopctl [OPTIONS] COMMAND ...\n"
    "\n"
    "Configure and inspect the DHCP snooping daemon.\n"
    "\n"
    "Commands:\n"
    "  global      switch-wide settings            (dhcpsnoopctl global --help)\n"
    "  interface   per-interface settings          (dhcpsnoopctl interface --help)\n"
    "  vlan        per-VLAN settings               (dhcpsnoopctl vlan --help)\n"
    "  binding     the IP/MAC binding table        (dhcpsnoopctl binding --help)\n"
    "  server-ip   relay server addresses          (dhcpsnoopctl server-ip --help)\n"
    "\n"
    "Options (anywhere before a lone '--'):\n"
    "  --socket PATH    the daemon's socket (default $DHCPSNOOP_SOCKET, else\n"
    "                   /run/dhcpsnoop/dhcpsnoop.sock)\n"
    "  --timeout SECS   give up on the daemon after SECS seconds (default 5)\n"
    "  --json           print answers as JSON\n"
    "  -n, --numeric    show interface indexes, not names\n"
    "  --sync           send changes as synchronisation requests\n"
    "  -h, --help       this text; after a command, that command's help\n"
    "\n"
    "Interfaces are given by name or index (a number is an index).\n"
    "Exit status: 0 success, 1 the daemon refused (its reason is printed),\n"
    "2 usage error, 3 the daemon could not be reached or did not answer.\n";

const char *const HELP_GLOBAL =
    "Usage: dhcpsnoopctl global COMMAND\n"
    "\n"
    "  global show                     the switch-wide settings\n"
    "  global enable on|off            snooping on the whole switch (off flushes\n"
    "                                  bindings, servers and interface settings)\n"
    "  global enterprise-number N      private enterprise number used in options\n"
    "  global hw-notify on|off         install bindings in hardware\n"
    "  global server-learn on|off      learn DHCP servers from their replies\n"
    "  global binding-guard on|off     keep bound clients' entries from other ports and MACs\n"
    "  global clear-statistics         zero the drop counters of every interface\n"
    "  global debug N|off|info|dump|all  debug flags (1 info, 2 dump)\n"
    "  global sync-packet HEX          hand a synchronisation packet to the daemon\n";

const char *const HELP_INTERFACE =
    "Usage: dhcpsnoopctl interface show\n"
    "       dhcpsnoopctl interface IF COMMAND\n"
    "\n"
    "  interface show                  every interface with snooping on\n"
    "  interface IF show               settings and drop counters of one interface\n"
    "  interface IF enable on|off      snooping on the interface\n"
    "  interface IF trust on|off       accept server replies on the interface\n"
    "  interface IF version ipv4|ipv6|both   (a change leaves the port untrusted)\n"
    "  interface IF option82 on|off\n"
    "  interface IF option82 policy keep|drop|keep-default|append|0-3\n"
    "                                  what to do with requests that carry option 82\n"
    "  interface IF option82 format N  circuit-id mode of the port (0-15, 0 global)\n"
    "  interface IF option82 circuit-id text TEXT\n"
    "  interface IF option82 circuit-id typed TYPE TEXT\n"
    "  interface IF option82 circuit-id format N   (3 typed, 4 raw, 5 template)\n"
    "  interface IF option82 remote-id text TEXT | typed TYPE TEXT | format N\n"
    "  interface IF option82 subopt9 on|off | text TEXT\n"
    "  interface IF option18 on|off | text TEXT | typed TYPE TEXT | format N\n"
    "  interface IF option37 on|off | text TEXT | typed TYPE TEXT | format N\n"
    "  interface IF max-users N        most dynamic bindings on the interface\n"
    "  interface IF relay-address A.B.C.D|none\n"
    "  interface IF clear-statistics   zero the drop counters\n"
    "  interface IF set CMD VALUE      set a numeric attribute by its number\n"
    "  interface IF get CMD            read a numeric attribute by its number\n"
    "\n"
    "Texts hold at most 128 bytes.  Under format 3 or 4 a text is stored in the\n"
    "typed form: 'text' sends it with type 1, 'typed' with the type given.\n";

const char *const HELP_VLAN =
    "Usage: dhcpsnoopctl vlan show\n"
    "       dhcpsnoopctl vlan VID COMMAND       (VID 1-4094)\n"
    "\n"
    "  vlan show                       every VLAN with snooping on\n"
    "  vlan VID show                   the VLAN's user limit\n"
    "  vlan VID enable on|off          snooping on the VLAN's interface\n"
    "  vlan VID max-users N            most dynamic bindings in the VLAN\n";

const char *const HELP_BINDING =
    "Usage: dhcpsnoopctl binding COMMAND\n"
    "\n"
    "  binding show [IP]               all bindings, or one\n"
    "  binding show [--interface IF] [--vlan VID] [--count]\n"
    "                                  those on a port and/or in a VLAN, or their number\n"
    "  binding add IP mac MAC vlan VID interface IF [attribute N] [unbound]\n"
    "                                  create a static binding and bind it\n"
    "  binding set IP [mac MAC] [vlan VID] [interface IF] [attribute N]\n"
    "                                  change an unbound binding\n"
    "  binding bind IP                 make a binding effective\n"
    "  binding unbind IP               withdraw it (it becomes static, no expiry)\n"
    "  binding delete IP\n"
    "\n"
    "IP is an IPv4 or IPv6 address.\n";

const char *const HELP_SERVER =
    "Usage: dhcpsnoopctl server-ip COMMAND\n"
    "\n"
    "  server-ip show                  relay server addresses of every interface\n"
    "  server-ip add IF A.B.C.D        relay the interface's requests there (up to 3)\n"
    "  server-ip delete IF A.B.C.D\n"
    "  server-ip check IF A.B.C.D      exit 0 when the address is configured\n";

const char *help_for(const std::string &topic)
{
    if (topic == "global")
        return HELP_GLOBAL;
    if (topic == "interface")
        return HELP_INTERFACE;
    if (topic == "vlan")
        return HELP_VLAN;
    if (topic == "binding")
        return HELP_BINDING;
    if (topic == "server-ip")
        return HELP_SERVER;
    return HELP_TOP;
}

/* ------------------------------------------------------------------------ */
/* global                                                                    */
/* ------------------------------------------------------------------------ */

Request global_req(uint32_t func, uint32_t cmd, uint32_t value = 0)
{
    /* The index of a global request is ignored by the daemon. */
    return numeric(func, cmd, value);
}

int cmd_global(Session &s, Args &a)
{
    const std::string &t = a.topic();
    std::string what = a.next("a global command");
    auto set = [&](uint32_t cmd, uint32_t value, const std::string &label) {
        a.done();
        s.must(global_req(s.setFunc(F_GLOBAL_SET), cmd, value), 0, "global " + label);
        return EXIT_OK;
    };
    if (what == "show") {
        a.done();
        auto get = [&](uint32_t cmd, const char *label) {
            return s.get_u32(global_req(F_GLOBAL_GET, cmd), std::string("global show ") + label);
        };
        uint32_t enable = get(1, "enable"), pen = get(2, "enterprise-number"),
                 users = get(3, "users"), hw = get(4, "hw-notify"), learn = get(16, "server-learn"),
                 debug = get(20, "debug"), guard = get(21, "binding-guard");
        if (s.json) {
            JsonObj o;
            o.boolean("enable", enable & 0xFF)
                .num("enterprise_number", pen)
                .num("users", users)
                .boolean("hw_notify", hw & 0xFF)
                .boolean("server_learn", learn & 0xFF)
                .num("debug", debug & 0xFF)
                .boolean("binding_guard", guard & 0xFF);
            fprintf(s.out, "%s\n", o.text().c_str());
        } else {
            char dbg[16];
            snprintf(dbg, sizeof dbg, "0x%02x", debug & 0xFF);
            Table tb;
            tb.rows = {{"enable", onoff(enable & 0xFF)},
                       {"enterprise-number", std::to_string(pen)},
                       {"users", std::to_string(users)},
                       {"hw-notify", onoff(hw & 0xFF)},
                       {"server-learn", onoff(learn & 0xFF)},
                       {"debug", dbg},
                       {"binding-guard", onoff(guard & 0xFF)}};
            tb.print(s.out);
        }
        return EXIT_OK;
    }
    if (what == "enable")
        return set(1, parse_onoff(a.next("on or off"), t), what);
    if (what == "enterprise-number")
        return set(2, parse_u32(a.next("the enterprise number"), 0, 0xFFFFFFFF, "the enterprise number", t), what);
    if (what == "hw-notify")
        return set(4, parse_onoff(a.next("on or off"), t), what);
    if (what == "server-learn")
        return set(16, parse_onoff(a.next("on or off"), t), what);
    if (what == "binding-guard")
        return set(21, parse_onoff(a.next("on or off"), t), what);
    if (what == "clear-statistics")
        return set(17, 1, what);
    if (what == "debug") {
        std::string v = a.next("the debug flags");
        uint32_t flags = v == "off" ? 0 : v == "info" ? 1 : v == "dump" ? 2 : v == "all" ? 3
                                                        : parse_u32(v, 0, 255, "the debug flags", t);
        return set(20, flags, what);
    }
    if (what == "sync-packet") {
        std::vector<uint8_t> pkt = parse_hex(a.next("the packet bytes"), t);
        a.done();
        s.must(bytes_req(s.setFunc(F_GLOBAL_SET), 19, std::move(pkt)), 0, "global sync-packet");
        return EXIT_OK;
    }
    throw Usage{"unknown global command '" + what + "'", t};
}

/* ------------------------------------------------------------------------ */
/* interface                                                                 */
/* ------------------------------------------------------------------------ */

/* Interface attribute numbers. */
enum IfCmd : uint32_t {
    IF_ENABLE = 1, IF_VERSION = 2, IF_TRUST = 3, IF_OPT82 = 4, IF_CIRCUIT_ID = 5,
    IF_REMOTE_ID = 6, IF_SUBOPT9_TEXT = 7, IF_POLICY = 8, IF_SUBOPT9 = 9, IF_OPT82_MODE = 10,
    IF_OPT18 = 11, IF_OPT18_TEXT = 12, IF_OPT37 = 13, IF_OPT37_TEXT = 14, IF_FLAG16 = 16,
    IF_FLAG15 = 17, IF_MAX_USERS = 18, IF_CUR_USERS = 19, IF_FLAG14 = 20, IF_SETTING21 = 21,
    IF_DROP_MAC = 22, IF_DROP_BINDING = 23, IF_DROP_SERVER = 24, IF_CLEAR_STATS = 28,
    IF_CIRCUIT_FMT = 30, IF_REMOTE_FMT = 31, IF_OPT18_FMT = 32, IF_OPT37_FMT = 33, IF_RELAY = 34,
    IF_DROP_FULL = 35, IF_DROP_GUARD = 36,
    IF_HW_IPSG_DROPS = 40, IF_HW_DAI_DROPS = 41
};

Request if_req(uint32_t func, uint32_t ifIndex, uint32_t cmd, uint32_t value = 0)
{
    Request r = numeric(func, cmd, value);
    r.index = int32_t(ifIndex);
    return r;
}

const Hints IF_SET_HINTS = {
    {0x3E80002, "snooping is not enabled on the interface ('interface IF enable on')"}};

/* An option text of an interface and the format-mode attribute that decides
 * its form. */
struct TextOpt {
    const char *name;
    uint32_t textCmd;
    uint32_t fmtCmd; /* 0: always plain */
    uint32_t enableCmd;
    const char *needs;
};

constexpr TextOpt CIRCUIT_ID = {"circuit-id", IF_CIRCUIT_ID, IF_CIRCUIT_FMT, 0, "option82"};
constexpr TextOpt REMOTE_ID = {"remote-id", IF_REMOTE_ID, IF_REMOTE_FMT, 0, "option82"};
constexpr TextOpt SUBOPT9 = {"subopt9", IF_SUBOPT9_TEXT, 0, IF_SUBOPT9, "option82"};
constexpr TextOpt OPT18 = {"option18", IF_OPT18_TEXT, IF_OPT18_FMT, IF_OPT18, "option18"};
constexpr TextOpt OPT37 = {"option37", IF_OPT37_TEXT, IF_OPT37_FMT, IF_OPT37, "option37"};

bool typed_mode(uint32_t mode) { return mode == 3 || mode == 4; }

int if_set(Session &s, uint32_t ifIndex, uint32_t cmd, uint32_t value, const std::string &label,
           Hints hints = IF_SET_HINTS)
{
    s.must(if_req(s.setFunc(F_IF_SET), ifIndex, cmd, value), 0, label, hints);
    return EXIT_OK;
}

int if_set_text(Session &s, uint32_t ifIndex, uint32_t cmd, std::vector<uint8_t> value,
                const std::string &label, Hints hints)
{
    Request r = bytes_req(s.setFunc(F_IF_SET), cmd, std::move(value));
    r.index = int32_t(ifIndex);
    s.must(r, 0, label, hints);
    return EXIT_OK;
}

/* `... NAME on|off|text T|typed TYPE T|format N` for one option text. */
int if_text_option(Session &s, Args &a, uint32_t ifIndex, const TextOpt &opt,
                   const std::string &label)
{
    const std::string &t = a.topic();
    std::string sub = a.next("on, off, text, typed or format");
    std::string what = label + " " + sub;
    std::string need = std::string("is ") + opt.needs + " enabled on the interface?";
    if (opt.textCmd == IF_SUBOPT9_TEXT)
        need = "are option82 and its subopt9 enabled on the interface?";
    Hints textHints = {{0x3E80002, "snooping is not enabled on the interface"},
                       {0x3E80010, need.c_str()},
                       {0x3E8000D, "the daemon refused the text's length"}};
    if ((sub == "on" || sub == "off") && opt.enableCmd) {
        a.done();
        return if_set(s, ifIndex, opt.enableCmd, sub == "on", what,
                      {{0x3E80002, "snooping is not enabled on the interface"},
                       {0x3E80010, "option82 must be enabled first"}});
    }
    if (sub == "text") {
        std::vector<uint8_t> text = text_bytes(a.next("the text"), t);
        a.done();
        if (opt.fmtCmd) {
            uint32_t mode = s.get_u32(if_req(F_IF_GET, ifIndex, opt.fmtCmd),
                                      label + " format", IF_SET_HINTS);
            if (typed_mode(mode)) {
                /* Under the typed formats the daemon keeps type and length
                 * ahead of the text; type 1 marks an operator's text. */
                text.insert(text.begin(), {1, uint8_t(text.size())});
            }
        }
        return if_set_text(s, ifIndex, opt.textCmd, std::move(text), what, textHints);
    }
    if (sub == "typed" && opt.fmtCmd) {
        uint32_t type = parse_u32(a.next("the type byte"), 0, 255, "the type", t);
        std::vector<uint8_t> text = text_bytes(a.next("the text"), t);
        a.done();
        text.insert(text.begin(), {uint8_t(type), uint8_t(text.size())});
        return if_set_text(s, ifIndex, opt.textCmd, std::move(text), what, textHints);
    }
    if (sub == "format" && opt.fmtCmd) {
        uint32_t mode = parse_u32(a.next("the format mode"), 0, 255, "the format mode", t);
        a.done();
        return if_set(s, ifIndex, opt.fmtCmd, mode, what,
                      {{0x3E80002, "snooping is not enabled on the interface"},
                       {0x3E80010, need.c_str()},
                       {22, "format modes are 0 to 6"}});
    }
    throw Usage{"unknown " + std::string(opt.name) + " command '" + sub + "'", t};
}

/* One interface's settings as read from the daemon. */
struct IfState {
    uint32_t ifIndex;
    uint32_t version, trust, opt82, policy, subopt9, opt82Mode, opt18, opt37;
    uint32_t maxUsers, users, relay;
    uint32_t dropServer, dropMac, dropBinding, dropFull, dropGuard;
    uint32_t hwIpsgDrops, hwDaiDrops; /* dropped by the hardware's binding rules */
    uint32_t flag14, flag15, flag16, setting21;
    uint32_t fmt[4];
    std::string text[5]; /* circuit-id, remote-id, subopt9, option18, option37 */
    std::string textJson[5];
};

/* Render an option text read back: typed form under modes 3 and 4. */
void text_forms(const Reply &rep, bool typed, std::string &shown, std::string &json)
{
    if (rep.rc != 0) {
        shown = "(" + result_text(rep.rc) + ")";
        json = "null";
        return;
    }
    const std::vector<uint8_t> &b = rep.items[0].bytes;
    if (typed && b.size() >= 2) {
        size_t n = std::min<size_t>(b[1], b.size() - 2);
        shown = "type " + std::to_string(b[0]) + " " + quoted(b.data() + 2, n);
        json = JsonObj()
                   .num("type", b[0])
                   .str("text", std::string(b.begin() + 2, b.begin() + 2 + long(n)))
                   .text();
        return;
    }
    shown = b.empty() ? "-" : quoted(b.data(), b.size());
    json = json_str(std::string(b.begin(), b.end()));
}

IfState read_if(Session &s, uint32_t ifIndex, bool full)
{
    IfState st{};
    st.ifIndex = ifIndex;
    std::string lead = "interface " + s.ifname(ifIndex) + " show";
    auto get = [&](uint32_t cmd) {
        return s.get_u32(if_req(F_IF_GET, ifIndex, cmd), lead,
                         {{0x3E80002, "snooping is not enabled on the interface"}});
    };
    st.version = get(IF_VERSION);
    st.trust = get(IF_TRUST);
    st.opt82 = get(IF_OPT82);
    st.maxUsers = get(IF_MAX_USERS);
    st.users = get(IF_CUR_USERS);
    st.relay = get(IF_RELAY);
    st.dropServer = get(IF_DROP_SERVER);
    st.dropMac = get(IF_DROP_MAC);
    st.dropBinding = get(IF_DROP_BINDING);
    st.hwIpsgDrops = get(IF_HW_IPSG_DROPS);
    st.hwDaiDrops = get(IF_HW_DAI_DROPS);
    if (!full)
        return st;
    st.dropFull = get(IF_DROP_FULL);
    st.dropGuard = get(IF_DROP_GUARD);
    st.policy = get(IF_POLICY);
    st.subopt9 = get(IF_SUBOPT9);
    st.opt82Mode = get(IF_OPT82_MODE);
    st.opt18 = get(IF_OPT18);
    st.opt37 = get(IF_OPT37);
    st.flag16 = get(IF_FLAG16);
    st.flag15 = get(IF_FLAG15);
    st.flag14 = get(IF_FLAG14);
    st.setting21 = get(IF_SETTING21);
    const uint32_t fmtCmds[4] = {IF_CIRCUIT_FMT, IF_REMOTE_FMT, IF_OPT18_FMT, IF_OPT37_FMT};
    for (int i = 0; i < 4; i++)
        st.fmt[i] = get(fmtCmds[i]);
    const uint32_t textCmds[5] = {IF_CIRCUIT_ID, IF_REMOTE_ID, IF_SUBOPT9_TEXT, IF_OPT18_TEXT,
                                  IF_OPT37_TEXT};
    const int fmtOf[5] = {0, 1, -1, 2, 3};
    for (int i = 0; i < 5; i++) {
        Reply rep = s.get_bytes(if_req(F_IF_GET, ifIndex, textCmds[i]), TEXT_ROOM, lead);
        text_forms(rep, fmtOf[i] >= 0 && typed_mode(st.fmt[fmtOf[i]]), st.text[i], st.textJson[i]);
    }
    return st;
}

std::string relay_text(uint32_t a) { return a ? ipv4_text(a) : "-"; }

std::string if_json(const Session &s, const IfState &st, bool full)
{
    JsonObj o;
    s.ifname_into(o, st.ifIndex);
    o.str("version", version_text(st.version))
        .boolean("trust", st.trust)
        .boolean("option82", st.opt82)
        .num("max_users", st.maxUsers)
        .num("users", st.users);
    if (st.relay)
        o.str("relay_address", ipv4_text(st.relay));
    else
        o.null("relay_address");
    JsonObj drops;
    drops.num("untrusted_server", st.dropServer)
        .num("mac_mismatch", st.dropMac)
        .num("binding_mismatch", st.dropBinding);
    if (full)
        drops.num("table_full", st.dropFull).num("binding_guard", st.dropGuard);
    o.raw("drops", drops.text());
    o.raw("hardware_drops", JsonObj()
                                .num("source_guard", st.hwIpsgDrops)
                                .num("arp_inspection", st.hwDaiDrops)
                                .text());
    if (!full)
        return o.text();
    o.raw("option82_settings", JsonObj()
                                   .str("policy", policy_text(st.policy))
                                   .num("policy_value", st.policy)
                                   .num("format", st.opt82Mode)
                                   .num("circuit_id_format", st.fmt[0])
                                   .raw("circuit_id", st.textJson[0])
                                   .num("remote_id_format", st.fmt[1])
                                   .raw("remote_id", st.textJson[1])
                                   .boolean("subopt9", st.subopt9)
                                   .raw("subopt9_text", st.textJson[2])
                                   .text());
    o.raw("option18", JsonObj()
                          .boolean("enable", st.opt18)
                          .num("format", st.fmt[2])
                          .raw("text", st.textJson[3])
                          .text());
    o.raw("option37", JsonObj()
                          .boolean("enable", st.opt37)
                          .num("format", st.fmt[3])
                          .raw("text", st.textJson[4])
                          .text());
    o.num("setting14", st.flag14).num("setting15", st.flag15).num("setting16", st.flag16);
    o.num("setting21", st.setting21);
    return o.text();
}

int if_show_one(Session &s, uint32_t ifIndex)
{
    IfState st = read_if(s, ifIndex, true);
    if (s.json) {
        fprintf(s.out, "%s\n", if_json(s, st, true).c_str());
        return EXIT_OK;
    }
    char policy[32];
    snprintf(policy, sizeof policy, "%s (%u)", policy_text(st.policy), st.policy);
    Table tb;
    tb.rows = {
        {"interface", s.ifname(ifIndex) + " (index " + std::to_string(ifIndex) + ")"},
        {"version", version_text(st.version)},
        {"trust", onoff(st.trust)},
        {"option82", onoff(st.opt82)},
        {"  policy", policy},
        {"  format", std::to_string(st.opt82Mode)},
        {"  circuit-id", st.text[0] + " (format " + std::to_string(st.fmt[0]) + ")"},
        {"  remote-id", st.text[1] + " (format " + std::to_string(st.fmt[1]) + ")"},
        {"  subopt9", std::string(onoff(st.subopt9)) + " " + st.text[2]},
        {"option18", std::string(onoff(st.opt18)) + " " + st.text[3] + " (format " +
                         std::to_string(st.fmt[2]) + ")"},
        {"option37", std::string(onoff(st.opt37)) + " " + st.text[4] + " (format " +
                         std::to_string(st.fmt[3]) + ")"},
        {"max-users", std::to_string(st.maxUsers)},
        {"users", std::to_string(st.users)},
        {"relay-address", relay_text(st.relay)},
        {"settings 14/15/16/21", std::to_string(st.flag14) + " " + std::to_string(st.flag15) +
                                     " " + std::to_string(st.flag16) + " " +
                                     std::to_string(st.setting21)},
        {"drops untrusted-server", std::to_string(st.dropServer)},
        {"drops mac-mismatch", std::to_string(st.dropMac)},
        {"drops binding-mismatch", std::to_string(st.dropBinding)},
        {"drops table-full", std::to_string(st.dropFull)},
        {"drops binding-guard", std::to_string(st.dropGuard)},
        {"hardware-drops source-guard", std::to_string(st.hwIpsgDrops)},
        {"hardware-drops arp-inspection", std::to_string(st.hwDaiDrops)},
    };
    tb.print(s.out);
    return EXIT_OK;
}

/* Walk an index-numbered table (interfaces or VLANs) with GetFirst/GetNext. */
std::vector<uint32_t> walk_numbers(Session &s, uint32_t firstF, uint32_t nextF,
                                   const std::string &what)
{
    std::vector<uint32_t> found;
    Request r = numeric(firstF, 0, 0);
    for (;;) {
        Reply rep = s.call(r, 1, what);
        if (rep.rc == -1)
            break;
        if (rep.rc != 0)
            s.fail(what, rep.rc);
        uint32_t v = rep.items[0].u32();
        /* Each step must move forward; anything else would loop. */
        if ((!found.empty() && v <= found.back()) || found.size() >= WALK_MAX) {
            fprintf(s.err, "dhcpsnoopctl: %s: the daemon's list does not advance at %u\n",
                    what.c_str(), v);
            throw Abort{EXIT_COMM};
        }
        found.push_back(v);
        r = numeric(nextF, 0, 0);
        r.index = int32_t(v);
    }
    return found;
}

int if_show_all(Session &s)
{
    std::vector<IfState> all;
    for (uint32_t idx : walk_numbers(s, F_IF_FIRST, F_IF_NEXT, "interface show"))
        all.push_back(read_if(s, idx, false));
    if (s.json) {
        std::string o = "[";
        for (size_t i = 0; i < all.size(); i++)
            o += (i ? "," : "") + if_json(s, all[i], false);
        fprintf(s.out, "%s]\n", o.c_str());
        return EXIT_OK;
    }
    if (all.empty()) {
        fprintf(s.out, "No interface has snooping enabled.\n");
        return EXIT_OK;
    }
    Table tb;
    tb.head = {"Interface", "Index", "Version", "Trust", "Opt82", "MaxUsers", "Users",
               "Relay",     "DropSrv", "DropMac", "DropBind"};
    for (auto &st : all)
        tb.rows.push_back({s.ifname(st.ifIndex), std::to_string(st.ifIndex),
                           version_text(st.version), onoff(st.trust), onoff(st.opt82),
                           std::to_string(st.maxUsers), std::to_string(st.users),
                           relay_text(st.relay), std::to_string(st.dropServer),
                           std::to_string(st.dropMac), std::to_string(st.dropBinding)});
    tb.print(s.out);
    return EXIT_OK;
}

uint32_t parse_policy(const std::string &v, const std::string &t)
{
    if (v == "keep")
        return 0;
    if (v == "drop")
        return 1;
    if (v == "keep-default")
        return 2;
    if (v == "append")
        return 3;
    return parse_u32(v, 0, 3, "the policy", t);
}

int cmd_interface(Session &s, Args &a)
{
    const std::string &t = a.topic();
    std::string name = a.next("an interface or 'show'");
    if (name == "show") {
        a.done();
        return if_show_all(s);
    }
    uint32_t ifIndex = parse_if(name, t);
    std::string what = a.next("an interface command");
    std::string label = "interface " + name + " " + what;
    if (what == "show") {
        a.done();
        return if_show_one(s, ifIndex);
    }
    auto flag = [&](uint32_t cmd) {
        bool on = parse_onoff(a.next("on or off"), t);
        a.done();
        return if_set(s, ifIndex, cmd, on, label);
    };
    if (what == "enable") {
        bool on = parse_onoff(a.next("on or off"), t);
        a.done();
        const std::string notPort = name + " is not a port of the switch";
        return if_set(s, ifIndex, IF_ENABLE, on, label, {{0x3E80002, notPort.c_str()}});
    }
    if (what == "trust")
        return flag(IF_TRUST);
    if (what == "version") {
        std::string v = a.next("ipv4, ipv6 or both");
        a.done();
        uint32_t ver = v == "ipv4" ? 1 : v == "ipv6" ? 2 : v == "both" ? 3 : 0;
        if (!ver)
            throw Usage{"the version is ipv4, ipv6 or both, not '" + v + "'", t};
        return if_set(s, ifIndex, IF_VERSION, ver, label);
    }
    if (what == "option82") {
        std::string sub = a.peek();
        if (sub == "on" || sub == "off")
            return flag(IF_OPT82);
        Hints need82 = {{0x3E80002, "snooping is not enabled on the interface"},
                        {0x3E80010, "is option82 enabled on the interface?"}};
        if (sub == "policy") {
            a.next("policy");
            uint32_t p = parse_policy(a.next("the policy"), t);
            a.done();
            return if_set(s, ifIndex, IF_POLICY, p, label + " policy", need82);
        }
        if (sub == "format") {
            a.next("format");
            uint32_t m = parse_u32(a.next("the format mode"), 0, 15, "the format mode", t);
            a.done();
            return if_set(s, ifIndex, IF_OPT82_MODE, m, label + " format");
        }
        std::string opt = a.next("on, off, policy, format, circuit-id, remote-id or subopt9");
        if (opt == "circuit-id")
            return if_text_option(s, a, ifIndex, CIRCUIT_ID, label + " " + opt);
        if (opt == "remote-id")
            return if_text_option(s, a, ifIndex, REMOTE_ID, label + " " + opt);
        if (opt == "subopt9")
            return if_text_option(s, a, ifIndex, SUBOPT9, label + " " + opt);
        throw Usage{"unknown option82 command '" + opt + "'", t};
    }
    if (what == "option18")
        return if_text_option(s, a, ifIndex, OPT18, label);
    if (what == "option37")
        return if_text_option(s, a, ifIndex, OPT37, label);
    if (what == "max-users") {
        uint32_t n = parse_u32(a.next("the number of users"), 0, 65535, "max-users", t);
        a.done();
        return if_set(s, ifIndex, IF_MAX_USERS, n, label);
    }
    if (what == "relay-address") {
        std::string v = a.next("an IPv4 address or none");
        a.done();
        return if_set(s, ifIndex, IF_RELAY, v == "none" ? 0 : parse_ipv4(v, t), label);
    }
    if (what == "clear-statistics") {
        a.done();
        return if_set(s, ifIndex, IF_CLEAR_STATS, 1, label);
    }
    if (what == "set") {
        uint32_t cmd = parse_u32(a.next("the attribute number"), 0, 0xFFFFFFFF, "the attribute", t);
        uint32_t v = parse_u32(a.next("the value"), 0, 0xFFFFFFFF, "the value", t);
        a.done();
        return if_set(s, ifIndex, cmd, v, label + " " + std::to_string(cmd));
    }
    if (what == "get") {
        uint32_t cmd = parse_u32(a.next("the attribute number"), 0, 0xFFFFFFFF, "the attribute", t);
        a.done();
        uint32_t v = s.get_u32(if_req(F_IF_GET, ifIndex, cmd), label + " " + std::to_string(cmd));
        if (s.json)
            fprintf(s.out, "%s\n", JsonObj().num("value", v).text().c_str());
        else
            fprintf(s.out, "%u\n", v);
        return EXIT_OK;
    }
    throw Usage{"unknown interface command '" + what + "'", t};
}

/* ------------------------------------------------------------------------ */
/* vlan                                                                      */
/* ------------------------------------------------------------------------ */

constexpr uint32_t VLAN_MAX_USERS = 1, VLAN_ENABLE = 3;

Request vlan_req(uint32_t func, uint32_t vid, uint32_t cmd, uint32_t value = 0)
{
    Request r = numeric(func, cmd, value);
    r.index = int32_t(vid);
    return r;
}

int cmd_vlan(Session &s, Args &a)
{
    const std::string &t = a.topic();
    std::string first = a.next("a VLAN id or 'show'");
    Hints hints = {{0xFFFFFFFFu, "the VLAN has no interface on this switch"},
                   {0x3E80002, "snooping is not enabled on the VLAN"},
                   {22, "VLAN ids are 1 to 4094"}};
    if (first == "show") {
        a.done();
        std::vector<std::pair<uint32_t, uint32_t>> rows;
        for (uint32_t vid : walk_numbers(s, F_VLAN_FIRST, F_VLAN_NEXT, "vlan show"))
            rows.push_back({vid, s.get_u32(vlan_req(F_VLAN_GET, vid, VLAN_MAX_USERS),
                                           "vlan " + std::to_string(vid) + " show", hints)});
        if (s.json) {
            std::string o = "[";
            for (size_t i = 0; i < rows.size(); i++)
                o += (i ? "," : "") +
                     JsonObj().num("vlan", rows[i].first).num("max_users", rows[i].second).text();
            fprintf(s.out, "%s]\n", o.c_str());
        } else if (rows.empty()) {
            fprintf(s.out, "No VLAN has snooping enabled.\n");
        } else {
            Table tb;
            tb.head = {"VLAN", "MaxUsers"};
            for (auto &r : rows)
                tb.rows.push_back({std::to_string(r.first), std::to_string(r.second)});
            tb.print(s.out);
        }
        return EXIT_OK;
    }
    uint32_t vid = parse_u32(first, 1, 4094, "the VLAN id", t);
    std::string what = a.next("a VLAN command");
    std::string label = "vlan " + first + " " + what;
    if (what == "show") {
        a.done();
        uint32_t n = s.get_u32(vlan_req(F_VLAN_GET, vid, VLAN_MAX_USERS), label, hints);
        if (s.json)
            fprintf(s.out, "%s\n", JsonObj().num("vlan", vid).num("max_users", n).text().c_str());
        else
            Table{{}, {{"vlan", std::to_string(vid)}, {"max-users", std::to_string(n)}}}.print(s.out);
        return EXIT_OK;
    }
    uint32_t cmd, value;
    if (what == "enable") {
        cmd = VLAN_ENABLE;
        value = parse_onoff(a.next("on or off"), t);
    } else if (what == "max-users") {
        cmd = VLAN_MAX_USERS;
        value = parse_u32(a.next("the number of users"), 0, 65535, "max-users", t);
    } else {
        throw Usage{"unknown vlan command '" + what + "'", t};
    }
    a.done();
    s.must(vlan_req(F_VLAN_SET, vid, cmd, value), 0, label, hints);
    return EXIT_OK;
}

/* ------------------------------------------------------------------------ */
/* binding                                                                   */
/* ------------------------------------------------------------------------ */

enum UserCmd : uint32_t {
    U_VLAN = 1, U_IFINDEX = 2, U_ATTR = 4, U_MAC = 5, U_LEASE = 6, U_ELAPSED = 7, U_TYPE = 8,
    U_ACTION = 9
};
enum BindAction : uint32_t { BIND = 1, UNBIND = 2, CREATE = 4, REMOVE = 6 };

Request user_req(uint32_t func, const Key &k, uint32_t cmd, uint32_t value = 0)
{
    Request r = numeric(func, cmd, value);
    r.key = k;
    return r;
}

const Hints USER_HINTS = {{0x3E80002, "no binding for that address"},
                          {0x3E80003, "a binding for that address exists already, or it is an "
                                      "IP source guard binding"},
                          {0x3E8000C, "unbind it first ('binding unbind IP')"},
                          {12, "the binding table is full"}};

struct Binding {
    Key key;
    std::vector<uint8_t> mac;
    uint32_t vid, ifIndex, type, state, lease, elapsed, attr;
};

/* Read one binding; false when it vanished meanwhile. */
bool read_binding(Session &s, const Key &k, Binding &b, bool mustExist)
{
    std::string what = "binding show " + key_text(k);
    b.key = k;
    Reply mac = s.get_bytes(user_req(F_USER_GET, k, U_MAC), 6, what);
    if (mac.rc == 0x3E80002 && !mustExist)
        return false;
    if (mac.rc != 0)
        s.fail(what, mac.rc, USER_HINTS);
    b.mac = mac.items[0].bytes;
    auto get = [&](uint32_t cmd) { return s.get_u32(user_req(F_USER_GET, k, cmd), what, USER_HINTS); };
    b.vid = get(U_VLAN);
    b.ifIndex = get(U_IFINDEX);
    b.type = get(U_TYPE);
    b.state = get(U_ACTION);
    b.lease = get(U_LEASE);
    b.elapsed = get(U_ELAPSED);
    b.attr = get(U_ATTR);
    return true;
}

/* Room for the answer of one page: as many records as a request can carry. */
constexpr uint16_t PAGE_HEAD = 8, PAGE_RECORD = 48;
constexpr uint16_t PAGE_ROOM =
    PAGE_HEAD + (REQUEST_MAX - 26 - (3 * 3 + 20) - 4 - PAGE_HEAD) / PAGE_RECORD * PAGE_RECORD;

/* Every binding (on that port and in that VLAN when given), a page per
 * request, all on one connection. */
std::vector<Binding> list_bindings(Session &s, uint32_t ifIndex, uint32_t vid)
{
    std::vector<Binding> list;
    std::vector<uint8_t> room(PAGE_ROOM, 0);
    memcpy(&room[0], &ifIndex, 4);
    memcpy(&room[4], &vid, 4);
    Request r = bytes_req(F_USER_PAGE, 0, room);
    for (;;) {
        Reply rep = s.call(r, 1, "binding show", true);
        if (rep.rc != 0)
            s.fail("binding show", rep.rc);
        const std::vector<uint8_t> &v = rep.items[0].bytes;
        uint32_t n = 0, more = 0;
        if (v.size() >= PAGE_HEAD) {
            memcpy(&n, &v[0], 4);
            memcpy(&more, &v[4], 4);
        }
        if (v.size() < PAGE_HEAD || n > (v.size() - PAGE_HEAD) / PAGE_RECORD) {
            fprintf(s.err, "dhcpsnoopctl: binding show: bad reply (page of %zu bytes)\n",
                    v.size());
            throw Abort{EXIT_COMM};
        }
        for (uint32_t i = 0; i < n; i++) {
            const uint8_t *p = &v[PAGE_HEAD + size_t(i) * PAGE_RECORD];
            Binding b;
            memcpy(b.key.data(), p, 20);
            if ((!list.empty() && b.key <= list.back().key) || list.size() >= WALK_MAX) {
                fprintf(s.err,
                        "dhcpsnoopctl: binding show: the daemon's list does not advance at %s\n",
                        key_text(b.key).c_str());
                throw Abort{EXIT_COMM};
            }
            uint16_t vid16 = 0, attr = 0;
            memcpy(&b.ifIndex, p + 20, 4);
            memcpy(&b.lease, p + 24, 4);
            memcpy(&b.elapsed, p + 28, 4);
            memcpy(&vid16, p + 32, 2);
            memcpy(&attr, p + 34, 2);
            b.vid = vid16;
            b.attr = attr;
            b.mac.assign(p + 36, p + 42);
            b.type = p[42];
            b.state = p[43];
            list.push_back(std::move(b));
        }
        if (!more || n == 0)
            break;
        r.cmd = 1;
        r.key = list.back().key;
    }
    s.held.reset();
    return list;
}

int binding_show(Session &s, Args &a)
{
    std::vector<Binding> list;
    uint32_t ifIndex = 0, vid = 0;
    bool count = false, filtered = false;
    std::string ip;
    while (a.more()) {
        std::string w = a.next("an option");
        if (w == "--interface") {
            ifIndex = parse_if(a.next("an interface"), a.topic());
            filtered = true;
        } else if (w == "--vlan") {
            vid = parse_u32(a.next("a VLAN id"), 1, 4094, "a VLAN id", a.topic());
            filtered = true;
        } else if (w == "--count") {
            count = filtered = true;
        } else if (ip.empty() && !w.empty() && w[0] != '-') {
            ip = w;
        } else {
            throw Usage{"unexpected '" + w + "'", a.topic()};
        }
    }
    if (!ip.empty() && filtered)
        throw Usage{"give an address or --interface/--vlan/--count, not both", a.topic()};
    if (!ip.empty()) {
        Key k = parse_ip_key(ip, a.topic());
        Binding b;
        read_binding(s, k, b, true);
        list.push_back(b);
    } else {
        list = list_bindings(s, ifIndex, vid);
    }
    if (count) {
        fprintf(s.out, s.json ? "{\"count\":%zu}\n" : "%zu\n", list.size());
        return EXIT_OK;
    }
    if (s.json) {
        std::string o = "[";
        for (size_t i = 0; i < list.size(); i++) {
            const Binding &b = list[i];
            JsonObj j;
            j.str("ip", key_text(b.key)).str("mac", mac_text(b.mac)).num("vlan", b.vid);
            s.ifname_into(j, b.ifIndex);
            j.str("type", user_type_text(b.type)).str("state", bind_state_text(b.state));
            if (b.lease == LEASE_INFINITE)
                j.null("lease");
            else
                j.num("lease", b.lease);
            j.num("elapsed", b.elapsed).num("attribute", b.attr);
            o += (i ? "," : "") + j.text();
        }
        fprintf(s.out, "%s]\n", o.c_str());
        return EXIT_OK;
    }
    if (list.empty()) {
        fprintf(s.out, "No bindings.\n");
        return EXIT_OK;
    }
    Table tb;
    tb.head = {"IP", "MAC", "VLAN", "Interface", "Type", "State", "Lease", "Elapsed"};
    for (auto &b : list)
        tb.rows.push_back({key_text(b.key), mac_text(b.mac), std::to_string(b.vid),
                           s.ifname(b.ifIndex), user_type_text(b.type), bind_state_text(b.state),
                           b.lease == LEASE_INFINITE ? "infinite" : std::to_string(b.lease),
                           std::to_string(b.elapsed)});
    tb.print(s.out);
    return EXIT_OK;
}

/* The attribute settings of `binding add` and `binding set`, in the order
 * they are sent. */
struct BindingAttrs {
    bool hasMac = false, hasVlan = false, hasIf = false, hasAttr = false, unbound = false;
    std::vector<uint8_t> mac;
    uint32_t vid = 0, ifIndex = 0, attr = 0;
};

BindingAttrs parse_binding_attrs(Args &a, bool allowUnbound)
{
    const std::string &t = a.topic();
    BindingAttrs b;
    while (a.more()) {
        std::string w = a.next("an attribute");
        if (w == "mac") {
            b.mac = parse_mac(a.next("the MAC address"), t);
            b.hasMac = true;
        } else if (w == "vlan") {
            b.vid = parse_u32(a.next("the VLAN id"), 1, 4094, "the VLAN id", t);
            b.hasVlan = true;
        } else if (w == "interface") {
            b.ifIndex = parse_if(a.next("the interface"), t);
            b.hasIf = true;
        } else if (w == "attribute") {
            b.attr = parse_u32(a.next("the attribute value"), 0, 65535, "the attribute", t);
            b.hasAttr = true;
        } else if (w == "unbound" && allowUnbound) {
            b.unbound = true;
        } else {
            throw Usage{"unknown binding attribute '" + w + "'", t};
        }
    }
    return b;
}

void send_binding_attrs(Session &s, const Key &k, const BindingAttrs &b, const std::string &what)
{
    uint32_t f = s.setFunc(F_USER_SET);
    if (b.hasMac) {
        Request r = bytes_req(f, U_MAC, b.mac);
        r.key = k;
        s.must(r, 0, what + " mac", USER_HINTS);
    }
    if (b.hasVlan)
        s.must(user_req(f, k, U_VLAN, b.vid), 0, what + " vlan", USER_HINTS);
    if (b.hasIf)
        s.must(user_req(f, k, U_IFINDEX, b.ifIndex), 0, what + " interface", USER_HINTS);
    if (b.hasAttr)
        s.must(user_req(f, k, U_ATTR, b.attr), 0, what + " attribute", USER_HINTS);
}

int cmd_binding(Session &s, Args &a)
{
    const std::string &t = a.topic();
    std::string what = a.next("a binding command");
    if (what == "show")
        return binding_show(s, a);
    std::string ip = a.next("an address");
    Key k = parse_ip_key(ip, t);
    std::string label = "binding " + what + " " + ip;
    uint32_t f = s.setFunc(F_USER_SET);
    if (what == "add") {
        BindingAttrs b = parse_binding_attrs(a, true);
        if (!b.hasMac || !b.hasVlan || !b.hasIf)
            throw Usage{"binding add needs mac, vlan and interface", t};
        s.must(user_req(f, k, U_ACTION, CREATE), 0, label, USER_HINTS);
        try {
            send_binding_attrs(s, k, b, label);
            if (!b.unbound)
                s.must(user_req(f, k, U_ACTION, BIND), 0, label + " bind", USER_HINTS);
        } catch (const Abort &) {
            /* Leave no half-made entry behind; the failure is already told. */
            try {
                Reply rep = s.call(user_req(f, k, U_ACTION, REMOVE), 0, label + " undo");
                if (rep.rc != 0)
                    fprintf(s.err, "dhcpsnoopctl: %s: the new entry could not be removed (%s)\n",
                            label.c_str(), result_text(rep.rc).c_str());
            } catch (const Abort &) {
            }
            throw;
        }
        return EXIT_OK;
    }
    if (what == "set") {
        BindingAttrs b = parse_binding_attrs(a, false);
        if (!b.hasMac && !b.hasVlan && !b.hasIf && !b.hasAttr)
            throw Usage{"binding set needs at least one of mac, vlan, interface, attribute", t};
        send_binding_attrs(s, k, b, label);
        return EXIT_OK;
    }
    uint32_t action = what == "delete" ? uint32_t(REMOVE)
                      : what == "bind"   ? uint32_t(BIND)
                      : what == "unbind" ? uint32_t(UNBIND)
                                         : 0u;
    if (!action)
        throw Usage{"unknown binding command '" + what + "'", t};
    a.done();
    s.must(user_req(f, k, U_ACTION, action), 0, label, USER_HINTS);
    return EXIT_OK;
}

/* ------------------------------------------------------------------------ */
/* server-ip                                                                 */
/* ------------------------------------------------------------------------ */

constexpr uint32_t SERVER_CMD = 1, SERVER_ADD = 1, SERVER_REMOVE = 6;

Request server_req(uint32_t func, uint32_t ifIndex, uint32_t addr, uint32_t value)
{
    Request r = numeric(func, SERVER_CMD, value);
    r.pair[0] = ifIndex;
    r.pair[1] = addr;
    return r;
}

int cmd_server(Session &s, Args &a)
{
    const std::string &t = a.topic();
    std::string what = a.next("a server-ip command");
    if (what == "show") {
        a.done();
        std::vector<std::pair<uint32_t, uint32_t>> list;
        Request r = bytes_req(F_SERVER_FIRST, 0, std::vector<uint8_t>(PAIR_ROOM, 0));
        for (;;) {
            Reply rep = s.call(r, 2, "server-ip show");
            if (rep.rc == -1)
                break;
            if (rep.rc != 0)
                s.fail("server-ip show", rep.rc);
            std::pair<uint32_t, uint32_t> p{rep.items[0].u32(), rep.items[1].u32()};
            /* Server addresses are listed slot by slot, so only a repeat of
             * the pair just asked about can keep the walk from ending. */
            if ((!list.empty() && p == list.back()) || list.size() >= WALK_MAX) {
                fprintf(s.err, "dhcpsnoopctl: server-ip show: the daemon's list does not advance\n");
                throw Abort{EXIT_COMM};
            }
            list.push_back(p);
            r.func = F_SERVER_NEXT;
            r.pair[0] = p.first;
            r.pair[1] = p.second;
        }
        if (s.json) {
            std::string o = "[";
            for (size_t i = 0; i < list.size(); i++) {
                JsonObj j;
                s.ifname_into(j, list[i].first);
                o += (i ? "," : "") + j.str("server", ipv4_text(list[i].second)).text();
            }
            fprintf(s.out, "%s]\n", o.c_str());
        } else if (list.empty()) {
            fprintf(s.out, "No relay server addresses.\n");
        } else {
            Table tb;
            tb.head = {"Interface", "Server"};
            for (auto &p : list)
                tb.rows.push_back({s.ifname(p.first), ipv4_text(p.second)});
            tb.print(s.out);
        }
        return EXIT_OK;
    }
    if (what != "add" && what != "delete" && what != "check")
        throw Usage{"unknown server-ip command '" + what + "'", t};
    std::string ifw = a.next("the interface");
    uint32_t ifIndex = parse_if(ifw, t);
    std::string addrw = a.next("the server address");
    uint32_t addr = parse_ipv4(addrw, t);
    a.done();
    std::string label = "server-ip " + what + " " + ifw + " " + addrw;
    if (what == "check") {
        Request r = server_req(F_SERVER_GET, ifIndex, addr, 0);
        Reply rep = s.call(r, 0, label);
        if (rep.rc != 0 && rep.rc != 0x3E80002)
            s.fail(label, rep.rc);
        bool yes = rep.rc == 0;
        if (s.json)
            fprintf(s.out, "%s\n", JsonObj().boolean("configured", yes).text().c_str());
        else
            fprintf(s.out, "%s\n", yes ? "configured" : "not configured");
        return yes ? EXIT_OK : EXIT_RESULT;
    }
    s.must(server_req(s.setFunc(F_SERVER_SET), ifIndex, addr,
                      what == "add" ? SERVER_ADD : SERVER_REMOVE),
           0, label,
           {{0x3E80002, "snooping is not enabled on the interface"},
            {0x3E80010, "the interface has three server addresses already"}});
    return EXIT_OK;
}

/* ------------------------------------------------------------------------ */
/* Top level                                                                 */
/* ------------------------------------------------------------------------ */

int run(Session &s, std::vector<std::string> words, bool help)
{
    std::string topic = words.empty() ? "" : words[0];
    const char *known[] = {"global", "interface", "vlan", "binding", "server-ip"};
    bool isKnown = false;
    for (const char *k : known)
        isKnown |= topic == k;
    if (help) {
        fputs(help_for(isKnown ? topic : ""), s.out);
        return EXIT_OK;
    }
    if (words.empty())
        throw Usage{"no command given", ""};
    if (!isKnown)
        throw Usage{"unknown command '" + topic + "'", ""};
    Args a(std::vector<std::string>(words.begin() + 1, words.end()), topic);
    if (topic == "global")
        return cmd_global(s, a);
    if (topic == "interface")
        return cmd_interface(s, a);
    if (topic == "vlan")
        return cmd_vlan(s, a);
    if (topic == "binding")
        return cmd_binding(s, a);
    return cmd_server(s, a);
}

} // namespace
} // namespace dhcpsnoopctl

int dhcpsnoopctl_run(int argc, char **argv, FILE *out, FILE *err)
{
    using namespace dhcpsnoopctl;
    Session s(out, err);
    const char *env = getenv(SOCKET_ENV);
    s.path = env && *env ? env : DEFAULT_SOCKET;

    std::vector<std::string> words;
    bool help = false;
    try {
        bool opts = true;
        for (int i = 1; i < argc; i++) {
            std::string w = argv[i] ? argv[i] : "";
            if (opts && w == "--") {
                opts = false;
            } else if (opts && (w == "--help" || w == "-h")) {
                help = true;
            } else if (opts && w == "--json") {
                s.json = true;
            } else if (opts && (w == "--numeric" || w == "-n")) {
                s.numeric = true;
            } else if (opts && w == "--sync") {
                s.sync = true;
            } else if (opts && (w == "--socket" || w == "--timeout")) {
                if (i + 1 >= argc)
                    throw Usage{w + " needs a value", ""};
                std::string v = argv[++i];
                if (w == "--socket") {
                    if (v.empty())
                        throw Usage{"--socket needs a path", ""};
                    s.path = v;
                } else {
                    char *end = nullptr;
                    double secs = strtod(v.c_str(), &end);
                    if (v.empty() || *end || !(secs > 0) || secs > 3600)
                        throw Usage{"--timeout needs a number of seconds (up to 3600)", ""};
                    s.timeoutMs = int(secs * 1000 + 0.5) ? int(secs * 1000 + 0.5) : 1;
                }
            } else if (opts && (w == "--interface" || w == "--vlan" || w == "--count")) {
                /* options of `binding show`, left with their value for it */
                words.push_back(w);
                if (w != "--count" && i + 1 < argc)
                    words.push_back(argv[++i] ? argv[i] : "");
            } else if (opts && w.size() > 1 && w[0] == '-' && !isdigit((unsigned char)w[1])) {
                throw Usage{"unknown option '" + w + "'", ""};
            } else {
                words.push_back(w);
            }
        }
        return run(s, words, help);
    } catch (const Usage &u) {
        std::string t = u.topic.empty() ? "" : u.topic + " ";
        fprintf(err, "dhcpsnoopctl: %s\nTry 'dhcpsnoopctl %s--help'.\n", u.msg.c_str(), t.c_str());
        return EXIT_USAGE;
    } catch (const Abort &ab) {
        return ab.status;
    }
}
