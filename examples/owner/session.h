/*
 * The owner's side of one AC class: a client of the library, the interfaces it is to have, and what is still
 * to be sent.
 *
 * All of it runs on the event manager's thread. A callback only notes what happened and asks for the work
 * handler; requests are sent from there, one at a time, so that a large inventory does not keep the loop
 * from its events.
 *
 * DOWN drops what was still to be sent, and UP sends everything anew: only the process that reported UP
 * matters, and it knows nothing yet. That holds as well for a DOWN that a failed request reports from inside
 * the request itself, which then returns success.
 */
#ifndef OWNER_SESSION_H
#define OWNER_SESSION_H

#include "console.h"
#include "inventory.h"
#include "mstp.h"
#include "request.h"

#include <deque>
#include <functional>
#include <l2vpn/l2vpn_ac_api.h>
#include <unordered_map>

namespace owner {

// What the sessions of a process share.
struct surroundings {
    console &out;
    std::function<void()> wake; // asks for a call of work(), later
    uint32_t mtu;
    bool verbose;
    uint32_t limits_class = 0; // the class whose connect computed the library's message limits last
};

class session {
public:
    session(surroundings &around, uint32_t class_id) : around_(around), class_id_(class_id) {}
    ~session() { disconnect(); }
    session(const session &) = delete;
    session &operator=(const session &) = delete;

    qerrno connect(event_mgr_p evm);
    void disconnect();

    struct changes {
        std::size_t created = 0;
        std::size_t updated = 0;
        std::size_t replaced = 0; // deleted and created, because the definition changed
        std::size_t deleted = 0;
    };
    // What changes against the interfaces it had is sent; all of it on the next UP when it is not up.
    changes set_interfaces(interface_list next);

    // Sent after the ACs, on every UP. Null: nothing.
    void set_scenario(mstp_scenario *scenario) { scenario_ = scenario; }

    uint32_t class_id() const { return class_id_; }
    bool connected() const { return handle_ != nullptr; }
    bool up() const { return up_; }
    bool has_work() const { return !tasks_.empty() || scenario_due_; }
    bool batch_open() const { return batch_open_; }
    bool settled() const { return up_ && !has_work(); }
    std::size_t interfaces() const { return interfaces_.size(); }
    std::size_t sent() const;

    // Sends one request, or the scenario. False when the library refused it, which was reported.
    bool work();

    // The library's callbacks.
    void on_status(uint32_t status, uint32_t argument);
    void on_provision(std::span<const ifhtype> handles, std::span<const l2vpn_ac_xcid_data_t> data);
    void on_unprovision(std::span<const ifhtype> handles);
    void on_bulk_notice(std::span<const l2vpn_ac_bulk_notify_t> records, uint32_t flags);
    void on_header_notice(uint32_t word, uint32_t flags);

private:
    enum class action : uint8_t { create, update, remove };
    struct task {
        action what;
        interface_list entries;
        std::size_t done = 0;
        std::size_t requests = 0;
        uint64_t messages = 0;
    };

    void say(const std::string &text)
    {
        around_.out.line("class " + std::to_string(class_id_) + ": " + text);
    }
    void add_task(action what, interface_list entries);
    void drop_tasks();
    void down_while_sending();
    bool work_on_task();
    qerrno send(task &current, std::size_t count);
    qerrno send_scenario();
    qerrno send_vlans(std::size_t &requests);
    bool refused(qerrno status);
    std::size_t request_size(action what) const;
    std::string name_of(ifhtype handle) const;

    surroundings &around_;
    uint32_t class_id_;
    l2vpn_ac_client_hd_t handle_ = nullptr;
    bool up_ = false;
    bool sending_ = false;
    unsigned failures_ = 0;   // requests in a row that could not be sent
    bool batch_open_ = false; // the library has a create batch open that this session began
    std::unordered_map<ifhtype, interface_ptr> by_handle_;
    interface_list interfaces_;
    std::deque<task> tasks_;
    mstp_scenario *scenario_ = nullptr;
    bool scenario_due_ = false;
    request_arrays arrays_;
};

} // namespace owner

#endif
