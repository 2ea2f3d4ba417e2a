/*
 * The forwarding hardware of a stock Linux host, made of nftables.
 *
 * One table of the daemon's own, family netdev: an ingress chain per port
 * sees every frame as it arrives on that port, before the kernel's bridge or
 * stack, with the port known and the tags as they were on the wire.  That is
 * where a switch checks a port's traffic, it works alike for bridged and
 * routed ports on any stock kernel, and the daemon's packet sockets have the
 * frame already (they are served before the ingress hook), so DHCP can be
 * dropped there and forwarded by the daemon.
 *
 * Bindings are elements of sets keyed by the concatenation of the fields the
 * check items select, one set per combination; adding or removing a binding
 * touches one element, never the rules.  The frame's VLAN (its outer tag, or
 * the port's PVID) travels through the lookups in the packet mark, which is
 * cleared again before the frame leaves the chain.
 */
#include "linux_nft.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <nftables/libnftables.h>
#include <stdio.h>
#include <string.h>

#include <map>
#include <set>
#include <vector>

#include "dhcpsnoop.h"
#include "dhcpsnoop_user.h"
#include "linux_platform.h"
#include "switch_model.h"

namespace {

constexpr const char *TABLE = "netdev dhcpsnoop";

struct nft_ctx *g_ctx;
bool g_ipsgOn, g_daiOn;
std::set<std::pair<uint32_t, uint32_t>> g_traps; /* (ifIndex, 23|24) */
std::set<uint32_t> g_chains;
std::set<std::string> g_sets;
std::map<std::pair<uint32_t, uint32_t>, int> g_owners; /* (address, port) -> bindings */

int run(const std::string &script, bool quiet = false)
{
    if (!g_ctx)
        return -1;
    int rc = nft_run_cmd_from_buffer(g_ctx, script.c_str());
    const char *err = nft_ctx_get_error_buffer(g_ctx);
    if (rc != 0 && !quiet)
        fprintf(stderr, "dhcpsnoopd: nftables refused: %s", err && *err ? err : "(no reason)\n");
    nft_ctx_get_output_buffer(g_ctx);
    return rc == 0 ? 0 : -1;
}

std::string hex(uint32_t v)
{
    char b[16];
    snprintf(b, sizeof b, "0x%x", v);
    return b;
}

std::string bits(uint32_t byteOff, uint32_t width) /* a raw link-layer field */
{
    return "@ll," + std::to_string(byteOff * 8) + "," + std::to_string(width) + " ";
}

std::string tpid_set(uint16_t portTpid)
{
    std::string s = "{ 0x8100, 0x88a8, 0x9100";
    if (portTpid && portTpid != 0x8100 && portTpid != 0x88A8 && portTpid != 0x9100)
        s += ", " + hex(portTpid);
    return s + " } ";
}

/* ---- the keys ---- */

enum class Kind { Ipsg4, Ipsg6, Arp };

std::string key_expr(Kind k, uint8_t items)
{
    struct Field {
        uint8_t bit;
        const char *v4, *v6, *arp;
    };
    static const Field fields[] = {
        {DHCPSNOOP_CHECK_IP, "ip saddr", "ip6 saddr", "arp saddr ip"},
        {DHCPSNOOP_CHECK_MAC, "ether saddr", "ether saddr", "arp saddr ether"},
        {DHCPSNOOP_CHECK_VLAN, "meta mark", "meta mark", "meta mark"},
        {DHCPSNOOP_CHECK_PORT, "meta iif", "meta iif", "meta iif"},
    };
    std::string key;
    for (const Field &f : fields) {
        if (!(items & f.bit))
            continue;
        if (!key.empty())
            key += " . ";
        key += k == Kind::Ipsg4 ? f.v4 : k == Kind::Ipsg6 ? f.v6 : f.arp;
    }
    return key;
}

std::string set_name(Kind k, uint8_t items)
{
    char b[32];
    snprintf(b, sizeof b, "%s_%02x", k == Kind::Ipsg4 ? "ipsg4" : k == Kind::Ipsg6 ? "ipsg6" : "arp",
             items);
    return b;
}

/* The set of one combination, made the first time it is needed. */
std::string ensure_set(Kind k, uint8_t items)
{
    std::string name = set_name(k, items);
    if (g_sets.count(name))
        return "";
    g_sets.insert(name);
    return "add set " + std::string(TABLE) + " " + name + " { typeof " + key_expr(k, items) +
           "; }\n";
}

/* ---- the port chains ---- */

struct Check {
    uint16_t vid; /* 0: every frame of the port */
    uint8_t items;
};

/* Where a feature applies on a port: the port's own setting, else the
 * settings of the VLANs it is a member of. */
std::vector<Check> checks_of(const std::map<uint32_t, SimHookAnswer> &feature, uint32_t ifIndex)
{
    const SwitchModel &m = sim_model();
    std::vector<Check> out;
    auto on = [&](uint32_t idx, uint8_t &items) {
        auto it = feature.find(idx);
        if (it == feature.end() || it->second.rc != 0 || it->second.enabled != 1)
            return false;
        items = it->second.items & DHCPSNOOP_CHECK_ALL;
        return items != 0;
    };
    uint8_t items;
    if (on(ifIndex, items))
        return {Check{0, items}};
    for (auto &[vid, members] : m.vlanMembers)
        for (uint32_t p : members)
            if (p == ifIndex && on(LINUX_VLAN_IF_BASE + vid, items))
                out.push_back(Check{vid, items});
    return out;
}

bool dai_anywhere()
{
    if (!g_daiOn)
        return false;
    for (auto &[idx, a] : sim_model().dai)
        if (a.rc == 0 && a.enabled == 1)
            return true;
    return false;
}

/* DHCP of one family keeps out of the kernel (drop: the daemon has it and
 * forwards it) or passes untouched before any check (accept), in every
 * stack of up to two tags.  Untagged frames and a single tag the kernel
 * takes off are parsed by the kernel, IP options and IPv6 extension headers
 * included; frames it leaves tagged are matched where the fields lie. */
void dhcp_rules(std::vector<std::string> &r, bool v6, const char *verdict, uint16_t portTpid)
{
    r.push_back(std::string(v6 ? "meta protocol ip6 udp dport { 546, 547 } "
                               : "meta protocol ip udp dport { 67, 68 } ") + verdict);
    const std::string tp = tpid_set(portTpid);
    for (uint32_t l3 : {18u, 22u}) {
        std::string tags = bits(12, 16) + tp + (l3 == 22 ? bits(16, 16) + tp : "");
        if (!v6) {
            tags += bits(l3 - 2, 16) + "0x0800 " + bits(l3 + 9, 8) + "17 ";
            for (uint32_t ihl = 5; ihl <= 15; ihl++)
                r.push_back(tags + "@ll," + std::to_string(l3 * 8 + 4) + ",4 " +
                            std::to_string(ihl) + " " + bits(l3 + ihl * 4 + 2, 16) + "{ 67, 68 } " +
                            verdict);
        } else {
            tags += bits(l3 - 2, 16) + "0x86dd ";
            r.push_back(tags + bits(l3 + 6, 8) + "17 " + bits(l3 + 42, 16) + "{ 546, 547 } " +
                        verdict);
            /* behind one hop-by-hop header of 8 bytes */
            r.push_back(tags + bits(l3 + 6, 8) + "0 " + bits(l3 + 40, 8) + "17 " +
                        bits(l3 + 41, 8) + "0 " + bits(l3 + 50, 16) + "{ 546, 547 } " + verdict);
        }
    }
}

/* The rules of one port's chain, or nothing when the port needs none. */
std::vector<std::string> port_rules(uint32_t ifIndex, const SimPort &p)
{
    const bool trap4 = g_traps.count({ifIndex, 23}), trap6 = g_traps.count({ifIndex, 24});
    const std::vector<Check> ipsg = g_ipsgOn ? checks_of(sim_model().ipsg, ifIndex)
                                             : std::vector<Check>();
    const std::vector<Check> dai = g_daiOn ? checks_of(sim_model().dai, ifIndex)
                                           : std::vector<Check>();
    const bool garp = dai_anywhere();
    const bool enforcing = !ipsg.empty() || !dai.empty() || garp;
    std::vector<std::string> r;
    if (!trap4 && !trap6 && !enforcing)
        return r;
    const uint16_t tpid = p.tpid ? p.tpid : 0x8100;
    if (trap4 || enforcing)
        dhcp_rules(r, false, trap4 ? "drop" : "accept", tpid);
    if (trap6 || enforcing)
        dhcp_rules(r, true, trap6 ? "drop" : "accept", tpid);
    if (!enforcing)
        return r;
    const std::string n = std::to_string(ifIndex);
    const std::string pass = "meta mark set 0 accept";
    r.push_back("meta mark set " + std::to_string(linux_port_pvid(ifIndex)));
    r.push_back(bits(12, 16) + tpid_set(tpid) + "meta mark set " + bits(14, 16) + "& 0xfff");
    if (garp)
        r.push_back("meta protocol arp arp saddr ip . arp daddr ip @garp4 arp saddr ip . "
                    "arp daddr ip . meta iif != @garp4_owner counter name arp_p" + n + " drop");
    for (const Check &c : ipsg) {
        const std::string pre = c.vid ? "meta mark " + std::to_string(c.vid) + " " : "";
        r.push_back(pre + "meta protocol ip " + key_expr(Kind::Ipsg4, c.items) + " @" +
                    set_name(Kind::Ipsg4, c.items) + " " + pass);
        r.push_back(pre + "meta protocol ip counter name ipsg_p" + n + " drop");
        /* address resolution and duplicate detection of a host still
         * without an address must go on */
        r.push_back(pre + "meta protocol ip6 ip6 saddr { ::, fe80::/10 } icmpv6 type { "
                          "nd-router-solicit, nd-neighbor-solicit, nd-neighbor-advert, "
                          "mld2-listener-report } " + pass);
        r.push_back(pre + "meta protocol ip6 " + key_expr(Kind::Ipsg6, c.items) + " @" +
                    set_name(Kind::Ipsg6, c.items) + " " + pass);
        r.push_back(pre + "meta protocol ip6 counter name ipsg_p" + n + " drop");
        /* what hides behind tags the kernel does not parse cannot be checked */
        r.push_back(pre + "meta protocol " + tpid_set(tpid) + "counter name ipsg_p" + n + " drop");
    }
    for (const Check &c : dai) {
        const std::string pre = c.vid ? "meta mark " + std::to_string(c.vid) + " " : "";
        r.push_back(pre + "meta protocol arp arp saddr ip 0.0.0.0 " + pass); /* a probe */
        r.push_back(pre + "meta protocol arp " + key_expr(Kind::Arp, c.items) + " @" +
                    set_name(Kind::Arp, c.items) + " " + pass);
        r.push_back(pre + "meta protocol arp counter name arp_p" + n + " drop");
    }
    r.push_back("meta mark set 0");
    return r;
}

/* Make a port's chain say what the port needs now. */
int update_port(uint32_t ifIndex)
{
    auto it = sim_model().ports.find(ifIndex);
    char name[IF_NAMESIZE] = {0};
    if (it == sim_model().ports.end() || it->second.isVlanIf || !if_indextoname(ifIndex, name))
        return 0; /* a VLAN interface of the model: nothing on the host */
    const std::vector<std::string> rules = port_rules(ifIndex, it->second);
    const std::string t = TABLE, chain = t + " p" + std::to_string(ifIndex);
    std::string s;
    if (rules.empty()) {
        if (!g_chains.count(ifIndex))
            return 0;
        g_chains.erase(ifIndex);
        /* flush first: a base chain with rules cannot be deleted */
        return run("flush chain " + chain + "\ndelete chain " + chain + "\n");
    }
    for (const Check &c : g_ipsgOn ? checks_of(sim_model().ipsg, ifIndex) : std::vector<Check>())
        s += ensure_set(Kind::Ipsg4, c.items) + ensure_set(Kind::Ipsg6, c.items);
    for (const Check &c : g_daiOn ? checks_of(sim_model().dai, ifIndex) : std::vector<Check>())
        s += ensure_set(Kind::Arp, c.items);
    s += "add counter " + t + " ipsg_p" + std::to_string(ifIndex) + "\n";
    s += "add counter " + t + " arp_p" + std::to_string(ifIndex) + "\n";
    s += "add chain " + chain + " { type filter hook ingress device \"" + name +
         "\" priority -500; }\nflush chain " + chain + "\n";
    for (const std::string &r : rules)
        s += "add rule " + chain + " " + r + "\n";
    if (run(s) != 0) {
        fprintf(stderr, "dhcpsnoopd: nftables refused the rules of port %s\n", name);
        return -1;
    }
    g_chains.insert(ifIndex);
    return 0;
}

std::string ip4_text(const uint8_t *a)
{
    char b[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, a, b, sizeof b);
    return b;
}

} // namespace

