/*
 * What the player writes down, in the model's words: the platform's calls, and those of the callbacks.
 */
#include "player.h"

#include "contract_test.h"

#include <algorithm>

namespace torture {

namespace {

/* The harness writes into the platform's own record, so that its lines stand where they happened. */
constexpr std::uint32_t harness_trace = 0xffffffff;

} // namespace

void player::say(const std::string &text)
{
    gen_ltrace(harness_trace, "%s", text.c_str());
}

void player::returned(qerrno status)
{
    say("returned " + std::to_string(status));
}

void player::arrays(bool restored)
{
    say(restored ? "arrays as they were" : "arrays changed");
}

namespace {

std::string text_of_send(const l2vpn::sim::call &call)
{
    const header h = header_of(call.message);
    const std::size_t pieces = call.function == fn::l2vpn_ipc_ucastv ? call.pieces.size() : 1;
    std::string text = text_of_message(static_cast<std::uint32_t>(call.args[1]), h.msg_type, h.bulk, h.flags,
                                       call.message.size(), pieces);
    if (h.mark != L2VPN_AC_HDR_MARK || call.args[2] != L2VPN_IPC_DEST_L2VPN || call.args[5] != 0)
        text += ", odd";
    return text;
}

/* A call in the model's words; empty for what the model leaves open. */
std::string line_of(const l2vpn::sim::call &call)
{
    const auto of_class = [&] { return "class " + std::to_string(call.args[1]); };
    const auto status = [&](const std::string &detail = "") {
        return text_of_call(call.function, detail, call.result);
    };
    const auto number = [&](const std::string &detail = "") {
        return text_of_call(call.function, detail, call.result < 0 ? -1 : 0);
    };
    const auto pointer = [&](const std::string &detail = "") {
        return text_of_call(call.function, detail, call.result == 0 ? -1 : 0);
    };
    switch (call.function) {
    case fn::gen_ltrace:
        return call.args[0] == harness_trace ? call.text : "";
    case fn::l2vpn_debug_init:
    case fn::platform_get_my_nodeid:
    case fn::wavl_init:
        return status();
    case fn::l2vpn_ipc_client_init:
        return status(call.text);
    case fn::l2vpn_ipc_class_init:
    case fn::l2vpn_ipc_class_deinit:
    case fn::l2vpn_ipc_transport_mtu_get:
        return status(of_class());
    case fn::l2vpn_ipc_ucast:
    case fn::l2vpn_ipc_ucastv:
        return status(text_of_send(call));
    case fn::l2vpn_ac_data_sanitize:
        return status(text_of_sanitize(static_cast<std::uint32_t>(call.args[0]),
                                       static_cast<std::uint32_t>(call.args[4])));
    case fn::event_async_attach_event:
    case fn::mgd_timer_leaf_set_addl_context:
        return number();
    case fn::mgd_timer_tree_new:
    case fn::mgd_timer_parent_new:
    case fn::mgd_timer_leaf_new:
    case fn::wavl_insert:
        return pointer();
    case fn::calloc_named:
        return pointer(call.text);
    case fn::mgd_timer_leaf_start:
        return text_of_call(call.function, std::to_string(call.args[1] / 1'000'000'000), 0);
    case fn::ptd_set_mutex_block:
        return text_of_call(call.function, call.where, 0);
    case fn::mgd_timer_tree_free:
    case fn::mgd_timer_parent_free:
    case fn::mgd_timer_leaf_free:
    case fn::mgd_timer_leaf_stop:
    case fn::wavl_delete:
    case fn::ptd_unset_mutex_block:
    case fn::l2vpn_gen_assert_errmsg:
        return text_of_call(call.function, "", 0);
    case fn::gen_format_debug_fmt:
        return "debug " + call.where + ": " + call.text;
    case fn::l2vpn_generic_gen_dbg_ltrace_ctx:
        return "report " + call.where + ": " + call.text + (call.args[0] == 0 ? ", no context" : "") +
               (call.args[1] == 0 ? ", nothing enabled" : "");
    case fn::l2vpn_ltrace:
        return "record " + call.format;
    case fn::vy_syslog:
        return "syslog " + std::to_string(call.args[0]) + ": " +
               call.text.substr(0, call.text.rfind(':')); /* without the line */
    default:
        return "";
    }
}

} // namespace

const std::vector<std::string> &player::lines()
{
    for (const auto &call : world_.calls()) {
        std::string line = line_of(call);
        if (!line.empty())
            lines_.push_back(std::move(line));
    }
    world_.clear_calls();
    for (std::uint32_t class_id = 0; class_id < L2VPN_AC_CLASS_MAX; ++class_id)
        world_.link_of(class_id).clear_sent();
    return lines_;
}

void player::forget_lines()
{
    world_.clear_calls();
    lines_.clear();
}

/* --- callbacks --------------------------------------------------------------------------------------- */

qerrno player::write_down(l2vpn_ac_client_hd_t hd, const char *callback, const std::string &text)
{
    player &self = *current;
    self.called.insert(callback);
    const auto *const slot = std::ranges::find(self.hd_, hd);
    self.say("callback " + std::to_string(slot - self.hd_) + ": " + text);
    if (!self.inside_.empty()) {
        const step nested = self.inside_.front();
        self.inside_.clear();
        self.play(nested);
    }
    return 77; /* ignored by the library */
}

qerrno player::on_status(l2vpn_ac_client_hd_t hd, std::uint32_t status, std::uint32_t arg)
{
    return write_down(hd, "status_cb", "status " + std::to_string(status) + " " + std::to_string(arg));
}

namespace {

std::string text_of_handles(std::uint32_t bulk, const ifhtype *ifh, std::uint32_t flags)
{
    bool right = true;
    for (std::uint32_t i = 0; i < bulk; ++i)
        right = right && ifh[i] == first_ifh + i;
    return std::to_string(bulk) + " flags " + std::to_string(flags) + (right ? "" : ", wrong handles");
}

} // namespace

qerrno player::on_prov(l2vpn_ac_client_hd_t hd, std::uint32_t bulk, ifhtype *ifh, l2vpn_ac_xcid_data_t *data,
                       std::uint32_t flags)
{
    const std::vector<l2vpn_ac_xcid_data_t> zero(bulk);
    const bool right = std::memcmp(data, zero.data(), bulk * sizeof *data) == 0;
    return write_down(hd, "prov_cb",
                      "prov " + text_of_handles(bulk, ifh, flags) + (right ? "" : ", wrong data"));
}

qerrno player::on_unprov(l2vpn_ac_client_hd_t hd, std::uint32_t bulk, ifhtype *ifh, std::uint32_t flags)
{
    return write_down(hd, "unprov_cb", "unprov " + text_of_handles(bulk, ifh, flags));
}

qerrno player::on_bulk_notify(l2vpn_ac_client_hd_t hd, std::uint32_t bulk, l2vpn_ac_bulk_notify_t *records,
                              std::uint32_t flags)
{
    std::uint32_t first = 0;
    std::memcpy(&first, records, sizeof first);
    return write_down(hd, "bulk_notify_cb",
                      "bulk_notify " + std::to_string(bulk) + " flags " + std::to_string(flags) +
                          (first == first_ifh ? "" : ", wrong record"));
}

qerrno player::on_hdr_notify(l2vpn_ac_client_hd_t hd, std::uint32_t word2, void *null, std::uint32_t word3)
{
    return write_down(hd, "hdr_notify_cb",
                      "hdr_notify " + std::to_string(word2) + " flags " + std::to_string(word3) +
                          (null == nullptr ? "" : ", not null"));
}

} // namespace torture
