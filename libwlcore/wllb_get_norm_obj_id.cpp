// Norm id tables: a fixed array of buckets, chains from a slot pool, key texts in one arena.
//   In      texts of up to any length; ids read back from files, which may be any number
//   Out     an id for each text; the table is the only state
//   Thread  none of its own: the table's owner holds its mutex around each call
//   Failure memory that cannot be had ends the process; a wrong argument gives the told value and changes nothing
// Sample:  table of 4 buckets, modulus 3:  nt[0] "com.acme.Pay" 0 -> "com.acme.Cart" 2     nt[1] empty     nt[2] "-" 1
#include "wllb_get_norm_obj_id.h"

#include "wllb_alloc.h"
#include "wllb_util.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

static constexpr long arena_first_size = 1048576;
static constexpr int pool_slots_first = 64, pool_slots_later = 16;
static constexpr int id_name_step = 16;
static constexpr const char *nt_label = "NormalTableInit", *pool_label = "Normal Table Memory Pool",
                            *id_name_label = "NormalTableInit.id_name";

// --- sizing and hash -------------------------------------------------------------------------------------------

int wllb_change_to_2_power_n(int n) {
  constexpr int largest = 1 << 30;
  int power = 1;
  while (power < n && power < largest)
    power *= 2;
  return power;
}

static bool has_divisor(int n) {
  for (int d = 2; d <= n / d; ++d)
    if (n % d == 0)
      return true;
  return false;
}

int get_prime(int n) {
  while (n > 1 && has_divisor(n))
    --n;
  return std::max(n, 1);
}

int wllb_get_hash_index_ex(const char *text, int len, int size, int prime) {
  if (!text || len < 1 || size < 1 || prime < 1)
    return -1;
  uint64_t h = wllb_norm_hash_basis;
  for (; *text; ++text)
    h = wllb_norm_hash_step(h, static_cast<unsigned char>(*text));
  return static_cast<int>(h % static_cast<uint64_t>(prime));
}

// A key on its way to the table.
struct wanted_key {
  const char *text;
  int32_t len;        // above 0
  uint32_t bucket;    // below prime
  uint32_t hash_high; // as in NormTable
};

static bool is_set_up(const NormObjKey *key) {
  return key && key->nt && key->prime >= 1;
}

static uint32_t upper_half(uint64_t hash) {
  return static_cast<uint32_t>(hash >> 32);
}

static wanted_key key_of(const NormObjKey *key, const char *text, int32_t len, uint64_t hash) {
  const uint32_t bucket = wllb_norm_remainder(hash, static_cast<uint32_t>(key->prime), key->prime_inverse);
  return {text, len, bucket, upper_half(hash)};
}

// Hashes the text to its NUL, which is also how its own length is found. False when there is no bucket for it: no
// text, a length below 0, a table that is not set up.
static bool hash_key(const NormObjKey *key, const char *text, int len, wanted_key *want) {
  if (!text || !*text || len < 0 || !is_set_up(key))
    return false;
  uint64_t h = wllb_norm_hash_basis;
  const char *end = text;
  for (; *end; ++end)
    h = wllb_norm_hash_step(h, static_cast<unsigned char>(*end));
  const int64_t own_len = end - text;
  const auto key_len = static_cast<int32_t>(std::min<int64_t>(len == 0 ? INT_MAX : len, own_len));
  *want = key_of(key, text, key_len, h);
  if (key_len < own_len) // the bucket is the whole text's, the key is not
    want->hash_high = upper_half(wllb_norm_hash(text, key_len));
  return true;
}

// --- the table itself --------------------------------------------------------------------------------------------

static NormTable *new_buckets(int32_t size) {
  return static_cast<NormTable *>(wllb_new_block(static_cast<size_t>(size) * sizeof(NormTable), nt_label));
}

static void free_buckets(NormObjKey *key) {
  wllb_free_block(key->nt, static_cast<size_t>(key->size) * sizeof(NormTable), nt_label);
}

static size_t id_name_bytes(int32_t entries) {
  return static_cast<size_t>(entries) * sizeof(int64_t);
}

int wllb_init_norm_id_table_v2(NormObjKey *key, int size, long arena_size) {
  if (!key || size < 1 || arena_size < 1)
    return -1;
  key->size = wllb_change_to_2_power_n(size);
  key->prime = get_prime(key->size);
  key->prime_inverse = wllb_norm_inverse(static_cast<uint32_t>(key->prime));
  key->prev_id = -1;
  wllb_bigbuf_init_ex(&key->bigbuf, arena_size);
  key->nt = new_buckets(key->size);
  key->id_name = nullptr;
  key->max_norm_id_size = 0;
  key->free_norm_id_list_head = key->free_norm_id_list_tail = nullptr;
  wllb_mp_init(&key->nt_mpool, sizeof(NormTable), pool_slots_first, pool_slots_later, 0);
  return 0;
}

