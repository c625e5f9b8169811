/* The owner in a program whose main loop is sd-event's. */
#include "owner.h"

#include <err.h>
#include <signal.h>
#include <stdio.h>
#include <sys/epoll.h>
#include <systemd/sd-event.h>
#include <time.h>

static int on_readable(sd_event_source *source, int fd, uint32_t ready, void *arg)
{
    (void)source;
    (void)fd;
    (void)ready;
    event_mgr_p events = arg;
    if (event_mgr_dispatch(events, 0) < 0)
        err(1, "the event manager failed");
    return 0;
}

static int on_timer(sd_event_source *source, uint64_t when, void *arg)
{
    (void)source;
    (void)when;
    (void)arg;
    puts("the loop has timers of its own");
    fflush(stdout);
    return 0;
}

int main(int argc, char **argv)
{
    if (argc > 1)
        errx(2, "takes no arguments, '%s' is one", argv[1]);
    event_mgr_p events = owner_start();
    sd_event *loop = NULL;
    sigset_t term;

    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    /* A signal without a handler ends the loop. */
    if (sigprocmask(SIG_BLOCK, &term, NULL) != 0 || sd_event_default(&loop) < 0 ||
        sd_event_add_io(loop, NULL, event_mgr_fd(events), EPOLLIN, on_readable, events) < 0 ||
        sd_event_add_time_relative(loop, NULL, CLOCK_MONOTONIC, 10000, 0, on_timer, NULL) < 0 ||
        sd_event_add_signal(loop, NULL, SIGTERM, NULL, NULL) < 0)
        errx(1, "sd-event does not start");
    int result = sd_event_loop(loop);
    owner_stop();
    sd_event_unref(loop);
    return result < 0;
}
