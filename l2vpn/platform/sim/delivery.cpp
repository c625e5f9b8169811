/*
 * The event managers' turns: what is taken from the queue, and who is called.
 *
 * One thread delivers at a time and never from inside a handler. What to call is decided under the lock
 * when an item is taken from the queue; the call itself is made without it.
 */
#include "core.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace l2vpn::sim {

namespace {

constexpr std::uint64_t no_limit = std::numeric_limits<std::uint64_t>::max();

} // namespace

/* The right to deliver, of one caller at a time. */
class core::turn {
public:
    explicit turn(core &world) : world_(world)
    {
        const std::lock_guard guard(world_.lock);
        owned_ = !std::exchange(world_.delivering_, true);
    }
    ~turn()
    {
        const std::lock_guard guard(world_.lock);
        if (owned_)
            world_.delivering_ = false;
    }
    turn(const turn &) = delete;
    turn &operator=(const turn &) = delete;

    [[nodiscard]] bool owned() const { return owned_; }

    void insist() const
    {
        if (!owned_)
            throw std::logic_error("handlers run one at a time: not from inside a handler");
    }

private:
    core &world_;
    bool owned_ = false;
};

/* --- what an item comes to --- */

job core::resolve(posted_code &posted)
{
    if (const auto tree = trees.find(posted.tree); tree != trees.end())
        tree->second.posted = false;
    const auto manager = event_managers.find(posted.evm);
    if (manager == event_managers.end())
        return {};
    const auto found = manager->second.attached.find(posted.code);
    if (found == manager->second.attached.end())
        return {};
    return [attached = found->second] { attached.handler(attached.context, attached.arg); };
}

job core::resolve(link_event &event)
{
    const registration *to = registered(event.class_id);
    if (to == nullptr)
        return {};
    return [call = to->evt_cb, client = handle_of<l2vpn_ipc_client_t>(to->client), event,
            cookie = link_of(event.class_id).cookie] {
        call(client, event.peer, 0, event.number, event.arg, cookie);
    };
}

job core::resolve(link_message &message)
{
    const registration *to = registered(message.class_id);
    if (to == nullptr)
        return {};
    return [call = to->msg_cb, client = handle_of<l2vpn_ipc_client_t>(to->client),
            class_argument = message.class_argument, content = std::move(message.message),
            cookie = link_of(message.class_id).cookie] {
        // Allocated for itself and at exactly its size, so that a memory checker sees every overrun.
        const std::unique_ptr<std::uint8_t[]> buffer(new std::uint8_t[content.size()]);
        std::memcpy(buffer.get(), content.data(), content.size());
        call(client, class_argument, 0, buffer.get(), static_cast<std::uint32_t>(content.size()), 0, cookie);
    };
}

job core::resolve(scripted &script)
{
    return std::move(script.action);
}

/* Whether an item is for this event manager; scripted actions are for whichever asks. */
bool core::is_for(std::uint32_t evm, const delivery &item) const
{
    const auto receiver = [this](std::uint32_t class_id) {
        const registration *to = registered(class_id);
        return to == nullptr ? 0 : clients.at(to->client);
    };
    return std::visit(
        [&](const auto &what) {
            using type = std::remove_cvref_t<decltype(what)>;
            if constexpr (std::is_same_v<type, scripted>)
                return true;
            else if constexpr (std::is_same_v<type, posted_code>)
                return what.evm == evm;
            else
                return receiver(what.class_id) == evm;
        },
        item.what);
}

/* The next thing to be called, of one event manager or of all, not queued later than `up_to`. What has no
 * receiver any more is dropped on the way. Empty when there is none. */
job core::take(std::optional<std::uint32_t> evm, std::uint64_t up_to)
{
    const std::lock_guard guard(lock);
    enqueue_due();
    for (;;) {
        const auto next =
            std::ranges::find_if(queue, [&](const delivery &item) { return !evm || is_for(*evm, item); });
        if (next == queue.end() || next->number > up_to)
            return {};
        delivery item = std::move(*next);
        queue.erase(next);
        if (job found = std::visit([this](auto &what) { return resolve(what); }, item.what))
            return found;
    }
}

/* Everything that is due; `done` is how many handlers this run has called already. */
std::size_t core::drain(std::size_t done)
{
    std::size_t called = 0;
    while (const job next = take({}, no_limit)) {
        if (done + called >= set.max_handlers)
            throw std::runtime_error("more than " + std::to_string(set.max_handlers) +
                                     " handlers in one run: see settings.max_handlers");
        next();
        ++called;
    }
    return called;
}

/* --- the turns --- */

bool core::step()
{
    const turn mine(*this);
    mine.insist();
    const job next = take({}, no_limit);
    if (!next)
        return false;
    next();
    return true;
}

std::size_t core::run()
{
    const turn mine(*this);
    mine.insist();
    return drain(0);
}

std::size_t core::advance(duration by)
{
    const turn mine(*this);
    mine.insist();
    const auto move = [this](duration to) {
        const std::lock_guard guard(lock);
        move_clock(to);
    };
    const auto next_stop = [this](duration limit) {
        const std::lock_guard guard(lock);
        return std::min(next_due().value_or(limit), limit);
    };

    const duration end = after(by);
    std::size_t called = drain(0);
    for (duration stop = next_stop(end); stop < end; stop = next_stop(end)) {
        move(stop);
        called += drain(called);
    }
    move(end);
    return called + drain(called);
}

int core::dispatch(std::uint32_t evm, int timeout_ms, bool stoppable)
{
    const turn mine(*this);
    if (!mine.owned()) {
        errno = EBUSY;
        return -1;
    }
    const auto stopped = [&] {
        const std::lock_guard guard(lock);
        const auto manager = event_managers.find(evm);
        return manager == event_managers.end() || (stoppable && manager->second.stopping);
    };
    const duration end = after(timeout_ms < 0 ? duration::max() : std::chrono::milliseconds(timeout_ms));

    for (;;) {
        int called = 0;
        const std::uint64_t up_to = [&] {
            const std::lock_guard guard(lock);
            enqueue_due();
            return queued;
        }();
        while (!stopped()) {
            const job next = take(evm, up_to);
            if (!next)
                break;
            next();
            ++called;
        }
        if (called > 0 || stopped())
            return called;

        const std::lock_guard guard(lock);
        const auto next = next_due(evm);
        if (!next && timeout_ms < 0) {
            errno = EDEADLK;
            return -1;
        }
        if (!next || *next > end) {
            move_clock(end);
            return 0;
        }
        move_clock(*next);
    }
}

} // namespace l2vpn::sim
