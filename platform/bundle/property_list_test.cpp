// SPDX-License-Identifier: Apache-2.0
#include "platform/bundle/property_list.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "platform/bundle/property_list_forms.h"
#include "runtime/foundation/temporary_folder.h"
#include "runtime/foundation/test_bytes.h"

namespace keel {
namespace {

// A dictionary with the key "a" and the value true, in the binary form.
const std::string kBinary(
    "bplist00\xd1\x01\x02Qa\x09\x08\x0b\x0d\0\0\0\0\0\0\x01\x01\0\0\0\0\0\0\0\x03\0\0\0\0\0\0\0\0\0"
    "\0\0\0\0\0\0\x0e",
    49);

TEST(PropertyList, IsReadInBothForms) {
  const TemporaryFolder folder;
  folder.write("xml", "<plist><dict><key>a</key><true/></dict></plist>");
  folder.write("binary", kBinary);
  EXPECT_EQ(readPropertyList(folder.path("xml")), Value::map({{"a", true}}));
  EXPECT_EQ(readPropertyList(folder.path("binary")), Value::map({{"a", true}}));
}

TEST(PropertyList, NamesTheFileAndTheReason) {
  const TemporaryFolder folder;
  const std::string path = folder.path("file");
  folder.write("file", "<plist>\n<what/></plist>");
  EXPECT_EQ(
      readPropertyList(path).error().description(),
      path + " is no property list: line 2: unknown element <what> (NSPOSIXErrorDomain error 74)");
  folder.write("file", "bplist00");
  EXPECT_EQ(
      readPropertyList(path).error().description(),
      path + " is no property list: cut off before its trailer (NSPOSIXErrorDomain error 74)");
  EXPECT_EQ(readPropertyList(folder.path("none")).error().code(), ENOENT);
  EXPECT_EQ(readPropertyList(folder.path()).error().code(), EINVAL);
}

// Returns a document of `size` bytes with one text.
std::string documentOf(std::size_t bytes) {
  const std::string before = "<plist><string>", after = "</string></plist>";
  return before + std::string(bytes - before.size() - after.size(), 'x') + after;
}

TEST(PropertyList, BoundsTheSize) {
  const TemporaryFolder folder;
  folder.write("fits", documentOf(kPropertyListBytes));
  folder.write("larger", documentOf(kPropertyListBytes + 1));
  EXPECT_TRUE(readPropertyList(folder.path("fits")));
  EXPECT_EQ(readPropertyList(folder.path("larger")).error().code(), EFBIG);
  EXPECT_TRUE(decodePropertyList(bytesOfText(documentOf(kPropertyListBytes))));
  EXPECT_EQ(decodePropertyList(bytesOfText(documentOf(kPropertyListBytes + 1))).error(),
            "more than 1048576 bytes");
}

TEST(PropertyListKeys, FindsADuplicate) {
  EXPECT_EQ(findDuplicateKey({}), nullptr);
  EXPECT_EQ(findDuplicateKey({{"a", 1}, {"b", 1}, {"", 1}, {"ab", 1}}), nullptr);
  EXPECT_EQ(*findDuplicateKey({{"a", 1}, {"b", 1}, {"a", 2}}), "a");
  EXPECT_EQ(*findDuplicateKey({{"", 1}, {"b", 1}, {"", 2}}), "");
}

TEST(PropertyListKeys, ExcerptsAreCutBetweenCharacters) {
  EXPECT_EQ(excerptOf(std::string(60, 'x')), std::string(60, 'x'));
  EXPECT_EQ(excerptOf(std::string(61, 'x')), std::string(60, 'x') + "...");
  EXPECT_EQ(excerptOf(std::string(59, 'x') + "ü"), std::string(59, 'x') + "...");
  EXPECT_EQ(excerptOf(std::string(58, 'x') + "üy"), std::string(58, 'x') + "ü...");
}

}  // namespace
}  // namespace keel
