#include "subject.h"

#include "random.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace simulation {

namespace {

constexpr std::uint32_t most_creates = 220;
constexpr std::uint32_t most_updates = 300;
constexpr std::uint32_t most_others = 33000;

std::size_t size_of_first(op what)
{
    switch (what) {
    case op::root:
        return root_size;
    case op::port_request:
        return port_size;
    case op::protect:
        return prot_size;
    default:
        return 4;
    }
}

std::uint64_t address_of(const void *at)
{
    return reinterpret_cast<std::uintptr_t>(at);
}

/* The arrays of a call: handles that count up, everything else drawn from the step's content. */
std::shared_ptr<const arrays> arrays_of(const step &what, std::uint32_t count)
{
    auto made = std::make_shared<arrays>();
    random_source random(what.value);
    const bool acs = what.what == op::create || what.what == op::update || what.what == op::remove ||
                     what.what == op::resync;
    made->first.resize(count * size_of_first(what.what));
    random.fill(made->first);
    if (acs) {
        for (std::uint32_t i = 0; i < count; ++i) {
            const auto ifh = static_cast<std::uint32_t>(1 + what.value % 5000 + i);
            std::memcpy(&made->first[std::size_t{4} * i], &ifh, sizeof ifh);
        }
    }
    if (what.what == op::create || what.what == op::resync)
        made->second.resize(count * defn_size);
    if (acs && what.what != op::remove)
        made->third.resize(count * info_stride);
    random.fill(made->second);
    random.fill(made->third);

    if (acs && count > 0 && (what.variant & (handle_of_0 | handle_of_ones)) != 0) {
        const std::uint32_t refused = (what.variant & handle_of_0) != 0 ? 0 : 0xffffffff;
        std::memcpy(&made->first[4 * (what.value % count)], &refused, sizeof refused);
    }
    return made;
}

} // namespace

subject *subject::current;

subject::subject(std::uint64_t seed) : world_(seed)
{
    current = this;
    world_.set.max_handlers = 100000;
    world_.set.enforce_mtu = false;
    for (std::uint32_t class_id = 0; class_id < class_count; ++class_id) {
        l2vpn::sim::link &link = world_.link_of(class_id);
        link.on_send([this, class_id, &link](byte_view message) {
            for (const bytes &answer : process_.receive(class_id, message))
                link.inject(answer);
        });
    }
    limit_sends();
}

subject::~subject()
{
    current = nullptr;
}

void subject::limit_sends()
{
    world_.decide(fn::l2vpn_ipc_ucastv, [this](std::uint64_t) -> std::optional<qerrno> {
        return ++sends_ > sends_of_step ? std::optional<qerrno>(out_of_sends) : std::nullopt;
    });
}

/* --- what a step comes to ---------------------------------------------------------------------------- */

std::uint64_t subject::handle_for(const step &what) const
{
    const auto found = owners_.find(what.class_id);
    switch (what.client) {
    case whom::current:
        return found == owners_.end() ? 0 : address_of(found->second.handle);
    case whom::stale:
        return found == owners_.end() ? 0 : address_of(found->second.stale);
    case whom::bogus:
        return what.value | 0xdead;
    default:
        return 0;
    }
}

std::uint32_t subject::limit_of(op what) const
{
    const auto share = [&](std::uint64_t size) { return static_cast<std::uint32_t>(room_ / size); };
    switch (what) {
    case op::create:
        return share(info_ + 620);
    case op::update:
        return share(info_ + 4);
    case op::root:
        return share(12);
    case op::port_request:
        return share(port_size);
    default:
        return share(4);
    }
}

settled subject::settle(const step &what) const
{
    settled call{what.what, handle_for(what)};
    if (what.what == op::connect || what.what == op::disconnect)
        return call;
    const std::uint32_t most = what.what == op::create   ? most_creates
                               : what.what == op::update ? most_updates
                                                         : most_others;
    const std::int64_t wanted = std::int64_t{what.size.limits} * limit_of(what.what) + what.size.more;
    call.count = static_cast<std::uint32_t>(std::clamp<std::int64_t>(wanted, 0, most));
    if (what.what == op::protect)
        call.count = 1;
    call.given = arrays_of(what, call.count);
    return call;
}

