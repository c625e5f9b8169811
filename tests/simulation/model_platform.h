/*
 * The platform as the model has it: what <platform/sim.h> says of failures, links, timers and delivery,
 * without the machinery. Events are predicted here as the platform would record them.
 */
#ifndef TESTS_SIMULATION_MODEL_PLATFORM_H
#define TESTS_SIMULATION_MODEL_PLATFORM_H

#include "coverage.h"
#include "event.h"
#include "process.h"
#include "random.h"

#include <array>
#include <deque>
#include <map>
#include <set>
#include <tuple>
#include <utility>

namespace simulation {

/* The next of what is to be delivered. */
struct delivery {
    enum { posted, link_event, message } what;
    std::uint32_t class_id; /* or the code that was posted */
    std::uint32_t number;   /* of an event; posted: by the timers; the class told with a message */
    std::uint32_t argument;
    bytes content;
};

class platform_model {
public:
    platform_model(std::uint64_t seed, coverage &seen) : random_(seed), seen_(&seen) {}

    /* --- events --- */
    void say(event what) { events_.push_back(std::move(what)); }
    void debug(const std::string &where, const std::string &text);
    void report(const std::string &where, const std::string &text, std::uint64_t key, const char *format);
    [[nodiscard]] std::vector<event> events() { return std::exchange(events_, {}); }

    /* --- failures --- */
    void fail(fn function, std::uint64_t k, bool for_good, std::uint32_t status);
    void heal();
    [[nodiscard]] std::optional<std::uint32_t> verdict(fn function);
    void begin_step();
    /* Whether nothing failed and nothing was refused since begin_step(). */
    [[nodiscard]] bool clean() const { return clean_; }
    void spoil() { clean_ = false; }

    /* --- links --- */
    [[nodiscard]] std::uint32_t class_init(std::uint32_t class_id, std::uint32_t nodeid,
                                           std::uint64_t client_number, std::uint64_t cookie);
    std::uint32_t class_deinit(std::uint32_t class_id);
    [[nodiscard]] std::uint32_t mtu_get(std::uint32_t class_id, std::uint32_t &mtu);
    [[nodiscard]] std::uint32_t ucast(std::uint32_t class_id, const bytes &message);
    /* `places` are the array and the offset of each piece after the header. */
    [[nodiscard]] std::uint32_t ucastv(std::uint32_t class_id, const bytes &message,
                                       const std::vector<std::uint64_t> &lengths,
                                       const std::vector<std::uint64_t> &places);

    void link_event(std::uint32_t class_id, std::uint32_t number, std::uint32_t argument);
    void link_down(std::uint32_t class_id);
    void link_up(std::uint32_t class_id) { link_of(class_id).down = false; }
    void inject(std::uint32_t class_id, std::uint32_t told, bytes message);
    void set_mtu(std::uint32_t class_id, std::uint32_t mtu) { link_of(class_id).mtu = mtu; }
    [[nodiscard]] std::optional<std::uint64_t> cookie_of(std::uint32_t class_id);
    l2vpn_process process{};

    /* --- timers; a leaf is its number, 0 none --- */
    [[nodiscard]] std::uint64_t leaf_new(bool tree_is_there);
    void leaf_free(std::uint64_t leaf);
    [[nodiscard]] bool leaf_running(std::uint64_t leaf) const;
    void leaf_start(std::uint64_t leaf, std::uint64_t seconds);
    void leaf_stop(std::uint64_t leaf);
    [[nodiscard]] std::uint64_t first_expired();
    std::map<std::uint64_t, std::uint64_t> context_of_leaf{};

    /* --- delivery --- */
    void post(std::uint32_t code) { queue_.push_back({delivery::posted, code, 0, 0, {}}); }
    void jump(std::uint64_t by);
    /* The next delivery that has a receiver. */
    [[nodiscard]] std::optional<delivery> next();
    [[nodiscard]] std::optional<std::uint64_t> next_due() const;
    [[nodiscard]] std::uint64_t now() const { return now_; }
    void move_clock(std::uint64_t to);

    /* --- settings --- */
    std::uint32_t gate = 0;
    bool records_wanted = true;
    bool enforce_mtu = false;
    bool shuffle = false;
    bool handler_attached = false;
    std::uint32_t nodeid = 0x0a000001;

    [[nodiscard]] coverage &seen() { return *seen_; }
    void set_seen(coverage &seen) { seen_ = &seen; }

private:
    struct rule {
        std::uint64_t number;
        bool for_good;
        std::uint32_t status;
    };
    struct link {
        std::optional<std::uint64_t> cookie{};
        bool down = false;
        std::uint32_t mtu = 65536;
    };
    struct running {
        std::uint64_t expiry;
        std::uint64_t rank;
        std::uint64_t leaf;
        bool operator<(const running &other) const
        {
            return std::tie(expiry, rank, leaf) < std::tie(other.expiry, other.rank, other.leaf);
        }
    };

    [[nodiscard]] link &link_of(std::uint32_t class_id) { return links_[class_id]; }
    [[nodiscard]] std::uint32_t send_status(std::uint32_t class_id, std::size_t length);
    void answer(std::uint32_t class_id, const bytes &message);
    void enqueue_due();

    random_source random_;
    coverage *seen_;
    std::vector<event> events_{};
    std::array<std::uint64_t, l2vpn::sim::fn_count> counts_{};
    std::map<fn, std::vector<rule>> rules_{};
    std::uint32_t sends_ = 0;
    bool clean_ = true;
    std::map<std::uint32_t, link> links_{};
    std::deque<delivery> queue_{};
    std::uint64_t now_ = 0;
    std::set<running> running_{};
    std::set<std::uint64_t> live_{};
    std::set<std::uint64_t> announced_{};
    std::uint64_t leaves_made_ = 0;
    std::uint64_t starts_ = 0;
    bool posted_by_timers_ = false;
};

} // namespace simulation

#endif
