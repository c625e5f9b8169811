/*
 * The library on the real platform against the real L2VPN process: eight threads, each with a class of its own,
 * send random requests, disconnect and reconnect, while the process provisions what they create and an operator
 * provisions, unprovisions and sends notices on top. Afterwards the process must hold exactly what the threads
 * believe it does, and the owners must have been told all that it says it told them.
 *
 * The work is bounded in requests and in time, every wait in time. Each thread has a seed of its own, so what it
 * asks for is the same in every run; how the threads interleave is not.
 */
#include "soak.h"

#include <algorithm>

using system_test::eventually;

namespace soak_test {

namespace {

constexpr int requests_a_thread = 300;
constexpr std::chrono::seconds work_time{90};
/* The limits that cut a request into messages are those of the latest connect, whatever its class: a request
 * of the largest class here must fit one message by itself. */
constexpr uint32_t creates_a_request = 79;
constexpr uint32_t updates_a_request = 300;
constexpr uint32_t mstp_records_a_request = 64;

} // namespace

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

namespace {

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

} // namespace soak_test
