/*
 * Command server on the local management socket: one request and one reply
 * per connection, each a 4-byte host-order length followed by a body laid
 * out by the management codec.  The reply is the request rewritten in place:
 * same length, the result word at body offset 12 and, for reads, the data
 * item replaced by the answer.
 */
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>

#include "dhcpsnoop.h"
#include "dhcpsnoop_adr.h"
#include "dhcpsnoop_nm.h"
#include "dhcpsnoop_sys.h"

namespace {

constexpr uint32_t CMD_HEAD_LEN = 26;     /* three header words, index header and count */
constexpr uint32_t CMD_RESULT_POS = 12;   /* value of the ret code word */
constexpr uint32_t CMD_FUNC_COUNT = 23;
constexpr uint32_t CMD_EMPTY_REPLY = 22;  /* answered to an empty request */
constexpr int CMD_RCVLOWAT = 30;
constexpr time_t CMD_IO_BOUND_SECONDS = 1;
constexpr uint32_t ITEM_HEADER_LEN = 3;

enum DataType : uint8_t { DATA_BYTES = 0, DATA_U32 = 2, DATA_PAIR = 4 };

/* What the index items of a func are. */
enum IndexKind : uint8_t { IDX_GLOBAL, IDX_INT32, IDX_USER_KEY, IDX_SERVER_KEY };

struct FuncInfo {
    uint8_t indexNum;
    IndexKind kind;
};

constexpr FuncInfo FUNCS[CMD_FUNC_COUNT] = {
    {0, IDX_GLOBAL},     {0, IDX_GLOBAL},     {0, IDX_GLOBAL},                         /* 0-2 */
    {1, IDX_INT32},      {1, IDX_INT32},      {1, IDX_INT32},      {1, IDX_INT32},      /* 3-6 */
    {1, IDX_INT32},                                                                     /* 7 */
    {3, IDX_USER_KEY},   {3, IDX_USER_KEY},   {3, IDX_USER_KEY},   {3, IDX_USER_KEY},   /* 8-11 */
    {3, IDX_USER_KEY},                                                                  /* 12 */
    {1, IDX_INT32},      {1, IDX_INT32},      {1, IDX_INT32},      {1, IDX_INT32},      /* 13-16 */
    {2, IDX_SERVER_KEY}, {2, IDX_SERVER_KEY}, {2, IDX_SERVER_KEY}, {2, IDX_SERVER_KEY}, /* 17-20 */
    {2, IDX_SERVER_KEY},                                                                /* 21 */
    {3, IDX_USER_KEY},                                                                  /* 22 */
};

constexpr uint32_t FUNC_USER_PAGE = 22;

/* Set by a page of bindings that filled up: the connection stays open for
 * the request of the next page. */
bool page_more;

/* The decoded request. */
struct CmdRequest {
    uint32_t func;
    uint32_t cmd;
    int32_t index;              /* interface index or VLAN id */
    DhcpsnoopUserKey key;       /* user funcs */
    uint32_t pair[2];           /* server-ip funcs */
    uint8_t dataType;
    uint32_t dataPos;           /* where the data item starts */
    QorTextPair text;           /* type 0: the bytes, in place */
    uint32_t words[2];          /* types 2 and 4 */
};

/* Whether the entry point behind (func, cmd) takes a text value record
 * rather than a number.  A request whose data type does not match is given
 * no value at all: an entry point must never take a number for a record
 * (or write a number over one), whatever a client sends. */
bool cmd_value_is_text(uint32_t func, uint32_t cmd)
{
    if (func <= 2)
        return cmd == DHCPSNOOP_G_SYNC_PKT;
    if (func >= 5 && func <= 7)
        return cmd == 5 || cmd == 6 || cmd == 7 || cmd == 12 || cmd == 14;
    if (func >= 10 && func <= 12)
        return cmd == 5;
    return func == FUNC_USER_PAGE;
}

void *cmd_value(CmdRequest &r)
{
    const bool wantText = cmd_value_is_text(r.func, r.cmd);
    switch (r.dataType) {
    case DATA_BYTES:
        return wantText ? &r.text : nullptr;
    case DATA_U32:
    case DATA_PAIR:
        return wantText ? nullptr : r.words;
    default:
        return nullptr;
    }
}

bool cmd_decode_index(AdrBuf &a, CmdRequest &r)
{
    switch (FUNCS[r.func].kind) {
    case IDX_GLOBAL: /* one item, read and unused */
    case IDX_INT32:
        return adr_offset(&a, ITEM_HEADER_LEN) == 0 && adr_getint32(&a, &r.index) == 0;
    case IDX_USER_KEY: {
        uint8_t *parts[3] = {&r.key.ipType, r.key.reserved, r.key.ipAddr};
        const uint32_t widths[3] = {1, 3, 16};
        for (int i = 0; i < 3; i++)
            if (adr_offset(&a, ITEM_HEADER_LEN) != 0 || !adr_getchar(&a, parts[i], widths[i]))
                return false;
        return true;
    }
    default: /* IDX_SERVER_KEY */
        for (uint32_t &w : r.pair)
            if (adr_offset(&a, ITEM_HEADER_LEN) != 0 || adr_getuint32(&a, &w) != 0)
                return false;
        return true;
    }
}

/* The data item: header 3, type, length, value. */
bool cmd_decode_data(AdrBuf &a, CmdRequest &r)
{
    uint8_t hdr = 0;
    if (!adr_getchar(&a, &hdr, 1) || hdr != ADR_DATA_HEADER) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Command process: decode data charVal %d err!\r\n", int(hdr));
        return false;
    }
    uint16_t len = 0;
    if (!adr_getchar(&a, &r.dataType, 1) || adr_getushort(&a, &len) != 0) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Command process: decode data shortVal %d err, type = %d!\r\n",
                        int(len), int(r.dataType));
        return false;
    }
    if ((r.dataType == DATA_U32 && len != 4) || (r.dataType == DATA_PAIR && len != 8)) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Command process: decode data shortVal %d err, type = %d!\r\n",
                        int(len), int(r.dataType));
        return false;
    }
    switch (r.dataType) {
    case DATA_BYTES: {
        /* left where it lies; a text answer is written there too */
        uint8_t *bytes = adr_getchar(&a, a.buf + adr_count(&a), len);
        if (!bytes)
            return false;
        r.text.buf = bytes;
        r.text.len = len;
        return true;
    }
    case DATA_U32:
        return adr_getuint32(&a, &r.words[0]) == 0;
    case DATA_PAIR:
        return adr_getuint32(&a, &r.words[0]) == 0 && adr_getuint32(&a, &r.words[1]) == 0;
    default:
        return true;
    }
}

