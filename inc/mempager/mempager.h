#ifndef MEMPAGER_MEMPAGER_H
#define MEMPAGER_MEMPAGER_H

// All of the typed layer: pieces, foreign pieces, buffers with their cursors, errors, status.

#include "mempager/buffer.h"
#include "mempager/cursor.h"
#include "mempager/error.h"
#include "mempager/piece.h"
#include "mempager/status.h"

#endif
