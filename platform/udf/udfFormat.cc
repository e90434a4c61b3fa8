#include "platform/udf/udfFormat.h"

#include <array>

namespace gp::udf {

namespace {

constexpr std::array<uint16_t, 256> MakeCrcTable() {
  std::array<uint16_t, 256> table{};
  for (unsigned i = 0; i < 256; ++i) {
    uint16_t crc = static_cast<uint16_t>(i << 8);
    for (int bit = 0; bit < 8; ++bit) {
      crc = static_cast<uint16_t>((crc & 0x8000) ? (crc << 1) ^ 0x1021 : crc << 1);
    }
    table[i] = crc;
  }
  return table;
}

constexpr std::array<uint16_t, 256> kCrcTable = MakeCrcTable();

}  // namespace

uint8_t TagChecksum(const uint8_t *tag) {
  uint8_t sum = 0;
  for (int i = 0; i < 16; ++i) {
    if (i != 4) {
      sum = static_cast<uint8_t>(sum + tag[i]);
    }
  }
  return sum;
}

uint16_t Crc16(const uint8_t *data, size_t len) {
  uint16_t crc = 0;
  for (size_t i = 0; i < len; ++i) {
    crc = static_cast<uint16_t>((crc << 8) ^ kCrcTable[((crc >> 8) ^ data[i]) & 0xFF]);
  }
  return crc;
}

}  // namespace gp::udf
