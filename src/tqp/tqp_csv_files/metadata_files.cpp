// Writes what the numbers in all other rows stand for: one row for each new norm id, in the file of its kind.
//   In      norm ids just given out and their texts, from the record readers of all instances
//   Out     the common files below; they are also the memory from which a restart rebuilds its norm tables
//   Thread  any instance's; each file is written under its lock, so rows of one file come in any order of id
//   Failure a file that does not open or has no room is reported at each row and tried again with the next one. Until
//           then rows wait, up to a limit, since their ids are in use
// Samples:  17,0,com.acme.Pay.charge   (TQMetaData.csv: id, kind, text, which may hold commas)
//           User-Agent,3               (TQHTTPHeaderMetaData.csv and TQFPSignature.csv: text first)

#include "metadata_rows.h"
#include "wllb_fail.h"

#include <atomic>
#include <iterator>

enum metadata_format : uint8_t { OWN_FORMAT, ID_TEXT, ID_TYPE_TEXT, TEXT_ID };

// An instance's buffer, which holds a row between its formatting and its one write.
struct metadata_buffer {
  char *tqp_instance_t::*data;
  int tqp_instance_t::*index;
  const int *size; // bytes
  const char *label;
};

struct metadata_file {
  metadata_csv_idx idx;
  const char *name;
  metadata_format format;
  int event_id;                  // what the offline message shows; 0: the file's own writer knows
  int extended_type;             // kind in TQMetaDataEx.csv; -1: the caller's, or no such row
  const char *failure;           // traced when a row cannot be written
  const metadata_buffer *buffer; // null: rows go straight to the stream
  bool made_anew;                // opened late it is made by resume_flag, as at start; else it is only appended to
};

constexpr metadata_buffer meta_data_buffer = {&tqp_instance_t::metadata_data_buf, &tqp_instance_t::metadata_cur_index,
                                              &max_buffered_meta_data_bufsize, "metadata buffer"};
constexpr metadata_buffer resource_buffer = {&tqp_instance_t::resource_data_buf, &tqp_instance_t::resource_cur_index,
                                             &max_buffered_resource_meta_data_bufsize, "resource buffer"};
constexpr metadata_buffer http_header_md_buffer = {&tqp_instance_t::http_header_md_data_buf,
                                                   &tqp_instance_t::http_header_md_cur_index,
                                                   &max_buffered_http_header_md_bufsize, "http header md buffer"};

// The event ids of exceptions and signatures are partly kinds of metadata; operators know these numbers.
// clang-format off
constexpr metadata_file metadata_files[] = {
  {EXCP_THR_CLS_CSV_IDX,           "TQExceptionThrowingClass.csv",  ID_TEXT,      33, METADATA_TYPE_EXCP_THR_CLS, "Could not write to exception throwing class csv file",  nullptr, false},
  {EXCP_THR_MTD_CSV_IDX,           "TQExceptionThrowingMethod.csv", ID_TEXT,      34, METADATA_TYPE_EXCP_THR_MTD, "Could not write to exception throwing method csv file", nullptr, false},
  {EXCP_ST_CSV_IDX,                "TQExceptionStackTrace.csv",     ID_TEXT,      14, METADATA_TYPE_EXCP_STACK,   "Could not write to exception stack trace csv file",     nullptr, false},
  {EXCP_CLS_CSV_IDX,               "TQExceptionClass.csv",          ID_TEXT,      32, METADATA_TYPE_EXCP_CLS,     "Could not write to exception class csv file",           nullptr, false},
  {EXCP_MSG_CSV_IDX,               "TQExceptionMessage.csv",        ID_TEXT,      15, METADATA_TYPE_EXCP_MSG,     "Could not write to exception message csv file",         nullptr, false},
  {EXCP_CAUSE_CSV_IDX,             "TQExceptionCause.csv",          ID_TEXT,      16, METADATA_TYPE_EXCP_CAUSE,   "Could not write to exception cause csv file",           nullptr, false},
  {URL_TABLE_CSV_IDX,              "TQURLTable.csv",                OWN_FORMAT,    0, -1,                         "Could not write to url table csv file",                 nullptr, false},
  {METADATA_CSV_IDX,               "TQMetaData.csv",                ID_TYPE_TEXT,  5, -1,                         "Could not write to metadata csv file",                  &meta_data_buffer, false},
  {HTTP_HEADER_METADATA_CSV_IDX,   "TQHTTPHeaderMetaData.csv",      TEXT_ID,       6, METADATA_TYPE_HTTP_HEADER,  "Could not write to http_header_md csv file",            &http_header_md_buffer, false},
  {SQL_TABLE_CSV_IDX,              "TQSQL.csv",                     OWN_FORMAT,    0, -1,                         "Could not write to sql table csv file",                 nullptr, true},
  {SQL_TABLE_NONPREP_CSV_IDX,      "TQSQL_nonprepared.csv",         OWN_FORMAT,    0, -1,                         "Could not write to sql table csv file",                 nullptr, true},
  {SQL_TABLE_NONPREP_PREV_CSV_IDX, "TQSQL_nonprepared.csv.prev",    OWN_FORMAT,    0, -1,                         "",                                                      nullptr, false},
  {TQ_FP_SIGNATURE_CSV_IDX,        "TQFPSignature.csv",             TEXT_ID,      17, METADATA_TYPE_FP_SIGNATURE, "Could not write to fp signature csv file",              nullptr, false},
  {RESOURCE_CSV_IDX,               "TQIPResourceMetaData.csv",      ID_TEXT,      26, METADATA_TYPE_RESOURCE,     "Could not write to resource metadata csv file",         &resource_buffer, false},
  {METADATA_EX_CSV_IDX,            "TQMetaDataEx.csv",              OWN_FORMAT,    0, -1,                         "Could not write to metadata's meta csv file",           nullptr, true},
  {TAGS_TABLE_CSV_IDX,             "TQTags.csv",                    OWN_FORMAT,    0, -1,                         "Could not write to tags table csv file",                nullptr, false},
};

