#include "output.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>

namespace
{

using State = Mem_Inspection::State;
using Outcome = Mem_Inspection::Outcome;
using Verdict = Mem_Inspection::Verdict;

using Row = std::vector<std::string>;

/// Rows of one width. Numbers stand at the right; the last column is as wide as it happens to be.
class Table
{
public:
    explicit Table(std::vector<std::size_t> numbers) : m_numbers(std::move(numbers)) {}

    void Add(Row row)
    {
        m_widths.resize(std::max(m_widths.size(), row.size()));
        for (std::size_t at = 0; at < row.size(); ++at)
            m_widths[at] = std::max(m_widths[at], row[at].size());
        m_rows.push_back(std::move(row));
    }

    std::string Text() const
    {
        std::string text;
        for (const Row& row : m_rows) {
            for (std::size_t at = 0; at + 1 < row.size(); ++at)
                text += padded(row[at], at) + "  ";
            text += row.back() + "\n";
        }
        return text;
    }

private:
    std::string padded(const std::string& cell, std::size_t column) const
    {
        const std::string space(m_widths[column] - cell.size(), ' ');
        const bool is_number =
            std::find(m_numbers.begin(), m_numbers.end(), column) != m_numbers.end();
        return is_number ? space + cell : cell + space;
    }

    const std::vector<std::size_t> m_numbers;
    std::vector<Row> m_rows;
    std::vector<std::size_t> m_widths;
};

std::string size_text(std::uint64_t bytes)
{
    char text[32];
    if (bytes != 0 && bytes < 1 << 20)
        std::snprintf(text, sizeof text, "%.0f KB", static_cast<double>(bytes) / (1 << 10));
    else
        std::snprintf(text, sizeof text, "%.1f MB", static_cast<double>(bytes) / (1 << 20));
    return text;
}

std::string age_text(std::uint64_t seconds)
{
    constexpr std::uint64_t minute = 60, hour = 60 * minute, day = 24 * hour;
    if (seconds < 2 * minute)
        return std::to_string(seconds) + " s";
    if (seconds < 2 * hour)
        return std::to_string(seconds / minute) + " min";
    return seconds < 2 * day ? std::to_string(seconds / hour) + " h"
                             : std::to_string(seconds / day) + " d";
}

std::string or_dash(const std::string& text)
{
    return text.empty() ? "-" : Shown(text);
}

std::string entry_size_text(const Mem_Inspection::Entry& entry)
{
    return entry.kind == Mem_Inspection::Kind::Other ? "-" : size_text(entry.bytes);
}

std::string process_text(const Mem_Inspection::Entry& entry)
{
    return entry.process == 0 ? "-" : std::to_string(entry.process);
}

std::string counted(std::size_t count, const char* one)
{
    return std::to_string(count) + " " + one + (count == 1 ? "" : "s");
}

std::string counted(const Sum& sum, const char* one)
{
    return counted(sum.count, one) + ", " + size_text(sum.bytes);
}

std::string nothing(const std::vector<std::string>& folders)
{
    std::string text = "There is nothing";
    for (const std::string& folder : folders)
        text += (&folder == &folders.front() ? " in " : " and ") + Shown(folder);
    return text + ".\n";
}

std::size_t count_others(const Mem_Inspection::Listing& listing)
{
    return static_cast<std::size_t>(
        std::count_if(listing.entries.begin(), listing.entries.end(),
                      [](const auto& entry) { return entry.kind == Mem_Inspection::Kind::Other; }));
}

std::string summary(const Mem_Inspection::Listing& listing)
{
    const Sum alive = SumOf(listing, State::Alive);
    const Sum dead = SumOf(listing, State::Dead);
    const std::size_t others = count_others(listing);
    const std::size_t unknown = SumOf(listing, State::Unknown).count - others;
    std::string text = std::to_string(alive.count) + " in use, " + size_text(alive.bytes) + "; " +
                       std::to_string(dead.count) + " left over, " + size_text(dead.bytes);
    if (dead.count != 0)
        text += " (see `mempager clean`)";
    if (unknown != 0)
        text += "; " + std::to_string(unknown) + " can't be judged";
    if (others != 0)
        text += "; " + std::to_string(others) + " not this library's";
    return text + ".\n";
}

std::string summary(const Mem_Inspection::Cleaning& cleaning, bool trial)
{
    const Sum kept = SumOf(cleaning, Outcome::Kept);
    std::string text = trial ? "Would remove " : "Removed ";
    text += counted(SumOf(cleaning, Outcome::Removed), "leftover");
    if (cleaning.removals.empty())
        text = "Nothing is left over";
    if (kept.count != 0)
        text += "; can't remove " + counted(kept, "leftover");
    if (cleaning.unjudged != 0)
        text += "; " + counted(cleaning.unjudged, "private file") + " of others can't be judged";
    return text + ".\n";
}

std::string summary(const Findings& findings)
{
    const std::size_t warnings = Count(findings, Verdict::Warning);
    const std::size_t bad = Count(findings, Verdict::Bad);
    if (warnings + bad == 0)
        return "All is well.\n";
    return counted(warnings, "warning") + ", " + std::to_string(bad) + " bad.\n";
}

} // namespace

