// The session's connection to the library: what the library calls, and what becomes of it.
#include "provisioned.h"
#include "session.h"

#include <arpa/inet.h>
#include <map>

namespace owner {

namespace {

// The library hands its callbacks nothing but the client's handle.
std::map<l2vpn_ac_client_hd_t, session *> s_sessions;

session *find(l2vpn_ac_client_hd_t handle)
{
    const auto found = s_sessions.find(handle);
    return found == s_sessions.end() ? nullptr : found->second;
}

qerrno status_cb(l2vpn_ac_client_hd_t handle, uint32_t status, uint32_t argument)
{
    if (session *const one = find(handle); one != nullptr)
        one->on_status(status, argument);
    return EOK;
}

qerrno prov_cb(l2vpn_ac_client_hd_t handle, uint32_t bulk, ifhtype *ifh, l2vpn_ac_xcid_data_t *data, uint32_t)
{
    if (session *const one = find(handle); one != nullptr)
        one->on_provision({ifh, bulk}, {data, bulk});
    return EOK;
}

qerrno unprov_cb(l2vpn_ac_client_hd_t handle, uint32_t bulk, ifhtype *ifh, uint32_t)
{
    if (session *const one = find(handle); one != nullptr)
        one->on_unprovision({ifh, bulk});
    return EOK;
}

qerrno bulk_notify_cb(l2vpn_ac_client_hd_t handle, uint32_t bulk, l2vpn_ac_bulk_notify_t *records,
                      uint32_t flags)
{
    if (session *const one = find(handle); one != nullptr)
        one->on_bulk_notice({records, bulk}, flags);
    return EOK;
}

qerrno hdr_notify_cb(l2vpn_ac_client_hd_t handle, uint32_t word2, void *, uint32_t word3)
{
    // Of all callbacks this one alone gets its numbers in network byte order.
    if (session *const one = find(handle); one != nullptr)
        one->on_header_notice(ntohl(word2), ntohl(word3));
    return EOK;
}

std::string hex_number(uint32_t number)
{
    const uint32_t wire = htonl(number);
    return "0x" + to_hex({reinterpret_cast<const char *>(&wire), sizeof wire});
}

} // namespace

qerrno session::connect(event_mgr_p evm)
{
    l2vpn_ac_callback_vector_t callbacks{};
    callbacks.status_cb = status_cb;
    callbacks.prov_cb = prov_cb;
    callbacks.unprov_cb = unprov_cb;
    callbacks.bulk_notify_cb = bulk_notify_cb;
    callbacks.hdr_notify_cb = hdr_notify_cb;
    const qerrno status = l2vpn_ac_process_connect(evm, 0, class_id_, &callbacks, &handle_);
    if (status != EOK) {
        handle_ = nullptr;
        return status;
    }
    s_sessions[handle_] = this;
    around_.limits_class = class_id_;
    return EOK;
}

void session::disconnect()
{
    if (handle_ == nullptr)
        return;
    s_sessions.erase(handle_);
    (void)l2vpn_ac_process_disconnect(handle_);
    handle_ = nullptr;
    up_ = false;
    tasks_.clear();
}

// The library does not say why a request failed that it took over. Failing again and again has one cause that
// a person can do something about.
void session::down_while_sending()
{
    say("DOWN: a request could not be sent");
    if (++failures_ == 3)
        around_.out.error("class " + std::to_string(class_id_) + ": no request gets through");
}

void session::on_status(uint32_t status, uint32_t argument)
{
    switch (status) {
    case L2VPN_AC_STATUS_UP:
        say("UP");
        up_ = true;
        drop_tasks();
        add_task(action::create, interfaces_);
        scenario_due_ = scenario_ != nullptr;
        around_.wake();
        break;
    case L2VPN_AC_STATUS_DOWN:
        up_ = false;
        if (sending_) {
            down_while_sending();
            break;
        }
        say(argument == EOK ? "DOWN" : std::string("DOWN: ") + qerr_strerror(argument));
        drop_tasks();
        break;
    default:
        say("notice, flags " + hex_number(argument));
        break;
    }
}

void session::on_provision(std::span<const ifhtype> handles, std::span<const l2vpn_ac_xcid_data_t> data)
{
    std::size_t differing = 0;
    for (std::size_t at = 0; at < handles.size(); ++at) {
        const auto entry = by_handle_.find(handles[at]);
        differing += entry != by_handle_.end() && carries_information(*entry->second, data[at]) ? 0 : 1;
    }
    say("provisioned " + counted(handles.size(), "AC") +
        (differing == 0 ? ", with the information that was given"
                        : ", " + std::to_string(differing) + " with other information than was given"));
    if (around_.verbose)
        for (std::size_t at = 0; at < handles.size(); ++at)
            around_.out.line("  " + name_of(handles[at]) + ": " + describe(class_id_, data[at]));
}

void session::on_unprovision(std::span<const ifhtype> handles)
{
    say("unprovisioned " + counted(handles.size(), "AC"));
    if (around_.verbose)
        for (const ifhtype handle : handles)
            around_.out.line("  " + name_of(handle));
}

void session::on_bulk_notice(std::span<const l2vpn_ac_bulk_notify_t> records, uint32_t flags)
{
    say("notice of " + counted(records.size(), "record") + ", flags " + hex_number(flags));
    if (around_.verbose)
        for (const l2vpn_ac_bulk_notify_t &record : records)
            around_.out.line("  " + name_of(record.word) + ": " + std::to_string(record.half));
}

void session::on_header_notice(uint32_t word, uint32_t flags)
{
    say("notice " + hex_number(word) + ", flags " + hex_number(flags));
}

std::string session::name_of(ifhtype handle) const
{
    const auto found = by_handle_.find(handle);
    return found == by_handle_.end() ? "handle " + std::to_string(handle) : found->second->name;
}

} // namespace owner
