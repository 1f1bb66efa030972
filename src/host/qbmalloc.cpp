#include "qbmalloc.h"

#include <cstdlib>

void* qbmalloc(size_t bytes) {
  void* p = std::malloc(bytes ? bytes : 1);
  if (!p)
    throw QbMemoryException(bytes);
  return p;
}

void* qbrealloc(void* p, size_t bytes) {
  void* q = std::realloc(p, bytes ? bytes : 1);
  if (!q)
    throw QbMemoryException(bytes); // p stays valid, as realloc leaves it
  return q;
}

void qbfree(void* p) { std::free(p); }
