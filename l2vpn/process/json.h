/*
 * JSON documents, whose members keep the order in which they were added.
 *
 * Reading and writing them is compiled once, in json.cpp: it takes the compiler as long as most of the sources that
 * use it, and stays fast where those are not optimised.
 */
#ifndef L2VPND_JSON_H
#define L2VPND_JSON_H

#include <nlohmann/json.hpp>
#include <string>

namespace l2vpnd {

using json = nlohmann::ordered_json;

} // namespace l2vpnd

extern template l2vpnd::json
l2vpnd::json::parse<const std::string &>(const std::string &, l2vpnd::json::parser_callback_t, bool, bool);
extern template l2vpnd::json l2vpnd::json::parse<std::string>(std::string &&, l2vpnd::json::parser_callback_t,
                                                              bool, bool);
extern template std::string
nlohmann::basic_json<nlohmann::ordered_map>::dump(int, char, bool, l2vpnd::json::error_handler_t) const;

#endif
