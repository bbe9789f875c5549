#ifndef MEMPAGER_MEMPAGER_H
#define MEMPAGER_MEMPAGER_H

// All of the typed layer: pieces, foreign pieces, buffers with their cursors, errors, status.
//
// Everything in it is inline, over the library that it is linked with: mempager::mempager of
// find_package(mempager), or what `pkg-config --cflags --libs mempager` says. Begin with buffer for
// many elements, and with piece for some that belong together.
//
// How much memory, disk and address space all of it may take are settings of the process, with
// defaults: MEM_MemoryConfiguration in Mem/Mem_Configuration.h. Change them before anything else.

#include "mempager/buffer.h"
#include "mempager/cursor.h"
#include "mempager/error.h"
#include "mempager/piece.h"
#include "mempager/status.h"

#endif
