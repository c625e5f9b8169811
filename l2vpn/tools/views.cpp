#include "views.h"

#include "cells.h"

#include <algorithm>
#include <ctime>
#include <utility>

namespace l2vpnctl {

namespace {

/* A list of `name value` lines, nested objects indented. */
void list(const json &object, const std::string &indent, const style &how, std::string &out)
{
    size_t widest = 0;
    for (const auto &[key, value] : object.items()) {
        widest = std::max(widest, key.size());
    }
    for (const auto &[key, value] : object.items()) {
        std::string name = key;
        std::replace(name.begin(), name.end(), '_', ' ');
        out += indent + tinted(name, tint::heading, how);
        if (value.is_object()) {
            out += value.empty() ? std::string(widest + 2 - key.size(), ' ') + "none\n" : "\n";
            list(value, indent + "  ", how, out);
        } else {
            out += std::string(widest + 2 - key.size(), ' ') + text_of(value) + "\n";
        }
    }
}

class status_view : public view {
public:
    std::string print(const json &result, const style &how) override
    {
        json shown = result;
        shown["uptime"] = span_of(result.value("uptime", int64_t{0}));
        const time_t since = result.value("since", int64_t{0});
        char text[32];
        tm broken_down{};
        strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", localtime_r(&since, &broken_down));
        shown["since"] = text;
        shown["nodeid"] = hex(result, "nodeid").text;
        std::string out;
        list(shown, "", how, out);
        return out;
    }
};

class clients_view : public view {
public:
    void take(const json &row) override
    {
        m_table.add({plain(row, "owner"), hex(row, "node"), plain(row, "class"), plain(row, "pid"),
                     plain(row, "uid"), plain(row, "mtu"), age(row, "since"), plain(row, "joins"),
                     plain(row, "acs"), plain(row, "waiting"), plain(row, "messages"), fault(row, "dropped"),
                     plain(row, "sent")});
    }
    std::string print(const json &result, const style &how) override
    {
        return (m_table.empty() ? "" : m_table.print(how)) +
               count_of(result.value("owners", uint64_t{0}), "client", "clients") + "\n";
    }

private:
    table m_table{{{"OWNER", true},
                   {"NODE"},
                   {"CLASS", true},
                   {"PID", true},
                   {"UID", true},
                   {"MTU", true},
                   {"AGE", true},
                   {"JOINS", true},
                   {"ACS", true},
                   {"WAITING", true},
                   {"MESSAGES", true},
                   {"DROPPED", true},
                   {"SENT", true}}};
};

class batches_view : public view {
public:
    void take(const json &row) override
    {
        m_table.add({plain(row, "owner"), hex(row, "node"), plain(row, "class"), plain(row, "type"),
                     age(row, "since"), plain(row, "messages"), plain(row, "records")});
    }
    std::string print(const json &result, const style &how) override
    {
        return (m_table.empty() ? "" : m_table.print(how)) +
               count_of(result.value("open", uint64_t{0}), "open batch", "open batches") + "\n";
    }

private:
    table m_table{{{"OWNER", true},
                   {"NODE"},
                   {"CLASS", true},
                   {"TYPE"},
                   {"AGE", true},
                   {"MESSAGES", true},
                   {"RECORDS", true}}};
};

class counters_view : public view {
public:
    void take(const json &row) override
    {
        json counters = row;
        const std::string title = "owner " + plain(row, "owner").text + ", node " + hex(row, "node").text +
                                  ", class " + plain(row, "class").text;
        for (const char *key : {"owner", "node", "class"}) {
            counters.erase(key);
        }
        m_owners.emplace_back(title, std::move(counters));
    }
    std::string print(const json &result, const style &how) override
    {
        std::string out;
        list(result, "", how, out);
        for (const auto &[title, counters] : m_owners) {
            out += "\n" + tinted(title, tint::heading, how) + "\n";
            list(counters, "  ", how, out);
        }
        return out;
    }

private:
    std::vector<std::pair<std::string, json>> m_owners;
};

class provision_view : public view {
public:
    std::string print(const json &result, const style & /*how*/) override
    {
        std::string out = count_of(result.value("matched", uint64_t{0}), "AC matches", "ACs match") + ": " +
                          text_of(result.at("accepted")) + " accepted";
        for (const char *key : {"skipped", "refused", "waiting"}) {
            if (result.value(key, uint64_t{0}) != 0) {
                out += ", " + text_of(result.at(key)) + " " + key;
            }
        }
        return out + "\n";
    }
};

class notify_view : public view {
public:
    std::string print(const json &result, const style & /*how*/) override
    {
        const uint64_t failed = result.value("failed", uint64_t{0});
        return "sent to " + count_of(result.value("sent", uint64_t{0}), "client", "clients") +
               (failed == 0 ? "" : ", not to " + std::to_string(failed)) + "\n";
    }
};

} // namespace

view_ptr view_of_status()
{
    return std::make_unique<status_view>();
}
view_ptr view_of_clients()
{
    return std::make_unique<clients_view>();
}
view_ptr view_of_batches()
{
    return std::make_unique<batches_view>();
}
view_ptr view_of_counters()
{
    return std::make_unique<counters_view>();
}
view_ptr view_of_provision()
{
    return std::make_unique<provision_view>();
}
view_ptr view_of_notify()
{
    return std::make_unique<notify_view>();
}

} // namespace l2vpnctl
