#include "events/JsonWriter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>

namespace {

using armengine::JsonWriter;
using nlohmann::json;

TEST(JsonWriter, ValuesAreSeparatedAtEveryDepth) {
  std::string text;
  JsonWriter writer(&text);
  writer.openObject().key("a").number(int64_t{-1}).key("b").openArray();
  writer.number(uint64_t{18446744073709551615U}).boolean(true).openObject().closeObject();
  writer.closeArray().key("c").digits(uint64_t{7}).key("d").real(0.5).closeObject();
  EXPECT_EQ(R"({"a":-1,"b":[18446744073709551615,true,{}],"c":"7","d":0.5})", text);
}

TEST(JsonWriter, EveryByteInAStringSurvivesOrBecomesTheReplacement) {
  std::string ascii;
  for (int code = 0; code < 128; ++code) ascii += static_cast<char>(code);
  std::string text;
  JsonWriter(&text).text(ascii + "\xE2\x82\xAC");
  EXPECT_EQ(ascii + "\xE2\x82\xAC", json::parse(text).get<std::string>());
  std::string broken;
  JsonWriter(&broken).text("a\xFF\x62");
  EXPECT_EQ("a\xEF\xBF\xBD\x62", json::parse(broken).get<std::string>());
}

TEST(JsonWriter, NumbersThatAreNotFiniteAreNull) {
  std::string text;
  JsonWriter(&text).real(std::nan(""));
  EXPECT_EQ("null", text);
}

TEST(JsonWriter, BytesAreLowerCaseHexadecimal) {
  std::string text;
  const uint8_t bytes[] = {0x00, 0xAB, 0x7F};
  JsonWriter(&text).hex(bytes, sizeof bytes);
  EXPECT_EQ("\"00ab7f\"", text);
}

}  // namespace
