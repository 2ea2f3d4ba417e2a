#include "daemon_fixture.h"

void DaemonTest::SetUp()
{
    sim_model().reset();
    FakeSys::get().reset();
    FakeSys::get().install();
    dhcpsnoop_shutdown();
    dhcpsnoop_timer_reset();
    dhcpsnoop_main_setup();
    FakeSys::get().closedFds.clear();
    FakeSys::get().unlinked.clear();
    sim_model().reset();
}

void DaemonTest::TearDown()
{
    dhcpsnoop_shutdown();
    EXPECT_EQ(FakeSys::get().liveAllocations(), 0u) << "start-up memory not released";
    FakeSys::get().uninstall();
    FakeSys::get().reset();
}

void DaemonTest::start(uint16_t ifMax, uint16_t userMax)
{
    ASSERT_EQ(dhcpsnoop_init_ex(ifMax, userMax, 0, 3, nullptr, nullptr, nullptr), 0);
}

DhcpsnoopIf *DaemonTest::enablePort(uint32_t ifIndex)
{
    if (!sim_model().ports.count(ifIndex))
        sim_model().addPort(ifIndex, "swp" + std::to_string(ifIndex));
    EXPECT_EQ(dhcpsnoop_if_enable(ifIndex), 0u);
    return dhcpsnoop_if_lookup(ifIndex);
}
