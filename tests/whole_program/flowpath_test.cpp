// Flowpaths from raw data to rows and blobs, through the real program.
// Times in the raw data are seconds since the first partition's begin; the instance is tier 3, server 4, app 5.

#include "test_run.h"

#include "wllb_compression.h"
#include "wllb_util.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

namespace fs = std::filesystem;

class flowpaths : public tqp_test_run {
protected:
  const std::string names =
      identity() + "99,x,FPGVersion:2.0,JAVA\n" + method(1, "a.B.main()V") + method(2, "a.B.sub()V") + "7,5,/shop\n";

  flowpaths() { keywords("TQP_BINARY_FORMAT_FOR_METHOD_TIMING 0\n"); }

  std::vector<std::string> rows(const std::string &partition = "") const {
    return lines_of(data("TQFlowPath.csv", partition));
  }

  static std::vector<std::string> fields(const std::string &row) { return split(row, ','); }

  static std::vector<std::string> split(const std::string &text, char at) {
    const std::vector<std::string_view> pieces = wllb_split(text, at);
    return {pieces.begin(), pieces.end()};
  }

  // What a row's reference "C:1:partition:offset:length" points at.
  std::vector<std::string> segment_lines(const std::string &row) const {
    char partition[32];
    long offset = 0;
    long length = 0;
    if (sscanf(fields(row)[10].c_str(), "C:1:%31[0-9]:%ld:%ld", partition, &offset, &length) != 3)
      return {};
    return split(inflated(partition, offset, length), '|');
  }

  std::string inflated(const std::string &partition, long offset, long length) const {
    const std::string file = read(partition + "/tq/sqb/5");
    std::string text;
    if (offset < 0 || offset + length > static_cast<long>(file.size()) ||
        wllb_decomp_do(file.data() + offset, static_cast<size_t>(length), 1U << 30U, &text) != 0)
      return "unreadable";
    return text;
  }

  int check() {
    const program_end end =
        running_program({std::string(TQP_BINARY_DIR) + "/tqshow", "--dir", directory, "--testrun", "1234", "--check"},
                        directory + "/tqshow")
            .wait();
    EXPECT_EQ(0, end.exit_status) << end.output << end.errors;
    return end.exit_status;
  }
};

// --- one flowpath, every column -----------------------------------------------------------------------------------

TEST_F(flowpaths, a_classic_flowpath_fills_every_column) {
  raw(names + "2,500:400:300:500,100,7,1,5,q=1\xE9,corr-1,11,12,13,thread-1,1,9,r,r,r,100500\n"
              "3,500:400:300:500,1:77_0_0_0_2:77_0_10_0_2:77_1_30_5:4:3:2:1___\n"
              "4,500:400:300:500,200,3,5:4:3:2:1,50,-,1,x,2,0,-,-,1:77_1_50_8:7:6:5:4___\n");
  EXPECT_EQ(0, run().exit_status);
  ASSERT_EQ(1U, rows().size());
  const std::string row = rows()[0];
  const std::string reference = fields(row)[10];
  EXPECT_EQ(
      "500,3,4,5,7,1,3,0,50,-1," + reference +
          ",100,100,13,q=1_,2,200,400,0,1073741825,corr-1,5,0,-1,1,0,0,0,-1,0,11,12,13,thread-1,1,4,3,2,1,9,50,300,"
          "\"{}\",\"{}\",1,0,2,0",
      row);

  // Entries carry their time, exits their end: 10 + 30 = 40.
  const std::string blob = "1:77_0::0_0_2:77_0::0_10_2:77_1_40_5:4:3:2:1_1:77_1_50_8:7:6:5:4";
  const auto list = segment_lines(row);
  ASSERT_EQ(2U, list.size());
  EXPECT_EQ("1       ", list[0]);
  const long compressed = atol(fields(list[1])[9].c_str());
  EXPECT_EQ(
      "500,300,20261122100000,0,0,0," + std::to_string(blob.size()) + ",0,0," + std::to_string(compressed) +
          ",0,7,1,3,50,100,100,13,q=1_,2,200,0,1073741825,corr-1,5,0,1,0,0,0,0,11,12,13,thread-1,1,4,3,2,1,9,1,,,,"
          "100500,100550",
      list[1]);
  EXPECT_EQ(blob, inflated(first_partition, 0, compressed));

  // Self time is the method's less its children's.
  EXPECT_EQ("2,3,4,5,30,5,1,30,30,100,100,30,5,500,1073741825,4,3,2,1,4,3,2,1\n"
            "1,3,4,5,20,8,1,20,20,100,100,50,3,500,1073741825,7,6,5,4,3,3,3,3\n",
            data("TQMethodTiming.csv"));
  EXPECT_EQ(0, check());
}

