// Flowpath signatures: the digits that a segment's methods left, packed two a byte, under a norm id.
//   In      the signature source of a finished segment
//   Out     its norm id; a row of "TQFPSignature.csv" for a new one
//   Thread  the instance's; the table is shared, under key_signature_mutex for the one call
//   Failure a source that cannot be packed is told and has the id -1
// Samples:  0190 -> 1\0    123 -> c.3

#include "tqp_csv_files.h"
#include "tqp_run_time_v2.h"

#include <algorithm>
#include <climits>
#include <string>

// The capital W is absent: stored signatures are read with this very set.
static constexpr char alphabet[] =
    R"(0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVXYZ~`!@#$%^&*()_-+={}[]:;" <>|?/)";
static constexpr int alphabet_size = 90;
static_assert(sizeof alphabet == alphabet_size + 1);

// The number in two characters; junk counts as atoi counts it, but never below 0.
static int read_pair(const char *in) {
  const char pair[3] = {in[0], in[1], 0};
  return std::max(0, atoi(pair));
}

int tq_string_compress(const char *in, char *out, int in_len) {
  if (!in || !out || in_len <= 0)
    return -1;
  char *at = out;
  for (int i = 0; i + 1 < in_len; i += 2) {
    const int value = read_pair(in + i);
    if (value < alphabet_size) {
      *at++ = alphabet[value];
    } else {
      *at++ = '\\';
      *at++ = static_cast<char>(value - 42);
    }
  }
  if (in_len % 2 != 0) {
    *at++ = '.';
    *at++ = in[in_len - 1];
  }
  *at = 0;
  return static_cast<int>(at - out);
}

int generate_signature(tqp_instance_t *inst, const wllb_text &signstr) {
  if (!signstr.data)
    return 0;
  std::string packed(signstr.len + 2, 0);
  const int length =
      tq_string_compress(signstr.data, packed.data(), static_cast<int>(std::min<size_t>(signstr.len, INT_MAX - 2)));
  if (length < 0) {
    wllb_trace(1, "Error", "Error in Compressing Fp_signature");
    return -1;
  }
  int is_new = 0;
  int norm_id;
  {
    wllb_hold hold(key_signature_mutex);
    norm_id = wllb_get_or_gen_norm_id(&key_signature, packed.c_str(), length, &is_new);
  }
  if (is_new)
    csv_dump_fp_signature(inst, packed.c_str(), norm_id);
  return norm_id;
}
