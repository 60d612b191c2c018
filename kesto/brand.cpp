#include "kesto/brand.h"

#include <QByteArray>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <limits>

namespace kesto::device {
namespace {

/// @p number cut to an integer, or the nearest bound of int.
int truncate(double number) {
  constexpr double kLowest = std::numeric_limits<int>::min();
  constexpr double kHighest = std::numeric_limits<int>::max();
  if (number <= kLowest) return std::numeric_limits<int>::min();
  if (number >= kHighest) return std::numeric_limits<int>::max();
  return static_cast<int>(number);
}

}  // namespace

std::string brand_field(const QJsonObject& object, const char* key) {
  const QJsonValue value = object.value(QLatin1String(key));
  if (value.isString()) return value.toString().toStdString();
  if (value.isDouble()) return std::to_string(truncate(value.toDouble()));
  std::string text;
  if (value.isArray()) {
    const QJsonArray elements = value.toArray();
    for (const QJsonValue element : elements) {
      if (!text.empty()) text += '|';
      text += element.toString().toStdString();
    }
  }
  return text;
}

std::uint16_t brand_code(const std::string& text) {
  std::uint16_t code = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') break;
    code = static_cast<std::uint16_t>(code * 10 + (c - '0'));
  }
  return code;
}

Brand parse_brand(const QByteArray& json) {
  QJsonParseError error{};
  const QJsonDocument document = QJsonDocument::fromJson(json, &error);
  Brand brand;
  if (error.error != QJsonParseError::NoError || !document.isObject()) return brand;
  const QJsonObject object = document.object();
  brand.short_name = brand_field(object, "short_name");
  brand.long_name = brand_field(object, "long_name");
  brand.manufacturer = brand_field(object, "manufacturer");
  brand.model = brand_field(object, "model");
  brand.oem_id = brand_code(brand_field(object, "oem_id"));
  brand.manufacturer_id = brand_code(brand_field(object, "manufacturer_id"));
  brand.modules = brand_field(object, "modules");
  return brand;
}

Brand read_brand(const QString& path) {
  QFile file(path);
  if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) return {};
  const QByteArray json = file.readAll();
  file.close();
  return parse_brand(json);
}

}  // namespace kesto::device
