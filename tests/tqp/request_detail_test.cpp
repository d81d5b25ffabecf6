// Captured request detail from its records to the segment's text, the custom data rows and the sequence blob file.

#include "one_instance_run.h"
#include "test_run.h"

#include "detail_segment.h"
#include "flowpath_files.h"
#include "flowpath_release.h"
#include "tqp_async_handling.h"
#include "tqp_csv_files.h"

#include "wllb_compression.h"

#include <filesystem>

namespace fs = std::filesystem;

namespace {

const std::string T = "81:81:0:81";

// Headers 5 accept, 6 amount, 7 curl have the norm ids 0, 1, 2; method 17 has 1. Header 8 is never told.
class request_detail : public testing::Test {
protected:
  tqp_instance_t *inst = open_one_instance_run();

  request_detail() {
    trkey = wllb_init_mt_trace_log_ex(base_dir.c_str(), 20261122100000, "tq/logs/trace.log", 1, 1);
    wllb_trace_partition = 20261122100000;
    run("0,Tier,Server,App,3,4,5\n99,x,FPGVersion:2.0,JAVA\n6,accept,5\n6,amount,6\n6,curl,7\n5,a.B.c()V,17\n");
  }

  ~request_detail() override {
    close_one_instance_run(inst);
    wllb_clean_mt_trace_log(trkey);
    trkey = nullptr;
  }

  void run(const std::string &text) const { run_block(inst, text); }

  segment_fp_t *segment() const { return tqp_segment_of_detail(inst, {81, 81}).segment; }

  // The text that lines leave on flowpath 81, which is gone afterwards.
  std::string detail_of(const std::string &lines) const {
    run(lines);
    const segment_place place = tqp_segment_of_detail(inst, {81, 81});
    if (!place.segment)
      return "none";
    const std::string text(wllb_text_view(place.segment->req_detail_buf));
    tqp_clean_flowpath(inst, place.slot);
    return text;
  }

  std::string data(const std::string &name) const { return wllb_read_small_file((inst->csvfilepath + name).c_str()); }

  static std::string below_partition(const std::string &name) { return base_dir + "20261122100000/" + name; }

  static int traced(const std::string &words) {
    return occurrences(wllb_read_small_file(below_partition("tq/logs/trace.log").c_str()), words);
  }

  // Of a "partition:offset:length".
  std::string stored(const std::string &reference) const {
    sqb_fwrite(inst, nullptr, 0, true, false);
    const std::string file = wllb_read_small_file(below_partition("tq/sqb/5").c_str());
    size_t offset = 0, length = 0;
    std::string text;
    const int parts = sscanf(reference.c_str(), "20261122100000:%zu:%zu", &offset, &length);
    const std::string member = parts == 2 && offset < file.size() ? file.substr(offset, length) : "";
    return wllb_decomp_do(member.data(), member.size(), 1U << 30U, &text) == 0 ? text : "unreadable " + reference;
  }

