#include "src/CueFile.h"

#include <QFile>
#include <QFileInfo>
#include <cstdlib>
#include <memory>
#include <new>
#include <ossp/uuid++.hh>

#include "src/ThreadSignals.h"

namespace {

constexpr int kNameTries = 3;

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

}  // namespace

QString new_cue_path(const QString& destpath) {
  for (int i = 0; i < kNameTries; ++i) {
    const QString name = time_based_uuid();
    QString candidate = destpath + QLatin1Char('/') + name;
    if (!name.isEmpty() && !QFile::exists(candidate)) return candidate;
  }
  return {};
}

bool copy_cue(const QString& from, const QString& to) {
  constexpr std::size_t kPortion = 1 << 20;
  const std::unique_ptr<char[]> portion(new (std::nothrow) char[kPortion]);
  if (portion == nullptr) return false;
  QFile source(from);
  // Looked at before it is opened: opening a pipe would wait for a writer.
  if (!QFileInfo(from).isFile() || !source.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) return false;
  QFile copy(to);
  if (!copy.open(QIODevice::WriteOnly | QIODevice::NewOnly | QIODevice::Unbuffered)) return false;
  for (;;) {
    const qint64 size = source.read(portion.get(), kPortion);
    if (size == 0) break;
    if (size < 0 || end_requested() || copy.write(portion.get(), size) != size) {
      copy.remove();
      return false;
    }
  }
  copy.setPermissions(source.permissions());
  return true;
}
