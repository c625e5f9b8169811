/*
 * What the tests of the L2VPN process share: messages written byte by byte, and a process without sockets.
 */
#ifndef TESTS_PROCESS_SUPPORT_H
#define TESTS_PROCESS_SUPPORT_H

#include "../support/ac_classes.h"
#include "process.h"

#include <cerrno>
#include <map>
#include <numeric>
#include <string>
#include <vector>

namespace process_test {

using octets = std::vector<uint8_t>;

/* A message under construction, in network byte order. */
class builder {
public:
    builder &u16(uint16_t value)
    {
        m_bytes.push_back(static_cast<uint8_t>(value >> 8));
        m_bytes.push_back(static_cast<uint8_t>(value));
        return *this;
    }
    builder &u32(uint32_t value)
    {
        return u16(static_cast<uint16_t>(value >> 16)).u16(static_cast<uint16_t>(value));
    }
    builder &raw(const octets &bytes)
    {
        m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
        return *this;
    }
    const octets &bytes() const { return m_bytes; }

private:
    octets m_bytes;
};

/* `size` bytes that count up from `first`, without a zero. */
inline octets pattern(size_t size, uint8_t first)
{
    octets bytes(size);
    uint8_t value = first;
    for (uint8_t &byte : bytes) {
        value = value == 0 ? 1 : value;
        byte = value++;
    }
    return bytes;
}

inline builder header(uint32_t type, uint32_t bulk, uint32_t flags)
{
    return builder().u32(3).u32(type).u32(bulk).u32(flags);
}

/* A definition that begins with a name. */
inline octets definition(const std::string &name, uint8_t first = 1)
{
    octets bytes = pattern(616, first);
    std::fill_n(bytes.begin(), 64, uint8_t{0});
    std::copy(name.begin(), name.end(), bytes.begin());
    return bytes;
}

inline size_t info_size(uint32_t class_id)
{
    return ac_classes::rows[class_id].info;
}

inline octets create(uint32_t class_id, const std::vector<uint32_t> &handles, uint32_t flags = 3,
                     const std::string &name = "ac")
{
    builder message = header(2, static_cast<uint32_t>(handles.size()), flags);
    for (const uint32_t handle : handles) {
        message.u32(handle);
    }
    for (const uint32_t handle : handles) {
        message.raw(definition(name + std::to_string(handle)));
    }
    for (const uint32_t handle : handles) {
        message.raw(pattern(info_size(class_id), static_cast<uint8_t>(handle)));
    }
    return message.bytes();
}

inline octets update(uint32_t class_id, const std::vector<uint32_t> &handles, uint8_t first,
                     uint32_t flags = 0xc)
{
    builder message = header(3, static_cast<uint32_t>(handles.size()), flags);
    for (const uint32_t handle : handles) {
        message.u32(handle);
    }
    for (size_t i = 0; i < handles.size(); i++) {
        message.raw(pattern(info_size(class_id), first));
    }
    return message.bytes();
}

inline octets remove(const std::vector<uint32_t> &handles, uint32_t flags = 0x30)
{
    builder message = header(6, static_cast<uint32_t>(handles.size()), flags);
    for (const uint32_t handle : handles) {
        message.u32(handle);
    }
    return message.bytes();
}

inline uint64_t dropped(const l2vpnd::owner &o, l2vpnd::drop reason)
{
    return o.count.dropped[static_cast<size_t>(reason)];
}

inline std::vector<uint32_t> handles_from(uint32_t first, uint32_t count)
{
    std::vector<uint32_t> handles(count);
    std::iota(handles.begin(), handles.end(), first);
    return handles;
}

/* Keeps what is sent, by owner; takes as much as it is told to. */
class fake_transport : public l2vpnd::transport {
public:
    qerrno send(const l2vpnd::owner &to, l2vpnd::bytes message) override
    {
        if (status == EOK) {
            sent[to.info.peer_id].emplace_back(message.begin(), message.end());
        }
        return status;
    }
    uint64_t queued(const l2vpnd::owner & /*to*/) override { return waiting; }

    qerrno status = EOK;
    uint64_t waiting = 0;
    std::map<uint64_t, std::vector<octets>> sent;
};

/* A process whose log is kept. */
class bench {
public:
    explicit bench(const l2vpnd::process_options &options = {})
        : log(
              [this](int, const char *line) {
                  lines.emplace_back(line);
                  return true;
              },
              LOG_DEBUG),
          process(options, out, log)
    {
    }

    l2vpnd::owner *connect(uint32_t class_id, uint32_t node = 7, uint32_t mtu = 65536, pid_t pid = 0)
    {
        m_latest++;
        /* Every owner is a client process of its own, unless a pid is given. */
        const l2vpn_ipc_peer_info_t info = {
            m_latest, class_id, node, mtu, pid != 0 ? pid : static_cast<pid_t>(4710 + m_latest), 1000, 1000};
        l2vpnd::owner *made = nullptr;
        status = process.accept(nullptr, info, &made);
        return made;
    }

    bool logged(const std::string &text) const
    {
        return std::any_of(lines.begin(), lines.end(),
                           [&text](const std::string &line) { return line.find(text) != std::string::npos; });
    }

    /* An AC of any owner. */
    bool anything_waits() const
    {
        const l2vpnd::owner_table &owners = process.owners();
        const l2vpnd::owner *o = owners.after(0);
        while (o != nullptr && o->list(l2vpnd::ac_stage::waiting).count == 0) {
            o = owners.after(o->info.peer_id);
        }
        return o != nullptr;
    }

    /* The slot of an AC, or no_slot. */
    uint32_t slot(uint32_t class_id, uint32_t handle, uint32_t node = 7) const
    {
        return process.acs().store(class_id).find(node, handle);
    }

    const l2vpnd::ac_head &ac(uint32_t class_id, uint32_t handle, uint32_t node = 7) const
    {
        return process.acs().store(class_id).head(slot(class_id, handle, node));
    }

    std::vector<std::string> lines;
    qerrno status = EOK;
    fake_transport out;
    l2vpnd::event_log log;
    l2vpnd::l2vpn_process process;

private:
    uint64_t m_latest = 0;
};

} // namespace process_test

#endif
