/*
 * The service manager that l2vpnd may run under: what it passes in, and what it is told. Without one, nothing
 * is passed in and nobody is told.
 */
#ifndef L2VPND_SUPERVISOR_H
#define L2VPND_SUPERVISOR_H

#include <string>

namespace l2vpnd {

/* Listening sockets that were made before this process was; -1: not passed in. */
struct passed_sockets {
    int owners = -1;
    int operators = -1;
    std::string operators_path;
};

/* Takes what was passed in, told apart by kind: sequenced packets for owners, a stream for operators. False:
 * `*error` is a line that says what is wrong with it. */
bool take_passed_sockets(passed_sockets *passed, std::string *error);

void tell_ready(const std::string &where);
void tell_reloading();
void tell_stopping();

} // namespace l2vpnd

#endif
