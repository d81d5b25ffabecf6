// Norm id tables: one global small integer for each text, in order of first sight.
//   In      texts (NUL-terminated; `len` bytes are compared and stored, never more than the text has)
//   Out     ids from 0 up; key texts live in the table's arena
//   Thread  none of its own: each table's owner guards it with its mutex, held around a single call
//   Failure memory that cannot be had ends the process with -1 (wllb_alloc.h); a chain node that cannot be had with
//           "WLLB: %s|%d|%s| Out of Memory (size = %d): %s " on standard error
// A table never rehashes: it is sized at the start and its chains grow. Untouched buckets cost no memory.
#pragma once

#include "wllb_big_buf.h"
#include "wllb_mem_pool.h"

#include <cstdint>

// One value kept beside a key.
union NormTableData {
  char c;
  int i;
  long l;
  double d;
  void *p;
};

// A bucket head or chain node. A head with len 0 is an empty bucket (keys are never empty), so fresh zero pages are
// an empty table. A bucket fills a cache line.
struct NormTable {
  wllb_mp_slot slot;  // pool linkage of chain nodes
  int64_t str;        // offset of the key text in the arena
  int32_t len;        // key length in bytes; 0: empty bucket
  int32_t idx;        // norm id
  int64_t data;       // offset of a NormTableData in the arena; 0 or less: none
  NormTable *nt_next; // next node of the chain
  uint32_t hash_high; // upper half of the key's hash: spares the look at most other keys' texts
  uint32_t unused;
};

static_assert(sizeof(NormTable) == 64);

struct FreeNormIdList {
  int free_id;
  FreeNormIdList *next_free_id;
};

struct NormObjKey {
  bigbuf_t bigbuf;
  int32_t size;                           // buckets, a power of 2
  int32_t prime;                          // hash modulus, the largest prime not above size
  uint64_t prime_inverse;                 // wllb_norm_inverse(prime)
  NormTable *nt;                          // `size` buckets
  int64_t *id_name;                       // id to arena offset of its text, -1 for none; null unless made by _ex
  int32_t max_norm_id_size;               // entries of id_name
  int32_t prev_id;                        // last id given out; -1 in a fresh table
  FreeNormIdList *free_norm_id_list_head; // released ids, oldest first
  FreeNormIdList *free_norm_id_list_tail;
  wllb_mp_handler nt_mpool; // chain nodes
};

// Sizing, exposed for tests. The power of 2 not below n, from 1 to 2^30; the largest prime not above n, 1 counting as
// one.
int wllb_change_to_2_power_n(int n);
int get_prime(int n);

// The hash of a text is the state after its last byte, so one pass gives the hashes of a text and of its prefixes.
constexpr uint64_t wllb_norm_hash_basis = 0x811c9dc5;

constexpr uint64_t wllb_norm_hash_step(uint64_t h, unsigned char byte) {
  return (h ^ byte) * 0x1000193;
}

// The hash of the first `len` bytes, or of those before a NUL among them.
constexpr uint64_t wllb_norm_hash(const char *text, int len) {
  uint64_t h = wllb_norm_hash_basis;
  for (int i = 0; i < len && text[i]; ++i)
    h = wllb_norm_hash_step(h, static_cast<unsigned char>(text[i]));
  return h;
}

// h modulo prime without a division. h * inverse / 2^64 lies less than 1 below h / prime, so the quotient taken from it
// is the true one or 1 too low.
constexpr uint64_t wllb_norm_inverse(uint32_t prime) {
  return UINT64_MAX / prime;
}

constexpr uint32_t wllb_norm_remainder(uint64_t h, uint32_t prime, uint64_t inverse) {
  const auto quotient = static_cast<uint64_t>((static_cast<unsigned __int128>(h) * inverse) >> 64);
  const uint64_t rest = h - quotient * prime;
  return static_cast<uint32_t>(rest < prime ? rest : rest - prime);
}

