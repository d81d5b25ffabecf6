// Sums of methods and queries within a segment: what they add up, in whose partition they land, and what is left behind.

#include "late_files_fixture.h"

#include "tqp_method_timing.h"
#include "tqp_sql_timing.h"

#include <cfloat>
#include <cmath>
#include <random>

namespace {

constexpr int64_t main_fpi = 4611686018427387905;

class timing_sums : public late_files {
protected:
  segment_fp_t segment = {};
  concurrent_flowpath_t fp = {};

  timing_sums() {
    tqp_binary_format_for_method_timing = 0;
    fp.main_fpi = main_fpi;
    tqp_store_loc2norm(inst, LOC2NORM_URL, 7, 77 | norm_id_flag);
    segment.bci_urlid = 7;
    wllb_init_norm_id_table(&key_sql_query, 64);
    create_csv_files(inst, 1);
  }

  ~timing_sums() override {
    tqp_free_method_sums(&segment);
    tqp_free_sql_sums(&segment);
    wllb_obj_hash_destroy(&key_sql_query);
  }

  void called(int32_t method, int64_t self, int64_t time) {
    method_amounts amounts = {};
    amounts.self = self;
    tq_update_mtarray(&segment, method, amounts, time);
  }

  std::string timing_path() const {
    return tqp_binary_format_for_method_timing ? run_dir() + partition + "/tq/dat/tier_server_app_MethodTiming.dat"
                                               : data("TQMethodTiming.csv");
  }

  // The methods in a file of rows or records.
  static std::vector<int64_t> methods_in(const std::string &text) {
    std::vector<int64_t> ids;
    if (tqp_binary_format_for_method_timing)
      for (size_t at = 0; at + sizeof(t_csv_fields) <= text.size(); at += sizeof(t_csv_fields)) {
        memcpy(&ids.emplace_back(), text.data() + at, sizeof(int64_t));
      }
    else
      for (size_t at = 0; at < text.size(); at = text.find('\n', at) + 1)
        ids.push_back(atoll(text.c_str() + at));
    return ids;
  }

