// Side records: rows held back and written out, late rows, and the records of exceptions and JMS messages down to their
// rows.

#include "late_files_fixture.h"
#include "one_instance_run.h"

#include "event_table.h"
#include "tqp_process_data.h"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

constexpr int64_t now = 2500;

// --- the writers that hold rows back ----------------------------------------------------------------------------

// One writer: how a row is put into it, and its words. A writer's rows of one time have one length.
struct writer {
  const char *name;
  int slot;
  const char *file;
  int *size;
  bool row_first, saves;
  // Puts a row of a time (s) and gives the row that must come out.
  std::string (*put)(tqp_instance_t *, int64_t time);
  void (*force)(tqp_instance_t *);
  const char *full, *noun, *unwritten; // `noun`: what it calls its rows when they are late
};

std::string put_exception(tqp_instance_t *inst, int64_t time) {
  const std::string stamp = std::to_string(time);
  excp_row row = {};
  row.timestamp = stamp.c_str();
  row.stack_trace = "";
  csv_dump_excp_data(inst, &row, 0);
  return "0,3,4,5," + stamp + ",0,0,0,0,0,0,0,-1,0,0,-1\n";
}

// The fpi carries the time in ms behind 8 bits.
std::string put_custom(tqp_instance_t *inst, int64_t time) {
  const std::string fpi = std::to_string((time * 1000) << 8);
  const custom_data_row row = {
      .fpi_text = fpi.c_str(), .header_id = 12, .text = "text", .kind = 2, .value64 = -7, .value = "v"};
  csv_dump_http_header_req_rsp_info(inst, &row, 0);
  return wllb_format("%ld,%s,12,text,2,-7,v,3,4,5\n", time, fpi.c_str());
}

std::string put_argument(tqp_instance_t *inst, int64_t time) {
  bci_arg_row row = {};
  row.tier = row.seq_num = row.page_id = row.method_id = 1;
  row.timestamp = time;
  csv_dump_bci_arg_data(inst, &row, 0);
  return wllb_format("0,1.1,1,1,3,4,5,0,0,%ld,0,0,0,0\n", time);
}

std::string put_jms(tqp_instance_t *inst, int64_t time) {
  const std::string payload = "Header={=}Properties={=}Text={value}";
  csv_dump_jms_data(inst, 81, time * 1000 + 999, payload.c_str(), payload.size(), 0);
  return wllb_format("81,%ld999,2,1,,value\n", time);
}

// clang-format off
const writer writers[] = {
  {"exceptions", EXCP_DATA_CSV_FP, "TQExceptions.csv", &max_buffered_excp_data_bufsize, true, true, put_exception,
   [](auto *i) { csv_dump_excp_data(i, nullptr, 1); },
   "Exception Data buffer is 80% full", "exception data record", "Could not open excp_data_buf csv file '"},
  {"custom data", HTTP_CAPTURE_HEADER_CSV_FP, "TQCustomData.csv", &max_buffered_http_header_bufsize, true, true, put_custom,
   [](auto *i) { csv_dump_http_header_req_rsp_info(i, nullptr, 1); },
   "Http header buffer is 80% full", "http header data record", "Could not write to http_capture_header csv file"},
  {"arguments", BCIARG_CSV_FP, "TQBCIArg.csv", &max_buffered_bci_arg_bufsize, true, true, put_argument,
   [](auto *i) { csv_dump_bci_arg_data(i, nullptr, 1); },
   "Meta Data buffer is 80% full", "BCIArgs", "Could not write to http_capture_header csv file"},
  {"jms", JMS_CSV_FP, "TQJMS.csv", &max_buffered_jms_bufsize, false, false, put_jms,
   [](auto *i) { csv_dump_jms_data(i, 0, 0, nullptr, 0, 1); },
   "JMS Data buffer is 80% full", "jms", "Could not write to http_capture_header csv file"},
};

// clang-format on

class side_records : public late_files {
protected:
  side_records() {
    g_vex_epoc_diff = 100000; // times below are of the test's epoch
    tqe_seqno_of_bits = 8;
    ts_org_mask = uint64_t{0x3FFFFFFFFFFFFF} << 8;
    wllb_init_norm_id_table(&key_excp_st_id, 64);
    std::filesystem::create_directories(raw_data_dir());
    tqp_make_offset_file(inst);
  }

