// The keyword table as data, and what its odd keywords share. For this group alone.
//   In      the words of one line of the keyword file
//   Out     the keyword globals
//   Thread  main, before any other thread starts
//   Failure a bad value takes the row's default and is traced; only a handler that returns -1 ends the parsing
// Sample:  TQP_MAX_BUFFERED_JMS_BUFSIZE 64   (KB: the row's unit of 1024 makes 65536 bytes of it)
#pragma once

#include "tqp_parse_keywords.h"

#include <climits>
#include <functional>
#include <span>

constexpr size_t kw_max_words = 11; // the keyword and at most ten values

// One line of the file, cut into words.
struct kw_line {
  std::vector<std::string> words; // the keyword first
  const char *rest;               // all that stands behind the keyword, with the line end
  std::string *err_msg = nullptr; // for a handler that ends the parsing

  const char *word(size_t i) const { return i < words.size() ? words[i].c_str() : ""; }
};

// What a row accepts. The word is read as atoi reads it, so that text without a number counts as 0.
enum kw_rule {
  KW_RANGE,    // min to max, both included, in the unit of the word
  KW_FLAG,     // 0 or 1
  KW_ANY,      // every number
  KW_TRUTH,    // every number; all but 0 become 1
  KW_NON_ZERO, // every number but 0
  KW_NUMERIC,  // digits and nothing else
  KW_OWN       // whatever its handler says
};

constexpr int kw_shown_as_set = INT_MIN;

struct kw_row;
using kw_handler = int (*)(const kw_row &row, const kw_line &line);

struct kw_row {
  std::string_view keyword;
  kw_rule rule = KW_ANY;
  int min = 0;
  int max = INT_MAX;
  int unit = 1;                    // the global holds the word times this
  int *value = nullptr;            // null: a handler that sets no single number
  int def = 0;                     // in the global's unit
  int shown = kw_shown_as_set;     // the default as the complaint prints it, where that differs
  bool fixed = false;              // the process puts the default back after parsing
  bool read_before_fixing = false; // ... after it has been used, so that the word has its effect
  bool bare = false;               // the complaint stands without the common front
  bool unused = false;             // nothing reads what the row sets
  // For people: what the words after the keyword are, with units; what they may be and their default, where that does not
  // follow from the fields above; what they are for.
  const char *words = nullptr;
  const char *accepted = nullptr;
  const char *default_text = nullptr;
  const char *meaning = nullptr;
  const char *complaint = nullptr; // null: silent. The last %d is the default; before it, %s is the word, %d its number
  kw_handler own = nullptr; // null: kw_set_plain. Gives 0, or -1 with a reason in line.err_msg to end the parsing
};

// All rows in the order of comparison: the first match wins.
extern const std::span<const kw_row> kw_rows;

// The row of a keyword, compared with its case; null when there is none.
const kw_row *kw_find_row(std::string_view keyword);

// Gives the line to its row. 0, or -1 with the reason in line.err_msg.
int kw_apply_row(const kw_row &row, const kw_line &line);

// Whether the row's rule takes a word, whose number is `given`.
bool kw_accepts(const kw_row &row, const char *word, int given);

// For people: which values the row takes, "8 to 1048576", and its default, both in the unit of the words.
std::string kw_accepted_text(const kw_row &row);
std::string kw_default_text(const kw_row &row);

// Calls take with each line that has a word and is no comment, its number in the file from 1, and whether it was cut at the
// longest line's length, until that gives a number below 0. "" or why the file cannot be read, with a newline.
std::string kw_for_each_line(const char *path,
                             const std::function<int(const kw_line &line, int number, bool cut)> &take);

// Sets the row's value by its rule, limits and unit.
void kw_set_plain(const kw_row &row, const char *word);

// What atoi gives, held within an int.
int kw_int(const char *word);

// A trace line with the common front, which names the file.
void kw_error(const char *fmt, ...) WLLB_PRINTF(1, 2);

// Defaults of the values that no row holds; frees dummy_query.
void kw_odd_values_to_default();

// Handlers of the odd keywords.
int kw_set_tqp_seq_blob_in_file_flag(const kw_row &row, const kw_line &line);
int kw_set_max_fi_array_entries(const kw_row &row, const kw_line &line);
int kw_set_tqp_max_entry_exit_records_in_an_fp_ex(const kw_row &row, const kw_line &line);
int kw_set_tqdbu_rd_inst_count_and_skip(const kw_row &row, const kw_line &line);
int kw_set_tq_fpi_mask_row(const kw_row &row, const kw_line &line);
int kw_set_tqp_map_unknown_sql_query_to_custom_query_str(const kw_row &row, const kw_line &line);
int kw_set_tq_rawdata_file_path(const kw_row &row, const kw_line &line);
int kw_set_tq_csv_file_path(const kw_row &row, const kw_line &line);
int kw_set_tq_enable_capture_db_timing(const kw_row &row, const kw_line &line);
int kw_set_tqp_mempool_settings(const kw_row &row, const kw_line &line);
int kw_set_tqp_deleted_instance_cleanup_delay(const kw_row &row, const kw_line &line);
int kw_set_tqp_mon_large_flowpath_method_count(const kw_row &row, const kw_line &line);
int kw_set_tqp_monitors(const kw_row &row, const kw_line &line);
int kw_set_tqp_num_nonprep_sql_load_at_init(const kw_row &row, const kw_line &line);
int kw_set_tqp_periodic_scandir_time(const kw_row &row, const kw_line &line);
int kw_set_tqp_interval_to_dump_sql_timing_data(const kw_row &row, const kw_line &line);
int kw_set_tqp_sql_query_similarity_percentage(const kw_row &row, const kw_line &line);
int kw_leave_to_loader(const kw_row &row, const kw_line &line);

// The layout of a flowpath number, such as "TQEID:56:4;AppID:46:10;TS:8:38;SeqNo:0:8;". -1 with the reason in
// *err_msg and the layout unchanged, or 0.
int kw_set_tq_fpi_mask(const char *value, std::string *err_msg);

// The same test, and the layout stays as it is.
int kw_check_tq_fpi_mask(const char *value, std::string *err_msg);
