// SPDX-License-Identifier: Apache-2.0
#include "platform/bundle/property_list_forms.h"

#include <gtest/gtest.h>

#include <limits>

#include "platform/bundle/property_list.h"
#include "runtime/foundation/test_bytes.h"

namespace keel {
namespace {

using Bytes = std::vector<std::byte>;

Bytes bigEndian(std::uint64_t number, std::size_t width) {
  Bytes bytes(width);
  for (std::size_t at = width; at > 0; number >>= 8) bytes[--at] = static_cast<std::byte>(number);
  return bytes;
}

void append(Bytes& bytes, const Bytes& more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
}

// Contents of the trailer.
struct Trailer {
  std::size_t offsetBytes = 2;
  std::size_t referenceBytes = 1;
  std::uint64_t topObject = 0;
  std::uint64_t extraObjects = 0;
  std::uint64_t tableShift = 0;
};

// Returns a file with these objects, given in hexadecimal, in this order.
Bytes fileWith(const std::vector<std::string>& objects, Trailer trailer = {}) {
  Bytes file = bytesOfText("bplist00"), table;
  for (const std::string& object : objects) {
    append(table, bigEndian(file.size(), trailer.offsetBytes));
    append(file, bytesOfHex(object));
  }
  const std::uint64_t tableAt = file.size() + trailer.tableShift;
  append(file, table);
  append(file, Bytes(6));
  append(file, bigEndian(trailer.offsetBytes, 1));
  append(file, bigEndian(trailer.referenceBytes, 1));
  append(file, bigEndian(objects.size() + trailer.extraObjects, 8));
  append(file, bigEndian(trailer.topObject, 8));
  append(file, bigEndian(tableAt, 8));
  return file;
}

std::expected<Value, std::string> decoded(const std::vector<std::string>& objects,
                                          Trailer trailer = {}) {
  return decodeBinaryPropertyList(fileWith(objects, trailer));
}

std::string faultOf(const std::vector<std::string>& objects, Trailer trailer = {}) {
  const auto value = decoded(objects, trailer);
  return value ? "accepted: " + value->description() : value.error();
}

TEST(BinaryPropertyList, ReadsEveryScalar) {
  EXPECT_EQ(decoded({"08"}), Value(false));
  EXPECT_EQ(decoded({"09"}), Value(true));
  EXPECT_EQ(decoded({"10 ff"}), Value(255));
  EXPECT_EQ(decoded({"11 ffff"}), Value(65535));
  EXPECT_EQ(decoded({"12 ffffffff"}), Value(4294967295U));
  EXPECT_EQ(decoded({"13 ffffffffffffffff"}), Value(-1));
  EXPECT_EQ(decoded({"14 0000000000000000 ffffffffffffffff"}),
            Value(std::numeric_limits<std::uint64_t>::max()));
  EXPECT_EQ(decoded({"14 ffffffffffffffff 8000000000000000"}),
            Value(std::numeric_limits<std::int64_t>::min()));
  EXPECT_EQ(decoded({"22 3f000000"}), Value(0.5));
  EXPECT_EQ(decoded({"23 bfe0000000000000"}), Value(-0.5));
  EXPECT_EQ(decoded({"33 0000000000000000"}), Value(Date{978307200}));
  EXPECT_EQ(decoded({"33 bff8000000000000"}), Value(Date{978307198.5}));
  EXPECT_EQ(decoded({"42 00ff"}), Value(bytesOfHex("00ff")));
  EXPECT_EQ(decoded({"53 616263"}), Value("abc"));
  EXPECT_EQ(decoded({"65 0041 00fc 20ac d83d de00"}), Value("Aü€😀"));
  EXPECT_EQ(decoded({"50"}), Value(""));
}

TEST(BinaryPropertyList, ReadsArraysAndDictionariesInOrder) {
  EXPECT_EQ(decoded({"a2 02 01", "51 61", "51 62"}), Value::list({"b", "a"}));
  EXPECT_EQ(decoded({"d2 02 01 03 04", "51 61", "51 62", "10 01", "a0"}).value().description(),
            R"({"b": 1, "a": []})");
}

TEST(BinaryPropertyList, ReadsSizesThatFollow) {
  EXPECT_EQ(decoded({"5f 10 03 616263"}), Value("abc"));
  EXPECT_EQ(decoded({"5f 13 0000000000000001 61"}), Value("a"));
  EXPECT_EQ(faultOf({"5f 09 616263"}), "object 0: a size that is no integer");
  EXPECT_EQ(faultOf({"5f 14 0000000000000000 0000000000000001 61"}),
            "object 0: a size that is no integer");
  EXPECT_EQ(faultOf({"5f 13 ffffffffffffffff"}), "object 0: reaches beyond the objects");
  EXPECT_EQ(faultOf({"6f 13 8000000000000000"}), "object 0: reaches beyond the objects");
  EXPECT_EQ(faultOf({"5f"}), "object 0: reaches beyond the objects");
  EXPECT_EQ(faultOf({"5f 11 00"}), "object 0: reaches beyond the objects");
}

TEST(BinaryPropertyList, AcceptsWidthsUpToEightBytes) {
  EXPECT_EQ(decoded({"a1 0000000000000001", "09"}, {.offsetBytes = 8, .referenceBytes = 8}),
            Value::list({true}));
  EXPECT_EQ(decoded({"a1 000001", "09"}, {.offsetBytes = 1, .referenceBytes = 3}),
            Value::list({true}));
  for (const std::size_t width : {0U, 9U}) {
    EXPECT_EQ(faultOf({"09"}, {.referenceBytes = width}), "its trailer does not fit the file");
    EXPECT_EQ(faultOf({"09"}, {.offsetBytes = width}), "its trailer does not fit the file");
  }
}

TEST(BinaryPropertyList, RefusesObjectsOfOtherKinds) {
  for (const char* object : {"00", "01", "0f", "15 00", "20 00", "21 0000", "24 00", "30",
                             "32 00000000", "70", "80 01", "b0", "c0", "e0", "f0"}) {
    EXPECT_EQ(faultOf({object}), "object 0: of a kind that property lists do not have") << object;
  }
  EXPECT_EQ(faultOf({"14 0000000000000001 0000000000000000"}),
            "object 0: an integer beyond 64 bits");
  EXPECT_EQ(faultOf({"14 ffffffffffffffff 7fffffffffffffff"}),
            "object 0: an integer beyond 64 bits");
  EXPECT_EQ(faultOf({"33 7ff0000000000000"}), "object 0: a date without a time");
  EXPECT_EQ(faultOf({"33 7ff8000000000000"}), "object 0: a date without a time");
  EXPECT_EQ(faultOf({"51 80"}), "object 0: text that is not ASCII");
}

TEST(BinaryPropertyList, RefusesUnpairedSurrogates) {
  EXPECT_EQ(decoded({"62 dbff dfff"}), Value("\xf4\x8f\xbf\xbf"));
  for (const char* object :
       {"61 d83d", "61 de00", "62 de00 d83d", "62 d83d 0041", "62 d83d d83d"}) {
    EXPECT_EQ(faultOf({object}), "object 0: text that is not UTF-16") << object;
  }
}

TEST(BinaryPropertyList, RefusesDuplicateAndNonTextKeys) {
  EXPECT_EQ(faultOf({"d1 01 01", "10 01"}), "object 0: a key that is no text");
  EXPECT_EQ(faultOf({"d2 01 01 02 02", "51 61", "09"}), "object 0: key \"a\" twice");
  EXPECT_EQ(faultOf({"d2 01 02 03 03", "51 61", "51 61", "09"}), "object 0: key \"a\" twice");
}

TEST(BinaryPropertyList, RefusesOffsetsOutsideTheObjects) {
  EXPECT_EQ(faultOf({"a1 02", "09"}), "object 0: there is no object 2");
  EXPECT_EQ(faultOf({"09"}, {.topObject = 1}), "there is no object 1");
  EXPECT_EQ(faultOf({"a2 01", "09"}), "object 0: there is no object 9");
  EXPECT_EQ(faultOf({"a3 01"}), "object 0: reaches beyond the objects");
  EXPECT_EQ(faultOf({"13 00"}), "object 0: reaches beyond the objects");
  Bytes file = fileWith({"09"});
  file[10] = std::byte{7};  // within the magic
  EXPECT_EQ(decodeBinaryPropertyList(file).error(), "object 0 lies outside");
  file[10] = std::byte{9};  // in the table
  EXPECT_EQ(decodeBinaryPropertyList(file).error(), "object 0 lies outside");
}

TEST(BinaryPropertyList, RefusesATrailerThatDoesNotFitTheFile) {
  EXPECT_EQ(faultOf({"09"}, {.extraObjects = 1}), "its trailer does not fit the file");
  EXPECT_EQ(faultOf({"09"}, {.extraObjects = ~std::uint64_t{0}}),
            "its trailer does not fit the file");
  EXPECT_EQ(faultOf({"09"}, {.offsetBytes = 8, .extraObjects = std::uint64_t{1} << 61}),
            "its trailer does not fit the file");
  EXPECT_EQ(faultOf({"09"}, {.tableShift = 1}), "its trailer does not fit the file");
  EXPECT_EQ(faultOf({"09"}, {.tableShift = ~std::uint64_t{0}}),
            "its trailer does not fit the file");
  EXPECT_EQ(faultOf({"09"}, {.tableShift = ~std::uint64_t{0} - 8}),
            "its trailer does not fit the file");
  EXPECT_EQ(faultOf({}), "there is no object 0");
}

TEST(BinaryPropertyList, RefusesATruncatedFile) {
  const Bytes whole = fileWith({"d1 01 02", "51 61", "53 616263"});
  ASSERT_TRUE(decodeBinaryPropertyList(whole));
  for (std::size_t size = 0; size < whole.size(); ++size) {
    EXPECT_FALSE(decodeBinaryPropertyList(std::span(whole).first(size))) << size;
  }
  EXPECT_EQ(decodeBinaryPropertyList(std::span(whole).first(39)).error(),
            "cut off before its trailer");
}

TEST(BinaryPropertyList, RefusesOtherVersions) {
  for (const char* magic : {"bplist01", "bplist15", "bplist0", "bplist"}) {
    Bytes file = fileWith({"09"});
    const Bytes other = bytesOfText(magic);
    file.erase(file.begin(), file.begin() + 8);
    file.insert(file.begin(), other.begin(), other.end());
    EXPECT_TRUE(looksLikeBinaryPropertyList(file));
    EXPECT_EQ(decodeBinaryPropertyList(file).error(),
              "a binary property list of an unknown version");
  }
  EXPECT_FALSE(looksLikeBinaryPropertyList(bytesOfText("bplis")));
  EXPECT_FALSE(looksLikeBinaryPropertyList(bytesOfText("<plist/>")));
}

TEST(BinaryPropertyList, RefusesCycles) {
  EXPECT_EQ(faultOf({"a1 00"}), "object 0: object 0 holds itself");
  EXPECT_EQ(faultOf({"d1 01 00", "51 61"}), "object 0: object 0 holds itself");
  EXPECT_EQ(faultOf({"d1 00 01", "51 61"}), "object 0: object 0 holds itself");
  EXPECT_EQ(faultOf({"a1 01", "a1 02", "a1 00"}), "object 2: object 0 holds itself");
}

// Each object contains the next one; the last is empty.
std::vector<std::string> chain(std::size_t length) {
  std::vector<std::string> objects;
  for (std::size_t next = 1; next < length; ++next)
    objects.push_back("a1" + hexOf(bigEndian(next, 1)));
  objects.emplace_back("a0");
  return objects;
}

TEST(BinaryPropertyList, BoundsNesting) {
  EXPECT_TRUE(decoded(chain(kPropertyListDepth)));
  EXPECT_EQ(faultOf(chain(kPropertyListDepth + 1)), "object 64: nested more than 64 deep");
}

TEST(BinaryPropertyList, BoundsTheExpansionOfSharedObjects) {
  EXPECT_EQ(decoded({"a2 01 01", "a2 02 02", "51 61"}),
            Value::list({Value::list({"a", "a"}), Value::list({"a", "a"})}));
  // Doubles at each level: 2^40 values in a few hundred bytes.
  std::vector<std::string> doubling;
  for (std::size_t next = 1; next <= 40; ++next) {
    doubling.push_back("a2" + hexOf(bigEndian(next, 1)) + hexOf(bigEndian(next, 1)));
  }
  doubling.emplace_back("09");
  EXPECT_NE(faultOf(doubling).find("its value takes more than 16777216 bytes"), std::string::npos);
}

// Returns an array of `count` references to one text of 64 KiB.
std::vector<std::string> sharedText(std::size_t count) {
  std::string list = "af 10" + hexOf(bigEndian(count, 1)), text = "5f 12 00010000";
  for (std::size_t i = 0; i < count; ++i) list += "01";
  for (std::size_t i = 0; i < 0x10000; ++i) text += "61";
  return {list, text};
}

TEST(BinaryPropertyList, ChargesSharedTextPerReference) {
  EXPECT_EQ(decoded(sharedText(127), {.offsetBytes = 4}).value().as<Value::List>()->size(), 127U);
  EXPECT_EQ(faultOf(sharedText(128), {.offsetBytes = 4}),
            "object 1: its value takes more than 16777216 bytes");
}

}  // namespace
}  // namespace keel