int wllb_init_norm_id_table(NormObjKey *key, int size) {
  return wllb_init_norm_id_table_v2(key, size, arena_first_size);
}

int wllb_init_norm_id_table_ex(NormObjKey *key, int size) {
  if (wllb_init_norm_id_table(key, size) != 0)
    return -1;
  key->max_norm_id_size = key->size;
  key->id_name = static_cast<int64_t *>(wllb_new_block(id_name_bytes(key->size), id_name_label));
  memset(key->id_name, 0xff, id_name_bytes(key->size));
  return 0;
}

// The oldest released id, taken out of the list; false when there is none.
static bool take_released_id(NormObjKey *key, int *id) {
  FreeNormIdList *oldest = key->free_norm_id_list_head;
  if (!oldest)
    return false;
  *id = oldest->free_id;
  key->free_norm_id_list_head = oldest->next_free_id;
  if (!key->free_norm_id_list_head)
    key->free_norm_id_list_tail = nullptr;
  wllb_free_block(oldest, sizeof *oldest, "FreeNormIdList");
  return true;
}

static void free_released_ids(NormObjKey *key) {
  int id;
  while (take_released_id(key, &id)) {
  }
}

int wllb_obj_hash_destroy(NormObjKey *key) {
  if (!key)
    return 0;
  wllb_mp_destroy(&key->nt_mpool);
  wllb_bigbuf_free(&key->bigbuf);
  free_buckets(key);
  wllb_free_block(key->id_name, id_name_bytes(key->max_norm_id_size), id_name_label);
  free_released_ids(key);
  key->nt = nullptr;
  key->id_name = nullptr;
  key->size = key->prime = key->max_norm_id_size = 0;
  key->prev_id = -1;
  return 0;
}

int wllb_obj_hash_reset(NormObjKey *key) {
  if (!is_set_up(key))
    return 0;
  // Fresh pages are empty, and cheaper than writing over all of them.
  const long arena_size = key->bigbuf.bufsize;
  free_buckets(key);
  wllb_bigbuf_free(&key->bigbuf);
  key->nt = new_buckets(key->size);
  wllb_bigbuf_init_ex(&key->bigbuf, arena_size);
  wllb_mp_free_all_slots(&key->nt_mpool);
  if (key->id_name)
    memset(key->id_name, 0xff, id_name_bytes(key->max_norm_id_size));
  free_released_ids(key);
  key->prev_id = -1;
  return 0;
}

// --- finding and adding -------------------------------------------------------------------------------------------

// Where the walk through a bucket ended.
struct walk_end {
  NormTable *node;   // the key's node; null: absent
  NormTable *before; // the node before that, or the last of the chain; null at the bucket head
  int passed;        // nodes of other keys on the way
};

static walk_end walk_bucket(const NormObjKey *key, const wanted_key &want) {
  walk_end end = {};
  NormTable *node = &key->nt[want.bucket];
  if (node->len == 0)
    return end;
  const char *arena = key->bigbuf.buffer;
  const auto len = static_cast<size_t>(want.len);
  for (; node; node = node->nt_next) {
    if (node->len == want.len && node->hash_high == want.hash_high && memcmp(arena + node->str, want.text, len) == 0) {
      end.node = node;
      return end;
    }
    end.before = node;
    ++end.passed;
  }
  return end;
}

static NormTable *new_chain_node(NormObjKey *key) {
  auto *node = static_cast<NormTable *>(wllb_mp_get_slot(&key->nt_mpool));
  if (!node) {
    fprintf(stderr, "WLLB: %s|%d|%s| Out of Memory (size = %d): %s ", wllb_base_name(__FILE__), __LINE__, __func__,
            static_cast<int>(sizeof(NormTable)), pool_label);
    wllb_exit(-1);
  }
  return node;
}

// Puts the key where its walk ended. A head keeps its nt_next.
static NormTable *add_key(NormObjKey *key, const wanted_key &want, const walk_end &end, int id) {
  NormTable *node = end.before ? new_chain_node(key) : &key->nt[want.bucket];
  node->str = wllb_bigbuf_copy_into_bigbuf(&key->bigbuf, want.text, want.len);
  node->len = want.len;
  node->hash_high = want.hash_high;
  node->idx = id;
  node->data = 0;
  if (end.before) {
    node->nt_next = nullptr;
    end.before->nt_next = node;
  }
  return node;
}

