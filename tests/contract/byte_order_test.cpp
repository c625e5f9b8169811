/*
 * Arrays of any number of records, on the wire and back: each field of each record in network byte order,
 * wherever in the array it stands.
 */
#include "contract_test.h"

namespace {

constexpr std::uint32_t most = 40;

/* Where records of an array have fields, and how wide those are; all other bytes travel as they lie. */
struct field {
    std::size_t offset, width;
};

/* What an array of such records in this host's byte order is in network byte order, and the other way. */
bytes converted(bytes array, std::size_t record_size, const std::vector<field> &fields)
{
    if (std::endian::native == std::endian::big)
        return array;
    for (auto record = array.begin(); record != array.end();
         record += static_cast<std::ptrdiff_t>(record_size)) {
        for (const field &f : fields)
            std::reverse(record + static_cast<std::ptrdiff_t>(f.offset),
                         record + static_cast<std::ptrdiff_t>(f.offset + f.width));
    }
    return array;
}

template <typename T>
bytes bytes_of(const std::vector<T> &array)
{
    const auto *const at = reinterpret_cast<const std::uint8_t *>(array.data());
    return {at, at + array.size() * sizeof(T)};
}

/* Records whose bytes differ from their neighbours', neighbouring records' too. */
template <typename T>
std::vector<T> records(std::uint32_t count)
{
    std::vector<T> result(count);
    auto *const at = reinterpret_cast<std::uint8_t *>(result.data());
    std::uint8_t next = 7;
    for (std::size_t i = 0; i < count * sizeof(T); ++i)
        at[i] = next = static_cast<std::uint8_t>(next * 5 + 1);
    return result;
}

class byte_order : public contract {
protected:
    byte_order() { world.set.mtu = 65536; }

    bytes payload_sent()
    {
        const bytes message = sent(4).at(0);
        world.link_of(4).clear_sent();
        return {message.begin() + 16, message.end()};
    }

    /* The handles of a request of every number of ACs. */
    template <typename F>
    void expect_handles(F request)
    {
        const auto hd = connect_up(4);
        for (std::uint32_t count = 1; count <= most; ++count) {
            acs a(count);
            a.ifh = records<ifhtype>(count);
            const bytes before = bytes_of(a.ifh);
            ASSERT_EQ(request(hd, a), 0u);
            bytes handles = payload_sent();
            handles.resize(before.size());
            ASSERT_EQ(handles, converted(before, 4, {{0, 4}})) << count;
            ASSERT_EQ(bytes_of(a.ifh), before) << count << ", restored";
        }
    }

    template <typename T, typename F>
    void expect_records(F request, const std::vector<field> &fields)
    {
        const auto hd = connect_up(4);
        for (std::uint32_t count = 1; count <= most; ++count) {
            auto array = records<T>(count);
            const bytes before = bytes_of(array);
            ASSERT_EQ(request(hd, array.data(), count), 0u);
            ASSERT_EQ(payload_sent(), converted(before, sizeof(T), fields)) << count;
            ASSERT_EQ(bytes_of(array), before) << count << ", restored";
        }
    }

    /* What a message of so many records tells the client. */
    notice told(std::uint32_t type, std::uint32_t count, const bytes &payload)
    {
        bytes message = message_of(type, count, 0);
        message.insert(message.end(), payload.begin(), payload.end());
        notices.clear();
        world.link_of(4).inject(message);
        world.run();
        return notices.at(0);
    }
};

TEST_F(byte_order, of_the_handles_of_a_create)
{
    expect_handles([this](auto hd, acs &a) { return create(hd, 0, a); });
}

TEST_F(byte_order, of_the_handles_of_an_update)
{
    expect_handles([this](auto hd, acs &a) { return update(hd, 0, a); });
}

TEST_F(byte_order, of_the_handles_of_a_delete)
{
    expect_handles([this](auto hd, acs &a) { return remove(hd, 0, a); });
}

TEST_F(byte_order, of_roots)
{
    expect_records<l2vpn_msti_root_t>(
        [this](auto hd, auto *array, std::uint32_t count) { return lib.mstp_root(hd, 0, array, count); },
        {{0, 4}, {4, 2}});
}

TEST_F(byte_order, of_port_states)
{
    expect_records<l2vpn_mstp_req_t>(
        [this](auto hd, auto *array, std::uint32_t count) {
            return lib.mstp_port_request(hd, 0, array, count);
        },
        {{0, 4}, {4, 2}, {8, 4}, {12, 4}, {16, 2}, {88, 4}});
}

TEST_F(byte_order, of_a_vlan_map)
{
    expect_records<l2vpn_msti_vid_map_t>(
        [this](auto hd, auto *array, std::uint32_t count) { return lib.msti_vid_map(hd, 0, array, count); },
        {{0, 2}, {2, 2}});
}

TEST_F(byte_order, of_the_handles_of_a_provision)
{
    connect_up(4);
    for (std::uint32_t count = 1; count <= most; ++count) {
        const bytes handles = bytes_of(records<ifhtype>(count));
        bytes payload = handles;
        payload.resize(handles.size() + count * std::size_t{28});
        ASSERT_EQ(bytes_of(told(7, count, payload).ifhs), converted(handles, 4, {{0, 4}})) << count;
    }
}

TEST_F(byte_order, of_the_handles_of_an_unprovision)
{
    connect_up(4);
    for (std::uint32_t count = 1; count <= most; ++count) {
        const bytes handles = bytes_of(records<ifhtype>(count));
        ASSERT_EQ(bytes_of(told(8, count, handles).ifhs), converted(handles, 4, {{0, 4}})) << count;
    }
}

TEST_F(byte_order, of_the_records_of_a_bulk_notice)
{
    const std::vector<field> fields = {{0, 4}, {4, 2}, {8, 4}, {12, 4}, {16, 4}, {20, 4}, {28, 4}};
    connect_up(4);
    for (std::uint32_t count = 1; count <= most; ++count) {
        const bytes received = bytes_of(records<l2vpn_ac_bulk_notify_t>(count));
        ASSERT_EQ(bytes_of(told(13, count, received).records), converted(received, 32, fields)) << count;
    }
}

} // namespace
