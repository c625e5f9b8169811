/*
 * The model: what the library is to do, step by step, written from its description alone. It predicts the
 * events that the subject then has to show.
 */
#ifndef TESTS_SIMULATION_MODEL_H
#define TESTS_SIMULATION_MODEL_H

#include "model_platform.h"

namespace simulation {

inline constexpr std::uint32_t einval = 22;

[[nodiscard]] inline std::string text_of(std::uint32_t status)
{
    return qerr_strerror(status);
}

/* Thrown where the library ends the process; the text is that of the assertion. */
struct fatal_assertion {
    std::string text;
};

/* A connected client. */
struct client {
    std::uint64_t address;
    std::uint64_t number;
    std::uint32_t class_id;
    std::uint32_t null_callbacks;
    std::uint64_t leaf = 0;
    enum : std::uint32_t { idle, joining, up } state = idle;
    std::uint32_t retry_secs = 0;
    bool busy = false;
};

class model {
public:
    model(std::uint64_t seed, fault mistake, coverage &seen);

    /* Takes a step with what the subject was left to decide. */
    void take(const step &what, taken_over given);
    [[nodiscard]] std::vector<event> events() { return platform_.events(); }

private:
    using client_ptr = std::shared_ptr<client>;

    /* Array records of one message, one after another. */
    struct piece {
        const bytes &wire;
        std::size_t element;
        std::uint64_t place; /* the number of the caller's array; 0: none */
    };

    void take_inner(const step &what);
    void take_outside(const step &what);
    void take_call(const step &what, const settled &call, std::size_t number);
    void take_resync(const step &what);
    void take_death(const step &what);
    [[nodiscard]] const settled &next_call(std::size_t &number);

    /* the client core: model.cpp, model_state.cpp */
    [[nodiscard]] bool initialised() const { return nodeid_ != invalid_nodeid; }
    [[nodiscard]] client_ptr find(std::uint64_t handle) const;
    [[nodiscard]] std::uint32_t init(std::uint32_t nodeid);
    [[nodiscard]] std::uint32_t connect(const step &what, std::uint64_t &handle_number);
    [[nodiscard]] std::uint32_t connect_client(const client_ptr &made, std::uint64_t &handle_number);
    void set_limits(std::uint32_t class_id);
    [[nodiscard]] std::uint32_t disconnect(std::uint64_t handle);
    [[nodiscard]] static bytes join_message() { return header_of(0, 0, 0); }
    [[nodiscard]] std::uint32_t activate_timer(client &of);
    void start_timer(client &of, const std::string &where);
    void expire(std::uint64_t leaf);
    void handle_timers();
    void handle_event(const delivery &item);
    void deliver(const delivery &item);
    void deliver_all();
    void advance(std::uint64_t by);
    void call_back(const client &of, const std::string &name, std::vector<std::uint64_t> arguments,
                   bytes data = {});

    /* requests: model_requests.cpp, model_mstp.cpp */
    [[nodiscard]] std::uint32_t ac_request(const step &what, const settled &call, std::size_t number);
    [[nodiscard]] std::uint32_t send_acs(const step &what, const settled &call, std::size_t number,
                                         const client_ptr &from);
    [[nodiscard]] std::uint32_t mstp_request(const step &what, const settled &call, std::size_t number);
    [[nodiscard]] std::uint32_t protect(const step &what, const settled &call);
    [[nodiscard]] std::uint32_t sanitize(const step &what, const settled &call, std::size_t number,
                                         std::uint32_t class_id);
    [[nodiscard]] bool converted(const client &of, const std::string &where, std::uint32_t count);
    [[nodiscard]] std::uint32_t send(const client &from, std::uint32_t type, std::uint32_t flags,
                                     const std::vector<piece> &pieces, std::size_t done, std::uint32_t count);
    [[nodiscard]] std::uint32_t failed_send(const client_ptr &from, std::uint32_t status);

    /* inbound messages: model_inbound.cpp */
    void handle_message(const delivery &item);
    void handle_provision(const client_ptr &to, const delivery &item, std::uint32_t bulk,
                          std::uint32_t flags);

    [[nodiscard]] bool mistaken(fault by) const { return mistake_ == by; }
    void hit(feature what) { platform_.seen().hit(what); }

    static constexpr std::uint32_t invalid_nodeid = 0xffffffff;

    platform_model platform_;
    fault mistake_;
    taken_over given_{};
    std::size_t calls_taken_ = 0;
    std::size_t contexts_taken_ = 0;
    std::uint64_t contexts_made_ = 0;
    bool in_child_ = false;
    std::uint32_t depth_ = 0;
    std::map<std::uint32_t, std::deque<step>> reactions_{};

    /* the library's state */
    std::uint32_t nodeid_ = invalid_nodeid;
    bool tree_ = false;
    std::map<std::uint64_t, client_ptr> clients_{};
    std::uint32_t mtu_ = 0;
    std::uint32_t max_create_ = 0;
    std::uint32_t max_update_ = 0;
    std::uint32_t max_delete_ = 0;
    std::uint32_t max_root_ = 0;
    std::uint32_t max_port_ = 0;
    std::uint32_t max_vid_ = 0;
    std::uint32_t create_batch_ = 0;
    std::map<op, std::uint32_t> mstp_batch_{};
    std::uint64_t noticing_ = 0; /* the client that is told UP or DOWN without being busy */
};

} // namespace simulation

#endif
