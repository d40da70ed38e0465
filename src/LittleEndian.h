#ifndef QUORVEX_LITTLE_ENDIAN_H
#define QUORVEX_LITTLE_ENDIAN_H

#include "TypeDefinitions.h"

// Every multi-byte integer of the format is unsigned little-endian. These
// helpers read and write them byte by byte, so they work on any host and at
// any alignment. Callers check the range.
namespace Lexarium::LittleEndian {

inline uint16 load_u16(const uint8* bytes) {
    return static_cast<uint16>(bytes[0] | (bytes[1] << 8));
}

inline uint32 load_u32(const uint8* bytes) {
    return static_cast<uint32>(bytes[0]) | (static_cast<uint32>(bytes[1]) << 8) |
           (static_cast<uint32>(bytes[2]) << 16) | (static_cast<uint32>(bytes[3]) << 24);
}

inline uint64_t load_u64(const uint8* bytes) {
    return static_cast<uint64_t>(load_u32(bytes)) | (static_cast<uint64_t>(load_u32(bytes + 4)) << 32);
}

inline void store_u16(uint8* bytes, uint16 value) {
    bytes[0] = static_cast<uint8>(value);
    bytes[1] = static_cast<uint8>(value >> 8);
}

inline void store_u32(uint8* bytes, uint32 value) {
    bytes[0] = static_cast<uint8>(value);
    bytes[1] = static_cast<uint8>(value >> 8);
    bytes[2] = static_cast<uint8>(value >> 16);
    bytes[3] = static_cast<uint8>(value >> 24);
}

}  // namespace Lexarium::LittleEndian

#endif
