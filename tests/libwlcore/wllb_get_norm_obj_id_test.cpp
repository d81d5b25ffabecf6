// Norm id tables against a plain model, and against texts, lengths and ids that no caller should send.
#include "wllb_get_norm_obj_id.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <deque>
#include <map>
#include <random>

namespace {

// A table that is destroyed at the end of its scope.
struct scoped_table {
  NormObjKey key;

  explicit scoped_table(int size) { EXPECT_EQ(0, wllb_init_norm_id_table(&key, size)); }

  ~scoped_table() { wllb_obj_hash_destroy(&key); }

  scoped_table(const scoped_table &) = delete;
  scoped_table &operator=(const scoped_table &) = delete;
};

int add(NormObjKey *key, const std::string &text) {
  int is_new;
  return wllb_get_or_gen_norm_id(key, text.c_str(), static_cast<int>(text.size()), &is_new);
}

int look_up(NormObjKey *key, const std::string &text) {
  return wllb_get_norm_id(key, text.c_str(), static_cast<int>(text.size()));
}

// What a table is to its callers.
struct table_model {
  std::map<std::string, int> ids;
  std::deque<int> released;
  int prev_id = -1;

  int add(const std::string &text, int id) {
    ids[text] = id;
    return id;
  }

  int take_released_or_fresh() {
    if (released.empty())
      return ++prev_id;
    const int id = released.front();
    released.pop_front();
    return id;
  }
};

// One random operation on both; the texts are few, so that most operations meet a key that was there before.
class both_tables {
public:
  both_tables(int size, unsigned seed) : table(size), random(seed) {}

  void run_one() {
    text = some_text();
    SCOPED_TRACE(text);
    const auto known = model.ids.find(text);
    present = known != model.ids.end();
    old_id = present ? known->second : -2;
    switch (pick(8)) {
    case 0:
      return expect_added(wllb_get_or_gen_norm_id(&table.key, c(), pick(2) ? len() : 0, &is_new), FRESH);
    case 1:
      return expect_hashed();
    case 2:
      return expect_added(wllb_get_set_or_gen_norm_id_ex(&table.key, c(), len(), &is_new), RELEASED);
    case 3:
      return expect_wanted_id();
    case 4:
      return expect_set();
    case 5:
      return expect_deleted();
    case 6:
      return expect_bucket_told();
    default:
      EXPECT_EQ(old_id, look_up(&table.key, text));
    }
  }

  void expect_same_content() {
    for (const auto &[name, id] : model.ids)
      EXPECT_EQ(id, look_up(&table.key, name)) << name;
    EXPECT_EQ(model.prev_id, table.key.prev_id);
  }

private:
  enum source { FRESH, RELEASED };

  int pick(int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); }

  std::string some_text() {
    const std::string stems[] = {"a", "com.acme.Pay.charge", "select * from t where id = ", std::string(300, 'x')};
    return stems[pick(4)] + (pick(4) ? std::to_string(pick(40)) : "");
  }

  const char *c() const { return text.c_str(); }

  int len() const { return static_cast<int>(text.size()); }

  // In a table of one bucket the chain is the table: a new key passes every other one.
  void expect_is_new() {
    if (present)
      EXPECT_EQ(0, is_new);
    else if (table.key.prime == 1)
      EXPECT_EQ(std::max<int>(1, static_cast<int>(model.ids.size())), is_new);
    else
      EXPECT_NE(0, is_new);
  }

  void expect_added(int id, source from) {
    expect_is_new();
    EXPECT_EQ(present ? old_id : model.add(text, from == FRESH ? ++model.prev_id : model.take_released_or_fresh()), id);
  }

  // The bytes as they stand in a longer record: no NUL behind them, nothing at all behind them.
  void expect_hashed() {
    std::vector<char> bytes(text.begin(), text.end());
    const uint64_t hash = wllb_norm_hash(bytes.data(), len());
    expect_added(wllb_get_or_gen_norm_id_hashed(&table.key, bytes.data(), len(), hash, &is_new), FRESH);
  }

  void expect_bucket_told() {
    int bucket = -7;
    expect_added(wllb_get_or_gen_norm_id_ex(&table.key, c(), len(), &is_new, &bucket), FRESH);
    EXPECT_EQ(present ? -7 : wllb_get_hash_index_ex(c(), len(), table.key.size, table.key.prime), bucket);
  }

  void expect_wanted_id() {
    const int wanted = pick(2) ? -1 : pick(500);
    const int id = wllb_get_set_or_gen_norm_id(&table.key, c(), len(), &is_new, wanted);
    if (wanted == -1 || present)
      return expect_added(id, FRESH);
    expect_is_new();
    model.prev_id = std::max(model.prev_id, wanted);
    EXPECT_EQ(model.add(text, wanted), id);
  }

  void expect_set() {
    const int wanted = pick(500);
    const int id = wllb_set_norm_id(&table.key, c(), len(), wanted);
    model.prev_id = std::max(model.prev_id, wanted);
    EXPECT_EQ(present ? old_id : model.add(text, wanted), id);
  }

  void expect_deleted() {
    int id = -7;
    EXPECT_EQ(present ? 0 : -1, wllb_delete_norm_id_ex(&table.key, c(), len(), &id));
    EXPECT_EQ(present ? old_id : -1, id);
    if (present) {
      model.ids.erase(text);
      model.released.push_back(id);
    }
  }

  scoped_table table;
  table_model model;
  std::mt19937 random;
  std::string text;
  bool present = false;
  int old_id = -2, is_new = -7;
};

} // namespace

