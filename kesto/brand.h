#pragma once

#include <cstdint>
#include <string>

class QByteArray;
class QJsonObject;
class QString;

namespace kesto::device {

/// Brand identity of the appliance, all texts UTF-8. The initial values stand when there is no usable
/// branding file.
struct Brand {
  std::string short_name = "Recorder";
  std::string long_name = "Tolvek ArtNet Recorder";
  std::string manufacturer = "Tolvek";
  std::string model = "K-310";
  std::uint16_t oem_id = 0;
  std::uint16_t manufacturer_id = 0;
  std::string modules = "recorder";
};

/// Text of one key of a brand object: a string as it is, a number cut to an integer (the nearest int when it
/// is too large), an array as its elements joined by "|" (an element that is no string is empty), anything
/// else empty.
std::string brand_field(const QJsonObject& object, const char* key);

/// Low 16 bits of the decimal number that @p text begins with; 0 when it begins with no digit.
std::uint16_t brand_code(const std::string& text);

/// Brand of a JSON text. A missing key empties its value; a text that is not a JSON object gives the
/// defaults.
Brand parse_brand(const QByteArray& json);

/// Brand of the file @p path; the defaults when it cannot be opened.
Brand read_brand(const QString& path);

}  // namespace kesto::device
