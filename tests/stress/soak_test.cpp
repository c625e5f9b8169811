/*
 * The library on the real platform against the real L2VPN process: eight threads, each with a class of its own,
 * send random requests, disconnect and reconnect, while the process provisions what they create and an operator
 * provisions and unprovisions on top. Afterwards the process must hold exactly what the threads believe it does.
 *
 * The work is bounded in requests, not in time. Each thread has a seed of its own, so what it asks for is the
 * same in every run; how the threads interleave is not.
 */
#include "../process/daemon.h"

#include <l2vpn/l2vpn_ac_api.h>
#include <platform/event_loop.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <random>
#include <thread>

using namespace process_test;

namespace {

constexpr std::array<uint32_t, 8> classes = {0, 1, 2, 3, 4, 6, 10, 11};
constexpr int requests_a_thread = 300;
/* The limits that cut a request into messages are those of the latest connect, whatever its class: a request
 * of the largest class here must fit one message by itself. */
constexpr uint32_t creates_a_request = 79;
constexpr uint32_t updates_a_request = 300;
constexpr uint32_t handles_a_thread = 600;
constexpr int connect_code = 1;

class soak;
soak *s_soak;

/* One owner: its client, and what it believes the process to hold. */
struct owner {
    uint32_t class_id = 0;
    l2vpn_ac_client_hd_t hd = nullptr;
    bool up = false;
    std::map<uint32_t, uint32_t> versions;    /* handle: version of the information */
    std::map<uint32_t, uint32_t> definitions; /* handle: version of the definition */
    std::atomic<uint64_t> provisioned = 0;
    std::atomic<int> downs = 0;
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
        for (size_t i = 0; i < classes.size(); ++i)
            m_owners[i].class_id = classes[i];
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
        }
        qerrno rc = EDEADLK;
        while (rc == EDEADLK) { /* a callback of the client is running */
            rc = l2vpn_ac_process_disconnect(hd);
            std::this_thread::yield();
        }
        EXPECT_EQ(rc, 0u);
        o.versions.clear(); /* the process withdraws the ACs of an owner that leaves */
        o.definitions.clear();
    }

    void work(owner &o);
    void request(owner &o, std::mt19937 &random);

    std::array<owner, classes.size()> m_owners;

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
            static l2vpn_ac_callback_vector_t callbacks = {on_status, on_provision, nullptr, nullptr,
                                                           nullptr,   nullptr,      nullptr};
            l2vpn_ac_client_hd_t hd = nullptr;
            EXPECT_EQ(l2vpn_ac_process_connect(m_evm, 0, o->class_id, &callbacks, &hd), 0u);
            const std::lock_guard guard(m_lock);
            o->hd = hd;
        }
    }

    /* Null for a client that is just being disconnected. */
    owner *owner_of(l2vpn_ac_client_hd_t hd)
    {
        const auto found =
            std::find_if(m_owners.begin(), m_owners.end(), [hd](const owner &o) { return o.hd == hd; });
        return found == m_owners.end() ? nullptr : &*found;
    }

    static qerrno on_status(l2vpn_ac_client_hd_t hd, uint32_t status, uint32_t)
    {
        const std::lock_guard guard(s_soak->m_lock);
        owner *const o = s_soak->owner_of(hd);
        if (o != nullptr) {
            o->downs += status == L2VPN_AC_STATUS_DOWN;
            o->up = o->up || status == L2VPN_AC_STATUS_UP;
            s_soak->m_changed.notify_all();
        }
        return EOK;
    }

    static qerrno on_provision(l2vpn_ac_client_hd_t hd, uint32_t bulk, ifhtype *ifh, l2vpn_ac_xcid_data_t *,
                               uint32_t)
    {
        const std::lock_guard guard(s_soak->m_lock);
        if (owner *const o = s_soak->owner_of(hd)) {
            for (uint32_t i = 0; i < bulk; ++i)
                EXPECT_EQ(ifh[i] / 100000, o->class_id);
            o->provisioned += bulk;
        }
        return EOK;
    }

    event_mgr_p m_evm = nullptr;
    event_context_t m_context = {};
    std::thread m_events;
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::vector<owner *> m_wanted;
};

struct arrays {
    std::vector<ifhtype> ifh;
    std::vector<l2vpn_ac_defn_t> defns;
    std::vector<l2vpn_ac_info_t> infos;

    void add(uint32_t handle, uint32_t definition, uint32_t version)
    {
        ifh.push_back(handle);
        l2vpn_ac_defn_t &defn = defns.emplace_back();
        const std::string name = "ac" + std::to_string(handle);
        name.copy(reinterpret_cast<char *>(defn.opaque), name.size());
        defn.word4 = definition;
        infos.emplace_back().words[0] = version;
    }
    uint32_t size() const { return static_cast<uint32_t>(ifh.size()); }
};