  ~side_records() override { wllb_obj_hash_destroy(&key_excp_st_id); }

  std::string raw_data_dir() const { return root + "/webapps/logs/TR1001/" + partition + "/tq/raw_data/"; }

  // Whether the offset has been saved since the last question.
  bool saved() {
    const bool due = inst->flag_to_update_offset;
    inst->raw_data_file_offset += 1;
    inst->flag_to_update_offset = 1;
    return !due;
  }

  void run(void (*handler)(tq_event &), int id, const std::string &fields) {
    std::string line = fields + "\n7,next line,1\n";
    tq_event ev = {inst, id, 0, {line.data(), line.data() + fields.size()}};
    handler(ev);
    EXPECT_EQ("7,next line,1\n", line.substr(fields.size() + 1));
  }
};

TEST_F(side_records, four_fifths_are_held_back_and_one_byte_more_is_written) {
  for (const writer &w : writers)
    for (const int more : {0, 1}) {
      SCOPED_TRACE(testing::Message() << w.name << more);
      *w.size = 10000;
      saved();
      const std::string before = current(w.file);
      const int told = traced(w.full);
      std::string rows;
      while (rows.size() < 1600)
        rows += w.put(inst, now);
      const size_t total = rows.size() + rows.find('\n') + 1;
      *w.size = static_cast<int>((total * 5 + 3) / 4) - more; // four fifths: the total, or a byte less
      rows += w.put(inst, now);
      ASSERT_EQ(total, rows.size());
      EXPECT_EQ(before + (more ? rows : ""), current(w.file));
      EXPECT_EQ(told + more, traced(w.full));
      EXPECT_EQ(w.saves && more, saved());
      w.force(inst);
      EXPECT_EQ(before + rows, current(w.file));
      EXPECT_EQ(w.saves && !more, saved()) << "a force with nothing held back does nothing";
      w.force(inst);
      EXPECT_FALSE(saved());
    }
}

TEST_F(side_records, a_row_that_does_not_fit_changes_places_with_the_rows_held_back) {
  for (const writer &w : writers)
    for (const int more : {0, 1}) {
      SCOPED_TRACE(testing::Message() << w.name << more);
      *w.size = 10000;
      const std::string before = current(w.file), held = w.put(inst, now);
      *w.size = static_cast<int>(2 * held.size() + 256) + 1 - more; // a margin of 256 bytes must be left
      const std::string row = w.put(inst, now + 1);
      EXPECT_EQ(before + (more == 0 ? "" : w.row_first ? row + held : held + row), current(w.file));
      w.force(inst);
      EXPECT_EQ((before + held + row).size(), current(w.file).size());
      EXPECT_EQ(0, traced(w.full));
    }
}

TEST_F(side_records, each_row_goes_to_the_partition_of_its_own_time) {
  for (const writer &w : writers) {
    SCOPED_TRACE(w.name);
    const std::string closed = wllb_format("for previous partition, whereas the %s", w.noun);
    const std::string older = wllb_format("for previous to previous partition, ignoring this %s", w.noun);
    const std::string held = w.put(inst, begin);
    w.put(inst, begin - 1);
    w.put(inst, prev_begin - 1);
    EXPECT_EQ(2, traced(closed)) << "without the previous file its age does not matter";
    EXPECT_EQ(0, traced(older));
    open_previous(w.slot);
    const std::string late = w.put(inst, begin - 1);
    EXPECT_EQ(late, previous(w.slot)) << "at once";
    const std::string later = w.put(inst, prev_begin);
    EXPECT_EQ(late + later, previous(w.slot));
    w.put(inst, prev_begin - 1);
    EXPECT_EQ(1, traced(older));
    EXPECT_EQ(2, traced(closed));
    EXPECT_EQ(wllb_format("9,5,tier_server_app/%s\n9,5,tier_server_app/%s\n", w.file, w.file), done());
    w.force(inst);
    EXPECT_EQ(held, current(w.file));
  }
}

TEST_F(side_records, rows_are_lost_without_their_file_and_later_ones_come_with_the_instance_s_state) {
  for (const writer &w : writers) {
    SCOPED_TRACE(w.name);
    const int told = traced(w.unwritten);
    block(data(w.file));
    w.put(inst, now);
    w.force(inst);
    EXPECT_EQ(told + 1, traced(w.unwritten));
    std::filesystem::remove(data(w.file));
    w.force(inst);
    const std::string row = w.put(inst, now);
    csv_dump_all_files(inst);
    EXPECT_EQ(row, current(w.file));
  }
}

