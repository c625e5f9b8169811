/*
 * Plays a scenario on the library, loaded anew, on the simulated platform, and writes down what happened.
 */
#ifndef TESTS_TORTURE_PLAYER_H
#define TESTS_TORTURE_PLAYER_H

#include "ac_library.h"
#include "model.h"

#include <platform/sim.h>

#include <set>

namespace torture {

inline constexpr std::uint32_t nodeid = 0x0a000001;
inline constexpr ifhtype first_ifh = 0x01020300; /* of the handles of all arrays */

class player {
public:
    player(std::uint32_t mtu, const std::optional<plan> &what);
    ~player();
    player(const player &) = delete;
    player &operator=(const player &) = delete;

    void play(const step &s);
    void clear_failures();

    /* What happened so far, in the model's words. */
    const std::vector<std::string> &lines();
    void forget_lines();

    /* How many calls of a target there were; of all that can fail. */
    std::uint64_t count(const target &what) const;
    std::uint64_t fallible_calls() const { return world_.fallible_calls(); }

    /* A second thread takes the library's locks; it makes a request with each slot's handle (the statuses). */
    bool locks_are_free() const;
    std::vector<qerrno> requests_of_another_thread();

    l2vpn::sim::world &world() { return world_; }

    /* The functions and callbacks that were called, by name. */
    std::set<std::string> called;

private:
    void apply(const plan &what);
    void connect(const step &s);
    void ac_request(const step &s);
    template <typename Record, typename Function>
    void mstp_request(const step &s, Function function);
    void protect(const step &s);
    void message(const step &s);
    void sweep();
    void returned(qerrno status);
    void arrays(bool restored);
    void say(const std::string &text);

    static qerrno write_down(l2vpn_ac_client_hd_t hd, const char *callback, const std::string &text);
    static qerrno on_status(l2vpn_ac_client_hd_t hd, std::uint32_t status, std::uint32_t arg);
    static qerrno on_prov(l2vpn_ac_client_hd_t hd, std::uint32_t bulk, ifhtype *ifh,
                          l2vpn_ac_xcid_data_t *data, std::uint32_t flags);
    static qerrno on_unprov(l2vpn_ac_client_hd_t hd, std::uint32_t bulk, ifhtype *ifh, std::uint32_t flags);
    static qerrno on_bulk_notify(l2vpn_ac_client_hd_t hd, std::uint32_t bulk, l2vpn_ac_bulk_notify_t *records,
                                 std::uint32_t flags);
    static qerrno on_hdr_notify(l2vpn_ac_client_hd_t hd, std::uint32_t word2, void *null,
                                std::uint32_t word3);
    static player *current;

    l2vpn::sim::world world_;
    ac_library lib_;
    l2vpn_ac_client_hd_t hd_[slots] = {};
    std::uint32_t class_[slots] = {};
    std::vector<step> inside_;
    std::vector<std::string> lines_; /* of calls that the platform has forgotten */
};

} // namespace torture

#endif