void soak::request(owner &o, std::mt19937 &random)
{
    const auto below = [&random](uint32_t limit) { return static_cast<uint32_t>(random()) % limit; };
    const uint32_t first = o.class_id * 100000 + 1;
    const uint32_t version = 1 + below(1'000'000);
    arrays a;
    switch (below(8)) {
    case 0:
    case 1:
    case 2: { /* create, some of them anew */
        const uint32_t from = below(handles_a_thread), count = 1 + below(creates_a_request);
        for (uint32_t i = 0; i < count; ++i) {
            const uint32_t handle = first + (from + i) % handles_a_thread;
            a.add(handle, version, version + i);
            o.definitions[handle] = version;
            o.versions[handle] = version + i;
        }
        EXPECT_EQ(l2vpn_ac_create(o.hd, 0, a.size(), a.ifh.data(), a.defns.data(), a.infos.data()), 0u);
        break;
    }
    case 3:
    case 4: { /* update about half of what there is */
        for (auto &[handle, held] : o.versions) {
            if (below(2) == 0 && a.size() < updates_a_request)
                a.add(handle, 0, held = version);
        }
        EXPECT_EQ(l2vpn_ac_update(o.hd, 0, a.size(), a.ifh.data(), a.infos.data()), 0u);
        break;
    }
    case 5: { /* delete about a third */
        for (const auto &[handle, held] : o.versions) {
            if (below(3) == 0)
                a.add(handle, 0, 0);
        }
        for (const ifhtype handle : a.ifh) {
            o.versions.erase(handle);
            o.definitions.erase(handle);
        }
        EXPECT_EQ(l2vpn_ac_delete(o.hd, 0, a.size(), a.ifh.data()), 0u);
        break;
    }
    case 6: {
        std::vector<l2vpn_msti_vid_map_t> map(4094);
        for (uint16_t vlan = 1; vlan <= 4094; ++vlan)
            map[vlan - 1u] = {static_cast<uint16_t>(vlan % 16), vlan};
        EXPECT_EQ(l2vpn_msti_vid_map(o.hd, 0, map.data(), 4094), 0u);
        l2vpn_msti_root_t roots[4] = {};
        EXPECT_EQ(l2vpn_mstp_root(o.hd, 0, roots, 4), 0u);
        break;
    }
    default:
        if (below(4) == 0) {
            disconnect(o);
            ASSERT_TRUE(connect(o)) << "class " << o.class_id << " does not come up again";
        }
        break;
    }
}

void soak::work(owner &o)
{
    std::mt19937 random(o.class_id + 1);
    ASSERT_TRUE(connect(o)) << "class " << o.class_id << " does not come up";
    for (int i = 0; i < requests_a_thread && !HasFatalFailure(); ++i)
        request(o, random);
}

/* A number as it stands in hexadecimal wire bytes. */
uint32_t word_at(const std::string &hex, size_t offset)
{
    return static_cast<uint32_t>(std::stoul(hex.substr(2 * offset, 8), nullptr, 16));
}

TEST_F(soak, ends_with_the_process_holding_what_its_owners_believe)
{
    std::atomic<size_t> running = m_owners.size();
    std::vector<std::thread> threads;
    for (owner &o : m_owners) {
        threads.emplace_back([this, &o, &running] {
            work(o);
            --running;
        });
    }
    for (bool provision = false; running > 0; provision = !provision)
        ctl({provision ? "provision" : "unprovision", "--class", "4"});
    for (auto &thread : threads)
        thread.join();

    using held = std::map<std::pair<uint32_t, uint32_t>, std::array<uint32_t, 2>>;
    held expected;
    uint64_t provisioned = 0;
    for (const owner &o : m_owners) {
        for (const auto &[handle, version] : o.versions)
            expected[{o.class_id, handle}] = {o.definitions.at(handle), version};
        EXPECT_EQ(o.downs, 0) << "class " << o.class_id;
        provisioned += o.provisioned;
    }
    EXPECT_GT(expected.size(), 500u);
    EXPECT_GT(provisioned, 0u);

    /* What was sent last may still be on its way. */
    held found;
    EXPECT_TRUE(eventually([&] {
        found.clear();
        for (const json &ac : acs())
            found[{ac["class"], ac["handle"]}] = {word_at(ac["definition_raw"], 608),
                                                  word_at(ac["info_raw"], 0)};
        return found == expected;
    })) << found.size()
        << " held, " << expected.size() << " expected";
    EXPECT_EQ(ask({"status"})["dropped"], 0);

    for (owner &o : m_owners)
        disconnect(o);
    EXPECT_TRUE(holds(0)) << "all owners have left";
}

} // namespace