// --- rows by hand -----------------------------------------------------------------------------------------------

TEST_F(side_records, an_argument_s_net_time_below_0_prints_as_0) {
  bci_arg_row row = {81, 2, 7, 12, 31, 120, 80, 3, -1, 5, 6, 1999};
  row.timestamp = now;
  for (const int64_t wall : {int64_t{120}, int64_t{-1}, INT64_MIN, INT64_MIN + 1}) {
    row.wall = wall;
    csv_dump_bci_arg_data(inst, &row, 0);
  }
  csv_dump_bci_arg_data(inst, nullptr, 0);
  csv_dump_bci_arg_data(inst, nullptr, 1);
  const std::string back = ",80,2500,3,18446744073709551615,5,6\n", front = "81,2.7,12,31,3,4,5,";
  EXPECT_EQ(front + "120" + back + front + "0" + back + front + "9223372036854775808" + back + front + "0" + back,
            current("TQBCIArg.csv"));
}

TEST_F(side_records, a_custom_value_has_the_time_of_its_flowpath_s_number) {
  const int64_t fpi = int64_t{2500999} << 8 | 0x40000000000000A5;
  const std::string tuple = std::to_string(fpi) + ":1:2:3", text(3000, 'x');
  custom_data_row row = {tuple.c_str(), 12, "amount", 1, -250, "-2,50"};
  csv_dump_http_header_req_rsp_info(inst, &row, 0);
  row.value = text.c_str();
  ts_org_mask = UINT64_MAX;
  tqe_seqno_of_bits = 64 + 1;
  row.fpi_text = "-1";
  csv_dump_http_header_req_rsp_info(inst, &row, 0);
  csv_dump_http_header_req_rsp_info(inst, nullptr, 1);
  EXPECT_EQ(wllb_format("2500,%ld,12,amount,1,-250,-2,50,3,4,5\n9223372036854775,-1,12,amount,1,-250,%s,3,4,5\n", fpi,
                        text.c_str()),
            current("TQCustomData.csv"));
}

TEST_F(side_records, an_execution_goes_to_the_partition_of_its_end) {
  segment_fp_t segment = {};
  segment.bci_urlid = -1;
  tqp_enable_sql_record = 1;
  const auto dump = [&](int64_t begin_ms, double wall, char status) {
    csv_dump_sql_record(inst, &segment, {81, begin_ms, wall, 12, status});
  };
  dump(1999000, 999.99, 'E'); // ends before the partition begins, whose previous file is closed
  EXPECT_EQ(1, traced("previous partition, whereas the sql record csv file pointer is closed"));
  open_previous(SQL_RECORD_TABLE_FP);
  dump(1999000, 999.99, 'E');
  dump(999000, 999.99, 'E');
  EXPECT_EQ(1, traced("previous to previous partition, ignoring this sql record, flowpath_instance = 81"));
  EXPECT_EQ("81,3,4,5,1999,999,12,E,0\n", previous(SQL_RECORD_TABLE_FP));
  EXPECT_EQ("9,5,tier_server_app/TQSQLRecord.csv\n", done());
  dump(1999000, 1000, 'a');
  segment.bci_urlid = 1;
  tqp_store_loc2norm(inst, LOC2NORM_URL, 1, 9 | norm_id_flag);
  dump(INT64_MAX, 1e300, 0);
  EXPECT_EQ("81,3,4,5,1999,1000,12,a,0\n81,3,4,5,9223372036854775,1000000000000000000,12,,1073741833\n",
            current("TQSQLRecord.csv"));
}

// --- exceptions -------------------------------------------------------------------------------------------------

