/*
 * Fill the daemon's binding table quickly for bench/listing.sh: the same
 * `dhcpsnoopctl binding add` commands, run in one process instead of one
 * process per binding.
 *
 *   bench_fill COUNT INTERFACE VLAN
 *
 * Binding n (1..COUNT) is 10.x.y.z = 10.0.0.0 + n with MAC 02:10:00:xx:yy:zz.
 */
#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "dhcpsnoopctl.h"

int main(int argc, char **argv)
{
    if (argc != 4) {
        fprintf(stderr, "usage: bench_fill COUNT INTERFACE VLAN\n");
        return 2;
    }
    unsigned long count = strtoul(argv[1], nullptr, 10);
    FILE *quiet = fopen("/dev/null", "w");
    for (unsigned long n = 1; n <= count; n++) {
        char ip[32], mac[32];
        snprintf(ip, sizeof ip, "10.%lu.%lu.%lu", (n >> 16) & 255, (n >> 8) & 255, n & 255);
        snprintf(mac, sizeof mac, "02:10:00:%02lx:%02lx:%02lx", (n >> 16) & 255, (n >> 8) & 255,
                 n & 255);
        std::vector<std::string> words = {"dhcpsnoopctl", "binding", "add", ip, "mac", mac,
                                          "vlan", argv[3], "interface", argv[2]};
        std::vector<char *> args;
        for (auto &w : words)
            args.push_back(w.data());
        args.push_back(nullptr);
        if (dhcpsnoopctl_run(int(words.size()), args.data(), quiet, stderr) != 0) {
            fprintf(stderr, "bench_fill: binding %lu (%s) refused\n", n, ip);
            return 1;
        }
    }
    fclose(quiet);
    return 0;
}
