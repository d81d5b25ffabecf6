// Handlers of the keywords that are no single number within a range, and the defaults of what they set.
//   In      the words of one line; a word that is not there is empty
//   Out     the keyword globals
//   Thread  main, before any other thread starts
//   Failure a bad value takes its default, or keeps what is there, and may be traced; only the layout of the flowpath
//           number refuses the whole file
// Samples:  TQP_PERIODIC_SCANDIR_TIME 1h     TQP_SEQ_BLOB_IN_FILE_FLAG 1 B 10000     TQP_MONITORS 1 1
#include "keyword_rows.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace {
constexpr char seq_blob_version_default = 'B';
constexpr int seq_blob_rollover_default = 10000; // MB
constexpr int mempool_count_default = 64;
constexpr long scandir_period_default = 1800;          // s
constexpr int64_t scandir_shortest_period_ms = 300000; // 5 minutes
constexpr double similarity_percent_default = 90.0;

struct int_default {
  int *value;
  int def;
};

// The flags of TQ_ENABLE_CAPTURE_DB_TIMING in the order of its words.
constexpr int_default db_timing_flags[] = {
    {&tqp_enable_jdbc_call, 1},       {&tqp_enable_redix_call, 1},    {&tqp_enable_mongodb_call, 1},
    {&tqp_enable_casscendra_call, 1}, {&tqp_enable_neo4j_call, 1},    {&tqp_enable_cloundant_call, 1},
    {&tqp_enable_bigtable_call, 0},   {&tqp_enable_bigquery_call, 0}, {&tqp_enable_ftp_call, 0},
    {&tqp_enable_dynamo_call, 0},
};

// What the second and third words set; the first word's value and default stand in the row.
constexpr int_default later_words[] = {
    {&tqp_seq_blob_in_file_version, seq_blob_version_default},
    {&tqp_seq_blob_in_file_rollover_size, seq_blob_rollover_default},
    {&tqdbu_rd_inst_skip_sleep, 5},
    {&tqp_num_tqp_instances_init, mempool_count_default},
    {&tqp_num_tqp_instances_delta, mempool_count_default},
    {&tqp_enable_auto_mon_instance_reg, 0},
};

// One field of a flowpath number, from the top down.
struct fpi_field {
  std::string_view prefix; // a token whose name begins so is this field's
  int *start;
  int *bits;
  uint64_t *mask;
  int default_start;
  int default_bits;
  const char *twice;
  const char *absent;
  const char *overlap; // it reaches into the field above; for the first field, above the topmost bit
};

// clang-format off
constexpr fpi_field fpi_fields[] = {
  {"TQEID", &tqe_id_starting_bit_location, &tqe_id_no_of_bits, &tqe_id_mask_num, 56, 4,
   "The value of TQEID is passed Two Times in Keyword.", "The value of TQEID is not passed in Keyword.",
   "Sum of Starting bit location in TQEID + Num bits in TQEID <= 62."},
  {"AppID", &tqe_app_id_starting_bit_location, &tqe_app_id_no_of_bits, &tqe_app_id_mask_num, 46, 10,
   "The value of AppID is passed Two Times in Keyword.", "The value of AppID is not passed in Keyword.",
   "Sum of Starting bit location in AppID + Num bits in AppID <= TQEID starting bit locaton."},
  {"TS", &tqe_ts_starting_bit_location, &tqe_ts_no_of_bits, &tqe_ts_mask_num, 8, 38,
   "The value of TS is passed Two Times in Keyword.", "The value of TS is not passed in Keyword.",
   "Sum of Starting bit location in TS + Num bits in TS <= AppID starting bit location."},
  {"SeqNo", &tqe_seqno_starting_bit_location, &tqe_seqno_of_bits, &tqe_seqno_mask_num, 0, 8,
   "The value of SeqNo is passed Two Times in Keyword.", "The value of SeqNo is not passed in Keyword.",
   "Sum of Starting bit location in SeqNo + Num bits in SeqNo <= TIMESTAMP(TS) starting bit locaton."},
};
// clang-format on
constexpr size_t fpi_field_count = std::size(fpi_fields);
constexpr int64_t fpi_bits_end = 63; // the topmost field ends below this
constexpr size_t fpi_max_tokens = 20;

struct bit_range {
  int64_t start = 0;
  int64_t bits = 0;
  bool given = false;
};

using fpi_layout = std::array<bit_range, fpi_field_count>;

void set_fpi_field(const fpi_field &field, int start, int bits) {
  *field.start = start;
  *field.bits = bits;
  *field.mask = (uint64_t{1} << bits) - 1;
}

