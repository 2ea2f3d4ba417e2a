/* DHCPv4 frames for tests: a builder with correct lengths and checksums, an
 * independent check of both checksums, and frames parsed as the loop does. */
#ifndef DHCPSNOOP_FRAME_HELPERS_H
#define DHCPSNOOP_FRAME_HELPERS_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "dhcpsnoop.h"

struct Dhcp4Frame {
    std::array<uint8_t, 6> dst{0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    std::array<uint8_t, 6> src{0x02, 0, 0, 0, 0, 0x01};
    std::vector<uint16_t> vlans;             // 802.1Q tags, outer first, TPID 0x8100
    uint32_t srcIp = 0, dstIp = 0xFFFFFFFF; // host order
    uint16_t sport = 68, dport = 67;
    uint8_t op = 1;
    uint32_t xid = 0x12345678;
    uint16_t flags = 0;
    uint32_t ciaddr = 0, yiaddr = 0, siaddr = 0, giaddr = 0; // host order
    std::array<uint8_t, 6> chaddr{0x02, 0, 0, 0, 0, 0x01};
    std::vector<uint8_t> options; // option bytes after the magic cookie, as given (no 255 added)
    size_t pad = 0;               // trailing Ethernet padding bytes
    uint8_t ihl = 5;              // IPv4 header length in words; options beyond 20 bytes are zero
    uint8_t ipProto = 17;

    Dhcp4Frame &opt(uint8_t code, std::vector<uint8_t> data); // append code, len, data
    Dhcp4Frame &msgType(uint8_t t);                           // option 53
    Dhcp4Frame &end();                                        // append 255
    std::vector<uint8_t> build() const; // lengths and both checksums correct
    size_t l2Len() const { return 14 + 4 * vlans.size(); }
};

std::vector<uint8_t> ipv4(uint32_t hostOrder); // 4 network-order bytes

// Independent recomputation (not using the daemon's checksum code):
bool ipv4_checksum_ok(const uint8_t *frame, size_t l2Len);
bool udp4_checksum_ok(const uint8_t *frame, size_t l2Len); // also accepts a 0 field as "no checksum"

// Options of the message in order, pads skipped, up to and including an end
// option (code 255, no data); bounded by the UDP length field and the frame.
struct Dhcp4Option {
    uint8_t code;
    std::vector<uint8_t> data;
    bool operator==(const Dhcp4Option &o) const { return code == o.code && data == o.data; }
};
std::vector<Dhcp4Option> dhcp4_options(const uint8_t *frame, size_t frameLen, size_t l2Len);

// Fill an rx record as the main loop would.
void fill_rxpkt(DhcpsnoopRxPkt &rx, const std::vector<uint8_t> &frame, DhcpsnoopIf *ifp,
                uint32_t ifIndex, uint16_t outerVid, uint16_t innerVid, uint16_t l2HdrLen);

// A frame parsed in place: the record points into `rx`, so keep both together.
struct ParsedFrame {
    DhcpsnoopRxPkt rx;
    DhcpsnoopPktInfo info;
    std::vector<uint8_t> bytes() const { return {rx.data, rx.data + std::min<size_t>(info.frameLen, sizeof rx.data)}; }
};
// Parse `frame` received on `ifp` (its ifIndex); returns the parser's result.
int parse_frame(ParsedFrame &pf, const std::vector<uint8_t> &frame, DhcpsnoopIf *ifp,
                uint16_t outerVid = 0, uint16_t innerVid = 0, size_t l2Len = 14);

#endif
