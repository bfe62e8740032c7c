// SPDX-License-Identifier: Apache-2.0
#include "platform/bundle/property_list_forms.h"

#include <gtest/gtest.h>

#include "platform/bundle/property_list.h"
#include "runtime/foundation/test_bytes.h"

namespace keel {
namespace {

std::expected<Value, std::string> decoded(std::string_view xml) {
  return decodeXmlPropertyList(bytesOfText(xml));
}

// Decodes `xml` inside the document's root element.
std::expected<Value, std::string> inside(const std::string& xml) {
  return decoded("<plist version=\"1.0\">" + xml + "</plist>");
}

std::string faultOf(const std::string& xml) {
  const auto value = inside(xml);
  return value ? "accepted: " + value->description() : value.error();
}

std::string repeated(const char* text, std::size_t count) {
  std::string result;
  for (; count > 0; --count) result += text;
  return result;
}

TEST(XmlPropertyList, ReadsEveryKind) {
  const auto value = decoded(R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Somebody//DTD 1.0//EN" "http://localhost:1/never-loaded.dtd">
<!-- a comment --><?skipped instruction?>
<plist version="1.0">
<dict>
  <key>text</key><string>a &lt;&#252;&gt; b<![CDATA[ & <c>]]></string>
  <key>integer</key><integer>-5</integer>
  <key>real</key><real>0.5</real>
  <key>date</key><date>1970-01-01T00:01:00Z</date>
  <key>data</key><data>
    AAE=
  </data>
  <key>yes</key><true/>
  <key>no</key><false></false>
  <key>array</key><array><string/><array/></array>
  <key></key><dict/>
</dict>
</plist>
)");
  ASSERT_TRUE(value) << value.error();
  EXPECT_EQ(*value, Value::map({{"text", "a <ü> b & <c>"},
                                {"integer", -5},
                                {"real", 0.5},
                                {"date", Date{60}},
                                {"data", bytesOfHex("0001")},
                                {"yes", true},
                                {"no", false},
                                {"array", Value::list({"", Value::List{}})},
                                {"", Value::Map{}}}));
}

TEST(XmlPropertyList, AcceptsAnyKindAtTheTop) {
  EXPECT_EQ(inside("<string>a\r\nb</string>"), Value("a\nb"));
  EXPECT_EQ(inside(" <array> <true/> </array> "), Value::list({true}));
  EXPECT_EQ(decoded("<plist><integer>1</integer></plist>"), Value(1));
}

TEST(XmlPropertyList, KeepsTheOrderOfKeys) {
  const auto value =
      inside("<dict><key>z</key><true/><key>a</key><true/><key>m</key><true/></dict>");
  EXPECT_EQ(value.value().description(), R"({"z": true, "a": true, "m": true})");
}

TEST(XmlPropertyList, AcceptsUtf16) {
  std::string wide = "\xff\xfe";
  for (const char letter : std::string_view("<plist><string>x</string></plist>"))
    wide += {letter, '\0'};
  EXPECT_EQ(decoded(wide), Value("x"));
}

TEST(XmlPropertyList, ErrorsNameTheLine) {
  EXPECT_EQ(faultOf("\n\n<true/><false/>"), "line 3: <false> after the value");
  EXPECT_EQ(faultOf(""), "line 1: <plist> without a value");
  EXPECT_EQ(faultOf("<bool/>"), "line 1: unknown element <bool>");
  EXPECT_EQ(faultOf("text"), "line 1: text between elements");
  EXPECT_EQ(faultOf("<array>text</array>"), "line 1: text between elements");
  EXPECT_EQ(faultOf("<plist><true/></plist>"), "line 1: unknown element <plist>");
  EXPECT_EQ(faultOf("<string>a<true/></string>"), "line 1: <true> within <string>");
  EXPECT_EQ(faultOf("<true>a</true>"), "line 1: <true> holds \"a\"");
  EXPECT_EQ(faultOf("<true> </true>"), "line 1: <true> holds \" \"");
  EXPECT_EQ(faultOf("<integer>many</integer>"), "line 1: <integer> holds \"many\"");
  EXPECT_EQ(faultOf("<real/>"), "line 1: <real> holds \"\"");
  EXPECT_EQ(faultOf("<date>today</date>"), "line 1: <date> holds \"today\"");
  EXPECT_EQ(faultOf("<data>!</data>"), "line 1: <data> holds \"!\"");
  EXPECT_EQ(faultOf("<string a=\"b\"/>"), "line 1: <string> with an attribute");
  EXPECT_EQ(faultOf("<" + std::string(61, 'x') + "/>"),
            "line 1: unknown element <" + std::string(60, 'x') + "...>");
}

TEST(XmlPropertyList, RefusesDictionariesWithoutAlternatingKeysAndValues) {
  EXPECT_EQ(faultOf("<key>a</key>"), "line 1: <key> outside of a dictionary");
  EXPECT_EQ(faultOf("<array><key>a</key></array>"), "line 1: <key> outside of a dictionary");
  EXPECT_EQ(faultOf("<dict><true/></dict>"), "line 1: <true> without a <key>");
  EXPECT_EQ(faultOf("<dict><dict/></dict>"), "line 1: <dict> without a <key>");
  EXPECT_EQ(faultOf("<dict><key>a</key></dict>"), "line 1: key \"a\" without a value");
  EXPECT_EQ(faultOf("<dict><key>a</key><key>b</key></dict>"),
            "line 1: <key> where the value of \"a\" should be");
  EXPECT_EQ(faultOf("<dict><key>a</key><true/><key>b</key><true/>\n<key>a</key><false/>\n</dict>"),
            "line 3: key \"a\" twice in the dictionary that ends here");
}

TEST(XmlPropertyList, AcceptsTheSameKeyInDifferentDictionaries) {
  EXPECT_TRUE(inside("<dict><key>a</key><dict><key>a</key><true/></dict></dict>"));
}

TEST(XmlPropertyList, RequiresPlistVersion1AsRoot) {
  EXPECT_EQ(decoded("<dict/>").error(), "line 1: <dict> where <plist> should be");
  EXPECT_EQ(decoded("<plist version=\"2.0\"><true/></plist>").error(),
            "line 1: <plist> with version=\"2.0\"");
  EXPECT_EQ(decoded("<plist lang=\"en\"><true/></plist>").error(),
            "line 1: <plist> with lang=\"en\"");
}

TEST(XmlPropertyList, RefusesMalformedXml) {
  for (const char* xml :
       {"", " ", "text", "<plist>", "<plist><true/></plist><plist/>",
        "<plist><true/></plist>behind", "<plist><array></dict></plist>",
        "<plist><string>&nbsp;</string></plist>", "<plist><string>\x01</string></plist>",
        "<plist><string>\xff</string></plist>", "<plist><string>\xed\xa0\x80</string></plist>",
        "<plist><string>&#0;</string></plist>", "<plist><string>&#xd800;</string></plist>",
        "<plist><true a='1' a='2'/></plist>",
        "<?xml version='1.0' encoding='EBCDIC'?><plist><true/></plist>"}) {
    EXPECT_FALSE(decoded(xml)) << xml;
  }
  EXPECT_FALSE(decoded(std::string_view("<plist><true/></plist>\0", 23)));
}

TEST(XmlPropertyList, RefusesEntityDeclarations) {
  EXPECT_EQ(
      decoded("<!DOCTYPE plist [<!ENTITY a \"b\">]><plist><string>&a;</string></plist>").error(),
      "line 1: declarations within the document type are not read");
  EXPECT_EQ(decoded("<!DOCTYPE plist [<!ENTITY a SYSTEM "
                    "\"file:///etc/passwd\">]><plist><string>&a;</string></plist>")
                .error(),
            "line 1: declarations within the document type are not read");
  EXPECT_EQ(decoded("<!DOCTYPE plist SYSTEM \"file:///etc/passwd\" [<!ENTITY % a SYSTEM \"b\"> "
                    "%a;]><plist><true/></plist>")
                .error(),
            "line 1: declarations within the document type are not read");
}

// The parser skips entities that an external document type, which it does not read, might declare.
TEST(XmlPropertyList, RefusesEntitiesOfAnExternalDocumentType) {
  EXPECT_EQ(
      decoded(
          "<!DOCTYPE plist SYSTEM \"file:///etc/passwd\">\n<plist><string>a&b;c</string></plist>")
          .error(),
      "line 2: unknown entity b");
}

TEST(XmlPropertyList, BoundsNesting) {
  EXPECT_TRUE(
      inside(repeated("<array>", kPropertyListDepth) + repeated("</array>", kPropertyListDepth)));
  EXPECT_EQ(faultOf(repeated("<array>", kPropertyListDepth + 1) +
                    repeated("</array>", kPropertyListDepth + 1)),
            "line 1: nested more than 64 deep");
  EXPECT_EQ(faultOf(repeated("<dict><key>a</key>", kPropertyListDepth + 1)),
            "line 1: nested more than 64 deep");
  EXPECT_EQ(faultOf(repeated("<array>", 100000)), "line 1: nested more than 64 deep");
}

}  // namespace
}  // namespace keel