// Which id a new key takes.
enum id_source { FRESH_ID, RELEASED_OR_FRESH_ID, GIVEN_ID };

static int next_id(NormObjKey *key, id_source source, int given) {
  int id;
  if (source == GIVEN_ID) {
    key->prev_id = std::max(key->prev_id, given);
    return given;
  }
  if (source == RELEASED_OR_FRESH_ID && take_released_id(key, &id))
    return id;
  if (key->prev_id < INT_MAX)
    ++key->prev_id;
  return key->prev_id;
}

static NormTable *find_or_add(NormObjKey *key, const wanted_key &want, int *is_new, id_source source, int given) {
  const walk_end end = walk_bucket(key, want);
  if (end.node)
    return end.node;
  *is_new = std::max(end.passed, 1);
  return add_key(key, want, end, next_id(key, source, given));
}

static bool is_no_text(const char *text) {
  return !text || !*text;
}

static int get_or_add(NormObjKey *key, const char *text, int len, int *is_new, id_source source, int given) {
  *is_new = 0;
  if (!key || is_no_text(text))
    return -1;
  wanted_key want;
  if (!hash_key(key, text, len, &want))
    return 0;
  return find_or_add(key, want, is_new, source, given)->idx;
}

int wllb_get_or_gen_norm_id(NormObjKey *key, const char *text, int len, int *is_new) {
  return get_or_add(key, text, len, is_new, FRESH_ID, 0);
}

int wllb_get_or_gen_norm_id_hashed(NormObjKey *key, const char *text, int len, uint64_t hash, int *is_new) {
  *is_new = 0;
  if (!key || !text || len == 0 || (len > 0 && !*text))
    return -1;
  if (len < 0 || !is_set_up(key))
    return 0;
  const auto cut_len = static_cast<int32_t>(strnlen(text, static_cast<size_t>(len)));
  const wanted_key want = key_of(key, text, cut_len, hash);
  return find_or_add(key, want, is_new, FRESH_ID, 0)->idx;
}

int wllb_get_or_gen_norm_id_ex(NormObjKey *key, const char *text, int len, int *is_new, int *hash_index) {
  *is_new = 0;
  wanted_key want;
  if (len == 0 || !hash_key(key, text, len, &want))
    return -1;
  const int id = find_or_add(key, want, is_new, FRESH_ID, 0)->idx;
  if (*is_new)
    *hash_index = static_cast<int>(want.bucket);
  return id;
}

int wllb_get_set_or_gen_norm_id(NormObjKey *key, const char *text, int len, int *is_new, int wanted_id) {
  return get_or_add(key, text, len, is_new, wanted_id == -1 ? FRESH_ID : GIVEN_ID, wanted_id);
}

int wllb_get_set_or_gen_norm_id_ex(NormObjKey *key, const char *text, int len, int *is_new) {
  return get_or_add(key, text, len, is_new, RELEASED_OR_FRESH_ID, 0);
}

// --- the way back from id to text -----------------------------------------------------------------------------------

static bool has_name_place(const NormObjKey *key, int id) {
  return key->id_name && id >= 0 && id < key->max_norm_id_size;
}

// Makes 16 more places when the id is one of them.
static void grow_id_name(NormObjKey *key, int id) {
  const int32_t have = key->max_norm_id_size;
  if (!key->id_name || id < have || id - have >= id_name_step || have > INT_MAX - id_name_step)
    return;
  const int32_t size = have + id_name_step;
  key->id_name =
      static_cast<int64_t *>(wllb_grow_block(key->id_name, id_name_bytes(have), id_name_bytes(size), id_name_label));
  memset(key->id_name + have, 0xff, id_name_bytes(id_name_step));
  key->max_norm_id_size = size;
}

int wllb_get_or_set_norm_id(NormObjKey *key, const char *text, int len, int *is_new) {
  *is_new = 0;
  if (!key || is_no_text(text))
    return -1;
  wanted_key want;
  if (!hash_key(key, text, len, &want))
    return 0;
  const NormTable *node = find_or_add(key, want, is_new, FRESH_ID, 0);
  grow_id_name(key, node->idx);
  if (has_name_place(key, node->idx))
    key->id_name[node->idx] = node->str;
  return node->idx;
}

const char *wllb_get_norm_table_data(const NormObjKey *key, int id) {
  if (!key || id < 0)
    return "InvalidInput";
  const char *text = has_name_place(key, id) ? wllb_bigbuf_get_value(&key->bigbuf, key->id_name[id]) : nullptr;
  return text ? text : "NormIdNameNotFound";
}

// --- plain look-up ---------------------------------------------------------------------------------------------------

