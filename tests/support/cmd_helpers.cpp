#include "cmd_helpers.h"

#include <algorithm>
#include <cstring>

#include "dhcpsnoop.h"
#include "dhcpsnoop_adr.h"
#include "dhcpsnoop_nm.h"

Bytes u32_bytes(uint32_t v)
{
    Bytes b(4);
    memcpy(b.data(), &v, 4);
    return b;
}

uint32_t word(const Bytes &b, size_t at)
{
    uint32_t v = 0;
    memcpy(&v, &b.at(at), 4);
    return v;
}

std::vector<Bytes> key_items(const uint8_t *k)
{
    return {Bytes(k, k + 1), Bytes(k + 1, k + 4), Bytes(k + 4, k + 20)};
}

Bytes cmd_body(const CmdReq &r)
{
    Bytes buf(DHCPSNOOP_CMD_BUF_SIZE + 64);
    AdrBuf a;
    adr_start(&a, buf.data(), uint32_t(buf.size()));
    adr_encodefunc(&a, r.func);
    adr_encoderetcode(&a, r.rc);
    adr_encodecmd(&a, r.cmd);
    const size_t count = r.func <= 2 ? 0 : r.index.size(); /* a global item is not counted */
    adr_encodeindexheader(&a, uint8_t(r.indexNum < 0 ? count : r.indexNum));
    for (const Bytes &v : r.index)
        adr_encodeindex(&a, v.size() == 4 ? 2 : 0, v.data(), uint8_t(v.size()));
    adr_encodedata(&a, r.dataType, uint16_t(r.data.size()), r.data.data());
    buf.resize(adr_count(&a));
    return buf;
}

Bytes answered(Bytes req, int32_t rc, size_t pos, uint8_t type, const std::vector<Bytes> &items)
{
    memcpy(req.data() + 12, &rc, 4);
    AdrBuf a;
    adr_start(&a, req.data(), uint32_t(req.size()));
    adr_pos(&a, uint32_t(pos));
    for (const Bytes &v : items)
        adr_encodedata(&a, type, uint16_t(v.size()), v.data());
    return req;
}

Bytes cmd_run(const Bytes &body)
{
    Bytes buf(DHCPSNOOP_CMD_BUF_SIZE);
    memcpy(buf.data(), body.data(), std::min(body.size(), buf.size()));
    buf.resize(dhcpsnoop_cmd_process(buf.data(), uint32_t(body.size())));
    return buf;
}

Bytes framed(const Bytes &body)
{
    Bytes f = u32_bytes(uint32_t(body.size()));
    f.insert(f.end(), body.begin(), body.end());
    return f;
}
