/*
 * What verbs about ACs share: which are meant, and an answer that goes through the table slot by slot.
 */
#ifndef L2VPND_VERBS_AC_H
#define L2VPND_VERBS_AC_H

#include "verbs.h"

namespace l2vpnd {

/* As operators are told it. */
const char *state_of(const ac_head &ac);

struct ac_filter {
    owner_filter owners;
    std::set<uint32_t> handles;
    std::optional<std::string> name;
    std::optional<std::string> state;

    explicit ac_filter(arguments &args);
    bool takes(const owner &o, const ac_store &store, uint32_t slot) const;
    bool chooses() const { return owners.chooses() || !handles.empty() || name || state; }
};

class ac_answer : public answer {
public:
    ac_answer(const verb_context &context, arguments &args) : m_process(context.process), m_filter(args) {}
    bool step(row_writer &rows) override;

protected:
    virtual void take(owner &o, const ac_store &store, uint32_t slot, row_writer &rows) = 0;

    l2vpn_process &process() { return m_process; }
    const ac_filter &filter() const { return m_filter; }
    uint64_t taken() const { return m_taken; }

private:
    void consider(const ac_store &store, row_writer &rows);

    l2vpn_process &m_process;
    ac_filter m_filter;
    uint32_t m_class = 0;
    uint32_t m_slot = 0;
    uint64_t m_taken = 0;
};

} // namespace l2vpnd

#endif
