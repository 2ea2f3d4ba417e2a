/*
 * Management requests through dhcpsnoop_cmd_process: a run of requests, each
 * a 2-byte little-endian length and that many body bytes (a length past the
 * input's end takes what is left), so that one input can switch an interface
 * on and then change its settings.  Each body is copied into a buffer of
 * exactly DHCPSNOOP_CMD_BUF_SIZE bytes, so any access past it is caught.
 */
#include <algorithm>
#include <vector>

#include "fuzz_state.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_fresh_state(4, 8, 4);
    gDhcpsnoop.globalEnable = 1;
    SwitchModel &m = sim_model();
    m.reset();
    for (uint32_t i = 1; i <= 3; i++)
        m.addPort(i, "p" + std::to_string(i));
    m.addVlanIf(10, 10, "vlan10");
    m.addVlanIf(11, 20, "vlan20");

    std::vector<uint8_t> buffer(DHCPSNOOP_CMD_BUF_SIZE);
    size_t pos = 0;
    for (int n = 0; n < 8 && pos + 2 <= size; n++) {
        size_t len = size_t(data[pos]) | size_t(data[pos + 1]) << 8;
        pos += 2;
        len = std::min({len, size - pos, buffer.size()});
        /* the debug flags follow the request, so messages are formatted too */
        gDhcpsnoop.debugFlags = uint8_t(n & 3);
        memset(buffer.data(), 0, buffer.size());
        if (len)
            memcpy(buffer.data(), data + pos, len);
        pos += len;
        if (dhcpsnoop_cmd_process(buffer.data(), uint32_t(len)) > (len ? len : 22))
            abort(); /* a reply never outgrows its request */
    }
    return 0;
}
