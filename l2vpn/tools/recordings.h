/*
 * The verbs about recorded messages: monitor shows them, capture writes them to files, explain follows one AC. They
 * come from the ring of the running process, which never notices its readers, or from files.
 */
#ifndef L2VPNCTL_RECORDINGS_H
#define L2VPNCTL_RECORDINGS_H

#include "captured.h"
#include "control_link.h"
#include "describe.h"

#include <csignal>
#include <initializer_list>
#include <map>
#include <optional>
#include <set>

namespace l2vpnctl {

struct command_line;

using l2vpn::capture::captured;

/* Which records are wanted. */
struct record_choice {
    std::optional<uint64_t> owner;
    std::optional<uint32_t> class_id;
    std::optional<uint32_t> node;
    std::optional<std::string> type;
    std::vector<uint32_t> handles;
    std::optional<std::string> name;
};

struct recording_options {
    std::vector<std::string> files; /* to read: rings and pcapng files; none: the running process */
    std::vector<std::string> also;  /* of explain: rings to be read beside the process and its own */
    bool history = false;           /* of the running process: what its ring holds already, too */
    uint64_t count = 0;             /* records to be taken at most; 0: no limit */
    record_choice choice;
    bool verbose = false;
    bool bytes = false;
    std::string write; /* the pcapng file */
    uint64_t size_mib = 64;
    uint32_t written_files = 4;
    bool force = false;
};

/* Decides for each record; knows the names of the handles whose CREATE it has seen. */
class record_filter {
public:
    /* Throws failure: there is no such type. */
    explicit record_filter(const record_choice &choice);
    bool takes(const captured &record);

private:
    bool takes_ac(const captured &record, const l2vpn::capture::reading &message);

    const record_choice &m_choice;
    std::optional<uint32_t> m_type;
    std::set<uint32_t> m_handles;
    std::map<std::pair<uint32_t, uint32_t>, std::set<uint32_t>> m_named; /* by node and class: of this name */
};

/* What the records go to. */
class record_consumer {
public:
    virtual ~record_consumer() = default;
    /* Before the first record, when all can be read: where they come from, "l2vpnd-4711". */
    virtual void begin(const std::vector<std::string> & /*sources*/) {}
    /* `lost`: records of this source that are missing just before this one. False: no more. */
    virtual bool take(size_t source, const captured &record, uint64_t lost) = 0;
    /* Nothing more is there at this moment. */
    virtual void idle() {}
    /* Behind the last record: what is missing of this source, beside what take() was told. */
    virtual void end(size_t /*source*/, uint64_t /*lost*/) {}
};

/* Gives `to` what is recorded: until there is no more, it has enough, or a signal. A record that several files hold
 * comes once. Throws failure; what is there has been given by then. */
void read_recordings(const command_line &line, record_consumer &to);

/* These end what is done, and not the program: they ask, from now on. */
void stop_on_signals(std::initializer_list<int> numbers = {SIGINT, SIGTERM, SIGHUP});
/* One has asked. */
bool is_stopped();

/* Each file once, however it is spelled. */
std::vector<std::string> distinct(const std::vector<std::string> &paths);

/* Both of the process, or of one owner; there may be several processes. */
bool has_same_observer(const captured &one, const captured &other);

/* Recorded about the same moment, one behind the other: by one, as far as the names of their interfaces tell. */
bool are_neighbours(const captured &before, const captured &after);

/* Of the same recorder at the same moment; of the message, one may have kept less. */
bool is_same_record(const captured &one, const captured &other);

/* Throws failure: it cannot be read. */
bool is_ring(const std::string &path);

/* Throws failure: the file is one of those that are read, or a ring. */
void refuse_to_replace(const std::string &path, const std::vector<std::string> &read);

void monitor(const command_line &line);
void capture(const command_line &line);
void explain(const command_line &line);

} // namespace l2vpnctl

#endif