// Tokens of the layout; empty ones, such as the one behind the last semicolon, do not count.
std::vector<std::string> fpi_tokens(std::string_view value) {
  std::vector<std::string> tokens;
  while (!value.empty() && tokens.size() < fpi_max_tokens) {
    const std::string_view token = value.substr(0, value.find_first_of(";\n"));
    if (!token.empty())
      tokens.emplace_back(token);
    value.remove_prefix(std::min(value.size(), token.size() + 1));
  }
  return tokens;
}

// Start and size of a token; false when it has not got two colons.
bool read_bit_range(const std::string &token, bit_range *range) {
  const size_t first = token.find(':');
  const size_t second = first == std::string::npos ? first : token.find(':', first + 1);
  if (second == std::string::npos)
    return false;
  *range = {.start = kw_int(token.c_str() + first + 1), .bits = kw_int(token.c_str() + second + 1), .given = true};
  return true;
}

// Puts each token into its field. Null, or what is wrong with the tokens.
const char *collect_fpi_layout(const std::vector<std::string> &tokens, fpi_layout &layout) {
  bit_range range;
  for (const std::string &token : tokens)
    if (!read_bit_range(token, &range))
      return "Invalid Values";
  for (const std::string &token : tokens) {
    for (size_t i = 0; i < fpi_field_count; ++i) {
      if (!token.starts_with(fpi_fields[i].prefix))
        continue;
      if (layout[i].given)
        return fpi_fields[i].twice;
      read_bit_range(token, &layout[i]);
    }
  }
  return nullptr;
}

// Null, or what is wrong with a layout. From the lowest field up, none may reach into the one above it.
const char *check_fpi_layout(const fpi_layout &layout) {
  for (size_t i = 0; i < fpi_field_count; ++i)
    if (!layout[i].given)
      return fpi_fields[i].absent;
  for (const bit_range &range : layout)
    if (range.start < 0 || range.bits < 0)
      return "No Value can be negative.";
  for (size_t i = fpi_field_count - 1; i > 0; --i)
    if (layout[i].start + layout[i].bits > layout[i - 1].start)
      return fpi_fields[i].overlap;
  if (layout[0].start + layout[0].bits >= fpi_bits_end)
    return fpi_fields[0].overlap;
  return nullptr;
}

void free_dummy_query() {
  if (dummy_query)
    wllb_free_block(dummy_query, strlen(dummy_query) + 1, "dummy_query");
  dummy_query = nullptr;
}

// A number with the byte behind it, as "%lld%c" reads them.
struct amount {
  bool read;        // there was a number
  long long number; // held within its type
  char unit;        // 0: none
};

amount read_amount(const char *text) {
  char *end = nullptr;
  const long long number = strtoll(text, &end, 10);
  return {.read = end != text, .number = number, .unit = end != text ? *end : '\0'};
}

// A product that stops at the ends of its type.
int64_t times(int64_t number, int64_t factor) {
  int64_t product = 0;
  if (__builtin_mul_overflow(number, factor, &product))
    return number < 0 ? INT64_MIN : INT64_MAX;
  return product;
}

int count_or_default(const char *word) {
  const int count = kw_int(word);
  return wllb_is_numeric(word) && count >= 1 ? count : mempool_count_default;
}

void set_if_numeric(int *value, const char *word) {
  if (wllb_is_numeric(word))
    *value = kw_int(word);
}
} // namespace

void kw_odd_values_to_default() {
  for (const int_default &flag : db_timing_flags)
    *flag.value = flag.def;
  for (const int_default &value : later_words)
    *value.value = value.def;
  for (const fpi_field &field : fpi_fields)
    set_fpi_field(field, field.default_start, field.default_bits);
  wllb_copy_text(deleted_instance_cleanup_delay, sizeof deleted_instance_cleanup_delay, "3 days");
  tqp_periodic_scandir_time = scandir_period_default;
  tqp_sql_query_similarity_percentage = similarity_percent_default;
  free_dummy_query();
}

int64_t check_time_in_min_sec_or_hr(const char *text) {
  const amount given = read_amount(text);
  if (!given.read || given.number < 1)
    return -1;
  switch (given.unit) {
  case 's':
  case 'S':
    return times(given.number, 1000);
  case 'm':
  case 'M':
    return times(given.number, 60000);
  case 'h':
  case 'H':
    return times(given.number, 3600000);
  default:
    return -1;
  }
}

// --- flowpath number ----------------------------------------------------------------------------------------

