/*
 * Bench only, preloaded into programs that run in qemu-aarch64 7.2: mends what its translation of
 * setsockopt(2) does to multicast.
 *
 * - It knows a struct ip_mreqn by a size of 16, with a long at the end, and drops the interface's
 *   index of one that has the 12 bytes of ip(7). So those get the size that it knows.
 * - It does not know IP_MULTICAST_IF. In the bench box the route alone decides what the option
 *   would: 224.0.0.0/4 goes out of eth0. What is left of it is the answer to a foreign address.
 */
#define _GNU_SOURCE
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

/* 0, or -1 with the errno of the option itself. */
static int check_address(struct in_addr address)
{
    const struct sockaddr_in name = {.sin_family = AF_INET, .sin_addr = address};
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int result = bind(fd, (const struct sockaddr *)&name, sizeof(name));
    close(fd);
    return result;
}

int setsockopt(int fd, int level, int name, const void *value, socklen_t size)
{
    struct {
        struct ip_mreqn request;
        int rest_of_long;
    } wide = {0};
    if (level == IPPROTO_IP && name == IP_MULTICAST_IF) {
        struct in_addr interface; /* the only member, or the second one */
        memcpy(&interface, (const char *)value + (size == sizeof(interface) ? 0 : 4), 4);
        return check_address(interface);
    }
    if (level == IPPROTO_IP && (name == IP_ADD_MEMBERSHIP || name == IP_DROP_MEMBERSHIP) &&
        size == sizeof(wide.request)) {
        memcpy(&wide.request, value, size);
        value = &wide;
        size = sizeof(wide);
    }
    return (int)syscall(SYS_setsockopt, fd, level, name, value, size);
}