/* Write the value of a read back over the data item. */
void cmd_encode_value(AdrBuf &a, const CmdRequest &r)
{
    adr_pos(&a, r.dataPos);
    switch (r.dataType) {
    case DATA_BYTES:
        adr_encodedata(&a, DATA_BYTES, uint16_t(r.text.len), r.text.buf);
        break;
    case DATA_U32:
        adr_encodedata(&a, DATA_U32, 4, &r.words[0]);
        break;
    case DATA_PAIR:
        adr_encodedata(&a, DATA_PAIR, 8, r.words);
        break;
    default:
        break;
    }
}

void cmd_encode_found_index(AdrBuf &a, const CmdRequest &r, uint32_t found)
{
    if (r.dataType != DATA_U32)
        return;
    adr_pos(&a, r.dataPos);
    adr_encodedata(&a, DATA_U32, 4, &found);
}

void cmd_encode_found_key(AdrBuf &a, const CmdRequest &r, const DhcpsnoopUserKey &k)
{
    if (r.dataType != DATA_BYTES)
        return;
    adr_pos(&a, r.dataPos);
    adr_encodedata(&a, r.dataType, 1, &k.ipType);
    adr_encodedata(&a, r.dataType, 3, k.reserved);
    adr_encodedata(&a, r.dataType, 16, k.ipAddr);
}

void cmd_encode_found_pair(AdrBuf &a, const CmdRequest &r, const uint32_t *p)
{
    adr_pos(&a, r.dataPos);
    adr_encodedata(&a, DATA_U32, 4, &p[0]);
    adr_encodedata(&a, DATA_U32, 4, &p[1]);
}

