#include "json.h"

template class nlohmann::basic_json<nlohmann::ordered_map>;
template l2vpnd::json l2vpnd::json::parse<const std::string &>(const std::string &,
                                                               l2vpnd::json::parser_callback_t, bool, bool);
template l2vpnd::json l2vpnd::json::parse<std::string>(std::string &&, l2vpnd::json::parser_callback_t, bool,
                                                       bool);
