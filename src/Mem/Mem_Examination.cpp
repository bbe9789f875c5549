#include "Mem/Mem_Configuration.h"
#include "Mem/Mem_Inspection.h"
#include "Mem/Mem_Settings.h"
#include "Mem/Mem_TempFolder.h"
#include "Platform/Inspection.h"
#include "Platform/Units.h"

#include <algorithm>
#include <cstdint>

// What the system tells of its limits is held here against what the settings want of them.

namespace
{

using Fact = Platform::Inspection::Fact;
using Finding = Mem_Inspection::Finding;
using Platform::Subject;
using Verdict = Mem_Inspection::Verdict;

/// How many of these parts make up all of it.
std::uint64_t parts(std::uint64_t all, std::uint64_t part)
{
    return part == 0 ? 0 : (all + part - 1) / part;
}

std::uint64_t rest(std::uint64_t all, std::uint64_t taken)
{
    return all - std::min(all, taken);
}

std::string in_mb(std::uint64_t bytes)
{
    return std::to_string(WholeMb(bytes));
}

/// Up: what is advised has to be enough.
std::string in_enough_mb(std::uint64_t bytes)
{
    return std::to_string(WholeMb(bytes + BytesOfMb(1) - 1));
}

/// What the settings make the library want, in bytes.
struct Demand {
    Demand()
    {
        MEM_MemoryConfiguration& settings = *MEM_MemoryConfiguration::GetInstance();
        shared_memory = BytesOfMb(settings.GetSwapMaxSizeInMb());
        files = BytesOfMb(settings.FileHeap_MaxTotalSpaceInMb());
        file = BytesOfMb(settings.FileHeap_FileSizeInMb());
        free_disk = BytesOfMb(settings.FileHeap_MinSpaceToLeaveInMb());
        region = settings.BaseBlockSize();
        cache = settings.HeapCacheInBytes();
        reclaims = ReclaimIsWanted();
    }

    std::uint64_t shared_memory;
    std::uint64_t files;
    std::uint64_t file;      ///< the size of each
    std::uint64_t free_disk; ///< what files leave
    std::uint64_t region;    ///< the least
    std::uint64_t cache;
    bool reclaims; ///< gives the cache up when an allocation fails
};

/// What is wanted of one limit.
struct Wanted {
    std::uint64_t all = 0;   ///< with less, the library works for less data
    std::uint64_t least = 0; ///< with less, it doesn't work
    std::uint64_t kept = 0;  ///< taken off what is left, since others need it
};

Wanted wanted_of_memory(const Demand& demand, const Fact&)
{
    return {demand.shared_memory, demand.region};
}

Wanted wanted_names(const Demand& demand, const Fact& fact)
{
    return {fact.for_region * parts(demand.shared_memory, demand.region), fact.least};
}

Wanted wanted_of_disk(const Demand& demand, const Fact&)
{
    return {demand.files, demand.region, demand.free_disk};
}

Wanted wanted_of_file(const Demand& demand, const Fact&)
{
    return {std::max(demand.file, demand.region), demand.region};
}

/// Each temp file takes one, too.
Wanted wanted_descriptors(const Demand& demand, const Fact& fact)
{
    return {parts(demand.files, demand.file) + fact.least +
                fact.for_region * parts(demand.shared_memory, demand.region),
            fact.least};
}

Wanted wanted_maps(const Demand& demand, const Fact& fact)
{
    return {fact.for_region * parts(demand.shared_memory + demand.files, demand.region),
            fact.least};
}

Wanted wanted_addresses(const Demand& demand, const Fact&)
{
    return {demand.cache + demand.region, demand.region};
}

// What the library's own settings can do about it, if `left` is all that there is.

std::string less_swap(std::uint64_t left, const Demand&)
{
    return "SetSwapMaxSizeInMb(" + in_mb(left) + ")";
}

std::string less_cache(std::uint64_t left, const Demand& demand)
{
    return "SetCacheSize(" + in_mb(rest(left, demand.region)) + ")";
}

std::string other_temp_folder(std::uint64_t, const Demand&)
{
    return "set TEMP to a folder on a larger disk, or MaxTotalSpaceInMb to less "
           "(SetFileHeapParmeters)";
}

std::string smaller_files(std::uint64_t, const Demand&)
{
    return "FileSizeInMb to less (SetFileHeapParmeters)";
}

/// What one subject is judged by, in the order of the findings. Its own cure and the settings' are
/// alternatives. Regions go to the temp folder where memory is short, so that is no failure then.
struct Row {
    Subject subject;
    Wanted (*wanted)(const Demand& demand, const Fact& fact) = nullptr; ///< of what is bounded
    bool in_bytes = true;
    bool is_of_memory = false;
    std::string (*setting)(std::uint64_t left, const Demand& demand) = nullptr;
};

constexpr Row rows[] = {
    {Subject::SharedMemory, wanted_of_memory, true, true, less_swap},
    {Subject::SharedMemoryNames, wanted_names, false, true},
    {Subject::Group, wanted_of_memory, true, true, less_swap},
    {Subject::Machine, wanted_of_memory, true, true, less_swap},
    {Subject::Commitment, wanted_of_memory, true, true, less_swap},
    {Subject::TempFolder},
    {Subject::Disk, wanted_of_disk, true, false, other_temp_folder},
    {Subject::FileSize, wanted_of_file, true, false, smaller_files},
    {Subject::Descriptors, wanted_descriptors, false},
    {Subject::Maps, wanted_maps, false},
    {Subject::Views},
    {Subject::HugePages},
    {Subject::AddressSpace, wanted_addresses, true, false, less_cache},
    {Subject::NamesAtLogout},
    {Subject::Malloc},
};

Verdict verdict_of(const Fact& fact)
{
    if (fact.state == Fact::State::Usable)
        return Verdict::Ok;
    return fact.state == Fact::State::Doubtful ? Verdict::Warning : Verdict::Bad;
}

Verdict verdict_of(std::uint64_t left, const Wanted& wanted)
{
    if (left >= wanted.all)
        return Verdict::Ok;
    return left >= wanted.least ? Verdict::Warning : Verdict::Bad;
}

/// A cure with the amount that it needs in the places for it.
std::string filled(std::string cure, const std::string& amount)
{
    for (std::size_t at = 0; (at = cure.find("{}", at)) != cure.npos; at += amount.size())
        cure.replace(at, 2, amount);
    return cure;
}

std::string either(const std::string& a, const std::string& b)
{
    return a + (a.empty() || b.empty() ? "" : ", or ") + b;
}

class Judge
{
public:
    explicit Judge(const std::string& temp_folder)
        : m_temp_folder(temp_folder),
          m_facts(Platform::Inspection::Get().Look(temp_folder.c_str())),
          m_has_spare_folder(has_spare_folder())
    {
    }

