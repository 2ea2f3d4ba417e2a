/*
 * The command server's framing through its socket read path, one connection a
 * loop pass.  Input: connections, each a chunk byte (the most bytes one recv
 * hands over, 0: no limit), a 2-byte big-endian length and the bytes the
 * client sends (normally a 4-byte host-order request length, then the body).
 * After each pass the connection is closed, unanswered or answered with a
 * 4-byte length and that many bytes, never more than it asked (22 for an
 * empty request), and the tables hold together.  The debug flags change with
 * each connection, so messages are formatted too.  Seeds: gen_corpus.py cmdsock.
 */
#include "fuzz_state.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FakeSys &sys = fuzz_restart(false);
    SwitchModel &m = sim_model();
    for (uint32_t i = 1; i <= 3; i++)
        m.addPort(i, "p" + std::to_string(i));
    m.addVlanIf(10, 10, "vlan10");
    m.addVlanIf(11, 20, "vlan20");
    if (dhcpsnoop_init_ex(4, 8, 4, 3, nullptr, nullptr, nullptr) != 0)
        abort();
    size_t pos = 0;
    for (int n = 0; n < 8 && pos + 3 <= size; n++) {
        FakeConn c;
        c.chunk = data[pos];
        size_t len = size_t(data[pos + 1]) << 8 | data[pos + 2];
        pos += 3;
        len = len < size - pos ? len : size - pos;
        c.input.assign(data + pos, data + pos + len);
        pos += len;
        uint32_t asked = 0;
        if (len >= 4)
            memcpy(&asked, data + pos - len, 4);
        sys.pendingConns.push_back(c);
        sys.finishedConns.clear();
        gDhcpsnoop.debugFlags = uint8_t(n & 3); /* so that messages are formatted too */
        dhcpsnoop_main_pass();

        if (!sys.conns.empty() || sys.finishedConns.size() != 1)
            abort(); /* a connection left open */
        const std::vector<uint8_t> &out = sys.finishedConns[0].output;
        uint32_t word = 0;
        if (out.size() >= 4)
            memcpy(&word, out.data(), 4);
        if (!out.empty() && (out.size() < 4 || word != out.size() - 4 ||
                             word > (asked ? asked : 22)))
            abort();
        fuzz_check_tables();
    }
    return 0;
}
