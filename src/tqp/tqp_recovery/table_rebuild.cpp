// Rebuilds the norm id tables from the metadata files, so that a text keeps its id across a restart.
//   In      "%s/logs/TR%d/tq/csv/<file>", of which each row was written once, when its id was given out
//   Out     the norm tables, key_tags with count_tags, g_min_init_nonprep_sql_id
//   Thread  main at start; for the non-prepared queries the control thread, which holds key_sql_query_mutex
//   Failure a file that does not open leaves its table as it is; a bad row is told and passed over
// Non-prepared queries are without end: only the newest are read, from the last line of their file backwards. Their numbers
// go on above those that were given out before the table was made anew, whether their rows are in the file yet or not.
// Samples:  TQMetaData.csv 17,0,com.acme.Pay.charge()V      TQSQL.csv 0,12,1,select * from cart
//           TQHTTPHeaderMetaData.csv User-Agent,3           TQTags.csv 4,'{"zone":"b"}'

#include "tqp_recovery.h"

#include "data_files.h"
#include "tag_ids.h"
#include "tqp_tags.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

wllb_relaxed<int32_t> g_min_init_nonprep_sql_id;

static constexpr int max_line = 65536;
static constexpr int max_fields = 9; // the most that a row has
static constexpr int64_t reverse_block = 65536;

// So many lines of non-prepared queries are looked at for the highest id, even when fewer texts are wanted: instances
// write their rows a little out of order.
static constexpr int least_lines_for_ids = 10000;

// Field numbers count from 1; 0: none. Commas beyond those between a row's fields belong to its text.
struct norm_table_file {
  NormObjKey *table; // null: key_tags
  const char *file_name;
  int num_fields;
  int name_field;
  int id_field;
  int type_field;
  int kind; // value of the type field; METADATA_TYPE_SQL_NONPREP is read backwards, the topology by its own; -1: none
};

// clang-format off
static const norm_table_file norm_table_files[] = {
  {&key_method_id,         "TQMetaData.csv",               3, 3, 1, 2, METADATA_TYPE_METHOD},
  {&key_class_id,          "TQMetaData.csv",               3, 3, 1, 2, METADATA_TYPE_CLASS},
  {&key_package_id,        "TQMetaData.csv",               3, 3, 1, 2, METADATA_TYPE_PACKAGE},
  {&key_bci_arg,           "TQMetaData.csv",               3, 3, 1, 2, METADATA_TYPE_BCI_ARG},
  {&key_http_header_id,    "TQHTTPHeaderMetaData.csv",     2, 1, 2, 0, -1},
  {&key_excp_cls_id,       "TQExceptionClass.csv",         2, 2, 1, 0, -1},
  {&key_excp_thr_cls_id,   "TQExceptionThrowingClass.csv", 2, 2, 1, 0, -1},
  {&key_excp_thr_mtd_id,   "TQExceptionThrowingMethod.csv",2, 2, 1, 0, -1},
  {&key_excp_msg_id,       "TQExceptionMessage.csv",       2, 2, 1, 0, -1},
  {&key_excp_st_id,        "TQExceptionStackTrace.csv",    2, 2, 1, 0, -1},
  {&key_excp_cause_id,     "TQExceptionCause.csv",         2, 2, 1, 0, -1},
  {&key_url_id,            "TQURLTable.csv",               9, 7, 2, 0, -1}, // ids stand there with norm_id_flag
  {&key_sql_query,         "TQSQL.csv",                    4, 4, 2, 0, -1},
  {&key_sql_nonprep_query, "TQSQL_nonprepared.csv",        4, 4, 2, 0, METADATA_TYPE_SQL_NONPREP},
  {&key_signature,         "TQFPSignature.csv",            2, 1, 2, 0, -1},
  {&key_resource_id,       "TQIPResourceMetaData.csv",     2, 2, 1, 0, -1},
  {&key_auto_topo_discovery_src, "tqIntegrationPoint.conf", 0, 0, 0, 0, METADATA_TYPE_AUTO_TOPO_DISCOVERY},
  {nullptr,                "TQTags.csv",                   0, 0, 0, 0, METADATA_TYPE_TAGS},
};

