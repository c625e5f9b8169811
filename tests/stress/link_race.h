/*
 * The fixture of the races over links: the library's one event manager on a thread of its own, the process's end
 * of the links, and a client a class whose callbacks count and check what they are told.
 */
#ifndef TESTS_STRESS_LINK_RACE_H
#define TESTS_STRESS_LINK_RACE_H

#include "child.h"
#include "link_process.h"

#include <l2vpn/l2vpn_ac_api.h>

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <vector>

namespace race_test {

using system_test::eventually;

inline constexpr std::array<uint32_t, 4> classes = {3, 4, 5, 10};
inline constexpr uint32_t some_class = classes[1];

/* The arrays of a thread's requests. No two threads' have a handle in common. */
struct requests {
    requests(uint32_t class_id, uint32_t thread, uint32_t count)
        : ifh(count), defns(count), infos(count), map(vlans)
    {
        for (uint32_t i = 0; i < count; ++i) {
            ifh[i] = first_handle(class_id) + thread * 10'000 + i;
            std::memset(&defns[i], static_cast<int>(i + 1), sizeof defns[i]);
            std::memset(&infos[i], static_cast<int>(i + 2), sizeof infos[i]);
        }
        for (uint32_t i = 0; i < vlans; ++i)
            map[i] = {static_cast<uint16_t>(thread), static_cast<uint16_t>(i)};
    }

    /* Any request: those for one AC in a message, the others in several. */
    qerrno make(uint32_t which, l2vpn_ac_client_hd_t hd)
    {
        switch (which % kinds) {
        case 0:
            return l2vpn_ac_create(hd, 0, size(), ifh.data(), defns.data(), infos.data());
        case 1:
            return l2vpn_ac_update(hd, 0, size(), ifh.data(), infos.data());
        case 2:
            return l2vpn_ac_delete(hd, 0, size(), ifh.data());
        case 3:
            return l2vpn_msti_vid_map(hd, 0, map.data(), vlans);
        default:
            return l2vpn_ac_create(hd, 0, 1, ifh.data(), defns.data(), infos.data());
        }
    }
    static qerrno not_found(uint32_t which)
    {
        return which % kinds == 0 || which % kinds == 4 ? ENOENT : EINVAL;
    }

    [[nodiscard]] uint32_t size() const { return static_cast<uint32_t>(ifh.size()); }
    bool operator==(const requests &other) const
    {
        const auto same = [](const auto &a, const auto &b) {
            return std::memcmp(a.data(), b.data(), a.size() * sizeof a[0]) == 0;
        };
        return ifh == other.ifh && same(defns, other.defns) && same(infos, other.infos) &&
               same(map, other.map);
    }

    static constexpr uint32_t kinds = 5;
    static constexpr uint32_t vlans = 1200;
    std::vector<ifhtype> ifh;
    std::vector<l2vpn_ac_defn_t> defns;
    std::vector<l2vpn_ac_info_t> infos;
    std::vector<l2vpn_msti_vid_map_t> map;
};

inline constexpr uint32_t acs_a_request = 10; /* four messages */

/* One class, its client, and what its callbacks were told. */
struct owner {
    std::atomic<l2vpn_ac_client_hd_t> hd = nullptr;
    std::atomic<bool> gone = true; /* a disconnect has returned */
    std::atomic<uint64_t> ups = 0;
    std::atomic<uint64_t> downs = 0;
    std::atomic<uint64_t> ups_before = 0; /* the latest connect */
    std::atomic<uint32_t> unheard = 0;    /* requests since then */
    std::atomic<uint64_t> calls = 0;      /* of the other four callbacks, and of the notice */
    std::function<void(l2vpn_ac_client_hd_t hd, uint32_t status)> on_status;
    std::function<void(l2vpn_ac_client_hd_t hd)> on_message;
};

class link_race : public testing::Test {
protected:
    void SetUp() override
    {
        s_race = this;
        static const bool configured = configure();
        ASSERT_TRUE(configured);
        m_owners_loop.emplace(event_manager());
        /* The library is initialised once in a program's life. */
        connect(some_class);
        EXPECT_EQ(disconnect(some_class), 0u);
        m_owners_loop->call([this] { m_descriptors = descriptors(); });
        process.emplace();
        process->start();
    }

    /* Whatever a test did, its clients can be disconnected, and nothing is left then. */
    void TearDown() override
    {
        forget_hooks();
        for (const uint32_t class_id : classes) {
            if (!of(class_id).gone) {
                EXPECT_EQ(disconnect(class_id), 0u);
            }
        }
        process->stop();
        EXPECT_EQ(process->faults(), "");
        EXPECT_EQ(m_wrong, "");
        process.reset();
        m_owners_loop->call([this] { EXPECT_EQ(descriptors(), m_descriptors); });
        m_owners_loop.reset();
        s_race = nullptr;
    }

    owner &of(uint32_t class_id)
    {
        return m_owners[static_cast<size_t>(std::ranges::find(classes, class_id) - classes.begin())];
    }

    void forget_hooks()
    {
        m_owners_loop->call([this] {
            for (owner &each : m_owners) {
                each.on_status = nullptr;
                each.on_message = nullptr;
            }
        });
    }

