/*
 * Owners that know what they want: in this process, a thread each, over the library on the real platform.
 * Each keeps what it intends the process to hold, changes it without end, also while the process is away, and
 * hands all of it over anew whenever it is told UP. That is all that the library asks of an owner, so whatever
 * happens to the process or to a link, what the process holds in the end must be what they intend.
 */
#ifndef TESTS_KILL_OWNERS_H
#define TESTS_KILL_OWNERS_H

#include "daemon.h"
#include "soak_model.h"

#include <platform/event_loop.h>

#include <atomic>
#include <list>
#include <mutex>
#include <set>
#include <thread>

namespace kill_test {

using process_test::json;

class owner {
public:
    explicit owner(uint32_t class_id) : m_class(class_id), m_model(class_id) {}

    bool connect(event_mgr_p evm);
    qerrno disconnect() { return l2vpn_ac_process_disconnect(m_hd); }
    [[nodiscard]] uint32_t class_id() const { return m_class; }
    [[nodiscard]] uint32_t downs() const { return m_downs; }
    [[nodiscard]] bool up() const { return m_up; }
    /* Up, and nothing is left to be said. */
    [[nodiscard]] bool settled() const { return m_up && !m_anew; }

    /* One thing: everything anew if it is due, else, if wanted once nothing else is under way, a change. */
    void step(const std::atomic<bool> &change);
    /* The changes. */
    void create(uint32_t most);
    void update();
    void remove();
    void map_vlans(uint32_t least = 1, uint32_t most = 4094); /* several messages */

    /* All ACs were told to be provisioned since the latest UP. */
    bool knows_all_provisioned();

    /* As the process must hold it. */
    soak_test::tables intends();

private:
    struct record {
        l2vpn_ac_defn_t definition;
        l2vpn_ac_info_t info;
    };

    static qerrno on_status(l2vpn_ac_client_hd_t hd, uint32_t status, uint32_t argument);
    static qerrno on_provision(l2vpn_ac_client_hd_t hd, uint32_t bulk, ifhtype *ifh,
                               l2vpn_ac_xcid_data_t *data, uint32_t flags);
    void say_everything();
    void send_create(soak_test::ac_arrays &acs);
    void send_vlans();

    uint32_t m_class;
    l2vpn_ac_client_hd_t m_hd = nullptr;
    std::atomic<bool> m_up = false;
    std::atomic<bool> m_anew = false;
    std::atomic<uint32_t> m_downs = 0;
    std::set<uint32_t> m_provisioned; /* the callbacks' own */

    std::recursive_mutex m_lock; /* what follows; never taken by a callback */
    soak_test::model m_model;
    std::map<uint32_t, record> m_records;
    std::vector<l2vpn_msti_vid_map_t> m_vlans;
};

/* The program's one event manager: the library holds on to it. */
event_mgr_p event_manager();

/* What the platform reads from the environment, once. */
void configure(const std::string &runtime_dir);

/* What stands between the owners' intent and what the process says it holds, in words; empty: nothing. ACs of
 * the classes `others` are somebody else's. */
std::string difference(std::list<owner> &owners, process_test::raw_control &process,
                       const std::set<uint32_t> &others = {});

/* The one set of owners that a process can have, at work from start() to stop(). */
class fleet {
public:
    explicit fleet(const std::string &runtime_dir);
    ~fleet();
    fleet(const fleet &) = delete;
    fleet &operator=(const fleet &) = delete;

    /* Off: the owners change nothing, but say everything anew where it is due. */
    void change(bool wanted);
    bool settled();
    std::list<owner> &owners() { return m_owners; }

private:
    void work(owner &of);

    std::list<owner> m_owners;
    event_mgr_p m_evm;
    std::atomic<bool> m_changing = false;
    std::atomic<bool> m_stopping = false;
    std::vector<std::thread> m_threads;
};

} // namespace kill_test

#endif