// clang-format on

constexpr bool rows_stand_at_their_index() {
  for (int idx = 0; idx < __NUM_METADATA_CSV_IDX__; ++idx)
    if (metadata_files[idx].idx != idx)
      return false;
  return std::size(metadata_files) == __NUM_METADATA_CSV_IDX__;
}

static_assert(rows_stand_at_their_index());

// The files of non-prepared queries, of extended rows and of tags stay open until the process ends.
// clang-format off
constexpr metadata_csv_idx making_order[] = {
  METADATA_CSV_IDX, RESOURCE_CSV_IDX, TQ_FP_SIGNATURE_CSV_IDX, HTTP_HEADER_METADATA_CSV_IDX, EXCP_CLS_CSV_IDX,
  EXCP_THR_CLS_CSV_IDX, EXCP_THR_MTD_CSV_IDX, EXCP_MSG_CSV_IDX, EXCP_ST_CSV_IDX, EXCP_CAUSE_CSV_IDX,
  URL_TABLE_CSV_IDX, TAGS_TABLE_CSV_IDX, SQL_TABLE_CSV_IDX, SQL_TABLE_NONPREP_CSV_IDX,
  SQL_TABLE_NONPREP_PREV_CSV_IDX, METADATA_EX_CSV_IDX,
};
constexpr metadata_csv_idx closing_order[] = {
  TQ_FP_SIGNATURE_CSV_IDX, SQL_TABLE_CSV_IDX, METADATA_CSV_IDX, RESOURCE_CSV_IDX, HTTP_HEADER_METADATA_CSV_IDX,
  EXCP_CLS_CSV_IDX, EXCP_THR_CLS_CSV_IDX, EXCP_THR_MTD_CSV_IDX, EXCP_MSG_CSV_IDX, EXCP_ST_CSV_IDX,
  EXCP_CAUSE_CSV_IDX, URL_TABLE_CSV_IDX,
};

// clang-format on

static wllb_mutex &lock_of(int idx) {
  return metadata_csv_lock[idx == SQL_TABLE_NONPREP_CSV_IDX ? SQL_TABLE_CSV_IDX : idx];
}

const char *tqp_metadata_file_name(int idx) {
  return metadata_files[idx].name;
}

void create_csv_metadata_files(const char *path) {
  mkdir_ex(path); // a fresh test run has no such directory before its first instance
  tqp_own_directory(path);
  for (const metadata_csv_idx idx : making_order) {
    if (idx == METADATA_EX_CSV_IDX && !tqp_extended_metadata)
      continue;
    wllb_hold hold(lock_of(idx));
    tqp_close_stream(&metadata_csv_fp[idx]);
    metadata_csv_fp[idx] = tqp_make_data_file((std::string(path) + metadata_files[idx].name).c_str(),
                                              idx != SQL_TABLE_NONPREP_PREV_CSV_IDX);
  }
}

void tq_close_metadata_file() {
  tqp_write_waiting_metadata();
  for (const metadata_csv_idx idx : closing_order) {
    wllb_hold hold(lock_of(idx));
    tqp_close_stream(&metadata_csv_fp[idx]);
  }
}

