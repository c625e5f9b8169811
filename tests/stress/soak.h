/*
 * What a soak is made of: owners, each with a class of its own and what it believes the process holds, and the
 * event manager that they connect on.
 */
#ifndef TESTS_STRESS_SOAK_H
#define TESTS_STRESS_SOAK_H

#include "daemon.h"
#include "soak_model.h"

#include <l2vpn/l2vpn_ac_api.h>
#include <platform/event_loop.h>

#include <arpa/inet.h>
#include <array>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace soak_test {

using process_test::daemon_test;
using process_test::json;
using process_test::raw_control;
using std::chrono::steady_clock;

inline constexpr std::array<uint32_t, 8> classes = {0, 1, 2, 3, 4, 6, 10, 11};
inline constexpr uint32_t provisioned_class =
    4; /* this and the notified one stay connected: nothing may be lost */
inline constexpr uint32_t notified_class = 11;
inline constexpr int connect_code = 1;

inline constexpr uint32_t notice_word = 0x01020304;
inline constexpr uint32_t notice_flags = 0x100;

class soak;
inline soak *s_soak;

/* What an owner was told. */
struct notices {
    uint64_t provisioned = 0;
    uint64_t unprovisioned = 0;
    uint64_t bulk = 0;
    uint64_t header = 0;
    uint64_t flags = 0;
    bool operator==(const notices &) const = default;
};

struct owner {
    model believes{0};
    uint32_t class_id = 0;
    l2vpn_ac_client_hd_t hd = nullptr;
    bool up = false;
    int downs = 0;
    notices told;
    std::map<uint32_t, bool> provisioned; /* by handle, as it was told last */
};

class soak : public daemon_test {
protected:
    void SetUp() override
    {
        s_soak = this;
        setenv("L2VPN_RUNTIME_DIR", m_dir.path().c_str(), 1);
        setenv("L2VPN_NODEID", "7", 1);
        /* A busy machine is no failure: a send that finds no room for long is a fault. */
        setenv("L2VPN_SEND_TIMEOUT_MS", "60000", 1);
        start({"--auto-provision"});
        m_evm = event_mgr_new();
        ASSERT_NE(m_evm, nullptr);
        ASSERT_EQ(event_async_attach_event(m_evm, connect_code, on_connect_wanted, this, &m_context), 0);
        for (size_t i = 0; i < classes.size(); ++i) {
            m_owners[i].class_id = classes[i];
            m_owners[i].believes = model(classes[i]);
        }
        m_events = std::thread([this] { event_mgr_run(m_evm); });
    }

    void TearDown() override
    {
        if (m_events.joinable()) {
            event_mgr_stop(m_evm);
            m_events.join();
        }
        s_soak = nullptr;
        /* The library holds on to its event manager for the life of the process. */
    }

    /* What the control socket answers, and its rows. That no AC matches is no failure. */
    json ask(const char *verb, const json &args = json::object(), json *rows = nullptr)
    {
        raw_control control(m_dir.file("L2VPN.ctl"));
        control.send(json({{"verb", verb}, {"args", args}}).dump() + "\n");
        const json end = control.answer(rows);
        EXPECT_TRUE(end.value("ok", false) || end["error"]["code"] == "not_found") << verb << ": " << end;
        return end.value("result", json::object());
    }

    json acs()
    {
        json rows = json::array();
        ask("show acs", {{"raw", true}}, &rows);
        return rows;
    }

    /* Connects on the event manager's thread and waits until the process is there. */
    bool connect(owner &o)
    {
        std::unique_lock guard(m_lock);
        m_wanted.push_back(&o);
        event_async_post(m_evm, connect_code);
        return m_changed.wait_for(guard, system_test::patience, [&] { return o.up; });
    }

    void disconnect(owner &o)
    {
        l2vpn_ac_client_hd_t hd = nullptr;
        {
            /* Forgotten first: once the disconnect has succeeded the next client may have the same handle. */
            const std::lock_guard guard(m_lock);
            std::swap(hd, o.hd);
            o.up = false;
            o.provisioned.clear();
        }
        const auto until = steady_clock::now() + system_test::patience;
        qerrno rc = EDEADLK;
        while (rc == EDEADLK && steady_clock::now() < until) { /* a callback of the client is running */
            rc = l2vpn_ac_process_disconnect(hd);
            std::this_thread::yield();
        }
        EXPECT_EQ(rc, 0u) << "class " << o.class_id;
        o.believes.forget();
    }

