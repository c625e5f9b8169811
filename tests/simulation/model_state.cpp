/*
 * The connection state and the retry timer.
 */
#include "model.h"

#include <utility>

namespace simulation {

namespace {

constexpr std::uint32_t status_down = 0;
constexpr std::uint32_t status_up = 1;

} // namespace

void model::start_timer(client &of, const std::string &where)
{
    if (platform_.leaf_running(of.leaf))
        return;
    platform_.debug(where, where + " " + std::to_string(of.retry_secs) + " secs");
    platform_.leaf_start(of.leaf, of.retry_secs);
    ++of.retry_secs;
}

std::uint32_t model::activate_timer(client &of)
{
    static const std::string where = "l2vpn_ac_activate_timer";
    platform_.debug(where, where);
    if (of.state == client::idle)
        return 2;
    start_timer(of, where);
    if (!platform_.leaf_running(of.leaf))
        hit(feature::failed_send_with_freed_timer);
    if (of.state == client::up && !mistaken(fault::no_down_on_failed_send)) {
        const std::uint64_t outer = std::exchange(noticing_, of.address);
        call_back(of, "status", {status_down, 0});
        noticing_ = outer;
        platform_.debug(where, where + " send down to client");
    }
    return 0;
}

void model::expire(std::uint64_t leaf)
{
    static const std::string where = "l2vpn_ac_connect_expire_fn";
    const bool lost = platform_.verdict(fn::mgd_timer_leaf_get_addl_context).has_value();
    const client_ptr of = lost ? nullptr : find(platform_.context_of_leaf[leaf]);
    if (of == nullptr || of->state == client::idle) {
        hit(feature::expiry_without_client);
        return;
    }
    const bool sent = platform_.ucast(of->class_id, join_message()) == 0;
    if (of->state == client::up)
        hit(sent ? feature::up_expired_join_sent : feature::up_expired_join_failed);
    else
        hit(sent ? feature::joining_expired_join_sent : feature::joining_expired_join_failed);
    if (sent && of->state != client::joining) {
        platform_.debug(where, where + " send UP to client");
        of->retry_secs = 1;
        const std::uint64_t outer = std::exchange(noticing_, of->address);
        call_back(*of, "status", {status_up, 0});
        noticing_ = outer;
        return;
    }
    start_timer(*of, where);
}

void model::handle_timers()
{
    if (!initialised()) {
        hit(feature::expiry_before_initialisation);
        return;
    }
    while (const std::uint64_t leaf = platform_.first_expired()) {
        platform_.leaf_stop(leaf);
        if (platform_.verdict(fn::mgd_timer_leaf_get_context))
            throw fatal_assertion{"fn != NULL"};
        expire(leaf);
    }
}

void model::handle_event(const delivery &item)
{
    static const std::string where = "l2vpn_ac_evt_cb";
    const client_ptr of = find(*platform_.cookie_of(item.class_id));
    if (of == nullptr) {
        hit(feature::event_without_client);
        return;
    }
    of->busy = true;
    const bool running = platform_.leaf_running(of->leaf);
    if (item.number == 1) {
        constexpr feature was[] = {feature::idle_disconnected, feature::joining_disconnected,
                                   feature::up_disconnected};
        hit(was[of->state]);
        platform_.debug(where, "Disconnected from L2VPN process");
        if (running)
            platform_.leaf_stop(of->leaf);
        of->retry_secs = 1;
        of->state = client::idle;
        call_back(*of, "status", {status_down, item.argument});
    } else if (item.number == 0) {
        platform_.debug(where, "Connected to L2VPN process");
        if (of->state == client::joining && running)
            platform_.leaf_stop(of->leaf);
        if (of->state == client::joining)
            hit(running ? feature::joining_connected : feature::joining_connected_without_timer);
        else if (of->state == client::up)
            hit(running ? feature::up_connected_with_timer : feature::up_connected);
        else
            hit(feature::idle_connected);
        of->state = client::up;
        of->retry_secs = 1;
        call_back(*of, "status", {status_up, item.argument});
    } else {
        hit(feature::unknown_event);
    }
    of->busy = false;
}

} // namespace simulation