// --- segments and endings -------------------------------------------------------------------------------------------

static std::string one_method(const std::string &tuple, const std::string &event = "4") {
  const std::string lead = event == "84" ? "84,a,b," : event + ",";
  return lead + tuple + ",200,1,1:0:0:0:0,5,-," + (event == "4" ? "0,x,0,0,-,-," : "0,x,-,-,") +
         "1:77_0_0_0_1:77_1_5_1:0:0:0:0___\n";
}

TEST_F(flowpaths, a_main_segment_waits_for_what_was_announced) {
  // "x7" in segment "1" announces "7.1"; the row comes with the last awaited segment, whichever way round.
  const std::string main_header = "2,500:0:0:500,100,7,1,5,q,c,1,2,3,t,1,1,,,,1\n";
  const std::string announcing = "3,500:0:0:500,1:77_0_0_0_x7_1:77_1_5_1:0:0:0:0___\n";
  const std::string main_end = one_method("500:0:0:500");
  const std::string side = "82,a,501:0:500:500,101,8,7.1,5,q,c,1,2,3,t2,1,1,,,,1\n" + one_method("501:0:500:500", "84");
  raw(names + main_header + announcing + side + main_end);
  EXPECT_EQ(0, run().exit_status);
  const auto side_first = rows();
  raw(names + main_header + announcing + main_end + side);
  EXPECT_EQ(0, run({"-r", "0"}).exit_status);
  const auto main_first = rows();
  ASSERT_EQ(1U, side_first.size());
  ASSERT_EQ(1U, main_first.size());
  // The same sums, whatever came first: three methods, two segments.
  EXPECT_EQ("3", fields(side_first[0])[15]);
  EXPECT_EQ("3", fields(main_first[0])[15]);
  EXPECT_EQ(3U, segment_lines(main_first[0]).size());
  EXPECT_EQ(0, check());

  raw(names + main_header + announcing + main_end); // the side segment never comes: the instance's close ends it
  EXPECT_EQ(0, run({"-r", "0"}).exit_status);
  ASSERT_EQ(1U, rows().size());
  EXPECT_EQ(2U, segment_lines(rows()[0]).size());
  EXPECT_EQ(1, counted("Incomplete Flowpaths Generated"));
}

TEST_F(flowpaths, a_nonsensical_start_is_not_the_earliest) {
  raw(names + "2,500:0:0:500,100,7,1,5,q,c,1,2,3,t,1,1,,,,-5\n" +
      "3,500:0:0:500,1:77_0_0_0_x7_1:77_1_5_1:0:0:0:0___\n" + one_method("500:0:0:500") +
      "82,a,501:0:500:500,101,8,7.1,5,q,c,1,2,3,t2,1,1,,,,101500\n" + one_method("501:0:500:500", "84"));
  EXPECT_EQ(0, run().exit_status);
  ASSERT_EQ(1U, rows().size());
  EXPECT_EQ("5", fields(rows()[0])[8]);
}

TEST_F(flowpaths, an_empty_blob_is_a_blob_and_its_details_are_kept) {
  // The first one's entry breaks off; the second one's blob is over before it begins, whatever follows its empty field.
  const std::string header = ",100,7,1,5,q,c,1,2,3,t,1,1,,,,1\n";
  raw(names + "6,User-Agent,6\n2,500:0:0:500" + header + "12,500:0:0:500,6:<curl>\n" +
      "4,500:0:0:500,200,1:0:0:0:0,5,,,,,,,17_0_120_\n2,600:0:0:600" + header + "3,600:0:0:600,,11,77_0_\n");
  EXPECT_EQ(0, run().exit_status);
  ASSERT_EQ(2U, rows().size());
  const auto line = fields(segment_lines(rows()[0])[1]);
  const long offset = atol(line[4].c_str()), blob = atol(line[9].c_str());
  EXPECT_EQ("", inflated(first_partition, offset, blob));
  EXPECT_EQ("0:User-Agent=curl", inflated(first_partition, offset + blob, atol(line[10].c_str())));
  EXPECT_EQ(0, occurrences(trace(), "Found extra comma"));
  EXPECT_EQ(0, check());
}

