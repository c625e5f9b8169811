#include "model_platform.h"

#include <algorithm>

namespace simulation {

namespace {

constexpr std::uint64_t second = 1'000'000'000;
constexpr std::uint32_t enoent = 2;
constexpr std::uint32_t eexist = 17;
constexpr std::uint32_t emsgsize = 90;
constexpr std::uint32_t enotconn = 107;
constexpr std::uint32_t destination = 0xffffffff;
constexpr std::uint32_t timer_code = 128;

} // namespace

/* --- events ------------------------------------------------------------------------------------------ */

void platform_model::debug(const std::string &where, const std::string &text)
{
    if (gate == 0)
        say({"debug", {1094}, where + ": " + text});
}

void platform_model::report(const std::string &where, const std::string &text, std::uint64_t key,
                            const char *format)
{
    say({"report", {163}, where + ": " + text});
    const bool wanted = !verdict(fn::l2vpn_check_ltrace_buffer) && records_wanted;
    say({"wanted", {key, wanted}});
    if (wanted)
        say({"record", {key}, format});
}

/* --- failures ---------------------------------------------------------------------------------------- */

void platform_model::begin_step()
{
    sends_ = 0;
    clean_ = true;
}

void platform_model::fail(fn function, std::uint64_t k, bool for_good, std::uint32_t status)
{
    rules_[function].push_back({counts_.at(static_cast<std::size_t>(function)) + k, for_good, status});
}

void platform_model::heal()
{
    rules_.clear();
}

std::optional<std::uint32_t> platform_model::verdict(fn function)
{
    const std::uint64_t number = ++counts_.at(static_cast<std::size_t>(function));
    const bool too_many = function == fn::l2vpn_ipc_ucastv && ++sends_ > sends_of_step;
    for (const rule &each : rules_[function]) {
        if (number == each.number || (each.for_good && number > each.number)) {
            clean_ = false;
            seen_->hit_failure(function);
            return each.status;
        }
    }
    if (too_many) {
        clean_ = false;
        seen_->hit(feature::endless_sending_ended);
        return out_of_sends;
    }
    return std::nullopt;
}

/* --- links ------------------------------------------------------------------------------------------- */

std::uint32_t platform_model::class_init(std::uint32_t class_id, std::uint32_t node,
                                         std::uint64_t client_number, std::uint64_t cookie)
{
    const auto failed = verdict(fn::l2vpn_ipc_class_init);
    link &mine = link_of(class_id);
    const std::uint32_t status = failed ? *failed : mine.cookie ? eexist : 0;
    if (status == 0)
        mine.cookie = cookie;
    say({"l2vpn_ipc_class_init", {class_id, node, 0, client_number, status}});
    return status;
}

std::uint32_t platform_model::class_deinit(std::uint32_t class_id)
{
    const auto failed = verdict(fn::l2vpn_ipc_class_deinit);
    link &mine = link_of(class_id);
    const std::uint32_t status = failed ? *failed : mine.cookie ? 0 : enoent;
    if (status == 0) {
        mine.cookie.reset();
        mine.down = false;
        std::erase_if(queue_, [class_id](const delivery &item) {
            return item.what != delivery::posted && item.class_id == class_id;
        });
    }
    say({"l2vpn_ipc_class_deinit", {class_id, 0, status}});
    return status;
}

std::uint32_t platform_model::mtu_get(std::uint32_t class_id, std::uint32_t &mtu)
{
    const std::uint32_t status = verdict(fn::l2vpn_ipc_transport_mtu_get).value_or(0);
    if (status == 0)
        mtu = link_of(class_id).mtu;
    say({"l2vpn_ipc_transport_mtu_get", {class_id, status}});
    return status;
}

std::uint32_t platform_model::send_status(std::uint32_t class_id, std::size_t length)
{
    const link &mine = link_of(class_id);
    if (!mine.cookie)
        return enoent;
    if (mine.down) {
        seen_->hit(feature::send_while_down);
        return enotconn;
    }
    if (enforce_mtu && length > mine.mtu) {
        seen_->hit(feature::send_above_mtu);
        return emsgsize;
    }
    return 0;
}

void platform_model::answer(std::uint32_t class_id, const bytes &message)
{
    for (bytes &answered : process.receive(class_id, message))
        inject(class_id, class_id, std::move(answered));
}

std::uint32_t platform_model::ucast(std::uint32_t class_id, const bytes &message)
{
    const auto failed = verdict(fn::l2vpn_ipc_ucast);
    const std::uint32_t status = failed ? *failed : send_status(class_id, message.size());
    clean_ = clean_ && status == 0;
    say({"ucast", {class_id, destination, 0, status}, {}, message});
    if (!failed && status == 0)
        answer(class_id, message);
    seen_->hit_sent(get32(byte_view(message).subspan(4)));
    return status;
}

std::uint32_t platform_model::ucastv(std::uint32_t class_id, const bytes &message,
                                     const std::vector<std::uint64_t> &lengths,
                                     const std::vector<std::uint64_t> &places)
{
    const auto failed = verdict(fn::l2vpn_ipc_ucastv);
    const std::uint32_t status = failed ? *failed : send_status(class_id, message.size());
    clean_ = clean_ && status == 0;
    event sent{"ucastv", {class_id, destination, 0, status}, {}, message};
    sent.numbers.insert(sent.numbers.end(), lengths.begin(), lengths.end());
    sent.numbers.insert(sent.numbers.end(), places.begin(), places.end());
    say(std::move(sent));
    if (!failed && status == 0)
        answer(class_id, message);
    seen_->hit_sent(get32(byte_view(message).subspan(4)));
    return status;
}

void platform_model::link_event(std::uint32_t class_id, std::uint32_t number, std::uint32_t argument)
{
    queue_.push_back({delivery::link_event, class_id, number, argument, {}});
}

void platform_model::link_down(std::uint32_t class_id)
{
    link_of(class_id).down = true;
    process.forget(class_id);
}

void platform_model::inject(std::uint32_t class_id, std::uint32_t told, bytes message)
{
    queue_.push_back({delivery::message, class_id, told, 0, std::move(message)});
}

std::optional<std::uint64_t> platform_model::cookie_of(std::uint32_t class_id)
{
    return link_of(class_id).cookie;
}

/* --- timers ------------------------------------------------------------------------------------------ */

std::uint64_t platform_model::leaf_new(bool tree_is_there)
{
    const bool made = !verdict(fn::mgd_timer_leaf_new) && tree_is_there;
    if (made)
        live_.insert(++leaves_made_);
    say({"mgd_timer_leaf_new", {made}});
    return made ? leaves_made_ : 0;
}

void platform_model::leaf_free(std::uint64_t leaf)
{
    say({"mgd_timer_leaf_free", {leaf}});
    if (live_.erase(leaf) == 0)
        seen_->hit(feature::timer_freed_again);
    std::erase_if(running_, [leaf](const running &each) { return each.leaf == leaf; });
}

bool platform_model::leaf_running(std::uint64_t leaf) const
{
    return std::ranges::any_of(running_, [leaf](const running &each) { return each.leaf == leaf; });
}

void platform_model::leaf_start(std::uint64_t leaf, std::uint64_t seconds)
{
    say({"mgd_timer_leaf_start", {leaf, seconds * second}});
    if (!live_.contains(leaf))
        return;
    std::erase_if(running_, [leaf](const running &each) { return each.leaf == leaf; });
    const std::uint64_t rank = shuffle ? random_.next() : ++starts_;
    running_.insert({now_ + seconds * second, rank, leaf});
    announced_.erase(leaf);
}

void platform_model::leaf_stop(std::uint64_t leaf)
{
    say({"mgd_timer_leaf_stop", {leaf}});
    std::erase_if(running_, [leaf](const running &each) { return each.leaf == leaf; });
}

std::uint64_t platform_model::first_expired()
{
    if (verdict(fn::mgd_timer_tree_first_expired) || running_.empty() || running_.begin()->expiry > now_)
        return 0;
    if (running_.size() > 1 && std::next(running_.begin())->expiry <= now_)
        seen_->hit(feature::timers_expired_together);
    return running_.begin()->leaf;
}

/* --- delivery ---------------------------------------------------------------------------------------- */

void platform_model::enqueue_due()
{
    bool newly = false;
    for (const running &each : running_) {
        if (each.expiry <= now_)
            newly = announced_.insert(each.leaf).second || newly;
    }
    if (newly && !posted_by_timers_) {
        posted_by_timers_ = true;
        queue_.push_back({delivery::posted, timer_code, 1, 0, {}});
    }
}

void platform_model::move_clock(std::uint64_t to)
{
    now_ = std::max(now_, to);
    enqueue_due();
}

void platform_model::jump(std::uint64_t by)
{
    move_clock(now_ + by);
}

std::optional<std::uint64_t> platform_model::next_due() const
{
    for (const running &each : running_) {
        if (!announced_.contains(each.leaf))
            return each.expiry;
    }
    return std::nullopt;
}

std::optional<delivery> platform_model::next()
{
    enqueue_due();
    while (!queue_.empty()) {
        delivery item = std::move(queue_.front());
        queue_.pop_front();
        if (item.what == delivery::posted) {
            if (item.number != 0)
                posted_by_timers_ = false;
            if (handler_attached && item.class_id == timer_code)
                return item;
            seen_->hit(feature::code_without_handler);
        } else if (cookie_of(item.class_id)) {
            return item;
        } else {
            seen_->hit(feature::delivery_without_receiver);
        }
    }
    return std::nullopt;
}

} // namespace simulation
