#include "client.h"

#include "counting_platform.h"

#include <cstdio>
#include <cstdlib>

namespace {

provisioned_fn s_call;
records_fn s_records;
void *s_context;

qerrno status(l2vpn_ac_client_hd_t, uint32_t, uint32_t)
{
    return EOK;
}

qerrno provisioned(l2vpn_ac_client_hd_t, uint32_t count, ifhtype *handles, l2vpn_ac_xcid_data_t *data,
                   uint32_t)
{
    if (s_call != nullptr)
        s_call(s_context, count, handles, data);
    return EOK;
}

qerrno records(uint32_t count, const void *at)
{
    if (s_records != nullptr)
        s_records(s_context, count, at);
    return EOK;
}

qerrno unprovisioned(l2vpn_ac_client_hd_t, uint32_t count, ifhtype *handles, uint32_t)
{
    return records(count, handles);
}

qerrno notified(l2vpn_ac_client_hd_t, uint32_t count, l2vpn_ac_bulk_notify_t *notices, uint32_t)
{
    return records(count, notices);
}

qerrno header_notified(l2vpn_ac_client_hd_t, uint32_t, void *, uint32_t)
{
    return records(1, nullptr);
}

} // namespace

void on_provisioned(provisioned_fn call, void *context)
{
    s_call = call;
    s_context = context;
}

void on_records(records_fn call, void *context)
{
    s_records = call;
    s_context = context;
}

void must(qerrno status, const char *what)
{
    if (status == EOK)
        return;
    std::fprintf(stderr, "l2vpn_bench: %s: status %u\n", what, status);
    std::exit(1);
}

void must_decode(bool right, const char *who, uint32_t class_id)
{
    if (right)
        return;
    std::fprintf(stderr, "l2vpn_bench: %s decodes class %u wrongly\n", who, class_id);
    std::exit(1);
}

bench_client::bench_client(uint32_t class_id, uint32_t mtu)
{
    static l2vpn_ac_callback_vector_t callbacks = {};
    callbacks.status_cb = status;
    callbacks.prov_cb = provisioned;
    callbacks.unprov_cb = unprovisioned;
    callbacks.bulk_notify_cb = notified;
    callbacks.hdr_notify_cb = header_notified;
    counting::set_mtu(mtu);
    must(l2vpn_ac_process_connect(counting::evm(), 0, class_id, &callbacks, &handle_), "connect");
}

bench_client::~bench_client()
{
    must(l2vpn_ac_process_disconnect(handle_), "disconnect");
}
