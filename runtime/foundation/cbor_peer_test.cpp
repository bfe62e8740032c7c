// SPDX-License-Identifier: Apache-2.0
#include <cbor.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>

#include "runtime/foundation/cbor.h"
#include "runtime/foundation/cbor_writer.h"
#include "runtime/foundation/test_bytes.h"
#include "runtime/foundation/test_python.h"

// Compares our codec with two others: Python's cbor2 makes values and judges our encoding, libcbor
// reads what we accept. Both accept more than we do, so the comparison runs one way: what we accept
// they accept, with the same value.

namespace keel::cbor {
namespace {

constexpr unsigned kSeed = 20261120;

// Prints encoded random values, one a line. Arguments: the seed and the count.
constexpr const char* kMakeCorpus = R"(
import cbor2, random, sys
from datetime import datetime, timedelta, timezone
r = random.Random(int(sys.argv[1]))
epoch = datetime(1970, 1, 1, tzinfo=timezone.utc)
characters = "abcdefghij XYZ09_-./\u00fc\u00df\u20ac\u4e2d\U0001f600\x00\x1f"
def text(): return "".join(r.choice(characters) for _ in range(r.choice((0, 1, 3, 7, 8, 9, 23, 24, 40, 300))))
def integer(low, high):
    edge = 1 << r.randrange(65)
    return min(high, max(low, r.choice((1, -1)) * edge + r.randrange(-2, 3)))
def real():
    return r.choice((0.0, -0.0, 1.5, 0.1, 65504.0, 2.0 ** -24, 3.4e38, 1e300, float("inf"), float("-inf"), float("nan"),
                     r.uniform(-1e6, 1e6), float(r.randrange(-2048, 2048))))
def date():
    return epoch + timedelta(seconds=r.randrange(-10**9, 4 * 10**9), microseconds=r.choice((0, 500000, r.randrange(10**6))))
def members(depth): return {text(): value(depth) for _ in range(r.choice((0, 1, 2, 5, 30)))}
def value(depth):
    kind = r.randrange(11 if depth < 4 else 8)
    if kind == 0: return None
    if kind == 1: return r.random() < 0.5
    if kind == 2: return integer(-2**63, 2**64 - 1)
    if kind == 3: return real()
    if kind in (4, 5): return text()
    if kind == 6: return r.randbytes(r.choice((0, 1, 23, 24, 255, 256)))
    if kind == 7: return date()
    if kind == 8: return [value(depth + 1) for _ in range(r.choice((0, 1, 2, 5, 30)))]
    if kind == 9: return members(depth + 1)
    return cbor2.CBORTag(51741, [text(), integer(-2**63, 2**63 - 1), r.choice((None, members(depth + 2)))])
for _ in range(int(sys.argv[2])):
    print(cbor2.dumps(value(0), datetime_as_timestamp=True, canonical=r.random() < 0.5).hex())
)";

// Reads lines of two encodings each from a file and prints their number; exits with 1 at the first
// line whose encodings hold different values.
constexpr const char* kCompare = R"(
import cbor2, io, sys
def whole(text):
    stream = io.BytesIO(bytes.fromhex(text))
    value = cbor2.load(stream)
    assert stream.read() == b"", "bytes left over in " + text
    return value
count = 0
for line in open(sys.argv[1]):
    theirs, ours = map(whole, line.split())
    if repr(theirs) != repr(ours): sys.exit("differs: " + line)
    count += 1
print(count)
)";

std::vector<std::vector<std::byte>> pythonCorpus(const TemporaryFolder& folder, int count) {
  std::istringstream lines(
      runPython(folder, kMakeCorpus, std::to_string(kSeed) + " " + std::to_string(count)));
  std::vector<std::vector<std::byte>> corpus;
  for (std::string line; std::getline(lines, line);) corpus.push_back(bytesOfHex(line));
  EXPECT_EQ(corpus.size(), static_cast<std::size_t>(count));
  return corpus;
}

// Python's dates are limited to the years 1 to 9999.
bool pythonCanHold(const Value& value) {
  if (const Date* date = value.as<Date>())
    return date->secondsSinceEpoch > -6.2e10 && date->secondsSinceEpoch < 2.5e11;
  if (const Error* error = value.as<Error>()) return pythonCanHold(error->userInfo().value());
  if (const auto* list = value.as<Value::List>()) return std::ranges::all_of(*list, pythonCanHold);
  const auto* map = value.as<Value::Map>();
  return map == nullptr || std::ranges::all_of(*map, pythonCanHold, &Member::value);
}

// Returns copies of the corpus with one byte of each changed, as far as we accept them and Python
// can hold them.
std::vector<std::vector<std::byte>> acceptedMutations(
    const std::vector<std::vector<std::byte>>& corpus, int rounds) {
  std::mt19937 random(kSeed);
  std::vector<std::vector<std::byte>> accepted;
  for (int round = 0; round < rounds; ++round) {
    for (auto bytes : corpus) {
      bytes[random() % bytes.size()] = static_cast<std::byte>(random());
      const auto value = decode(bytes, kDepthCapacity);
      if (value && pythonCanHold(*value)) accepted.push_back(bytes);
    }
  }
  return accepted;
}

// Returns how many of these Python finds equal to our re-encoding.
std::size_t equalInPython(const TemporaryFolder& folder,
                          const std::vector<std::vector<std::byte>>& encodings) {
  {
    std::ofstream pairs(folder.path("pairs"));
    for (const auto& bytes : encodings) {
      const auto value = decode(bytes, kDepthCapacity);
      if (!value) {
        ADD_FAILURE() << describe(value.error()) << ": " << hexOf(bytes);
        continue;
      }
      pairs << hexOf(bytes) << ' ' << hexOf(encode(*value)) << '\n';
    }
  }
  const std::string output = runPython(folder, kCompare, folder.path("pairs"));
  return static_cast<std::size_t>(std::atoll(output.c_str()));
}

TEST(PythonPeer, OurEncodingHoldsTheSameValues) {
  const TemporaryFolder folder;
  const auto corpus = pythonCorpus(folder, 2000);
  EXPECT_EQ(equalInPython(folder, corpus), corpus.size());
}

TEST(PythonPeer, AcceptsDamagedEncodingsThatWeAccept) {
  const TemporaryFolder folder;
  const auto accepted = acceptedMutations(pythonCorpus(folder, 500), 20);
  EXPECT_GT(accepted.size(), 1000U);
  EXPECT_EQ(equalInPython(folder, accepted), accepted.size());
}

TEST(LibcborPeer, AcceptsEncodingsThatWeAccept) {
  const TemporaryFolder folder;
  auto encodings = pythonCorpus(folder, 1000);
  const auto mutations = acceptedMutations(encodings, 20);
  encodings.insert(encodings.end(), mutations.begin(), mutations.end());
  for (const auto& bytes : encodings) {
    cbor_load_result result;
    cbor_item_t* item = cbor_load(reinterpret_cast<cbor_data>(bytes.data()), bytes.size(), &result);
    ASSERT_NE(item, nullptr) << result.error.code << ": " << hexOf(bytes);
    EXPECT_EQ(result.read, bytes.size()) << hexOf(bytes);
    cbor_decref(&item);
  }
}

}  // namespace
}  // namespace keel::cbor
