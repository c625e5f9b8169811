#include "verbs.h"

#include <algorithm>
#include <utility>

namespace l2vpnd {

namespace {

struct verb_row {
    const char *name;
    verb_fn start;
};

constexpr verb_row s_verbs[] = {
    {"status", verb_status},       {"show clients", verb_show_clients}, {"show acs", verb_show_acs},
    {"show mstp", verb_show_mstp}, {"show batches", verb_show_batches}, {"show counters", verb_show_counters},
    {"explain", verb_explain},     {"provision", verb_provision},       {"unprovision", verb_unprovision},
    {"notify", verb_notify},
};

class ready_answer : public answer {
public:
    explicit ready_answer(json result) : m_result(std::move(result)) {}
    bool step(row_writer & /*rows*/) override { return false; }
    json result() override { return m_result; }

private:
    json m_result;
};

} // namespace

void refuse_argument(const std::string &name, const std::string &wanted)
{
    throw refusal{"bad_argument", "argument \"" + name + "\" must be " + wanted};
}

void row_writer::add(const json &row)
{
    if (!m_rows.empty()) {
        m_rows += ',';
    }
    m_rows += to_line(row);
}

arguments::arguments(const json &object) : m_object(object)
{
    if (!object.is_object()) {
        throw refusal{"bad_argument", "\"args\" must be an object"};
    }
}

const json *arguments::find(const char *name)
{
    m_known.insert(name);
    const auto at = m_object.find(name);
    return at == m_object.end() ? nullptr : &*at;
}

std::optional<uint64_t> arguments::number64(const char *name)
{
    const json *value = find(name);
    if (value == nullptr) {
        return std::nullopt;
    }
    if (!value->is_number_unsigned()) {
        refuse_argument(name, "a whole number, 0 or more");
    }
    return value->get<uint64_t>();
}

std::optional<uint32_t> arguments::number(const char *name, uint32_t most)
{
    const std::optional<uint64_t> value = number64(name);
    if (value && *value > most) {
        refuse_argument(name, "a whole number from 0 to " + std::to_string(most));
    }
    return value ? std::optional(static_cast<uint32_t>(*value)) : std::nullopt;
}

std::optional<std::string> arguments::text(const char *name)
{
    const json *value = find(name);
    if (value == nullptr) {
        return std::nullopt;
    }
    if (!value->is_string()) {
        refuse_argument(name, "a text");
    }
    return value->get<std::string>();
}

bool arguments::flag(const char *name)
{
    const json *value = find(name);
    if (value != nullptr && !value->is_boolean()) {
        refuse_argument(name, "true or false");
    }
    return value != nullptr && value->get<bool>();
}

const json *arguments::list(const char *name)
{
    const json *value = find(name);
    if (value != nullptr && !value->is_array()) {
        refuse_argument(name, "a list");
    }
    return value;
}

void arguments::done() const
{
    for (const auto &[name, value] : m_object.items()) {
        if (!m_known.contains(name)) {
            throw refusal{"bad_argument", "no argument \"" + name + "\" here"};
        }
    }
}

void require_choice(arguments &args, bool chosen, const char *what)
{
    if (args.flag("all") == chosen) {
        throw refusal{"bad_argument", std::string(chosen ? "\"all\" together with a choice of "
                                                         : "\"all\" or a choice is needed: say which ") +
                                          what};
    }
}

answer_ptr start_verb(const verb_context &context, const std::string &verb, const json &args)
{
    const auto *row = std::find_if(std::begin(s_verbs), std::end(s_verbs),
                                   [&verb](const verb_row &candidate) { return verb == candidate.name; });
    if (row == std::end(s_verbs)) {
        throw refusal{"unknown_verb", "no verb \"" + verb.substr(0, 64) + "\""};
    }
    arguments asked(args);
    answer_ptr started = row->start(context, asked);
    asked.done();
    return started;
}

answer_ptr answer_with(json result)
{
    return std::make_unique<ready_answer>(std::move(result));
}

owner_filter::owner_filter(arguments &args)
    : id(args.number64("owner")), class_id(args.number("class", class_count - 1)), node(args.number("node"))
{
}

bool owner_filter::takes(const owner &o) const
{
    return (!id || *id == o.info.peer_id) && (!class_id || *class_id == o.info.class_id) &&
           (!node || *node == o.info.nodeid);
}

json owner_answer::row_of(const owner &o)
{
    return {{"owner", o.info.peer_id}, {"node", o.info.nodeid}, {"class", o.info.class_id}};
}

bool owner_answer::step(row_writer &rows)
{
    /* An owner takes far less than a step, but there can be thousands that the filter does not take. */
    for (owner *o = m_process.owners().after(m_done); o != nullptr; o = m_process.owners().after(m_done)) {
        if (rows.full()) {
            return true;
        }
        if (m_filter.takes(*o)) {
            if (m_current != o->info.peer_id) {
                m_current = o->info.peer_id;
                m_taken++;
                begin(*o);
            }
            if (!show(*o, rows)) {
                return true;
            }
        }
        m_done = o->info.peer_id;
    }
    return false;
}

} // namespace l2vpnd
