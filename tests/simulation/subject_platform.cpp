/*
 * The subject's other half: steps of the platform, and what its record of calls comes to.
 */
#include "subject.h"

#include "forked.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <string>
#include <unistd.h>

namespace simulation {

namespace {

constexpr std::uint32_t debug_id = 1094;
constexpr std::uint32_t first_request_trace = 1079;
constexpr std::uint32_t last_request_trace = 1086;

/* Of a record's key: the ids that are agreed on, and for others the number of arguments alone. */
std::uint64_t key_of(std::uint64_t key)
{
    const auto id = static_cast<std::uint32_t>(key);
    return id == 0x2002051a || id == 0x2002051b ? key : key >> 32 << 32;
}

std::chrono::nanoseconds time_of(const step &what)
{
    return std::chrono::nanoseconds(static_cast<std::int64_t>(what.value));
}

} // namespace

void subject::take_platform(const step &what)
{
    const auto status = static_cast<qerrno>(what.value);
    l2vpn::sim::link &link = world_.link_of(what.class_id);
    const std::uint32_t peer = what.class_id + 1;
    switch (what.what) {
    case op::process_restart:
    case op::process_down:
        link.down(what.flags, peer);
        process_.forget(what.class_id);
        if (what.what == op::process_down)
            break;
        [[fallthrough]];
    case op::process_up:
        link.up(what.flags, peer);
        break;
    case op::event:
        link.event(what.variant, what.flags, peer);
        break;
    case op::inject:
        link.inject(what.message, what.class_argument);
        break;
    case op::automatic:
        process_.set_automatic(what.class_id, what.variant != 0);
        break;
    case op::run:
        world_.run();
        break;
    case op::turn:
        world_.step();
        break;
    case op::advance:
        world_.advance(time_of(what));
        break;
    case op::jump:
        world_.jump(time_of(what));
        break;
    case op::post:
        world_.post(static_cast<int>(what.variant));
        break;
    case op::fail: {
        const auto k = static_cast<std::uint64_t>(what.size.more);
        if (what.variant != 0)
            world_.fail_from(what.function, k, status);
        else
            world_.fail(what.function, k, status);
        break;
    }
    case op::heal:
        world_.clear_failures();
        limit_sends();
        break;
    case op::gate:
        world_.set_debug_bit(debug_id, (what.variant & gate_disabled) == 0,
                             (what.variant & gate_untraced) == 0);
        world_.set_debug_bitsets_null((what.variant & gate_null_enabled) != 0,
                                      (what.variant & gate_null_traced) != 0);
        break;
    case op::compact:
        world_.set.ltrace_wanted = what.variant == 0;
        break;
    case op::mtu:
        mtus_[what.class_id] = static_cast<std::uint32_t>(what.value);
        world_.set_mtu(what.class_id, static_cast<std::uint32_t>(what.value));
        break;
    case op::enforce_mtu:
        world_.set.enforce_mtu = what.variant != 0;
        break;
    case op::shuffle:
        world_.set.shuffle_equal_timers = what.variant != 0;
        break;
    default:
        throw std::logic_error(std::string("no step of the platform: ") + name_of(what.what));
    }
}

/* --- events ------------------------------------------------------------------------------------------ */

void subject::append_place(std::vector<std::uint64_t> &to, const void *at) const
{
    const auto address = reinterpret_cast<std::uintptr_t>(at);
    for (const auto &[begin, size, number] : ranges_) {
        const auto start = reinterpret_cast<std::uintptr_t>(begin);
        const bool mine = !in_progress_.empty() && number / 4 == in_progress_.back();
        if (mine && address >= start && address < start + std::max<std::size_t>(size, 1)) {
            to.insert(to.end(), {number, address - start});
            return;
        }
    }
    to.insert(to.end(), {0, 0});
}

std::vector<event> subject::events()
{
    std::vector<event> result;
    for (const l2vpn::sim::call &call : world_.calls()) {
        event one = event_of(call);
        if (!one.what.empty())
            result.push_back(std::move(one));
    }
    world_.clear_calls();
    for (std::uint32_t class_id = 0; class_id < class_count; ++class_id) {
        if (!world_.link_of(class_id).sent().empty())
            world_.link_of(class_id).clear_sent();
    }
    said_.clear();
    ranges_.clear();
    memory_.clear();
    sends_ = 0;
    return result;
}

/* An event without a name is none. */
event subject::event_of(const l2vpn::sim::call &call)
{
    const auto &args = call.args;
    const auto status = static_cast<std::uint64_t>(call.result);
    const std::string name = l2vpn::sim::name_of(call.function);
    const std::string text = call.where + ": " + call.text;
    const auto leaf = [&] { return leaves_[args[0]]; };

    switch (call.function) {
    case fn::gen_ltrace: {
        if (args[0] != marker)
            return {};
        event said = said_.at(std::stoul(call.text));
        if (said.what == "call")
            in_progress_.push_back(said.numbers[0]);
        if (said.what == "return")
            in_progress_.pop_back();
        if (said.what == "callback")
            said.numbers[1] = contexts_[said.numbers[1]];
        if (said.what == "return" && said.text == "connect")
            said.numbers[1] = said.numbers[1] == unwritten_handle ? 0 : contexts_[said.numbers[1]];
        return said;
    }
    case fn::gen_dbg_ltrace_ctx:
        if (args[0] < first_request_trace || args[0] > last_request_trace)
            return {};
        return {name, {args[0]}, call.where};
    case fn::calloc_named: {
        const bool context = call.text == "L2VPN AC Client ctx";
        if (context && call.result != 0) {
            contexts_[status] = ++contexts_made_;
            handed_over_.contexts.push_back(status);
        }
        return {name, {args[0], context ? 0 : args[1], call.result != 0}, call.text};
    }
    case fn::mgd_timer_leaf_new:
        if (call.result != 0)
            leaves_.emplace(status, ++leaves_made_);
        return {name, {call.result != 0}};
    case fn::mgd_timer_leaf_free:
    case fn::mgd_timer_leaf_stop:
        return {name, {leaf()}};
    case fn::mgd_timer_leaf_start:
        return {name, {leaf(), args[1]}};
    case fn::mgd_timer_leaf_set_addl_context:
        return {name, {leaf(), args[1], contexts_[args[2]], status}};
    case fn::mgd_timer_tree_new:
        return {name, {args[1], call.result != 0}};
    case fn::mgd_timer_parent_new:
    case fn::wavl_insert:
        return {name, {call.result != 0}};
    case fn::mgd_timer_tree_free:
    case fn::mgd_timer_parent_free:
    case fn::wavl_delete:
        return {name, {}};
    case fn::event_async_attach_event:
        return {name, {args[1], args[3], status}};
    case fn::l2vpn_ipc_client_init:
        return {name, {status}, call.text};
    case fn::platform_get_my_nodeid:
    case fn::l2vpn_debug_init:
        return {name, {status}};
    case fn::wavl_init:
        return {name, {args[1], status}};
    case fn::l2vpn_ipc_class_init:
        return {name, {args[1], args[2], args[5], contexts_[args[6]], status}};
    case fn::l2vpn_ipc_class_deinit:
        return {name, {args[1], args[2], status}};
    case fn::l2vpn_ipc_transport_mtu_get:
        return {name, {args[1], status}};
    case fn::l2vpn_ipc_ucast:
        return {"ucast", {args[1], args[2], args[5], status}, {}, call.message};
    case fn::l2vpn_ipc_ucastv: {
        event sent{"ucastv", {args[1], args[2], args[5], status}, {}, call.message};
        sent.numbers.insert(sent.numbers.end(), call.pieces.begin(), call.pieces.end());
        for (std::size_t i = 1; i < call.bases.size(); ++i)
            append_place(sent.numbers, call.bases[i]);
        return sent;
    }
    case fn::l2vpn_ac_data_sanitize: {
        event checked{name, {args[0], args[1] != 0}};
        append_place(checked.numbers, reinterpret_cast<const void *>(args[2]));
        append_place(checked.numbers, reinterpret_cast<const void *>(args[3]));
        checked.numbers.insert(checked.numbers.end(), {args[4], status});
        for (const auto *words : {&call.ifhs, &call.spares}) {
            for (const std::uint32_t word : *words)
                put32(checked.data, word);
        }
        return checked;
    }
    case fn::gen_format_debug_fmt:
        return {"debug", {args[0]}, text};
    case fn::l2vpn_generic_gen_dbg_ltrace_ctx:
        return {"report", {args[2]}, text};
    case fn::l2vpn_check_ltrace_buffer:
        return {"wanted", {key_of(args[0]), status}};
    case fn::l2vpn_ltrace:
        return {"record", {key_of(args[0])}, call.format};
    case fn::vy_syslog: /* up to the source line */
        return {"syslog", {args[0]}, call.text.substr(0, call.text.rfind(':'))};
    case fn::l2vpn_gen_assert_errmsg:
        return {name, {args[0]}};
    default:
        return {};
    }
}

/* --- deaths ------------------------------------------------------------------------------------------ */

constexpr unsigned child_limit_s = 60;

std::string fate_of(const std::function<void()> &what)
{
    system_test::forked child([&what](int to) {
        alarm(child_limit_s); /* that of the scenario is the parent's alone */
        for (const int signal : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGALRM})
            std::signal(signal, SIG_DFL);
        dup2(to, STDERR_FILENO);
        what();
        return 0;
    });
    const std::string output = child.all_it_says();
    const int status = child.wait();

    static const std::string before = "Assertion `";
    const std::size_t start = output.find(before);
    const std::size_t end = output.rfind("' failed");
    if (status == -SIGABRT && start != std::string::npos)
        return output.substr(start + before.size(), end - start - before.size());
    return status == 0 ? "" : "ended with " + std::to_string(status) + ": " + output;
}

} // namespace simulation
