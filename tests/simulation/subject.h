/*
 * The subject of a simulation: the library, loaded anew, on a simulated platform of its own, with an owner
 * for each class and an L2VPN process. Takes steps and tells what happened.
 */
#ifndef TESTS_SIMULATION_SUBJECT_H
#define TESTS_SIMULATION_SUBJECT_H

#include "ac_library.h"
#include "event.h"
#include "process.h"

#include <deque>
#include <map>

namespace simulation {

class subject {
public:
    explicit subject(std::uint64_t seed);
    ~subject();
    subject(const subject &) = delete;
    subject &operator=(const subject &) = delete;

    void take(const step &what);

    /* What has happened since the last call, and what the model has to know of it. */
    [[nodiscard]] std::vector<event> events();
    [[nodiscard]] taken_over handed_over();

    /* Disconnects every client that is left; the number of contexts or timers that remain. */
    [[nodiscard]] std::size_t end();

private:
    /* Trace records with this number are the simulation's own: they mark where something was said. */
    static constexpr std::uint32_t marker = 0xca11bac0;

    struct owner_state {
        l2vpn_ac_client_hd_t handle = nullptr;
        l2vpn_ac_client_hd_t stale = nullptr;
        std::deque<step> reactions{};
    };
    /* The arrays of a call in progress: where events find what a piece points into. */
    struct range {
        const std::uint8_t *begin;
        std::size_t size;
        std::uint64_t number;
    };

    template <std::uint32_t Owner>
    struct callbacks;
    [[nodiscard]] static l2vpn_ac_callback_vector_t callbacks_of(std::uint32_t class_id, std::uint32_t nulls);

    void perform(const step &what, std::size_t number); /* of its settled call */
    void take_connect(const step &what);
    void take_disconnect(const settled &call);
    void take_request(const step &what, std::size_t number);
    void take_platform(const step &what);
    void take_resync(const step &what);
    void take_death(const step &what);

    [[nodiscard]] settled settle(const step &what) const;
    [[nodiscard]] std::uint32_t limit_of(op what) const;
    [[nodiscard]] std::uint64_t handle_for(const step &what) const;
    void called_back(std::uint32_t class_id, event what);
    void say(event what);
    void limit_sends();
    /* Of an address in an array of the call in progress: the array's number and the offset; two zeros of any
     * other. */
    void append_place(std::vector<std::uint64_t> &to, const void *at) const;
    [[nodiscard]] event event_of(const l2vpn::sim::call &call);

    l2vpn::sim::world world_;
    ac_library library_;
    l2vpn_process process_;
    std::map<std::uint32_t, owner_state> owners_;
    std::map<std::uint64_t, std::uint32_t> class_of_;

    /* The limits of the moment as the owners reckon them: what sizes are drawn around. */
    std::uint64_t room_ = 1024;
    std::uint64_t info_ = 20;
    std::map<std::uint32_t, std::uint32_t> mtus_;

    taken_over handed_over_;
    std::vector<event> said_; /* callbacks and returns; their places among the calls are marked */
    std::vector<range> ranges_;
    std::vector<std::uint64_t> in_progress_; /* calls, while events are read */
    std::vector<std::unique_ptr<std::uint8_t[]>> memory_;
    std::uint32_t sends_ = 0;
    bool reacting_ = true;

    std::map<std::uint64_t, std::uint64_t> contexts_; /* numbers by address */
    std::map<std::uint64_t, std::uint64_t> leaves_;
    std::uint64_t contexts_made_ = 0;
    std::uint64_t leaves_made_ = 0;

    static subject *current;
};

/* Runs `what` in a child process and tells how it ended: the text of the fatal assertion, "" when it ended
 * well, something else when it ended otherwise. */
[[nodiscard]] std::string fate_of(const std::function<void()> &what);

} // namespace simulation

#endif