// clang-format on

static std::string metadata_path(const norm_table_file &from) {
  return wllb_format("%s/logs/TR%d/tq/csv/%s", wl_wdir, testidx, from.file_name);
}

// --- lines backwards --------------------------------------------------------------------------------------------

// Loads the block that ends behind file->pos, or a longer one when the line at hand begins before it.
static bool load_block_before(tqp_reverse_file *file, int64_t length) {
  const int64_t end = file->pos + 1;
  const int64_t begin = std::max<int64_t>(0, end - length);
  file->block.resize(static_cast<size_t>(end - begin));
  file->block_at = begin;
  return wllb_read_at(file->fd, file->block.data(), end - begin, begin) == end - begin;
}

// Where the line that ends at file->pos begins. The block then holds all of it.
static bool find_line_begin(tqp_reverse_file *file, int64_t *begin) {
  for (int64_t length = reverse_block;; length *= 2) {
    const int64_t ahead = file->pos - file->block_at;
    if (ahead >= 0 && ahead < static_cast<int64_t>(file->block.size())) {
      const char *block = file->block.data();
      const auto *newline = static_cast<const char *>(memrchr(block, '\n', static_cast<size_t>(ahead)));
      *begin = newline ? file->block_at + (newline - block) + 1 : 0;
      if (newline || file->block_at == 0)
        return true;
    }
    if (!load_block_before(file, length))
      return false;
  }
}

char *tqp_fgets_r(char *buffer, int size, tqp_reverse_file *file) {
  int64_t begin;
  if (file->pos < 1 || !find_line_begin(file, &begin))
    return nullptr;
  const auto len = static_cast<size_t>(std::min<int64_t>(file->pos + 1 - begin, size - 1));
  memcpy(buffer, file->block.data() + (begin - file->block_at), len);
  buffer[len] = 0;
  file->pos = std::max<int64_t>(begin - 1, 0);
  return buffer;
}

// --- rows -------------------------------------------------------------------------------------------------------

// A row whose id cannot be one. `line` may be cut at its commas already.
static void trace_bad_id(const std::string &path, const char *line) {
  wllb_trace(
      1, "Warning",
      "Error in reading file %s, while creating in memory normalised table. Id is not valid in the read line '%s'",
      path.c_str(), line);
}

// Cuts a row into its fields, from both ends, so that the text keeps its commas. False leaves a row with too few whole;
// what a kill left of a row whose id and text are there is taken as it is.
static bool cut_row(const norm_table_file &from, char *line, char *fields[]) {
  const auto commas = std::count(line, line + strlen(line), ',');
  if (commas < std::max(from.name_field, from.id_field) - 1)
    return false;
  fields[0] = line;
  for (int i = 1; i < from.name_field; ++i) {
    fields[i] = strchr(fields[i - 1], ',');
    *fields[i]++ = 0;
  }
  for (int i = from.num_fields - 1; i >= from.name_field && commas >= from.num_fields - 1; --i) {
    fields[i] = strrchr(fields[from.name_field - 1], ',');
    *fields[i]++ = 0;
  }
  return true;
}

static void trace_missing_fields(const std::string &path, const char *line) {
  wllb_trace(
      1, "Warning",
      "Error in reading file %s, while creating in memory normalised table. Number of fields are less than expected in the read line '%s'",
      path.c_str(), line);
}

// Rows on their way into a table. They go in bucket by bucket: a chain is long, and cheap to walk only while the
// cache still holds it. Of one text the first row counts, as in the file.
struct row_batch {
  struct row {
    int bucket;
    int id;
    size_t text; // where it begins in `texts`
  };

  std::vector<row> rows;
  std::string texts; // each ends with a NUL
};

static constexpr size_t batch_rows = size_t{1} << 18U, batch_bytes = size_t{1} << 26U;

static void put_batch(NormObjKey *table, row_batch *batch) {
  std::stable_sort(batch->rows.begin(), batch->rows.end(),
                   [](const row_batch::row &a, const row_batch::row &b) { return a.bucket < b.bucket; });
  for (const row_batch::row &row : batch->rows)
    wllb_set_norm_id(table, batch->texts.data() + row.text, 0, row.id);
  batch->rows.clear();
  batch->texts.clear();
}

