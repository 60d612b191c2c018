#include "src/RecordingFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "src/OpenFile.h"

std::unique_ptr<RecordingFile> RecordingFile::open(const QString& path) {
  constexpr mode_t kPermissions = 0666;
  const int fd = open_file(path, O_WRONLY | O_CREAT | O_TRUNC, kPermissions);
  if (fd == -1) return nullptr;
  std::unique_ptr<RecordingFile> file(new RecordingFile);
  file->file_name = path;
  if (!file->grab_file.open(fd, QIODevice::WriteOnly | QIODevice::Unbuffered, QFileDevice::AutoCloseHandle)) {
    close(fd);
    return nullptr;
  }
  file->grab_stream.setDevice(&file->grab_file);
  return file;
}

RecordingFile::~RecordingFile() {
  flush();
}

RecordingFile::Kept RecordingFile::append(std::string_view delay, std::string_view datagram) {
  const std::size_t added = delay.size() + datagram.size();
  if (refused || kCapacity - size < added) {
    const std::size_t waiting = size;
    write_gathered();
    if (size < waiting) refused = false;
    if (refused || kCapacity - size < added) {
      refused = true;
      return Kept::No;
    }
  }
  char* const end = gathered.data() + size;
  if (!delay.empty()) memcpy(end, delay.data(), delay.size());
  memcpy(end + delay.size(), datagram.data(), datagram.size());
  size += added;
  record_ends[records++] = static_cast<std::uint16_t>(size);
  return Kept::Yes;
}

std::size_t RecordingFile::flush() {
  write_gathered();
  if (cut_off > 0 && !grab_file.isSequential()) grab_file.resize(grab_file.pos() - cut_off);
  size = 0;
  cut_off = 0;
  refused = false;
  return std::exchange(records, 0);
}

void RecordingFile::write_gathered() {
  while (size > 0) {
    // After a failed write the stream refuses all others until its status is reset.
    grab_stream.resetStatus();
    const int result = grab_stream.writeRawData(gathered.data(), static_cast<int>(size));
    if (result <= 0) return;
    const auto written = static_cast<std::size_t>(result);
    size -= written;
    std::uint16_t* const first = record_ends.data();
    const std::uint16_t* const rest = std::upper_bound(first, first + records, written);
    cut_off = rest == first ? cut_off + result : result - rest[-1];
    const std::uint16_t* const end = first + records;
    records = static_cast<std::size_t>(end - rest);
    std::transform(rest, end, first,
                   [written](std::size_t at) { return static_cast<std::uint16_t>(at - written); });
    memmove(gathered.data(), gathered.data() + written, size);
  }
}

qint64 RecordingFile::size_on_disk() const {
  struct stat status {};
  return fstat(grab_file.handle(), &status) == 0 ? status.st_size : 0;
}
