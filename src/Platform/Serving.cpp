#include "Platform/Serving.h"

#include "Platform/SystemPlatform.h"

#include <atomic>

namespace Platform
{

namespace
{

/// Null until the first use: whoever comes first puts the real one here.
template <class Interface>
constinit std::atomic<Interface*> serving{nullptr};

template <class Interface>
constexpr Interface& (*real)() = nullptr;
template <>
constexpr Mappings& (*real<Mappings>)() = SystemMappings;
template <>
constexpr Process& (*real<Process>)() = SystemProcess;
template <>
constexpr Inspection& (*real<Inspection>)() = SystemInspection;

} // namespace

template <class Interface>
Interface& Serving<Interface>::Get()
{
    if (Interface* instance = serving<Interface>.load(std::memory_order_acquire))
        return *instance;

    Interface* none = nullptr;
    Interface& ours = real<Interface>();
    return serving<Interface>.compare_exchange_strong(none, &ours) ? ours : *none;
}

template <class Interface>
Interface* Serving<Interface>::Replace(Interface* instance)
{
    Interface& ours = real<Interface>();
    Interface* before = serving<Interface>.exchange(instance != nullptr ? instance : &ours);
    return before != nullptr ? before : &ours;
}

template class Serving<Mappings>;
template class Serving<Process>;
template class Serving<Inspection>;

} // namespace Platform