// Sets up a table with `size` buckets (rounded up to a power of 2). 0, or -1 on a null table or a size below 1.
int wllb_init_norm_id_table(NormObjKey *key, int size);
// The same with an arena of `arena_size` bytes.
int wllb_init_norm_id_table_v2(NormObjKey *key, int size, long arena_size);
// The same with a way back from id to text.
int wllb_init_norm_id_table_ex(NormObjKey *key, int size);
int wllb_obj_hash_destroy(NormObjKey *key);
// Empties the table in place.
int wllb_obj_hash_reset(NormObjKey *key);

// The bucket of a text, or -1 when it is null or a number is below 1. The text runs to its NUL.
int wllb_get_hash_index_ex(const char *text, int len, int size, int prime);

// Finds or adds. The id; -1 for a null or empty text; 0 for a len below 0 or a table that is not set up. *is_new: 0
// for a key found; for one added 1 in a bucket head, else the number of chain nodes passed. A len of 0 takes the text's
// own length.
int wllb_get_or_gen_norm_id(NormObjKey *key, const char *text, int len, int *is_new);
// The same for `len` bytes that need no NUL behind them, with their wllb_norm_hash. A len of 0 is an empty text.
int wllb_get_or_gen_norm_id_hashed(NormObjKey *key, const char *text, int len, uint64_t hash, int *is_new);
// As above; a len of 0 is refused with -1, and *hash_index gets the bucket of a new key.
int wllb_get_or_gen_norm_id_ex(NormObjKey *key, const char *text, int len, int *is_new, int *hash_index);
// As wllb_get_or_gen_norm_id, and remembers the text of the id in a table that can: an id at most 15 above the room for
// ids makes 16 more places, one farther off goes unremembered.
int wllb_get_or_set_norm_id(NormObjKey *key, const char *text, int len, int *is_new);
// Finds, or adds with the wanted id (-1: a fresh one); prev_id rises to an id so added.
int wllb_get_set_or_gen_norm_id(NormObjKey *key, const char *text, int len, int *is_new, int wanted_id);
// Finds, or adds with the oldest released id, else a fresh one.
int wllb_get_set_or_gen_norm_id_ex(NormObjKey *key, const char *text, int len, int *is_new);

// Plain look-up. The id; -1 for a null or empty text or a len of 0; -2 when absent.
int wllb_get_norm_id(const NormObjKey *key, const char *text, int len);
// The same with the bucket and the key's value (zero when there is none); a len of 0 takes the text's own length.
int wllb_get_norm_id_hash_data(const NormObjKey *key, const char *text, int len, int *hash_index, NormTableData *data);

inline int wllb_get_norm_id_hash_data_ex(const NormObjKey *key, const char *text, int len, int *hash_index,
                                         NormTableData *data) {
  return wllb_get_norm_id_hash_data(key, text, len, hash_index, data);
}

// The next id becomes `id` + 1, if that is higher than it would be. The highest id there is repeats.
void wllb_set_start_norm_id(NormObjKey *key, int id);
// Adds a key with a given id; a present key keeps its own, and its value. prev_id rises to the id. The key's id; 0 with
// a line on standard error for a text or table that gives no bucket.
int wllb_set_norm_id(NormObjKey *key, const char *text, int len, int id);
int wllb_set_norm_id_and_data(NormObjKey *key, const char *text, int len, int id, NormTableData data);

inline int wllb_set_norm_id_and_data_ex(NormObjKey *key, const char *text, int len, int id, NormTableData data) {
  return wllb_set_norm_id_and_data(key, text, len, id, data);
}

// Clears a bucket head and releases no id. 0, or -1 when it is empty. Chain nodes behind it are out of reach until the
// next key of the bucket fills the head.
int wllb_delete_norm_id(NormObjKey *key, int bucket);
// Takes a key out and releases its id, which goes to *out_id (-1 when absent). 0, or -1 when absent.
int wllb_delete_norm_id_ex(NormObjKey *key, const char *text, int len, int *out_id);
void wllb_add_id_in_free_list(NormObjKey *key, int id);

// The text of an id, valid until the next addition; "InvalidInput" for a null table or a negative id,
// "NormIdNameNotFound" when there is none.
const char *wllb_get_norm_table_data(const NormObjKey *key, int id);
