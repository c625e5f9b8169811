#include "owners.h"

#include <algorithm>
#include <array>
#include <cstdlib>

namespace kill_test {

using namespace soak_test;

namespace {

/* The limits that cut a request into messages are those of the latest connect, so the largest comes last. */
constexpr std::array<uint32_t, 4> classes = {0, 2, 11, 6};
constexpr uint32_t most_created = 12;
constexpr std::chrono::milliseconds pace{2};

std::map<l2vpn_ac_client_hd_t, owner *> s_by_handle;
std::mutex s_handles;

ac_arrays arrays_of(const auto &records)
{
    ac_arrays made;
    for (const auto &[handle, kept] : records) {
        made.ifh.push_back(handle);
        made.defns.push_back(kept.definition);
        made.infos.push_back(kept.info);
    }
    return made;
}

/* The rows of a request that must succeed. */
json rows_of(process_test::raw_control &process, const std::string &request)
{
    json rows = json::array();
    process.send(request + "\n");
    const json end = process.answer(&rows);
    EXPECT_TRUE(end.is_object() && end.value("ok", false)) << request << ": " << end;
    return rows;
}

} // namespace

event_mgr_p event_manager()
{
    static const event_mgr_p evm = event_mgr_new();
    return evm;
}

void configure(const std::string &runtime_dir)
{
    setenv("L2VPN_RUNTIME_DIR", runtime_dir.c_str(), 1);
    setenv("L2VPN_NODEID", "7", 1);
    setenv("L2VPN_MTU", "8192", 1); /* so that what is said anew takes several messages */
    setenv("L2VPN_SEND_TIMEOUT_MS", "300", 1);
}

bool owner::connect(event_mgr_p evm)
{
    static l2vpn_ac_callback_vector_t callbacks = {on_status, on_provision, nullptr, nullptr,
                                                   nullptr,   nullptr,      nullptr};
    if (l2vpn_ac_process_connect(evm, 0, m_class, &callbacks, &m_hd) != EOK)
        return false;
    const std::lock_guard guard(s_handles);
    s_by_handle[m_hd] = this;
    return true;
}

qerrno owner::on_status(l2vpn_ac_client_hd_t hd, uint32_t status, uint32_t)
{
    const std::lock_guard guard(s_handles);
    owner &of = *s_by_handle.at(hd);
    of.m_up = status == L2VPN_AC_STATUS_UP;
    of.m_downs += status == L2VPN_AC_STATUS_DOWN;
    if (status == L2VPN_AC_STATUS_UP) {
        of.m_provisioned.clear();
        of.m_anew = true;
    }
    return EOK;
}

qerrno owner::on_provision(l2vpn_ac_client_hd_t hd, uint32_t bulk, ifhtype *ifh, l2vpn_ac_xcid_data_t *,
                           uint32_t)
{
    const std::lock_guard guard(s_handles);
    s_by_handle.at(hd)->m_provisioned.insert(ifh, ifh + bulk);
    return EOK;
}

/* What a request returns is of no interest: whatever does not arrive is followed by an UP. */
void owner::send_create(ac_arrays &acs)
{
    (void)l2vpn_ac_create(m_hd, 0, acs.size(), acs.ifh.data(), acs.defns.data(), acs.infos.data());
}

void owner::send_vlans()
{
    (void)l2vpn_msti_vid_map(m_hd, 0, m_vlans.data(), static_cast<uint32_t>(m_vlans.size()));
}

void owner::say_everything()
{
    m_anew = false;
    ac_arrays acs = arrays_of(m_records);
    if (acs.size() > 0)
        send_create(acs);
    if (!m_vlans.empty())
        send_vlans();
}

void owner::create(uint32_t most)
{
    const std::lock_guard guard(m_lock);
    ac_arrays acs = m_model.create(most);
    for (size_t i = 0; i < acs.ifh.size(); ++i)
        m_records[acs.ifh[i]] = {acs.defns[i], acs.infos[i]};
    send_create(acs);
}

void owner::update()
{
    const std::lock_guard guard(m_lock);
    ac_arrays acs = m_model.update(handles_an_owner);
    for (size_t i = 0; i < acs.ifh.size(); ++i)
        m_records.at(acs.ifh[i]).info = acs.infos[i];
    (void)l2vpn_ac_update(m_hd, 0, acs.size(), acs.ifh.data(), acs.infos.data());
}

void owner::remove()
{
    const std::lock_guard guard(m_lock);
    ac_arrays acs = m_model.remove();
    for (const ifhtype handle : acs.ifh)
        m_records.erase(handle);
    (void)l2vpn_ac_delete(m_hd, 0, acs.size(), acs.ifh.data());
}

void owner::map_vlans(uint32_t least, uint32_t most)
{
    const std::lock_guard guard(m_lock);
    m_vlans = m_model.vlan_map(least, most);
    send_vlans();
}

bool owner::knows_all_provisioned()
{
    const std::lock_guard guard(m_lock);
    const std::lock_guard told(s_handles);
    return std::ranges::all_of(m_records,
                               [&](const auto &each) { return m_provisioned.contains(each.first); });
}

void owner::step(const std::atomic<bool> &change)
{
    const std::lock_guard guard(m_lock);
    if (m_anew) {
        say_everything();
        return;
    }
    if (!change)
        return;
    switch (m_model.below(16)) {
    case 0:
        /* Thousands of VLANs in several messages; one owner is enough. */
        if (m_class == classes.front())
            map_vlans();
        break;
    case 1:
    case 2:
    case 3:
        remove();
        break;
    case 4:
    case 5:
    case 6:
    case 7:
    case 8:
        update();
        break;
    default:
        create(most_created);
        break;
    }
}

tables owner::intends()
{
    const std::lock_guard guard(m_lock);
    return m_model.holds();
}

std::string difference(std::list<owner> &owners, process_test::raw_control &process,
                       const std::set<uint32_t> &others)
{
    std::string text;
    std::map<uint32_t, tables> found;
    const auto number = [](const json &row, const char *name) { return row.at(name).get<uint32_t>(); };
    /* How much there is, a row a link, before what it is, of which there are thousands: this is asked again and
     * again until it is empty. */
    std::map<uint32_t, std::vector<size_t>> links;
    for (const json &row : rows_of(process, R"({"verb":"show clients"})"))
        for (const char *const what : {"acs", "vlans"})
            links[number(row, "class")].push_back(number(row, what));
    for (owner &each : owners) {
        const tables intended = each.intends();
        const std::vector<size_t> one_link = {intended.acs.size(), intended.vlans.size()};
        if (links[each.class_id()] != one_link)
            text += "class " + std::to_string(each.class_id()) + ": ACs and VLANs of each link " +
                    testing::PrintToString(links[each.class_id()]) + ", intended " +
                    testing::PrintToString(one_link) + "\n";
    }
    if (!text.empty())
        return text;
    const auto name_of = [&](const json &row) {
        return "class " + row.at("class").dump() + " AC " + row.at("handle").dump();
    };
    for (const json &row : rows_of(process, R"({"verb":"show acs","args":{"raw":true}})")) {
        if (others.contains(number(row, "class")))
            continue;
        const bool is_new =
            found[number(row, "class")]
                .acs
                .emplace(number(row, "handle"), ac{row.at("definition_raw").get<std::string>(),
                                                   row.at("info_raw").get<std::string>()})
                .second;
        if (!is_new)
            text += name_of(row) + " is there twice\n";
        if (row.at("state") == "batched")
            text += name_of(row) + " is held in an open batch\n";
    }
    for (const json &row : rows_of(process, R"({"verb":"show mstp"})"))
        if (row.at("kind") != "vlan" ||
            !found[number(row, "class")].vlans.emplace(number(row, "vlan"), number(row, "msti")).second)
            text += "not wanted, or there twice: " + row.dump() + "\n";
    for (owner &each : owners) {
        const tables intended = each.intends();
        const auto held = found.extract(each.class_id());
        const auto is = held ? held.mapped() : tables();
        const std::string class_text = "class " + std::to_string(each.class_id()) + ": ";
        const auto sizes = [](const auto &held_part, const auto &intended_part) {
            return std::to_string(held_part.size()) + " held, " + std::to_string(intended_part.size()) +
                   " intended\n";
        };
        if (is.acs != intended.acs)
            text += class_text + "ACs differ, " + sizes(is.acs, intended.acs);
        if (is.vlans != intended.vlans)
            text += class_text + "VLANs differ, " + sizes(is.vlans, intended.vlans);
    }
    for (const auto &[class_id, of] : found)
        text +=
            "nobody's: " + std::to_string(of.acs.size()) + " ACs of class " + std::to_string(class_id) + "\n";
    return text;
}

fleet::fleet(const std::string &runtime_dir) : m_evm(event_manager())
{
    configure(runtime_dir);
    for (const uint32_t class_id : classes) {
        m_owners.emplace_back(class_id);
        EXPECT_TRUE(m_owners.back().connect(m_evm)) << "class " << class_id;
    }
    m_threads.emplace_back([this] { event_mgr_run(m_evm); });
    for (owner &each : m_owners)
        m_threads.emplace_back([this, &each] { work(each); });
}

fleet::~fleet()
{
    m_stopping = true;
    event_mgr_stop(m_evm);
    for (std::thread &each : m_threads)
        each.join();
    for (owner &each : m_owners)
        EXPECT_EQ(each.disconnect(), 0u);
}

void fleet::work(owner &of)
{
    while (!m_stopping) {
        of.step(m_changing);
        std::this_thread::sleep_for(pace);
    }
}

void fleet::change(bool wanted)
{
    m_changing = wanted;
    for (owner &each : m_owners)
        each.step(false); /* a change in progress is over when this returns */
}

bool fleet::settled()
{
    return std::ranges::all_of(m_owners, &owner::settled);
}

} // namespace kill_test
