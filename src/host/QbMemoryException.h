#pragma once
// Thrown by the allocator when memory cannot be had; carries the byte count.
#include "QbException.h"
#include <cstddef>

class QbMemoryException : public QbException {
public:
  explicit QbMemoryException(size_t bytes);
  size_t getNumBytes() const { return numBytes; }

private:
  size_t numBytes;
};
