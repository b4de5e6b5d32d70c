/* libdbus's server side asks libsystemd for the sockets of a socket-activated
 * service ("systemd:" addresses, as the bus daemon listens on). No program of
 * the player is started that way, and the programs link libdbus from its
 * static archive without libsystemd: these answer every such question with
 * ENOSYS, which libdbus reports as "Failed to acquire systemd socket". */
#include <errno.h>

int sd_listen_fds(int unset_environment);
int sd_is_socket(int fd, int family, int type, int listening);

int sd_listen_fds(int unset_environment)
{
    (void)unset_environment;
    return -ENOSYS;
}

int sd_is_socket(int fd, int family, int type, int listening)
{
    (void)fd;
    (void)family;
    (void)type;
    (void)listening;
    return -ENOSYS;
}
