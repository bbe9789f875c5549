#include "Mem/Mem_Inspection.h"

#include "Mem/Mem_Configuration.h"
#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_TempFolder.h"
#include "Platform/Inspection.h"
#include "Platform/LastError.h"
#include "Platform/Mappings.h"
#include "Platform/Process.h"

#include <algorithm>
#include <map>
#include <tuple>

namespace
{

using Entry = Mem_Inspection::Entry;
using Kind = Mem_Inspection::Kind;
using State = Mem_Inspection::State;
using Facts = Platform::Inspection::FileFacts;

/// A path with single separators, so that two of one file are equal.
std::string tidied(std::string path)
{
    const char separator = Platform::Inspection::Get().PathSeparator();
    const auto twice = [separator](char a, char b) { return a == separator && b == separator; };
    path.erase(std::unique(path.begin(), path.end(), twice), path.end());
    return path;
}

std::string joined(const std::string& folder, const std::string& name)
{
    return tidied(folder + Platform::Inspection::Get().PathSeparator() + name);
}

std::string last_part(const std::string& path)
{
    return path.substr(path.rfind(Platform::Inspection::Get().PathSeparator()) + 1);
}

RWCString first_part_of_temp_files()
{
    return MEM_MemoryConfiguration::GetInstance()->FileHeap_TempFileName();
}

/// Whether a name is one that the library gives to what is of that kind.
bool has_form(const std::string& name, Kind kind)
{
    return kind == Kind::TempFile
               ? BaseMapInfo::IsTempFileName(name.c_str(), first_part_of_temp_files())
               : BaseMapInfo::IsUniqueName(name.c_str());
}

/// Who made what bears the path, by its name; 0 if that can't be a process.
long creator_of(const std::string& path)
{
    return std::max(BaseMapInfo::GetProcessIdFromUniqueName(RWCString(path.c_str())), 0);
}

class NamesIn final : public Platform::Mappings::Names
{
public:
    NamesIn(const std::string& folder, const std::string& prefix)
    {
        Platform::Inspection::Get().ListFiles(folder.c_str(), prefix.c_str(), *this);
    }
    void Take(const char* name) override { m_names.emplace_back(name); }
    auto begin() const { return m_names.begin(); }
    auto end() const { return m_names.end(); }

private:
    std::vector<std::string> m_names;
};

State state_of(Facts::Mark mark)
{
    if (mark == Facts::Mark::Unknown)
        return State::Unknown;
    return mark == Facts::Mark::Held ? State::Alive : State::Dead;
}

/// What bears the path, as one of that kind if it can be; else as another's.
Entry entry_for(const std::string& path, Kind kind, const Facts& facts)
{
    Entry entry;
    entry.path = path;
    entry.owner = facts.owner;
    entry.is_own = facts.is_own;
    entry.may_remove = facts.may_remove;
    entry.age = facts.age;
    if (facts.kind != Facts::Kind::Plain || !has_form(last_part(path), kind))
        return entry;
    entry.kind = kind;
    entry.state = state_of(facts.mark);
    entry.bytes = facts.bytes;
    entry.process = creator_of(path);
    if (entry.state == State::Alive) {
        char program[64];
        Platform::Inspection::Get().ProgramOf(path.c_str(), entry.process, program, sizeof program);
        entry.program = program;
    }
    return entry;
}

/// What a link in the folder of mappings leads to: a region that lies in the temp folder has the
/// link's name, a temp file that regions are carved from has one of its own.
Kind kind_behind(const std::string& link, const std::string& target)
{
    return last_part(link) == last_part(target) ? Kind::SpareRegion : Kind::TempFile;
}

/// Puts the names of a process into the order of their numbers.
bool comes_before(const Entry& a, const Entry& b)
{
    const std::size_t length_a = a.path.size(), length_b = b.path.size();
    return std::tie(a.kind, a.process, length_a, a.path) <
           std::tie(b.kind, b.process, length_b, b.path);
}

/// A walk through the temp folder, then through the folder of mappings, whose links can lead to
/// what was found before.
class Walk
{
public:
    explicit Walk(const std::string& temp_folder)
        : m_temp_folder(temp_folder), m_mapping_folder(m_platform.MappingFolder())
    {
    }

    Mem_Inspection::Listing Run()
    {
        if (may_list(m_temp_folder)) {
            add_all(m_temp_folder, temp_file_prefix(), Kind::TempFile);
            if (!is_mapping_folder(m_temp_folder))
                add_all(m_temp_folder, BaseMapInfo::s_BlockPrefix, Kind::SpareRegion);
        }
        if (!m_mapping_folder.empty() && may_list(m_mapping_folder))
            add_all(m_mapping_folder, BaseMapInfo::s_BlockPrefix, Kind::Region);
        return {sorted(), std::move(m_folders), std::move(m_unread)};
    }

private:
    static std::string temp_file_prefix()
    {
        return std::string(first_part_of_temp_files().data()) + BaseMapInfo::s_BlockPrefix;
    }

    bool may_list(const std::string& folder)
    {
        Facts facts;
        const bool may = m_platform.Inspect(joined(folder, ".").c_str(), facts) && facts.may_list;
        (may ? m_folders : m_unread).push_back(folder);
        return may;
    }