static void add_to_batch(NormObjKey *table, row_batch *batch, const char *text, int id) {
  const size_t len = strlen(text);
  const int bucket = wllb_get_hash_index_ex(text, static_cast<int>(len), table->size, table->prime);
  batch->rows.push_back({.bucket = bucket, .id = id, .text = batch->texts.size()});
  batch->texts.append(text, len + 1);
  if (batch->rows.size() >= batch_rows || batch->texts.size() >= batch_bytes)
    put_batch(table, batch);
}

// One file being read.
struct metadata_reader {
  const norm_table_file &from;
  std::string path;
  row_batch batch;
  bool ids_only; // no text is wanted any more, only numbers that were given out
};

// Gives the text that id: the counter stands just before it.
static void set_tag_id(const char *text, size_t len, uint32_t id) {
  std::atomic<uint32_t> before(id - 1);
  uint32_t given;
  get_norm_id(&before, text, static_cast<int>(len), &given, TQ_EV_TAGS);
  count_tags = std::max(count_tags.load(), id);
}

// The text is what stands between the quotes, commas and all.
static void take_tag_row(const std::string &path, char *line) {
  char *text = strchr(line, ',');
  if (!text)
    return trace_missing_fields(path, line);
  const int id = atoi(line);
  if (id < 0)
    return trace_bad_id(path, line);
  size_t len = strlen(++text);
  if (len >= 2 && text[0] == '\'' && text[len - 1] == '\'') {
    text[len - 1] = 0;
    ++text;
    len -= 2;
  }
  set_tag_id(text, len, static_cast<uint32_t>(id));
}

static void note_nonprepared_id(int id) {
  if (g_min_init_nonprep_sql_id == 0 || id < g_min_init_nonprep_sql_id)
    g_min_init_nonprep_sql_id = id;
}

static void take_table_row(metadata_reader *reader, char *line) {
  const norm_table_file &from = reader->from;
  char *fields[max_fields];
  if (!cut_row(from, line, fields))
    return trace_missing_fields(reader->path, line);
  if (from.type_field && atoi(fields[from.type_field - 1]) != from.kind)
    return;
  const int written_id = atoi(fields[from.id_field - 1]);
  if (written_id < 0)
    return trace_bad_id(reader->path, line);
  const bool nonprepared = from.kind == METADATA_TYPE_SQL_NONPREP;
  // The non-prepared table holds plain numbers; only maps and files know the flag.
  const int id = nonprepared ? written_id & ~norm_id_flag : written_id;
  if (reader->ids_only)
    return wllb_set_start_norm_id(from.table, id);
  add_to_batch(from.table, &reader->batch, fields[from.name_field - 1], id);
  if (nonprepared)
    note_nonprepared_id(written_id);
}

static void take_row(metadata_reader *reader, char *line) {
  line[strcspn(line, "\n")] = 0;
  if (reader->from.table)
    take_table_row(reader, line);
  else
    take_tag_row(reader->path, line);
}

// --- files ------------------------------------------------------------------------------------------------------

// What is left of a line that did not fit is no row.
static void skip_rest_of_line(FILE *file) {
  for (int c = 0; c != '\n' && c != EOF;)
    c = getc_unlocked(file); // NOLINT(concurrency-mt-unsafe): this function's own stream
}

// Appends the newline that is missing at the end, or takes the row away that it would end.
static bool end_last_row(const norm_table_file &from, int fd, int64_t size) {
  if (from.id_field <= from.name_field)
    return wllb_write_at(fd, "\n", 1, size);
  tqp_reverse_file lines = {.fd = fd, .pos = size - 1, .block = {}, .block_at = 0};
  int64_t begin;
  return find_line_begin(&lines, &begin) && ftruncate(fd, begin) == 0;
}

