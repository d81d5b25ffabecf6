// Norm id tables against a plain model, and against texts, lengths and ids that no caller should send.
#include "wllb_get_norm_obj_id.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <deque>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

// A table that is destroyed at the end of its scope.
struct scoped_table {
  NormObjKey key;

  explicit scoped_table(int size) { EXPECT_EQ(0, wllb_init_norm_id_table(&key, size)); }

  ~scoped_table() { wllb_obj_hash_destroy(&key); }

  scoped_table(const scoped_table &) = delete;
  scoped_table &operator=(const scoped_table &) = delete;
};

int add(NormObjKey *key, const std::string &text, int *is_new) {
  return wllb_get_or_gen_norm_id(key, text.c_str(), static_cast<int>(text.size()), is_new);
}

int add(NormObjKey *key, const std::string &text) {
  int is_new;
  return add(key, text, &is_new);
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

TEST(norm_table, sizes_are_powers_of_two_and_moduli_are_primes) {
  const std::map<int, int> powers = {
      {-5, 1}, {0, 1}, {1, 1}, {2, 2}, {3, 4}, {16384, 16384}, {16385, 32768}, {1 << 30, 1 << 30}, {INT_MAX, 1 << 30}};
  for (const auto &[n, power] : powers)
    EXPECT_EQ(power, wllb_change_to_2_power_n(n)) << n;
  const std::map<int, int> primes = {{1, 1},
                                     {2, 2},
                                     {3, 3},
                                     {4, 3},
                                     {9, 7},
                                     {25, 23},
                                     {16384, 16381},
                                     {65536, 65521},
                                     {262144, 262139},
                                     {1048576, 1048573},
                                     {INT_MAX, INT_MAX}};
  for (const auto &[n, prime] : primes)
    EXPECT_EQ(prime, get_prime(n)) << n;
}

TEST(norm_table, hash_is_fnv_in_64_bits_up_to_the_nul) {
  // Modulo 2^32 it is the common 32-bit form, whose values are public.
  EXPECT_EQ(0xe40c292cU, static_cast<uint32_t>(wllb_norm_hash("a", 1)));
  EXPECT_EQ(0xbf9cf968U, static_cast<uint32_t>(wllb_norm_hash("foobar", 6)));
  for (const std::string text : {"a", "foobar", "\xff\x80\x01", "com.acme.Pay.charge(Ljava/lang/String;)V"}) {
    unsigned __int128 h = 0x811c9dc5U;
    for (const char c : text)
      h = ((h ^ static_cast<unsigned char>(c)) * 0x1000193U) & UINT64_MAX;
    EXPECT_EQ(static_cast<uint64_t>(h), wllb_norm_hash(text.c_str(), 100));
    EXPECT_EQ(static_cast<int>(h % 16381U), wllb_get_hash_index_ex(text.c_str(), 1, 16384, 16381));
  }
  for (const auto &[len, size, prime] : {std::array{0, 4, 3}, std::array{1, 0, 3}, std::array{1, 4, 0}})
    EXPECT_EQ(-1, wllb_get_hash_index_ex("a", len, size, prime));
  EXPECT_EQ(-1, wllb_get_hash_index_ex(nullptr, 1, 4, 3));
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

TEST(norm_table, refuses_what_is_no_text) {
  scoped_table table(16);
  NormObjKey *key = &table.key;
  NormObjKey never_set_up = {};
  NormTableData data;
  int is_new = 5, bucket;
  for (const char *text : {static_cast<const char *>(nullptr), ""}) {
    for (const int len : {0, 1, 5, INT_MAX}) {
      EXPECT_EQ(-1, wllb_get_or_gen_norm_id(key, text, len, &is_new));
      EXPECT_EQ(-1, wllb_get_or_gen_norm_id_ex(key, text, len, &is_new, &bucket));
      EXPECT_EQ(-1, wllb_get_or_gen_norm_id_hashed(key, text, len, wllb_norm_hash_basis, &is_new));
      EXPECT_EQ(-1, wllb_get_or_set_norm_id(key, text, len, &is_new));
      EXPECT_EQ(-1, wllb_get_set_or_gen_norm_id(key, text, len, &is_new, 3));
      EXPECT_EQ(-1, wllb_get_set_or_gen_norm_id_ex(key, text, len, &is_new));
      EXPECT_EQ(0, is_new);
      EXPECT_EQ(-1, wllb_get_norm_id(key, text, len));
      EXPECT_EQ(-1, wllb_get_norm_id_hash_data(key, text, len, &bucket, &data));
      EXPECT_EQ(-1, wllb_delete_norm_id_ex(key, text, len, &bucket));
    }
  }
  EXPECT_EQ(0, wllb_get_or_gen_norm_id(key, "a", -1, &is_new));
  EXPECT_EQ(0, wllb_get_or_gen_norm_id_hashed(key, "a", -1, wllb_norm_hash_basis, &is_new));
  EXPECT_EQ(-1, wllb_get_or_gen_norm_id_ex(key, "a", 0, &is_new, &bucket));
  EXPECT_EQ(-1, wllb_get_norm_id(key, "a", 0));
  EXPECT_EQ(0, wllb_get_or_gen_norm_id(&never_set_up, "a", 1, &is_new));
  EXPECT_EQ(-1, wllb_get_norm_id(&never_set_up, "a", 1));
  EXPECT_EQ(-1, wllb_init_norm_id_table(nullptr, 4));
  EXPECT_EQ(-1, wllb_init_norm_id_table_ex(&never_set_up, 0));
  EXPECT_EQ(-1, key->prev_id) << "nothing was added";
}

TEST(norm_table, set_norm_id_tells_of_a_bad_text_and_follows_ids_from_files) {
  scoped_table table(2);
  NormObjKey *key = &table.key;
  testing::internal::CaptureStderr();
  EXPECT_EQ(0, wllb_set_norm_id(key, "", 0, 9));
  EXPECT_EQ("Error: Obtained hash index '-1' for string '' is not correct. Hence returning.",
            testing::internal::GetCapturedStderr());
  EXPECT_EQ(0, add(key, "first"));
  EXPECT_EQ(40, wllb_set_norm_id(key, "from file", 0, 40));
  EXPECT_EQ(12, wllb_set_norm_id(key, "older", 5, 12)); // below prev_id: that stays
  EXPECT_EQ(41, add(key, "next"));
  EXPECT_EQ(40, wllb_set_norm_id(key, "from file", 0, 50)); // present: keeps its id, yet 50 is spoken for
  EXPECT_EQ(51, add(key, "after"));
  wllb_set_start_norm_id(key, 20);
  EXPECT_EQ(52, add(key, "not moved back"));
  EXPECT_EQ(INT_MIN, wllb_set_norm_id(key, "damaged", 0, INT_MIN));
  EXPECT_EQ(53, add(key, "unharmed"));
  EXPECT_EQ(INT_MAX, wllb_set_norm_id(key, "damaged more", 0, INT_MAX));
  EXPECT_EQ(INT_MAX, add(key, "no id is higher"));
  EXPECT_EQ(INT_MIN, look_up(key, "damaged"));
}

TEST(norm_table, a_key_is_its_first_len_bytes_and_never_more_than_the_text) {
  scoped_table table(1); // one bucket, so that no hash keeps texts apart
  NormObjKey *key = &table.key;
  int is_new;
  const char with_nul[] = "ab\0cd";
  EXPECT_EQ(0, wllb_get_or_gen_norm_id(key, with_nul, 5, &is_new));
  EXPECT_EQ(0, look_up(key, "ab"));
  EXPECT_EQ(0, wllb_get_or_gen_norm_id_hashed(key, with_nul, 5, wllb_norm_hash(with_nul, 5), &is_new));
  EXPECT_EQ(0, wllb_get_or_gen_norm_id(key, "ab", INT_MAX, &is_new));
  EXPECT_EQ(0, wllb_get_or_gen_norm_id(key, "abcdef", 2, &is_new));
  EXPECT_EQ(1, wllb_get_or_gen_norm_id(key, "abcdef", 3, &is_new));
  EXPECT_EQ(1, look_up(key, "abc"));
  EXPECT_EQ(-2, look_up(key, "abcdef"));
  const std::string long_text(1U << 20U, 'q');
  EXPECT_EQ(2, add(key, long_text)); // above the arena's size
  EXPECT_EQ(3, add(key, long_text.substr(1)));
  EXPECT_EQ(2, look_up(key, long_text));
  EXPECT_EQ(1, look_up(key, "abc"));

  // In a table of many buckets the whole text chooses the bucket, whatever the length.
  scoped_table wide(1024);
  EXPECT_EQ(0, wllb_get_or_gen_norm_id(&wide.key, "abcdef", 3, &is_new));
  EXPECT_EQ(0, wllb_get_or_gen_norm_id(&wide.key, "abcdef", 3, &is_new));
  EXPECT_EQ(-2, look_up(&wide.key, "abc"));
}

TEST(norm_table, prefixes_hashed_in_one_pass_are_the_keys_of_their_copies) {
  const std::string name = "com.acme.shop.Pay.charge(Ljava/lang/String;)V";
  scoped_table one_pass(64), copies(64);
  int is_new_a, is_new_b;
  for (int round = 0; round < 2; ++round) {
    uint64_t hash = wllb_norm_hash_basis;
    for (size_t len = 1; len <= name.size(); ++len) {
      hash = wllb_norm_hash_step(hash, static_cast<unsigned char>(name[len - 1]));
      const int id = wllb_get_or_gen_norm_id_hashed(&one_pass.key, name.data(), static_cast<int>(len), hash, &is_new_a);
      EXPECT_EQ(add(&copies.key, name.substr(0, len), &is_new_b), id);
      EXPECT_EQ(is_new_b, is_new_a);
      EXPECT_EQ(id, look_up(&one_pass.key, name.substr(0, len)));
    }
  }
}

TEST(norm_table, every_way_of_deletion_leaves_the_rest_reachable) {
  const std::vector<std::string> keys = {"head", "second", "third", "last"};
  for (size_t victim = 0; victim < keys.size(); ++victim) {
    SCOPED_TRACE(keys[victim]);
    scoped_table table(1);
    for (const std::string &text : keys)
      add(&table.key, text);
    int id;
    EXPECT_EQ(0, wllb_delete_norm_id_ex(&table.key, keys[victim].c_str(), 0, &id));
    EXPECT_EQ(static_cast<int>(victim), id);
    for (size_t i = 0; i < keys.size(); ++i)
      EXPECT_EQ(i == victim ? -2 : static_cast<int>(i), look_up(&table.key, keys[i]));
    for (const std::string &text : keys)
      wllb_delete_norm_id_ex(&table.key, text.c_str(), 0, &id);
    EXPECT_EQ(nullptr, table.key.nt_mpool.busy_head) << "a slot was lost";
    int is_new;
    EXPECT_EQ(static_cast<int>(victim), wllb_get_set_or_gen_norm_id_ex(&table.key, "again", 0, &is_new));
    EXPECT_EQ(4, add(&table.key, "fresh"));
  }
}

TEST(norm_table_death, a_chain_node_that_cannot_be_had_ends_the_process) {
  scoped_table table(1);
  wllb_mp_set_max(&table.key.nt_mpool, 64);
  for (int i = 0; i < 1 + 64; ++i)
    EXPECT_EQ(i, add(&table.key, "k" + std::to_string(i)));
  EXPECT_EXIT(
      add(&table.key, "one more"), testing::ExitedWithCode(255),
      R"(^WLLB: wllb_get_norm_obj_id\.cpp\|[0-9]+\|.*\| Out of Memory \(size = 64\): Normal Table Memory Pool $)");
}

TEST(norm_table, clearing_a_bucket_head_hides_its_followers_until_it_is_filled) {
  scoped_table table(1);
  NormObjKey *key = &table.key;
  add(key, "head");
  add(key, "follower");
  for (const int bucket : {-1, 1, INT_MIN, INT_MAX})
    EXPECT_EQ(-1, wllb_delete_norm_id(key, bucket));
  EXPECT_EQ(0, wllb_delete_norm_id(key, 0));
  EXPECT_EQ(-1, wllb_delete_norm_id(key, 0));
  EXPECT_EQ(-1, key->nt[0].idx);
  EXPECT_EQ(-2, look_up(key, "follower"));
  EXPECT_EQ(2, add(key, "new head"));
  EXPECT_EQ(1, look_up(key, "follower"));
  EXPECT_EQ(nullptr, key->free_norm_id_list_head);
}

TEST(norm_table, values_stand_beside_their_keys) {
  scoped_table table(2);
  NormTableData in = {}, out;
  int bucket;
  for (const long value : {0L, 1L, -1L, 0x0100'0000'0000'0002L}) { // NUL bytes at either end
    const std::string text = "key" + std::to_string(value);
    in.l = value;
    EXPECT_EQ(7, wllb_set_norm_id_and_data(&table.key, text.c_str(), 0, 7, in));
    in.l = 99;
    EXPECT_EQ(7, wllb_set_norm_id_and_data(&table.key, text.c_str(), 0, 8, in)); // keeps what it has
    EXPECT_EQ(7, wllb_get_norm_id_hash_data(&table.key, text.c_str(), 0, &bucket, &out));
    EXPECT_EQ(value, out.l);
    EXPECT_EQ(wllb_get_hash_index_ex(text.c_str(), 1, 2, 2), bucket);
  }
  EXPECT_EQ(9, add(&table.key, "plain"));
  EXPECT_EQ(9, wllb_get_norm_id_hash_data(&table.key, "plain", 5, &bucket, &out));
  EXPECT_EQ(0, out.l);
  EXPECT_EQ(-2, wllb_get_norm_id_hash_data(&table.key, "absent", 6, &bucket, &out));
}

TEST(norm_table, texts_of_ids_are_remembered_as_far_as_there_is_room) {
  NormObjKey key;
  ASSERT_EQ(0, wllb_init_norm_id_table_ex(&key, 4));
  int is_new;
  const std::string padding(100000, 'p'); // the arena moves meanwhile
  for (int id = 0; id < 50; ++id)
    EXPECT_EQ(id, wllb_get_or_set_norm_id(&key, (std::to_string(id) + padding).c_str(), 0, &is_new));
  for (int id = 0; id < 50; ++id)
    EXPECT_EQ(std::to_string(id) + padding, wllb_get_norm_table_data(&key, id));
  EXPECT_EQ(4 + 3 * 16, key.max_norm_id_size);
  wllb_set_start_norm_id(&key, 2000000000);
  EXPECT_EQ(2000000001, wllb_get_or_set_norm_id(&key, "far off", 0, &is_new));
  EXPECT_EQ(4 + 3 * 16, key.max_norm_id_size);
  int id;
  EXPECT_EQ(0, wllb_delete_norm_id_ex(&key, ("7" + padding).c_str(), 0, &id));
  for (const int unknown : {7, 50, 52, 2000000001, INT_MAX})
    EXPECT_STREQ("NormIdNameNotFound", wllb_get_norm_table_data(&key, unknown));
  EXPECT_STREQ("InvalidInput", wllb_get_norm_table_data(&key, -1));
  EXPECT_STREQ("InvalidInput", wllb_get_norm_table_data(nullptr, 0));
  wllb_obj_hash_destroy(&key);
  EXPECT_STREQ("NormIdNameNotFound", wllb_get_norm_table_data(&key, 0));
}

TEST(norm_table, begins_anew_after_reset_and_after_destroy) {
  NormObjKey key;
  ASSERT_EQ(0, wllb_init_norm_id_table_ex(&key, 2));
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE(round);
    int is_new;
    EXPECT_STREQ("NormIdNameNotFound", wllb_get_norm_table_data(&key, 0));
    for (int id = 0; id < 200; ++id)
      EXPECT_EQ(id, wllb_get_or_set_norm_id(&key, ("k" + std::to_string(id)).c_str(), 0, &is_new));
    for (const int released : {3, 150}) {
      int id;
      EXPECT_EQ(0, wllb_delete_norm_id_ex(&key, ("k" + std::to_string(released)).c_str(), 0, &id));
    }
    if (round == 0) {
      EXPECT_EQ(0, wllb_obj_hash_reset(&key));
    } else {
      EXPECT_EQ(0, wllb_obj_hash_destroy(&key));
      EXPECT_EQ(-1, look_up(&key, "k1"));
      ASSERT_EQ(0, wllb_init_norm_id_table_ex(&key, 2));
    }
    EXPECT_EQ(-2, look_up(&key, "k1"));
  }
  wllb_obj_hash_destroy(&key);
  wllb_obj_hash_destroy(&key);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // their heaps keep more than is asked for
static long resident_bytes() {
  long total = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> total >> resident;
  return resident * sysconf(_SC_PAGESIZE);
}

TEST(norm_table, untouched_buckets_cost_no_memory) {
  const long before = resident_bytes();
  scoped_table urls(1048576), queries(262144);
  EXPECT_EQ(0, add(&urls.key, "-"));
  EXPECT_LT(resident_bytes() - before, 1L << 20U); // 80 MB were asked for
}
#endif