/* Call the func's entry point, write its result and, on success, its answer. */
void cmd_dispatch(AdrBuf &a, CmdRequest &r)
{
    void *value = cmd_value(r);
    const uint32_t index = uint32_t(r.index);
    uint32_t found = 0;
    DhcpsnoopUserKey foundKey{};
    uint32_t foundPair[2] = {};
    int32_t rc;

    switch (r.func) {
    case 0:
    case 1:
        rc = dhcpSnoopSetApi(nullptr, r.cmd, value);
        break;
    case 2:
        rc = dhcpSnoopGetApi(nullptr, r.cmd, value);
        break;
    case 3:
        rc = dhcpSnoopIfGetFirst(&found);
        break;
    case 4:
        rc = dhcpSnoopIfGetNext(index, &found);
        break;
    case 5:
    case 6:
        rc = dhcpSnoopIfSetApi(index, r.cmd, value);
        break;
    case 7:
        rc = dhcpSnoopIfGetApi(index, r.cmd, value);
        break;
    case 8:
        rc = dhcpSnoopUserGetFirst(&foundKey);
        break;
    case 9:
        rc = dhcpSnoopUserGetNext(&r.key, &foundKey);
        break;
    case 10:
    case 11:
        rc = dhcpSnoopUserSetApi(&r.key, r.cmd, value);
        break;
    case 12:
        rc = dhcpSnoopUserGetApi(&r.key, r.cmd, value);
        break;
    case 13:
        rc = dhcpSnoopVlanGetFirst(&found);
        break;
    case 14:
        rc = dhcpSnoopVlanGetNext(index, &found);
        break;
    case 15:
        rc = dhcpSnoopVlanSetApi(index, r.cmd, value);
        break;
    case 16:
        rc = dhcpSnoopVlanGetApi(index, r.cmd, value);
        break;
    case 17:
        rc = dhcpSnoopServerIpGetFirst(foundPair);
        break;
    case 18:
        rc = dhcpSnoopServerIpGetNext(r.pair, foundPair);
        break;
    case 19:
    case 20:
        rc = dhcpSnoopServerIpSetApi(r.pair, r.cmd, value);
        break;
    case 21:
        rc = dhcpSnoopServerIpGetApi(r.pair, r.cmd, value);
        break;
    default: /* 22 */
        if (!value || r.cmd > 1)
            rc = DHCPSNOOP_E_INVALID;
        else
            rc = dhcpSnoopUserGetPage(r.cmd ? &r.key : nullptr, &r.text, &page_more);
        break;
    }
    adr_int32(&a, rc);
    if (rc != 0)
        return;

    switch (r.func) {
    case 2:
    case 7:
    case 12:
    case 16:
    case FUNC_USER_PAGE:
        /* an answer only where the entry point had somewhere to put it */
        if (value)
            cmd_encode_value(a, r);
        break;
    case 21:
        if (r.dataType == DATA_U32)
            cmd_encode_value(a, r);
        break;
    case 3:
    case 4:
    case 13:
    case 14:
        cmd_encode_found_index(a, r, found);
        break;
    case 8:
    case 9:
        cmd_encode_found_key(a, r, foundKey);
        break;
    case 17:
    case 18:
        cmd_encode_found_pair(a, r, foundPair);
        break;
    default:
        break;
    }
}

} // namespace

uint32_t dhcpsnoop_cmd_process(uint8_t *buffer, uint32_t length)
{
    if (!buffer || length == 0) {
        printf("\r\n deftInstall assert error in line %d in func %s.", 623, "dhcpsnoop_cmd_process");
        return CMD_EMPTY_REPLY;
    }
    if (length < CMD_HEAD_LEN || length > DHCPSNOOP_CMD_BUF_SIZE) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Command process: lenRx %d err!\r\n", int(length));
        return 0;
    }

    page_more = false;
    CmdRequest r{};
    AdrBuf a;
    /* Every item is read from inside the request: an item that runs past
     * its end is refused rather than taken from whatever follows. */
    adr_start(&a, buffer, length);
    int32_t retCode;
    if (adr_decodefunc(&a, &r.func) != 0) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Command process: decode func word failed!\r\n");
        return 0;
    }
    if (adr_decoderetcode(&a, &retCode) != 0) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Command process: decode ret code word failed!\r\n");
        return 0;
    }
    if (adr_decodecmd(&a, &r.cmd) != 0) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Command process: decode command word failed!\r\n");
        return 0;
    }
    uint8_t idx[2] = {};
    if (!adr_getchar(&a, idx, 2) || idx[0] != ADR_INDEX_HEADER) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Command process: decode index header failed!\r\n");
        return 0;
    }
    const uint8_t indexNum = idx[1];

    if (r.func < CMD_FUNC_COUNT) {
        if (indexNum != FUNCS[r.func].indexNum) {
            DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Command process: func %d indexNum %d err!\r\n",
                              int(r.func), int(indexNum));
            return 0;
        }
        if (!cmd_decode_index(a, r)) {
            DHCPSNOOP_DEBUG("[DHCPSNOOP] Command process: decode index failed!\r\n");
            return 0;
        }
    } else {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Command process: error func %d in get indexnum!\r\n",
                          int(r.func));
    }

    r.dataPos = adr_count(&a);
    if (!cmd_decode_data(a, r))
        return 0;

    adr_pos(&a, CMD_RESULT_POS);
    if (r.func < CMD_FUNC_COUNT)
        cmd_dispatch(a, r);
    else
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Command process: error func %d in encode data!\r\n",
                          int(r.func));

    adr_pos(&a, length);
    return adr_count(&a);
}

