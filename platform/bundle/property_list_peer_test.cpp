// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>

#include "platform/bundle/property_list.h"
#include "runtime/foundation/cbor.h"
#include "runtime/foundation/cbor_writer.h"
#include "runtime/foundation/test_bytes.h"
#include "runtime/foundation/test_python.h"

// Compares our property list reader with Python's: both read the same values from its files, and
// any corrupted file that we accept it accepts too, with the same value. Values are exchanged in
// CBOR.

namespace keel {
namespace {

constexpr unsigned kSeed = 20261121;

// Encodes a property list value in CBOR in Python, dates as floating-point numbers like ours.
// Python has no dates outside the years 1 to 9999.
constexpr const char* kCbor = R"(
import cbor2, plistlib, random, sys
from datetime import datetime
def tagged(value):
    if isinstance(value, dict): return {key: tagged(item) for key, item in value.items()}
    if isinstance(value, list): return [tagged(item) for item in value]
    if isinstance(value, datetime):
        seconds = (value - datetime(1970, 1, 1)).total_seconds()
        return cbor2.CBORTag(1, int(seconds) if seconds.is_integer() else seconds)
    return value
def cbor(value): return cbor2.dumps(tagged(value)).hex()
)";

// Prints a file in XML, the same in the binary form, and its value, one line each. The arguments
// are the seed and the count. Omits -0.0, which Python's binary writer merges with 0.0.
constexpr const char* kMakeCorpus = R"(
from datetime import timedelta
r = random.Random(int(sys.argv[1]))
characters = "abcdefghij XYZ09_-./<>&\"'\n\t\u00fc\u00df\u20ac\u4e2d\U0001f600"
def text(): return "".join(r.choice(characters) for _ in range(r.choice((0, 1, 3, 14, 15, 40))))
def integer():
    return min(2**64 - 1, max(-2**63, r.choice((1, -1)) * (1 << r.randrange(65)) + r.randrange(-2, 3)))
def real():
    return r.choice((0.0, 1.5, 0.1, 1e300, 5e-324, float("inf"), float("-inf"), r.uniform(-1e6, 1e6)))
def date(): return datetime(1970, 1, 1) + timedelta(seconds=r.randrange(-6 * 10**10, 25 * 10**10))
def value(depth):
    kind = r.randrange(10 if depth < 3 else 7)
    if kind == 0: return r.random() < 0.5
    if kind == 1: return integer()
    if kind == 2: return real()
    if kind in (3, 4): return text()
    if kind == 5: return r.randbytes(r.choice((0, 1, 2, 14, 15, 300)))
    if kind == 6: return date()
    if kind == 7: return [value(depth + 1) for _ in range(r.choice((0, 1, 2, 3, 15)))]
    return {text(): value(depth + 1) for _ in range(r.choice((0, 1, 2, 3, 15)))}
for _ in range(int(sys.argv[2])):
    whole = value(0)
    for form in (plistlib.FMT_XML, plistlib.FMT_BINARY):
        print(plistlib.dumps(whole, fmt=form, sort_keys=False).hex())
    print(cbor(whole))
)";

// Reads lines with a file and our value of it, and prints their count; fails at the first mismatch.
constexpr const char* kCompare = R"(
count = 0
for line in open(sys.argv[1]):
    file, ours = line.split()
    file = bytes.fromhex(file)
    form = plistlib.FMT_BINARY if file.startswith(b"bplist") else plistlib.FMT_XML
    theirs = cbor(plistlib.loads(file, fmt=form))
    if plain(theirs) != plain(ours): sys.exit("differs: " + line + theirs)
    count += 1
print(count)
)";

// Makes a decoded value comparable: key order matters, and 1 differs from 1.0 and from true.
constexpr const char* kPlain = R"(
def plain(text):
    def walk(value):
        if isinstance(value, dict): return [(key, walk(item)) for key, item in value.items()]
        if isinstance(value, list): return [walk(item) for item in value]
        return repr(value)
    return walk(cbor2.loads(bytes.fromhex(text)))
)";

