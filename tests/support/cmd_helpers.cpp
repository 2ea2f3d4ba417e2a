#include "cmd_helpers.h"

#include <algorithm>
#include <cstring>

#include "dhcpsnoop_adr.h"
#include "dhcpsnoop_nm.h"

Bytes u32_bytes(uint32_t v)
{
    Bytes b(4);
    memcpy(b.data(), &v, 4);
    return b;
}

Bytes text_bytes(const std::string &s) { return Bytes(s.begin(), s.end()); }

Bytes cmd_body(const CmdReq &r)
{
    Bytes buf(DHCPSNOOP_CMD_BUF_SIZE + 64);
    AdrBuf a;
    adr_start(&a, buf.data(), uint32_t(buf.size()));
    adr_encodefunc(&a, r.func);
    adr_encoderetcode(&a, 0);
    adr_encodecmd(&a, r.cmd);
    adr_encodeindexheader(&a, uint8_t(r.indexNum < 0 ? r.index.size() : r.indexNum));
    for (const Bytes &v : r.index)
        adr_encodeindex(&a, 0, v.data(), uint8_t(v.size()));
    adr_encodedata(&a, r.dataType, uint16_t(r.data.size()), r.data.data());
    buf.resize(adr_count(&a));
    return buf;
}

Bytes global_req(uint32_t func, uint32_t cmd, uint8_t type, const Bytes &data)
{
    CmdReq r{func, cmd, {u32_bytes(0)}, type, data, 0};
    return cmd_body(r);
}

Bytes index_req(uint32_t func, uint32_t index, uint32_t cmd, uint8_t type, const Bytes &data)
{
    return cmd_body({func, cmd, {u32_bytes(index)}, type, data});
}

Bytes user_req(uint32_t func, const DhcpsnoopUserKey &key, uint32_t cmd, uint8_t type,
               const Bytes &data)
{
    const uint8_t *k = reinterpret_cast<const uint8_t *>(&key);
    return cmd_body({func, cmd, {Bytes(k, k + 1), Bytes(k + 1, k + 4), Bytes(k + 4, k + 20)},
                     type, data});
}

Bytes server_req(uint32_t func, uint32_t ifIndex, uint32_t ip, uint32_t cmd, uint8_t type,
                 const Bytes &data)
{
    return cmd_body({func, cmd, {u32_bytes(ifIndex), u32_bytes(ip)}, type, data});
}

Bytes cmd_run(const Bytes &body)
{
    Bytes buf(DHCPSNOOP_CMD_BUF_SIZE);
    memcpy(buf.data(), body.data(), std::min(body.size(), buf.size()));
    uint32_t n = dhcpsnoop_cmd_process(buf.data(), uint32_t(body.size()));
    buf.resize(n);
    return buf;
}

int32_t reply_result(const Bytes &reply)
{
    int32_t v = 0x7FFFFFFF;
    if (reply.size() >= 16)
        memcpy(&v, reply.data() + 12, 4);
    return v;
}

DataItem reply_item(const Bytes &reply, size_t pos)
{
    DataItem d{0xFF, 0xFF, {}};
    if (pos + 4 > reply.size())
        return d;
    d.header = reply[pos];
    d.type = reply[pos + 1];
    uint16_t len;
    memcpy(&len, &reply[pos + 2], 2);
    if (pos + 4 + len <= reply.size())
        d.value.assign(reply.begin() + long(pos) + 4, reply.begin() + long(pos) + 4 + len);
    return d;
}

Bytes framed(const Bytes &body)
{
    Bytes f(4 + body.size());
    const uint32_t len = uint32_t(body.size());
    memcpy(f.data(), &len, 4);
    std::copy(body.begin(), body.end(), f.begin() + 4);
    return f;
}
