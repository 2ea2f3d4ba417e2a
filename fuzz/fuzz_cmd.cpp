/*
 * Management requests through dhcpsnoop_cmd_process.
 *
 * An input is a run of requests, each a 2-byte little-endian length and that
 * many body bytes (a length past the input's end takes what is left), so that
 * one input can switch an interface on and then change its settings.  Each
 * body is copied into a request buffer of exactly DHCPSNOOP_CMD_BUF_SIZE bytes,
 * so any read or write past it is caught.  The daemon's state is rebuilt for
 * every input: small pools, no sockets, a switch with three ports and two
 * VLAN interfaces.
 */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <vector>

#include "dhcpsnoop.h"
#include "dhcpsnoop_nm.h"
#include "dhcpsnoop_sys.h"
#include "fuzz_state.h"
#include "switch_model.h"

namespace {

constexpr int REQUESTS_MAX = 8;

void fresh_daemon()
{
    fuzz_fresh_state(4, 8, 4);
    gDhcpsnoop.globalEnable = 1;

    SwitchModel &m = sim_model();
    m.reset();
    for (uint32_t i = 1; i <= 3; i++)
        m.addPort(i, "p" + std::to_string(i));
    m.addVlanIf(10, 10, "vlan10");
    m.addVlanIf(11, 20, "vlan20");
}

} // namespace

/* The empty-request notice goes to standard output; keep the run quiet. */
extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_quiet_stdout();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fresh_daemon();
    std::vector<uint8_t> buffer(DHCPSNOOP_CMD_BUF_SIZE);
    size_t pos = 0;
    for (int n = 0; n < REQUESTS_MAX && pos + 2 <= size; n++) {
        size_t len = size_t(data[pos]) | size_t(data[pos + 1]) << 8;
        pos += 2;
        if (len > size - pos)
            len = size - pos;
        if (len > buffer.size())
            len = buffer.size();
        /* the debug flags follow the request, so messages are formatted too */
        gDhcpsnoop.debugFlags = uint8_t(n & 3);
        memset(buffer.data(), 0, buffer.size());
        if (len)
            memcpy(buffer.data(), data + pos, len);
        pos += len;
        uint32_t reply = dhcpsnoop_cmd_process(buffer.data(), uint32_t(len));
        if (reply > (len ? len : 22))
            __builtin_trap(); /* a reply never outgrows its request */
    }
    return 0;
}
