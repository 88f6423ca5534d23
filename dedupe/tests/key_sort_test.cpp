// Sorting positions by their keys: the order must be exactly a stable sort in
// byte order, whatever the keys share (long common beginnings, keys that
// begin others, many equal keys) and however many there are.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "dedupe/key_sort.hpp"

namespace corvane {
namespace {

std::vector<std::string> keys(std::size_t count, unsigned seed) {
  std::mt19937 random(seed);
  // Few letters and shared beginnings, so that ties run past eight bytes.
  static const std::vector<std::string> beginnings{"", "moc.", "moc.ahsafirud", "a", "abcdefgh",
                                                   "abcdefghabcdefgh", "zzzzzzzzzzzzzzzzzzzzz"};
  std::vector<std::string> result;
  for (std::size_t i = 0; i < count; ++i) {
    std::string key = beginnings[random() % beginnings.size()];
    const std::size_t extra = random() % 20;
    for (std::size_t k = 0; k < extra; ++k) key += static_cast<char>('a' + random() % 3);
    if (key.empty()) key = "b";
    if (random() % 4 == 0) key += "\xc3\xa9";  // bytes above 0x7f sort after letters
    result.push_back(std::move(key));
  }
  return result;
}

TEST(KeySort, SortsExactlyAsAStableSortOfTheKeysInByteOrder) {
  for (const std::size_t count : {std::size_t{2}, std::size_t{63}, std::size_t{64},
                                  std::size_t{1000}, std::size_t{60000}}) {
    const std::vector<std::string> values = keys(count, static_cast<unsigned>(count));
    // Positions in a shuffled order: stability must keep that order among equals.
    std::vector<std::uint32_t> ids(count);
    for (std::uint32_t i = 0; i < count; ++i) ids[i] = i;
    std::shuffle(ids.begin(), ids.end(), std::mt19937(3));
    std::vector<std::uint32_t> expected = ids;
    std::stable_sort(expected.begin(), expected.end(), [&](std::uint32_t a, std::uint32_t b) {
      return std::string_view(values[a]) < std::string_view(values[b]);
    });

    KeySort::sortIds(ids, [&](std::uint32_t id) { return std::string_view(values[id]); });

    EXPECT_EQ(ids, expected) << count << " keys";
  }
}

TEST(KeySort, KeysThatDifferOnlyInTheirHighBytesOrLengthStillOrder) {
  const std::vector<std::string> values{"12345678", "1234567", "123456789", "12345678",
                                        std::string(8, '\xff'), "2", "12345678\x01"};
  std::vector<std::uint32_t> ids{0, 1, 2, 3, 4, 5, 6};
  KeySort::sortIds(ids, [&](std::uint32_t id) { return std::string_view(values[id]); });
  EXPECT_EQ(ids, (std::vector<std::uint32_t>{1, 0, 3, 6, 2, 5, 4}));
}

}  // namespace
}  // namespace corvane