class exceptions : public side_records {
protected:
  // Local id i of each map is norm id 100 * map + i.
  exceptions() {
    const int bits[] = {LOC2NORM_METHOD,   LOC2NORM_EXCP_CLS,   LOC2NORM_EXCP_THR_CLS, LOC2NORM_EXCP_THR_MTD,
                        LOC2NORM_EXCP_MSG, LOC2NORM_EXCP_CAUSE, LOC2NORM_EXCP_ST};
    for (int map = 0; map < static_cast<int>(std::size(bits)); ++map)
      for (int id = 1; id < 10; ++id)
        tqp_store_loc2norm(inst, bits[map], id, 100 * (map + 1) + id);
    for (int id = 2; id <= 8; ++id) // 7 queries, so that 7 is the last id that passes
      tqp_store_sql(inst, id, 800 + id, 1);
  }

  const std::vector<std::string> full = {"81:80:79", "2500", "1", "12", "2", "7", "2", "3", "4", "42", "5", "6", "8"};
  const std::string full_row = "79,3,4,5,2500,202,303,404,42,505,606,708,101,12,2,807\n";

  static std::string joined(const std::vector<std::string> &fields) {
    std::string text;
    for (const std::string &field : fields)
      text += field + ",";
    text.pop_back();
    return text;
  }

  // The rows that a record adds.
  std::string rows_of(int id, const std::string &fields) {
    const size_t before = current("TQExceptions.csv").size();
    run(tq_run_exception, id, fields);
    csv_dump_excp_data(inst, nullptr, 1);
    return current("TQExceptions.csv").substr(before);
  }

  // Record 38 has all the fields, 31 leaves out numbers 3 to 6.
  std::string rows_with(size_t field, const std::string &text, int id = 38) {
    std::vector<std::string> fields = full;
    fields[field] = text;
    if (id == 31)
      fields.erase(fields.begin() + 2, fields.begin() + 6);
    return rows_of(id, joined(fields));
  }
};

TEST_F(exceptions, a_record_cut_anywhere_is_incomplete_or_whole) {
  const std::pair<int, std::string> rows[] = {{38, full_row},
                                              {31, "79,3,4,5,2500,202,303,404,42,505,606,708,-1,0,0,-1\n"}};
  for (const auto &[id, row] : rows) {
    std::vector<std::string> fields = full;
    if (id == 31)
      fields.erase(fields.begin() + 2, fields.begin() + 6);
    const std::string whole = joined(fields);
    EXPECT_EQ(row, rows_of(id, whole));
    for (size_t cut = 0; cut <= whole.size(); ++cut) {
      const uint32_t bad = bad_records(inst);
      const bool has_all = cut > whole.rfind(',');
      EXPECT_EQ(has_all, !rows_of(id, whole.substr(0, cut)).empty()) << id << whole.substr(0, cut);
      EXPECT_EQ(has_all ? bad : bad + 1, bad_records(inst));
    }
    const uint32_t bad = bad_records(inst);
    EXPECT_EQ("", rows_of(id, whole + ","));
    EXPECT_EQ(bad, bad_records(inst)) << "told, not counted";
  }
  EXPECT_EQ(2, traced("More fields than expected."));
}

TEST_F(exceptions, each_field_empty_unknown_or_at_the_edge) {
  const struct {
    std::pair<const char *, const char *>
        empty;           // what the row has there when all is well, and when this field is empty
    int size;            // an id above it is unknown; 0: not an id
    const char *at_size; // as `empty`, with the size for an id
    const char *record;  // that makes such an id known
  } fields[] = {
      {{"79,", "0,"}, 0, "", ""},
      {{full_row.c_str(), ""}, 0, "", ""}, // time 0: an older partition
      {{",101,", ",-1,"}, 16384, ",-1,", "Method Id found for which meta data record 5 "},
      {{",12,", ",0,"}, 0, "", ""},
      {{",2,807", ",0,7"}, 0, "", ""},
      {{",807", ",-1"}, 7, ",807", "Backend subtype found for which meta data record 22 "},
      {{",202,", ",0,"}, 4096, ",0,", "Class Id found for which meta data record 32 "},
      {{",303,", ",0,"}, 4096, ",0,", "Throwing Class Id found for which meta data record 33 "},
      {{",404,", ",0,"}, 4096, ",0,", "Throwing method Id found for which meta data record 34 "},
      {{",42,", ",0,"}, 0, "", ""},
      {{",505,", ",0,"}, 4096, ",0,", "Message Id found for which meta data record 35 "},
      {{",606,", ",0,"}, 4096, ",0,", "Cause Id found for which meta data record 37 "},
      {{",708,", ",0,"}, 4096, ",0,", "Stack Trace Id found for which meta data record 36 "},
  };

  const auto changed = [&](const char *from, const char *to) {
    std::string row = full_row;
    return row.replace(row.find(from), strlen(from), to);
  };
  ASSERT_EQ(full.size(), std::size(fields));
  for (size_t i = 0; i < std::size(fields); ++i) {
    SCOPED_TRACE(i);
    const auto &[was, empty] = fields[i].empty;
    EXPECT_EQ(changed(was, empty), rows_with(i, ""));
    if (fields[i].size == 0)
      continue;
    EXPECT_EQ(changed(was, fields[i].at_size), rows_with(i, std::to_string(fields[i].size)));
    for (const char *id : {"999999", "4294967298", "99999999999999999999"})
      EXPECT_EQ("", rows_with(i, id));
    EXPECT_EQ(3, traced(std::string("; ") + fields[i].record));
    EXPECT_NE("", rows_with(i, "-5"));
  }
  EXPECT_EQ(0U, bad_records(inst));
  EXPECT_EQ("", rows_with(5, "8")) << "known, but above the number of queries";
  EXPECT_EQ(changed(",807", ",-1"), rows_with(5, "1")) << "not known, but below it";
  EXPECT_EQ(changed(",2,807", ",3,999999"), rows_of(38, "79,2500,1,12,3,999999,2,3,4,42,5,6,8"))
      << "a subtype is a query's id with backend type 2 alone";
}