static int read_fpi_layout(const char *value, fpi_layout &layout, std::string *err_msg) {
  const char *reason = collect_fpi_layout(fpi_tokens(value), layout);
  if (!reason)
    reason = check_fpi_layout(layout);
  if (!reason)
    return 0;
  *err_msg = wllb_format(
      "Invaild Format in TQ_FPI_MASK Keyword. %s Example <TQ_FPI_MASK TQEID:56:4;AppID:46:10;TS:8:38;SeqNo:0:8;>",
      reason);
  return -1;
}

int kw_check_tq_fpi_mask(const char *value, std::string *err_msg) {
  fpi_layout layout;
  return read_fpi_layout(value, layout, err_msg);
}

int kw_set_tq_fpi_mask(const char *value, std::string *err_msg) {
  fpi_layout layout;
  if (read_fpi_layout(value, layout, err_msg) != 0)
    return -1;
  for (size_t i = 0; i < fpi_field_count; ++i)
    set_fpi_field(fpi_fields[i], static_cast<int>(layout[i].start), static_cast<int>(layout[i].bits));
  return 0;
}

int kw_set_tq_fpi_mask_row(const kw_row &, const kw_line &line) {
  return kw_set_tq_fpi_mask(line.word(1), line.err_msg);
}

// --- numbers with rules of their own ------------------------------------------------------------------------

int kw_set_tqp_seq_blob_in_file_flag(const kw_row &row, const kw_line &line) {
  kw_set_plain(row, line.word(1));
  if (const char version = *line.word(2)) {
    const bool good = 'A' <= version && version <= 'C';
    tqp_seq_blob_in_file_version = static_cast<unsigned char>(good ? version : seq_blob_version_default);
    if (!good)
      kw_error(
          "TQP_SEQ_BLOB_IN_FILE_FLAG allowed values for version (second) field are A, B or C, read value = %c, setting default value = %c",
          version, seq_blob_version_default);
  }
  if (*line.word(3)) {
    const int rollover = kw_int(line.word(3));
    tqp_seq_blob_in_file_rollover_size = rollover >= 1 ? rollover : seq_blob_rollover_default;
    if (rollover < 1)
      kw_error(
          "TQP_SEQ_BLOB_IN_FILE_FLAG allowed values for file rollover size (third) field are between 1 (MB) and 2000000000 MB (=2 TB) read value = %d, setting default value = %d",
          rollover, seq_blob_rollover_default);
  }
  return 0;
}

int kw_set_max_fi_array_entries(const kw_row &row, const kw_line &line) {
  kw_set_plain(row, line.word(1));
  max_fi_array_entries = std::max(max_fi_array_entries, 0);
  return 0;
}

int kw_set_tqdbu_rd_inst_count_and_skip(const kw_row &row, const kw_line &line) {
  kw_set_plain(row, line.word(1));
  tqdbu_rd_inst_skip_sleep = kw_int(line.word(2));
  return 0;
}

// A flag whose word is missing is switched off, also one that is on by default.
int kw_set_tq_enable_capture_db_timing(const kw_row &, const kw_line &line) {
  size_t word = 0;
  for (const int_default &flag : db_timing_flags)
    *flag.value = kw_int(line.word(++word));
  return 0;
}

// With mode 0 the counts are worked out when the tables are made.
int kw_set_tqp_mempool_settings(const kw_row &row, const kw_line &line) {
  kw_set_plain(row, line.word(1));
  if (tqp_mempool_config_mode != 0) {
    tqp_num_tqp_instances_init = count_or_default(line.word(2));
    tqp_num_tqp_instances_delta = count_or_default(line.word(3));
  }
  return 0;
}

int kw_set_tqp_mon_large_flowpath_method_count(const kw_row &, const kw_line &line) {
  set_if_numeric(&tqp_mon_large_flowpath_method_count, line.word(1));
  return 0;
}

int kw_set_tqp_monitors(const kw_row &, const kw_line &line) {
  set_if_numeric(&tqp_enable_auto_mon_reg, line.word(1));
  set_if_numeric(&tqp_enable_auto_mon_instance_reg, line.word(2));
  return 0;
}

// "ALL", in any case and with anything behind it, is -1.
int kw_set_tqp_num_nonprep_sql_load_at_init(const kw_row &row, const kw_line &line) {
  if (strncasecmp(line.word(1), "ALL", 3) == 0)
    tqp_num_nonprep_sql_load_at_init = -1;
  else
    kw_set_plain(row, line.word(1));
  return 0;
}

