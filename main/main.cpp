/* dhcpsnoopd: start the daemon from its numeric arguments and run it. */
#include "dhcpsnoop.h"

int main(int argc, char **argv)
{
    /* Start-up's result is not looked at: a daemon whose start failed still
     * runs its loop with closed descriptors. */
    dhcpsnoop_start(argc, argv);
    dhcpsnoop_main();
}
