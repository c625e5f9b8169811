/*
 * Where records come from: the ring of a process, or a pcapng file. Either gives them one by one, each with what is
 * missing before it, and says at the end what is missing beside.
 */
#ifndef L2VPNCTL_RECORDING_SOURCE_H
#define L2VPNCTL_RECORDING_SOURCE_H

#include "pcapng_reader.h"
#include "recordings.h"
#include "ring_reader.h"

#include <deque>
#include <fstream>

namespace l2vpnctl {

/* Records behind one that threads have overtaken while they recorded, too. */
constexpr size_t overtaken_most = 64;

/* All throw bad_file. */
class record_source {
public:
    record_source() = default;
    virtual ~record_source() = default;
    record_source(const record_source &) = delete;
    record_source &operator=(const record_source &) = delete;

    /* For people. */
    virtual std::string name() const = 0;
    /* The record to be given next, if there is one by now. */
    virtual const captured *next() = 0;
    /* Before it. */
    virtual uint64_t missing() const = 0;
    /* Gives it, with what is missing before it. False: no more is wanted. */
    bool give(size_t index, record_consumer &to, uint64_t lost);
    /* It is over, given or not. */
    void pass();
    /* This one is one of those that are missing before the next. */
    virtual bool misses(const captured & /*record*/) const { return false; }
    /* One of those has come from elsewhere. */
    virtual void note_found() {}
    /* What is missing, beside what was before records that were passed. */
    uint64_t lost_at_end() const;
    /* What was found to be wrong with what was read; empty: nothing. */
    virtual std::string fault() const { return {}; }

private:
    /* The next one is over. */
    virtual void pop() = 0;
    /* Of all that there was. */
    virtual uint64_t lost() const = 0;

    uint64_t m_told = 0; /* that were missing before those that were passed */
};

/* Gives the records of one ring by number. Threads that record at the same moment swap places: a gap counts only
 * when much has come behind it, or nothing for a while. */
class ring_source : public record_source {
public:
    ring_source(const std::string &path, bool history);

    std::string name() const override { return m_ring.process() + "-" + std::to_string(m_ring.pid()); }
    const captured *next() override;
    uint64_t missing() const override;
    bool ended() const { return m_ring.writer_ended(); }
    /* Takes what is new. With `is_last`, nothing is waited for any more. */
    void look(bool is_last);

private:
    void pop() override;
    uint64_t lost() const override { return m_ring.lost(); }

    l2vpn::capture::ring_reader m_ring;
    bool m_started; /* a number is expected */
    uint64_t m_next = 0;
    int m_looks = 0; /* that found some waiting, since one was given */
    bool m_is_last = false;
    std::multimap<uint64_t, captured> m_waiting;
};

/* Gives the records of a file, which is read as it is asked for. A record that was overtaken, as where a ring was
 * followed, is put back among those just behind it. */
class pcapng_source : public record_source {
public:
    explicit pcapng_source(const std::string &path);

    std::string name() const override { return m_name; }
    const captured *next() override;
    uint64_t missing() const override { return m_waiting.front().missing; }
    bool misses(const captured &record) const override;
    void note_found() override;
    std::string fault() const override;

private:
    struct waiting {
        captured record;
        uint64_t missing; /* before it, */
        uint64_t first;   /* and the number from which on */
    };

    void pop() override { m_waiting.pop_front(); }
    uint64_t lost() const override;
    bool read();
    void put_in_order(waiting &&made);

    std::string m_name;
    std::ifstream m_file;
    l2vpn::capture::pcapng_reader m_reader;
    std::deque<waiting> m_waiting;
    uint64_t m_overtaken = 0; /* that the file takes for lost */
    bool m_is_over = false;
    std::string m_damage; /* where it ends, therefore */
};

} // namespace l2vpnctl

#endif