int linux_nft_start(void)
{
    if (!g_ctx) {
        g_ctx = nft_ctx_new(NFT_CTX_DEFAULT);
        if (!g_ctx) {
            fprintf(stderr, "dhcpsnoopd: nftables cannot be used\n");
            return -1;
        }
        nft_ctx_buffer_output(g_ctx);
        nft_ctx_buffer_error(g_ctx);
    }
    g_traps.clear();
    g_chains.clear();
    g_sets.clear();
    g_owners.clear();
    /* whatever an earlier daemon left (killed before it could clean up) is
     * replaced in one transaction */
    const std::string t = TABLE;
    if (run("add table " + t + "\ndelete table " + t + "\nadd table " + t + "\n") != 0) {
        fprintf(stderr, "dhcpsnoopd: the nftables table could not be made; DHCP is not kept from "
                        "the kernel's forwarding\n");
        nft_ctx_free(g_ctx);
        g_ctx = nullptr;
        return -1;
    }
    return 0;
}

void linux_nft_stop(void)
{
    if (!g_ctx)
        return;
    run("delete table " + std::string(TABLE) + "\n", true);
    nft_ctx_free(g_ctx);
    g_ctx = nullptr;
}

void linux_nft_enforce(bool ipsgHook, bool daiHook)
{
    if (!g_ctx)
        return;
    g_ipsgOn = ipsgHook;
    g_daiOn = daiHook;
    if (dai_anywhere() &&
        run("add set " + std::string(TABLE) + " garp4 { type ipv4_addr . ipv4_addr; }\n" +
            "add set " + std::string(TABLE) +
            " garp4_owner { type ipv4_addr . ipv4_addr . iface_index; }\n") != 0)
        return;
    for (auto &[idx, p] : sim_model().ports)
        update_port(idx);
}

