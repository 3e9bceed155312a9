#pragma once
// Little- and big-endian packing of the integers that the file and buffer
// primitives read and write.
#include <cstdint>

namespace yax {

inline uint16_t get16(const unsigned char *b) {
    return static_cast<uint16_t>(b[0] | (b[1] << 8));
}
inline uint32_t get32(const unsigned char *b) {
    return static_cast<uint32_t>(b[0]) | (static_cast<uint32_t>(b[1]) << 8) |
           (static_cast<uint32_t>(b[2]) << 16) | (static_cast<uint32_t>(b[3]) << 24);
}
inline void put16(unsigned char *b, uint16_t v) {
    b[0] = static_cast<unsigned char>(v);
    b[1] = static_cast<unsigned char>(v >> 8);
}
inline void put32(unsigned char *b, uint32_t v) {
    for (int i = 0; i < 4; ++i) b[i] = static_cast<unsigned char>(v >> (8 * i));
}
inline void put32be(unsigned char *b, uint32_t v) {
    for (int i = 0; i < 4; ++i) b[i] = static_cast<unsigned char>(v >> (8 * (3 - i)));
}

}  // namespace yax
