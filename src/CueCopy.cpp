#include "src/CueCopy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <QFileInfo>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <ossp/uuid++.hh>
#include <string>
#include <utility>

#include "src/OpenFile.h"
#include "src/ThreadSignals.h"

namespace {

constexpr int kNameTries = 3;
constexpr std::size_t kPortion = 1 << 20;

// The library warns of its object interface from 1.6.4 (Debian 13) on. What is used of it here works in all
// versions.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

/// Time-based UUID in its 36-character text form; empty when none could be made.
QString time_based_uuid() {
  try {
    uuid id;
    id.make(UUID_MAKE_V1);
    const std::unique_ptr<char, decltype(&free)> text(id.string(), &free);
    return QString::fromLatin1(text.get());
  } catch (uuid_error_t&) {
    return {};
  }
}

#pragma GCC diagnostic pop

/// A new file that gets its name with show(). Without show() it leaves nothing.
class HiddenFile {
public:
  explicit HiddenFile(std::string shown) : path(std::move(shown)) {
    constexpr mode_t kPermissions = 0666;
    constexpr int kFlags = O_WRONLY | O_CLOEXEC;
    const std::size_t folder = path.rfind('/') + 1;
    const std::string folder_path = folder == 0 ? "." : path.substr(0, folder);
    fd = open(folder_path.c_str(), kFlags | O_TMPFILE, kPermissions);
    if (fd != -1) return;
    // On FAT, NFS and others every file needs a name.
    std::string named = path.substr(0, folder) + '.' + path.substr(folder) + ".kadrel-copy";
    fd = open(named.c_str(), kFlags | O_CREAT | O_EXCL, kPermissions);
    if (fd != -1) hidden_path = std::move(named);
  }
  ~HiddenFile() {
    if (!hidden_path.empty()) unlink(hidden_path.c_str());
    if (fd != -1) close(fd);
  }
  HiddenFile(const HiddenFile&) = delete;
  HiddenFile& operator=(const HiddenFile&) = delete;
  HiddenFile(HiddenFile&&) = delete;
  HiddenFile& operator=(HiddenFile&&) = delete;

  bool is_open() const { return fd != -1; }

  /// Appends to the file and waits for the disk: otherwise show(), which cannot be interrupted, would wait
  /// for the whole file at once.
  bool write(const char* bytes, std::size_t size) const {
    while (size > 0) {
      const ssize_t written = ::write(fd, bytes, size);
      if (written <= 0) return false;
      bytes += written;
      size -= static_cast<std::size_t>(written);
    }
    sync_file_range(fd, 0, 0,
                    SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER);
    return true;
  }

  void set_permissions(mode_t mode) const { fchmod(fd, mode & 0777U); }

  /// Waits for the disk and gives the file its name. Replaces nothing.
  bool show() {
    if (fsync(fd) != 0) return false;
    if (hidden_path.empty()) {
      const std::string self = "/proc/self/fd/" + std::to_string(fd);
      return linkat(AT_FDCWD, self.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0;
    }
    if (renameat2(AT_FDCWD, hidden_path.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) == 0) {
      hidden_path.clear();
      return true;
    }
    // NFS knows link() but not RENAME_NOREPLACE, FAT the other way round.
    return link(hidden_path.c_str(), path.c_str()) == 0;
  }

private:
  std::string path;
  std::string hidden_path;  // empty: without a name
  int fd = -1;
};

}  // namespace

QString new_cue_path(const QString& destpath) {
  for (int i = 0; i < kNameTries; ++i) {
    const QString name = time_based_uuid();
    QString candidate = destpath + QLatin1Char('/') + name;
    if (!name.isEmpty() && !QFile::exists(candidate)) return candidate;
  }
  return {};
}

bool copy_cue(const QString& from, const QString& to, const std::function<void()>& between) {
  const std::unique_ptr<char[]> portion(new (std::nothrow) char[kPortion]);
  if (portion == nullptr) return false;
  // Looked at before it is opened: opening a device may do something.
  const int source_fd = QFileInfo(from).isFile() ? open_file(from, O_RDONLY) : -1;
  if (source_fd == -1) return false;
  QFile source;
  if (!source.open(source_fd, QIODevice::ReadOnly | QIODevice::Unbuffered, QFileDevice::AutoCloseHandle)) {
    close(source_fd);
    return false;
  }
  HiddenFile copy(QFile::encodeName(to).toStdString());
  if (!copy.is_open()) return false;
  for (;;) {
    const qint64 size = source.read(portion.get(), kPortion);
    if (size == 0) break;
    if (size < 0 || end_requested() || !copy.write(portion.get(), static_cast<std::size_t>(size)))
      return false;
    between();
  }
  struct stat status {};
  if (fstat(source.handle(), &status) == 0) copy.set_permissions(status.st_mode);
  return copy.show();
}
