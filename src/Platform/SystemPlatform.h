#ifndef PLATFORM_SYSTEMPLATFORM_H
#define PLATFORM_SYSTEMPLATFORM_H

#include "Platform/Platform.h"

/// The real instance, defined once by the folder of the system that is built for. Made at the
/// first call in static storage and never destroyed.
Platform& SystemPlatform();

#endif
