/*
 * Control client of the daemon: reads and changes the H.264 and preview settings while it runs.
 */
#include <exception>
#include <iostream>

#include "tools/ctl_main.h"

int main(int argc, char **argv)
{
    try {
        return RunCtl(argc, argv, CONTROL_ENDPOINT_S(), std::cout, std::cerr);
    } catch (const std::exception &objError) {
        std::cerr << "mv3300ctl: " << objError.what() << "\n";
        return CTL_SYSTEM_ERROR;
    }
}
