#include "control_request.h"

#include <array>
#include <utility>

namespace l2vpnd {

namespace {

/* Refuses a line that nests deeper, or has an object with more members, than any request needs. It is looked at
 * before it is parsed, so that nothing is ever made of such a line: adding a member to an object costs as many
 * comparisons as it has members. */
void check_shape(const std::string &line)
{
    struct level {
        bool is_object;
        int commas;
    };
    std::array<level, request_max_depth + 1> levels{}; /* the first is outside of everything */
    size_t depth = 0;
    bool in_text = false;
    for (size_t i = 0; i < line.size(); i++) {
        const char c = line[i];
        if (in_text) {
            i += c == '\\' ? 1 : 0;
            in_text = c != '"';
        } else if (c == '"') {
            in_text = true;
        } else if (c == '[' || c == '{') {
            if (++depth == levels.size()) {
                throw refusal{"bad_request",
                              "a request nests at most " + std::to_string(request_max_depth) + " deep"};
            }
            levels[depth] = {c == '{', 0};
        } else if (c == ']' || c == '}') {
            depth -= depth > 0 ? 1 : 0;
        } else if (c == ',' && levels[depth].is_object && ++levels[depth].commas == request_max_members) {
            throw refusal{"bad_request",
                          "an object has at most " + std::to_string(request_max_members) + " members"};
        }
    }
}

} // namespace

control_request read_request(const std::string &line, json &id)
{
    check_shape(line);
    json request = json::parse(line, nullptr, false);
    if (request.is_discarded()) {
        throw refusal{"bad_json", "the line is not JSON"};
    }
    if (!request.is_object()) {
        throw refusal{"bad_request", "a request must be an object"};
    }
    if (const auto given = request.find("id"); given != request.end() && !given->is_null()) {
        if (!given->is_number() && !given->is_string()) {
            throw refusal{"bad_request", "\"id\" must be a number or a text"};
        }
        id = *given;
    }
    const auto verb = request.find("verb");
    if (verb == request.end() || !verb->is_string()) {
        throw refusal{"bad_request", "\"verb\" must be a text"};
    }
    for (const auto &[name, value] : request.items()) {
        if (name != "id" && name != "verb" && name != "args") {
            throw refusal{"bad_request", "a request has \"id\", \"verb\" and \"args\" only"};
        }
    }
    const auto args = request.find("args");
    return {verb->get<std::string>(), args == request.end() ? json::object() : std::move(*args)};
}

} // namespace l2vpnd
