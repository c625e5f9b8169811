#include "session.h"

#include "wire.h"

#include <algorithm>

namespace owner {

namespace {

// A request of this many ACs is large enough to cost nothing beside its bytes, and small enough to come
// back to the event loop soon.
constexpr std::size_t most_acs_in_a_request = 1024;
constexpr std::size_t most_vlans_in_a_request = 1024;

} // namespace

session::changes session::set_interfaces(interface_list next)
{
    changes count;
    std::unordered_map<ifhtype, interface_ptr> by_handle;
    interface_list created;
    interface_list updated;
    interface_list removed;
    for (const interface_ptr &entry : next) {
        by_handle.emplace(entry->handle, entry);
        const auto old = by_handle_.find(entry->handle);
        if (old == by_handle_.end()) {
            created.push_back(entry);
            continue;
        }
        const wire_ac before = wire_form(*old->second);
        const wire_ac after = wire_form(*entry);
        if (before.definition != after.definition) {
            // An update carries no definition.
            removed.push_back(old->second);
            created.push_back(entry);
            ++count.replaced;
        } else if (before.info != after.info) {
            updated.push_back(entry);
        }
    }
    for (const interface_ptr &entry : interfaces_)
        if (!by_handle.contains(entry->handle))
            removed.push_back(entry);
    count.created = created.size() - count.replaced;
    count.updated = updated.size();
    count.deleted = removed.size() - count.replaced;
    interfaces_ = std::move(next);
    by_handle_ = std::move(by_handle);
    if (up_) {
        add_task(action::remove, std::move(removed));
        add_task(action::create, std::move(created));
        add_task(action::update, std::move(updated));
    }
    return count;
}

std::size_t session::sent() const
{
    std::size_t waiting = up_ ? 0 : interfaces_.size();
    for (const task &one : tasks_)
        if (one.what == action::create)
            waiting += one.entries.size() - one.done;
    return interfaces_.size() - std::min(waiting, interfaces_.size());
}

void session::add_task(action what, interface_list entries)
{
    if (entries.empty())
        return;
    tasks_.push_back(task{what, std::move(entries)});
    around_.wake();
}

// What the library would put on the batch that this session left open belongs to nobody: close it.
void session::drop_tasks()
{
    tasks_.clear();
    scenario_due_ = false;
    if (!batch_open_)
        return;
    batch_open_ = false;
    (void)l2vpn_ac_create(handle_, L2VPN_AC_FLAG_CREATE_END, 0, nullptr, nullptr, nullptr);
}

/*
 * The library cuts requests into messages by the limits that the latest connect computed from ITS class. They
 * are too large for this class when that class's information is smaller; then a request is made so small that
 * it fits one message.
 */
std::size_t session::request_size(action what) const
{
    if (what == action::remove || wire_info_size(around_.limits_class) >= wire_info_size(class_id_))
        return most_acs_in_a_request;
    const wire_limits own = wire_acs_per_message(class_id_, around_.mtu);
    return std::min<std::size_t>(most_acs_in_a_request, what == action::create ? own.create : own.update);
}

qerrno session::send(task &current, std::size_t count)
{
    arrays_.fill(std::span(current.entries).subspan(current.done, count));
    const auto bulk = static_cast<uint32_t>(count);
    const bool first = current.done == 0;
    const bool last = current.done + count == current.entries.size();
    const wire_limits limits = wire_acs_per_message(around_.limits_class, around_.mtu);
    const auto messages = [&](uint32_t limit) { return (count + limit - 1) / limit; };
    ++current.requests;
    switch (current.what) {
    case action::update:
        current.messages += messages(limits.update);
        return l2vpn_ac_update(handle_, 0, bulk, arrays_.handles.data(), arrays_.infos.data());
    case action::remove:
        current.messages += messages(limits.remove);
        return l2vpn_ac_delete(handle_, 0, bulk, arrays_.handles.data());
    case action::create:
        break;
    }
    // Several requests make one batch. A request that is a batch of its own needs no flag.
    uint32_t flags = 0;
    if (first && !last)
        flags = L2VPN_AC_FLAG_CREATE_START;
    if (last && !first)
        flags = L2VPN_AC_FLAG_CREATE_END;
    batch_open_ = batch_open_ || flags == L2VPN_AC_FLAG_CREATE_START;
    current.messages += messages(limits.create);
    const qerrno status = l2vpn_ac_create(handle_, flags, bulk, arrays_.handles.data(), arrays_.defns.data(),
                                          arrays_.infos.data());
    if (status == EOK && up_ && last)
        batch_open_ = false;
    return status;
}

// In several calls that make one batch, as an owner would that does not have its whole map in one array.
qerrno session::send_vlans(std::size_t &requests)
{
    std::vector<l2vpn_msti_vid_map_t> &map = scenario_->vlans;
    qerrno status = EOK;
    for (std::size_t done = 0; done < map.size() && status == EOK && up_;) {
        const std::size_t count = std::min(most_vlans_in_a_request, map.size() - done);
        const uint32_t flags =
            (done == 0 ? L2VPN_MSTP_FLAG_BEGIN : 0) | (done + count == map.size() ? L2VPN_MSTP_FLAG_END : 0);
        status = l2vpn_msti_vid_map(handle_, flags, &map[done], static_cast<uint32_t>(count));
        done += count;
        ++requests;
    }
    // A failure left the library's batch open. What closes it need not arrive.
    if (status != EOK || !up_)
        (void)l2vpn_msti_vid_map(handle_, L2VPN_MSTP_FLAG_END, nullptr, 0);
    return status;
}

qerrno session::send_scenario()
{
    std::size_t requests = 0;
    qerrno status = EOK;
    if (!scenario_->roots.empty()) {
        status = l2vpn_mstp_root(handle_, 0, scenario_->roots.data(),
                                 static_cast<uint32_t>(scenario_->roots.size()));
        ++requests;
    }
    if (status == EOK && up_ && !scenario_->ports.empty()) {
        status = l2vpn_mstp_port_request(handle_, 0, scenario_->ports.data(),
                                         static_cast<uint32_t>(scenario_->ports.size()));
        ++requests;
    }
    if (status == EOK && up_)
        status = send_vlans(requests);
    for (l2vpn_mstp_prot_t &record : scenario_->protections)
        if (status == EOK && up_) {
            status = l2vpn_mstp_protect(handle_, 0, &record);
            ++requests;
        }
    if (status == EOK && up_)
        say("MSTP: " + counted(scenario_->roots.size(), "root") + ", " +
            counted(scenario_->ports.size(), "port state") + ", " + counted(scenario_->vlans.size(), "VLAN") +
            ", " + counted(scenario_->protections.size(), "protection") + " sent in " +
            counted(requests, "request"));
    return status;
}

bool session::refused(qerrno status)
{
    const bool was_up = up_;
    drop_tasks();
    if (was_up)
        around_.out.error("class " + std::to_string(class_id_) +
                          ": a request was refused: " + qerr_strerror(status));
    return was_up;
}

bool session::work_on_task()
{
    task &current = tasks_.front();
    const std::size_t count = std::min(current.entries.size() - current.done, request_size(current.what));
    sending_ = true;
    const qerrno status = send(current, count);
    sending_ = false;
    if (status != EOK || !up_)
        return !refused(status);
    failures_ = 0;
    current.done += count;
    if (current.done < current.entries.size())
        return true;
    static constexpr const char *verbs[] = {"created ", "updated ", "deleted "};
    say(verbs[static_cast<std::size_t>(current.what)] + counted(current.entries.size(), "AC") + " in " +
        counted(current.requests, "request") + ", " + counted(current.messages, "message"));
    tasks_.pop_front();
    return true;
}

bool session::work()
{
    if (!tasks_.empty())
        return work_on_task();
    scenario_due_ = false;
    sending_ = true;
    const qerrno status = send_scenario();
    sending_ = false;
    return (status == EOK && up_) || !refused(status);
}

} // namespace owner