TEST(norm_table, any_order_of_operations_keeps_to_the_model) {
  for (const int size : {1, 2, 3, 64, 4096}) {
    SCOPED_TRACE(size);
    both_tables both(size, static_cast<unsigned>(size));
    for (int i = 0; i < 4000 && !testing::Test::HasFailure(); ++i)
      both.run_one();
    both.expect_same_content();
  }
}

TEST(norm_table, remainder_without_division_is_the_remainder) {
  std::mt19937_64 random(7);
  std::vector<uint32_t> divisors = {1, 2, 3, 251, 1021, 16381, 65521, 262139, 1048573, 1073741789, INT_MAX};
  for (int i = 0; i < 300; ++i)
    divisors.push_back(static_cast<uint32_t>(random() >> (33 + random() % 31)) | 1U);
  for (const uint32_t d : divisors) {
    const uint64_t inverse = wllb_norm_inverse(d), last_multiple = UINT64_MAX / d * d;
    std::vector<uint64_t> hashes = {0, 1, UINT64_MAX, UINT64_MAX - 1, 1ULL << 63U, last_multiple, last_multiple - 1};
    for (int i = 0; i < 300; ++i) {
      const uint64_t h = random() >> (random() % 64), multiple = h / d * d;
      hashes.insert(hashes.end(), {h, multiple, multiple - 1, multiple + d - 1});
    }
    for (const uint64_t h : hashes)
      ASSERT_EQ(h % d, wllb_norm_remainder(h, d, inverse)) << h << " % " << d;
  }
}

TEST(norm_table, fresh_ids_follow_ids_from_files) {
  scoped_table table(2);
  NormObjKey *key = &table.key;
  EXPECT_EQ(0, add(key, "first"));
  EXPECT_EQ(40, wllb_set_norm_id(key, "from file", 0, 40));
  EXPECT_EQ(12, wllb_set_norm_id(key, "older", 5, 12)); // below prev_id: that stays
  EXPECT_EQ(41, add(key, "next"));
  EXPECT_EQ(40, wllb_set_norm_id(key, "from file", 0, 50)); // present: keeps its id, yet 50 is spoken for
  EXPECT_EQ(51, add(key, "after"));
  EXPECT_EQ(INT_MIN, wllb_set_norm_id(key, "damaged", 0, INT_MIN));
  EXPECT_EQ(INT_MAX, wllb_set_norm_id(key, "damaged more", 0, INT_MAX));
  EXPECT_EQ(INT_MAX, add(key, "no id is higher"));
}

TEST(norm_table, a_key_is_its_first_len_bytes_and_never_more_than_the_text) {
  scoped_table table(1); // one bucket, so that no hash keeps texts apart
  NormObjKey *key = &table.key;
  int is_new;
  const char with_nul[] = "ab\0cd";
  EXPECT_EQ(0, wllb_get_or_gen_norm_id(key, with_nul, 5, &is_new));
  EXPECT_EQ(0, wllb_get_or_gen_norm_id_hashed(key, with_nul, 5, wllb_norm_hash(with_nul, 5), &is_new));
  EXPECT_EQ(0, wllb_get_or_gen_norm_id(key, "ab", INT_MAX, &is_new));
  EXPECT_EQ(0, wllb_get_or_gen_norm_id(key, "abcdef", 2, &is_new));
  EXPECT_EQ(1, wllb_get_or_gen_norm_id(key, "abcdef", 3, &is_new));
  EXPECT_EQ(1, look_up(key, "abc"));
  const std::string long_text(1U << 20U, 'q');
  EXPECT_EQ(2, add(key, long_text)); // above the arena's size
  EXPECT_EQ(2, look_up(key, long_text));
  scoped_table wide(1024); // here the whole text chooses the bucket, whatever the length
  EXPECT_EQ(0, wllb_get_or_gen_norm_id(&wide.key, "abcdef", 3, &is_new));
  EXPECT_EQ(-2, look_up(&wide.key, "abc"));
}

TEST(norm_table, texts_of_ids_are_remembered_as_far_as_there_is_room) {
  NormObjKey key;
  ASSERT_EQ(0, wllb_init_norm_id_table_ex(&key, 4));
  int is_new, released;
  const std::string padding(100000, 'p'); // the arena moves meanwhile
  for (int id = 0; id < 50; ++id)
    EXPECT_EQ(id, wllb_get_or_set_norm_id(&key, (std::to_string(id) + padding).c_str(), 0, &is_new));
  for (int id = 0; id < 50; ++id)
    EXPECT_EQ(std::to_string(id) + padding, wllb_get_norm_table_data(&key, id));
  wllb_set_start_norm_id(&key, 2000000000);
  EXPECT_EQ(2000000001, wllb_get_or_set_norm_id(&key, "far off", 0, &is_new));
  EXPECT_EQ(4 + 3 * 16, key.max_norm_id_size);
  EXPECT_EQ(0, wllb_delete_norm_id_ex(&key, ("7" + padding).c_str(), 0, &released));
  for (const int unknown : {7, 50, 52, 2000000001, INT_MAX})
    EXPECT_STREQ("NormIdNameNotFound", wllb_get_norm_table_data(&key, unknown));
  EXPECT_STREQ("InvalidInput", wllb_get_norm_table_data(&key, -1));
  EXPECT_EQ(0, wllb_obj_hash_reset(&key));
  EXPECT_STREQ("NormIdNameNotFound", wllb_get_norm_table_data(&key, 0));
  EXPECT_EQ(0, wllb_get_or_set_norm_id(&key, "anew", 0, &is_new));
  wllb_obj_hash_destroy(&key);
}