// While it waits for a side segment, a main segment with more than 32 KiB of blob gives it up, and the signature's source
// with it. Memory counts by steps of 1024 bytes: 600 methods have less than 24 of them.
TEST_F(flowpaths, a_large_segment_that_waits_loses_its_signature) {
  keywords("TQP_GENERATE_FP_SIGNATURES 1\n");
  for (const int count : {600, 1225}) {
    std::string methods;
    for (int i = 0; i < count; ++i)
      methods += wllb_format("1_1:%d:%d_1_0:5_0_1:1:1:1:1_0|", 2 * i, 2 * i + 1);
    raw(identity() + method(1, "a.b.C.m()V") +
        "2,5:1:0:5,10,1,1.1,0,,,1,1,1,t,1\n82,x,4:1:5:5,10,1,1.7.1,0,,,1,1,1,t,1\n" + "44,x,5:1:0:5,200,3," + methods +
        "\n");
    EXPECT_EQ(0, run({"-r", "0"}).exit_status);
    ASSERT_EQ(1U, rows().size());
    EXPECT_EQ(count == 600 ? "1" : "0", fields(rows()[0])[7]) << count;
  }
}

// With memory kept, sums of a flowpath dropped unwritten go out with the next segment in its place, which is the first one
// given back of all that were dropped.
TEST_F(flowpaths, a_new_agent_drops_what_is_in_flight_in_order) {
  keywords("TQP_BINARY_FORMAT_FOR_METHOD_TIMING 0\nTQP_FREE_FP_MEM_ON_COMPLETION 0\n");
  const auto header = [](int fpi) { return wllb_format("2,%d:5:0:0,1010,7,1.1,5,q,,1,2,3,thr\n", fpi); };
  std::string lines = names + header(5) + header(6) + header(7) + "3,5:5:0:0,1_0_10_0_1_1_30_0___\n11,x,999\n";
  for (int fpi = 100; fpi < 108; ++fpi)
    lines += header(fpi);
  raw(lines);
  EXPECT_EQ(0, run().exit_status);
  const auto timing = lines_of(data("TQMethodTiming.csv"));
  ASSERT_EQ(1U, timing.size());
  EXPECT_EQ("105", fields(timing[0])[13]) << "five new places, then the first old one";
}

TEST_F(flowpaths, a_closing_record_that_breaks_off_leaves_no_status) {
  const std::string header = ",100,7,1,5,q,c,1,2,3,t,1,1,,,,1\n";
  raw(names + "2,500:0:0:500" + header + one_method("500:0:0:500") + "2,600:0:0:600" + header +
      "3,600:0:0:600,1:77_0_0_0_\n4,600:0:0:600,200\n4,600:0:0:600,0,12\n");
  EXPECT_EQ(0, run().exit_status);
  ASSERT_EQ(2U, rows().size());
  EXPECT_EQ("0", fields(rows()[1])[16]);
  EXPECT_EQ("0", fields(rows()[1])[6]);
}

TEST_F(flowpaths, a_segment_without_a_number_is_none_of_those_with_one) {
  raw(names + "2,700:7:0:700,100\n82,,702:7:700:700,105,2,0,0,q,c,1,2,3,thr,1,7,r,,9,5\n");
  EXPECT_EQ(0, run().exit_status);
  EXPECT_EQ(0U, rows().size());
  EXPECT_EQ("", read(first_partition + "/tq/sqb/5"));
}

TEST_F(flowpaths, what_is_open_at_the_end_is_closed_and_marked) {
  raw(names + "2,500:0:0:500,100,7,1,5,q,c,1,2,3,t,1,1,,,,1\n3,500:0:0:500,1:77_0_0_0_2:77_0_10_0_\n"
              "2,600:0:0:600,100,7,1,5,q,c,1,2,3,t,1,1,,,,1\n");
  EXPECT_EQ(0, run().exit_status);
  ASSERT_EQ(2U, rows().size());
  EXPECT_EQ("513", fields(rows()[0])[34]); // 1 and the flag 0x200: methods were open
  EXPECT_EQ("1", fields(rows()[1])[34]);
  const auto list = segment_lines(rows()[0]);
  ASSERT_EQ(2U, list.size());
  EXPECT_EQ("1:77_0::0_0_2:77_0::0_10_2:77_1_10_0:0:0:0:0_1:77_1_10_0:0:0:0:0",
            inflated(first_partition, 0, atol(fields(list[1])[9].c_str())));
  EXPECT_EQ(2, counted("Incomplete Flowpaths Generated"));
  EXPECT_EQ(1, counted("FPGMode2 - Bad flowpaths count where complete record (4) not received"));
}

