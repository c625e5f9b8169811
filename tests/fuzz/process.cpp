/*
 * The process and its tables: owners come, send messages and go, in any order, with little room everywhere.
 *
 * The input's first byte says whether ACs are provisioned at once (bit 0). What follows is a list of steps, a
 * byte each (modulo 8), with what belongs to it:
 *
 *   0      an owner's message: number of the owner, length (2 bytes), the message
 *   1      an owner's message of the right length: number of the owner, type (modulo 17), flags, count (modulo
 *          12), a byte for every record, its handle or key
 *   2      an owner comes: class, node (bit 0) and MTU (bits 1 and up, in 64 bytes), pid
 *   3      an owner's link ends: number of the owner
 *   4, 5   an owner's ACs are to be provisioned, unprovisioned: number of the owner
 *   6      the links take what they are sent, or have no room, or are gone: a byte modulo 3
 *   7      what waits is sent
 */
#include "fuzz.h"

#include "../process/support.h"

namespace {

using namespace l2vpnd;

constexpr size_t most_owners = 4;

/* What every message to an owner must be: a type of the process's, no longer than the link takes, and
 * nothing that a client library would stop on. */
class checking_transport : public transport {
public:
    qerrno send(const owner &to, bytes message) override
    {
        FUZZ_CHECK(message.size() >= hdr_len && message.size() <= to.info.mtu);
        FUZZ_CHECK(get32(message.data()) == 3);
        const uint32_t type = get32(message.data() + 4);
        const uint64_t count = get32(message.data() + 8);
        const class_row &cls = *find_class(to.info.class_id);
        FUZZ_CHECK(type == 7 || type == 8);
        FUZZ_CHECK(type == 8 || cls.data_size != 0);
        FUZZ_CHECK(count > 0 && message.size() == hdr_len + count * (4 + (type == 7 ? cls.data_size : 0)));
        fuzz::read_all(message.data(), message.size());
        return status;
    }
    uint64_t queued(const owner & /*to*/) override { return 0; }

    qerrno status = EOK;
};

class scene {
public:
    explicit scene(bool auto_provision)
        : log_([](int, const char *) { return true; }, LOG_DEBUG),
          process_(options(auto_provision), out_, log_)
    {
    }

    void play(fuzz::input &in)
    {
        while (!in.empty()) {
            step(in);
            check();
        }
        while (!owners_.empty())
            leave(owners_.size() - 1);
        FUZZ_CHECK(process_.acs().size() == 0 && process_.mstp_budget().used == 0);
    }

private:
    static process_options options(bool auto_provision)
    {
        process_options chosen;
        chosen.max_acs = 8;
        chosen.max_owners = most_owners;
        chosen.max_mstp = 6;
        chosen.auto_provision = auto_provision;
        return chosen;
    }

    void step(fuzz::input &in)
    {
        const uint8_t what = in.u8() % 8;
        if (what == 2)
            return come(in);
        if (what == 6) {
            constexpr qerrno statuses[] = {EOK, ENOBUFS, ENOTCONN};
            out_.status = statuses[in.u8() % 3];
            return;
        }
        if (what == 7)
            return process_.send_all_waiting();
        const size_t number = in.u8();
        if (owners_.empty())
            return;
        owner &one = *owners_[number % owners_.size()];
        /* No link delivers more than its MTU. */
        if (what == 1) {
            process_test::octets made = sound_message(one, in);
            made.resize(std::min<size_t>(made.size(), one.info.mtu));
            process_.received(one, fuzz::exact(made));
        } else if (what == 0) {
            const size_t length = in.u16();
            const fuzz::exact message(in.take(std::min<size_t>(length, one.info.mtu)));
            process_.received(one, message);
        } else if (what == 3) {
            leave(number % owners_.size());
        } else {
            command(one, what == 4);
        }
    }

