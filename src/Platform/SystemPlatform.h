#ifndef PLATFORM_SYSTEMPLATFORM_H
#define PLATFORM_SYSTEMPLATFORM_H

#include "Platform/Inspection.h"
#include "Platform/Mappings.h"
#include "Platform/Process.h"

namespace Platform
{

// The real instances, defined once by the folder of the system that is built for. Made at the
// first call in static storage and never destroyed.

Mappings& SystemMappings();
Process& SystemProcess();
Inspection& SystemInspection();

} // namespace Platform

#endif
