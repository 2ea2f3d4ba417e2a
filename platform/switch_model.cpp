/* The platform functions of dhcpsnoop_platform.h, answered from the switch model. */
#include "switch_model.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "dhcpsnoop.h"
#include "dhcpsnoop_platform.h"

namespace {
SwitchModel g_model;

void append_vformat(std::string &out, const char *fmt, va_list ap)
{
    char buf[4096];
    int n = vsnprintf(buf, sizeof buf, fmt, ap);
    if (n > 0)
        out.append(buf, size_t(n) < sizeof buf ? size_t(n) : sizeof buf - 1);
}

/* Copy `text` into a text pair, no terminator, at most its room. */
void put_text(void *value, const std::string &text)
{
    auto *pair = static_cast<QorTextPair *>(value);
    uint32_t n = uint32_t(text.size()) < pair->len ? uint32_t(text.size()) : pair->len;
    if (pair->buf && n)
        memcpy(pair->buf, text.data(), n);
    pair->len = n;
}

void put_word(void *value, uint32_t w)
{
    if (value)
        memcpy(value, &w, sizeof w);
}

const SimPort *port(uint32_t ifIndex) { return g_model.ports.lookup(ifIndex); }

int hook_answer(const std::map<uint32_t, SimHookAnswer> &m, uint32_t ifIndex, uint32_t cmd,
                void *reply)
{
    auto it = m.find(ifIndex);
    if (it == m.end())
        return -1;
    if (it->second.rc)
        return it->second.rc;
    if (cmd == 1)
        put_word(reply, it->second.enabled);
    else if (cmd == 2 && reply)
        *static_cast<uint8_t *>(reply) = it->second.items;
    else
        return -1;
    return 0;
}
} // namespace

SwitchModel &sim_model() { return g_model; }

SimPorts &SimPorts::operator=(SimPorts &&o) noexcept
{
    if (this == &o)
        return *this;
    map = std::move(o.map); /* the records keep their addresses */
    o.map.clear();
    o.direct.fill(nullptr);
    direct.fill(nullptr);
    for (auto &[idx, p] : map)
        if (idx < SIM_PORT_DIRECT)
            direct[idx] = &p;
    return *this;
}

SimPort &SimPorts::operator[](uint32_t ifIndex)
{
    SimPort &p = map[ifIndex];
    if (ifIndex < SIM_PORT_DIRECT)
        direct[ifIndex] = &p;
    return p;
}

const SimPort *SimPorts::lookup(uint32_t ifIndex) const
{
    if (ifIndex < SIM_PORT_DIRECT)
        return direct[ifIndex];
    auto it = map.find(ifIndex);
    return it == map.end() ? nullptr : &it->second;
}

int32_t SimScalars::get(uint32_t attr) const
{
    if (attr < low.size())
        return low[attr];
    auto it = high.find(attr);
    return it == high.end() ? 0 : it->second;
}

void SwitchModel::failOn(const std::string &fn, int64_t arg, int rc, int times)
{
    failRules.push_back({fn, arg, rc, times});
}

int SwitchModel::failedRule(const char *fn, int64_t arg)
{
    for (auto &r : failRules) {
        if (r.remaining == 0 || r.fn != fn || (r.arg != -1 && r.arg != arg))
            continue;
        if (r.remaining > 0)
            r.remaining--;
        return r.rc;
    }
    return 0;
}

SimPort &SwitchModel::addPort(uint32_t ifIndex, const std::string &name)
{
    SimPort &p = ports[ifIndex];
    p.ifIndex = ifIndex;
    p.name = name;
    p.mac = {0x02, 0x00, 0x00, 0x00, uint8_t(ifIndex >> 8), uint8_t(ifIndex)};
    p.number = ifIndex;
    p.location = {1, 0, ifIndex & 0xFF, 0, 0, 0, 1};
    return p;
}

SimPort &SwitchModel::addVlanIf(uint32_t ifIndex, uint16_t vid, const std::string &name)
{
    SimPort &p = addPort(ifIndex, name);
    p.isVlanIf = true;
    p.vid = vid;
    return p;
}

