/*
 * Management: switch-wide settings and the per-VLAN settings.
 *
 * A VLAN setting is the setting of the VLAN's interface entry; the VLAN entry
 * points translate the VLAN id into that interface's index and hand over to
 * the interface entry points.
 */
#include "dhcpsnoop_nm.h"
#include "dhcpsnoop_nm_value.h"
#include "dhcpsnoop_user.h"

namespace {

constexpr uint32_t VID_MIN = 1;
constexpr uint32_t VID_MAX = 4094;
constexpr int32_t VID_INVALID = 22;

/* Snooping switched off: only IP-source-guard bindings survive, and nothing
 * is snooped until interfaces are enabled again. */
void nm_flush_tables()
{
    for (auto &head : gDhcpsnoop.userHash) {
        for (DhcpsnoopList *n = head.next, *next; n != &head; n = next) {
            next = n->next;
            DhcpsnoopUser *u = dhcpsnoop_entry<DhcpsnoopUser>(n);
            if (u->userType != DHCPSNOOP_USER_IPSG)
                dhcpsnoop_user_delete(u);
        }
    }
    for (auto &head : gDhcpsnoop.macUserHash) {
        for (DhcpsnoopList *n = head.next, *next; n != &head; n = next) {
            next = n->next;
            dhcpsnoop_mac_user_delete(dhcpsnoop_entry<DhcpsnoopMacUser>(n));
        }
    }
    DhcpsnoopList *ifHead = &gDhcpsnoop.ifList;
    for (DhcpsnoopList *n = ifHead->next, *next; n != ifHead; n = next) {
        next = n->next;
        dhcpsnoop_if_disable(dhcpsnoop_entry<DhcpsnoopIf>(n));
    }
    DhcpsnoopList *srvHead = &gDhcpsnoop.serverList;
    for (DhcpsnoopList *n = srvHead->next, *next; n != srvHead; n = next) {
        next = n->next;
        dhcpsnoop_server_delete(dhcpsnoop_entry<DhcpsnoopServer>(n));
    }
}

uint32_t nm_user_count()
{
    uint32_t count = 0;
    for (auto &head : gDhcpsnoop.userHash)
        for (DhcpsnoopList *n = head.next; n != &head; n = n->next)
            if (dhcpsnoop_entry<DhcpsnoopUser>(n)->userType != DHCPSNOOP_USER_IPSG)
                count++;
    return count;
}

int32_t nm_scalar_sync(void *source, uint32_t cmd, void *data, uint32_t mode)
{
    return qorHwScalarSync(source, DHCPSNOOP_HW_GLOBAL_BASE + cmd, data, mode) ? DHCPSNOOP_E_HW
                                                                               : DHCPSNOOP_OK;
}

int32_t nm_set_locked(void *source, uint32_t cmd, void *data, uint32_t mode)
{
    if (cmd == DHCPSNOOP_G_CLEAR_STATS) {
        for (DhcpsnoopList *n = gDhcpsnoop.ifList.next; n != &gDhcpsnoop.ifList; n = n->next) {
            DhcpsnoopIf *e = dhcpsnoop_entry<DhcpsnoopIf>(n);
            for (uint32_t &c : e->counters)
                c = 0;
        }
        return DHCPSNOOP_OK;
    }
    if (cmd == DHCPSNOOP_G_SYNC_PKT) {
        /* The peer unit's sync buffer, carried here by the platform as a
         * text value: applied whatever it holds. */
        QorTextPair *pkt = nm_value_text(data);
        if (!pkt)
            return DHCPSNOOP_E_INVALID;
        dhcpsnoop_sync_pkt_recv(pkt);
        return DHCPSNOOP_OK;
    }
    switch (cmd) {
    case DHCPSNOOP_G_ENABLE:
    case DHCPSNOOP_G_ENTERPRISE:
    case DHCPSNOOP_G_HW_NOTIFY:
    case DHCPSNOOP_G_SERVER_LEARN:
    case DHCPSNOOP_G_DEBUG:
    case DHCPSNOOP_G_BINDING_GUARD:
        break;
    default:
        return DHCPSNOOP_E_INVALID;
    }
    if (!data)
        return DHCPSNOOP_E_INVALID;
    const uint32_t value = nm_value_u32(data);
    int32_t rc;

    switch (cmd) {
    case DHCPSNOOP_G_ENABLE:
        if (uint8_t(value) == gDhcpsnoop.globalEnable)
            return DHCPSNOOP_OK;
        if ((rc = nm_scalar_sync(source, cmd, data, mode)) != 0)
            return rc;
        if (uint8_t(value) != 1)
            nm_flush_tables();
        gDhcpsnoop.globalEnable = uint8_t(value);
        return DHCPSNOOP_OK;
    case DHCPSNOOP_G_ENTERPRISE:
        if ((rc = nm_scalar_sync(source, cmd, data, mode)) != 0)
            return rc;
        gDhcpsnoop.enterpriseNum = value;
        return DHCPSNOOP_OK;
    case DHCPSNOOP_G_HW_NOTIFY:
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Global dhcpsnoop setapi: hardware notify state %d.\r\n",
                        int(value));
        if (uint8_t(value) == gDhcpsnoop.hwNotifyEnable)
            return DHCPSNOOP_OK;
        if ((rc = nm_scalar_sync(source, cmd, data, mode)) != 0)
            return rc;
        gDhcpsnoop.hwNotifyEnable = uint8_t(value);
        dhcpsnoop_user_process_on_interface(nullptr, 3, 3, gDhcpsnoop.hwNotifyEnable == 1 ? 1 : 0);
        return DHCPSNOOP_OK;
    case DHCPSNOOP_G_SERVER_LEARN:
        if ((rc = nm_scalar_sync(source, cmd, data, mode)) != 0)
            return rc;
        gDhcpsnoop.serverLearn = uint8_t(value);
        return DHCPSNOOP_OK;
    case DHCPSNOOP_G_BINDING_GUARD:
        if (value > 1)
            return DHCPSNOOP_E_INVALID;
        if ((rc = nm_scalar_sync(source, cmd, data, mode)) != 0)
            return rc;
        gDhcpsnoop.bindingGuard = uint8_t(value);
        return DHCPSNOOP_OK;
    default: /* DHCPSNOOP_G_DEBUG */
        gDhcpsnoop.debugFlags = uint8_t(value);
        return DHCPSNOOP_OK;
    }
}

