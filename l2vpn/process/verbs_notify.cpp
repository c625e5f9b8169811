/*
 * notify: the notices that the process sends on command.
 */
#include "encoder.h"
#include "verbs.h"

#include <l2vpn/l2vpn_ac_msg.h>

namespace l2vpnd {

namespace {

template <size_t N>
std::array<uint8_t, N> octets_of(const std::optional<std::string> &text, const char *name)
{
    std::array<uint8_t, N> out{};
    if (!text) {
        return out;
    }
    const auto nibble = [&](char c) -> uint8_t {
        if (c >= '0' && c <= '9') {
            return static_cast<uint8_t>(c - '0');
        }
        if (c >= 'a' && c <= 'f') {
            return static_cast<uint8_t>(c - 'a' + 10);
        }
        if (c >= 'A' && c <= 'F') {
            return static_cast<uint8_t>(c - 'A' + 10);
        }
        refuse_argument(name, "hexadecimal digits");
    };
    if (text->size() != 2 * N) {
        refuse_argument(name, std::to_string(2 * N) + " hexadecimal digits");
    }
    for (size_t i = 0; i < N; i++) {
        out[i] = static_cast<uint8_t>(nibble((*text)[2 * i]) << 4 | nibble((*text)[2 * i + 1]));
    }
    return out;
}

bulk_notice notice_of(const json &object)
{
    if (!object.is_object()) {
        refuse_argument("records", "a list of objects");
    }
    arguments args(object);
    bulk_notice notice;
    notice.word = args.number("word").value_or(0);
    notice.half = static_cast<uint16_t>(args.number("half", UINT16_MAX).value_or(0));
    notice.octets = octets_of<2>(args.text("octets"), "octets");
    notice.opaque = octets_of<4>(args.text("opaque"), "opaque");
    notice.word2 = args.number("word2").value_or(0);
    if (const json *words = args.list("words")) {
        if (words->size() != notice.words.size()) {
            refuse_argument("words", "a list of 4 numbers");
        }
        for (size_t i = 0; i < notice.words.size(); i++) {
            const json &word = (*words)[i];
            if (!word.is_number_unsigned() || word.get<uint64_t>() > UINT32_MAX) {
                refuse_argument("words", "a list of 4 numbers from 0 to 4294967295");
            }
            notice.words[i] = word.get<uint32_t>();
        }
    }
    args.done();
    return notice;
}

struct notice {
    uint32_t type;
    octet_string message;
};

notice make_bulk(arguments &args)
{
    std::vector<bulk_notice> records;
    const uint32_t flags = args.number("flags").value_or(0);
    if (const json *list = args.list("records")) {
        for (const json &object : *list) {
            records.push_back(notice_of(object));
        }
    }
    if (records.empty()) {
        refuse_argument("records", "a list of at least one record");
    }
    return {L2VPN_AC_MSG_BULK_NOTIFY, encode_bulk_notify(records, flags)};
}

notice make_header(arguments &args)
{
    const uint32_t word2 = args.number("word2").value_or(0);
    const uint32_t word3 = args.number("word3").value_or(0);
    return {L2VPN_AC_MSG_HDR_NOTIFY, encode_header(L2VPN_AC_MSG_HDR_NOTIFY, word2, word3)};
}

/* A bulk notice without records: nothing but its flags is looked at. */
notice make_flags(arguments &args)
{
    const uint32_t flags = args.number("flags").value_or(0) | L2VPN_AC_FLAG_NOTICE;
    return {L2VPN_AC_MSG_BULK_NOTIFY, encode_bulk_notify({}, flags)};
}

struct kind_row {
    const char *name;
    notice (*make)(arguments &args);
};

constexpr kind_row s_kinds[] = {{"bulk", make_bulk}, {"header", make_header}, {"flags", make_flags}};

notice make_notice(arguments &args)
{
    const std::optional<std::string> kind = args.text("kind");
    for (const kind_row &row : s_kinds) {
        if (kind && *kind == row.name) {
            return row.make(args);
        }
    }
    refuse_argument("kind", "bulk, header or flags");
}

class notify_answer : public owner_answer {
public:
    notify_answer(const verb_context &context, arguments &args)
        : owner_answer(context, args), m_notice(make_notice(args))
    {
        require_choice(args, filter().chooses(), "clients");
    }

    json result() override
    {
        if (m_sent == 0 && m_failed == 0) {
            throw refusal{"not_found", "no client matches"};
        }
        if (m_sent == 0) {
            throw refusal{"not_sent", "no client took the notice: " + m_reason};
        }
        return {{"sent", m_sent}, {"failed", m_failed}, {"bytes", m_notice.message.size()}};
    }

private:
    bool show(owner &o, row_writer & /*rows*/) override
    {
        const qerrno status = m_process.send(o, m_notice.type, m_notice.message);
        if (status == EOK) {
            m_sent++;
        } else {
            m_failed++;
            m_reason = qerr_strerror(status);
        }
        return true;
    }

    notice m_notice;
    uint64_t m_sent = 0;
    uint64_t m_failed = 0;
    std::string m_reason;
};

} // namespace

answer_ptr verb_notify(const verb_context &context, arguments &args)
{
    return std::make_unique<notify_answer>(context, args);
}

} // namespace l2vpnd