int linux_nft_trap(uint32_t ifIndex, uint32_t word, bool on)
{
    if (!g_ctx)
        return 0;
    if (on)
        g_traps.insert({ifIndex, word});
    else
        g_traps.erase({ifIndex, word});
    return update_port(ifIndex);
}

void linux_nft_binding(uint32_t ifIndex, bool add, const uint8_t *record44)
{
    if (!g_ctx)
        return;
    DhcpsnoopHwUserRecord r;
    memcpy(&r, record44, sizeof r);
    const bool v6 = r.ipType == DHCPSNOOP_IPTYPE_V6;
    /* an IP-source-guard rule says so; the others are ARP inspection's */
    const bool ipsg = r.ruleFlags & 0x80;
    if (!ipsg && v6)
        return; /* ARP is IPv4's */
    const uint8_t items = uint8_t((r.addrKind ? DHCPSNOOP_CHECK_IP : 0) |
                                  (r.macValid == DHCPSNOOP_MAC_MARK ? DHCPSNOOP_CHECK_MAC : 0) |
                                  (r.vid ? DHCPSNOOP_CHECK_VLAN : 0) |
                                  (r.ifIndex ? DHCPSNOOP_CHECK_PORT : 0));
    if (!items)
        return;
    const Kind k = ipsg ? (v6 ? Kind::Ipsg6 : Kind::Ipsg4) : Kind::Arp;
    std::string elem;
    auto part = [&](const std::string &p) { elem += (elem.empty() ? "" : " . ") + p; };
    if (items & DHCPSNOOP_CHECK_IP) {
        char b[INET6_ADDRSTRLEN];
        inet_ntop(v6 ? AF_INET6 : AF_INET, r.addr, b, sizeof b);
        part(b);
    }
    if (items & DHCPSNOOP_CHECK_MAC) {
        char b[24];
        snprintf(b, sizeof b, "%02x:%02x:%02x:%02x:%02x:%02x", r.mac[0], r.mac[1], r.mac[2],
                 r.mac[3], r.mac[4], r.mac[5]);
        part(b);
    }
    if (items & DHCPSNOOP_CHECK_VLAN)
        part(std::to_string(r.vid));
    if (items & DHCPSNOOP_CHECK_PORT)
        part(std::to_string(r.ifIndex));
    const std::string t = TABLE;
    std::string s = ensure_set(k, items);
    s += std::string(add ? "add" : "delete") + " element " + t + " " + set_name(k, items) + " { " +
         elem + " }\n";
    /* who owns a bound address, for gratuitous ARP from elsewhere */
    if (k == Kind::Arp && (items & DHCPSNOOP_CHECK_IP) && dai_anywhere()) {
        uint32_t a;
        memcpy(&a, r.addr, 4);
        const std::string ip = ip4_text(r.addr);
        int &owners = g_owners[{a, ifIndex}];
        int others = 0;
        for (auto &[key, n] : g_owners)
            if (key.first == a && key.second != ifIndex)
                others += n;
        if (add && owners++ == 0) {
            s += "add element " + t + " garp4_owner { " + ip + " . " + ip + " . " +
                 std::to_string(ifIndex) + " }\n";
            if (others == 0)
                s += "add element " + t + " garp4 { " + ip + " . " + ip + " }\n";
        } else if (!add && owners > 0 && --owners == 0) {
            g_owners.erase({a, ifIndex});
            s += "delete element " + t + " garp4_owner { " + ip + " . " + ip + " . " +
                 std::to_string(ifIndex) + " }\n";
            if (others == 0)
                s += "delete element " + t + " garp4 { " + ip + " . " + ip + " }\n";
        }
    }
    /* a removal of what is not there is no news */
    run(s, !add);
}

uint32_t linux_nft_drops(uint32_t ifIndex, NftDrop kind)
{
    if (!g_ctx || !g_chains.count(ifIndex))
        return 0;
    const std::string name =
        (kind == NftDrop::SourceGuard ? "ipsg_p" : "arp_p") + std::to_string(ifIndex);
    if (nft_run_cmd_from_buffer(g_ctx, ("list counter " + std::string(TABLE) + " " + name).c_str()) != 0) {
        nft_ctx_get_error_buffer(g_ctx);
        return 0;
    }
    const char *out = nft_ctx_get_output_buffer(g_ctx);
    const char *at = out ? strstr(out, "packets ") : nullptr;
    return at ? uint32_t(strtoul(at + 8, nullptr, 10)) : 0;
}