    std::vector<Finding> Findings() const
    {
        std::vector<Finding> findings;
        for (const Row& row : rows)
            if (const Fact* fact = find(row.subject)) {
                findings.push_back(judged(row, *fact));
                if (findings.back().verdict == Verdict::Ok)
                    findings.back().advice.clear();
            }
        return findings;
    }

private:
    /// @return null for what this system doesn't have.
    const Fact* find(Subject subject) const
    {
        const auto fact = std::ranges::find(m_facts, subject, &Fact::subject);
        return fact != m_facts.end() ? &*fact : nullptr;
    }

    bool temp_folder_is_absolute() const
    {
        char path[4096];
        return Platform::Inspection::Get().AbsolutePath(m_temp_folder.c_str(), path, sizeof path) &&
               m_temp_folder == path;
    }

    bool has_spare_folder() const
    {
        const Fact* const folder = find(Subject::TempFolder);
        const Fact* const disk = find(Subject::Disk);
        return folder != nullptr && folder->state == Fact::State::Usable && disk != nullptr &&
               disk->left >= m_demand.region && temp_folder_is_absolute();
    }

    Finding judged(const Row& row, const Fact& fact) const
    {
        if (row.subject == Subject::TempFolder)
            return judged_temp_folder(fact);
        if (row.subject == Subject::Malloc)
            return judged_malloc(fact);
        Finding finding{verdict_of(fact), fact.name, fact.value, fact.cure};
        if (fact.is_bounded)
            measure(finding, row, fact);
        if (row.is_of_memory && finding.verdict == Verdict::Bad && m_has_spare_folder)
            finding.verdict = Verdict::Warning;
        return finding;
    }

    /// Completes the finding for a limit with numbers.
    void measure(Finding& finding, const Row& row, const Fact& fact) const
    {
        const auto number = [&row](std::uint64_t amount) {
            return row.in_bytes ? in_enough_mb(amount) + " MB" : std::to_string(amount);
        };
        const Wanted wanted = row.wanted(m_demand, fact);
        const std::uint64_t left = rest(fact.left, wanted.kept);
        finding.value += ", " + number(wanted.all) + " wanted";
        if (wanted.kept != 0)
            finding.value += " and " + number(wanted.kept) + " to be left";
        if (fact.state != Fact::State::Usable)
            return;
        const std::uint64_t enough = fact.most + rest(wanted.all, left);
        finding.verdict = verdict_of(left, wanted);
        finding.advice =
            either(filled(fact.cure, row.in_bytes ? in_enough_mb(enough) : std::to_string(enough)),
                   row.setting != nullptr ? row.setting(left, m_demand) : "");
    }

    Finding judged_temp_folder(const Fact& fact) const
    {
        if (fact.state == Fact::State::Unusable)
            return {Verdict::Bad, fact.name, fact.value,
                    "set TEMP to a folder on a disk that this user may write to"};
        if (!temp_folder_is_absolute())
            return {Verdict::Warning, fact.name, m_temp_folder + ", wherever the program is then",
                    "set TEMP to an absolute path; nothing goes there by a relative one when "
                    "shared memory is full"};
        return {verdict_of(fact), fact.name, fact.value,
                "set TEMP to a folder on a disk: this one is in memory, so nothing is won by "
                "going there"};
    }

    Finding judged_malloc(const Fact& fact) const
    {
        if (!m_demand.reclaims)
            return {Verdict::Warning, fact.name, "is left alone: VORTELIX_DIS_NEW_HANDLER is set",
                    "unset it, so that the cache is given up when memory runs out"};
        if (fact.state == Fact::State::Usable)
            return {Verdict::Ok, fact.name, "the cache is given up when it fails", ""};
        return {verdict_of(fact), fact.name, fact.value, fact.cure};
    }

    const Demand m_demand;
    const std::string& m_temp_folder;
    const std::vector<Fact> m_facts;
    const bool m_has_spare_folder;
};

} // namespace

std::vector<Finding> Mem_Inspection::Examine(const char* temp_folder)
{
    return Judge(TempFolderOr(temp_folder)).Findings();
}