TEST_F(exceptions, flowpath_numbers_times_and_stack_traces_come_in_several_forms) {
  const std::string rest = ",3,4,5,2500,202,303,404,42,505,606,708,-1,0,0,-1\n";
  for (const auto &[text, id] : {std::pair{"7", "7"}, {"5:6:7", "7"}, {"5:6:", "5"}, {":", "0"}, {"5::8", "8"}})
    EXPECT_EQ(id + rest, rows_with(0, text, 31)) << text;
  g_vex_epoc_diff = 2500;
  EXPECT_EQ("79" + rest, rows_with(1, "2500", 31)) << "not above the test's start";
  g_vex_epoc_diff = 3000;
  EXPECT_EQ("79" + rest, rows_with(1, "5500999", 31)) << "ms, absolute";
  g_vex_epoc_diff = INT64_MIN;
  rows_with(1, "9223372036854775807", 31);
  g_vex_epoc_diff = 3000;

  const std::string front = "79,3,4,5,2500,202,303,404,42,505,606,", back = ",-1,0,0,-1\n";
  int is_new;
  wllb_get_or_gen_norm_id(&key_excp_st_id, "-", 0, &is_new); // id 0, as after start
  EXPECT_EQ(front + "1" + back, rows_with(12, "at a.b(c)", 31));
  EXPECT_EQ(front + "2" + back, rows_with(12, "-8", 31)) << "no digit";
  EXPECT_EQ(front + "1" + back, rows_with(12, "at a.b(c)", 31));
  EXPECT_EQ("1,at a.b(c)\n2,-8\n", file_text(common("TQExceptionStackTrace.csv")));
}

TEST_F(exceptions, only_those_of_the_current_partition_are_counted) {
  open_previous(EXCP_DATA_CSV_FP);
  for (const char *time : {"1999", "999", "2000"})
    rows_with(1, time);
  wllb_hold hold(inst->fp_stats_mutex);
  EXPECT_EQ(1U, inst->excp_counts);
}

// --- JMS --------------------------------------------------------------------------------------------------------

struct jms_row {
  int section;
  std::string key, value;
};

std::string text_of(const std::vector<jms_row> &rows) {
  std::string text;
  int index = 0;
  for (const jms_row &row : rows)
    text += wllb_format("81,2500250,%d,%d,", row.section, ++index) + row.key + "," + row.value + "\n";
  return text;
}

class jms : public side_records {
protected:
  std::string rows_of(const std::string &payload) {
    const size_t before = current("TQJMS.csv").size();
    CaptureStderr();
    run(tq_run_jms, TQ_EV_JMS, "81,2500250," + payload);
    notes = GetCapturedStderr();
    csv_dump_jms_data(inst, 0, 0, nullptr, 0, 1);
    return current("TQJMS.csv").substr(before);
  }

  std::string notes; // on standard error, of the last record
};