TEST_F(flowpaths, records_without_header_and_second_headers_change_nothing) {
  const std::string header = "2,500:0:0:500,100,7,1,5,q,c,1,2,3,t,1,1,,,,1\n";
  raw(names + one_method("500:0:0:500") + header + one_method("600:0:0:600") +
      "2,500:0:0:500,999,9,2,5,other,c,1,2,3,t,1,1,,,,1\n" + one_method("500:0:0:500") + one_method("500:0:0:500"));
  EXPECT_EQ(0, run().exit_status);
  ASSERT_EQ(1U, rows().size());
  EXPECT_EQ("q", fields(rows()[0])[14]);
  EXPECT_EQ(2, counted("FPGMode2 - Bad flowpaths count where header record (2) not received")); // the first: no table
  EXPECT_EQ(1, occurrences(trace(), "main_fpi=500; self_fpi=500Found 4 record, and 2 record not found."));
  EXPECT_EQ(1, occurrences(trace(), "but the segment fp entry already exists segment array"));
}

TEST_F(flowpaths, a_new_connection_ends_what_is_in_flight) {
  raw(names + "2,500:0:0:500,100,7,1,5,q,c,1,2,3,t,1,1,,,,1\n99,x,FPGVersion:2.0,JAVA\n" + one_method("500:0:0:500"));
  EXPECT_EQ(0, run().exit_status);
  EXPECT_EQ(1U, rows().size());
  EXPECT_EQ(1, counted("Incomplete Flowpaths Generated"));
  EXPECT_EQ(1, counted("FPGMode2 - Bad flowpaths count where header record (2) not received"));
}

TEST_F(flowpaths, a_record_limit_truncates) {
  keywords("TQP_MAX_ENTRY_EXIT_RECORDS_IN_AN_FP_EX2 2\nTQP_TRACE_LEVEL 3\n");
  raw(names +
      "2,500:0:0:500,100,7,1,5,q,c,1,2,3,t,1,1,,,,1\n3,500:0:0:500,1:77_0_0_0_1:77_1_1_0___1:77_0_2_0_1:77_1_3_0___\n" +
      one_method("500:0:0:500"));
  EXPECT_EQ(0, run().exit_status);
  ASSERT_EQ(1U, rows().size()); // ended at the third method record; what follows finds no header
  EXPECT_EQ(1,
            occurrences(trace(), "Truncating flowpath (FPI = 500) because entry/exit methods count exceeded limit 2"));
  EXPECT_EQ(1, counted("FPGMode2 - Bad flowpaths count where header record (2) not received"));
}

// --- real mixes --------------------------------------------------------------------------------------------------------

class sample_runs : public flowpaths {
protected:
  void sample(const std::vector<std::string> &options) {
    fs::remove_all(directory + "/logs");
    std::vector<std::string> argv = {std::string(TQP_BINARY_DIR) + "/tq_sample", "--dir", directory, "--testrun",
                                     "1234"};
    argv.insert(argv.end(), options.begin(), options.end());
    const program_end end = running_program(argv, directory + "/tq_sample").wait();
    ASSERT_EQ(0, end.exit_status) << end.errors;
    partitions.clear();
    for (const auto &entry : fs::directory_iterator(path("")))
      if (entry.path().filename().string().size() == 14)
        partitions.push_back(entry.path().filename());
    std::sort(partitions.begin(), partitions.end());
  }

  // Every file that the instances' data went to, with its bytes.
  std::string everything() const {
    std::vector<std::string> files;
    for (const auto &entry : fs::recursive_directory_iterator(path(""))) {
      const std::string name = entry.path();
      const bool wanted = name.find("/tq/csv/") != std::string::npos || name.find("/tq/sqb/") != std::string::npos ||
                          name.find("/tq/dat/") != std::string::npos;
      if (entry.is_regular_file() && wanted)
        files.push_back(name.substr(path("").size()));
    }
    std::sort(files.begin(), files.end());
    std::string all;
    for (const std::string &file : files)
      all += file + "\n" + read(file) + "\n";
    return all;
  }
};

