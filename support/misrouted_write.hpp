#pragma once
// A few legacy writers hand a memory buffer stream to the file writer
// _qfwrite. Passing a YAXBUFFER* where a FILE* is expected cannot be done
// safely, so those call sites come here instead: nothing is written, and the
// caller sees exactly what a failed file write reports.
#include <cstdint>

namespace yax {

// Logs the file writer's short-write line ("YAXSystemFile::_qfwrite",
// "write ret != write size_of_byte  ==> fail(-1 != n)") and returns the file
// writer's failure result, -1. Nothing reaches any stream.
int fileWriteOnBuffer(uint32_t n);

// The same report for a write through a stream that was already closed.
inline int fileWriteOnClosedStream(uint32_t n) { return fileWriteOnBuffer(n); }

}  // namespace yax
