/*
 * Event managers: attaching, posting, and a program's own loop on the virtual clock. Waiting moves the
 * clock to the next timer of the event manager. A wait without bound for which nothing can come ends with
 * EDEADLK, and a loop that nobody stops with ELOOP, where the real ones would go on for ever.
 */
#include "calls.h"

using namespace l2vpn::sim;

namespace {

/* What `work(world, manager)` answers for a living event manager, else -1 with EINVAL. Under the lock. */
template <class Work>
int with_event_manager(event_mgr_p evm, const Work &work)
{
    if (const auto world = current_core()) {
        const std::lock_guard guard(world->lock);
        const auto found = world->event_managers.find(world->number_of(evm));
        if (found != world->event_managers.end())
            return work(*world, *found);
    }
    errno = EINVAL;
    return -1;
}

} // namespace

int event_async_attach_event(event_mgr_p evm, int code, event_async_handler_t handler, void *arg,
                             event_context_t *context)
{
    const auto work = [&](core &world) {
        const auto found = world.event_managers.find(world.number_of(evm));
        if (found == world.event_managers.end() || handler == nullptr || context == nullptr) {
            errno = EINVAL;
            return -1;
        }
        *context = {evm, handler, arg, code};
        found->second.attached.insert_or_assign(code, attachment{handler, arg, context});
        return 0;
    };
    return invoke<int>(fn::event_async_attach_event, arguments(evm, code, handler, arg, context), -1, work);
}

event_mgr_p event_mgr_new(void)
{
    const auto world = current_core();
    if (world == nullptr) {
        errno = ENODEV;
        return nullptr;
    }
    const std::lock_guard guard(world->lock);
    return world->handle_of<event_mgr_p>(world->new_event_manager());
}

void event_mgr_free(event_mgr_p evm)
{
    if (const auto world = current_core()) {
        const std::lock_guard guard(world->lock);
        world->free_event_manager(world->number_of(evm));
    }
}

int event_mgr_fd(event_mgr_p)
{
    errno = ENOSYS;
    return -1;
}

int event_mgr_dispatch(event_mgr_p evm, int timeout_ms)
{
    const auto nothing_to_prepare = [](core &, auto &) { return 0; };
    if (with_event_manager(evm, nothing_to_prepare) < 0)
        return -1;
    const auto world = current_core();
    return world->dispatch(world->number_of(evm), timeout_ms, false);
}

int event_mgr_run(event_mgr_p evm)
{
    const auto stopped = [&] {
        return with_event_manager(evm, [](core &, auto &entry) { return entry.second.stopping ? 1 : 0; });
    };
    const auto world = current_core();
    int state = stopped();
    for (std::uint64_t called = 0; state == 0; state = stopped()) {
        const int more = world->dispatch(world->number_of(evm), -1, true);
        if (more < 0)
            return -1;
        called += static_cast<std::uint64_t>(more);
        if (called > world->set.max_handlers) {
            errno = ELOOP;
            return -1;
        }
    }
    if (state < 0)
        return -1;
    return with_event_manager(evm, [](core &, auto &entry) {
        entry.second.stopping = false;
        return 0;
    });
}

void event_mgr_stop(event_mgr_p evm)
{
    with_event_manager(evm, [](core &, auto &entry) {
        entry.second.stopping = true;
        return 0;
    });
}

int event_async_post(event_mgr_p evm, int code)
{
    return with_event_manager(evm, [&](core &world, auto &entry) {
        world.enqueue(posted_code{entry.first, code, 0});
        return 0;
    });
}

event_fd_watch_t *event_fd_watch(event_mgr_p, int, uint32_t, event_fd_handler_t, void *)
{
    errno = ENOSYS;
    return nullptr;
}

int event_fd_modify(event_fd_watch_t *, uint32_t)
{
    errno = ENOSYS;
    return -1;
}

void event_fd_unwatch(event_fd_watch_t *) {}