  static std::vector<std::string> split(const std::string &text, char at) {
    const std::vector<std::string_view> pieces = wllb_split(text, at);
    return {pieces.begin(), pieces.end()};
  }
};

TEST_F(request_detail, items_become_names_and_values_in_sections) {
  const std::pair<std::string, std::string> rows[] = {
      {"12," + T + ",5:<a:b>|6:7\n", "0:accept=a:b|amount=curl"},
      {"13," + T + ",404,5:7\n", "1:accept=curl"},
      {"17," + T + ",5:1,<250>|6:2:<x>\n", "2:accept=250|amount=x"},
      {"18," + T + ",7:<>\n", "3:curl="},
      {"18," + T + ",8:8|-3:-4\n", "3:ArgumentName=ArgumentValue|ArgumentName=ArgumentValue"},
      {"19," + T + ",0:6:1,<25>|1:17:arg0:5:String:<A:7>|2:99:x:5:y:7\n",
       "4:amount=25|1:arg0:String:accept=A:7|0:x:y:accept=curl"},
      {"19," + T + ",junk|0:6:1:<2>\n", "4:amount=2"}, // a section begins with the first good one
      {"12," + T + ",junk|6:7|x|5:7\n", "|amount=curl|accept=curl"},
      {"12," + T + ",5:7\n13," + T + ",200,5:7\n12," + T + ",6:7\n19," + T + ",0:5:1,<1>\n19," + T + ",0:5:1,<2>\n",
       "0:accept=curl&1:accept=curl&0:amount=curl&4:accept=1&4:accept=2"},
      {"12,81,5:7\n", "0:accept=curl"},
  };
  for (const auto &[lines, text] : rows)
    EXPECT_EQ(text, detail_of(lines)) << lines;
  EXPECT_EQ(0U, bad_records(inst));
}

TEST_F(request_detail, custom_values_get_rows_with_a_number) {
  run("17," + T + ",5:1,<250>|6:1:<-7x>|6:2,<2.5>|6:2,<1e300>|6:2,<-1e300>|6:2,<nan>|6:3,<0>|6:x,7\n");
  run("19," + T + ",0:5:2,<0.0015>|1:17:a:5:b:<5>\n12," + T + ",5:<9>\n");
  std::string expected;
  for (const char *row : {"0,accept,1,250,250", "1,amount,1,-7,-7x", "1,amount,2,2500,2.5",
                          "1,amount,2,9223372036854775807,1e300", "1,amount,2,-9223372036854775808,-1e300",
                          "1,amount,2,0,nan", "1,amount,3,0,0", "1,amount,72,0,curl", "0,accept,2,2,0.0015"})
    expected += std::string("0,81,") + row + ",3,4,5\n";
  csv_dump_http_header_req_rsp_info(inst, nullptr, 1);
  EXPECT_EQ(expected, data("TQCustomData.csv"));
}

TEST_F(request_detail, no_more_than_1024_items_are_taken) {
  std::string items = "5:7", args = "0:5:1,7", text = "accept=curl", expected = text;
  for (int i = 1; i < 1030; ++i) {
    items += "|5:7";
    args += "|0:5:1,7";
    if (i < 1024)
      expected += "|" + text;
  }
  EXPECT_EQ("0:" + expected, detail_of("12," + T + "," + items + "\n"));
  EXPECT_EQ("4:" + expected, detail_of("19," + T + "," + args + "\n"));
  run("12," + T + ",5:<" + std::string(1013, 'x') + ">\n"); // 1022 bytes
  EXPECT_EQ(1024U, segment()->req_detail_buf.size);
  run("18," + T + ",5:<" + std::string(2000, 'x') + ">\n");
  EXPECT_EQ(1024U + 2048U, segment()->req_detail_buf.size);
}

TEST_F(request_detail, bad_records_cost_no_more_than_themselves) {
  const std::string request = "Current http request or response capture record ";
  const std::string args = "Current custom data or method args record ", arg = "Current mthod arg";
  const std::string none = "non existing FlowPath Instance main_fpi = ", odd = "is malformed.";
  const std::string count = "Does not have expected number of fields. It has ";

  const struct {
    std::string line, words;
    const char *text = "";
    uint32_t counted = 0;
  } rows[] = {
      // clang-format off
      {"12,", request + count + "1 fields, expected 2 fields.", "none"},
      {"12," + T + ",5:7,6:7", request + count + "3 fields, expected 2 fields.", "none"},
      {"13," + T + ",5:7", request + count + "2 fields, expected 3 fields.", "none"},
      {"17," + T, request + count + "1 fields, expected 3 fields.", "none"},
      {"18," + T + ",5:7,", request + count + "3 fields, expected 3 fields.", "none"},
      {"18,a,b,c,d,e,f", request + count + "5 fields, expected 3 fields.", "none"},
      {"19," + T, args + count + "1 fields, expected 2 fields.", "none"},
      {"12," + T + ",57", request + odd}, {"12," + T + ",5:<curl", request + odd, "0:accept=curl"},
      {"17," + T + ",5:", request + odd}, {"17," + T + ",5:1", request + odd},
      {"12," + T + ",999999999:7", "(6) missingfor HEADER ID 999999999"},
      {"12," + T + ",999999999:999999998", "(6) missingfor HEADER VALUE ID 999999998"},
      {"19," + T + ",0:5:1,999999999", "(6) missingfor HEADER VALUE ID 999999999"},
      {"19," + T + ",", args + odd}, {"19," + T + ",3:5:1,<2>", args + odd},
      {"19," + T + ",0:5", args + odd}, {"19," + T + ",0:5:1", args + odd},
      {"19," + T + ",0:-5:1,7", args + odd}, {"19," + T + ",0:5:1,-7", args + odd},
      {"19," + T + ",0:5:1,<2", args + odd, "4:accept=2"},
      {"19," + T + ",1:17:a:5:b", arg + "s capture record " + odd},
      {"19," + T + ",1:-17:a:5:b:7", arg + " capture record " + odd},
      {"12,0:1:2:0,5:7", none + "0; self_fpi = 0.", "none"},
      {"12," + T + ",5:7\n18,82:81:81:81,5:7", none + "81; self_fpi = 82.", "0:accept=curl"},
      {"20," + T + ",3,4711,", "Found incomplete record, skipping.", "", 1},
      {"20," + T + ",3,-1,17,1,1", "Found incomplete record, skipping.", "", 1},
      {"45," + T + ",1,0,25,2,text", "Critical|Error in Raw Data, App Instance: Tier_Server_App, ", "none", 1},
      {"46,82:81:81:81,1,0,25,2,t,b\n12," + T + ",5:7", none + "81; self_fpi = 81.", "none"},
      // clang-format on
  };

  for (const auto &[line, words, text, counted] : rows) {
    SCOPED_TRACE(line);
    const uint32_t bad = bad_records(inst);
    const int told = traced(words);
    EXPECT_EQ(text, detail_of(line + "\n"));
    EXPECT_EQ(told + 1, traced(words));
    EXPECT_EQ(bad + counted, bad_records(inst));
  }
}

TEST_F(request_detail, what_came_before_the_header_goes_out_with_the_flowpath) {
  const std::string U = "81:80:79:81";
  tqp_allow_req_detail_before_sqb_begin_rec = 0;
  EXPECT_EQ("none", detail_of("12," + U + ",5:7\n"));
  EXPECT_EQ(1, traced("non existing FlowPath Instance main_fpi = 81; self_fpi = 81."));
  tqp_allow_req_detail_before_sqb_begin_rec = 1;
  run("12," + U + ",5:7\n20," + U + ",3,4711,17,12,1,0,2,1,0|6,open||junk|999999999,x,y\n46," + U +
      ",1,-2,25,3,text/plain,first,\n20," + U + ",3,4711,99\n");
  ASSERT_TRUE(segment());
  EXPECT_EQ(0, segment()->flowpath_header_record_received);
  EXPECT_EQ(79, inst->con_fp_buf.data[0].parent_fpi);
  run("2," + U + ",100,7,1,5\n3," + U + ",17:77_0_0_0_\n13," + U + ",404,6:<9>\n45," + U + ",1,2,3,4,,\n46," + U +
      ",5,6,7,8,t,second|half\n");
  EXPECT_EQ(404, segment()->status_code);
  run("4," + U + ",200,3,5:4:3:2:1,50,-,1,x,2,0,-,-,17:77_1_50_8:7:6:5:4___\n");
  ASSERT_FALSE(segment());

  const std::vector<std::string> row = split(data("TQFlowPath.csv"), ',');
  ASSERT_EQ(48U, row.size());
  EXPECT_EQ("200", row[16]) << "the closing record's status is the last word";
  EXPECT_EQ("1", row[45]);
  const std::vector<std::string> line = split(stored(row[10].substr(4)), ',');
  ASSERT_EQ(47U, line.size());
  const std::string detail = "0:accept=curl&1:amount=9";
  EXPECT_EQ(std::to_string(detail.size()), line[7]);
  const size_t at = std::stoul(line[4]) + std::stoul(line[8]) + std::stoul(line[9]);
  EXPECT_EQ(detail, stored("20261122100000:" + std::to_string(at) + ":" + line[10]));
  const std::vector<std::string> logged = split(line[42], '@'), responses = split(line[44], '@');
  ASSERT_TRUE(logged.size() == 2 && responses.size() == 2);
  EXPECT_EQ("20,3,4711,1,12,1,0,2,1,0|1,open||0,x,y", stored(logged[0]));
  EXPECT_EQ("20,3,4711,0,-1,-1,-1,-1,-1,-1|", stored(logged[1]));
  EXPECT_EQ("45,1,2,3,4,,", stored(line[43]));
  EXPECT_EQ("46,1,-2,25,3,text/plain,first", stored(responses[0]));
  EXPECT_EQ("46,5,6,7,8,t,second|half", stored(responses[1]));
}

TEST_F(request_detail, a_value_that_finds_no_file_has_no_place_in_a_later_one) {
  const std::string file = below_partition("tq/sqb/5"), logged = "20," + T + ",3,4711,17,1\n";
  resume_flag = 1;
  fs::create_directories(file); // no file can be opened there
  run(logged);
  ASSERT_TRUE(segment());
  EXPECT_EQ("", wllb_text_view(segment()->dynamic_data_buf));
  fs::remove(file);
  const wllb_file earlier(fopen(file.c_str(), "w"));
  fputs("blobs of the run before", earlier.get());
  fflush(earlier.get());
  run(logged);
  EXPECT_EQ("20,3,4711,1,1,-1,-1,-1,-1,-1|", stored(std::string(wllb_text_view(segment()->dynamic_data_buf))));
}

// --- bodies ---------------------------------------------------------------------------------------------------------

TEST_F(request_detail, a_body_reaches_its_file_whole_wherever_blocks_end) {
  const std::string announced = "15," + T + ",22\n", body = "a,\n\n12,x\n{\"id\":1}\n\n,zz",
                    text = announced + body + "\n26,r,1\n",
                    path = below_partition("tq/logs/http_resp_body_Tier_Server_App_" + T + ".dat");
  ASSERT_EQ(22U, body.size());
  for (size_t cut = announced.size(); cut <= announced.size() + body.size(); ++cut)
    for (size_t second = cut; second <= announced.size() + body.size(); second += 3) {
      SCOPED_TRACE(testing::Message() << cut << " " << second);
      fs::remove(path);
      const int64_t before = inst->sum_rep_counters[SUM_REP_CNT_TQ_EV_RESOURCE_DISCOVERY];
      run(text.substr(0, cut));
      EXPECT_EQ(text.size() - 7 - cut, static_cast<size_t>(inst->httpbody_remaining_bytes));
      run(text.substr(cut, second - cut));
      run(text.substr(second));
      EXPECT_EQ(body, wllb_read_small_file(path.c_str()));
      EXPECT_EQ(0, inst->httpbody_remaining_bytes);
      EXPECT_EQ(before + 1, inst->sum_rep_counters[SUM_REP_CNT_TQ_EV_RESOURCE_DISCOVERY]);
    }
}

TEST_F(request_detail, bodies_have_harmless_names_and_bounded_sizes) {
  const std::string longest(64, 'x');

  const struct {
    std::string fields;
    int remaining;
    std::string name = ""; // of the file; "": none
  } rows[] = {
      // clang-format off
      {"81:a_B.-,5", 6, "81:a_B.-"}, {"..,5", 6, ".."}, {"a/b,5", 6}, {"../x,5", 6}, {longest + ",5", 6, longest},
      {longest + "x,5", 6}, {"81,5,more", 6, "81"}, {"81,0", 1, "81"}, {"81,x", 1, "81"}, {"81,", 0}, {"81", 0},
      {"81,-1", 0}, {"81,1073741824", 1073741825, "81"}, {"81,1073741825", 0}, {"81,99999999999999999999", 0},
      // clang-format on
  };

  for (const int disabled : {0, 1})
    for (const auto &[fields, remaining, name] : rows) {
      SCOPED_TRACE(fields);
      disable_dumping_captured_http_body = disabled;
      run("14," + fields + "\n");
      EXPECT_EQ(remaining, inst->httpbody_remaining_bytes);
      run("hello\n");
      inst->httpbody_remaining_bytes = 0;
      std::vector<std::string> made, expected;
      for (const auto &entry : fs::directory_iterator(below_partition("tq/logs")))
        if (const std::string file = entry.path().filename(); file != "trace.log") {
          made.push_back(file);
          const char *text = remaining == 1 ? "" : remaining == 6 ? "hello" : "hello\n";
          EXPECT_EQ(text, wllb_read_small_file(entry.path().c_str()));
          fs::remove(entry.path());
        }
      if (!name.empty() && !disabled)
        expected = {"http_req_body_Tier_Server_App_" + name + ".dat"};
      EXPECT_EQ(expected, made);
    }
  EXPECT_EQ(0, traced("Could not open file"));
  EXPECT_EQ(6, traced("is refused"));
}

} // namespace
