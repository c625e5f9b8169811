/*
 * The library's client on the counting platform.
 */
#ifndef BENCH_CLIENT_H
#define BENCH_CLIENT_H

#include <l2vpn/l2vpn_ac_api.h>

/* One client, of a class and with an MTU, as long as it lives. Ends the program when the library refuses. */
class bench_client {
public:
    bench_client(uint32_t class_id, uint32_t mtu);
    ~bench_client();

    l2vpn_ac_client_hd_t handle() const { return handle_; }

    bench_client(const bench_client &) = delete;
    bench_client &operator=(const bench_client &) = delete;

private:
    l2vpn_ac_client_hd_t handle_ = nullptr;
};

/* What the latest provision gave the owner; valid while its callback runs. */
using provisioned_fn = void (*)(void *context, uint32_t count, const ifhtype *handles,
                                const l2vpn_ac_xcid_data_t *data);
void on_provisioned(provisioned_fn call, void *context);

/* The same for the records of an unprovision or of a notice; a header notice is one without a record. */
using records_fn = void (*)(void *context, uint32_t count, const void *records);
void on_records(records_fn call, void *context);

/* Ends the program unless a request was accepted. */
void must(qerrno status, const char *what);

/* The same unless a message of a class was decoded to what it was made of. */
void must_decode(bool right, const char *who, uint32_t class_id);

#endif
