#ifndef TOOLS_OUTPUT_H
#define TOOLS_OUTPUT_H

#include "Mem/Mem_Inspection.h"

#include <cstdint>
#include <string>
#include <vector>

using Findings = std::vector<Mem_Inspection::Finding>;

/// So many things, which take so many bytes.
struct Sum {
    std::size_t count = 0;
    std::uint64_t bytes = 0;

    void Add(const Mem_Inspection::Entry& entry)
    {
        ++count;
        bytes += entry.bytes;
    }
};

Sum SumOf(const Mem_Inspection::Listing& listing, Mem_Inspection::State state);
Sum SumOf(const Mem_Inspection::Cleaning& cleaning, Mem_Inspection::Outcome outcome);
std::size_t Count(const Findings& findings, Mem_Inspection::Verdict verdict);

// Words, the same for people and for programs.
const char* WordFor(Mem_Inspection::Kind kind);
const char* WordFor(Mem_Inspection::State state);
const char* WordFor(Mem_Inspection::Outcome outcome, bool trial);
const char* WordFor(Mem_Inspection::Verdict verdict);

// For people: lines of plain ASCII. Whatever else a name holds is shown as \xNN.
std::string AsText(const Mem_Inspection::Listing& listing);
std::string AsText(const Mem_Inspection::Cleaning& cleaning, bool trial);
std::string AsText(const Findings& findings);

/// The same escapes for a single name.
std::string Shown(const std::string& name);

// For programs: one JSON object. Bytes that aren't UTF-8 are replaced by U+FFFD.
std::string AsJson(const Mem_Inspection::Listing& listing);
std::string AsJson(const Mem_Inspection::Cleaning& cleaning, bool trial);
std::string AsJson(const Findings& findings);

#endif