    static process_test::octets sound_message(const owner &from, fuzz::input &in)
    {
        const message_row &row = *find_message(in.u8() % message_types);
        const uint8_t flags = in.u8();
        const uint32_t count = row.counted ? in.u8() % 12 : 1;
        const fuzz::bytes keys = in.take(count);
        process_test::builder message = process_test::header(row.type, count, flags);
        const auto add = [&](size_t size, bool with_key) {
            for (uint32_t i = 0; i < count && size > 0; ++i) {
                const uint8_t key = i < keys.size() ? keys[i] : 0;
                const size_t rest = with_key ? size - 4 : size;
                message.raw(with_key ? process_test::octets{0, 0, 0, key} : process_test::octets{});
                message.raw(process_test::octets(rest, key));
            }
        };
        add(row.each.handle, true);
        add(row.each.definition, false);
        add(row.each.info ? find_class(from.info.class_id)->info_size : 0, false);
        add(row.each.record, true);
        return message.bytes();
    }

    void come(fuzz::input &in)
    {
        const uint8_t class_id = in.u8();
        const uint8_t link = in.u8();
        const auto pid = static_cast<pid_t>(in.u8() % 4);
        const l2vpn_ipc_peer_info_t info = {
            ++latest_, class_id, 1u + (link & 1u), 16u + (link >> 1) * 64u, pid, 0, 0};
        owner *made = nullptr;
        const qerrno status = process_.accept(nullptr, info, &made);
        const class_row *cls = find_class(class_id);
        FUZZ_CHECK((status == EOK) == (cls != nullptr && cls->valid && owners_.size() < most_owners));
        if (status == EOK)
            owners_.push_back(made);
    }

    void leave(size_t number)
    {
        process_.closed(*owners_[number], EOK);
        owners_.erase(owners_.begin() + static_cast<std::ptrdiff_t>(number));
    }

    /* As the control verbs do: no AC of an open batch, none whose owner could not stand it, none twice. */
    void command(owner &one, bool provision)
    {
        if (provision && !l2vpn_process::can_provision(one))
            return;
        for (const ac_stage stage : {ac_stage::settled, ac_stage::waiting}) {
            const ac_store &store = process_.acs().store(one.info.class_id);
            const ac_list list = one.list(stage);
            for (uint32_t slot = list.first, left = list.count; left > 0; --left) {
                const ac_head &ac = store.head(slot);
                const uint32_t next = ac.next;
                if (provision || ac.provisioned || ac.wanted)
                    process_.want(one, slot, provision);
                slot = next;
            }
        }
        process_.send_all_waiting();
    }

    /* Every AC of the table is on one list of one owner, and every record is counted once. */
    void check() const
    {
        uint64_t acs = 0;
        uint64_t records = 0;
        for (const owner *one : owners_) {
            const ac_store &store = process_.acs().store(one->info.class_id);
            for (size_t stage = 0; stage < one->acs.size(); ++stage) {
                uint32_t previous = no_slot;
                uint32_t slot = one->acs[stage].first;
                for (uint32_t i = 0; i < one->acs[stage].count; ++i) {
                    const ac_head &ac = store.head(slot);
                    FUZZ_CHECK(store.used(slot) && ac.owner == one->slot && ac.previous == previous);
                    FUZZ_CHECK(static_cast<size_t>(ac.stage) == stage && ac.node == one->info.nodeid);
                    FUZZ_CHECK(store.find(ac.node, ac.handle) == slot);
                    FUZZ_CHECK(!ac.provisioned || find_class(one->info.class_id)->data_size != 0);
                    previous = slot;
                    slot = ac.next;
                }
                FUZZ_CHECK(slot == no_slot && one->acs[stage].last == previous);
            }
            acs += one->ac_count();
            records += one->mstp.records();
        }
        FUZZ_CHECK(acs <= process_.options().max_acs && acs == process_.acs().size());
        FUZZ_CHECK(records == process_.mstp_budget().used && records <= process_.options().max_mstp);
    }

    checking_transport out_;
    event_log log_;
    l2vpn_process process_;
    std::vector<owner *> owners_;
    uint64_t latest_ = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    scene((in.u8() & 1) != 0).play(in);
    return 0;
}
