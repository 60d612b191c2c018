#include "src/ServiceStatus.h"

#include <QVector>
#include <chrono>
#include <utility>

namespace {

// Characters of a file's name: with the longest figures the line takes two of a terminal.
constexpr int kLongestName = 60;

/// With a comma between thousands.
std::string grouped(quint64 number) {
  constexpr std::size_t kGroup = 3;
  std::string digits = std::to_string(number);
  for (std::size_t left = digits.size(); left > kGroup; left -= kGroup) digits.insert(left - kGroup, ",");
  return digits;
}

/// In units of a thousand, with one digit behind the point.
std::string size_text(std::size_t bytes) {
  constexpr std::size_t kThousand = 1000;
  constexpr std::size_t kTen = 10;
  if (bytes < kThousand) return std::to_string(bytes) + " bytes";
  const bool is_mega = bytes >= kThousand * kThousand;
  const std::size_t tenths = bytes / (is_mega ? kThousand * kThousand / kTen : kThousand / kTen);
  return grouped(tenths / kTen) + '.' + std::to_string(tenths % kTen) + (is_mega ? " MB" : " KB");
}

/// For a line of a terminal: a name may hold line ends, escape sequences, marks that turn the direction.
std::string name_text(const QString& name) {
  QVector<uint> characters = name.toUcs4();
  for (uint& character : characters) {
    const QChar::Category category = QChar::category(character);
    const bool ends_line = category == QChar::Separator_Line || category == QChar::Separator_Paragraph;
    if (ends_line || !QChar::isPrint(character)) character = '?';
  }
  if (characters.size() > kLongestName) {
    characters.remove(0, characters.size() - kLongestName);
    for (int i = 0; i < 3; ++i) characters[i] = '.';
  }
  return QString::fromUcs4(characters.constData(), characters.size()).toStdString();
}

std::string grabber_text(const ServiceStatus& status) {
  switch (status.grabber) {
    case ServiceStatus::Grabber::WaitsForChannel:
      return "armed for " + name_text(status.file) + ", waits for the record channel";
    case ServiceStatus::Grabber::WaitsForFrame:
      return "armed for " + name_text(status.file) + ", waits for the first frame";
    case ServiceStatus::Grabber::Records: {
      std::string text = "recording " + name_text(status.file) + ", " + grouped(status.universes) +
                         (status.universes == 1 ? " universe" : " universes");
      if (status.rate) text += ", " + grouped(static_cast<quint64>(*status.rate)) + "/s";
      return text;
    }
    case ServiceStatus::Grabber::Off:
      break;
  }
  return "off";
}

std::string late_text(std::size_t bytes) {
  return ", " + size_text(bytes) + " wait for the disk";
}

}  // namespace

std::string status_text(const ServiceStatus& status) {
  std::string text = grabber_text(status);
  if (status.refuses) text += ", the file takes no data";
  if (status.late) text += late_text(*status.late);
  if (status.grabber == ServiceStatus::Grabber::Records)
    text += status.lost > 0 ? ", " + grouped(status.lost) + " lost" : ", nothing lost";
  if (!status.has_port) text += ", the UDP port is not bound: nothing is heard";
  return text;
}

std::string ending_text(std::size_t late) {
  return late > 0 ? "ending" + late_text(late) : "ending";
}

std::optional<qint64> RateMeter::rate(quint64 recording, qint64 datagrams, kesto::Clock::time_point now) {
  const auto before = std::exchange(last, Look{recording, datagrams, now});
  if (!before || before->recording != recording || now <= before->time) return std::nullopt;
  const std::chrono::duration<double> passed = now - before->time;
  return qRound64(static_cast<double>(datagrams - before->datagrams) / passed.count());
}
