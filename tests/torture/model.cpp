#include "model.h"

#include <cerrno>

namespace torture {

/* --- lines ------------------------------------------------------------------------------------------- */

std::string text_of_call(fn function, const std::string &detail, std::int64_t failure)
{
    std::string text = name_of(function);
    if (!detail.empty())
        text += " " + detail;
    if (failure != 0)
        text += " fails";
    if (failure > 0)
        text += " with " + std::to_string(failure);
    return text;
}

std::string text_of_message(std::uint32_t class_id, std::uint32_t type, std::uint32_t bulk,
                            std::uint32_t flags, std::size_t length, std::size_t pieces)
{
    return "class " + std::to_string(class_id) + " type " + std::to_string(type) + " bulk " +
           std::to_string(bulk) + " flags " + std::to_string(flags) + " length " + std::to_string(length) +
           " pieces " + std::to_string(pieces);
}

std::string text_of_sanitize(std::uint32_t class_id, std::uint32_t count)
{
    return "class " + std::to_string(class_id) + " count " + std::to_string(count);
}

/* --- failures ---------------------------------------------------------------------------------------- */

model::model(std::uint32_t mtu, std::uint32_t nodeid, const std::optional<plan> &what)
    : plan_(what), platform_mtu_(mtu), platform_nodeid_(nodeid)
{
}

void model::clear_failures()
{
    plan_.reset();
    scripts_.clear();
    inside_.clear();
}

std::optional<int> model::fails(const target &what)
{
    const std::uint64_t number = ++counts_[what.name];
    const bool in_sequence = what.how == failing::fails && what.function;
    fallible_ += in_sequence ? 1 : 0;

    const auto hit = [&](std::uint64_t n) {
        return n == plan_->at || (plan_->persistently && n > plan_->at);
    };
    if (plan_ && plan_->what == &what && hit(number))
        return plan_->status;
    if (plan_ && plan_->what == nullptr && in_sequence && hit(fallible_))
        return plan_->status;
    for (const script &s : scripts_) {
        if (what.function == s.function && s.at == number)
            return s.status;
    }
    return std::nullopt;
}

qerrno model::call(fn function, const std::string &detail, qerrno natural)
{
    const auto status = static_cast<qerrno>(fails(function).value_or(static_cast<int>(natural)));
    lines.push_back(text_of_call(function, detail, status));
    return status;
}

std::optional<int> model::call_fails(fn function, const std::string &detail, bool naturally)
{
    auto cause = fails(function);
    if (!cause && naturally)
        cause = EINVAL;
    lines.push_back(text_of_call(function, detail, cause ? -1 : 0));
    return cause;
}

void model::effect(fn function, const std::string &detail)
{
    lines.push_back(text_of_call(function, detail, 0));
}

/* Try, announce the wait if busy, lock, withdraw the announcement. Any other failure is fatal. */
void model::lock(const std::string &function)
{
    const auto fatal = [&] { return must_die(function + ": Assertion `_rc == EOK' failed"); };
    if (fails(target_named("pthread_mutex_trylock")))
        throw fatal();
    const bool busy = fails(target_named("busy_mutex")).has_value();
    const bool stuck = fails(target_named("pthread_mutex_lock")).has_value();
    if (busy || stuck) {
        lines.push_back(text_of_call(fn::ptd_set_mutex_block, function, 0));
        effect(fn::ptd_unset_mutex_block);
    }
    if (stuck)
        throw fatal();
}

void model::unlock(const std::string &function)
{
    if (fails(target_named("pthread_mutex_unlock")))
        throw must_die(function + ": Assertion `_rc == EOK' failed");
}

/* --- texts ------------------------------------------------------------------------------------------- */

/* Given when the library's bit is set in both sets; a null set enables nothing. */
void model::debug(const std::string &function, const std::string &text)
{
    const bool enabled = !fails(fn::gen_dbg_get_enabled_bitset);
    const bool traced = enabled && !fails(fn::gen_dbg_ltrace_get_dbg_bitset);
    if (enabled && traced)
        lines.push_back("debug " + function + ": " + text);
}

/* Always handed to the trace library, whatever it answers; the record beside it only when wanted. */
void model::report(const std::string &function, const std::string &text, const std::string &record)
{
    const bool has_context = !fails(fn::l2vpn_debug_get_ctx);
    const bool enabled = !fails(fn::l2vpn_debug_get_enabled_bitset);
    lines.push_back("report " + function + ": " + text + (has_context ? "" : ", no context") +
                    (enabled ? "" : ", nothing enabled"));
    if (!fails(fn::l2vpn_check_ltrace_buffer))
        lines.push_back("record " + record);
}

void model::notify(id client, const std::string &text)
{
    lines.push_back("callback " + std::to_string(of(client).slot) + ": " + text);
    if (inside_.empty())
        return;
    const step nested = inside_.front();
    inside_.clear();
    play(nested);
}

/* --- steps ------------------------------------------------------------------------------------------- */

void model::play(const step &s)
{
    lines.push_back("> " + to_string(s));
    const auto returned = [&](qerrno status) { lines.push_back("returned " + std::to_string(status)); };
    const auto with_array = [&](qerrno status) {
        returned(status);
        lines.emplace_back("arrays as they were");
    };
    switch (s.what) {
    case op::connect:
        return returned(connect(s, NODEID_INVALID));
    case op::connect_nodeid:
        return returned(s.number == NODEID_INVALID ? EINVAL : connect(s, s.number));
    case op::disconnect:
        return returned(disconnect(s.slot));
    case op::create:
    case op::update:
    case op::remove:
        return with_array(ac_request(ac_kinds.at(s.what), s));
    case op::root:
    case op::port_request:
    case op::vid_map:
        return with_array(mstp_request(mstp_kinds.at(s.what), s));
    case op::protect:
        return with_array(protect(s));
    case op::event:
        return event(s);
    case op::message:
        return message(s);
    case op::advance:
        return advance(s.number);
    case op::refuse:
        scripts_.push_back(
            {s.function, counts_[target_of(s.function).name] + s.number, static_cast<int>(s.status)});
        return;
    case op::during:
        inside_ = s.nested;
        return;
    case op::sweep:
        return sweep();
    }
}

} // namespace torture