  void queried(int32_t local_id, double time, int64_t at_ms) {
    tq_update_sqlarray(&segment, local_id, time, static_cast<uint64_t>(at_ms), 0, 0);
  }
};

// A model of one method's sum that knows nothing of how the sums are kept.
struct method_model {
  int32_t id;
  std::vector<method_amounts> calls;
  std::vector<int64_t> times;
};

std::string wrapped_sum(const method_model &model, int64_t method_amounts::*amount) {
  unsigned __int128 sum = 0;
  for (const method_amounts &call : model.calls)
    sum += static_cast<unsigned __int128>(static_cast<__int128>(call.*amount));
  return std::to_string(static_cast<int64_t>(static_cast<uint64_t>(sum))) + ",";
}

std::string model_row(const method_model &m, int64_t begin_ms) {
  int64_t least = 0, most = 0, start = 0, end = 0;
  for (size_t i = 0; i < m.calls.size(); ++i) {
    const int64_t self = m.calls[i].self, time = m.times[i];
    least = least == 0 ? self : std::min(least, self);
    most = most == 0 ? self : std::max(most, self);
    if (start == 0 || time < start)
      start = std::max(begin_ms, time);
    end = end == 0 ? time : std::max(end, time);
  }
  using a = method_amounts;
  std::string row = wllb_format("%d,3,4,5,", m.id) + wrapped_sum(m, &a::self) + wrapped_sum(m, &a::cpu) +
                    wllb_format("%zu,%ld,%ld,%ld,%ld,", m.calls.size(), least, most, start / 1000, end / 1000) +
                    wrapped_sum(m, &a::wall) + wrapped_sum(m, &a::cpu_self) +
                    wllb_format("%ld,%d,", main_fpi, 77 | norm_id_flag);
  for (const auto amount :
       {&a::wait, &a::sync, &a::io, &a::suspension, &a::wait_self, &a::sync_self, &a::io_self, &a::suspension_self})
    row += wrapped_sum(m, amount);
  row.back() = '\n';
  return row;
}

TEST_F(timing_sums, any_ids_and_amounts_add_up_in_the_order_in_which_methods_were_met) {
  std::mt19937_64 random(7);
  const int32_t odd_ids[] = {0, 1, -1, 255, 256, 257, 16384, INT32_MAX, INT32_MIN};
  const int64_t odd_amounts[] = {0, 1, -1, INT64_MAX, INT64_MIN, 5};
  inst->partition_begintime = INT64_MIN;
  segment.begin_ts = 100;
  std::string expected;
  for (int round = 0; round < 3; ++round) { // the memory serves one flowpath after the other
    std::vector<method_model> models;
    for (int call = 0; call < 3000; ++call) {
      const int32_t id = call % 4 ? static_cast<int32_t>(random() % 400) : odd_ids[random() % std::size(odd_ids)];
      method_amounts amounts;
      for (int64_t *amount = &amounts.wall; amount <= &amounts.suspension_self; ++amount)
        *amount = call % 7 ? static_cast<int64_t>(random() % 1000) : odd_amounts[random() % std::size(odd_amounts)];
      const int64_t time = call % 11 ? static_cast<int64_t>(random() % 300000) : odd_amounts[random() % 5];
      tq_update_mtarray(&segment, id, amounts, time);
      auto model = std::find_if(models.begin(), models.end(), [id](const auto &m) { return m.id == id; });
      if (model == models.end())
        model = models.insert(models.end(), {id, {}, {}});
      model->calls.push_back(amounts);
      model->times.push_back(time);
    }
    for (const method_model &model : models)
      expected += model_row(model, 100000);
    csv_dump_method_timing(inst, &fp, &segment);
    csv_dump_method_timing(inst, &fp, &segment); // nothing is left to write
  }
  EXPECT_EQ(expected, current("TQMethodTiming.csv"));
}

TEST_F(timing_sums, a_record_lies_in_the_file_as_its_reader_expects) {
  tqp_binary_format_for_method_timing = 1;
  tqp_close_stream(&inst->csv_file_pointers[METHOD_TIMING_CSV_FP]);
  inst->tierID = 65539; // 3 in 16 bits
  tq_update_mtarray(&segment, 31,
                    {(int64_t{1} << 32) + 11, (int64_t{1} << 33) + 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, -22},
                    2500999);
  csv_dump_method_timing(inst, &fp, &segment);
  const std::string file = file_text(timing_path());
  std::string record;
  const auto put = [&record](auto... numbers) {
    (record.append(reinterpret_cast<const char *>(&numbers), sizeof numbers), ...);
  };
  put(int64_t{31}, main_fpi, 77 | norm_id_flag, 12, int64_t{13}, 1, 12, 12, 2500, 2500, 11, int64_t{14});
  put(3, 4, int64_t{5}); // tier, server and application: the gaps are zero bytes
  for (const int64_t amount : {15, 17, 19, 21, 16, 18, 20, -22})
    put(amount);
  EXPECT_EQ(record, file);
  EXPECT_EQ("", current("TQMethodTiming.csv"));
}

TEST_F(timing_sums, each_method_goes_to_the_partition_of_its_own_end) {
  using ids = std::vector<int64_t>;
  for (const int binary : {0, 1})
    for (const bool previous_open : {true, false}) {
      SCOPED_TRACE(testing::Message() << binary << previous_open);
      tqp_binary_format_for_method_timing = binary;
      tqp_close_stream(&inst->csv_file_pointers[METHOD_TIMING_CSV_FP]);
      tqp_close_stream(&inst->prev_csv_file_pointers[METHOD_TIMING_CSV_FP]);
      std::filesystem::remove(timing_path());
      if (previous_open)
        open_previous(METHOD_TIMING_CSV_FP);
      const char *const closed_words = "to previous partition, whereas the method timing csv file pointer is closed",
                        *const older_words =
                            "to previous to previous partition, ignoring this method timing data record";
      const int closed = traced(closed_words), older = traced(older_words);
      called(1, 1, begin * 1000);
      called(2, 1, begin * 1000 - 1);
      called(3, 1, prev_begin * 1000 - 1);
      called(4, 1, prev_begin * 1000);
      called(5, 1, begin * 1000 + 5);
      csv_dump_method_timing(inst, &fp, &segment);
      EXPECT_EQ((ids{1, 5}), methods_in(file_text(timing_path())));
      EXPECT_EQ(previous_open ? 0 : 3, traced(closed_words) - closed);
      EXPECT_EQ(previous_open ? 1 : 0, traced(older_words) - older);
      if (previous_open) {
        EXPECT_EQ((ids{2, 4}), methods_in(previous(METHOD_TIMING_CSV_FP)));
        EXPECT_EQ(binary ? "" : "9,5,tier_server_app/TQMethodTiming.csv\n", done());
      }
      EXPECT_EQ(0, segment.mtarray.used);
    }
}

TEST_F(timing_sums, method_sums_wait_for_a_file_that_cannot_be_opened) {
  tqp_close_stream(&inst->csv_file_pointers[METHOD_TIMING_CSV_FP]);
  segment.bci_urlid = -1; // no URL
  block(timing_path());
  called(1, 10, 2000000);
  csv_dump_method_timing(inst, &fp, &segment);
  EXPECT_EQ(1, traced("Could not open to " + timing_path()));
  std::filesystem::remove(timing_path());
  called(1, 10, 2000000);
  csv_dump_method_timing(inst, &fp, &segment);
  EXPECT_EQ("1,3,4,5,20,0,2,10,10,2000,2000,0,0,4611686018427387905,0,0,0,0,0,0,0,0,0\n",
            current("TQMethodTiming.csv"));
}

// --- queries ----------------------------------------------------------------------------------------------------

TEST_F(timing_sums, executions_of_a_query_add_up) {
  tqp_store_sql(inst, 40, 12, 1);
  tq_update_sqlarray(&segment, 40, 3.5, 2001999, 'E', 33);
  tq_update_sqlarray(&segment, 40, 10, 2000000, 'T', 0);
  tq_update_sqlarray(&segment, 41, NAN, 2000000, 0, -4);
  tq_update_sqlarray(&segment, -6, INFINITY, UINT64_MAX, 'E', 0);
  tq_update_sqlarray(&segment, -6, INFINITY, UINT64_MAX, 'E', 0);
  csv_dump_sql_timing(inst, &fp, &segment);
  EXPECT_EQ("12,3,4,5,1073741901,4611686018427387905,13.500000,2,3.500000,10.000000,2000,2001,1,33\n"
            "0,3,4,5,1073741901,4611686018427387905,0.000000,1,0.000000,0.000000,2000,2000,0,-4\n" +
                wllb_format("0,3,4,5,1073741901,4611686018427387905,%lf,2,4294967295.000000,%lf,18446744073709551,"
                            "18446744073709551,2,0\n",
                            DBL_MAX, DBL_MAX),
            current("TQSQLTiming.csv"));
  csv_dump_sql_timing(inst, &fp, &segment);
  csv_dump_sql_timing(inst, &fp, nullptr);
  tq_update_sqlarray(nullptr, 1, 1, 1, 0, 0);
}

TEST_F(timing_sums, times_of_queries_print_as_ever) {
  std::mt19937_64 random(11);
  std::string expected;
  for (int32_t query = 0; query < 300; ++query) { // more than the first memory holds
    const double time = std::ldexp(static_cast<double>(random()), static_cast<int>(random() % 120) - 90);
    queried(query * 4096, time, 2000000);
    expected += wllb_format("0,3,4,5,1073741901,%ld,%lf,1,%lf,%lf,2000,2000,0,0\n", main_fpi, time,
                            std::min(time, 4294967295.0), time);
  }
  csv_dump_sql_timing(inst, &fp, &segment);
  EXPECT_EQ(expected, current("TQSQLTiming.csv"));
}

TEST_F(timing_sums, each_query_goes_to_the_partition_of_its_newest_execution) {
  for (const bool previous_open : {true, false}) {
    SCOPED_TRACE(previous_open);
    tqp_close_stream(&inst->csv_file_pointers[SQL_TIMING_CSV_FP]);
    tqp_close_stream(&inst->prev_csv_file_pointers[SQL_TIMING_CSV_FP]);
    std::filesystem::remove(data("TQSQLTiming.csv"));
    if (previous_open)
      open_previous(SQL_TIMING_CSV_FP);
    const int older = traced("to previous to previous partition, ignoring this sql timing data record");
    for (const int64_t at : {begin * 1000 - 1, prev_begin * 1000 - 1, begin * 1000})
      queried(static_cast<int32_t>(at), 1, at);
    queried(static_cast<int32_t>(begin * 1000), 1, 5); // an older execution does not take it back
    csv_dump_sql_timing(inst, &fp, &segment);
    EXPECT_EQ("0,3,4,5,1073741901,4611686018427387905,2.000000,2,1.000000,1.000000,0,2000,0,0\n",
              current("TQSQLTiming.csv"));
    EXPECT_EQ(older + 1, traced("ignoring this sql timing data record"));
    EXPECT_EQ(!previous_open, traced("to previous partition, whereas the sql timing csv file pointer is closed"));
    EXPECT_EQ("0,3,4,5,1073741901,4611686018427387905,1.000000,1,1.000000,1.000000,1999,1999,0,0\n",
              previous(SQL_TIMING_CSV_FP));
    EXPECT_EQ("9,5,tier_server_app/TQSQLTiming.csv\n", done());
  }
}

TEST_F(timing_sums, a_long_segment_writes_its_queries_once_an_interval) {
  interval_to_dump_sql_timing_data = 120;
  segment.last_sql_data_dumped_ts_sec = 3000;
  const auto text_at = [&](int64_t now) {
    inst->fp_last_updated_ts_in_sec = now;
    clean_segment_sql_timing_array(inst, &fp, &segment);
    return current("TQSQLTiming.csv");
  };
  queried(1, 1, 3000000);
  const std::string first = "0,3,4,5,1073741901,4611686018427387905,1.000000,1,1.000000,1.000000,3000,3000,0,0\n";
  EXPECT_EQ("", text_at(3120)) << "the interval has not been exceeded";
  EXPECT_EQ(first, text_at(3121));
  EXPECT_EQ(3121, segment.last_sql_data_dumped_ts_sec);
  csv_dump_sql_timing(inst, &fp, &segment);
  EXPECT_EQ(first, current("TQSQLTiming.csv")) << "nothing came since";
  queried(1, 4, 3122000);
  EXPECT_EQ(first, text_at(3241));
  EXPECT_EQ(first + "0,3,4,5,1073741901,4611686018427387905,4.000000,1,4.000000,4.000000,3122,3122,0,0\n",
            text_at(3242));
  for (const int64_t hostile : {INT64_MIN, INT64_MAX})
    text_at(hostile);
}

// --- calls ------------------------------------------------------------------------------------------------------

class sql_calls : public timing_sums {
protected:
  sql_call call = {.sql_id = "40",
                   .parameters = "",
                   .flowpath_id = 81,
                   .begin_ts = 2500,
                   .time = 2500250,
                   .duration = 12.75,
                   .found_norm_id = 12,
                   .status = 'E',
                   .backend_norm_id = 33,
                   .backend_type = 2};

