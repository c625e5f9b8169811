/* The owner in a program whose main loop is libevent's. */
#include "owner.h"

#include <err.h>
#include <event2/event.h>
#include <signal.h>
#include <stdio.h>

static void on_readable(evutil_socket_t fd, short ready, void *arg)
{
    (void)fd;
    (void)ready;
    event_mgr_p events = arg;
    if (event_mgr_dispatch(events, 0) < 0)
        err(1, "the event manager failed");
}

static void on_timer(evutil_socket_t fd, short ready, void *arg)
{
    (void)fd;
    (void)ready;
    (void)arg;
    puts("the loop has timers of its own");
    fflush(stdout);
}

static void on_sigterm(evutil_socket_t number, short ready, void *arg)
{
    (void)number;
    (void)ready;
    event_base_loopbreak(arg);
}

int main(int argc, char **argv)
{
    if (argc > 1)
        errx(2, "takes no arguments, '%s' is one", argv[1]);
    event_mgr_p events = owner_start();
    struct event_base *base = event_base_new();
    if (base == NULL)
        errx(1, "libevent does not start");
    struct event *readable = event_new(base, event_mgr_fd(events), EV_READ | EV_PERSIST, on_readable, events);
    struct event *timer = evtimer_new(base, on_timer, NULL);
    struct event *term = evsignal_new(base, SIGTERM, on_sigterm, base);
    const struct timeval soon = {.tv_usec = 10000};

    if (readable == NULL || event_add(readable, NULL) != 0 || timer == NULL ||
        evtimer_add(timer, &soon) != 0 || term == NULL || evsignal_add(term, NULL) != 0)
        errx(1, "libevent does not start");
    int result = event_base_dispatch(base);
    owner_stop();

    event_free(readable);
    event_free(timer);
    event_free(term);
    event_base_free(base);
    return result < 0;
}