using Files = std::vector<std::vector<std::byte>>;

struct Corpus {
  Files xml;
  Files binary;
  std::vector<Value> values;
};

Corpus pythonCorpus(const TemporaryFolder& folder, int count) {
  const std::string program = std::string(kCbor) + kMakeCorpus;
  std::istringstream lines(
      runPython(folder, program.c_str(), std::to_string(kSeed) + " " + std::to_string(count)));
  Corpus corpus;
  for (std::string xml, binary, value;
       std::getline(lines, xml) && std::getline(lines, binary) && std::getline(lines, value);) {
    corpus.xml.push_back(bytesOfHex(xml));
    corpus.binary.push_back(bytesOfHex(binary));
    corpus.values.push_back(cbor::decode(bytesOfHex(value), cbor::kDepthCapacity).value());
  }
  EXPECT_EQ(corpus.values.size(), static_cast<std::size_t>(count));
  return corpus;
}

void expectValues(const Files& files, const std::vector<Value>& values) {
  for (std::size_t place = 0; place < files.size(); ++place) {
    const auto value = decodePropertyList(files[place]);
    ASSERT_TRUE(value) << value.error() << ": " << hexOf(files[place]);
    EXPECT_EQ(value->description(), values[place].description()) << hexOf(files[place]);
  }
}

// Python's dates cover the years 1 to 9999 in whole microseconds.
bool pythonCanHold(const Value& value) {
  if (const Date* date = value.as<Date>()) {
    return date->secondsSinceEpoch > -6.2e10 && date->secondsSinceEpoch < 2.5e11 &&
           date->wholeSeconds();
  }
  if (const auto* list = value.as<Value::List>()) return std::ranges::all_of(*list, pythonCanHold);
  const auto* map = value.as<Value::Map>();
  return map == nullptr || std::ranges::all_of(*map, pythonCanHold, &Member::value);
}

// Corrupts each file in a few positions, and compares those that we still accept. Returns their
// count.
std::size_t acceptedByBoth(const TemporaryFolder& folder, const Files& files, int rounds) {
  std::mt19937 random(kSeed);
  std::size_t accepted = 0;
  std::ofstream lines(folder.path("lines"));
  for (int round = 0; round < rounds; ++round) {
    for (auto bytes : files) {
      for (auto changes = random() % 3; changes > 0; --changes)
        bytes[random() % bytes.size()] = static_cast<std::byte>(random());
      const auto value = decodePropertyList(bytes);
      if (!value || !pythonCanHold(*value)) continue;
      lines << hexOf(bytes) << ' ' << hexOf(cbor::encode(*value)) << '\n';
      ++accepted;
    }
  }
  lines.close();
  const std::string program = std::string(kCbor) + kPlain + kCompare;
  EXPECT_EQ(std::atoll(runPython(folder, program.c_str(), folder.path("lines")).c_str()),
            static_cast<long long>(accepted));
  return accepted;
}

TEST(PropertyListPeer, ReadsTheSameValueFromXml) {
  const TemporaryFolder folder;
  const Corpus corpus = pythonCorpus(folder, 1000);
  expectValues(corpus.xml, corpus.values);
}

TEST(PropertyListPeer, ReadsTheSameValueFromTheBinaryForm) {
  const TemporaryFolder folder;
  const Corpus corpus = pythonCorpus(folder, 1000);
  expectValues(corpus.binary, corpus.values);
}

TEST(PropertyListPeer, AgreesOnCorruptedXmlThatWeAccept) {
  const TemporaryFolder folder;
  EXPECT_GT(acceptedByBoth(folder, pythonCorpus(folder, 300).xml, 10), 1000U);
}

TEST(PropertyListPeer, AgreesOnCorruptedBinaryFilesThatWeAccept) {
  const TemporaryFolder folder;
  EXPECT_GT(acceptedByBoth(folder, pythonCorpus(folder, 300).binary, 10), 1000U);
}

}  // namespace
}  // namespace keel