/* The VLAN's interface index through the platform's VLAN translation. */
int nm_vlan_ifindex(uint32_t vid, uint32_t *ifindex)
{
    const uint32_t words[7] = {1, 1, 1, 1, vid, 3, 0};
    return qorIndexTrans(words, 7, ifindex);
}

/* The VLAN interface cmd behind a VLAN cmd, or 0. */
uint32_t nm_vlan_if_cmd(uint32_t cmd)
{
    switch (cmd) {
    case 1:
        return 18;
    case 3:
        return 1;
    default:
        return 0;
    }
}

/* First in-use VLAN interface, in interface-list order, whose VLAN id is
 * above `after` (or any when `any`). */
int32_t nm_vlan_walk(bool any, uint32_t after, uint32_t *out)
{
    if (!out)
        return -1;
    int32_t rc = -1;
    dhcpsnoop_lock();
    for (DhcpsnoopList *n = gDhcpsnoop.ifList.next; n != &gDhcpsnoop.ifList; n = n->next) {
        const DhcpsnoopIf *e = dhcpsnoop_entry<DhcpsnoopIf>(n);
        if (!(e->flags & ifflag::IN_USE) || e->isVlanIf != 1)
            continue;
        if (any || dhcpsnoop_if_vid(e) > after) {
            *out = dhcpsnoop_if_vid(e);
            rc = 0;
            break;
        }
    }
    dhcpsnoop_unlock();
    return rc;
}

} // namespace

int32_t _dhcpSnoopSetApi(void *source, uint32_t cmd, void *data, uint32_t mode)
{
    DHCPSNOOP_DEBUG("[DHCPSNOOP] Global dhcpsnoop setapi: cmd %d.\r\n", int(cmd));
    dhcpsnoop_lock();
    int32_t rc = nm_set_locked(source, cmd, data, mode);
    DHCPSNOOP_DEBUG("[DHCPSNOOP] Global dhcpsnoop setapi: end, rc = %d.\r\n", int(rc));
    dhcpsnoop_unlock();
    return rc;
}