static FILE *open_late(const tqp_instance_t *inst, const metadata_file &file) {
  const std::string path = wllb_format("%s%s", inst->commoncsvfilepath, file.name);
  return file.made_anew ? tqp_make_data_file(path.c_str(), true) : tqp_make_data_file_as(path.c_str(), "a", true);
}

// Rows that the system did not take, in their order, each file's under its lock.
static std::string waiting_rows[__NUM_METADATA_CSV_IDX__];
static constexpr size_t most_waiting = size_t{1} << 20U; // bytes of a file
static std::atomic<int> files_with_waiting_rows;

// True when no row of the file waits any more.
static bool write_waiting(int idx, FILE *stream) {
  std::string &rows = waiting_rows[idx];
  if (rows.empty())
    return true;
  if (!stream || !tqp_append_rows(stream, rows))
    return false;
  rows = std::string(); // its memory goes, too
  --files_with_waiting_rows;
  return true;
}

static void let_wait(int idx, std::string_view row) {
  std::string &rows = waiting_rows[idx];
  if (rows.size() + row.size() > most_waiting)
    return;
  files_with_waiting_rows += rows.empty();
  rows += row;
}

void tqp_write_waiting_metadata() {
  for (int idx = 0; idx < __NUM_METADATA_CSV_IDX__ && files_with_waiting_rows > 0; ++idx) {
    wllb_hold hold(lock_of(idx));
    write_waiting(idx, metadata_csv_fp[idx]);
  }
}

bool tqp_append_metadata_row(tqp_instance_t *inst, int idx, std::string_view row) {
  const metadata_file &file = metadata_files[idx];
  wllb_hold hold(lock_of(idx));
  FILE *&stream = metadata_csv_fp[idx];
  if (!stream)
    stream = open_late(inst, file);
  if (stream && write_waiting(idx, stream) && tqp_append_rows(stream, row))
    return true;
  let_wait(idx, row);
  wllb_trace(1, "Error", "%s", file.failure);
  return false;
}

[[noreturn]] static void usage_tqp_offline_processing(const tqp_instance_t *inst, int event_id, const char *text) {
  printf(
      "TQP Partition based Processing Error: New meta data discovered in Partition %lld for Instance = %s with Event id = %d for Meta data = %s. \n You still wants To Reprocess partition please follow following steps:- \n 1. Change name of TQP binary.\n 2. Find TQP pid which was started by TQC.\n 3. Send kill -15 signal to that pid. \n 4. Wait till exit that pid of TQP. \n 5. Now rerun this command for TQP partition based processing with an extra argument i.e <-f 1> which referes to write new generated meta data id in csv.\n",
      static_cast<long long>(inst->partition_idx.load()), inst->tier_server_app_name, event_id, text);
  wllb_fail(-1, "new metadata in partition %lld for instance %s of %s; -f 1 lets an offline run add it",
            static_cast<long long>(inst->partition_idx.load()), inst->tier_server_app_name, base_dir.c_str());
}

void tqp_check_offline_metadata(tqp_instance_t *inst, int event_id, const char *text) {
  if (tqp_is_offline() && !force_write_in_meta_data_csv)
    usage_tqp_offline_processing(inst, event_id, text);
}

void write_to_metadata_meta_file(tqp_instance_t *inst, int norm_id, int type) {
  const std::string_view name = inst->tier_server_app_name;
  std::string row(name.size() + 3 * tqp_row_cursor::number_room + 1, '\0');
  tqp_row_cursor cursor = {row.data()};
  cursor.number(norm_id, ',').number(type, ',').number(get_ms_stamp_tqp(), ',').text(name).text("\n");
  tqp_append_metadata_row(inst, METADATA_EX_CSV_IDX, {row.data(), cursor.at});
}

static size_t row_room(std::string_view text) {
  return text.size() + 2 * tqp_row_cursor::number_room + 1;
}

// Formats a row into memory of row_room bytes; returns its end.
static char *format_row(char *to, // NOLINT(readability-non-const-parameter): the cursor writes there
                        metadata_format format, int norm_id, int type, std::string_view text) {
  tqp_row_cursor cursor = {to};
  if (format == TEXT_ID)
    return cursor.text(text).text(",").number(norm_id, '\n').at;
  cursor.number(norm_id, ',');
  if (format == ID_TYPE_TEXT)
    cursor.number(type, ',');
  return cursor.text(text).text("\n").at;
}

static void write_straight(tqp_instance_t *inst, const metadata_file &file, int norm_id, int type,
                           std::string_view text) {
  std::string row(row_room(text), '\0');
  const char *end = format_row(row.data(), file.format, norm_id, type, text);
  tqp_append_metadata_row(inst, file.idx, {row.data(), end});
}

