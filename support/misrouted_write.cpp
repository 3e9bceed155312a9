#include "support/misrouted_write.hpp"

#include "yax_support.h"

namespace yax {

int fileWriteOnBuffer(uint32_t n) {
    // The descriptor behind a buffer handle is not a file: the write is
    // refused (-1) and reported like any other short write of _qfwrite.
    YAXLogE("YAXSystemFile::_qfwrite", "write ret != write size_of_byte  ==> fail(%d != %d)", -1,
            static_cast<int>(n));
    return -1;
}

}  // namespace yax