int32_t dhcpSnoopSetApi(void *source, uint32_t cmd, void *data)
{
    return _dhcpSnoopSetApi(source, cmd, data, DHCPSNOOP_MODE_SET);
}

int32_t dhcpSnoopSyncApi(void *source, uint32_t cmd, void *data)
{
    return _dhcpSnoopSetApi(source, cmd, data, DHCPSNOOP_MODE_SYNC);
}

int32_t dhcpSnoopGetApi(void *, uint32_t cmd, void *value)
{
    uint32_t v;
    dhcpsnoop_lock();
    switch (cmd) {
    case DHCPSNOOP_G_ENABLE:
        v = gDhcpsnoop.globalEnable;
        break;
    case DHCPSNOOP_G_ENTERPRISE:
        v = gDhcpsnoop.enterpriseNum;
        break;
    case DHCPSNOOP_G_USER_COUNT:
        v = nm_user_count();
        break;
    case DHCPSNOOP_G_HW_NOTIFY:
        v = gDhcpsnoop.hwNotifyEnable;
        break;
    case DHCPSNOOP_G_SERVER_LEARN:
        v = gDhcpsnoop.serverLearn;
        break;
    case DHCPSNOOP_G_DEBUG:
        v = gDhcpsnoop.debugFlags;
        break;
    case DHCPSNOOP_G_BINDING_GUARD:
        v = gDhcpsnoop.bindingGuard;
        break;
    default:
        dhcpsnoop_unlock();
        return DHCPSNOOP_E_INVALID;
    }
    dhcpsnoop_unlock();
    if (!value)
        return DHCPSNOOP_E_INVALID;
    nm_value_put_u32(value, v);
    return DHCPSNOOP_OK;
}

int32_t dhcpSnoop_debug_set(uint8_t mask, uint32_t op)
{
    if (op == 1)
        gDhcpsnoop.debugFlags |= mask;
    else if (op == 2)
        gDhcpsnoop.debugFlags &= uint8_t(~mask);
    else
        return -1;
    return 0;
}

int32_t dhcpSnoopVlanGetFirst(uint32_t *vid) { return nm_vlan_walk(true, 0, vid); }

int32_t dhcpSnoopVlanGetNext(uint32_t vid, uint32_t *next) { return nm_vlan_walk(false, vid, next); }

int32_t dhcpSnoopVlanSetApi(uint32_t vid, uint32_t cmd, void *data)
{
    DHCPSNOOP_DEBUG("[DHCPSNOOP] dhcpsnoop vlan setapi: vid %d, cmd %d.\r\n", int(vid), int(cmd));
    if (vid < VID_MIN || vid > VID_MAX) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] dhcpsnoop vlan setapi: vid is invalid!\r\n");
        return VID_INVALID;
    }
    uint32_t ifindex = 0;
    if (nm_vlan_ifindex(vid, &ifindex) != 0) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] dhcpsnoop vlan setapi: get unit of the vlan failed!\r\n");
        return -1;
    }
    const uint32_t ifCmd = nm_vlan_if_cmd(cmd);
    return ifCmd ? dhcpSnoopIfSetApi(ifindex, ifCmd, data) : DHCPSNOOP_E_INVALID;
}

int32_t dhcpSnoopVlanGetApi(uint32_t vid, uint32_t cmd, void *data)
{
    DHCPSNOOP_DEBUG("dhcpsnoop vlan getapi: vid = %d, cmd = %d.\r\n", int(vid), int(cmd));
    if (vid < VID_MIN || vid > VID_MAX) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] dhcpsnoop vlan getapi: vid is invalid!\r\n");
        return VID_INVALID;
    }
    uint32_t ifindex = 0;
    if (nm_vlan_ifindex(vid, &ifindex) != 0) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] dhcpsnoop vlan getapi: get unit of the vlan failed!\r\n");
        return -1;
    }
    const uint32_t ifCmd = nm_vlan_if_cmd(cmd);
    return ifCmd ? dhcpSnoopIfGetApi(ifindex, ifCmd, data) : DHCPSNOOP_E_INVALID;
}
