#include "support/Footprint.h"

#include "Platform/Process.h"
#include "Platform/Windows/System.h"

namespace
{
class OwnMaps final : public Platform::Process::Maps
{
public:
    explicit OwnMaps(Footprint& now) : m_now(now) {}
    void Take(const Platform::Process::Map& map) override
    {
        if (map.kind != Platform::Process::Map::Kind::View)
            return;
        ++m_now.maps;
        m_now.bytes += map.size;
    }

private:
    Footprint& m_now;
};
} // namespace

/// A name goes with the last handle, so handles stand for both.
Footprint Footprint::Now()
{
    Footprint now;
    OwnMaps maps(now);
    DWORD handles = 0;
    GetProcessHandleCount(GetCurrentProcess(), &handles);
    now.descriptors = static_cast<long>(handles);
    Platform::Process::Get().ListMaps(maps);
    return now;
}