size_t SwitchModel::debugCount(const std::string &text) const
{
    size_t n = 0;
    for (size_t pos = debugText.find(text); pos != std::string::npos;
         pos = debugText.find(text, pos + text.size()))
        n++;
    return n;
}

size_t SwitchModel::logCount(const std::string &text) const
{
    size_t n = 0;
    for (auto &l : logLines)
        if (l.find(text) != std::string::npos)
            n++;
    return n;
}

void SwitchModel::reset() { *this = SwitchModel(); }

static void record_chassis_query(const char *fn, const uint32_t *words, uint32_t property,
                                 void *answer)
{
    SimChassisQuery q{fn, property, {}, answer != nullptr};
    if (words)
        memcpy(q.words.data(), words, sizeof(uint32_t) * q.words.size());
    g_model.chassisQueries.push_back(q);
}

extern "C" {

uint32_t OsixCreateMSem(uint32_t)
{
    if (g_model.failed("OsixCreateMSem", -1))
        return 0;
    uint32_t id = g_model.nextSem++;
    g_model.semaphores.insert(id);
    return id;
}

int OsixDeleteSem(uint32_t semId)
{
    return g_model.semaphores.erase(semId) ? 0 : -1;
}

int errnoGet(void) { return errno; }

void qorCatchSegFault(int, char **) { g_model.segFaultHandlerInstalled++; }

int qorIfGetApi(uint32_t ifIndex, uint32_t attr, void *value)
{
    if (int rc = g_model.failed("qorIfGetApi", attr))
        return rc;
    const SimPort *p = port(ifIndex);
    if (!p || !value)
        return -1;
    switch (attr) {
    case 3:
        put_text(value, p->name);
        return 0;
    case 5:
        put_word(value, p->number);
        return 0;
    case 33:
        put_text(value, std::string(p->mac.begin(), p->mac.end()));
        return 0;
    case 45:
        put_word(value, p->tpid);
        return 0;
    case 193:
        put_word(value, p->routerMode ? 1 : 0);
        return 0;
    case 417:
        put_word(value, p->isVlanIf ? 1 : 0);
        return 0;
    case DHCPSNOOP_IF_ATTR_IPSG_DROPS:
    case DHCPSNOOP_IF_ATTR_DAI_DROPS:
        if (!g_model.onHwCounter)
            return -1;
        put_word(value, g_model.onHwCounter(ifIndex, attr));
        return 0;
    case 5400:
        if (!p->isVlanIf)
            return -1;
        put_word(value, p->vid);
        return 0;
    case 5420:
        if (!p->maxUsers)
            return -1;
        put_word(value, p->maxUsers);
        return 0;
    case 65536285: {
        auto *q = static_cast<QorAggQuery *>(value);
        g_model.aggQueries.push_back(
            {ifIndex, q->attr, q->answer ? *q->answer : 0, q->count});
        auto it = g_model.aggCounts.find(ifIndex);
        q->count = it == g_model.aggCounts.end() ? 1 : it->second;
        return 0;
    }
    default:
        return -1;
    }
}

int qorIfSetApi(uint32_t ifIndex, uint32_t cmd, void *value)
{
    int rc = g_model.failed("qorIfSetApi", cmd);
    if (cmd == 305 || cmd == 306) {
        uint32_t word = 0;
        if (value)
            memcpy(&word, value, sizeof word);
        if (rc == 0 && g_model.onTrap)
            rc = g_model.onTrap(ifIndex, cmd, word);
        if (g_model.record)
            g_model.trapCalls.push_back({ifIndex, cmd, word, rc});
        if (rc == 0) {
            if (cmd == 305)
                g_model.traps.insert({ifIndex, word});
            else
                g_model.traps.erase({ifIndex, word});
        }
        return rc;
    }
    if (cmd == 300 && value) {
        auto *req = static_cast<QorHwUserRequest *>(value);
        SimHwUserCall call{ifIndex, req->op, {}, rc};
        if (req->record) {
            if (rc == 0 && req->op == 0x3E800DF) {
                /* the hardware hands back identifiers for the rules it made */
                uint8_t *rec = static_cast<uint8_t *>(req->record);
                uint32_t id = g_model.nextHwId++;
                if (rec[37] & 0x80)
                    memcpy(rec + 12, &id, 4);
                if (rec[37] & 0x40)
                    memcpy(rec + 40, &id, 4);
            }
            memcpy(call.record.data(), req->record, 44);
            if (rc == 0 && g_model.onHwUser)
                g_model.onHwUser(ifIndex, req->op, call.record.data());
        }
        if (g_model.record)
            g_model.hwUserCalls.push_back(call);
        return rc;
    }
    return rc ? rc : -1;
}

int qorIfUnit2Name(uint32_t ifIndex, char *name, uint32_t size)
{
    if (!name || size == 0)
        return -1;
    const SimPort *p = port(ifIndex);
    snprintf(name, size, "%s", p ? p->name.c_str() : "");
    return p ? 0 : -1;
}

int qorIndexTrans(const uint32_t *in, uint32_t kind, uint32_t *out)
{
    if (int rc = g_model.failed("qorIndexTrans", kind))
        return rc;
    if (!in || !out)
        return -1;
    if (kind == 6) {
        const SimPort *p = port(in[0]);
        if (!p)
            return -1;
        memcpy(out, p->location.data(), 7 * sizeof(uint32_t));
        return 0;
    }
    if (kind == 7) {
        for (auto &[idx, p] : g_model.ports)
            if (p.isVlanIf && p.vid == in[4]) {
                *out = idx;
                return 0;
            }
        return -1;
    }
    return -1;
}

int qorVlanGetApi(uint32_t vid, uint32_t attr, void *value)
{
    if (int rc = g_model.failed("qorVlanGetApi", attr))
        return rc;
    if (attr != 5410 || !value)
        return -1;
    auto it = g_model.vlanMembers.find(uint16_t(vid));
    if (it == g_model.vlanMembers.end())
        return -1;
    auto *pair = static_cast<QorTextPair *>(value);
    uint32_t n = 0;
    for (uint32_t idx : it->second) {
        if (n + 4 > pair->len)
            break;
        memcpy(static_cast<uint8_t *>(pair->buf) + n, &idx, 4);
        n += 4;
    }
    pair->len = n;
    return 0;
}

int qorScalarGetApi(uint32_t, uint32_t attr, void *value)
{
    if (int rc = g_model.failed("qorScalarGetApi", attr))
        return rc;
    auto it = g_model.scalarTexts.find(attr);
    if (it == g_model.scalarTexts.end() || !value)
        return -1;
    put_text(value, it->second);
    return 0;
}

uint32_t qorSelfSysIndex(void) { return g_model.selfSysIndex; }

int sysIFGet(uint32_t ifIndex, uint32_t attr, void *buffer)
{
    if (int rc = g_model.failed("sysIFGet", attr))
        return rc;
    const SimPort *p = port(ifIndex);
    if (!p)
        return -1;
    if (attr == 255)
        return p->excluded;
    if (attr == 258) {
        put_word(buffer, p->untagged);
        return int(p->untagged);
    }
    return -1;
}

int nmGetIfPartDescr(uint32_t ifIndex, char *buf, uint32_t size)
{
    if (!buf || size == 0)
        return -1;
    const SimPort *p = port(ifIndex);
    if (!p) {
        snprintf(buf, size, "%u", ifIndex);
        return -1;
    }
    snprintf(buf, size, "%s", p->descr.empty() ? p->name.c_str() : p->descr.c_str());
    return 0;
}

const char *nmGetHostname(void)
{
    return g_model.hasHostname ? g_model.hostname.c_str() : nullptr;
}

int32_t qorHwScalarGet(uint32_t, uint32_t attr, void *) { return g_model.hwScalars.get(attr); }

int qorHwScalarSync(void *, uint32_t code, void *data, uint32_t mode)
{
    int rc = g_model.failed("qorHwScalarSync", code);
    SimScalarSync rec{code, {}, mode, rc};
    if (data) {
        if (code == 0x40013) {
            /* a sync buffer travels as a (pointer, length) descriptor */
            auto *d = static_cast<QorTextPair *>(data);
            if (d->buf)
                rec.data.assign(static_cast<uint8_t *>(d->buf),
                                static_cast<uint8_t *>(d->buf) + d->len);
        } else {
            rec.data.assign(static_cast<uint8_t *>(data), static_cast<uint8_t *>(data) + 4);
        }
    }
    if (g_model.record)
        g_model.scalarSyncs.push_back(rec);
    if (rc == 0 && g_model.onScalarSync)
        rc = g_model.onScalarSync(code, data, mode);
    return rc;
}

int qorHwIfSync(uint32_t ifIndex, uint32_t code, void *, uint32_t mode)
{
    int rc = g_model.failed("qorHwIfSync", code);
    if (g_model.record)
        g_model.ifSyncs.push_back({ifIndex, code, mode, rc});
    return rc;
}

int qorHwDhcpSnoopUserSync(const void *key, uint32_t code, void *, uint32_t mode)
{
    int rc = g_model.failed("qorHwDhcpSnoopUserSync", code);
    SimUserSync rec{{}, code, mode, rc};
    if (key)
        memcpy(rec.key.data(), key, 20);
    if (g_model.record)
        g_model.userSyncs.push_back(rec);
    return rc;
}

int qorHwCardGet(const uint32_t *words, uint32_t property, void *answer)
{
    record_chassis_query("qorHwCardGet", words, property, answer);
    if (int rc = g_model.failed("qorHwCardGet", property))
        return rc;
    auto it = g_model.cardAnswers.find(property);
    return it == g_model.cardAnswers.end() ? 0 : it->second;
}

int qorHwSlotGet(const uint32_t *words, uint32_t property, void *answer)
{
    record_chassis_query("qorHwSlotGet", words, property, answer);
    if (int rc = g_model.failed("qorHwSlotGet", property))
        return rc;
    auto it = g_model.slotAnswers.find(property);
    return it == g_model.slotAnswers.end() ? 0 : it->second;
}

void zlog_dispatch_logging(int, int, const char *fmt, ...)
{
    /* a line nobody reads is not made; one that is read is made once */
    if (!g_model.onLog && !g_model.record)
        return;
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    if (n < 0)
        return;
    std::string_view line(buf, size_t(n) < sizeof buf ? size_t(n) : sizeof buf - 1);
    if (g_model.onLog)
        g_model.onLog(line);
    if (g_model.record)
        g_model.logLines.emplace_back(line);
}

int qorNetlinkSend(uint32_t type, uint32_t flags, const void *record, uint32_t len)
{
    int rc = g_model.failed("qorNetlinkSend", type);
    SimNetlinkSend rec{type, flags, {}};
    if (record)
        rec.record.assign(static_cast<const uint8_t *>(record),
                          static_cast<const uint8_t *>(record) + len);
    if (g_model.record)
        g_model.netlinkSends.push_back(rec);
    return rc;
}

void NM_DEBUG_OUTPUT(const char *fmt, ...)
{
    std::string text;
    va_list ap;
    va_start(ap, fmt);
    append_vformat(text, fmt, ap);
    va_end(ap);
    if (g_model.echoDebug) {
        fwrite(text.data(), 1, text.size(), stdout);
        fflush(stdout);
    }
    if (g_model.record)
        g_model.debugText += text;
}

int ipsgIfGetApi(uint32_t ifIndex, uint32_t cmd, void *reply)
{
    return hook_answer(g_model.ipsg, ifIndex, cmd, reply);
}

int arpAntiAttackIfGetApi(uint32_t ifIndex, uint32_t cmd, void *reply)
{
    return hook_answer(g_model.dai, ifIndex, cmd, reply);
}

int deftinstall_client_entry_callback(void *record, void *a, void *b)
{
    SimDeftinstallCall call{{}, a, b};
    if (record)
        call.record.assign(static_cast<uint8_t *>(record), static_cast<uint8_t *>(record) + 28);
    if (g_model.record)
        g_model.deftinstallCalls.push_back(call);
    return g_model.onDeftinstall ? g_model.onDeftinstall(record, a, b) : 0;
}

} // extern "C"
