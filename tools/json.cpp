#include "output.h"

#include <nlohmann/json.hpp>

namespace
{

using Json = nlohmann::ordered_json;

std::string printed(const Json& json)
{
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

Json json_of(const Mem_Inspection::Entry& entry)
{
    return {{"kind", WordFor(entry.kind)}, {"state", WordFor(entry.state)},
            {"path", entry.path},          {"link", entry.link},
            {"bytes", entry.bytes},        {"process", entry.process},
            {"program", entry.program},    {"owner", entry.owner},
            {"own", entry.is_own},         {"removable", entry.may_remove},
            {"age_seconds", entry.age}};
}

Json json_of(const Sum& sum)
{
    return {{"count", sum.count}, {"bytes", sum.bytes}};
}

} // namespace

std::string AsJson(const Mem_Inspection::Listing& listing)
{
    Json json = {{"entries", Json::array()},
                 {"alive", json_of(SumOf(listing, Mem_Inspection::State::Alive))},
                 {"dead", json_of(SumOf(listing, Mem_Inspection::State::Dead))},
                 {"folders", listing.folders},
                 {"unread", listing.unread}};
    for (const Mem_Inspection::Entry& entry : listing.entries)
        json["entries"].push_back(json_of(entry));
    return printed(json);
}

std::string AsJson(const Mem_Inspection::Cleaning& cleaning, bool trial)
{
    Json json = {{"dry_run", trial},
                 {"leftovers", Json::array()},
                 {"removed", json_of(SumOf(cleaning, Mem_Inspection::Outcome::Removed))},
                 {"kept", json_of(SumOf(cleaning, Mem_Inspection::Outcome::Kept))},
                 {"unjudged", cleaning.unjudged},
                 {"folders", cleaning.folders},
                 {"unread", cleaning.unread}};
    for (const Mem_Inspection::Removal& removal : cleaning.removals) {
        Json leftover = json_of(removal.leftover);
        leftover["outcome"] = WordFor(removal.outcome, trial);
        leftover["reason"] = removal.reason;
        json["leftovers"].push_back(std::move(leftover));
    }
    return printed(json);
}

std::string AsJson(const Findings& findings)
{
    Json json = {{"findings", Json::array()},
                 {"warnings", Count(findings, Mem_Inspection::Verdict::Warning)},
                 {"bad", Count(findings, Mem_Inspection::Verdict::Bad)}};
    for (const Mem_Inspection::Finding& finding : findings)
        json["findings"].push_back({{"verdict", WordFor(finding.verdict)},
                                    {"subject", finding.subject},
                                    {"value", finding.value},
                                    {"advice", finding.advice}});
    return printed(json);
}
