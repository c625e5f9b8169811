#include "step.h"

#include <array>
#include <sstream>

namespace simulation {

namespace {

constexpr std::array<const char *, op_count> op_names = {
    "connect",      "disconnect",  "create",    "update",     "delete",       "root",
    "port_request", "vid_map",     "protect",   "process_up", "process_down", "process_restart",
    "event",        "inject",      "automatic", "run",        "turn",         "advance",
    "jump",         "post",        "fail",      "heal",       "gate",         "compact",
    "mtu",          "enforce_mtu", "shuffle",   "react",      "calm",         "die",
    "resync",
};

constexpr std::array<const char *, static_cast<std::size_t>(whom::count_)> whom_names = {"current", "stale",
                                                                                         "null", "bogus"};
constexpr std::array<const char *, static_cast<std::size_t>(oddity::count_)> oddity_names = {
    "plain",           "nodeid", "invalid nodeid", "no callbacks", "no evm",
    "class too large", "no hd",  "no status_cb",   "another evm"};

std::string hex(byte_view data, std::size_t most)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < data.size() && i < most; ++i) {
        text += digits[data[i] >> 4];
        text += digits[data[i] & 15];
        text += i % 4 == 3 ? " " : "";
    }
    return text + (data.size() > most ? "..." : "");
}

std::string size_of(const amount &size)
{
    if (size.limits == 0)
        return std::to_string(size.more);
    const std::string sign = size.more < 0 ? "" : "+";
    return std::to_string(size.limits) + "L" + sign + std::to_string(size.more);
}

} // namespace

const char *name_of(op what)
{
    return op_names.at(static_cast<std::size_t>(what));
}

std::string to_string(const step &what)
{
    std::ostringstream line;
    line << name_of(what.what);
    const auto number = [&](const char *name, std::uint64_t value) { line << " " << name << "=" << value; };
    switch (what.what) {
    case op::connect:
        number("class", what.class_id);
        line << " " << oddity_names.at(what.variant);
        number("value", what.value);
        line << std::hex << " null_callbacks=0x" << what.flags << std::dec;
        break;
    case op::disconnect:
    case op::create:
    case op::update:
    case op::remove:
    case op::root:
    case op::port_request:
    case op::vid_map:
    case op::protect:
        number("class", what.class_id);
        line << " " << whom_names.at(static_cast<std::size_t>(what.client));
        if (what.what == op::disconnect)
            break;
        line << std::hex << " flags=0x" << what.flags << std::dec << " size=" << size_of(what.size);
        number("arrays", what.variant);
        line << std::hex << " content=0x" << what.value;
        break;
    case op::process_up:
    case op::process_down:
    case op::process_restart:
    case op::event:
        number("class", what.class_id);
        number("event", what.variant);
        number("argument", what.flags);
        break;
    case op::inject:
        number("class", what.class_id);
        if (what.class_argument)
            number("class_argument", *what.class_argument);
        line << " length=" << what.message.size() << " " << hex(what.message, 32);
        break;
    case op::fail:
        line << " " << l2vpn::sim::name_of(what.function);
        number(what.variant != 0 ? "from" : "k", static_cast<std::uint64_t>(what.size.more));
        number("status", what.value);
        break;
    case op::run:
    case op::turn:
    case op::heal:
    case op::calm:
        break;
    default:
        number("class", what.class_id);
        number("variant", what.variant);
        number("value", what.value);
        break;
    }
    for (const step &inner : what.inner)
        line << " { " << to_string(inner) << " }";
    return line.str();
}

} // namespace simulation
