#include "src/GrabBuffer.h"

#include <QDataStream>
#include <cstring>

GrabBuffer::GrabBuffer() : bytes(std::make_unique<char[]>(kCapacity)) {}

void GrabBuffer::append(std::string_view delay, std::string_view datagram, QDataStream& file) {
  const std::size_t added = delay.size() + datagram.size();
  if (kCapacity - size < added) {
    flush(file);
    if (kCapacity - size < added) return;
  }
  char* const end = bytes.get() + size;
  if (!delay.empty()) memcpy(end, delay.data(), delay.size());
  if (!datagram.empty()) memcpy(end + delay.size(), datagram.data(), datagram.size());
  size += added;
}

void GrabBuffer::flush(QDataStream& file) {
  while (size > 0) {
    // A write that failed must not keep later ones from the disk once there is room again.
    file.resetStatus();
    const int written = file.writeRawData(bytes.get(), static_cast<int>(size));
    if (written <= 0) return;
    size -= static_cast<std::size_t>(written);
    memmove(bytes.get(), bytes.get() + written, size);
  }
}