namespace {

/* Read one request from the connection, process it and send the reply;
 * -1 when the connection failed or was closed. */
int cmd_serve_one(int fd)
{
    uint32_t length = 0;
    if (dhcpsnoop_sys->recv(fd, &length, sizeof length, 0) != ssize_t(sizeof length)) {
        perror("[DHCPSNOOP] Command server recv buflen failed!\r\n");
        return -1;
    }
    /* A body that cannot fit the request buffer is not read at all: the
     * connection is closed at once with no reply.  Draining it instead would
     * let a client that announces a huge length hold the single loop for as
     * long as it likes; closing gives the front end end-of-stream (or a
     * reset) straight away, so it never waits for an answer. */
    if (length > DHCPSNOOP_CMD_BUF_SIZE) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Command server: request of %u bytes is too long!\r\n",
                        unsigned(length));
        return -1;
    }
    /* Zeroed, so that whatever part of it a reply carries never holds an
     * earlier request's bytes. */
    uint8_t buffer[DHCPSNOOP_CMD_BUF_SIZE] = {};
    if (dhcpsnoop_sys->recv(fd, buffer, length, 0) != ssize_t(length)) {
        perror("[DHCPSNOOP] Command server recv buf failed!\r\n");
        return -1;
    }

    uint32_t reply = dhcpsnoop_cmd_process(buffer, length);
    if (reply == 0)
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Command server: call cmd process failed!\r\n");

    struct iovec iov[2];
    iov[0].iov_base = &reply;
    iov[0].iov_len = sizeof reply;
    iov[1].iov_base = buffer;
    iov[1].iov_len = reply;
    struct msghdr msg;
    memset(&msg, 0, sizeof msg);
    msg.msg_iov = iov;
    msg.msg_iovlen = 2;
    const ssize_t sent = dhcpsnoop_sys->sendmsg(fd, &msg, 0);
    if (sent != ssize_t(reply + sizeof reply)) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Command server: send %d bytes was different from %d!\r\n",
                        int(sent), int(reply + sizeof reply));
        perror("[DHCPSNOOP] Command server sendto failed!\r\n");
        return -1;
    }
    return 0;
}

} // namespace

int dhcpsnoop_cmd_server(void)
{
    int fd = dhcpsnoop_sys->accept(gDhcpsnoop.cmdSock, nullptr, nullptr);
    if (fd <= 0) {
        perror("[DHCPSNOOP] Command server accept failed!\r\n");
        return -1;
    }
    /* The loop serves frames too: a client that goes quiet mid-request (or
     * never reads its answer) may hold it for this long and no longer. */
    const struct timeval bound = {CMD_IO_BOUND_SECONDS, 0};
    if (dhcpsnoop_sys->setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound) != 0 ||
        dhcpsnoop_sys->setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound) != 0) {
        perror("[DHCPSNOOP] Command server setsockopt failed!\r\n");
        dhcpsnoop_sys->close(fd);
        return -1;
    }
    const int lowat = CMD_RCVLOWAT;
    if (dhcpsnoop_sys->setsockopt(fd, SOL_SOCKET, SO_RCVLOWAT, &lowat, sizeof lowat) != 0) {
        perror("[DHCPSNOOP] Command server setsockopt failed!\r\n");
        dhcpsnoop_sys->close(fd);
        return -1;
    }
    /* one request, or the pages of one listing */
    int rc;
    while ((rc = cmd_serve_one(fd)) == 0 && page_more)
        ;
    dhcpsnoop_sys->close(fd);
    return rc;
}