int kw_set_tqp_interval_to_dump_sql_timing_data(const kw_row &row, const kw_line &line) {
  if (kw_int(line.word(1)) == 0) {
    interval_to_dump_sql_timing_data = 0;
    wllb_trace(
        1, "Info",
        "'interval_to_dump_sql_timing_data' value is zero. SQL Timing data is dumped into TQSQLTiming.csv after completion of flowpath");
  } else {
    kw_set_plain(row, line.word(1));
  }
  return 0;
}

int kw_set_tqp_sql_query_similarity_percentage(const kw_row &row, const kw_line &line) {
  kw_set_plain(row, line.word(1));
  const double percent = strtod(line.word(2), nullptr);
  // Written so that "nan" fails the test, too.
  tqp_sql_query_similarity_percentage = percent >= 0 && percent <= 100 ? percent : similarity_percent_default;
  return 0;
}

// --- times and texts ----------------------------------------------------------------------------------------

int kw_set_tqp_periodic_scandir_time(const kw_row &, const kw_line &line) {
  const amount given = read_amount(line.word(1));
  int64_t period_ms = -1;
  if (given.read)
    period_ms = given.unit ? check_time_in_min_sec_or_hr(line.word(1)) : times(given.number, 1000);
  if (period_ms == -1) {
    tqp_periodic_scandir_time = scandir_period_default;
    wllb_trace(1, "Error", "TQP_PERIODIC_SCANDIR_TIME keyword's value is not proper format, set default to %ld sec",
               tqp_periodic_scandir_time);
    return 0;
  }
  if (period_ms > 0)
    period_ms = std::max(period_ms, scandir_shortest_period_ms);
  tqp_periodic_scandir_time = period_ms / 1000;
  wllb_trace(1, "Info", "Setting TQP_PERIODIC_SCANDIR_TIME keyword's value to %ld sec", tqp_periodic_scandir_time);
  return 0;
}

// Words for at(1). A number of 0 without a unit, no number, or another unit keeps the words that are there.
int kw_set_tqp_deleted_instance_cleanup_delay(const kw_row &, const kw_line &line) {
  const amount given = read_amount(line.word(1));
  const int number = kw_int(line.word(1));
  std::string words;
  if (given.read && (given.unit == 'm' || given.unit == 'M'))
    words = wllb_format("%d min", number);
  else if (given.read && (given.unit == 'h' || given.unit == 'H' || (!given.unit && number != 0)))
    words = wllb_format("%d hour", number);
  else if (given.read && (given.unit == 'd' || given.unit == 'D'))
    words = wllb_format("%d days", number);
  if (!words.empty())
    wllb_copy_text(deleted_instance_cleanup_delay, sizeof deleted_instance_cleanup_delay, words);
  return 0;
}

int kw_set_tqp_map_unknown_sql_query_to_custom_query_str(const kw_row &, const kw_line &line) {
  const char *query = line.rest + strspn(line.rest, " \t");
  free_dummy_query();
  if (*query) {
    const size_t size = strlen(query) + 1;
    dummy_query = static_cast<char *>(wllb_new_block(size, "dummy_query"));
    memcpy(dummy_query, query, size);
  }
  return 0;
}

// The loader reads the same file by itself.
int kw_leave_to_loader(const kw_row &, const kw_line &) {
  return 0;
}

// --- discontinued -------------------------------------------------------------------------------------------

int kw_set_tqp_max_entry_exit_records_in_an_fp_ex(const kw_row &, const kw_line &) {
  fprintf(stderr,
          "TQP_MAX_ENTRY_EXIT_RECORDS_IN_AN_FP_EX is not supported now. Use TQP_MAX_ENTRY_EXIT_RECORDS_IN_AN_FP_EX2\n");
  wllb_trace(
      1, "Error",
      "TQP_MAX_ENTRY_EXIT_RECORDS_IN_AN_FP_EX is not supported now. Use TQP_MAX_ENTRY_EXIT_RECORDS_IN_AN_FP_EX2\n");
  return 0;
}

int kw_set_tq_rawdata_file_path(const kw_row &, const kw_line &) {
  wllb_trace(
      1, "Error",
      "ERROR: TQC_TMP_PATH keyword has been discontinued. We can use it BY MULTIDISK_PATH tqprocesseddata Keyword in scenario");
  return 0;
}

int kw_set_tq_csv_file_path(const kw_row &, const kw_line &) {
  wllb_trace(
      1, "Error",
      "ERROR: TQP_TMP_PATH keyword has been discontinued. We can use it BY MULTIDISK_PATH raw_data Keyword in scenario");
  return 0;
}
