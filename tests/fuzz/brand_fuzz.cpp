#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "kesto/brand.h"
#include "tests/fuzz/script.h"

// The branding file. Input: its bytes.

namespace {

using kesto::device::Brand;

/// The number that a text begins with, modulo 65536, digit by digit.
unsigned leading_number(const std::string& text) {
  unsigned number = 0;
  for (std::size_t i = 0; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i)
    number = (number * 10 + static_cast<unsigned>(text[i] - '0')) % 65536;
  return number;
}

bool same(const Brand& a, const Brand& b) {
  return a.short_name == b.short_name && a.long_name == b.long_name && a.manufacturer == b.manufacturer &&
         a.model == b.model && a.oem_id == b.oem_id && a.manufacturer_id == b.manufacturer_id &&
         a.modules == b.modules;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const QByteArray json(reinterpret_cast<const char*>(data), static_cast<int>(size));
  const Brand brand = kesto::device::parse_brand(json);
  REQUIRE(same(brand, kesto::device::parse_brand(json)));
  const QJsonDocument document = QJsonDocument::fromJson(json);
  if (!document.isObject()) {
    REQUIRE(same(brand, Brand()));
    return 0;
  }
  const QJsonObject object = document.object();
  const auto text = [&object](const char* key) { return kesto::device::brand_field(object, key); };
  for (const char* key :
       {"short_name", "long_name", "manufacturer", "model", "oem_id", "manufacturer_id", "modules"}) {
    const QJsonValue value = object.value(QLatin1String(key));
    if (value.isString()) REQUIRE(text(key) == value.toString().toStdString());
    if (value.isUndefined() || value.isNull() || value.isBool() || value.isObject())
      REQUIRE(text(key).empty());
    if (value.isDouble() && value.toDouble() > -2e9 && value.toDouble() < 2e9)
      REQUIRE(text(key) == std::to_string(static_cast<int>(value.toDouble())));
  }
  REQUIRE(brand.short_name == text("short_name"));
  REQUIRE(brand.long_name == text("long_name"));
  REQUIRE(brand.manufacturer == text("manufacturer"));
  REQUIRE(brand.model == text("model"));
  REQUIRE(brand.modules == text("modules"));
  REQUIRE(brand.oem_id == leading_number(text("oem_id")));
  REQUIRE(brand.manufacturer_id == leading_number(text("manufacturer_id")));
  return 0;
}