TEST_F(jms, sections_become_rows_in_the_order_of_their_places) {
  EXPECT_EQ("81,2500250,0,1,id,ID:7\n81,2500250,0,2,type,\n81,2500250,1,3,a b,{x={1}}\n81,2500250,2,4,,hello, {you}\n",
            rows_of("Header={id={ID:7} \ttype={}}Properties={a b={{x={1}}}}Text={hello, {you}}"));
  EXPECT_EQ("", notes);
  EXPECT_EQ(1, traced("More fields than expected.")) << "the comma is told, and stays";
  EXPECT_EQ("81,2500250,2,1,t,3\n81,2500250,0,2,h,1\n81,2500250,1,3,p,2\n",
            rows_of("x Text={t={3}}x Header={h={1}}x Properties={p={2}}"));
}

TEST_F(jms, missing_sections_are_told_on_standard_error) {
  EXPECT_EQ("81,2500250,2,1,,a\n", rows_of("Text={a}"));
  EXPECT_EQ("Header string not found\nProperties string not found\n", notes);
  EXPECT_EQ("81,2500250,0,1,,\n81,2500250,1,2,,\n", rows_of("Header={}Properties={}"));
  EXPECT_EQ("Text string not found\n", notes);
  for (const char *payload : {"", "nothing", ",", "Header=", "text={a}"}) {
    EXPECT_EQ("", rows_of(payload)) << payload;
    EXPECT_EQ("Data not found\n", notes) << payload;
  }
}

TEST_F(jms, damaged_payloads_give_what_their_braces_still_hold) {
  const std::pair<const char *, std::vector<jms_row>> payloads[] = {
      {"Header={id={ID:7", {}},
      {"Header={id={ID:7}", {{0, "id", "ID:7"}}},
      {"Header={id={ID:7 type={}}", {{0, "id", "ID:7 type={}"}}},
      {"Header={id=ID:7} type={v}}", {}}, // the section ends before it has a value
      {"Header={id{ID:7} type={v}}", {{0, "id{ID:7} type", "v"}}},
      {"Header={k=x{v}y z={w}}", {{0, "k", "v"}, {0, "y z", "w"}}},
      {"Header={={v}}", {{0, "", "v"}}},
      {"Header={ \tk = {v}}", {{0, "k ", "v"}}},
      {"Header={k={v}}}Text={x}", {{0, "k", "v"}, {2, "", "x"}}},
      {"Header=Header={k={v}}", {{0, "k", "v"}}},
      {"Header={a={1}Properties={b={2}}", {{0, "a", "1"}, {1, "b", "2"}}},
      {"Text={hello {you}", {}},
      {"Text={a}b}", {{2, "", "a"}}},
      {"Text={{{{{{{{", {}},
      {"Text={}}}}}}}", {{2, "", ""}}},
  };
  for (const auto &[payload, rows] : payloads)
    EXPECT_EQ(text_of(rows), rows_of(payload)) << payload;
}

TEST_F(jms, rows_that_outgrow_the_buffer_follow_the_rows_held_back) {
  max_buffered_jms_bufsize = 4096;
  const std::string held = put_jms(inst, now);
  std::string payload = "Header={", expected;
  for (int i = 1; i <= 600; ++i) { // 3 KB make 15 KB
    payload += "k={}";
    expected += wllb_format("81,2500250,0,%d,k,\n", i);
  }
  EXPECT_EQ(held + expected, rows_of(payload + "}"));
  EXPECT_LT(inst->jms_data_buf.size, 2U * 4096) << "the memory goes with the message";
  EXPECT_EQ(0, traced("buffer is 80% full"));
}

TEST_F(jms, a_payload_as_long_as_what_is_left_writes_out_the_rows_held_back) {
  const std::string held = put_jms(inst, now),
                    payload = "Header={=}Properties={=}Text={value}" + std::string(1000, '.');
  for (const int more : {1, 0}) {
    max_buffered_jms_bufsize = static_cast<int>(inst->jms_data_buf.len + payload.size()) + more;
    EXPECT_EQ("", current("TQJMS.csv"));
    csv_dump_jms_data(inst, 81, now * 1000, payload.c_str(), payload.size(), 0);
  }
  EXPECT_EQ(held + "81,2500000,2,1,,value\n", current("TQJMS.csv"));
}

} // namespace
