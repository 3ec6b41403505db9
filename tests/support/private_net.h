/*
 * A network of the test process's own, for tests whose packets must not leave the machine.
 */
#pragma once

#include <string>

/* Moves the calling process, which has one thread, into a new network namespace and brings its
 * loopback interface up, with the route of the multicast groups. Empty, or the reason why it is not
 * possible. */
std::string EnterPrivateNetwork();
