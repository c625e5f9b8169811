/*
 * The control socket, spoken by hand.
 */
#include "daemon.h"

using namespace process_test;

namespace {

std::string code_of(const json &answer)
{
    return answer.is_object() && answer.contains("error") ? answer["error"]["code"].get<std::string>()
                                                          : "none";
}

} // namespace

TEST_F(daemon_test, control_answers_errors_and_lives_on)
{
    start();
    raw_control control(control_path());
    const std::pair<const char *, const char *> rows[] = {
        {"", "bad_json"},
        {"hello", "bad_json"},
        {"{\"verb\":", "bad_json"},
        {"{\"verb\":\"\xff\"}", "bad_json"},
        {"17", "bad_request"},
        {"[]", "bad_request"},
        {"{}", "bad_request"},
        {"{\"verb\":17}", "bad_request"},
        {"{\"verb\":\"status\",\"id\":[1]}", "bad_request"},
        {"{\"verb\":\"status\",\"more\":1}", "bad_request"},
        {"{\"verb\":\"reboot\"}", "unknown_verb"},
        {"{\"verb\":\"status\",\"args\":[]}", "bad_argument"},
        {"{\"verb\":\"status\",\"args\":{\"x\":1}}", "bad_argument"},
        {"{\"verb\":\"show acs\",\"args\":{\"class\":18}}", "bad_argument"},
        {"{\"verb\":\"show acs\",\"args\":{\"class\":-1}}", "bad_argument"},
        {"{\"verb\":\"show acs\",\"args\":{\"class\":\"6\"}}", "bad_argument"},
        {"{\"verb\":\"show acs\",\"args\":{\"class\":1.5}}", "bad_argument"},
        {"{\"verb\":\"show acs\",\"args\":{\"node\":4294967296}}", "bad_argument"},
        {"{\"verb\":\"show acs\",\"args\":{\"name\":5}}", "bad_argument"},
        {"{\"verb\":\"show acs\",\"args\":{\"raw\":1}}", "bad_argument"},
        {"{\"verb\":\"show acs\",\"args\":{\"state\":\"asleep\"}}", "bad_argument"},
        {"{\"verb\":\"show acs\",\"args\":{\"handles\":7}}", "bad_argument"},
        {"{\"verb\":\"show acs\",\"args\":{\"handles\":[\"7\"]}}", "bad_argument"},
        {"{\"verb\":\"show mstp\",\"args\":{\"kind\":\"tree\"}}", "bad_argument"},
        {"{\"verb\":\"provision\"}", "bad_argument"},
        {"{\"verb\":\"provision\",\"args\":{\"all\":true,\"class\":3}}", "bad_argument"},
        {"{\"verb\":\"provision\",\"args\":{\"class\":17}}", "no_layout"},
        {"{\"verb\":\"provision\",\"args\":{\"class\":3}}", "not_found"},
        {"{\"verb\":\"unprovision\",\"args\":{\"all\":true}}", "not_found"},
        {"{\"verb\":\"notify\",\"args\":{\"all\":true}}", "bad_argument"},
        {"{\"verb\":\"notify\",\"args\":{\"kind\":\"flags\"}}", "bad_argument"},
        {"{\"verb\":\"notify\",\"args\":{\"kind\":\"flags\",\"all\":true}}", "not_found"},
        {"{\"verb\":\"notify\",\"args\":{\"kind\":\"bulk\",\"all\":true}}", "bad_argument"},
        {"{\"verb\":\"notify\",\"args\":{\"kind\":\"bulk\",\"all\":true,\"records\":[5]}}", "bad_argument"},
        {"{\"verb\":\"notify\",\"args\":{\"kind\":\"bulk\",\"all\":true,\"records\":[{\"octets\":\"0\"}]}}",
         "bad_argument"},
        {"{\"verb\":\"notify\",\"args\":{\"kind\":\"bulk\",\"all\":true,\"records\":[{\"octets\":\"0g00\"}]}"
         "}",
         "bad_argument"},
        {"{\"verb\":\"notify\",\"args\":{\"kind\":\"bulk\",\"all\":true,\"records\":[{\"words\":[1]}]}}",
         "bad_argument"},
        {"{\"verb\":\"notify\",\"args\":{\"kind\":\"bulk\",\"all\":true,\"records\":[{\"half\":65536}]}}",
         "bad_argument"},
        {"{\"verb\":\"notify\",\"args\":{\"kind\":\"bulk\",\"all\":true,\"records\":[{\"what\":1}]}}",
         "bad_argument"},
    };
    for (const auto &[line, code] : rows) {
        control.send(std::string(line) + "\n");
        const json answer = control.answer();
        EXPECT_EQ(code_of(answer), code) << line;
        EXPECT_EQ(answer["ok"], false);
        EXPECT_NE(answer["error"]["text"], "");
    }
    control.send("{\"verb\":\"status\"}\n");
    EXPECT_EQ(control.answer()["ok"], true);
}

