/* Management requests built with the codec, and readers of their replies. */
#ifndef DHCPSNOOP_CMD_HELPERS_H
#define DHCPSNOOP_CMD_HELPERS_H

#include <cstdint>
#include <string>
#include <vector>

#include "dhcpsnoop.h"

using Bytes = std::vector<uint8_t>;

Bytes u32_bytes(uint32_t v);
Bytes text_bytes(const std::string &s);

/* One request body.  `index` holds the index values, each sent behind its
 * 3-byte item header; `indexNum` defaults to their count. */
struct CmdReq {
    uint32_t func = 0;
    uint32_t cmd = 0;
    std::vector<Bytes> index;
    uint8_t dataType = 2;
    Bytes data;
    int indexNum = -1;
};
Bytes cmd_body(const CmdReq &r);

/* Requests of each table: global (funcs 0-2), int32 index (interfaces and
 * VLANs), user key, server-ip pair. */
Bytes global_req(uint32_t func, uint32_t cmd, uint8_t type, const Bytes &data);
Bytes index_req(uint32_t func, uint32_t index, uint32_t cmd, uint8_t type, const Bytes &data);
Bytes user_req(uint32_t func, const DhcpsnoopUserKey &key, uint32_t cmd, uint8_t type,
               const Bytes &data);
Bytes server_req(uint32_t func, uint32_t ifIndex, uint32_t ip, uint32_t cmd, uint8_t type,
                 const Bytes &data);

/* Run dhcpsnoop_cmd_process on the body in a request buffer; the reply body
 * (its returned length of the buffer). */
Bytes cmd_run(const Bytes &body);
int32_t reply_result(const Bytes &reply);
/* The data item at `pos`: type, and its value bytes. */
struct DataItem {
    uint8_t header, type;
    Bytes value;
};
DataItem reply_item(const Bytes &reply, size_t pos);
/* Where the data item of a request of that table begins. */
constexpr size_t DATA_POS_GLOBAL = 26 + 7;
constexpr size_t DATA_POS_INDEX = 26 + 7;
constexpr size_t DATA_POS_USER = 26 + 4 + 6 + 19;
constexpr size_t DATA_POS_SERVER = 26 + 14;

/* The length-prefixed frame a client sends. */
Bytes framed(const Bytes &body);

#endif
