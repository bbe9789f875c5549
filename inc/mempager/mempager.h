#ifndef MEMPAGER_MEMPAGER_H
#define MEMPAGER_MEMPAGER_H

// All of the typed layer: pieces, foreign pieces, buffers with their cursors, errors.

#include "mempager/buffer.h"
#include "mempager/cursor.h"
#include "mempager/error.h"
#include "mempager/piece.h"

#endif