    void work(owner &o);
    void request(owner &o);
    void operate(notices &sent);
    bool process_holds_what_is_believed();
    bool owners_know_what_is_provisioned();
    notices told(uint32_t class_id);

    std::array<owner, classes.size()> m_owners;
    std::atomic<size_t> m_running = 0;
    std::string m_difference;

private:
    static void on_connect_wanted(event_context_t *, void *arg)
    {
        static_cast<soak *>(arg)->connect_wanted();
    }

    void connect_wanted()
    {
        /* Not under the lock: the library calls status_cb with its own lock held, and status_cb takes ours. */
        std::vector<owner *> wanted;
        {
            const std::lock_guard guard(m_lock);
            wanted.swap(m_wanted);
        }
        for (owner *const o : wanted) {
            static l2vpn_ac_callback_vector_t callbacks = {on_status, on_provision, on_unprovision, on_bulk,
                                                           on_header, nullptr,      nullptr};
            l2vpn_ac_client_hd_t hd = nullptr;
            EXPECT_EQ(l2vpn_ac_process_connect(m_evm, 0, o->class_id, &callbacks, &hd), 0u);
            const std::lock_guard guard(m_lock);
            o->hd = hd;
        }
    }

    /* Calls `what` with the owner of a client, unless it is just being disconnected. */
    template <typename What>
    static qerrno with_owner(l2vpn_ac_client_hd_t hd, What what)
    {
        const std::lock_guard guard(s_soak->m_lock);
        for (owner &o : s_soak->m_owners)
            if (o.hd == hd)
                what(o);
        s_soak->m_changed.notify_all();
        return EOK;
    }

    static qerrno on_status(l2vpn_ac_client_hd_t hd, uint32_t status, uint32_t argument)
    {
        return with_owner(hd, [&](owner &o) {
            o.downs += status == L2VPN_AC_STATUS_DOWN;
            o.up = o.up || status == L2VPN_AC_STATUS_UP;
            if (status == L2VPN_AC_STATUS_FLAG) {
                EXPECT_EQ(argument, L2VPN_AC_FLAG_NOTICE | notice_flags);
                ++o.told.flags;
            }
        });
    }

    static qerrno on_provision(l2vpn_ac_client_hd_t hd, uint32_t bulk, ifhtype *ifh,
                               l2vpn_ac_xcid_data_t *data, uint32_t)
    {
        return with_owner(hd, [&](owner &o) {
            for (uint32_t i = 0; i < bulk; ++i) {
                EXPECT_EQ(ifh[i] / 100000, o.class_id);
                EXPECT_EQ(data[i].words[1], 0x0a0b0c0du) << "the process's node";
                EXPECT_EQ(data[i].words[2], ifh[i]);
                EXPECT_TRUE(heads_belong_to(data[i].words + 3, ifh[i])) << "class " << o.class_id;
                o.provisioned[ifh[i]] = true;
            }
            o.told.provisioned += bulk;
        });
    }

    static qerrno on_unprovision(l2vpn_ac_client_hd_t hd, uint32_t bulk, ifhtype *ifh, uint32_t)
    {
        return with_owner(hd, [&](owner &o) {
            for (uint32_t i = 0; i < bulk; ++i)
                o.provisioned[ifh[i]] = false;
            o.told.unprovisioned += bulk;
        });
    }

    static qerrno on_bulk(l2vpn_ac_client_hd_t hd, uint32_t bulk, l2vpn_ac_bulk_notify_t *records,
                          uint32_t flags)
    {
        return with_owner(hd, [&](owner &o) {
            for (uint32_t i = 0; i < bulk; ++i)
                EXPECT_EQ(records[i].word, notice_word + i);
            EXPECT_TRUE(bulk == 0 || flags == notice_flags);
            o.told.bulk += bulk;
        });
    }

    static qerrno on_header(l2vpn_ac_client_hd_t hd, uint32_t word2, void *, uint32_t word3)
    {
        return with_owner(hd, [&](owner &o) {
            EXPECT_EQ(ntohl(word2), notice_word);
            EXPECT_EQ(ntohl(word3), notice_word + 1);
            ++o.told.header;
        });
    }

    event_mgr_p m_evm = nullptr;
    event_context_t m_context = {};
    std::thread m_events;
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::vector<owner *> m_wanted;
};

} // namespace soak_test

#endif
