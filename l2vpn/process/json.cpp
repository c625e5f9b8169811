#include "json.h"

template l2vpnd::json l2vpnd::json::parse<const std::string &>(const std::string &,
                                                               l2vpnd::json::parser_callback_t, bool, bool);
template l2vpnd::json l2vpnd::json::parse<std::string>(std::string &&, l2vpnd::json::parser_callback_t, bool,
                                                       bool);
template std::string nlohmann::basic_json<nlohmann::ordered_map>::dump(int, char, bool,
                                                                       l2vpnd::json::error_handler_t) const;
