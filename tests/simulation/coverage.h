/*
 * What simulations have been through: a count of every kind of step, message and failure, and of every
 * state, outcome and oddity that the model knows. One that never happened was not tested.
 */
#ifndef TESTS_SIMULATION_COVERAGE_H
#define TESTS_SIMULATION_COVERAGE_H

#include "step.h"

#include <array>
#include <string>
#include <vector>

namespace simulation {

// clang-format off
#define SIMULATION_FEATURES(X)                                                                               \
    /* connection states */                                                                                  \
    X(joining_connected) X(joining_connected_without_timer) X(idle_connected) X(up_connected)                \
    X(up_connected_with_timer) X(joining_disconnected) X(up_disconnected) X(idle_disconnected)               \
    X(unknown_event) X(event_without_client)                                                                 \
    X(joining_expired_join_sent) X(joining_expired_join_failed) X(up_expired_join_sent)                      \
    X(up_expired_join_failed) X(expiry_without_client) X(expiry_before_initialisation)                       \
    X(failed_send_while_idle) X(failed_send_while_joining) X(failed_send_while_up)                           \
    X(failed_send_while_up_with_timer) X(failed_send_with_freed_timer)                                       \
    X(timers_expired_together) X(timer_freed_again)                                                          \
    /* connect and disconnect */                                                                             \
    X(connected) X(connected_again_at_another_class) X(connect_bad_argument) X(connect_invalid_nodeid)       \
    X(connect_no_context) X(connect_no_timer) X(connect_no_timer_context) X(connect_not_inserted)            \
    X(connect_class_refused) X(connect_no_mtu) X(connect_class_15) X(connect_join_failed)                    \
    X(connect_undo_failed) X(connect_tiny_mtu)                                                               \
    X(init_debug_failed) X(init_no_nodeid) X(init_no_ipc) X(init_no_event) X(init_no_event_no_cause)         \
    X(init_no_tree) X(init_no_parent) X(init_no_client_tree) X(initialised) X(initialised_with_nodeid)       \
    X(disconnected) X(disconnect_unknown) X(disconnect_uninitialised) X(disconnect_busy)                     \
    X(disconnect_class_kept) X(disconnect_from_notice)                                                       \
    /* requests */                                                                                           \
    X(request_uninitialised) X(request_unknown) X(request_null_array) X(request_refused)                     \
    X(request_no_memory) X(request_empty) X(request_empty_failed) X(request_whole) X(request_cut)            \
    X(request_exact) X(request_taken_over) X(request_failed) X(request_failed_midway)                        \
    X(request_large) X(limit_of_zero) X(request_class_17)                                                    \
    X(create_batch_opened) X(create_in_batch) X(create_batch_closed) X(create_batch_closed_empty)            \
    X(mstp_batch_opened) X(mstp_in_batch) X(mstp_batch_closed) X(mstp_batch_closed_empty)                    \
    X(protect_failed)                                                                                        \
    X(send_while_down) X(send_above_mtu) X(endless_sending_ended)                                            \
    /* inbound messages */                                                                                   \
    X(message_without_client) X(message_of_invalid_type) X(message_ignored) X(notice_flag)                   \
    X(notice_flag_of_header_notice) X(prov_delivered) X(prov_no_callback) X(prov_empty) X(prov_bad_class)    \
    X(prov_bad_length) X(prov_no_memory) X(unprov_delivered) X(unprov_no_callback) X(unprov_empty)           \
    X(unprov_bad_length) X(notify_delivered) X(notify_no_callback) X(notify_empty) X(notify_bad_length)      \
    X(hdr_delivered) X(hdr_no_callback)                                                                      \
    X(delivery_without_receiver) X(code_without_handler)                                                     \
    /* the simulation's own */                                                                               \
    X(reaction) X(reaction_within_reaction) X(death_by_info) X(death_by_data) X(death_by_evm)                \
    X(death_by_nodeid) X(death_by_timer) X(no_death) X(resynced)
// clang-format on

enum class feature : std::uint8_t {
#define X(name) name,
    SIMULATION_FEATURES(X)
#undef X
        count_
};

class coverage {
public:
    void hit(feature what) { ++features_[static_cast<std::size_t>(what)]; }
    void hit(op what) { ++ops_[static_cast<std::size_t>(what)]; }
    void hit_failure(fn function) { ++failures_[static_cast<std::size_t>(function)]; }
    void hit_sent(std::uint32_t type) { ++sent_.at(type); }
    void hit_received(std::uint32_t type) { ++received_.at(type < types ? type : types); }

    /* "group name count", a line each. */
    [[nodiscard]] std::vector<std::string> table() const;
    /* The lines of those that never happened. */
    [[nodiscard]] std::vector<std::string> missing() const;

private:
    static constexpr std::size_t types = 17;

    struct row {
        std::string name;
        std::uint64_t count;
    };
    [[nodiscard]] std::vector<row> rows() const;

    std::array<std::uint64_t, static_cast<std::size_t>(feature::count_)> features_{};
    std::array<std::uint64_t, op_count> ops_{};
    std::array<std::uint64_t, l2vpn::sim::fn_count> failures_{};
    std::array<std::uint64_t, types> sent_{};
    std::array<std::uint64_t, types + 1> received_{};
};

} // namespace simulation

#endif
