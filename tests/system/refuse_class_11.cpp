/* Stands before the library's own: the first connect of class 11 finds no memory. */
#include <cerrno>
#include <dlfcn.h>
#include <l2vpn/l2vpn_ac_api.h>

extern "C" qerrno l2vpn_ac_process_connect(event_mgr_p evm, uint32_t spare, l2vpn_ac_class_t class_id,
                                           l2vpn_ac_callback_vector_t *callbacks, l2vpn_ac_client_hd_t *hd)
{
    static bool refused = false;
    if (class_id == 11 && !refused) {
        refused = true;
        return ENOMEM;
    }
    static const auto next =
        reinterpret_cast<decltype(&l2vpn_ac_process_connect)>(dlsym(RTLD_NEXT, "l2vpn_ac_process_connect"));
    return next(evm, spare, class_id, callbacks, hd);
}
