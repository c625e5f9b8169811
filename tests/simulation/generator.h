/*
 * Draws a scenario from its seed: a few classes whose owners live through calls, events, failures and time,
 * and at the end are healed, restarted, and compared with what the process holds.
 *
 * Not more than one number is drawn in a list of function arguments: the order of those is the compiler's.
 */
#ifndef TESTS_SIMULATION_GENERATOR_H
#define TESTS_SIMULATION_GENERATOR_H

#include "random.h"
#include "step.h"

namespace simulation {

/* The functions whose failing a scenario may ask for; over many scenarios, all of them do fail. */
inline constexpr fn failing[] = {
    fn::platform_get_my_nodeid,
    fn::calloc_named,
    fn::event_async_attach_event,
    fn::mgd_timer_tree_new,
    fn::mgd_timer_parent_new,
    fn::mgd_timer_leaf_new,
    fn::mgd_timer_leaf_set_addl_context,
    fn::mgd_timer_leaf_get_addl_context,
    fn::mgd_timer_tree_first_expired,
    fn::wavl_init,
    fn::wavl_insert,
    fn::l2vpn_ipc_client_init,
    fn::l2vpn_ipc_class_init,
    fn::l2vpn_ipc_class_deinit,
    fn::l2vpn_ipc_transport_mtu_get,
    fn::l2vpn_ipc_ucast,
    fn::l2vpn_ipc_ucastv,
    fn::l2vpn_ac_data_sanitize,
    fn::l2vpn_debug_init,
};

inline constexpr std::uint64_t an_hour = 3'600'000'000'000;

class generator {
public:
    explicit generator(std::uint64_t seed);

    [[nodiscard]] std::vector<step> scenario(std::uint32_t length);

private:
    [[nodiscard]] std::uint32_t some_class();
    static step plain(op what, std::uint32_t class_id, std::uint64_t value = 0);
    void add(std::initializer_list<step> steps) { steps_.insert(steps_.end(), steps); }

    void begin(std::uint32_t class_id);
    void finish();

    /* Single steps: generate_step.cpp. */
    [[nodiscard]] step any();
    [[nodiscard]] step any_inside();
    [[nodiscard]] step make(op what);
    [[nodiscard]] step make_mtu(std::uint32_t class_id);
    [[nodiscard]] step make_connect(std::uint32_t class_id);
    [[nodiscard]] step failure();
    [[nodiscard]] step failure(fn function);
    [[nodiscard]] step failure_at_init();
    [[nodiscard]] step request(op what, std::uint32_t class_id);
    static step first_call_of(fn function, std::uint64_t status);

    /* Several that belong together, for what hardly comes about by itself: generate_story.cpp. */
    void story();
    void fatal();
    void half_initialised();
    void left_registered();
    void connect_fails();
    void provision_without_memory();
    void refused_disconnect();

    random_source random_;
    std::vector<std::uint32_t> classes_{};
    std::vector<step> steps_{};
};

} // namespace simulation

#endif
