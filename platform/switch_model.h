/*
 * The switch model: an in-memory switch that answers every platform call of
 * dhcpsnoop_platform.h and records every outbound effect.
 *
 * The simulated platform fills and reads it from code (tests, benchmarks,
 * fuzzers); the Linux platform fills it from the host.  Every call that can
 * fail can be told to fail with failOn().
 */
#ifndef DHCPSNOOP_SWITCH_MODEL_H
#define DHCPSNOOP_SWITCH_MODEL_H

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

struct SimPort {
    uint32_t ifIndex = 0;
    std::string name;        /* attribute 3 and qorIfUnit2Name */
    std::string descr;       /* nmGetIfPartDescr; the name when empty */
    std::array<uint8_t, 6> mac{};
    bool routerMode = false; /* attribute 193 */
    bool isVlanIf = false;   /* attribute 417 */
    uint16_t vid = 0;        /* attribute 5400, VLAN interfaces only */
    uint16_t tpid = 0;       /* attribute 45; 0 reads as 0x8100 to the daemon */
    uint32_t untagged = 1;   /* sysIFGet 258: non-zero = frames leave untagged */
    int32_t excluded = 0;    /* sysIFGet 255 result: non-zero excludes the port */
    uint32_t number = 0;     /* attribute 5 */
    std::array<uint32_t, 7> location{}; /* qorIndexTrans kind 6 */
    uint32_t maxUsers = 0;   /* attribute 5420; 0 = no answer */
};

/*
 * The ports by ifIndex.  The daemon asks about a port several times for every
 * frame (tagging, TPID, exclusion, location), so the ports below
 * SIM_PORT_DIRECT are also reached through a direct index; the map keeps
 * them in order and its records never move.  Ports are only ever added
 * (operator[], addPort); a model is emptied whole by reset().
 */
constexpr uint32_t SIM_PORT_DIRECT = 4096;

class SimPorts {
public:
    using Map = std::map<uint32_t, SimPort>;
    SimPorts() = default;
    SimPorts(const SimPorts &) = delete;
    SimPorts &operator=(const SimPorts &) = delete;
    SimPorts(SimPorts &&o) noexcept { *this = std::move(o); }
    SimPorts &operator=(SimPorts &&o) noexcept;

    SimPort &operator[](uint32_t ifIndex);
    /* The port, or null: O(1) below SIM_PORT_DIRECT. */
    const SimPort *lookup(uint32_t ifIndex) const;

    Map::iterator find(uint32_t ifIndex) { return map.find(ifIndex); }
    Map::const_iterator find(uint32_t ifIndex) const { return map.find(ifIndex); }
    Map::iterator begin() { return map.begin(); }
    Map::iterator end() { return map.end(); }
    Map::const_iterator begin() const { return map.begin(); }
    Map::const_iterator end() const { return map.end(); }
    size_t count(uint32_t ifIndex) const { return map.count(ifIndex); }
    size_t size() const { return map.size(); }
    bool empty() const { return map.empty(); }

private:
    Map map;
    std::array<SimPort *, SIM_PORT_DIRECT> direct{};
};

/* Hardware scalars by attribute; one never set reads as 0.  The low ones
 * (the role, asked for every frame) are kept in place. */
struct SimScalars {
    int32_t &operator[](uint32_t attr) { return attr < low.size() ? low[attr] : high[attr]; }
    int32_t get(uint32_t attr) const;

    std::array<int32_t, 64> low{};
    std::map<uint32_t, int32_t> high;
};

/* What a feature hook answers for one interface. */
struct SimHookAnswer {
    int rc = 0;
    uint32_t enabled = 0;
    uint8_t items = 0;
};

struct SimTrapCall {
    uint32_t ifIndex, cmd, word;
    int rc;
};

struct SimHwUserCall {
    uint32_t ifIndex, op;
    std::array<uint8_t, 44> record;
    int rc;
};

struct SimScalarSync {
    uint32_t code;
    std::vector<uint8_t> data; /* the bytes of a sync buffer, or the 4-byte value */
    uint32_t mode;
    int rc;
};

struct SimIfSync {
    uint32_t ifIndex, code, mode;
    int rc;
};

struct SimUserSync {
    std::array<uint8_t, 20> key;
    uint32_t code, mode;
    int rc;
};

struct SimNetlinkSend {
    uint32_t type, flags;
    std::vector<uint8_t> record;
};