TEST_F(sample_runs, every_record_is_good_and_every_reference_holds_in_every_version_and_form) {
  const struct {
    const char *keywords, *options;
    int expected;
  } runs[] = {
      {"TQP_SEQ_BLOB_IN_FILE_FLAG 1 A", "--flowpaths 120", 480},
      {"TQP_SEQ_BLOB_IN_FILE_FLAG 1 B;TQP_GENERATE_FP_SIGNATURES 1",
       "--form exit --flowpaths 60 --flowpath-methods 900 --in-flight 30 --seed 5", 240},
      {"TQP_SEQ_BLOB_IN_FILE_FLAG 1 C", "--form classic --flowpaths 60 --flowpath-methods 900 --in-flight 30", 240},
      {"TQP_BINARY_FORMAT_FOR_METHOD_TIMING 0;TQP_FREE_FP_MEM_ON_COMPLETION 0;TQP_ENABLE_SQL_RECORD 1",
       "--instances 7 --partitions 3 --flowpaths 90 --flowpath-methods 1 --in-flight 1 --seed 2", 630},
  };

  for (const auto &[keys, options, expected] : runs) {
    SCOPED_TRACE(keys);
    std::vector<std::string> words = wllb_words(options, 20);
    words.insert(words.end(), {"--keywords", keys});
    sample(words);
    const program_end end = run();
    EXPECT_EQ(0, end.exit_status) << end.errors;
    EXPECT_EQ(0, check());
    for (const std::string &partition : partitions) {
      EXPECT_EQ(0, occurrences(trace(partition), "Error in Raw Data"));
      EXPECT_EQ(0, counted("Incomplete Flowpaths Generated", partition));
    }
    int found = 0;
    for (const auto &entry : fs::recursive_directory_iterator(path("")))
      if (entry.path().filename() == "TQFlowPath.csv")
        found += static_cast<int>(lines_of(read(entry.path().string().substr(path("").size()))).size());
    EXPECT_EQ(expected, found) << "every flowpath has its row";
  }
}

TEST_F(sample_runs, a_tailed_file_gives_the_same_bytes_as_a_finished_one) {
  sample(
      {"--flowpaths", "60", "--partitions", "1", "--instances", "1", "--keywords", "TQP_NEW_RAW_DATA_POLL_INTERVAL 1"});
  EXPECT_EQ(0, run({"-r", "0"}).exit_status);
  const std::string whole = everything();
  std::string file;
  for (const auto &entry : fs::recursive_directory_iterator(path("")))
    if (entry.path().extension() == ".txt" && entry.path().parent_path().filename() == "raw_data")
      file = entry.path();
  const std::string below = file.substr(path("").size());
  const std::string records = read(below);
  fs::resize_file(file, 0);
  const std::string name = fs::path(file).stem();
  fs::remove(path(partitions.back() + "/tq/raw_data/." + name + ".txt.offset")); // the first run's would end the wait
  const auto tqp = start({"-r", "0"});
  const int fd = open(file.c_str(), O_WRONLY | O_APPEND);
  unsigned seed = 7;
  for (size_t at = 0; at < records.size();) { // cuts anywhere, at the speed of the reader's polls
    seed = seed * 1103515245 + 12345;
    const size_t piece = std::min<size_t>(records.size() - at, 1 + (seed >> 16) % 6000);
    ASSERT_EQ(static_cast<ssize_t>(piece), write(fd, records.data() + at, piece));
    at += piece;
    usleep(700);
  }
  close(fd);
  EXPECT_TRUE(eventually([&] { return saved_offset(name) == static_cast<long>(records.size()); }));
  tqp->signal(SIGTERM);
  EXPECT_EQ(0, tqp->wait().exit_status);
  const std::string tailed = everything();
  const auto differs = std::mismatch(whole.begin(), whole.end(), tailed.begin(), tailed.end());
  EXPECT_TRUE(whole == tailed) << "they differ here: "
                               << whole.substr(static_cast<size_t>(differs.first - whole.begin()), 300)
                               << "\nand: " << tailed.substr(static_cast<size_t>(differs.second - tailed.begin()), 300);
}
