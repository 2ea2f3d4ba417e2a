/*
 * The Linux platform's forwarding hardware: one nftables table of the
 * daemon's own (netdev family, an ingress chain per port) that keeps DHCP
 * from the kernel's forwarding and enforces the bindings handed to the
 * hardware (IP source guard, ARP inspection).
 */
#ifndef DHCPSNOOP_LINUX_NFT_H
#define DHCPSNOOP_LINUX_NFT_H

#include <cstdint>
#include <string>

/* Drop counters the table keeps per port, read as interface attributes. */
enum class NftDrop { SourceGuard, ArpInspection };

/* Replace a table left behind by an earlier daemon with an empty one.
 * Returns 0, or -1 (with a message on standard error) when nftables cannot
 * be used. */
int linux_nft_start(void);
/* Remove the table: DHCP and everything else flows through the kernel's
 * own forwarding again.  Safe to call more than once. */
void linux_nft_stop(void);
/* The daemon is up: the enforcement rules of every port whose IP source
 * guard or ARP inspection the daemon feeds (its hooks are installed) go in. */
void linux_nft_enforce(bool ipsgHook, bool daiHook);
/* Keep (on) or give back (off) the DHCP of one family (23 IPv4, 24 IPv6)
 * arriving on a port.  Returns 0 or -1. */
int linux_nft_trap(uint32_t ifIndex, uint32_t word, bool on);
/* One hardware binding record added (add) or removed: one set element. */
void linux_nft_binding(uint32_t ifIndex, bool add, const uint8_t *record44);
/* Frames the table dropped on a port so far. */
uint32_t linux_nft_drops(uint32_t ifIndex, NftDrop kind);

#endif