/* An aggregate query as the daemon filled it in. */
struct SimAggQuery {
    uint32_t ifIndex, attr, answerPreset;
    uint8_t countPreset;
};

/* A card or slot query: which call, the property and the event's words. */
struct SimChassisQuery {
    std::string fn;
    uint32_t property;
    std::array<uint32_t, 4> words;
    bool withAnswer;
};

struct SimDeftinstallCall {
    std::vector<uint8_t> record;
    void *a, *b;
};

struct SwitchModel {
    /* --- configuration --- */
    SimPorts ports;
    std::map<uint16_t, std::vector<uint32_t>> vlanMembers; /* qorVlanGetApi 5410 */
    SimScalars hwScalars;                                  /* qorHwScalarGet */
    std::map<uint32_t, std::string> scalarTexts;           /* qorScalarGetApi 66, 74 */
    std::string hostname = "switch";
    bool hasHostname = true;
    uint32_t selfSysIndex = 1;
    std::map<uint32_t, SimHookAnswer> ipsg, dai;           /* by ifIndex */
    std::map<uint32_t, int> cardAnswers, slotAnswers;      /* by property */
    /* Aggregate query (qorIfGetApi 65536285): the count answered, by the
     * aggregate's ifIndex; 1 when absent. */
    std::map<uint32_t, uint8_t> aggCounts;
    uint32_t nextHwId = 1000;

    /* --- recorded effects --- */
    std::set<uint32_t> semaphores;
    uint32_t nextSem = 1;
    std::vector<SimTrapCall> trapCalls;
    std::set<std::pair<uint32_t, uint32_t>> traps; /* (ifIndex, 23|24) in force */
    std::vector<SimHwUserCall> hwUserCalls;
    std::vector<SimScalarSync> scalarSyncs;
    std::vector<SimIfSync> ifSyncs;
    std::vector<SimUserSync> userSyncs;
    std::vector<SimNetlinkSend> netlinkSends;
    std::vector<std::string> logLines;
    std::string debugText;
    std::vector<SimDeftinstallCall> deftinstallCalls;
    std::vector<SimAggQuery> aggQueries;
    std::vector<SimChassisQuery> chassisQueries;
    int segFaultHandlerInstalled = 0;
    bool echoDebug = false; /* also write debug text to standard output */
    /* Keep the records above.  A long-running daemon turns this off so that
     * nothing grows; the hooks below still see every effect. */
    bool record = true;

    /* Effects a host platform carries out (each optional). */
    std::function<int(uint32_t ifIndex, uint32_t cmd, uint32_t word)> onTrap;
    std::function<void(uint32_t ifIndex, uint32_t op, const uint8_t *record44)> onHwUser;
    std::function<void(std::string_view line)> onLog;
    /* The hardware's drop counters of a port (interface attributes
     * DHCPSNOOP_IF_ATTR_IPSG_DROPS / _DAI_DROPS); unanswered without it. */
    std::function<uint32_t(uint32_t ifIndex, uint32_t attr)> onHwCounter;

    /* Called for every qorHwScalarSync after it is recorded; its result is
     * the call's result (used to carry sync buffers to a peer). */
    std::function<int(uint32_t code, void *data, uint32_t mode)> onScalarSync;
    /* Called by the auto-provisioning hook so that tests can fill its buffers. */
    std::function<int(void *record, void *a, void *b)> onDeftinstall;

    /* --- failure injection --- */
    struct FailRule {
        std::string fn;
        int64_t arg; /* the call's distinguishing argument, -1 = any */
        int rc;
        int remaining; /* -1 = for ever */
    };
    std::vector<FailRule> failRules;
    /* Make calls of `fn` (with `arg` as its attribute/command/code, -1 any)
     * return `rc`, `times` times (-1: until cleared). */
    void failOn(const std::string &fn, int64_t arg, int rc, int times = -1);
    /* The injected result for this call, or 0.  Asked on every platform
     * call, so the usual case (nothing armed) is decided here. */
    int failed(const char *fn, int64_t arg) { return failRules.empty() ? 0 : failedRule(fn, arg); }
    int failedRule(const char *fn, int64_t arg);

    SimPort &addPort(uint32_t ifIndex, const std::string &name);
    SimPort &addVlanIf(uint32_t ifIndex, uint16_t vid, const std::string &name);
    /* Count debug lines containing `text`. */
    size_t debugCount(const std::string &text) const;
    size_t logCount(const std::string &text) const;
    void reset();
};

/* The one model that the platform functions answer from. */
SwitchModel &sim_model();

#endif