TEST_F(daemon_test, control_refuses_deep_nesting_and_lives_on)
{
    start();
    raw_control control(control_path());
    const auto nested = [](size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
    const std::string objects = [] {
        std::string text;
        for (int i = 0; i < 100000; i++) {
            text += "{\"a\":";
        }
        return text;
    }();
    const std::string too_deep[] = {
        R"({"verb":"status","id":)" + nested(400000) + "}",
        R"({"verb":"status","args":)" + nested(400000) + "}",
        R"({"verb":)" + nested(16) + "}",
        nested(17),
        std::string(400000, '['),
        R"({"verb":"a \\","args":)" + objects + "1" + std::string(100001, '}'),
    };
    for (const std::string &line : too_deep) {
        control.send(line + "\n");
        EXPECT_EQ(code_of(control.answer()), "bad_request") << line.substr(0, 80);
    }
    control.send(R"({"verb":"status","args":{"x":)" + nested(14) + "}}\n");
    EXPECT_EQ(code_of(control.answer()), "bad_argument") << "16 is deep enough";
    control.send(R"({"verb":"show acs","args":{"name":"\")" + std::string(40, '[') + "\"}}\n");
    EXPECT_EQ(control.answer()["ok"], true) << "a text may hold anything";
}

TEST_F(daemon_test, control_survives_texts_that_are_cut_in_the_middle_of_a_character)
{
    start();
    raw_control control(control_path());
    for (size_t before = 61; before <= 64; before++) {
        control.send(R"({"id":"\u00e9","verb":")" + std::string(before, 'x') + "\u20ac\"}\n");
        const json answer = control.answer();
        EXPECT_EQ(code_of(answer), "unknown_verb") << before;
        EXPECT_EQ(answer["id"], "\u00e9");
    }
    control.send("{\"verb\":\"status\",\"id\":\"\xe2\x82\"}\n");
    EXPECT_EQ(code_of(control.answer()), "bad_json");
    control.send("{\"verb\":\"status\"}\n");
    EXPECT_EQ(control.answer()["ok"], true);
}

TEST_F(daemon_test, control_answers_in_order_with_the_ids_given)
{
    start();
    raw_peer owner = peer(3);
    ASSERT_TRUE(owner.send(create(3, {1})));
    ASSERT_TRUE(holds(1));
    raw_control control(control_path());
    control.send("{\"verb\":\"show acs\",\"id\":\"first\"}\n{\"verb\":\"nothing\",\"id\":2}\n"
                 "{\"verb\":\"status\"}\n{\"verb\":\"sta");
    const json rows = control.line();
    EXPECT_EQ(rows["id"], "first");
    EXPECT_EQ(rows["rows"].size(), 1U);
    EXPECT_EQ(control.line(), json({{"id", "first"}, {"ok", true}, {"result", {{"acs", 1}}}}));
    const json second = control.line();
    EXPECT_EQ(second["id"], 2);
    EXPECT_EQ(code_of(second), "unknown_verb");
    EXPECT_FALSE(control.line().contains("id"));
    control.send("tus\",\"id\":4}\n");
    EXPECT_EQ(control.line()["id"], 4) << "a request may come in pieces";
}

TEST_F(daemon_test, control_takes_requests_however_they_are_cut)
{
    start();
    raw_control control(control_path());
    std::string requests;
    for (int id = 1; id <= 9; id++) {
        requests += R"({"verb":"status","id":)" + std::to_string(id) + "}\n";
    }
    /* Byte by byte to the middle of the second, then to the middle of the last at once. */
    const size_t length = requests.size() / 9;
    for (const char byte : requests.substr(0, length * 3 / 2)) {
        control.send(std::string(1, byte));
    }
    EXPECT_EQ(control.answer()["id"], 1);
    control.send(requests.substr(length * 3 / 2, length * 7));
    for (int id = 2; id <= 8; id++) {
        EXPECT_EQ(control.answer()["id"], id);
    }
    EXPECT_FALSE(control.readable());
    control.send(requests.substr(length * 3 / 2 + length * 7));
    EXPECT_EQ(control.answer()["id"], 9);
}

TEST_F(daemon_test, control_answers_one_that_sends_nothing_more)
{
    start();
    raw_control control(control_path());
    control.send("{\"verb\":\"status\",\"id\":1}\n{\"verb\":\"status\",\"id\":2}\n");
    control.end_sending();
    EXPECT_EQ(control.line()["id"], 1);
    EXPECT_EQ(control.line()["id"], 2);
    EXPECT_TRUE(control.ended());
}

TEST_F(daemon_test, control_ends_a_connection_whose_line_does_not_end)
{
    start();
    raw_control control(control_path());
    control.send(std::string(3U << 20, 'x'));
    EXPECT_EQ(code_of(control.line()), "line_too_long");
    EXPECT_TRUE(control.ended());
    EXPECT_EQ(ask({"status"})["acs"], 0);
}