    /// Whether a path leads to the folder of mappings, be it under another name.
    bool is_mapping_folder(const std::string& folder) const
    {
        Facts facts[2];
        return m_platform.Inspect(joined(folder, ".").c_str(), facts[0]) &&
               m_platform.Inspect(joined(m_mapping_folder, ".").c_str(), facts[1]) &&
               std::ranges::equal(facts[0].identity, facts[1].identity);
    }

    void add_all(const std::string& folder, const std::string& prefix, Kind kind)
    {
        for (const std::string& name : NamesIn(folder, prefix)) {
            Facts facts;
            const std::string path = joined(folder, name);
            if (!m_platform.Inspect(path.c_str(), facts))
                continue; // it has gone meanwhile
            if (facts.kind == Facts::Kind::Link && kind == Kind::Region && has_form(name, kind))
                add_link(path, facts);
            else
                add(entry_for(path, kind, facts));
        }
    }

    void add(Entry entry)
    {
        const std::string path = entry.path;
        m_entries.insert_or_assign(path, std::move(entry));
    }

    /// Adds a link to the entry of the file that it leads to, if both belong to the same user:
    /// other links could have been planted. A link to a file that wasn't found before is followed
    /// only if it is this user's own. All others stand for themselves.
    void add_link(const std::string& link, const Facts& facts)
    {
        const std::string target = tidied(facts.target);
        const auto known = m_entries.find(target);
        if (!target.empty() && known != m_entries.end() && known->second.owner == facts.owner)
            known->second.link = link;
        else if (!target.empty() && facts.is_own)
            add_behind_own(link, target, facts);
        else
            add(entry_for(link, Kind::Other, facts));
    }

    void add_behind_own(const std::string& link, const std::string& target, const Facts& facts)
    {
        Facts behind;
        Entry entry = entry_for(link, Kind::Other, facts);
        if (facts.is_lost) {
            entry.kind = Kind::LostLink;
            entry.state = State::Dead;
            entry.process = creator_of(link);
        } else if (m_platform.Inspect(target.c_str(), behind) && behind.is_own &&
                   behind.kind == Facts::Kind::Plain) {
            entry = entry_for(target, kind_behind(link, target), behind);
            entry.link = link;
        }
        add(std::move(entry));
    }

    std::vector<Entry> sorted()
    {
        std::vector<Entry> entries;
        for (auto& [path, entry] : m_entries)
            entries.push_back(std::move(entry));
        std::sort(entries.begin(), entries.end(), comes_before);
        return entries;
    }

    Platform::Inspection& m_platform = Platform::Inspection::Get();
    const std::string m_temp_folder;
    const std::string m_mapping_folder;
    std::map<std::string, Entry> m_entries; ///< by path
    std::vector<std::string> m_folders;
    std::vector<std::string> m_unread;
};

bool is_there(const std::string& path)
{
    Facts facts;
    return !path.empty() && Platform::Inspection::Get().Inspect(path.c_str(), facts);
}

/// The text for this thread's last failure.
std::string error_text()
{
    char text[256];
    Platform::Process::Get().ErrorText(Platform::LastError(), text, sizeof text);
    return text;
}

/// What became of `path`, whose removal was tried.
Mem_Inspection::Removal outcome_for(const Entry& leftover, bool removed, const std::string& path)
{
    const std::string reason = removed ? "" : error_text();
    if (removed)
        return {leftover, Mem_Inspection::Outcome::Removed, {}};
    if (is_there(path))
        return {leftover, Mem_Inspection::Outcome::Kept, reason};
    return {leftover, Mem_Inspection::Outcome::Gone, {}};
}

/// The file goes first: its link then leads nowhere, and only such links are taken away.
Mem_Inspection::Removal remove(const Entry& leftover)
{
    const auto remove_link = [&](const std::string& link) {
        return outcome_for(leftover, Platform::Inspection::Get().RemoveLostLink(link.c_str()),
                           link);
    };
    if (leftover.kind == Kind::LostLink)
        return remove_link(leftover.path);
    auto removal = outcome_for(
        leftover, Platform::Mappings::Get().RemoveDeadFile(leftover.path.c_str()), leftover.path);
    if (removal.outcome == Mem_Inspection::Outcome::Kept || leftover.link.empty())
        return removal;
    auto of_link = remove_link(leftover.link);
    return of_link.outcome == Mem_Inspection::Outcome::Kept ? of_link : removal;
}

} // namespace

Mem_Inspection::Listing Mem_Inspection::List(const char* temp_folder)
{
    return Walk(TempFolderOr(temp_folder)).Run();
}

Mem_Inspection::Cleaning Mem_Inspection::Clean(bool trial, const char* temp_folder)
{
    Listing listing = List(temp_folder);
    Cleaning cleaning{{}, 0, std::move(listing.folders), std::move(listing.unread)};
    for (const Entry& entry : listing.entries) {
        if (entry.state == State::Unknown && entry.kind != Kind::Other)
            ++cleaning.unjudged;
        if (entry.state != State::Dead)
            continue;
        if (!entry.may_remove)
            cleaning.removals.push_back(
                {entry, Outcome::Kept,
                 entry.is_own ? "its folder can't be written to" : "it belongs to " + entry.owner});
        else
            cleaning.removals.push_back(trial ? Removal{entry, Outcome::Removed, {}}
                                              : remove(entry));
    }
    return cleaning;
}