    /* On the event manager's thread, as it must be. */
    qerrno try_connect(uint32_t class_id)
    {
        qerrno rc = EINPROGRESS;
        m_owners_loop->call([&] {
            static const std::array vectors = {vector_of<0>(), vector_of<1>(), vector_of<2>(),
                                               vector_of<3>()};
            auto callbacks = vectors[static_cast<size_t>(&of(class_id) - m_owners.data())];
            l2vpn_ac_client_hd_t hd = nullptr;
            rc = l2vpn_ac_process_connect(event_manager(), 0, class_id, &callbacks, &hd);
            if (rc == EOK) {
                of(class_id).hd = hd;
                of(class_id).gone = false;
                of(class_id).ups_before = of(class_id).ups.load();
                of(class_id).unheard = 0;
            }
        });
        return rc;
    }
    void connect(uint32_t class_id) { EXPECT_EQ(try_connect(class_id), 0u); }

    /* On any thread; again while a callback of the client runs. */
    qerrno disconnect(uint32_t class_id)
    {
        qerrno rc = EDEADLK;
        while (rc == EDEADLK) {
            rc = l2vpn_ac_process_disconnect(of(class_id).hd);
            std::this_thread::yield();
        }
        of(class_id).gone = true;
        return rc;
    }

    void connect_up(uint32_t class_id)
    {
        const uint64_t before = of(class_id).ups;
        connect(class_id);
        ASSERT_TRUE(eventually([&] { return of(class_id).ups > before; }));
    }

    /* Waits for what may never be. */
    static void for_a_moment(const std::function<bool()> &condition)
    {
        for (int left = 50; left > 0 && !condition(); --left)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

    /* Until a class was up its messages wait in a queue; where that is full a request is cut short. */
    bool may_request(uint32_t class_id)
    {
        constexpr uint32_t fit = 500;
        owner &self = of(class_id);
        return self.ups > self.ups_before || ++self.unheard < fit;
    }

    /* A request's status while the process may be there or not. */
    static bool plausible(qerrno rc, uint32_t which)
    {
        return rc == EOK || rc == requests::not_found(which) || rc == ENOTCONN || rc == ENOENT;
    }

    void wrong(const std::string &text)
    {
        const std::lock_guard guard(m_lock);
        if (m_wrong.size() < 1000)
            m_wrong += text + "\n";
    }

    std::optional<link_process> process;

private:
    static bool configure()
    {
        static const system_test::temp_dir dir;
        for (const auto &[name, value] : {std::pair{"L2VPN_RUNTIME_DIR", dir.path().c_str()},
                                          {"L2VPN_NODEID", "7"},
                                          {"L2VPN_MTU", "2048"},
                                          {"L2VPN_SEND_TIMEOUT_MS", "60000"},
                                          {"L2VPN_TRACE", "on"},
                                          {"L2VPN_CAPTURE", "on"},
                                          {"L2VPN_CAPTURE_SIZE", "64"}})
            setenv(name, value, 1);
        return true;
    }

    /* The library holds on to it for the life of the program. */
    static event_mgr_p event_manager()
    {
        static const event_mgr_p evm = event_mgr_new();
        return evm;
    }

    /* On the event manager's thread, so that it holds none for the moment. */
    static size_t descriptors()
    {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return static_cast<size_t>(std::distance(begin(all), end(all)));
    }

    template <size_t index>
    static l2vpn_ac_callback_vector_t constexpr vector_of()
    {
        return {on_status<index>, on_provision<index>, on_unprovision<index>,
                on_bulk<index>,   on_header<index>,    nullptr,
                nullptr};
    }

    template <size_t index>
    static qerrno on_status(l2vpn_ac_client_hd_t hd, uint32_t status, uint32_t)
    {
        if (status == L2VPN_AC_STATUS_FLAG)
            return told(index, hd, first_handle(classes[index]));
        owner &self = s_race->m_owners[index];
        ++(status == L2VPN_AC_STATUS_UP ? self.ups : self.downs);
        if (self.on_status)
            self.on_status(hd, status);
        return EOK;
    }
    template <size_t index>
    static qerrno on_provision(l2vpn_ac_client_hd_t hd, uint32_t, ifhtype *ifh, l2vpn_ac_xcid_data_t *data,
                               uint32_t)
    {
        if (data->words[2] != ifh[0])
            s_race->wrong("data of another AC");
        return told(index, hd, ifh[0]);
    }
    template <size_t index>
    static qerrno on_unprovision(l2vpn_ac_client_hd_t hd, uint32_t, ifhtype *ifh, uint32_t)
    {
        return told(index, hd, ifh[0]);
    }
    template <size_t index>
    static qerrno on_bulk(l2vpn_ac_client_hd_t hd, uint32_t, l2vpn_ac_bulk_notify_t *records, uint32_t)
    {
        return told(index, hd, records->word);
    }
    template <size_t index>
    static qerrno on_header(l2vpn_ac_client_hd_t hd, uint32_t word2, void *, uint32_t)
    {
        return told(index, hd, ntohl(word2));
    }

    /* What came by a message comes on the event manager's thread alone, to the client of the class that it
     * was meant for, and never once a disconnect of it has returned. */
    static qerrno told(size_t index, l2vpn_ac_client_hd_t hd, uint32_t handle)
    {
        owner &self = s_race->m_owners[index];
        if (std::this_thread::get_id() != s_race->m_owners_loop->id())
            s_race->wrong("a message's callback on another thread");
        if (handle_class(handle) != classes[index])
            s_race->wrong("a message for another class");
        if (hd != self.hd || self.gone)
            s_race->wrong("a message's callback after the disconnect");
        ++self.calls;
        if (self.on_message)
            self.on_message(hd);
        return EOK;
    }

    static inline link_race *s_race = nullptr;

    std::array<owner, classes.size()> m_owners;
    std::optional<loop_thread> m_owners_loop;
    size_t m_descriptors = 0;
    std::mutex m_lock;
    std::string m_wrong;
};

} // namespace race_test

#endif
