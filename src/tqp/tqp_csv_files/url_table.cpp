// Writes the row of a new URL to "TQURLTable.csv".
//   In      a norm id with norm_id_flag, and the URL's text, which may hold commas
//   Out     one row with the columns that the table of pages has; most of them stand still
//   Thread  any instance's, under the file's lock
//   Failure as all metadata rows; there is no extended row for URLs
// Sample:  1001,1073741829,-1,0,0,0,/shop/a,b,0,'-'

#include "metadata_rows.h"

void tq_process_url_table_data(tqp_instance_t *inst, int norm_id, const char *url) {
  if (!url)
    return;
  tqp_check_offline_metadata(inst, TQ_EV_URL_DISCOVERY, url);
  constexpr std::string_view behind_ids = "-1,0,0,0,", behind_url = ",0,'-'\n";
  const std::string_view text = url;
  std::string row(2 * tqp_row_cursor::number_room + behind_ids.size() + text.size() + behind_url.size(), '\0');
  tqp_row_cursor cursor = {row.data()};
  cursor.number(testidx, ',').number(norm_id, ',').text(behind_ids).text(text).text(behind_url);
  tqp_append_metadata_row(inst, URL_TABLE_CSV_IDX, {row.data(), cursor.at});
}
