/*
 * What the options that connect to nothing print with --json: one document each.
 */
#ifndef OWNER_DOCUMENTS_H
#define OWNER_DOCUMENTS_H

#include "compare.h"

namespace owner {

std::string document_of_fields();
// With the names that 'l2vpnctl show acs --json --raw' has for the same.
std::string document_of_expected(const interface_list &interfaces);
std::string document_of(const std::vector<comparison> &made);

} // namespace owner

#endif
