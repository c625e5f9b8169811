#include "owner.h"

#include "wire.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <platform/config.h>
#include <sys/signalfd.h>
#include <unistd.h>
#include <vector>

namespace owner {

namespace {

constexpr uint32_t seconds_to_next_connect = 1;

// Any code but the library's own, 128.
constexpr int work_code = 1;

using lists_by_class = std::map<uint32_t, interface_list>;

lists_by_class divide(const interface_list &interfaces)
{
    lists_by_class lists;
    for (const interface_ptr &entry : interfaces)
        lists[entry->class_id].push_back(entry);
    return lists;
}

// As it was given, for people.
std::string runtime_dir()
{
    const char *given = std::getenv("L2VPN_RUNTIME_DIR");
    return given != nullptr && *given == '/' ? given : "the default directory";
}

} // namespace

interface_owner::interface_owner(const options &chosen, console &out, mstp_scenario *scenario)
    : chosen_(chosen), out_(out), scenario_(scenario), around_{out, {}, chosen.mtu, chosen.verbose}
{
    around_.wake = [this] {
        if (!work_posted_)
            work_posted_ = event_async_post(evm_, work_code) >= 0;
    };
}

// The event manager stays: the library keeps it for the life of the process.
interface_owner::~interface_owner()
{
    sessions_.clear();
    event_fd_unwatch(signal_watch_);
    if (signal_fd_ >= 0)
        (void)close(signal_fd_);
}

int interface_owner::run(const interface_list &interfaces)
{
    if (!start(interfaces))
        return exit_failed;
    if (event_mgr_run(evm_) < 0) {
        (void)failed("the event loop broke");
        return exit_failed;
    }
    return status_;
}

bool interface_owner::mtu_has_room(const interface_list &interfaces)
{
    for (const interface_ptr &entry : interfaces) {
        const uint32_t least = wire_least_mtu(entry->class_id);
        if (least > chosen_.mtu) {
            out_.error("class " + std::to_string(entry->class_id) + ": an MTU of " +
                       std::to_string(chosen_.mtu) + " has no room for an AC, which takes " +
                       std::to_string(least));
            return false;
        }
    }
    return true;
}

bool interface_owner::start(const interface_list &interfaces)
{
    if (!mtu_has_room(interfaces))
        return false;
    char path[PATH_MAX];
    if (const qerrno status = platform_service_path("L2VPN", path, sizeof path); status != EOK) {
        out_.error("no path for the process's socket in " + runtime_dir() + ": " + qerr_strerror(status));
        return false;
    }
    evm_ = event_mgr_new();
    if (evm_ == nullptr)
        return failed("no event manager");
    if (event_async_attach_event(evm_, work_code, on_work, this, &work_context_) < 0)
        return failed("no event");
    if (!watch_signals() || (chosen_.once && !start_deadline()) || !connect(interfaces))
        return false;
    if (chosen_.watch && !inventory_watch_.start(evm_, chosen_.inventory, [this] { read_again(); }))
        return failed("cannot watch " + chosen_.inventory);
    out_.line(counted(interfaces.size(), "AC") + " in " + counted(sessions_.size(), "class", "es") +
              ", for the L2VPN process at " + path);
    return true;
}

bool interface_owner::watch_signals()
{
    sigset_t signals;
    (void)sigemptyset(&signals);
    (void)sigaddset(&signals, SIGINT);
    (void)sigaddset(&signals, SIGTERM);
    if (pthread_sigmask(SIG_BLOCK, &signals, nullptr) != 0)
        return failed("cannot block signals");
    signal_fd_ = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (signal_fd_ < 0)
        return failed("cannot wait for signals");
    signal_watch_ = event_fd_watch(evm_, signal_fd_, EVENT_FD_READ, on_signal, this);
    return signal_watch_ != nullptr || failed("cannot wait for signals");
}

bool interface_owner::start_deadline()
{
    const auto give_up = [this] {
        report_unfinished();
        end(exit_failed);
    };
    return deadline_.start(evm_, chosen_.timeout_seconds, give_up) || failed("cannot start a timer");
}

/*
 * Here, before the loop runs, on the thread that will run it: so no event can come before connect is done.
 * The class with the largest information comes last, because the library cuts the requests of every class by
 * the limits of the class that connected last.
 */
bool interface_owner::connect(const interface_list &interfaces)
{
    lists_by_class lists = divide(interfaces);
    std::vector<uint32_t> order;
    for (const auto &[class_id, entries] : lists)
        order.push_back(class_id);
    std::stable_sort(order.begin(), order.end(), [](uint32_t one, uint32_t other) {
        return wire_info_size(one) < wire_info_size(other);
    });
    return std::all_of(order.begin(), order.end(),
                       [&](uint32_t class_id) { return add_session(class_id, std::move(lists[class_id])); });
}

// False: it is there, but not connected.
bool interface_owner::add_session(uint32_t class_id, interface_list interfaces)
{
    auto one = std::make_unique<session>(around_, class_id);
    (void)one->set_interfaces(std::move(interfaces));
    if (scenario_ != nullptr && scenario_->class_id == class_id)
        one->set_scenario(scenario_);
    const qerrno status = one->connect(evm_);
    if (status != EOK)
        out_.error("class " + std::to_string(class_id) + ": cannot connect: " + qerr_strerror(status));
    sessions_[class_id] = std::move(one);
    return status == EOK;
}

// The classes that are connected go on meanwhile.
void interface_owner::connect_later()
{
    const auto connect_all = [this] {
        bool missing = false;
        for (const auto &[class_id, one] : sessions_)
            missing = (!one->connected() && one->connect(evm_) != EOK) || missing;
        if (missing)
            connect_later();
    };
    if (!connect_timer_.start(evm_, seconds_to_next_connect, connect_all))
        (void)failed("cannot start a timer");
}

// A file with a fault changes nothing.
void interface_owner::read_again()
{
    interface_list interfaces;
    fault_list faults(chosen_.inventory);
    if (!read_inventory(chosen_.inventory, interfaces, faults)) {
        out_.error("the inventory was written with faults; what was sent stays");
        return faults.print(std::cerr);
    }
    if (!mtu_has_room(interfaces))
        return out_.error("the inventory was written with what no message holds; what was sent stays");
    change(interfaces);
}

void interface_owner::change(const interface_list &interfaces)
{
    lists_by_class lists = divide(interfaces);
    session::changes sum;
    for (const auto &[class_id, one] : sessions_) {
        const session::changes count = one->set_interfaces(std::move(lists[class_id]));
        sum.created += count.created;
        sum.updated += count.updated;
        sum.replaced += count.replaced;
        sum.deleted += count.deleted;
        lists.erase(class_id);
    }
    for (auto &[class_id, entries] : lists) {
        sum.created += entries.size();
        if (!add_session(class_id, std::move(entries)))
            connect_later();
    }
    out_.line("inventory changed: " + std::to_string(sum.created) + " to create, " +
              std::to_string(sum.updated) + " to update, " + std::to_string(sum.replaced) + " to replace, " +
              std::to_string(sum.deleted) + " to delete");
    all_reported_ = false;
    around_.wake();
}

// One request. A session whose batch is open goes first: the library knows one batch, whoever opened it.
void interface_owner::work()
{
    session *next = nullptr;
    for (const auto &[class_id, one] : sessions_)
        if (one->has_work() && (next == nullptr || one->batch_open()))
            next = one.get();
    if (next != nullptr && !next->work())
        return end(exit_failed);

    std::size_t sent = 0;
    std::size_t total = 0;
    bool settled = true;
    bool more = false;
    for (const auto &[class_id, one] : sessions_) {
        sent += one->sent();
        total += one->interfaces();
        settled = settled && one->settled();
        more = more || one->has_work();
    }
    out_.progress(sent, total);
    if (more)
        around_.wake();
    if (settled && !all_reported_)
        out_.line("all " + counted(total, "AC") +
                  (scenario_ == nullptr ? " created" : " created, MSTP scenario sent"));
    all_reported_ = settled;
    if (settled && chosen_.once)
        end(0);
}

void interface_owner::end(int status)
{
    status_ = status;
    event_mgr_stop(evm_);
}

void interface_owner::report_unfinished()
{
    std::string waiting;
    for (const auto &[class_id, one] : sessions_)
        if (!one->settled())
            waiting +=
                (waiting.empty() ? "" : ", ") + std::to_string(class_id) + (one->up() ? "" : " (down)");
    out_.error("not everything was created within " + std::to_string(chosen_.timeout_seconds) +
               " s; still to do: class " + waiting);
}

bool interface_owner::failed(const std::string &what)
{
    out_.error(what + ": " + std::strerror(errno));
    return false;
}

void interface_owner::on_work(event_context_t *, void *arg)
{
    auto *const self = static_cast<interface_owner *>(arg);
    self->work_posted_ = false;
    self->work();
}

void interface_owner::on_signal(event_fd_watch_t *, int, uint32_t, void *arg)
{
    auto *const self = static_cast<interface_owner *>(arg);
    self->out_.line("disconnecting");
    self->end(0);
}

} // namespace owner