TEST_F(daemon_test, control_takes_a_long_line_that_ends)
{
    start();
    raw_peer owner = peer(3);
    std::string records = "{\"word\":1}";
    for (int i = 1; i < 2000; i++) {
        records += ",{\"word\":" + std::to_string(i + 1) +
                   ",\"words\":[4294967295,4294967295,4294967295,4294967295]}";
    }
    raw_control control(control_path());
    control.send("{\"verb\":\"notify\",\"args\":{\"kind\":\"bulk\",\"all\":true,\"records\":[" + records +
                 "]}}\n");
    EXPECT_EQ(control.answer()["result"]["sent"], 1);
    const std::optional<octets> message = owner.receive();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->size(), 16 + 2000 * 32U);
    EXPECT_EQ(l2vpnd::get32(message->data() + 16 + 1999 * 32), 2000U);

    control.send("{\"verb\":\"notify\",\"args\":{\"kind\":\"bulk\",\"all\":true,\"records\":[" + records +
                 "," + records + "]}}\n");
    EXPECT_EQ(code_of(control.answer()), "not_sent") << "longer than the link takes";
}

TEST_F(daemon_test, control_refuses_objects_with_more_members_than_any_request_has)
{
    start();
    raw_control control(control_path());
    const auto object = [](int members) {
        std::string text = "{\"0\":0";
        for (int i = 1; i < members; i++) {
            text += ",\"" + std::to_string(i) + "\":0";
        }
        return text + "}";
    };
    const std::string too_large[] = {
        object(33),
        object(80000),
        R"({"verb":"status","args":)" + object(80000) + "}",
        R"({"verb":"notify","args":{"kind":"bulk","all":true,"records":[[1,2],)" + object(33) + "]}}",
    };
    for (const std::string &line : too_large) {
        control.send(line + "\n");
        const json answer = control.answer();
        EXPECT_EQ(code_of(answer), "bad_request") << line.substr(0, 80);
        EXPECT_EQ(answer["error"]["text"], "an object has at most 32 members");
    }
    control.send(R"({"verb":"status","args":)" + object(32) + "}\n");
    EXPECT_EQ(code_of(control.answer()), "bad_argument") << "32 are looked at one by one";
    control.send("]]]}}}{,,,\n");
    EXPECT_EQ(code_of(control.answer()), "bad_json");
    control.send("{\"verb\":\"status\"}\n");
    EXPECT_EQ(control.answer()["ok"], true);
}

TEST_F(daemon_test, control_connections_that_are_idle_lock_nobody_out)
{
    start();
    std::vector<std::unique_ptr<raw_control>> connections;
    for (int i = 0; i < 32; i++) {
        connections.push_back(std::make_unique<raw_control>(control_path()));
        connections.back()->send("{\"verb\":\"status\"}\n");
        ASSERT_EQ(connections.back()->answer()["ok"], true);
    }
    connections.front()->send("{\"verb\":\"status\"}\n");
    ASSERT_EQ(connections.front()->answer()["ok"], true);
    EXPECT_EQ(ctl({"status"}).status, 0);
    const json last = connections[1]->line();
    EXPECT_EQ(code_of(last), "too_many_clients");
    EXPECT_NE(last["error"]["text"].get<std::string>().find("idle for longest"), std::string::npos);
    EXPECT_TRUE(connections[1]->ended());
    for (const size_t other : {0u, 2u, 31u}) {
        connections[other]->send("{\"verb\":\"status\"}\n");
        EXPECT_EQ(connections[other]->answer()["ok"], true) << other;
    }
}

TEST_F(daemon_test, control_limits_the_connections_that_it_answers)
{
    start();
    raw_peer owner = peer(0);
    for (uint32_t part = 0; part < 20; part++) {
        ASSERT_TRUE(owner.send(create(0, handles_from(1 + part * 100, 100))));
    }
    ASSERT_TRUE(holds(2000));
    std::vector<std::unique_ptr<raw_control>> connections;
    for (int i = 0; i < 32; i++) { /* each reads the first of its rows, and no more */
        connections.push_back(std::make_unique<raw_control>(control_path()));
        connections.back()->send("{\"verb\":\"show acs\",\"args\":{\"raw\":true}}\n");
        ASSERT_TRUE(connections.back()->line().contains("rows"));
    }
    raw_control one_more(control_path());
    EXPECT_EQ(code_of(one_more.line()), "too_many_clients");
    EXPECT_TRUE(one_more.ended());
    const system_test::result refused = ctl({"status"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("too many"), std::string::npos) << refused.err;
    json rows = json::array();
    EXPECT_EQ(connections.back()->answer(&rows)["ok"], true) << "they lose nothing by it";
    connections.pop_back();
    EXPECT_TRUE(eventually([this] { return ctl({"status"}).status == 0; }));
}

TEST_F(daemon_test, control_forgets_one_that_hangs_up_in_the_middle_of_an_answer)
{
    start();
    raw_peer owner = peer(0);
    for (uint32_t part = 0; part < 20; part++) {
        ASSERT_TRUE(owner.send(create(0, handles_from(1 + part * 100, 100))));
    }
    ASSERT_TRUE(holds(2000));
    for (int i = 0; i < 100; i++) {
        raw_control control(control_path());
        control.send("{\"verb\":\"show acs\",\"args\":{\"raw\":true}}\n");
        ASSERT_TRUE(control.line().contains("rows"));
    }
    EXPECT_TRUE(holds(2000));
    EXPECT_EQ(stop(), 0);
}
