/*
 * The binding index: what finds a user node quickly whatever the table size.
 *
 * The 63 bucket chains of gDhcpsnoop stay what every full walk of the tables
 * follows (the lease scan, sync, propagation), so their order is unchanged;
 * beside them, made once at start-up from the pool size:
 *   - a power-of-two hash of the bindings by key,
 *   - a hash of the bindings by MAC (the NAK path) and of the MAC users,
 *   - a treap of the bindings ordered by key (management listing).
 * Nodes are named by their number in the user pool, so every link is a
 * 16-bit word in an array beside the pool and the records keep their layout.
 */
#include <string.h>

#include "dhcpsnoop.h"
#include "dhcpsnoop_sys.h"
#include "dhcpsnoop_user.h"

namespace {

typedef uint16_t Node;
constexpr Node NONE = 0xFFFF;

enum : uint8_t {
    F_BINDING = 0x01,  /* in the key hash and the treap */
    F_MAC = 0x02,      /* linked in a MAC chain (bindings or MAC users) */
    F_PENDING = 0x04,  /* a binding whose MAC is to be (re)indexed */
    F_MAC_USER = 0x08, /* a MAC user */
};

struct Index {
    void *block;    /* the one allocation; null when no index was made */
    void *pool;     /* the user pool it belongs to */
    uint32_t count; /* nodes in the pool */
    uint32_t mask;  /* hash size - 1 */
    Node *keyHead, *macHead, *macUserHead;
    Node *keyNext, *macNext, *macPrev, *macBucket, *left, *right, *pending;
    uint8_t *flags;
    uint32_t pendingCount;
    Node root;
};

Index idx;

constexpr size_t node_size()
{
    /* as the pool is laid out by dhcpsnoop_memlist_init */
    size_t size = sizeof(DhcpsnoopUser) > sizeof(DhcpsnoopList) ? sizeof(DhcpsnoopUser)
                                                                 : sizeof(DhcpsnoopList);
    return (size + alignof(DhcpsnoopList) - 1) / alignof(DhcpsnoopList) * alignof(DhcpsnoopList);
}

bool ready() { return idx.block && idx.pool == gDhcpsnoop.userPool; }

Node node_of(const void *entry)
{
    size_t off = size_t(static_cast<const uint8_t *>(entry) - static_cast<uint8_t *>(idx.pool));
    return Node(off / node_size());
}

uint8_t *node_ptr(Node n) { return static_cast<uint8_t *>(idx.pool) + size_t(n) * node_size(); }
DhcpsnoopUser *user_of(Node n) { return reinterpret_cast<DhcpsnoopUser *>(node_ptr(n)); }
DhcpsnoopMacUser *mac_user_of(Node n) { return reinterpret_cast<DhcpsnoopMacUser *>(node_ptr(n)); }
const uint8_t *key_of(Node n) { return &user_of(n)->ipType; }

uint32_t mix(uint32_t h, uint32_t w)
{
    h ^= w;
    h *= 0x9E3779B1u;
    return h ^ (h >> 15);
}

uint32_t word(const uint8_t *p)
{
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

uint32_t addr_len(uint8_t ipType) { return ipType == DHCPSNOOP_IPTYPE_V4 ? 4 : 16; }

/* Keys are equal when type and address agree, over 4 bytes for IPv4. */
uint32_t key_hash(uint8_t ipType, const uint8_t *addr)
{
    uint32_t h = mix(0x811C9DC5u, ipType);
    for (uint32_t i = 0; i < addr_len(ipType); i += 4)
        h = mix(h, word(addr + i));
    return (h ^ (h >> 16)) & idx.mask;
}

uint32_t mac_hash(const uint8_t *mac)
{
    uint32_t h = mix(mix(0x811C9DC5u, word(mac)), uint32_t(mac[4]) << 8 | mac[5]);
    return (h ^ (h >> 16)) & idx.mask;
}

/* ---- MAC chains (doubly linked through macNext/macPrev) ---- */

void mac_link(Node *heads, Node n, const uint8_t *mac)
{
    idx.macBucket[n] = Node(mac_hash(mac));
    Node *head = &heads[idx.macBucket[n]];
    idx.macNext[n] = *head;
    idx.macPrev[n] = NONE;
    if (*head != NONE)
        idx.macPrev[*head] = n;
    *head = n;
    idx.flags[n] |= F_MAC;
}

/* The chain is the one the node was linked into: its MAC may have changed
 * since. */
void mac_unlink(Node *heads, Node n)
{
    if (!(idx.flags[n] & F_MAC))
        return;
    Node next = idx.macNext[n], prev = idx.macPrev[n];
    if (prev != NONE)
        idx.macNext[prev] = next;
    else
        heads[idx.macBucket[n]] = next;
    if (next != NONE)
        idx.macPrev[next] = prev;
    idx.flags[n] &= uint8_t(~F_MAC);
}

/* Bindings written since the last MAC lookup take their chain now: their MAC
 * is filled in by whoever made them, after the node was linked. */
void flush_pending()
{
    for (uint32_t i = 0; i < idx.pendingCount; i++) {
        Node n = idx.pending[i];
        if (!(idx.flags[n] & F_PENDING))
            continue;
        idx.flags[n] &= uint8_t(~F_PENDING);
        mac_link(idx.macHead, n, user_of(n)->mac);
    }
    idx.pendingCount = 0;
}

void mark_pending(Node n)
{
    if (idx.flags[n] & F_PENDING)
        return;
    if (idx.pendingCount == idx.count)
        flush_pending();
    idx.flags[n] |= F_PENDING;
    idx.pending[idx.pendingCount++] = n;
}

/* ---- the treap, ordered by the 20 key bytes, then node number ---- */

uint32_t priority(Node n) { return mix(mix(0x2545F491u, n), n); }

bool before(Node a, Node b)
{
    int c = memcmp(key_of(a), key_of(b), sizeof(DhcpsnoopUserKey));
    return c < 0 || (c == 0 && a < b);
}

Node insert(Node t, Node n)
{
    if (t == NONE)
        return n;
    if (before(n, t)) {
        idx.left[t] = insert(idx.left[t], n);
        Node l = idx.left[t];
        if (priority(l) > priority(t)) {
            idx.left[t] = idx.right[l];
            idx.right[l] = t;
            return l;
        }
    } else {
        idx.right[t] = insert(idx.right[t], n);
        Node r = idx.right[t];
        if (priority(r) > priority(t)) {
            idx.right[t] = idx.left[r];
            idx.left[r] = t;
            return r;
        }
    }
    return t;
}

Node merge(Node a, Node b)
{
    if (a == NONE)
        return b;
    if (b == NONE)
        return a;
    if (priority(a) > priority(b)) {
        idx.right[a] = merge(idx.right[a], b);
        return a;
    }
    idx.left[b] = merge(a, idx.left[b]);
    return b;
}

Node erase(Node t, Node n)
{
    if (t == NONE)
        return NONE;
    if (t == n)
        return merge(idx.left[t], idx.right[t]);
    if (before(n, t))
        idx.left[t] = erase(idx.left[t], n);
    else
        idx.right[t] = erase(idx.right[t], n);
    return t;
}

} // namespace

int32_t dhcpsnoop_user_index_init(uint32_t count)
{
    dhcpsnoop_user_index_release();
    if (count == 0)
        count = 1;
    if (count > NONE) /* a 16-bit pool: node numbers stay below NONE */
        count = NONE;
    uint32_t size = 16;
    while (size < count)
        size <<= 1;
    /* three hash heads of `size`, seven node-sized word arrays, the flags */
    size_t words = 3 * size_t(size) + 7 * size_t(count);
    uint8_t *block = static_cast<uint8_t *>(
        dhcpsnoop_sys->calloc(1, words * sizeof(Node) + count));
    if (!block)
        return -1;
    memset(&idx, 0, sizeof idx);
    idx.block = block;
    idx.pool = gDhcpsnoop.userPool;
    idx.count = count;
    idx.mask = size - 1;
    Node *w = reinterpret_cast<Node *>(block);
    idx.keyHead = w, w += size;
    idx.macHead = w, w += size;
    idx.macUserHead = w, w += size;
    idx.keyNext = w, w += count;
    idx.macNext = w, w += count;
    idx.macPrev = w, w += count;
    idx.left = w, w += count;
    idx.right = w, w += count;
    idx.pending = w, w += count;
    idx.macBucket = w, w += count;
    idx.flags = reinterpret_cast<uint8_t *>(w);
    memset(idx.keyHead, 0xFF, 3 * size_t(size) * sizeof(Node));
    idx.root = NONE;
    return 0;
}

void dhcpsnoop_user_index_release(void)
{
    if (idx.block)
        dhcpsnoop_sys->free(idx.block);
    memset(&idx, 0, sizeof idx);
}

void dhcpsnoop_user_index_add(DhcpsnoopUser *entry)
{
    if (!ready() || !entry)
        return;
    Node n = node_of(entry);
    Node *head = &idx.keyHead[key_hash(entry->ipType, entry->ipAddr)];
    idx.keyNext[n] = *head;
    *head = n;
    idx.left[n] = idx.right[n] = NONE;
    idx.root = insert(idx.root, n);
    idx.flags[n] = F_BINDING;
    mark_pending(n);
}

void dhcpsnoop_user_index_remove(DhcpsnoopUser *entry)
{
    if (!ready() || !entry)
        return;
    Node n = node_of(entry);
    if (!(idx.flags[n] & F_BINDING))
        return;
    for (Node *p = &idx.keyHead[key_hash(entry->ipType, entry->ipAddr)]; *p != NONE;
         p = &idx.keyNext[*p]) {
        if (*p == n) {
            *p = idx.keyNext[n];
            break;
        }
    }
    idx.root = erase(idx.root, n);
    mac_unlink(idx.macHead, n);
    idx.flags[n] = 0;
}

DhcpsnoopUser *dhcpsnoop_user_index_find(const DhcpsnoopUserKey *key)
{
    if (!ready() || !key)
        return nullptr;
    for (Node n = idx.keyHead[key_hash(key->ipType, key->ipAddr)]; n != NONE;
         n = idx.keyNext[n]) {
        DhcpsnoopUser *u = user_of(n);
        if (u->ipType == key->ipType && memcmp(u->ipAddr, key->ipAddr, addr_len(key->ipType)) == 0)
            return u;
    }
    return nullptr;
}

void dhcpsnoop_user_mac_changed(DhcpsnoopUser *entry)
{
    if (!ready() || !entry)
        return;
    Node n = node_of(entry);
    if (!(idx.flags[n] & F_BINDING))
        return;
    mac_unlink(idx.macHead, n);
    mark_pending(n);
}

DhcpsnoopUser *dhcpsnoop_user_lookup_by_mac(const uint8_t *mac)
{
    if (!ready() || !mac)
        return nullptr;
    flush_pending();
    /* several dynamic bindings of one client: the first in bucket order */
    DhcpsnoopUser *best = nullptr;
    uint32_t bestBucket = 0;
    bool tie = false;
    for (Node n = idx.macHead[mac_hash(mac)]; n != NONE; n = idx.macNext[n]) {
        DhcpsnoopUser *u = user_of(n);
        if (u->userType != DHCPSNOOP_USER_DYNAMIC || memcmp(u->mac, mac, 6) != 0)
            continue;
        uint32_t b = dhcpsnoop_user_hash_key(dhcpsnoop_user_key(u));
        if (!best || b < bestBucket) {
            best = u;
            bestBucket = b;
            tie = false;
        } else if (b == bestBucket) {
            tie = true;
        }
    }
    if (!tie)
        return best;
    DhcpsnoopList *head = &gDhcpsnoop.userHash[bestBucket];
    for (DhcpsnoopList *l = head->next; l != head; l = l->next) {
        DhcpsnoopUser *u = dhcpsnoop_entry<DhcpsnoopUser>(l);
        if (u->userType == DHCPSNOOP_USER_DYNAMIC && memcmp(u->mac, mac, 6) == 0)
            return u;
    }
    return best;
}

const DhcpsnoopUser *dhcpsnoop_user_next(const DhcpsnoopUserKey *after)
{
    if (!ready())
        return nullptr;
    /* the smallest (key, node) above (after, every node): keys equal to
     * `after` are not above it */
    const uint8_t *k = after ? &after->ipType : nullptr;
    Node bound = NONE;
    for (;;) {
        Node best = NONE;
        for (Node t = idx.root; t != NONE;) {
            int c = k ? memcmp(key_of(t), k, sizeof(DhcpsnoopUserKey)) : 1;
            if (c > 0 || (c == 0 && t > bound)) {
                best = t;
                t = idx.left[t];
            } else {
                t = idx.right[t];
            }
        }
        if (best == NONE)
            return nullptr;
        if (user_of(best)->userType != DHCPSNOOP_USER_IPSG)
            return user_of(best);
        k = key_of(best);
        bound = best;
    }
}

void dhcpsnoop_mac_user_index_add(DhcpsnoopMacUser *entry)
{
    if (!ready() || !entry)
        return;
    Node n = node_of(entry);
    idx.flags[n] = F_MAC_USER;
    mac_link(idx.macUserHead, n, entry->mac);
}

void dhcpsnoop_mac_user_index_remove(DhcpsnoopMacUser *entry)
{
    if (!ready() || !entry)
        return;
    Node n = node_of(entry);
    if (!(idx.flags[n] & F_MAC_USER))
        return;
    mac_unlink(idx.macUserHead, n);
    idx.flags[n] = 0;
}

DhcpsnoopMacUser *dhcpsnoop_mac_user_index_find(const uint8_t *mac)
{
    if (!ready() || !mac)
        return nullptr;
    for (Node n = idx.macUserHead[mac_hash(mac)]; n != NONE; n = idx.macNext[n]) {
        DhcpsnoopMacUser *m = mac_user_of(n);
        if (memcmp(m->mac, mac, 6) == 0)
            return m;
    }
    return nullptr;
}