  sql_calls() {
    tqp_enable_sql_record = 1;
    tqp_store_sql(inst, 40, 12, 2);
  }

  void run() { process_sql_record_data(inst, &segment, call); }

  // By type of query; the last one counts all.
  static constexpr db_query_stat_data tqp_instance_t::*stats_of[] = {
      &tqp_instance_t::other_query_stats,  &tqp_instance_t::select_query_stats, &tqp_instance_t::insert_query_stats,
      &tqp_instance_t::update_query_stats, &tqp_instance_t::delete_query_stats, &tqp_instance_t::create_query_stats,
      &tqp_instance_t::drop_query_stats,   &tqp_instance_t::total_query_stats};

  const db_query_stat_data &stats(int type) const { return inst->*stats_of[type]; }
};

TEST_F(sql_calls, a_call_leaves_its_row_its_part_in_the_sums_and_its_numbers) {
  run();
  call.duration = 4;
  call.status = 0;
  run();
  EXPECT_EQ("81,3,4,5,2500,12,12,E,1073741901\n81,3,4,5,2500,4,12,,1073741901\n", current("TQSQLRecord.csv"));
  csv_dump_sql_timing(inst, &fp, &segment);
  EXPECT_EQ("12,3,4,5,1073741901,4611686018427387905,16.750000,2,4.000000,12.750000,2500,2500,1,33\n",
            current("TQSQLTiming.csv"));
  EXPECT_EQ(2, segment.dbCallCounts);
  for (int kind = 0; kind < 8; ++kind) {
    const bool counted = kind == 2 || kind == 7;
    EXPECT_EQ(counted ? 2U : 0U, stats(kind).query_counts) << kind;
    EXPECT_EQ(counted ? 16.75 : 0, stats(kind).total_duration) << kind;
    EXPECT_EQ(counted ? 4 : 18446744073709551616.0, stats(kind).min_duration) << kind;
    EXPECT_EQ(counted ? 12.75 : 0, stats(kind).max_duration) << kind;
  }
  tqp_enable_sql_record = tqp_enable_sql_timing = 0;
  run();
  EXPECT_EQ(0, segment.sqlarray.used);
  EXPECT_EQ(3U, stats(2).query_counts);
}

TEST_F(sql_calls, kinds_of_queries_from_7_on_are_other) {
  for (int type = -1; type <= 9; ++type)
    update_sql_stats(inst, type, type == 8 ? NAN : -1);
  for (int kind = 1; kind <= 6; ++kind)
    EXPECT_EQ(1U, stats(kind).query_counts) << kind;
  EXPECT_EQ(5U, stats(0).query_counts);
  EXPECT_EQ(11U, stats(7).query_counts);
  EXPECT_EQ(-10, stats(7).total_duration);
}

TEST_F(sql_calls, each_keyword_switches_its_own_backends) {
  const std::pair<int *, int> gates[] = {
      {&tqp_enable_jdbc_call, 2},       {&tqp_enable_jdbc_call, 10},     {&tqp_enable_casscendra_call, 9},
      {&tqp_enable_mongodb_call, 15},   {&tqp_enable_redix_call, 16},    {&tqp_enable_neo4j_call, 18},
      {&tqp_enable_cloundant_call, 19}, {&tqp_enable_bigtable_call, 20}, {&tqp_enable_bigquery_call, 21},
      {&tqp_enable_ftp_call, 22},       {&tqp_enable_dynamo_call, 25}};
  for (const auto &[on, unused] : gates) {
    for (const auto &[keyword, type] : gates)
      *keyword = keyword == on;
    for (call.backend_type = -1; call.backend_type <= 30; ++call.backend_type) {
      const bool kept = call.backend_type == 5 || std::find(std::begin(gates), std::end(gates),
                                                            std::pair{on, call.backend_type}) != std::end(gates);
      const int before = segment.dbCallCounts;
      run();
      EXPECT_EQ(before + kept, segment.dbCallCounts) << call.backend_type;
    }
  }
}

TEST_F(sql_calls, an_unknown_query_gets_a_placeholder_once) {
  int is_new;
  wllb_get_or_gen_norm_id(&key_sql_query, "Unknown", 0, &is_new); // id 0, as after start
  call.found_norm_id = -1;
  call.backend_type = 99; // not kept, and still the query gets its placeholder
  call.sql_id = "55x";
  run();
  EXPECT_EQ("81,1,0,Query is not available\n", file_text(common("TQSQL.csv")));
  EXPECT_EQ(0, segment.dbCallCounts);
  EXPECT_TRUE(inst->loc2norm_unsaved_flags & 1 << LOC2NORM_SQL);
  call.backend_type = 5;
  for (const char *id : {"55", "56", "0", "-7", "99999999999999999999", "40"}) {
    call.sql_id = id;
    run();
  }
  EXPECT_EQ("81,1,0,Query is not available\n", file_text(common("TQSQL.csv")));
  EXPECT_EQ("81,3,4,5,2500,12,1,E,1073741901\n81,3,4,5,2500,12,1,E,1073741901\n81,3,4,5,2500,12,12,E,1073741901\n",
            current("TQSQLRecord.csv"));
  EXPECT_EQ(6, segment.dbCallCounts) << "an id of 0 or below counts as a call, and no more";
  for (const auto &[id, told] : {std::pair{"55x", 1}, {"55", 0}, {"56", 1}})
    EXPECT_EQ(told, traced(wllb_format("SQL hash/index '%s' for which", id))) << "once, then known by its placeholder";
  int8_t type;
  EXPECT_EQ(1, sql_query_map_read_loc2norm(inst->sql_query_map.data, 56, inst->sql_query_map_size, &type));
  EXPECT_EQ(0, type);
}

} // namespace
