/* dhcpsnoopctl: configure and inspect the DHCP snooping daemon. */
#include <stdio.h>

#include "dhcpsnoopctl.h"

int main(int argc, char **argv)
{
    return dhcpsnoopctl_run(argc, argv, stdout, stderr);
}
