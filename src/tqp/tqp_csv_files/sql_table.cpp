// Writes the texts of SQL queries, and keeps the file of the non-prepared ones from growing without end.
//   In      a query's norm id (non-prepared ones carry norm_id_flag) and its text as received
//   Out     rows of "TQSQL.csv" and "TQSQL_nonprepared.csv"; the latter becomes ".prev" when it is full
//   Thread  any instance's; one lock for both files, given back between the rollover and the row
//   Failure as all metadata rows; a file that cannot be renamed goes on growing
// Sample:  0,12,1,select * from account   (flowpath or hash, norm id, class of the query, text)

#include "metadata_rows.h"

#include <cerrno>
#include <cstring>
#include <strings.h>
#include <sys/stat.h>

constexpr std::string_view query_classes[] = {"SELECT", "INSERT", "UPDATE", "DELETE",    "CREATE",
                                              "DROP",   "CALL",   "XA",     "CONNECTION"}; // 1 to 9

int find_query_type(const char *text) {
  if (!text)
    return 0;
  text += strspn(text, " \t");
  for (size_t i = 0; i < std::size(query_classes); ++i)
    if (strncasecmp(text, query_classes[i].data(), query_classes[i].size()) == 0)
      return static_cast<int>(i) + 1;
  return 0;
}

static bool rename_file(const std::string &from, const std::string &to) {
  if (rename(from.c_str(), to.c_str()) == 0)
    return true;
  wllb_trace(1, "Error", "Could not rename file %s to %s, Error: %s", from.c_str(), to.c_str(),
             wllb_strerror(errno).c_str());
  return false;
}

// The hidden offset file, through which the upload process tracks how far it has read, goes along with its file.
static void roll_over_nonprepared(const tqp_instance_t *inst) {
  const char *name = tqp_metadata_file_name(SQL_TABLE_NONPREP_CSV_IDX);
  const std::string path = wllb_format("%s%s", inst->commoncsvfilepath, name);
  struct stat file = {};
  if (stat(path.c_str(), &file) != 0 || file.st_size < int64_t{tqp_sql_nonprep_rollover_size_mb} * 1048576)
    return;
  FILE *&stream = metadata_csv_fp[SQL_TABLE_NONPREP_CSV_IDX];
  tqp_close_stream(&stream);
  if (rename_file(path, path + ".prev"))
    rename_file(wllb_format("%s.%s.offset", inst->commoncsvfilepath, name),
                wllb_format("%s.%s.prev.offset", inst->commoncsvfilepath, name));
  else
    stream = my_fopen(path.c_str(), "a"); // its rows must outlive the failure, whatever resume_flag says
}

// Formats the row into the instance's buffer, which doubles until the row and a NUL fit.
static std::string_view format_query_row(tqp_instance_t *inst, int64_t fpi, int sql_index, const char *query) {
  char ids[3 * tqp_row_cursor::number_room];
  const char *ids_end =
      tqp_row_cursor{ids}.number(fpi, ',').number(sql_index, ',').number(find_query_type(query), ',').at;
  const std::string_view front(ids, ids_end), text(query);
  wllb_zarray<char> &buf = inst->sql_table_data_buf;
  wllb_zarray_reserve(buf, static_cast<int64_t>(front.size() + text.size() + 2), sql_table_growth);
  const char *end = tqp_row_cursor{buf.data}.text(front).text(text).text("\n").at;
  return {buf.data, end};
}

int csv_dump_sql_table(tqp_instance_t *inst, int64_t fpi, const char *query, int /*query_len*/, int sql_index,
                       int /*force*/, int is_non_prepared) {
  if (!query)
    return 0; // nothing is held back that could be written out
  tqp_check_offline_metadata(inst, TQ_EV_SQL_NON_PREPARED_DISCOVERY, query);
  if (is_non_prepared && tqp_sql_nonprep_rollover_size_mb) {
    wllb_hold hold(metadata_csv_lock[SQL_TABLE_CSV_IDX]);
    roll_over_nonprepared(inst);
  }
  const std::string_view row = format_query_row(inst, fpi, sql_index, query);
  tqp_append_metadata_row(inst, is_non_prepared ? SQL_TABLE_NONPREP_CSV_IDX : SQL_TABLE_CSV_IDX, row);
  if (tqp_extended_metadata)
    write_to_metadata_meta_file(inst, sql_index, METADATA_TYPE_SQL);
  return 0;
}
