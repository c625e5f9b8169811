/*
 * One request of the control socket, from the text of its line. Nothing in it is trusted.
 */
#ifndef L2VPND_CONTROL_REQUEST_H
#define L2VPND_CONTROL_REQUEST_H

#include "verbs.h"

#include <string>

namespace l2vpnd {

constexpr int request_max_depth = 16;   /* of arrays and objects */
constexpr int request_max_members = 32; /* of an object */

struct control_request {
    std::string verb;
    json args;
};

/* Throws refusal: the line is no request. `id` is written as soon as it is known, because the answer carries
 * it also when what follows is wrong; it stays as it is when there is none. */
control_request read_request(const std::string &line, json &id);

} // namespace l2vpnd

#endif