static void write_out_buffer(tqp_instance_t *inst, const metadata_file &file) {
  int &index = inst->*file.buffer->index;
  if (index > 0)
    tqp_append_metadata_row(inst, file.idx, {inst->*file.buffer->data, static_cast<size_t>(index)});
  index = 0;
}

// A row longer than the buffer goes out whole, behind what the buffer holds.
static void write_buffered(tqp_instance_t *inst, const metadata_file &file, int norm_id, int type,
                           std::string_view text) {
  char *&data = inst->*file.buffer->data;
  int &index = inst->*file.buffer->index;
  const size_t size = static_cast<size_t>(*file.buffer->size);
  if (!data)
    data = static_cast<char *>(wllb_new_block(size, file.buffer->label));
  const bool fits = static_cast<size_t>(index) + row_room(text) <= size;
  if (fits)
    index = static_cast<int>(format_row(data + index, file.format, norm_id, type, text) - data);
  write_out_buffer(inst, file);
  if (!fits)
    write_straight(inst, file, norm_id, type, text);
}

void tqp_free_metadata_buffers(tqp_instance_t *inst) {
  for (const metadata_file &file : metadata_files) {
    if (!file.buffer)
      continue;
    wllb_free_block(inst->*file.buffer->data, static_cast<size_t>(*file.buffer->size), file.buffer->label);
    inst->*file.buffer->data = nullptr;
    inst->*file.buffer->index = 0;
  }
  wllb_zarray_free(inst->sql_table_data_buf, sql_table_growth);
}

// The one road of a row. A null text has no row: what the buffer holds is written out.
static void dump_metadata(tqp_instance_t *inst, metadata_csv_idx idx, int norm_id, int type, const char *text) {
  const metadata_file &file = metadata_files[idx];
  if (text) {
    tqp_check_offline_metadata(inst, file.event_id, text);
    if (file.buffer)
      write_buffered(inst, file, norm_id, type, text);
    else
      write_straight(inst, file, norm_id, type, text);
  } else if (file.buffer)
    write_out_buffer(inst, file);
  if (tqp_extended_metadata)
    write_to_metadata_meta_file(inst, norm_id, type);
}

static void dump_metadata(tqp_instance_t *inst, metadata_csv_idx idx, int norm_id, const char *text) {
  dump_metadata(inst, idx, norm_id, metadata_files[idx].extended_type, text);
}

// The buffered writers flush with each row, so force has nothing to add to a row.
void csv_dump_meta_data(tqp_instance_t *inst, int norm_id, int type, const char *text, int force) {
  if (text || force)
    dump_metadata(inst, METADATA_CSV_IDX, norm_id, type, text);
}

void csv_dump_resource_meta_data(tqp_instance_t *inst, int norm_id, const char *text, int force) {
  if (text || force)
    dump_metadata(inst, RESOURCE_CSV_IDX, norm_id, text);
}

void csv_dump_http_header_md_data(tqp_instance_t *inst, const char *text, int norm_id, int force) {
  if (text || force)
    dump_metadata(inst, HTTP_HEADER_METADATA_CSV_IDX, norm_id, text);
}

void csv_dump_excp_cls_data(tqp_instance_t *inst, int norm_id, const char *text) {
  dump_metadata(inst, EXCP_CLS_CSV_IDX, norm_id, text);
}

void csv_dump_excp_thr_cls_data(tqp_instance_t *inst, int norm_id, const char *text) {
  dump_metadata(inst, EXCP_THR_CLS_CSV_IDX, norm_id, text);
}

void csv_dump_excp_thr_mtd_data(tqp_instance_t *inst, int norm_id, const char *text) {
  dump_metadata(inst, EXCP_THR_MTD_CSV_IDX, norm_id, text);
}

void csv_dump_excp_st_data(tqp_instance_t *inst, int norm_id, const char *text) {
  dump_metadata(inst, EXCP_ST_CSV_IDX, norm_id, text);
}

void csv_dump_excp_msg_data(tqp_instance_t *inst, int norm_id, const char *text) {
  dump_metadata(inst, EXCP_MSG_CSV_IDX, norm_id, text);
}

void csv_dump_excp_cause_data(tqp_instance_t *inst, int norm_id, const char *text) {
  dump_metadata(inst, EXCP_CAUSE_CSV_IDX, norm_id, text);
}

void csv_dump_fp_signature(tqp_instance_t *inst, const char *text, int norm_id) {
  dump_metadata(inst, TQ_FP_SIGNATURE_CSV_IDX, norm_id, text);
}
