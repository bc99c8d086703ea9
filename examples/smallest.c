/* The smallest host: prints the id of every new card, until Ctrl-C.
 * cc smallest.c $(pkg-config --cflags --libs fxm) -lpthread */
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include "fxm.h"

static volatile sig_atomic_t _ended; /* fxm_init_manager has returned */

/* The call lasts as long as the library runs. */
static void *_run(void *dir)
{
    static int result;
    result = fxm_init_manager(dir, FXM_LOG_CONFIGURED);
    _ended = 1;
    return &result;
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
    void *handle, *result;
    int number;

    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, NULL); /* the library's threads inherit the mask */
    pthread_create(&thread, NULL, _run, argc > 1 ? argv[1] : "/opt/fxm");
    while (fxm_register_callback(FXM_EVT_NEWDEVINFO, _on_new_card, 0, &handle) == FXM_API_ENOSYS && !_ended)
        usleep(10000); /* until the start is complete, or has failed */
    if (fxm_start_manager() == FXM_API_SUCCESS)
        sigwait(&signals, &number);
    fxm_fini_manager(); /* requests the stop; the thread ends when it is complete */
    pthread_join(thread, &result);
    if (*(int *)result != FXM_API_SUCCESS)
        fprintf(stderr, "fxm failed with %d; its log has the reason.\n", *(int *)result);
    return *(int *)result == FXM_API_SUCCESS ? 0 : 1;
}