Sum SumOf(const Mem_Inspection::Listing& listing, State state)
{
    Sum sum;
    for (const Mem_Inspection::Entry& entry : listing.entries)
        if (entry.state == state)
            sum.Add(entry);
    return sum;
}

Sum SumOf(const Mem_Inspection::Cleaning& cleaning, Outcome outcome)
{
    Sum sum;
    for (const Mem_Inspection::Removal& removal : cleaning.removals)
        if (removal.outcome == outcome)
            sum.Add(removal.leftover);
    return sum;
}

std::size_t Count(const Findings& findings, Verdict verdict)
{
    return static_cast<std::size_t>(
        std::count_if(findings.begin(), findings.end(),
                      [verdict](const auto& finding) { return finding.verdict == verdict; }));
}

const char* WordFor(Mem_Inspection::Kind kind)
{
    switch (kind) {
    case Mem_Inspection::Kind::Region:
        return "region";
    case Mem_Inspection::Kind::SpareRegion:
        return "spare region";
    case Mem_Inspection::Kind::TempFile:
        return "temp file";
    case Mem_Inspection::Kind::LostLink:
        return "lost link";
    case Mem_Inspection::Kind::Other:
        break;
    }
    return "other";
}

const char* WordFor(State state)
{
    if (state == State::Unknown)
        return "unknown";
    return state == State::Alive ? "alive" : "dead";
}

const char* WordFor(Outcome outcome, bool trial)
{
    if (outcome == Outcome::Removed)
        return trial ? "removable" : "removed";
    return outcome == Outcome::Gone ? "gone" : "kept";
}

const char* WordFor(Verdict verdict)
{
    if (verdict == Verdict::Ok)
        return "ok";
    return verdict == Verdict::Warning ? "warning" : "bad";
}

/// A backslash stands for itself where it parts folders: no name has one there.
std::string Shown(const std::string& name)
{
    constexpr bool parts_folders = std::filesystem::path::preferred_separator == '\\';
    std::string text;
    for (const char byte : name) {
        char escape[8];
        std::snprintf(escape, sizeof escape, "\\x%02x", static_cast<unsigned char>(byte));
        if (byte == '\\' && !parts_folders)
            text += "\\\\";
        else
            text += byte >= ' ' && byte <= '~' ? std::string(1, byte) : escape;
    }
    return text;
}

std::string AsText(const Mem_Inspection::Listing& listing)
{
    if (listing.entries.empty())
        return nothing(listing.folders);
    Table table({1, 3, 5});
    table.Add({"KIND", "SIZE", "STATE", "PROCESS", "PROGRAM", "AGE", "OWNER", "NAME"});
    for (const Mem_Inspection::Entry& entry : listing.entries)
        table.Add({WordFor(entry.kind), entry_size_text(entry), WordFor(entry.state),
                   process_text(entry), or_dash(entry.program), age_text(entry.age),
                   entry.is_own ? "-" : Shown(entry.owner), Shown(entry.path)});
    return table.Text() + summary(listing);
}

std::string AsText(const Mem_Inspection::Cleaning& cleaning, bool trial)
{
    Table table({2, 3});
    for (const auto& [leftover, outcome, reason] : cleaning.removals)
        table.Add({WordFor(outcome, trial), WordFor(leftover.kind), size_text(leftover.bytes),
                   process_text(leftover),
                   Shown(leftover.path) + (reason.empty() ? "" : ": " + Shown(reason))});
    return table.Text() + summary(cleaning, trial);
}

std::string AsText(const Findings& findings)
{
    Table table({});
    for (const auto& [verdict, subject, value, advice] : findings) {
        table.Add({WordFor(verdict), subject, Shown(value)});
        if (!advice.empty())
            table.Add({"", "", "-> " + Shown(advice)});
    }
    return table.Text() + summary(findings);
}