/* --- steps ------------------------------------------------------------------------------------------- */

void subject::take(const step &what)
{
    if (is_call(what.what)) {
        settled call = settle(what);
        const auto known = class_of_.find(call.handle);
        const bool unsendable = known != class_of_.end() && known->second == 9;
        if (unsendable && call.count > 0 && (what.what == op::create || what.what == op::update)) {
            call.count = 0; /* fatal: left to deaths */
            call.given = arrays_of(what, 0);
        }
        handed_over_.calls.push_back(call);
        perform(what, handed_over_.calls.size() - 1);
    } else if (what.what == op::resync) {
        take_resync(what);
    } else if (what.what == op::die) {
        take_death(what);
    } else if (what.what == op::react) {
        owners_[what.class_id].reactions.push_back(what.inner.at(0));
    } else if (what.what == op::calm) {
        for (auto &[class_id, one] : owners_)
            one.reactions.clear();
    } else {
        take_platform(what);
    }
}

void subject::perform(const step &what, std::size_t number)
{
    say({"call", {number}, name_of(what.what)});
    if (what.what == op::connect)
        take_connect(what);
    else if (what.what == op::disconnect)
        take_disconnect(handed_over_.calls.at(number));
    else
        take_request(what, number);
}

void subject::take_connect(const step &what)
{
    const auto odd = static_cast<oddity>(what.variant);
    l2vpn_ac_callback_vector_t vector = callbacks_of(what.class_id, what.flags);
    if (odd == oddity::no_status_cb)
        vector.status_cb = nullptr;
    l2vpn_ac_callback_vector_t *const given = odd == oddity::no_callbacks ? nullptr : &vector;
    const event_mgr_p evm = odd == oddity::no_evm        ? nullptr
                            : odd == oddity::another_evm ? world_.another_evm()
                                                         : world_.evm();
    const auto class_id =
        static_cast<std::uint32_t>(odd == oddity::class_too_large ? class_count + what.value : what.class_id);
    const bool with_node = odd == oddity::nodeid || odd == oddity::invalid_nodeid;
    const std::uint32_t node =
        odd == oddity::nodeid ? static_cast<std::uint32_t>(1 + what.value) : NODEID_INVALID;

    auto handle = reinterpret_cast<l2vpn_ac_client_hd_t>(unwritten_handle);
    l2vpn_ac_client_hd_t *const into = odd == oddity::no_hd ? nullptr : &handle;
    const auto spare = static_cast<std::uint32_t>(what.value);
    const qerrno status = with_node ? library_.connect_nodeid(evm, spare, class_id, given, node, into)
                                    : library_.connect(evm, spare, class_id, given, into);
    vector = {}; /* it need not outlive the call */

    if (status == EOK) {
        owners_[class_id].handle = handle;
        class_of_[address_of(handle)] = class_id;
        const auto mtu = mtus_.find(class_id);
        room_ = std::uint64_t{mtu == mtus_.end() ? world_.set.mtu : mtu->second} - header_size;
        info_ = info_size(class_id);
    }
    say({"return", {status, address_of(handle)}, "connect"});
}

void subject::take_disconnect(const settled &call)
{
    const std::uint64_t handle = call.handle;
    const qerrno status = library_.disconnect(reinterpret_cast<l2vpn_ac_client_hd_t>(handle));
    if (status == EOK) {
        const auto found = class_of_.find(handle);
        if (found != class_of_.end()) {
            owner_state &gone = owners_[found->second];
            gone.stale = std::exchange(gone.handle, nullptr);
            class_of_.erase(found);
        }
    }
    say({"return", {status}, "disconnect"});
}

