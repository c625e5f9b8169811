#include "player.h"

#include "contract_test.h"
#include "interpose.h"

#include <stdexcept>
#include <thread>

namespace torture {

namespace {

/* The arrays of requests: what they hold, and copies to hand over, which are used again. The large ones
 * take their time to fill, and a request from inside a callback needs its own. */
const acs &pattern(std::uint32_t count)
{
    static std::map<std::uint32_t, acs> made;
    return made.try_emplace(count, count).first->second;
}

std::map<std::uint32_t, std::vector<acs>> spare;

acs take(std::uint32_t count)
{
    std::vector<acs> &copies = spare[count];
    if (copies.empty())
        return pattern(count);
    acs copy = std::move(copies.back());
    copies.pop_back();
    return copy;
}

void give_back(acs copy)
{
    spare[copy.size()].push_back(std::move(copy));
}

template <typename T>
bool same(const std::vector<T> &a, const std::vector<T> &b)
{
    return a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0;
}

/* Records of an MSTP request, with bytes that differ. */
template <typename Record>
std::vector<Record> records_of(std::uint32_t count)
{
    std::vector<Record> records(count);
    auto *const bytes = reinterpret_cast<std::uint8_t *>(records.data());
    for (std::size_t i = 0; i < count * sizeof(Record); ++i)
        bytes[i] = static_cast<std::uint8_t>(i * 7 + 1);
    return records;
}

} // namespace

player *player::current = nullptr;

player::player(std::uint32_t mtu, const std::optional<plan> &what)
{
    current = this;
    world_.set.mtu = mtu;
    world_.set.nodeid = nodeid;
    world_.set.enforce_mtu = false;
    interpose::watch(what);
    if (what)
        apply(*what);
}

player::~player()
{
    interpose::unwatch();
    current = nullptr;
}

void player::apply(const plan &what)
{
    const auto status = static_cast<qerrno>(what.status);
    if (what.what == nullptr)
        world_.fail_at(what.at, status, what.persistently);
    else if (what.what->function && what.persistently)
        world_.fail_from(*what.what->function, what.at, status);
    else if (what.what->function)
        world_.fail(*what.what->function, what.at, status);
}

void player::clear_failures()
{
    world_.clear_failures();
    interpose::clear_failures();
    inside_.clear();
}

std::uint64_t player::count(const target &what) const
{
    return what.function ? world_.count(*what.function) : interpose::count(what);
}

/* --- steps ------------------------------------------------------------------------------------------- */

void player::play(const step &s)
{
    say("> " + to_string(s));
    switch (s.what) {
    case op::connect:
    case op::connect_nodeid:
        return connect(s);
    case op::disconnect: {
        called.insert("l2vpn_ac_process_disconnect");
        const qerrno rc = lib_.disconnect(hd_[s.slot]);
        if (rc == EOK)
            hd_[s.slot] = nullptr;
        return returned(rc);
    }
    case op::create:
    case op::update:
    case op::remove:
        return ac_request(s);
    case op::root:
        called.insert("l2vpn_mstp_root");
        return mstp_request<l2vpn_msti_root_t>(s, lib_.mstp_root);
    case op::port_request:
        called.insert("l2vpn_mstp_port_request");
        return mstp_request<l2vpn_mstp_req_t>(s, lib_.mstp_port_request);
    case op::vid_map:
        called.insert("l2vpn_msti_vid_map");
        return mstp_request<l2vpn_msti_vid_map_t>(s, lib_.msti_vid_map);
    case op::protect:
        return protect(s);
    case op::event:
        if (hd_[s.slot] != nullptr) {
            world_.link_of(class_[s.slot]).event(s.number, s.arg);
            world_.run();
        }
        return;
    case op::message:
        if (hd_[s.slot] != nullptr)
            message(s);
        return;
    case op::advance:
        world_.advance(std::chrono::seconds(s.number));
        return;
    case op::refuse:
        return world_.fail(s.function, s.number, s.status);
    case op::during:
        inside_ = s.nested;
        return;
    case op::sweep:
        return sweep();
    }
}

void player::sweep()
{
    std::set<std::uint32_t> owned;
    for (unsigned slot = 0; slot < slots; ++slot) {
        if (hd_[slot] != nullptr)
            owned.insert(class_[slot]);
    }
    for (std::uint32_t class_id = 0; class_id < L2VPN_AC_CLASS_MAX; ++class_id) {
        if (!owned.contains(class_id) && world_.link_of(class_id).registered())
            (void)l2vpn_ipc_class_deinit(world_.ipc_client(), class_id, 0);
    }
}

void player::connect(const step &s)
{
    if (hd_[s.slot] != nullptr)
        throw std::logic_error("a scenario connects slot " + std::to_string(s.slot) + " twice");
    l2vpn_ac_callback_vector_t callbacks = {on_status,     on_prov, on_unprov, on_bulk_notify,
                                            on_hdr_notify, nullptr, nullptr};
    if (s.bare)
        callbacks = {on_status, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
    if (s.argument == wrong::status_cb)
        callbacks.status_cb = nullptr;
    l2vpn_ac_callback_vector_t *const vector = s.argument == wrong::callbacks ? nullptr : &callbacks;
    const event_mgr_p evm = s.argument == wrong::event_manager ? nullptr : world_.evm();
    l2vpn_ac_client_hd_t hd = nullptr;
    l2vpn_ac_client_hd_t *const where = s.argument == wrong::handle ? nullptr : &hd;

    const bool with_nodeid = s.what == op::connect_nodeid;
    called.insert(with_nodeid ? "l2vpn_ac_process_connect_nodeid" : "l2vpn_ac_process_connect");
    const qerrno rc = with_nodeid ? lib_.connect_nodeid(evm, 0, s.class_id, vector, s.number, where)
                                  : lib_.connect(evm, 0, s.class_id, vector, where);
    returned(rc);
    if ((hd != nullptr) != (rc == EOK))
        say("a handle without a client, or a client without a handle");
    hd_[s.slot] = hd;
    class_[s.slot] = s.class_id;
}

void player::ac_request(const step &s)
{
    const l2vpn_ac_client_hd_t hd = hd_[s.slot];
    const acs &before = pattern(s.count);
    acs a = take(s.count);
    const auto unless_missing = [&](auto *array) { return s.argument == wrong::array ? nullptr : array; };
    bool restored = true;
    if (s.what == op::create) {
        called.insert("l2vpn_ac_create");
        returned(
            lib_.create(hd, s.flags, s.count, a.ifh.data(), unless_missing(a.defns.data()), a.infos.data()));
        restored = same(a.ifh, before.ifh) && same(a.defns, before.defns) && same(a.infos, before.infos);
    } else if (s.what == op::update) {
        called.insert("l2vpn_ac_update");
        returned(lib_.update(hd, s.flags, s.count, a.ifh.data(), unless_missing(a.infos.data())));
        restored = same(a.ifh, before.ifh) && same(a.infos, before.infos);
    } else {
        called.insert("l2vpn_ac_delete");
        returned(lib_.remove(hd, s.flags, s.count, unless_missing(a.ifh.data())));
        restored = same(a.ifh, before.ifh);
    }
    arrays(restored);
    if (restored)
        give_back(std::move(a));
}

template <typename Record, typename Function>
void player::mstp_request(const step &s, Function function)
{
    std::vector<Record> records = records_of<Record>(s.count);
    returned(function(hd_[s.slot], s.flags, s.argument == wrong::array ? nullptr : records.data(), s.count));
    arrays(same(records, records_of<Record>(s.count)));
}

void player::protect(const step &s)
{
    std::vector<l2vpn_mstp_prot_t> record = records_of<l2vpn_mstp_prot_t>(1);
    called.insert("l2vpn_mstp_protect");
    returned(lib_.mstp_protect(hd_[s.slot], s.flags, record.data()));
    arrays(same(record, records_of<l2vpn_mstp_prot_t>(1)));
}

/* Handles first, as many as there is room for, and zeros. */
void player::message(const step &s)
{
    bytes content = message_of(s.number, s.count, s.flags);
    for (std::uint32_t i = 0; i < std::min(s.count, s.payload / 4); ++i)
        put32(content, first_ifh + i);
    content.resize(L2VPN_AC_HDR_LEN + s.payload);
    world_.link_of(class_[s.slot]).inject(content, s.class_id);
    world_.run();
}

/* --- a second thread --------------------------------------------------------------------------------- */

bool player::locks_are_free() const
{
    bool result = interpose::locks_held() == 0;
    const auto mutexes = interpose::mutexes();
    std::thread([&] {
        for (pthread_mutex_t *const mutex : mutexes) {
            const bool taken = pthread_mutex_trylock(mutex) == 0;
            if (taken)
                pthread_mutex_unlock(mutex);
            result = result && taken;
        }
    }).join();
    return result;
}

std::vector<qerrno> player::requests_of_another_thread()
{
    std::vector<qerrno> result;
    std::thread([&] {
        for (const l2vpn_ac_client_hd_t hd : hd_)
            result.push_back(lib_.remove(hd, 0, 0, nullptr));
    }).join();
    return result;
}

} // namespace torture
