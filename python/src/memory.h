#ifndef MEMPAGER_PYTHON_MEMORY_H
#define MEMPAGER_PYTHON_MEMORY_H

#include "mempager/piece.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <variant>

namespace mempager::python
{
/// What pieces are counted in, so that arrays of any type, and of vectors, lie aligned in them.
struct alignas(64) line {
    std::byte bytes[64];
};

class mapping;

/// The memory of one Python piece: some bytes that this process owns, or reads of another.
///
/// Ownership: shared; a mapping keeps it.
/// Threads: any, without the interpreter's lock.
class memory : public std::enable_shared_from_this<memory>
{
public:
    /// New memory, whose values are whatever it has unless `zeros`. @throws error.
    memory(std::uint64_t bytes, bool zeros);

    /// The memory that a descriptor tells of, to read. Nothing is opened yet.
    /// @throws error with bad_descriptor, also if there are less than `bytes`.
    memory(std::span<const std::byte> descriptor, std::uint64_t bytes);

    /// The bytes of another one, to read.
    explicit memory(std::shared_ptr<memory> of) : m_size(of->size()), m_lines(std::move(of)) {}

    /// Makes it usable until the mapping goes. @throws error with no_room.
    std::shared_ptr<mapping> map(bool readonly);

    /// By what another process finds it. @throws error, also with bad_descriptor if this process
    /// only reads it.
    std::string descriptor() const;

    /// Bytes.
    std::uint64_t size() const noexcept { return m_size; }
    /// Whether another process owns it.
    bool is_foreign() const noexcept { return std::holds_alternative<foreign<line>>(m_lines); }
    /// Mappings that live.
    int mappings() const noexcept { return m_mappings; }

private:
    friend class mapping;

    const std::uint64_t m_size;
    std::variant<piece<line>, foreign<line>, std::shared_ptr<memory>> m_lines;
    std::atomic<int> m_mappings = 0;
};

/// The bytes of a memory for as long as this lives. Ends without failing, by any thread.
class mapping
{
public:
    mapping(std::shared_ptr<memory> of, bool readonly);
    ~mapping();
    mapping(const mapping&) = delete;
    mapping& operator=(const mapping&) = delete;

    /// The first byte; never null.
    void* data() const noexcept;
    /// Bytes.
    std::uint64_t size() const noexcept { return m_of->size(); }
    /// Whether nobody may write by it.
    bool readonly() const noexcept { return m_readonly; }

private:
    const std::shared_ptr<memory> m_of;
    const bool m_readonly;
    std::variant<mapped<line>, mapped<const line>> m_lines; // ends before what it is of
};
} // namespace mempager::python

#endif