int wllb_get_norm_id(const NormObjKey *key, const char *text, int len) {
  wanted_key want;
  if (len == 0 || !hash_key(key, text, len, &want))
    return -1;
  const NormTable *node = walk_bucket(key, want).node;
  return node ? node->idx : -2;
}

int wllb_get_norm_id_hash_data(const NormObjKey *key, const char *text, int len, int *hash_index, NormTableData *data) {
  memset(data, 0, sizeof *data);
  *hash_index = -1;
  wanted_key want;
  if (!hash_key(key, text, len, &want))
    return -1;
  *hash_index = static_cast<int>(want.bucket);
  const NormTable *node = walk_bucket(key, want).node;
  if (node && node->data > 0)
    memcpy(data, key->bigbuf.buffer + node->data, sizeof *data);
  return node ? node->idx : -2;
}

// --- given ids -------------------------------------------------------------------------------------------------------

void wllb_set_start_norm_id(NormObjKey *key, int id) {
  if (key && id > key->prev_id)
    key->prev_id = id;
}

// Adds the key with the id unless it is present; its node, or null after a line on standard error.
static NormTable *set_key(NormObjKey *key, const char *text, int len, int id, int *is_new) {
  wanted_key want;
  *is_new = 0;
  if (!hash_key(key, text, len, &want)) {
    fprintf(stderr, "Error: Obtained hash index '%d' for string '%s' is not correct. Hence returning.", -1,
            text ? text : "(null)");
    return nullptr;
  }
  wllb_set_start_norm_id(key, id);
  return find_or_add(key, want, is_new, GIVEN_ID, id);
}

int wllb_set_norm_id(NormObjKey *key, const char *text, int len, int id) {
  int is_new;
  const NormTable *node = set_key(key, text, len, id, &is_new);
  return node ? node->idx : 0;
}

int wllb_set_norm_id_and_data(NormObjKey *key, const char *text, int len, int id, NormTableData data) {
  int is_new;
  NormTable *node = set_key(key, text, len, id, &is_new);
  if (!node)
    return 0;
  if (is_new) {
    node->data = wllb_bigbuf_copy_into_bigbuf(&key->bigbuf, "", sizeof data); // room; the arena copies texts only
    memcpy(key->bigbuf.buffer + node->data, &data, sizeof data);
  }
  return node->idx;
}

// --- deletion ----------------------------------------------------------------------------------------------------------

static void forget_name(NormObjKey *key, int id) {
  if (has_name_place(key, id))
    key->id_name[id] = -1;
}

// Empties a head; what follows it stays linked.
static void clear_head(NormTable *head) {
  head->str = -1;
  head->len = 0;
  head->idx = -1;
  head->data = -1;
}

int wllb_delete_norm_id(NormObjKey *key, int bucket) {
  if (!is_set_up(key) || bucket < 0 || bucket >= key->size || key->nt[bucket].len == 0)
    return -1;
  forget_name(key, key->nt[bucket].idx);
  clear_head(&key->nt[bucket]);
  return 0;
}

// Copies the follower over its head and gives its slot back.
static void move_follower_up(NormObjKey *key, NormTable *head) {
  NormTable *follower = head->nt_next;
  const wllb_mp_slot slot = head->slot;
  *head = *follower;
  head->slot = slot;
  wllb_mp_free_slot(&key->nt_mpool, follower);
}

static void unlink_key(NormObjKey *key, const walk_end &end) {
  if (end.before) {
    end.before->nt_next = end.node->nt_next;
    wllb_mp_free_slot(&key->nt_mpool, end.node);
  } else if (end.node->nt_next) {
    move_follower_up(key, end.node);
  } else {
    clear_head(end.node);
  }
}

int wllb_delete_norm_id_ex(NormObjKey *key, const char *text, int len, int *out_id) {
  *out_id = -1;
  wanted_key want;
  if (!hash_key(key, text, len, &want))
    return -1;
  const walk_end end = walk_bucket(key, want);
  if (!end.node)
    return -1;
  *out_id = end.node->idx;
  unlink_key(key, end);
  forget_name(key, *out_id);
  wllb_add_id_in_free_list(key, *out_id);
  return 0;
}

void wllb_add_id_in_free_list(NormObjKey *key, int id) {
  if (!key)
    return;
  auto *entry = static_cast<FreeNormIdList *>(wllb_new_block(sizeof(FreeNormIdList), "FreeNormIdList"));
  entry->free_id = id;
  if (key->free_norm_id_list_tail)
    key->free_norm_id_list_tail->next_free_id = entry;
  else
    key->free_norm_id_list_head = entry;
  key->free_norm_id_list_tail = entry;
}
