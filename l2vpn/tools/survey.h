/*
 * The two looks that explain takes at recordings: at everything, for which ACs are meant; and for what happened to
 * one of them.
 */
#ifndef L2VPNCTL_SURVEY_H
#define L2VPNCTL_SURVEY_H

#include "explain.h"
#include "finder.h"
#include "output.h"

namespace l2vpnctl {

constexpr uint64_t survey_shown_every = 1 << 16; /* records, on a terminal */

class survey : public record_consumer {
public:
    /* `paths`: where the sources are. What was looked at becomes known to `out`. */
    survey(finder &find, explanation &out, const std::vector<std::string> &paths)
        : m_find(find), m_out(out), m_paths(paths)
    {
    }

    void begin(const std::vector<std::string> &sources) override;
    bool take(size_t source, const captured &record, uint64_t lost) override;
    void end(size_t source, uint64_t lost) override;

private:
    finder &m_find;
    explanation &m_out;
    const std::vector<std::string> &m_paths;
    recorders m_recorders{recorders::join::without_gap};
    record_progress m_progress{survey_shown_every};
};

class follower : public record_consumer {
public:
    explicit follower(chain &of) : m_chain(of) {}
    bool take(size_t source, const captured &record, uint64_t lost) override;

private:
    chain &m_chain;
    record_progress m_progress{survey_shown_every};
};

} // namespace l2vpnctl

#endif
