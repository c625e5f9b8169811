/*
 * What the library must do, told a second time, from its requirements alone: every step of a scenario with
 * every call on the platform, and what a failure of each must give. It shares nothing with the library but
 * the public headers. It says what it expects as lines, which the player writes too while it plays the same
 * steps on the library.
 */
#ifndef TESTS_TORTURE_MODEL_H
#define TESTS_TORTURE_MODEL_H

#include "scenario.h"
#include "targets.h"

#include <l2vpn/l2vpn_ac_api.h>

#include <map>
#include <stdexcept>

namespace torture {

/* Thrown where the library must abort the process: what it says before. */
struct must_die : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/* The three texts that the player and the model have to write alike. */
std::string text_of_call(fn function, const std::string &detail, std::int64_t failure);
std::string text_of_message(std::uint32_t class_id, std::uint32_t type, std::uint32_t bulk,
                            std::uint32_t flags, std::size_t length, std::size_t pieces);
std::string text_of_sanitize(std::uint32_t class_id, std::uint32_t count);

class model {
public:
    model(std::uint32_t mtu, std::uint32_t nodeid, const std::optional<plan> &what);

    void play(const step &s);
    void clear_failures();

    std::vector<std::string> lines; /* what must have happened so far */

    /* What the library and the platform must hold now. */
    bool connected(unsigned slot) const { return slot_[slot] != nobody; }
    bool initialised() const { return initialised_; }
    std::size_t contexts() const { return contexts_.size(); }
    std::size_t leaves() const;
    bool registered(std::uint32_t class_id) const { return registered_.contains(class_id); }

private:
    using id = unsigned; /* of a context */
    static constexpr id nobody = 0;

    struct context {
        unsigned slot;
        std::uint32_t class_id;
        bool bare;
        unsigned state = 0;
        std::uint32_t retry_secs = 0;
        bool busy = false;
        bool leaf = true; /* the timer is there */
        bool running = false;
        bool announced = false; /* its expiry was told to the handler */
        std::uint64_t expiry = 0;
        std::uint64_t rank = 0;
    };

    struct ac_kind {
        std::string function;
        std::string called; /* in its texts */
        std::uint32_t type, start, end;
        bool defns, infos;
        qerrno unknown; /* for a handle that is none */
    };
    struct mstp_kind {
        std::string function;
        std::string called; /* the text when it begins */
        std::uint32_t type;
        std::size_t record;
    };

    /* --- failures (model.cpp) --- */
    std::optional<int> fails(const target &what);
    std::optional<int> fails(fn function) { return fails(target_of(function)); }
    /* A call that returns a status. */
    qerrno call(fn function, const std::string &detail = "", qerrno natural = EOK);
    /* One that returns a pointer, or a negative number with errno; the errno, when it fails. */
    std::optional<int> call_fails(fn function, const std::string &detail = "", bool naturally = false);
    void effect(fn function, const std::string &detail = "");
    void lock(const std::string &function);
    void unlock(const std::string &function);
    void debug(const std::string &function, const std::string &text);
    void report(const std::string &function, const std::string &text, const std::string &record);
    void notify(id client, const std::string &text);

    /* --- clients (model_client.cpp) --- */
    qerrno connect(const step &s, std::uint32_t nodeid);
    qerrno initialise(std::uint32_t nodeid);
    qerrno connect_client(id client, std::uint32_t class_id);
    qerrno disconnect(unsigned slot);
    void event(const step &s);
    void advance(std::uint32_t seconds);
    void expired();
    void expire(id client);
    bool timer_runs(id client);
    void start_timer(id client, const std::string &function);
    qerrno activate(id client);
    qerrno join(id client);
    void sweep();
    id find(id client);
    context &of(id client) { return contexts_.at(client); }

    /* --- requests and messages (model_request.cpp) --- */
    qerrno ac_request(const ac_kind &kind, const step &s);
    qerrno mstp_request(const mstp_kind &kind, const step &s);
    qerrno protect(const step &s);
    qerrno send(id client, std::uint32_t type, std::uint32_t bulk, std::uint32_t flags, std::size_t length,
                std::size_t pieces);
    qerrno prepare(const ac_kind &kind, id client, std::uint32_t count);
    void message(const step &s);
    void dispatch(id client, const step &s);
    void provision(id client, const step &s);

    static const std::map<op, ac_kind> ac_kinds;
    static const std::map<op, mstp_kind> mstp_kinds;

    /* What is to fail, and how often each was called. */
    struct script {
        fn function;
        std::uint64_t at;
        int status;
    };
    std::optional<plan> plan_;
    std::vector<script> scripts_;
    std::map<std::string_view, std::uint64_t> counts_;
    std::uint64_t fallible_ = 0;

    /* The platform. */
    std::uint32_t platform_mtu_;
    std::uint32_t platform_nodeid_;
    std::uint64_t now_ = 0;
    std::uint64_t starts_ = 0;
    std::map<std::uint32_t, id> registered_;

    /* The library. */
    bool initialised_ = false;
    bool timers_made_ = false;
    std::uint32_t mtu_ = 0;
    std::map<op, std::uint32_t> limit_;
    std::map<op, std::uint32_t> batch_;
    std::map<id, context> contexts_;
    id made_ = nobody;

    /* The program. */
    id slot_[slots] = {};
    std::vector<step> inside_; /* what happens inside the next callback */
};

} // namespace torture

#endif
