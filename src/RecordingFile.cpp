#include "src/RecordingFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "src/OpenFile.h"

namespace {

// The kernel lets written bytes pile up for half a minute, then writes them all. The disk is told to take
// them in pieces of this size instead: 43 s of one universe, 0.7 s of 64. Nobody waits for it: a disk that is
// busy with another file needs 0.6 s for a piece, and waiting for them held 25 MB/s to 4.
constexpr qint64 kPiece = 1 << 20;

}  // namespace

std::optional<FileIdentity> FileIdentity::of(const QString& path) {
  struct stat status {};
  if (stat(QFile::encodeName(path).constData(), &status) != 0) return std::nullopt;
  return FileIdentity{status.st_dev, status.st_ino};
}

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
  struct stat status {};
  if (fstat(fd, &status) == 0) file->own_identity = {status.st_dev, status.st_ino};
  return file;
}

ssize_t RecordingFile::write(std::string_view bytes) {
  // After a failed write the stream refuses all others until its status is reset.
  grab_stream.resetStatus();
  errno = 0;
  const int result = grab_stream.writeRawData(bytes.data(), static_cast<int>(bytes.size()));
  if (result <= 0) return -1;
  written += result;
  send_to_disk();
  return result;
}

void RecordingFile::send_to_disk() {
  // Whole pieces: where the disk or the file system makes checksums, a page on its way must not change, and
  // the next write would wait for the last one.
  const qint64 end = written - written % kPiece;
  if (end == on_its_way) return;
  // Refused by pipes and devices, which keep nothing back.
  sync_file_range(grab_file.handle(), on_its_way, end - on_its_way, SYNC_FILE_RANGE_WRITE);
  on_its_way = end;
}

void RecordingFile::cut(std::size_t size) {
  if (!grab_file.isSequential()) grab_file.resize(grab_file.pos() - static_cast<qint64>(size));
}

qint64 RecordingFile::size() const {
  struct stat status {};
  return fstat(grab_file.handle(), &status) == 0 ? status.st_size : 0;
}
