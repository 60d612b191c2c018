#include "kesto/brand.h"

#include <gtest/gtest.h>

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>
#include <string>

#include "unit/support/temporary_file.h"

using kesto::device::Brand;
using kesto::device::brand_code;
using kesto::device::brand_field;
using kesto::device::parse_brand;
using kesto::device::read_brand;

namespace {

/// All values of a brand as one text.
std::string text(const Brand& brand) {
  return brand.short_name + '/' + brand.long_name + '/' + brand.manufacturer + '/' + brand.model + '/' +
         std::to_string(brand.oem_id) + '/' + std::to_string(brand.manufacturer_id) + '/' + brand.modules;
}

const char* const kDefaults = "Recorder/Tolvek ArtNet Recorder/Tolvek/K-310/0/0/recorder";

/// The field "key" of an object in which it has the value @p json.
std::string field(const char* json) {
  const QByteArray object = QByteArray("{\"key\": ") + json + "}";
  const QJsonDocument document = QJsonDocument::fromJson(object);
  EXPECT_TRUE(document.isObject()) << json;
  return brand_field(document.object(), "key");
}

TEST(BrandField, StringGivesItsText) {
  EXPECT_EQ(field("\"Recorder 2\""), "Recorder 2");
  EXPECT_EQ(field("\"\""), "");
  EXPECT_EQ(field("\"100 % \\\"quoted\\\" \\\\ %s\""), "100 % \"quoted\" \\ %s");
}

TEST(BrandField, StringIsUtf8) {
  EXPECT_EQ(field("\"Übung \xf0\x9f\x8e\xac\""), "Übung \xf0\x9f\x8e\xac");
  EXPECT_EQ(field("\"\\u00dcbung\""), "Übung");
}

TEST(BrandField, NumberIsCutToAnInteger) {
  EXPECT_EQ(field("8465"), "8465");
  EXPECT_EQ(field("8465.9"), "8465");
  EXPECT_EQ(field("-8465.9"), "-8465");
  EXPECT_EQ(field("-0.5"), "0");
  EXPECT_EQ(field("0"), "0");
  EXPECT_EQ(field("1e3"), "1000");
}

TEST(BrandField, NumberThatNoIntHoldsStopsAtTheNearestBound) {
  EXPECT_EQ(field("2147483647"), "2147483647");
  EXPECT_EQ(field("2147483648"), "2147483647");
  EXPECT_EQ(field("1e300"), "2147483647");
  EXPECT_EQ(field("-2147483648"), "-2147483648");
  EXPECT_EQ(field("-2147483649"), "-2147483648");
  EXPECT_EQ(field("-1e300"), "-2147483648");
}

TEST(BrandField, AnythingElseIsEmpty) {
  EXPECT_EQ(field("null"), "");
  EXPECT_EQ(field("true"), "");
  EXPECT_EQ(field("false"), "");
  EXPECT_EQ(field("{\"key\": \"inner\"}"), "");
  EXPECT_EQ(brand_field(QJsonObject(), "key"), "");
}

TEST(BrandField, ArrayElementsAreJoinedWithBars) {
  EXPECT_EQ(field("[\"recorder\", \"player\"]"), "recorder|player");
  EXPECT_EQ(field("[\"a\", \"b\", \"c\"]"), "a|b|c");
  EXPECT_EQ(field("[\"a\"]"), "a");
  EXPECT_EQ(field("[]"), "");
}

TEST(BrandField, ArrayElementThatIsNoStringGivesAnEmptyPiece) {
  EXPECT_EQ(field("[\"a\", 5, \"b\"]"), "a||b");
  EXPECT_EQ(field("[\"a\", null]"), "a|");
  EXPECT_EQ(field("[\"a\", [\"b\"], {\"key\": \"c\"}, true]"), "a|||");
}

TEST(BrandField, BarIsLeftOutWhileTheTextIsEmpty) {
  EXPECT_EQ(field("[5, \"a\"]"), "a");
  EXPECT_EQ(field("[\"\", \"\", \"a\", \"\", \"b\"]"), "a||b");
  EXPECT_EQ(field("[1, 2, 3]"), "");
}

TEST(BrandCode, IsTheNumberThatTheTextBeginsWith) {
  EXPECT_EQ(brand_code("8465"), 8465);
  EXPECT_EQ(brand_code("8465abc"), 8465);
  EXPECT_EQ(brand_code("12 34"), 12);
  EXPECT_EQ(brand_code("8465.9"), 8465);
  EXPECT_EQ(brand_code("007"), 7);
}

TEST(BrandCode, WithoutALeadingDigitIsZero) {
  for (const char* const none : {"", "abc", " 8465", "+8465", "-8465", "\t1", "x8465"}) {
    EXPECT_EQ(brand_code(none), 0) << none;
  }
}

TEST(BrandCode, HexadecimalNumberStopsAtTheX) {
  EXPECT_EQ(brand_code("0x2111"), 0);
}

TEST(BrandCode, KeepsTheLow16Bits) {
  EXPECT_EQ(brand_code("65535"), 65535);
  EXPECT_EQ(brand_code("65536"), 0);
  EXPECT_EQ(brand_code("74001"), 8465);
  EXPECT_EQ(brand_code("4294975761"), 8465);
  EXPECT_EQ(brand_code("2147483647"), 65535);
}

TEST(ParseBrand, TakesEveryKey) {
  EXPECT_EQ(text(parse_brand(R"({"short_name": "S", "long_name": "L", "manufacturer": "M", "model": "O",
                                 "oem_id": "8465", "manufacturer_id": 28788, "modules": ["a", "b", "c"],
                                 "else": "ignored"})")),
            "S/L/M/O/8465/28788/a|b|c");
}

TEST(ParseBrand, MissingKeysAreEmptied) {
  EXPECT_EQ(text(parse_brand(R"({"oem_id": 8465})")), "////8465/0/");
  EXPECT_EQ(text(parse_brand(R"({})")), "////0/0/");
  EXPECT_EQ(text(parse_brand(R"({"short_name": "S"})")), "S////0/0/");
}

TEST(ParseBrand, TheLastOfTwoEqualKeysCounts) {
  const Brand brand = parse_brand(R"({"model":"first","oem_id":1,"model":"second","oem_id":2})");
  EXPECT_EQ(brand.model, "second");
  EXPECT_EQ(brand.oem_id, 2);
}

TEST(ParseBrand, CodesAreDecimal) {
  EXPECT_EQ(parse_brand(R"({"oem_id": "0x2111", "manufacturer_id": "0x7074"})").oem_id, 0);
  EXPECT_EQ(parse_brand(R"({"oem_id": 8465.9})").oem_id, 8465);
  EXPECT_EQ(parse_brand(R"({"oem_id": ["84", "65"]})").oem_id, 84);
  EXPECT_EQ(parse_brand(R"({"oem_id": true})").oem_id, 0);
  EXPECT_EQ(parse_brand(R"({"oem_id": -1})").oem_id, 0);
}

TEST(ParseBrand, TextThatIsNoJsonObjectGivesTheDefaults) {
  for (const char* const json :
       {"", " ", "no JSON", "[]", R"([{"short_name": "S"}])", "\"S\"", "5", "null", R"({"short_name": "S")",
        R"({"short_name": "S"} x)", R"({"short_name": "S",})", "{\"short_name\": \"\xff\"}"}) {
    EXPECT_EQ(text(parse_brand(json)), kDefaults) << json;
  }
}

TEST(ReadBrand, ReadsTheFile) {
  const unit::TemporaryFile file("{\r\n\"short_name\": \"Übung\",\r\n\"oem_id\": 1\r\n}\r\n");
  EXPECT_EQ(text(read_brand(QString::fromStdString(file.path()))), "Übung////1/0/");
}

TEST(ReadBrand, FileThatIsNoJsonObjectGivesTheDefaults) {
  for (const char* const json : {"", "no JSON", "[\"short_name\"]"}) {
    const unit::TemporaryFile file(json);
    EXPECT_EQ(text(read_brand(QString::fromStdString(file.path()))), kDefaults) << json;
  }
}

TEST(ReadBrand, FileThatCannotBeOpenedGivesTheDefaults) {
  EXPECT_EQ(text(read_brand(QStringLiteral("/nonexistent/brand.json"))), kDefaults);
  EXPECT_EQ(text(read_brand(QStringLiteral("/"))), kDefaults);
  EXPECT_EQ(text(read_brand(QString())), kDefaults);
}

TEST(Brand, StartsWithTheDefaults) {
  EXPECT_EQ(text(Brand()), kDefaults);
}

}  // namespace
