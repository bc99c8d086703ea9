/* The smallest host: prints the id of every new card, until Ctrl-C. A host for daily use also claims its ports: claim.h.
 * cc smallest.c $(pkg-config --cflags --libs fxm) -lpthread */
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <unistd.h>

#include "fxm.h"

static atomic_bool _ended; /* fxm_init_manager has returned */
static int _result;        /* what it has returned */

/* The call lasts as long as the library runs. Its end wakes the main thread, even if the library stops by itself. */
static void *_run(void *dir)
{
    _result = fxm_init_manager(dir, FXM_LOG_CONFIGURED);
    _ended = 1;
    kill(getpid(), SIGINT);
    return NULL;
}

/* Called on the library's event thread. */
static void _on_new_card(uint64_t id, fxm_event_type_t type, uint64_t arg)
{
    (void)type, (void)arg;
    printf("new card 0x%.12llx\n", (unsigned long long)id);
    fflush(stdout);
}

int main(int argc, char **argv)
{
    pthread_t thread;
    sigset_t signals;
    void *handle;
    int number;

    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, NULL); /* the library's threads inherit the mask */
    if (pthread_create(&thread, NULL, _run, argc > 1 ? argv[1] : "/opt/fxm") != 0)
        return 1;
    while (fxm_register_callback(FXM_EVT_NEWDEVINFO, _on_new_card, 0, &handle) == FXM_API_ENOSYS && !_ended)
        usleep(10000); /* until the start is complete, or has failed */
    fxm_start_manager();
    sigwait(&signals, &number);
    fxm_fini_manager(); /* requests the stop; the thread ends when it is complete */
    pthread_join(thread, NULL);
    if (_result != FXM_API_SUCCESS)
        fprintf(stderr, "fxm failed with %d; its log has the reason.\n", _result);
    return _result == FXM_API_SUCCESS ? 0 : 1;
}
