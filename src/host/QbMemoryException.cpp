#include "QbMemoryException.h"

#include <string>

QbMemoryException::QbMemoryException(size_t bytes)
    : QbException("cannot allocate " + std::to_string(bytes) + " bytes"), numBytes(bytes) {}
