// Rows of "TQURLRecord.csv": one for each flowpath with a known URL, with TQP_DUMP_URC.
//   In      a finished segment's URL, times and status; "GenFleet/GenFleet.data" of the test run, if there is one
//   Out     the row, flushed at once
//   Thread  the instance's; the generators' test run numbers are shared, under their mutex
//   Failure a file that cannot be opened is traced; the row is lost

#include "data_files.h"
#include "tqp_run_time_v2.h"

#include <cstring>

// --- load generators ---------------------------------------------------------------------------------------------

constexpr int most_generators = 256;

static wllb_mutex generator_mutex;                                          // this map and key_get_table_map
static int gen_table_map[most_generators] WLLB_GUARDED_BY(generator_mutex); // test run number by norm id; -1: unknown
static bool gen_table_map_filled WLLB_GUARDED_BY(generator_mutex);

static int generator_index(const std::string &id) WLLB_REQUIRES(generator_mutex) {
  int is_new = 0;
  return wllb_get_or_gen_norm_id(&key_get_table_map, id.c_str(), 0, &is_new);
}

// "GENFLEET_GENERATOR_TRUN id|...|...|...|...|...|number"
static void take_generator_line(const std::string &line) WLLB_REQUIRES(generator_mutex) {
  static constexpr std::string_view front = "GENFLEET_GENERATOR_TRUN ";
  if (line.compare(0, front.size(), front) != 0)
    return;
  std::string fields = line.substr(front.size());
  char *field[7];
  if (get_tokens_with_multi_delimiter(fields.data(), field, "|", 7) < 7)
    return;
  const int index = generator_index(field[0]);
  if (index >= 0 && index < most_generators)
    gen_table_map[index] = atoi(field[6]);
}

static void allocate_and_populate_generator_tr_map() WLLB_REQUIRES(generator_mutex) {
  gen_table_map_filled = true;
  for (int &number : gen_table_map)
    number = -1;
  const std::string path = wllb_format("%s/logs/TR%d/GenFleet/GenFleet.data", wl_wdir, testidx);
  const std::string text = wllb_read_small_file(path.c_str());
  for (size_t begin = 0; begin < text.size();) {
    const size_t end = std::min(text.find('\n', begin), text.size());
    take_generator_line(text.substr(begin, end - begin));
    begin = end + 1;
  }
}

// Bits 40 to 57 of a flowpath's number hold the generator's id.
static int generator_test_run(int64_t fpi) {
  wllb_hold hold(generator_mutex);
  if (!gen_table_map_filled)
    allocate_and_populate_generator_tr_map();
  const int index = generator_index(std::to_string(static_cast<uint64_t>(fpi) >> 40 & 0x3FFFF));
  return index >= 0 && index < most_generators ? gen_table_map[index] : -1;
}

// --- the row -----------------------------------------------------------------------------------------------------

static FILE *url_record_file(tqp_instance_t *inst) {
  FILE *&stream = inst->csv_file_pointers[TQ_URLRECORD_FP];
  if (!stream)
    stream = tqp_make_data_file_as((std::string(inst->csvfilepath) + "TQURLRecord.csv").c_str(), "a", true);
  return stream;
}

void write_urlrecord_entry(tqp_instance_t *inst, int64_t self_fpi, int url_norm_id, uint64_t begin_ts, uint64_t end_ts,
                           int status_code) {
  FILE *stream = url_record_file(inst);
  if (!stream) {
    wllb_trace(1, "Error", "Could not write to url record csv file");
    return;
  }
  const std::string row = wllb_format(
      "%d,%d,-1,-1,-1,-1,%d,-1,-1,-1,0,0,-1,%lld,-1,-1,-1,-1,-1,-1,-1,%lld,%d,-1,-1,-1,-1,-1,-1,-1,0,-1,-1,-1,%lld,%lld,-1,%d\n",
      testidx, url_norm_id, inst->jvmid, static_cast<long long>(begin_ts / 1000), static_cast<long long>(end_ts / 1000),
      status_code, static_cast<long long>(self_fpi), static_cast<long long>(end_ts - begin_ts),
      generator_test_run(self_fpi));
  tqp_append_rows(stream, row);
}
