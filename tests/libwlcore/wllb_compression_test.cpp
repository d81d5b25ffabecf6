// Members from a kept stream are those of a fresh one, and no damage to a member gives another text.
#include "wllb_compression.h"

#include <random>
#include <thread>

#include <gtest/gtest.h>
#include <zlib.h>

namespace {

// A member from a stream that has never seen another text.
std::string fresh_member(const std::string &text, int mode) {
  z_stream z = {};
  EXPECT_EQ(Z_OK, deflateInit2(&z, Z_DEFAULT_COMPRESSION, Z_DEFLATED, mode == 1 ? 31 : 15, 8, Z_DEFAULT_STRATEGY));
  std::vector<Bytef> in(text.begin(), text.end()), out(deflateBound(&z, text.size()) + 1);
  z.next_in = in.data();
  z.avail_in = static_cast<uInt>(in.size());
  z.next_out = out.data();
  z.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(Z_STREAM_END, deflate(&z, Z_FINISH));
  deflateEnd(&z);
  return {out.begin(), out.begin() + static_cast<long>(z.total_out)};
}

// Sizes and contents as blobs have them: nothing, a token, many alike, and bytes that do not compress.
std::vector<std::string> texts_of_all_kinds() {
  std::mt19937 random(20261122);
  std::vector<std::string> texts = {"", "x", std::string(1, '\0'), std::string(300000, 'a')};
  for (size_t size = 2; size < 400000; size = size * 3 + 1) {
    std::string noise, tokens;
    while (noise.size() < size) {
      noise += static_cast<char>(random());
      tokens += "17:99_" + std::to_string(random() % 50) + "_0_";
    }
    texts.insert(texts.end(), {noise, tokens.substr(0, size)});
  }
  return texts;
}

int inflated(const std::string &bytes, size_t limit, std::string *text) {
  const std::vector<char> exact(bytes.begin(), bytes.end()); // a read behind the last byte is one behind the block
  return wllb_decomp_do(exact.data(), exact.size(), limit, text);
}

TEST(wllb_compression, a_kept_stream_gives_the_bytes_of_a_fresh_one) {
  const auto all_of_them = [] {
    wllb_text out = {}; // one buffer for all, as the writers have it
    std::string text_again;
    for (const std::string &text : texts_of_all_kinds())
      for (const int mode : {1, 0, 1}) {
        ASSERT_EQ(0, wllb_comp_do(text, mode, &out));
        ASSERT_EQ(fresh_member(text, mode), wllb_text_view(out)) << text.size();
        ASSERT_EQ(0, out.data[out.len]);
        ASSERT_EQ(0, wllb_decomp_do(out.data, out.len, text.size(), &text_again));
        ASSERT_EQ(text, text_again);
      }
    wllb_text_free(out, "test");
  };
  std::thread other(all_of_them);
  all_of_them();
  other.join();
}

TEST(wllb_compression, no_damage_gives_another_text) {
  const std::string text = "17:99_0_120_0_17:99_1_35_4:0:0:0:0___18:99_0_35_0_";
  for (const int mode : {0, 1}) {
    const std::string whole = fresh_member(text, mode);
    std::string out;
    for (size_t cut = 0; cut < whole.size(); ++cut)
      EXPECT_EQ(-1, inflated(whole.substr(0, cut), 1000, &out)) << cut;
    EXPECT_EQ(-1, inflated(whole + whole, 1000, &out));
    int unnoticed = 0;
    for (size_t bit = 0; bit < whole.size() * 8; ++bit) {
      std::string damaged = whole;
      damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ 1 << bit % 8);
      if (inflated(damaged, 1000, &out) != 0)
        continue;
      ++unnoticed;
      EXPECT_EQ(text, out) << bit;
    }
    const int says_nothing = mode == 1 ? 6 * 8 + 1 : 0; // gzip: the file's time, system and level, and one flag
    EXPECT_LE(says_nothing, unnoticed);
    EXPECT_GE(says_nothing + 7, unnoticed) << "and what fills the last byte";
  }
}

TEST(wllb_compression, a_text_longer_than_the_limit_is_refused) {
  for (const size_t size : {1, 4095, 4096, 4097, 10000000}) {
    const std::string text(size, 'z');
    const std::string bytes = fresh_member(text, 1);
    std::string out;
    EXPECT_EQ(0, inflated(bytes, size, &out)) << size;
    EXPECT_EQ(text, out);
    EXPECT_EQ(-1, inflated(bytes, size - 1, &out)) << size;
    std::string half;
    EXPECT_EQ(-1, inflated(bytes, size / 2, &half)) << size;
    EXPECT_LE(half.capacity(), size + 4096) << "a small member asks for no more memory than its limit allows";
  }
}

} // namespace
