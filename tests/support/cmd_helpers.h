/* Management requests built with the codec, and the daemon's answer to one. */
#ifndef DHCPSNOOP_CMD_HELPERS_H
#define DHCPSNOOP_CMD_HELPERS_H

#include <cstddef>
#include <cstdint>
#include <vector>

using Bytes = std::vector<uint8_t>;

Bytes u32_bytes(uint32_t v);
uint32_t word(const Bytes &b, size_t at); /* the 32-bit value there */
/* The index items of a 20-byte user key: 1, 3 and 16 bytes. */
std::vector<Bytes> key_items(const uint8_t *key);

/* One request (or reply) body.  Each index value goes behind its item header,
 * typed 2 when it is 32 bits wide, else 0, as the front end sends them;
 * `indexNum` defaults to their count, 0 for the global funcs 0 to 2. */
struct CmdReq {
    uint32_t func = 0, cmd = 0;
    std::vector<Bytes> index;
    uint8_t dataType = 2;
    Bytes data;
    int indexNum = -1;
    int32_t rc = 0;
};
Bytes cmd_body(const CmdReq &r);

/* `req` answered as the daemon does: result `rc` and, from `pos`, these data
 * items of one type in place of the request's. */
Bytes answered(Bytes req, int32_t rc, size_t pos = 0, uint8_t type = 0,
               const std::vector<Bytes> &items = {});
/* Where the data item of a request begins: global or 32-bit index, user key. */
constexpr size_t DATA_POS_INDEX = 26 + 7, DATA_POS_USER = 26 + 29;

/* dhcpsnoop_cmd_process on the body in a request buffer: the reply body. */
Bytes cmd_run(const Bytes &body);
/* The length word and the body, as a client sends them. */
Bytes framed(const Bytes &body);

#endif
