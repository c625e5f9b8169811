/*
 * Requests of the control socket, a line each, and the verbs that answer them, over a process with ACs of
 * several classes, MSTP records and an open batch.
 */
#include "fuzz.h"

#include "../process/support.h"
#include "control_request.h"

namespace {

using namespace l2vpnd;

/* Made anew when a request has changed it, so that an input by itself does the same again. */
struct scene {
    process_test::bench bench{process_options{}};

    scene()
    {
        using namespace process_test;
        for (const uint32_t class_id : {0U, 6U, 7U, 8U, 11U, 17U}) {
            owner *const one = bench.connect(class_id);
            bench.process.received(*one, create(class_id, {1, 2}));
            bench.process.want(*one, one->list(ac_stage::settled).first, l2vpn_process::can_provision(*one));
        }
        owner *const other = bench.connect(3, 8, 64);
        bench.process.received(*other, create(3, {5}, 1));
        bench.process.received(*other, header(9, 2, 3).u16(1).u16(100).u16(2).u16(200).bytes());
        bench.process.received(*other, header(14, 1, 3).raw(pattern(8, 1)).bytes());
        bench.process.received(*other, header(11, 1, 3).raw(pattern(96, 1)).bytes());
        bench.process.received(*other, header(12, 1, 0).raw(pattern(72, 1)).bytes());
    }
};

bool commands(const std::string &verb)
{
    return verb == "provision" || verb == "unprovision" || verb == "notify";
}

/* True: the process may not be what it was. */
bool answer_line(l2vpn_process &process, const std::string &line)
{
    json id;
    bool changed = false;
    try {
        const control_request request = read_request(line, id);
        const answer_ptr answer =
            start_verb({process, "/run/L2VPN.sock", "/run/L2VPN.ctl"}, request.verb, request.args);
        changed = commands(request.verb);
        for (bool more = true; more;) {
            row_writer rows;
            more = answer->step(rows);
            FUZZ_CHECK(json::accept("[" + rows.rows() + "]"));
        }
        FUZZ_CHECK(json::accept(to_line(answer->result())));
    } catch (const refusal &why) {
        FUZZ_CHECK(!why.code.empty() && !why.text.empty());
        FUZZ_CHECK(json::accept(to_line({{"code", why.code}, {"text", why.text}})));
    }
    FUZZ_CHECK(id.is_null() || id.is_number() || id.is_string());
    const std::string shown = to_line(id);
    FUZZ_CHECK(json::accept(shown) && shown.find('\n') == std::string::npos);
    return changed;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static std::unique_ptr<scene> now;
    std::string_view rest(reinterpret_cast<const char *>(data), size);
    bool changed = false;
    while (!rest.empty()) {
        const size_t end = std::min(rest.find('\n'), rest.size());
        if (now == nullptr)
            now = std::make_unique<scene>();
        changed = answer_line(now->bench.process, std::string(rest.substr(0, end))) || changed;
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    if (changed)
        now.reset();
    else if (now != nullptr)
        now->bench.lines.clear();
    return 0;
}