// A kill can leave a row half written, and the next one would be glued to it. What is there of its text is known by its
// id from now on; but where the id stands last, the id itself may be cut.
static void mend_torn_end(const norm_table_file &from) {
  const std::string path = metadata_path(from);
  const wllb_file file = tqp_open_plain_file(path, "r+");
  struct stat st;
  char last = '\n';
  if (!file || fstat(fileno(file.get()), &st) != 0 || st.st_size == 0 ||
      pread(fileno(file.get()), &last, 1, st.st_size - 1) != 1 || last == '\n')
    return;
  const bool mended = end_last_row(from, fileno(file.get()), st.st_size);
  wllb_trace(1, "Warning", "File %s ends in the middle of a row, %s", path.c_str(),
             mended ? "which is ended now" : "and cannot be mended");
}

static void read_forwards(const norm_table_file &from) {
  metadata_reader reader = {.from = from, .path = metadata_path(from), .batch = {}, .ids_only = false};
  const wllb_file file = tqp_open_plain_file(reader.path, "r");
  if (!file)
    return;
  std::string line(max_line, 0);
  while (fgets(line.data(), max_line, file.get())) {
    const size_t len = strlen(line.c_str());
    if (len == max_line - 1 && line[len - 1] != '\n')
      skip_rest_of_line(file.get());
    take_row(&reader, line.data());
  }
  put_batch(from.table, &reader.batch);
}

// *count: lines whose texts were read so far, of all files. More than the keyword's number ends the reading of texts; -1
// of it never does. *looked_at: the same, with the lines that were read for their ids alone.
static bool read_backwards(const norm_table_file &from, const std::string &path, int *count, int *looked_at) {
  const wllb_file file = tqp_open_plain_file(path, "r");
  struct stat st;
  if (!file || fstat(fileno(file.get()), &st) != 0)
    return false;
  const int wanted = tqp_num_nonprep_sql_load_at_init, count_before = *count;
  tqp_reverse_file lines = {.fd = fileno(file.get()), .pos = st.st_size - 1, .block = {}, .block_at = 0};
  metadata_reader reader = {.from = from, .path = path, .batch = {}, .ids_only = false};
  std::string line(max_line, 0);
  while ((wanted < 0 || *count <= wanted || *looked_at < least_lines_for_ids) &&
         tqp_fgets_r(line.data(), max_line, &lines)) {
    ++*looked_at;
    reader.ids_only = wanted >= 0 && *count > wanted;
    *count += !reader.ids_only;
    take_row(&reader, line.data());
  }
  put_batch(from.table, &reader.batch);
  wllb_trace(1, "Info", "Read last %d lines of file: '%s', tqp_num_nonprep_sql_load_at_init = %d",
             *count - count_before, path.c_str(), wanted);
  return true;
}

// The file of the former partition fills up what the newest one has too few of. It may be there alone: the newest one is
// made only after the rollover.
static void read_newest_queries(const norm_table_file &from) {
  const std::string path = metadata_path(from);
  int count = 0, looked_at = 0;
  read_backwards(from, path, &count, &looked_at);
  if (tqp_num_nonprep_sql_load_at_init < 0 || count < tqp_num_nonprep_sql_load_at_init ||
      looked_at < least_lines_for_ids)
    read_backwards(from, path + ".prev", &count, &looked_at);
}

void tq_build_norm_tables_from_metadata_csv(int kind) {
  if (kind != METADATA_TYPE_SQL_NONPREP)
    g_min_init_nonprep_sql_id = 0;
  for (const norm_table_file &from : norm_table_files) {
    const bool nonprepared = from.kind == METADATA_TYPE_SQL_NONPREP;
    if ((kind == METADATA_TYPE_SQL_NONPREP && !nonprepared) ||
        (from.table == &key_signature && !tqp_generate_fp_signatures))
      continue;
    if (from.kind == METADATA_TYPE_AUTO_TOPO_DISCOVERY) {
      tq_build_norm_tables_for_auto_discovery();
      continue;
    }
    wllb_trace(1, "Info", "Normalization table creating from %s files", from.file_name);
    if (kind != METADATA_TYPE_SQL_NONPREP && resume_flag && !tqp_is_offline())
      mend_torn_end(from);
    if (nonprepared)
      read_newest_queries(from);
    else
      read_forwards(from);
  }
  wllb_trace(1, "Info", "Normalization Tables created from metadata csv files");
}
