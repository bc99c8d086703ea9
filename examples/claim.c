/* See claim.h. Runs on the main thread. */
#define _GNU_SOURCE /* struct ucred */
#include "claim.h"

#include <errno.h>
#include <net/if.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#define LINE_SIZE 128 /* as the library reads its file */
#define PORTS     2
#define VISITORS  128

/* The claims; they stay until the process ends. */
static struct {
    int fd;
    unsigned index;
} _claims[PORTS];
static int _claim_count;

/* Says on stderr who has the port: the kernel knows the process behind a socket that listens. If the queue of that
 * socket is full, connecting must not wait for room. */
static void _print_holder(const char *interface, const struct sockaddr_un *address, socklen_t length)
{
    struct ucred peer = {0};
    socklen_t size = sizeof peer;
    char name[32] = "another program";
    char path[48];
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);

    if (fd >= 0 && connect(fd, (const struct sockaddr *)address, length) == 0)
        getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size);
    if (fd >= 0)
        close(fd);
    if (peer.pid == 0) {
        fprintf(stderr, "%s is managed by another program; use fxmctl\n", interface);
        return;
    }
    snprintf(path, sizeof path, "/proc/%d/comm", (int)peer.pid);
    FILE *file = fopen(path, "r");
    if (file != NULL) {
        if (fgets(name, sizeof name, file) != NULL)
            name[strcspn(name, "\n")] = '\0';
        fclose(file);
    }
    fprintf(stderr, "%s is managed by %s (pid %d); use fxmctl\n", interface, name, (int)peer.pid);
}

static bool _claim(const char *interface, unsigned index)
{
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    const int name = snprintf(address.sun_path + 1, sizeof address.sun_path - 1, "fxm-port-%u", index);
    const socklen_t length = (socklen_t)(offsetof(struct sockaddr_un, sun_path) + 1 + (size_t)name);

    for (int i = 0; i < _claim_count; i++)
        if (_claims[i].index == index)
            return true;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd >= 0 && bind(fd, (const struct sockaddr *)&address, length) == 0 && listen(fd, VISITORS) == 0) {
        _claims[_claim_count].fd = fd;
        _claims[_claim_count++].index = index;
        return true;
    }
    if (fd >= 0 && errno == EADDRINUSE)
        _print_holder(interface, &address, length);
    else
        fprintf(stderr, "Cannot claim %s: %s.\n", interface, strerror(errno));
    if (fd >= 0)
        close(fd);
    return false;
}

/* `words` are the names or the indexes behind a key. */
static bool _claim_words(char *words, bool are_indexes)
{
    char *rest = NULL;
    char *word = strtok_r(words, " ,\t\r\n", &rest);

    for (int port = 0; port < PORTS && word != NULL; port++, word = strtok_r(NULL, " ,\t\r\n", &rest)) {
        const unsigned index = are_indexes ? (unsigned)strtoul(word, NULL, 0) : if_nametoindex(word);
        char name[IF_NAMESIZE] = "";
        if (index != 0 && if_indextoname(index, name) != NULL && !_claim(name, index))
            return false;
    }
    return true;
}

bool claim_ports(const char *dir)
{
    char path[4096];
    char line[LINE_SIZE];
    char names[LINE_SIZE] = "eth0 eth1"; /* the library's default */
    char indexes[LINE_SIZE] = "";

    snprintf(path, sizeof path, "%s/conf/fxm.conf", dir);
    FILE *file = fopen(path, "r");
    bool named = false;
    while (file != NULL && fgets(line, sizeof line, file) != NULL) {
        char key[LINE_SIZE];
        char *value = strchr(line, '=');
        if (value == NULL || sscanf(line, " %127[a-z0-9_]", key) != 1)
            continue;
        /* The first line of a key counts. */
        if (strcmp(key, "ether_port") == 0 && !named) {
            named = true;
            snprintf(names, sizeof names, "%s", value + 1);
        } else if (strcmp(key, "ether_port_ifindex") == 0 && indexes[0] == '\0') {
            snprintf(indexes, sizeof indexes, "%s", value + 1);
        }
    }
    if (file != NULL)
        fclose(file);
    return indexes[0] != '\0' ? _claim_words(indexes, true) : _claim_words(names, false);
}

void claim_drop_visitors(void)
{
    for (int i = 0; i < _claim_count; i++)
        for (int visitor; (visitor = accept(_claims[i].fd, NULL, NULL)) >= 0;)
            close(visitor);
}
