/*
 * The world as tests see it, and which world is the one of the moment.
 */
#include "core.h"
#include "transcript.h"

#include <algorithm>
#include <stdexcept>

namespace l2vpn::sim {

namespace {

/* Never destroyed: the contract may be called from other people's static destructors. */
struct place_of_world {
    std::mutex lock;
    std::shared_ptr<core> current;
    std::uint32_t generations = 0;
};

place_of_world &the_place()
{
    static auto &place = *new place_of_world;
    return place;
}

std::shared_ptr<core> new_core(std::uint64_t seed)
{
    place_of_world &place = the_place();
    const std::lock_guard guard(place.lock);
    if (place.current != nullptr)
        throw std::logic_error("there is another world: one at a time");
    place.current = std::make_shared<core>(++place.generations, seed);
    return place.current;
}

} // namespace

std::shared_ptr<core> current_core()
{
    place_of_world &place = the_place();
    const std::lock_guard guard(place.lock);
    return place.current;
}

core::core(std::uint32_t generation_of_world, std::uint64_t seed)
    : generation(generation_of_world), random(seed)
{
}

world::world(std::uint64_t seed) : world(new_core(seed)) {}

world::world(std::shared_ptr<core> core) : set(core->set), core_(std::move(core))
{
    const std::lock_guard guard(core_->lock);
    main_evm_ = core_->handle_of<event_mgr_p>(core_->new_event_manager());
}

world::~world()
{
    place_of_world &place = the_place();
    const std::lock_guard guard(place.lock);
    place.current.reset();
}

event_mgr_p world::evm()
{
    return main_evm_;
}

event_mgr_p world::another_evm()
{
    return event_mgr_new();
}

void world::set_mtu(std::uint32_t class_id, std::uint32_t mtu)
{
    const std::lock_guard guard(core_->lock);
    core_->link_of(class_id).mtu = mtu;
}

void world::set_debug_bit(std::uint32_t id, bool enabled, bool traced)
{
    const std::lock_guard guard(core_->lock);
    core::choose_debug_bit(core_->debug_enabled, id, enabled);
    core::choose_debug_bit(core_->debug_traced, id, traced);
}

void world::set_debug_bitsets_null(bool enabled, bool traced)
{
    const std::lock_guard guard(core_->lock);
    core_->debug_enabled.null = enabled;
    core_->debug_traced.null = traced;
}

/* --- time and delivery --- */

duration world::now() const
{
    const std::lock_guard guard(core_->lock);
    return core_->now;
}

std::size_t world::run()
{
    return core_->run();
}

bool world::step()
{
    return core_->step();
}

std::size_t world::advance(duration by)
{
    return core_->advance(by);
}

void world::jump(duration by)
{
    core_->jump(by);
}

void world::at(duration when, job action)
{
    if (!action)
        throw std::invalid_argument("nothing to do at that time");
    const std::lock_guard guard(core_->lock);
    core_->scheduled.emplace(when, std::move(action));
}

void world::post(int code)
{
    event_async_post(main_evm_, code);
}

std::vector<duration> world::timers() const
{
    const std::lock_guard guard(core_->lock);
    std::vector<duration> expiries;
    for (const auto &[number, tree] : core_->trees) {
        for (const timer_key &key : tree.running)
            expiries.push_back(key.expiry);
    }
    std::ranges::sort(expiries);
    return expiries;
}

/* --- failures --- */

void world::fail(fn function, std::uint64_t k, qerrno status)
{
    core_->add_rule(function, k, false, status);
}

void world::fail_from(fn function, std::uint64_t k, qerrno status)
{
    core_->add_rule(function, k, true, status);
}

void world::fail_randomly(fn function, double probability, qerrno status)
{
    const std::lock_guard guard(core_->lock);
    core_->state_of(function).random = random_failure{probability, status};
}

void world::decide(fn function, verdict_function answer)
{
    auto wanted = shared_if(std::move(answer));
    const std::lock_guard guard(core_->lock);
    core_->state_of(function).decide.swap(wanted);
}

void world::clear_failures()
{
    std::vector<std::shared_ptr<const verdict_function>> dropped;
    const std::lock_guard guard(core_->lock);
    core_->fail_at.reset();
    for (function_state &state : core_->functions) {
        state.rules.clear();
        state.random.reset();
        dropped.push_back(std::move(state.decide));
    }
}

void world::fail_at(std::uint64_t n, qerrno status, bool persistently)
{
    const std::lock_guard guard(core_->lock);
    core_->fallible = 0;
    core_->fail_at = failure_rule{n, persistently, status};
}

std::uint64_t world::fallible_calls() const
{
    const std::lock_guard guard(core_->lock);
    return core_->fallible;
}

/* --- what happened --- */

std::vector<call> world::calls() const
{
    const std::lock_guard guard(core_->lock);
    return core_->record;
}

std::vector<call> world::calls(fn function) const
{
    const std::lock_guard guard(core_->lock);
    std::vector<call> chosen;
    std::ranges::copy_if(core_->record, std::back_inserter(chosen),
                         [&](const call &entry) { return entry.function == function; });
    return chosen;
}

std::uint64_t world::count(fn function) const
{
    const std::lock_guard guard(core_->lock);
    return core_->state_of(function).count;
}

void world::clear_calls()
{
    const std::lock_guard guard(core_->lock);
    core_->record.clear();
}

std::vector<std::string> world::log() const
{
    const std::lock_guard guard(core_->lock);
    std::vector<std::string> lines;
    for (const call &entry : core_->record) {
        if (!entry.failed && (entry.function == fn::gen_format_debug_fmt || entry.function == fn::vy_syslog ||
                              entry.function == fn::l2vpn_generic_gen_dbg_ltrace_ctx))
            lines.push_back(entry.text);
    }
    return lines;
}

bool world::logged(std::string_view text) const
{
    return std::ranges::any_of(log(), [&](const std::string &line) { return line.find(text) != line.npos; });
}

std::string world::transcript() const
{
    const std::lock_guard guard(core_->lock);
    std::string text;
    for (const call &entry : core_->record)
        text += line_of(entry) + "\n";
    return text;
}

void world::before(fn function, hook_function hook)
{
    auto wanted = shared_if(std::move(hook));
    const std::lock_guard guard(core_->lock);
    core_->state_of(function).before.swap(wanted);
}

/* --- state of the platform --- */

link &world::link_of(std::uint32_t class_id)
{
    return core_->facade_of(class_id);
}

std::size_t world::live_leaves() const
{
    const std::lock_guard guard(core_->lock);
    return static_cast<std::size_t>(
        std::ranges::count_if(core_->leaves, [](const auto &entry) { return !entry.second.freed; }));
}

std::size_t world::live_trees() const
{
    const std::lock_guard guard(core_->lock);
    return core_->trees.size();
}

std::size_t world::live_parents() const
{
    const std::lock_guard guard(core_->lock);
    return core_->parents.size();
}

std::size_t world::clients() const
{
    const std::lock_guard guard(core_->lock);
    return core_->last_tree_nodes;
}

const event_context_t *world::attached(int code) const
{
    const std::lock_guard guard(core_->lock);
    for (const auto &[number, manager] : core_->event_managers) {
        if (const auto found = manager.attached.find(code); found != manager.attached.end())
            return found->second.context;
    }
    return nullptr;
}

l2vpn_ipc_msg_cb_t world::msg_cb(std::uint32_t class_id) const
{
    const std::lock_guard guard(core_->lock);
    const registration *registered = core_->registered(class_id);
    return registered == nullptr ? nullptr : registered->msg_cb;
}

l2vpn_ipc_evt_cb_t world::evt_cb(std::uint32_t class_id) const
{
    const std::lock_guard guard(core_->lock);
    const registration *registered = core_->registered(class_id);
    return registered == nullptr ? nullptr : registered->evt_cb;
}

l2vpn_ipc_client_t world::ipc_client() const
{
    const std::lock_guard guard(core_->lock);
    return core_->clients_made == 0 ? nullptr : core_->handle_of<l2vpn_ipc_client_t>(core_->clients_made);
}

std::uint64_t world::random()
{
    const std::lock_guard guard(core_->lock);
    return core_->random();
}

std::uint64_t world::random(std::uint64_t below)
{
    const std::lock_guard guard(core_->lock);
    return core_->random(below);
}

} // namespace l2vpn::sim
