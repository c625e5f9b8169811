/*
 * The library on the real platform against the real L2VPN process: eight threads, each with a class of its own,
 * send random requests, disconnect and reconnect, while the process provisions what they create and an operator
 * provisions, unprovisions and sends notices on top. Afterwards the process must hold exactly what the threads
 * believe it does, and the owners must have been told all that it says it told them.
 *
 * The work is bounded in requests and in time, every wait in time. Each thread has a seed of its own, so what it
 * asks for is the same in every run; how the threads interleave is not.
 */
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

using namespace process_test;
using namespace soak_test;
using std::chrono::steady_clock;

namespace {

constexpr std::array<uint32_t, 8> classes = {0, 1, 2, 3, 4, 6, 10, 11};
constexpr uint32_t provisioned_class = 4; /* this and the notified one stay connected: nothing may be lost */
constexpr uint32_t notified_class = 11;
constexpr int requests_a_thread = 300;
constexpr std::chrono::seconds work_time{90};
/* The limits that cut a request into messages are those of the latest connect, whatever its class: a request
 * of the largest class here must fit one message by itself. */
constexpr uint32_t creates_a_request = 79;
constexpr uint32_t updates_a_request = 300;
constexpr uint32_t mstp_records_a_request = 64;
constexpr int connect_code = 1;

constexpr uint32_t notice_word = 0x01020304;
constexpr uint32_t notice_flags = 0x100;

class soak;
soak *s_soak;

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

void soak::request(owner &o)
{
    model &m = o.believes;
    switch (m.below(10)) {
    case 0:
    case 1:
    case 2: {
        ac_arrays a = m.create(creates_a_request);
        EXPECT_EQ(l2vpn_ac_create(o.hd, 0, a.size(), a.ifh.data(), a.defns.data(), a.infos.data()), 0u);
        break;
    }
    case 3:
    case 4: {
        ac_arrays a = m.update(updates_a_request);
        EXPECT_EQ(l2vpn_ac_update(o.hd, 0, a.size(), a.ifh.data(), a.infos.data()), 0u);
        break;
    }
    case 5: {
        ac_arrays a = m.remove();
        EXPECT_EQ(l2vpn_ac_delete(o.hd, 0, a.size(), a.ifh.data()), 0u);
        break;
    }
    case 6: {
        auto map = m.vlan_map();
        EXPECT_EQ(l2vpn_msti_vid_map(o.hd, 0, map.data(), static_cast<uint32_t>(map.size())), 0u);
        break;
    }
    case 7: {
        auto roots = m.roots(mstp_records_a_request);
        EXPECT_EQ(l2vpn_mstp_root(o.hd, 0, roots.data(), static_cast<uint32_t>(roots.size())), 0u);
        auto states = m.states(mstp_records_a_request);
        EXPECT_EQ(l2vpn_mstp_port_request(o.hd, 0, states.data(), static_cast<uint32_t>(states.size())), 0u);
        break;
    }
    case 8: {
        l2vpn_mstp_prot_t protection = m.protection();
        EXPECT_EQ(l2vpn_mstp_protect(o.hd, 0, &protection), 0u);
        break;
    }
    default:
        if (m.below(4) == 0 && o.class_id != provisioned_class && o.class_id != notified_class) {
            disconnect(o);
            ASSERT_TRUE(connect(o)) << "class " << o.class_id << " does not come up again";
        }
        break;
    }
}

void soak::work(owner &o)
{
    const auto until = steady_clock::now() + work_time;
    for (int i = 0; i < requests_a_thread && steady_clock::now() < until && !HasFatalFailure(); ++i)
        request(o);
}

/* What an operator does while the owners work; `sent` counts the notices. */
void soak::operate(notices &sent)
{
    const json provisioned = {{"class", provisioned_class}};
    const auto notify = [this](const char *kind, json args) {
        args["kind"] = kind;
        args["class"] = notified_class;
        ask("notify", args);
    };
    while (m_running > 0) {
        ask("unprovision", provisioned); /* which may find none */
        ask("provision", provisioned);
        notify("bulk", {{"flags", notice_flags},
                        {"records", {{{"word", notice_word}}, {{"word", notice_word + 1}}}}});
        sent.bulk += 2;
        notify("header", {{"word2", notice_word}, {"word3", notice_word + 1}});
        sent.header += 1;
        notify("flags", {{"flags", notice_flags}});
        sent.flags += 1;
    }
}

/* Everything that is kept for an owner, as the process shows it. What was sent last may still be on its way. */
bool soak::process_holds_what_is_believed()
{
    const auto number = [](const json &row, const char *name) { return row.at(name).get<uint32_t>(); };
    const auto text = [](const json &row, const char *name) { return row.at(name).get<std::string>(); };
    std::map<uint32_t, tables> found;
    for (const json &row : acs())
        found[number(row, "class")].acs[number(row, "handle")] = {text(row, "definition_raw"),
                                                                  text(row, "info_raw")};
    json mstp = json::array();
    ask("show mstp", {{"raw", true}}, &mstp);
    for (const json &row : mstp) {
        tables &of = found[number(row, "class")];
        const std::string kind = text(row, "kind");
        if (kind == "vlan")
            of.vlans[number(row, "vlan")] = number(row, "msti");
        else if (kind == "protection")
            of.protections[text(row, "name")] = text(row, "raw");
        else
            (kind == "root" ? of.roots : of.states)[{number(row, "handle"), number(row, "msti")}] =
                text(row, "raw");
    }
    m_difference.clear();
    for (const owner &o : m_owners) {
        const tables &held = found[o.class_id];
        const tables &believed = o.believes.holds();
        const auto compare = [&](const char *what, const auto &is, const auto &should) {
            if (is != should)
                m_difference += "class " + std::to_string(o.class_id) + ": " + what + " differ (" +
                                std::to_string(is.size()) + " held, " + std::to_string(should.size()) +
                                " believed)\n";
        };
        compare("ACs", held.acs, believed.acs);
        compare("roots", held.roots, believed.roots);
        compare("port states", held.states, believed.states);
        compare("protections", held.protections, believed.protections);
        compare("VLANs", held.vlans, believed.vlans);
    }
    return m_difference.empty();
}

bool soak::owners_know_what_is_provisioned()
{
    const json rows = acs();
    const std::lock_guard guard(m_lock);
    m_difference.clear();
    for (const json &row : rows) {
        const auto of = std::ranges::find(m_owners, row["class"].get<uint32_t>(), &owner::class_id);
        const bool known = of->provisioned[row["handle"].get<uint32_t>()];
        if (row["state"] != (known ? "provisioned" : "created"))
            m_difference += row["name"].get<std::string>() + " is " + row["state"].get<std::string>() + "\n";
    }
    return m_difference.empty();
}

notices soak::told(uint32_t class_id)
{
    const std::lock_guard guard(m_lock);
    return std::ranges::find(m_owners, class_id, &owner::class_id)->told;
}

TEST_F(soak, ends_with_the_process_holding_what_its_owners_believe)
{
    for (owner &o : m_owners)
        ASSERT_TRUE(connect(o)) << "class " << o.class_id << " does not come up";
    m_running = m_owners.size();
    std::vector<std::thread> threads;
    for (owner &o : m_owners) {
        threads.emplace_back([this, &o] {
            work(o);
            --m_running;
        });
    }
    notices sent;
    operate(sent);
    for (auto &thread : threads)
        thread.join();

    EXPECT_TRUE(eventually([this] { return process_holds_what_is_believed(); })) << m_difference;
    EXPECT_TRUE(eventually([this] { return owners_know_what_is_provisioned(); })) << m_difference;
    for (const owner &o : m_owners) {
        EXPECT_EQ(o.downs, 0) << "class " << o.class_id;
        EXPECT_FALSE(o.believes.holds() == tables()) << "class " << o.class_id << " has done nothing";
    }

    EXPECT_GT(sent.bulk, 0u);
    EXPECT_TRUE(eventually([&] {
        const notices all = told(notified_class);
        return all.bulk == sent.bulk && all.header == sent.header && all.flags == sent.flags;
    })) << told(notified_class).bulk
        << " of " << sent.bulk << " records, " << told(notified_class).header << " of " << sent.header
        << " header notices, " << told(notified_class).flags << " of " << sent.flags << " flags notices";
    json counters = json::array();
    ask("show counters", {{"owners", true}, {"class", provisioned_class}}, &counters);
    ASSERT_EQ(counters.size(), 1u);
    const json &count = counters[0]["acs"];
    EXPECT_TRUE(eventually([&] {
        const notices all = told(provisioned_class);
        return count["provisioned"] == all.provisioned && count["unprovisioned"] == all.unprovisioned;
    })) << count;
    EXPECT_GT(count["provisioned"], 0);
    EXPECT_GT(count["unprovisioned"], 0);
    EXPECT_EQ(ask("status")["dropped"], 0);

    for (owner &o : m_owners)
        disconnect(o);
    EXPECT_TRUE(eventually([this] { return acs().empty(); })) << "all owners have left";
    EXPECT_TRUE(eventually([this] { return process_holds_what_is_believed(); })) << m_difference;
}

} // namespace
