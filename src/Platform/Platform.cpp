#include "Platform/Platform.h"

#include "Platform/SystemPlatform.h"

#include <atomic>

namespace
{

/// Null until the first use: whoever comes first puts the real one here.
constinit std::atomic<Platform*> serving{nullptr};

} // namespace

Platform& Platform::Get()
{
    if (Platform* instance = serving.load(std::memory_order_acquire))
        return *instance;

    Platform* none = nullptr;
    Platform& real = SystemPlatform();
    return serving.compare_exchange_strong(none, &real) ? real : *none;
}

Platform* Platform::Replace(Platform* instance)
{
    Platform& real = SystemPlatform();
    Platform* before = serving.exchange(instance != nullptr ? instance : &real);
    return before != nullptr ? before : &real;
}
