/*
 * The daemon in-process on the simulated platform and the fake system calls.
 * Each test starts from a fresh switch model, a fresh fake and a daemon that
 * is not started; TearDown releases what the test started.
 */
#ifndef DHCPSNOOP_DAEMON_FIXTURE_H
#define DHCPSNOOP_DAEMON_FIXTURE_H

#include <gtest/gtest.h>

#include "dhcpsnoop.h"
#include "fake_sys.h"
#include "switch_model.h"

class DaemonTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    /* Start the daemon with the given pool sizes (0 = defaults); asserts success. */
    void start(uint16_t ifMax = 0, uint16_t userMax = 0);
    /* Enable snooping on a port known to the model (added when missing). */
    DhcpsnoopIf *enablePort(uint32_t ifIndex);

    SwitchModel &model() { return sim_model(); }
    FakeSys &sys() { return FakeSys::get(); }
};

#endif
