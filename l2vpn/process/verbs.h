/*
 * What can be asked of the process over its control socket, and how it answers: one row a verb.
 *
 * An answer comes in steps, because it can be as large as the tables and everything here runs on the thread
 * that serves the owners. A step takes a millisecond or so, whatever it finds; between two steps the tables
 * change as they like. So an answer is no snapshot: what was there from its beginning to its end is in it
 * exactly once, what came or went meanwhile may be.
 */
#ifndef L2VPND_VERBS_H
#define L2VPND_VERBS_H

#include "fields.h"
#include "process.h"

#include <memory>
#include <optional>
#include <set>
#include <string>

namespace l2vpnd {

/* Thrown by a verb that cannot do what is asked. `code` is for programs, `text` for people. */
struct refusal {
    std::string code;
    std::string text;
};

/* What a step may add, until it is full. */
class row_writer {
public:
    static constexpr size_t enough = size_t{32} * 1024;

    void add(const json &row);
    bool full() const { return m_rows.size() >= enough; }
    bool empty() const { return m_rows.empty(); }
    const std::string &rows() const { return m_rows; }

private:
    std::string m_rows; /* JSON objects with commas between them */
};

class answer {
public:
    virtual ~answer() = default;
    /* True: there is more. May throw refusal. */
    virtual bool step(row_writer &rows) = 0;
    /* After the last step. May throw refusal. */
    virtual json result() = 0;
};

/* The arguments of a request, each to be asked for by name and type. Throws refusal for what is wrong. */
class arguments {
public:
    explicit arguments(const json &object);

    std::optional<uint32_t> number(const char *name, uint32_t most = UINT32_MAX);
    std::optional<uint64_t> number64(const char *name);
    std::optional<std::string> text(const char *name);
    bool flag(const char *name);
    const json *list(const char *name);
    /* Refuses what nobody has asked for. */
    void done() const;

private:
    const json *find(const char *name);

    const json &m_object;
    std::set<std::string> m_known;
};

/* A command needs "all" or a choice, never both and never neither. */
void require_choice(arguments &args, bool chosen, const char *what);

[[noreturn]] void refuse_argument(const std::string &name, const std::string &wanted);

struct verb_context {
    l2vpn_process &process;
    std::string service_path;
    std::string control_path;
};

using answer_ptr = std::unique_ptr<answer>;
using verb_fn = answer_ptr (*)(const verb_context &context, arguments &args);

/* Throws refusal: no such verb, or arguments that are not right. */
answer_ptr start_verb(const verb_context &context, const std::string &verb, const json &args);

answer_ptr verb_status(const verb_context &context, arguments &args);
answer_ptr verb_show_clients(const verb_context &context, arguments &args);
answer_ptr verb_show_acs(const verb_context &context, arguments &args);
answer_ptr verb_show_mstp(const verb_context &context, arguments &args);
answer_ptr verb_show_batches(const verb_context &context, arguments &args);
answer_ptr verb_show_counters(const verb_context &context, arguments &args);
answer_ptr verb_explain(const verb_context &context, arguments &args);
answer_ptr verb_provision(const verb_context &context, arguments &args);
answer_ptr verb_unprovision(const verb_context &context, arguments &args);
answer_ptr verb_notify(const verb_context &context, arguments &args);

/* An answer that is there at once. */
answer_ptr answer_with(json result);

/* Which owners are meant. */
struct owner_filter {
    std::optional<uint64_t> id;
    std::optional<uint32_t> class_id;
    std::optional<uint32_t> node;

    explicit owner_filter(arguments &args);
    bool takes(const owner &o) const;
    bool chooses() const { return id || class_id || node; }
};

/* An answer that goes through the owners in the order of their ids, a few a step. */
class owner_answer : public answer {
public:
    owner_answer(const verb_context &context, arguments &args) : m_process(context.process), m_filter(args) {}
    const owner_filter &filter() const { return m_filter; }
    bool step(row_writer &rows) override;
    json result() override { return {{"owners", m_taken}}; }

protected:
    /* False: not done with this owner; it is called again for the same owner in the next step. */
    virtual bool show(owner &o, row_writer &rows) = 0;
    /* Before the first show() of an owner. */
    virtual void begin(owner & /*o*/) {}
    /* What every row about an owner begins with. */
    static json row_of(const owner &o);

    l2vpn_process &m_process;

private:
    owner_filter m_filter;
    uint64_t m_done = 0;    /* the owner that was finished last */
    uint64_t m_current = 0; /* the owner that show() was begun for; 0: none */
    uint64_t m_taken = 0;
};

} // namespace l2vpnd

#endif
