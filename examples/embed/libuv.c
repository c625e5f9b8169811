/* The owner in a program whose main loop is libuv's. */
#include "owner.h"

#include <err.h>
#include <signal.h>
#include <stdio.h>
#include <uv.h>

static void on_readable(uv_poll_t *poll, int status, int ready)
{
    (void)ready;
    event_mgr_p events = poll->data;
    if (status < 0 || event_mgr_dispatch(events, 0) < 0)
        errx(1, "the event manager failed");
}

static void on_timer(uv_timer_t *timer)
{
    (void)timer;
    puts("the loop has timers of its own");
    fflush(stdout);
}

static void on_sigterm(uv_signal_t *term, int number)
{
    (void)number;
    uv_stop(term->loop);
}

int main(int argc, char **argv)
{
    if (argc > 1)
        errx(2, "takes no arguments, '%s' is one", argv[1]);
    event_mgr_p events = owner_start();
    uv_loop_t *loop = uv_default_loop();
    uv_poll_t poll;
    uv_timer_t timer;
    uv_signal_t term;

    poll.data = events;
    if (uv_poll_init(loop, &poll, event_mgr_fd(events)) != 0 ||
        uv_poll_start(&poll, UV_READABLE, on_readable) != 0 || uv_timer_init(loop, &timer) != 0 ||
        uv_timer_start(&timer, on_timer, 10, 0) != 0 || uv_signal_init(loop, &term) != 0 ||
        uv_signal_start(&term, on_sigterm, SIGTERM) != 0)
        errx(1, "libuv does not start");
    uv_run(loop, UV_RUN_DEFAULT);
    owner_stop();

    uv_close((uv_handle_t *)&poll, NULL);
    uv_close((uv_handle_t *)&timer, NULL);
    uv_close((uv_handle_t *)&term, NULL);
    uv_run(loop, UV_RUN_DEFAULT); /* until they are closed */
    return uv_loop_close(loop) != 0;
}
