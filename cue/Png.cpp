#include "cue/Png.h"

#include <QByteArray>

namespace cue {
namespace {

/// CRC-32 of PNG chunks (ISO/IEC 15948, annex D).
std::uint32_t crc32(const std::string& bytes) {
  std::uint32_t crc = 0xFFFFFFFF;
  for (const char byte : bytes) {
    crc ^= static_cast<std::uint8_t>(byte);
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320 : 0);
  }
  return ~crc;
}

std::string number(std::size_t value) {
  std::string bytes;
  for (const int shift : {24, 16, 8, 0}) bytes += static_cast<char>(value >> shift);
  return bytes;
}

std::string chunk(const std::string& type, const std::string& content) {
  return number(content.size()) + type + content + number(crc32(type + content));
}

}  // namespace

std::string make_png(std::size_t width, std::size_t height, const std::vector<std::uint8_t>& pixels,
                     const Palette& palette) {
  std::string rows;
  for (std::size_t row = 0; row < height; ++row) {
    rows += '\0';  // no filter
    rows.append(reinterpret_cast<const char*>(pixels.data()) + row * width, width);
  }
  // qCompress() puts the size before the zlib stream.
  const QByteArray compressed =
      qCompress(reinterpret_cast<const uchar*>(rows.data()), static_cast<int>(rows.size()));
  constexpr int kSizeBytes = 4;
  std::string colours;
  for (const Colour& colour : palette)
    colours +=
        {static_cast<char>(colour.red), static_cast<char>(colour.green), static_cast<char>(colour.blue)};
  // 8 bits, palette, the only compression and filter methods, no interlace.
  const std::string format = number(width) + number(height) + std::string("\x08\x03\0\0\0", 5);
  return "\x89PNG\r\n\x1a\n" + chunk("IHDR", format) + chunk("PLTE", colours) +
         chunk("IDAT", std::string(compressed.constData() + kSizeBytes,
                                   static_cast<std::size_t>(compressed.size() - kSizeBytes))) +
         chunk("IEND", "");
}

}  // namespace cue