/* The arrays lie in memory of exactly their size. */
void subject::take_request(const step &what, std::size_t number)
{
    const settled call = handed_over_.calls.at(number); /* a copy: a step within this one may add to them */
    std::uint8_t *at[3] = {};
    const bytes *const given[3] = {&call.given->first, &call.given->second, &call.given->third};
    for (std::size_t i = 0; i < 3; ++i) {
        memory_.emplace_back(new std::uint8_t[given[i]->size()]);
        at[i] = memory_.back().get();
        std::ranges::copy(*given[i], at[i]);
        ranges_.push_back({at[i], given[i]->size(), array_number(number, i)});
    }
    const auto array = [&](std::size_t i, std::uint32_t null_bit) -> void * {
        return (what.variant & null_bit) != 0 ? nullptr : at[i];
    };
    const auto hd = reinterpret_cast<l2vpn_ac_client_hd_t>(call.handle);
    auto *const first = array(0, null_first);
    auto *const ifh = static_cast<ifhtype *>(first);
    auto *const defns = static_cast<l2vpn_ac_defn_t *>(array(1, null_second));
    auto *const infos = static_cast<l2vpn_ac_info_t *>(array(2, null_third));

    const std::uint32_t count = call.count;
    const qerrno status = [&]() -> qerrno {
        switch (call.what) {
        case op::create:
            return library_.create(hd, what.flags, count, ifh, defns, infos);
        case op::update:
            return library_.update(hd, what.flags, count, ifh, infos);
        case op::remove:
            return library_.remove(hd, what.flags, count, ifh);
        case op::root:
            return library_.mstp_root(hd, what.flags, static_cast<l2vpn_msti_root_t *>(first), count);
        case op::port_request:
            return library_.mstp_port_request(hd, what.flags, static_cast<l2vpn_mstp_req_t *>(first), count);
        case op::vid_map:
            return library_.msti_vid_map(hd, what.flags, static_cast<l2vpn_msti_vid_map_t *>(first), count);
        default:
            return library_.mstp_protect(hd, what.flags, reinterpret_cast<l2vpn_mstp_prot_t *>(at[0]));
        }
    }();
    bool restored = true;
    for (std::size_t i = 0; i < 3; ++i)
        restored = restored && std::ranges::equal(*given[i], std::span(at[i], given[i]->size()));
    say({"return", {status, restored ? 1U : 0U}, name_of(what.what)});
}

void subject::take_resync(const step &what)
{
    const std::uint64_t handle = handle_for(what);
    step create = what;
    create.what = op::create;
    create.variant = 0;
    for (const std::uint32_t count : {std::uint32_t{0}, inventory_size(what)}) {
        handed_over_.calls.push_back({op::create, handle, count, arrays_of(create, count)});
        perform(create, handed_over_.calls.size() - 1);
    }
    const auto given = arrays_of(create, inventory_size(what));
    say({"held", {what.class_id, process_.holds(what.class_id, given->first, given->second, given->third)}});
}

void subject::take_death(const step &what)
{
    for (const step &inner : what.inner)
        handed_over_.calls.push_back(settle(inner));
    const std::string fate = fate_of([&] {
        reacting_ = false;
        if (what.variant == 1)
            world_.set.nodeid = NODEID_INVALID;
        for (std::size_t i = 0; i < what.inner.size(); ++i) {
            if (is_call(what.inner[i].what))
                perform(what.inner[i], i);
            else
                take_platform(what.inner[i]);
        }
    });
    say({"fate", {}, fate});
}

void subject::say(event what)
{
    gen_ltrace(marker, "%zu", said_.size());
    said_.push_back(std::move(what));
}

taken_over subject::handed_over()
{
    return std::exchange(handed_over_, {});
}

std::size_t subject::end()
{
    reacting_ = false;
    world_.clear_failures();
    for (std::uint32_t class_id = 0; class_id < class_count; ++class_id) {
        const auto found = owners_.find(class_id);
        if (found != owners_.end() && found->second.handle != nullptr)
            (void)library_.disconnect(found->second.handle);
    }
    return world_.clients() + world_.live_leaves();
}

} // namespace simulation
