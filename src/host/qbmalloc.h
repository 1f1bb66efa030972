#pragma once
// Raw buffers of the utility library. qbmalloc and qbrealloc throw
// QbMemoryException when the memory cannot be had (a request of 0 bytes gives
// a valid pointer); qbfree accepts null.
#include "QbMemoryException.h"
#include <cstddef>

void* qbmalloc(size_t bytes);
void* qbrealloc(void* p, size_t bytes);
void qbfree(void* p);
