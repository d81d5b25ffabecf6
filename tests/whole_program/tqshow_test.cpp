// tqshow: prints what stands in the files, finds no fault in good ones and each fault in damaged ones.
//   In      the program beside this one; a test run made by hand, its blobs, rows and lists written out below
//   Out     test runs in a directory of their own
//   Failure a fault that is not found, a crash on damaged files
#include "test_run.h"

#include "wllb_compression.h"
#include "wllb_util.h"

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>

namespace fs = std::filesystem;

namespace {

// --- files made by hand -------------------------------------------------------------------------------------------

std::string gzip_member(const std::string &text) {
  wllb_text member = {};
  EXPECT_EQ(0, wllb_comp_do(text, 1, &member));
  const std::string bytes(member.data, member.len);
  wllb_text_free(member, "member");
  return bytes;
}

std::string num(size_t number) {
  return std::to_string(number);
}

using columns_t = std::map<size_t, std::string>;

// Columns as "number=text", a space apart.
columns_t said(const std::string &text) {
  columns_t columns;
  std::istringstream words(text);
  for (std::string word; words >> word;)
    columns[std::stoul(word)] = word.substr(word.find('=') + 1);
  return columns;
}

// A line of columns: 0 where nothing is said.
std::string line_of(size_t columns, const columns_t &said) {
  std::string line;
  for (size_t i = 1; i <= columns; ++i)
    line += (i > 1 ? "," : "") + (said.contains(i) ? said.at(i) : "0");
  return line;
}

// One segment, with the columns of its line that do not follow from its texts.
struct made_segment {
  bool compressed;
  std::string callouts, blob, detail;
  columns_t columns;
};

// Puts the segment's texts behind the file's bytes and gives its line.
std::string put_segment(std::string *sqb, const made_segment &segment) {
  columns_t columns = {{3, "20261122100000"},
                       {5, num(sqb->size())},
                       {6, num(segment.callouts.size())},
                       {7, num(segment.blob.size())},
                       {8, num(segment.detail.size())}};
  size_t column = 9;
  for (const std::string &text : {segment.callouts, segment.blob, segment.detail}) {
    if (text.empty() && column != 10) {
      ++column;
      continue;
    }
    const std::string bytes = segment.compressed ? gzip_member(text) : text + "\n";
    *sqb += bytes;
    columns[column++] = segment.compressed ? num(bytes.size()) : "0";
  }
  for (const auto &[which, text] : segment.columns)
    columns[which] = text;
  return line_of(47, columns);
}

// A payment in two segments, the second on a thread that the first one started; classic form, compressed.
const made_segment payment = {
    true, "0,T,1.12,0,3,2,1,1012,3.5,200|ok,0,1,4,6,0,0,0,0,0|0,x,1.7,-1,-1,-1,-1,1000,,,0,0,,,0,0,0,0,0",
    "1:99_0::0_0_2:99_0:5:1_10_T.12:3:3.5:2:1:12:1:4:6:200|ok:cart=9_2:99_1:5_40_3:1:0:0:0_4_2_x7_2:99_0::0_50_e_2:99_1_90_0_1:99_1_100_9:0:0:0:0",
    "0:user-agent=curl|accept=*",
    said("1=77 4=2 12=1 13=1 15=250 16=1000 17=1001 18=12 19=id=9|x 20=3 21=200 22=1 23=1073741825 24=C-1 25=40 28=1 "
         "35=http-1 37=3 41=2 43= 44= 45=")};

const made_segment mailing = {
    true,
    "77,G,7.,0,3,2:9:5:1:9:20:3:1,1073741824,1000,0,-,0,0,-,,0,0,0,0,0|77,C,7.,0,5,,0,1000,0,-,0,0,-,,,,,5,0|77,a,7.3,4,5,1,0,1002,20,,0,0,,,0,0,0,0,0",
    "1:5:1:job_0::0_0_G3:2:1073741824:5:1:9:20:3:1_C5_a7.3:5:20:1:0:2:0:4:79_2:8_0::0_6_1:5_1_30_0:0:0:0:0", "",
    said("1=78 2=77 4=3 12=2 13=7.1 15=30 16=1000 17=1000 20=2 22=6 23=1073741824 26=1 31=5 35=pool-5 43= 44= 45=")};

// Exit form, plain. The status of its callout holds the separator of tokens; an error mark stands with none before it.
const made_segment letter = {
    false, "0,T,1.4,0,5,1,0,1110,8,ok_fine,0,0,,,0,0,0,0,0",
    "1:7_0:1:0_0_2:7_0:2:0_5_2:0_1:3:0_25_2:0:0:0:0_T.4:5:8:1:0:10:0:ok_fine_4_2_6:7:1_0:4:0_30_6:0_1:5:0_60_1:0:7:0:0e9_1:0_1:6:1_100_4:0:0:0:0",
    "", said("1=79 4=1 12=1 13=1 15=100 16=1100 17=1100 18=7 20=3 21=500 22=1 23=1073741824 35=main 43= 44= 45=")};

const columns_t payment_row =
    said("1=77 2=3 3=4 4=5 5=1 6=1 9=250 10=-1 12=1000 13=1001 14=12 15=id=9|x 16=5 17=200 18=77 19=7 20=1073741825 "
         "21=C-1 22=40 23=1 24=-1 26=1 29=-1 30=5 34=http-1 36=3 40=2 41=250 43=\"{3,5}\" 44=\"{4,20}\"");

const columns_t letter_row =
    said("1=79 2=3 3=4 4=5 5=1 6=1 9=100 10=-1 12=1100 13=1100 14=7 15= 16=3 17=500 18=79 19=1 20=1073741824 21= "
         "24=-1 29=-1 34=main 41=100 43=\"{5}\" 44=\"{8}\"");

// A flowpath whose segments' lines a test may change before they are compressed.
struct made_flowpath {
  std::vector<made_segment> segments;
  columns_t row;
  std::string count; // as the list says it; padded to eight places
  std::function<void(std::string *line)> edit_line = [](std::string *) {};
};

// Puts the flowpath's texts and list behind the file's bytes and gives its row.
std::string put_flowpath(std::string *sqb, const made_flowpath &flowpath) {
  std::string list = flowpath.count + std::string(8 - flowpath.count.size(), ' ');
  for (const made_segment &segment : flowpath.segments) {
    std::string line = put_segment(sqb, segment);
    flowpath.edit_line(&line);
    list += "|" + line;
  }
  const std::string member = gzip_member(list);
  columns_t row = flowpath.row;
  row.insert({11, "C:1:20261122100000:" + num(sqb->size()) + ":" + num(member.size())});
  *sqb += member;
  return line_of(48, row) + "\n";
}

// --- the test run ---------------------------------------------------------------------------------------------------

class tqshow : public tqp_test_run {
protected:
  made_flowpath first = {{payment, mailing}, payment_row, "2"};
  made_flowpath second = {{letter}, letter_row, "1"};

  tqshow() {
    setenv("LC_ALL", "C", 1);               // NOLINT(concurrency-mt-unsafe): one thread; guides are then plain bars
    put(".vex_epoch.diff", "1388534400\n"); // 2014
    put("tq/csv/TQMetaData.csv", "0,0,UnknownPackage.UnknownClass.UnknownMethod()V\n1,0,com.acme.Shop.pay()V\n"
                                 "2,0,com.acme.Cart.sum(I)I\n1,1,com.acme.Shop\n3,0,jdbc:orders\n"
                                 "4,0,com.acme.Util.log()V\n5,0,mail.acme.com\n6,0,com.acme.Mail.send()V\n0,6, \n");
    put("tq/csv/TQURLTable.csv", "1234,1073741824,-1,0,0,0,-,0,'-'\n1234,1073741825,-1,0,0,0,/shop/pay,now,0,'-'\n");
    put("tq/csv/TQSQL.csv", "0,0,0,UnknownDBQuery\n77,1,1,select total from cart\n");
    put("tq/csv/TQSQL_nonprepared.csv", "77,1073741824,2,insert into log\n");
    put("tq/csv/TQIPResourceMetaData.csv", "0,UnknownResource\n1,orders-pool\n");
    for (const char *name : {"Class", "ThrowingClass", "ThrowingMethod", "StackTrace", "Message", "Cause"})
      put(std::string("tq/csv/TQException") + name + ".csv", "0,-\n");
    put("tq/csv/TQTags.csv", "1,'{\"a\":1,\"b\":2}'\n");
    put_data("TQMethodTiming.csv", line_of(23, said("1=2 15=1073741825")) + "\n");
    put_data("TQSQLTiming.csv", line_of(14, said("1=1073741824 14=3")) + "\n");
    put_data("TQSQLRecord.csv", line_of(9, said("7=1 8=T")) + "\n");
    put_data("TQExceptions.csv", line_of(16, said("13=-1 15=2 16=1")) + "\n");
    put_data("TQJMS.csv", "77,5,0,1,key,a,value\n");
    std::string record(144, 0);
    record[0] = 2;
    put("20261122100000/tq/dat/Tier_Server_App_MethodTiming.dat", record + record);
    make_flowpaths();
  }

  void put(const std::string &below, const std::string &text) const { put_file(path(below), text); }

  void put_data(const std::string &name, const std::string &text) const { put(data_name(name), text); }

  static std::string data_name(const std::string &name) { return "20261122100000/tq/csv/Tier_Server_App/" + name; }

  void make_flowpaths() {
    sqb.clear();
    rows = put_flowpath(&sqb, first);
    rows += put_flowpath(&sqb, second);
    put(sqb_name, sqb);
    put_data("TQFlowPath.csv", rows);
  }

  // Whatever it is given, it ends by itself, and no byte that it prints controls a terminal.
  program_end ask(const std::vector<std::string> &options) const {
    std::vector<std::string> argv = {std::string(TQP_BINARY_DIR) + "/tqshow", "--dir", directory, "--testrun", "1234"};
    argv.insert(argv.end(), options.begin(), options.end());
    program_end end = running_program(argv, directory + "/tqshow").wait();
    EXPECT_GE(end.exit_status, 0);
    EXPECT_EQ(std::string::npos, (end.output + end.errors).find_first_of("\033\x07\x08\r\x9b"));
    return end;
  }

  // Has nothing to complain of.
  program_end show(const std::vector<std::string> &options) const {
    program_end end = ask(options);
    EXPECT_EQ("", end.errors);
    return end;
  }

  const std::string sqb_name = "20261122100000/tq/sqb/5";
  std::string sqb, rows;
};

// --- what it prints -----------------------------------------------------------------------------------------------------

TEST_F(tqshow, prints_a_flowpath_of_two_segments_as_trees) {
  const std::string reference =
      "C:1:20261122100000:" + rows.substr(rows.find("0000:") + 5, rows.find(",1000,") - rows.find("0000:") - 5);
  const std::string head = R"(flowpath     77
instance     Tier_Server_App, partition 20261122100000
url          /shop/pay,now
start (UTC)  2014-01-01 00:16:40.000, 250 ms, status 200
sums         5 methods, 7 callouts, 1 errors, cpu 40 ms, wait 3, sync 0, io 0, suspended 0, queue 2
correlation  C-1
list         )" + reference +
                           R"(

segment      1, flowpath 77 of 0
where        tier 3, server 4, app 5, thread http-1, segment tier 1, partition 20261122100000
start (UTC)  2014-01-01 00:16:40.000, 250 ms, status 200, 3 methods
request headers    user-agent=curl, accept=*
    at ms   wall ms   self ms    cpu ms thread  call
        0       100        30         9     99  com.acme.Shop.pay()V
       10        30        30         3     99  | com.acme.Cart.sum(I)I  wait 1
       12       3.5         -         -      -  | | * call .12: jdbc:orders, JDBC, status 200|ok, resource orders-pool, network 4/6 ms, parameter cart=9, sql "select total from cart"
        -         -         -         -      -  | com.acme.Util.log()V  [not instrumented]
        -         -         -         -      -  | * new segment 7
       50        40        40         -     99  | com.acme.Cart.sum(I)I  [ended by force]
        -         -         -         -      -  | | * error mark

segment      7.1, flowpath 78 of 77
where        tier 3, server 4, app 5, thread pool-5, segment tier 2, partition 20261122100000
start (UTC)  2014-01-01 00:16:40.000, 30 ms, status 0, 2 methods
    at ms   wall ms   self ms    cpu ms thread  call
        0        30        30         0      5  com.acme.Shop.pay()V  [asynchronous, task job]
        -         -         -         -      -  | * grouped queries: jdbc:orders, JDBC, 5 calls, 1 to 9 ms, 20 ms in all, 1 error, sql "insert into log"
        -         -         -         -      -  | * cache calls: mail.acme.com, 5 calls
        2        20         -         -      -  | * asynchronous call 7.3: mail.acme.com, HTTP, flowpath 79
        6         -         -         -      8  com.acme.Cart.sum(I)I  [not ended]
)";
  const program_end one = show({"--flowpath", "77"});
  EXPECT_EQ(0, one.exit_status);
  EXPECT_EQ(head, one.output);
  EXPECT_EQ(head, show({"--first"}).output);
}

TEST_F(tqshow, prints_the_exit_form_in_call_order) {
  const program_end one = show({"--flowpath", "79", "--partition", "20261122100000", "--instance", "Tier_Server_App"});
  EXPECT_EQ(0, one.exit_status);
  const std::string tree = R"(    at ms   wall ms   self ms    cpu ms thread  call
        0       100        50         4      7  com.acme.Shop.pay()V
        5        20        20         2      7  | com.acme.Cart.sum(I)I
       10         8         -         -      -  | * call .4: mail.acme.com, HTTP, status ok_fine
        -         -         -         -      -  | com.acme.Util.log()V  [not instrumented, called by com.acme.Cart.sum(I)I]
       30        30        30         1      7  | com.acme.Mail.send()V  [asynchronous]  sync 7
        -         -         -         -      -  | * error mark 9
)";
  ASSERT_LE(tree.size(), one.output.size());
  EXPECT_EQ(tree, one.output.substr(one.output.size() - tree.size()));
}

TEST_F(tqshow, lists_flowpaths_a_line_each) {
  const std::vector<std::string> lines = lines_of(show({}).output);
  ASSERT_EQ(3U, lines.size());
  EXPECT_EQ((std::vector<std::string>{"20261122100000", "Tier_Server_App", "77", "2014-01-01", "00:16:40", "250", "200",
                                      "2", "5", "7", "1", "/shop/pay,now", "C-1"}),
            wllb_words(lines[1], 20));
  const program_end none = ask({"--partition", "20261122110000"});
  EXPECT_EQ(1, none.exit_status);
  EXPECT_EQ("tqshow: there is no partition '20261122110000'\n", none.errors);
}

TEST_F(tqshow, needs_a_test_run_and_a_flowpath_that_are_there) {
  for (const std::vector<std::string> &wrong :
       {std::vector<std::string>{"--testrun", "1x"}, {"--testrun", "7"}, {"--flowpath", "80"}}) {
    std::vector<std::string> argv = {TQP_BINARY_DIR "/tqshow", "--dir", directory, "--testrun", "1234"};
    argv.insert(argv.end(), wrong.begin(), wrong.end());
    const program_end end = running_program(argv, directory + "/tqshow").wait();
    EXPECT_EQ(1, end.exit_status) << wrong[0];
    EXPECT_EQ(1U, lines_of(end.errors).size()) << end.errors;
  }
}

// --- exceptions -----------------------------------------------------------------------------------------------------------

class tqshow_exceptions : public tqshow {
protected:
  const std::string good_rows = "77,3,4,5,1000,1,1,2,42,1,0,1,2,88,2,1\n"
                                "80,3,4,5,1001,2,1,1,7,0,1,2,-1,0,0,-1\n"
                                "77,3,4,5,1002,2,0,0,0,1,1,3,1,-1,2,-1\n";

  tqshow_exceptions() {
    put("tq/csv/TQExceptionClass.csv", "0,-\n1,java.lang.Error\n2,java.sql.SQLException\n");
    put("tq/csv/TQExceptionThrowingClass.csv", "0,-\n1,com.acme.Cart\n");
    put("tq/csv/TQExceptionThrowingMethod.csv", "0,-\n1,log\n2,total\n");
    put("tq/csv/TQExceptionMessage.csv", "0,-\n1,no cart, sorry\n");
    put("tq/csv/TQExceptionCause.csv", "0,-\n1,timed out\033[31m\n");
    put("tq/csv/TQExceptionStackTrace.csv",
        "0,-\n1,at com.acme.Cart.total(Cart.java:42) at com.acme.Shop.pay(Shop.java:7)\n"
        "2, at a.B.c(B.java)\tat a.B.d(B.java)\n3,java.lang.Error: gone at a.B.c(B.java)\n");
    put_data("TQExceptions.csv", good_rows);
    put("20261122110000/tq/csv/Tier_Server_App/TQExceptions.csv", "79,3,4,5,4600,7,8,9,5,10,11,12,13,1,2,14\n");
    put("20261122110000/tq/csv/Tier_Server_Mail/TQExceptions.csv", "77,3,4,6,4601,1,1,1,100000,0,0,0,-1,0,0,-1\n");
  }
};

TEST_F(tqshow_exceptions, are_listed_a_line_each) {
  const std::string list =
      R"(partition       instance                      flowpath  time (UTC)           exception              thrown at                  message         cause           stack                                 method
20261122100000  Tier_Server_App                     77  2014-01-01 00:16:40  java.lang.Error        com.acme.Cart.total:42     no cart, sorry  -               at com.acme.Cart.total(Cart.java:42)  com.acme.Cart.sum(I)I:88, JDBC, sql "select total from cart"
20261122100000  Tier_Server_App                     80  2014-01-01 00:16:41  java.sql.SQLException  com.acme.Cart.log:7        -               timed out?[31m  at a.B.c(B.java)                      -
20261122100000  Tier_Server_App                     77  2014-01-01 00:16:42  java.sql.SQLException  -.-:0                      no cart, sorry  timed out?[31m  java.lang.Error: gone                 com.acme.Shop.pay()V:-1, JDBC
20261122110000  Tier_Server_App                     79  2014-01-01 01:16:40  #7                     #8.#9:5                    #10             #11             #12                                   #13:1, JDBC, sql "#14"
20261122110000  Tier_Server_Mail                    77  2014-01-01 01:16:41  java.lang.Error        com.acme.Cart.log:100000   -               -               -                                     -
)";
  const program_end all = show({"--exceptions"});
  EXPECT_EQ(0, all.exit_status);
  EXPECT_EQ(list, all.output);
  const auto flowpaths = [this](std::vector<std::string> options) {
    options.emplace_back("--exceptions");
    std::string ids;
    for (const std::string &line : lines_of(show(options).output))
      ids += wllb_words(line, 20)[2] + " ";
    return ids;
  };
  EXPECT_EQ("flowpath 79 77 ", flowpaths({"--partition", "20261122110000"}));
  EXPECT_EQ("flowpath 77 ", flowpaths({"--instance", "Tier_Server_Mail"}));
}

TEST_F(tqshow_exceptions, stand_below_the_call_trees_of_their_flowpath) {
  const auto count = [this](const std::vector<std::string> &options) {
    const std::string text = show(options).output;
    const size_t at = text.find("\n\nexceptions\ntime (UTC)");
    return at == std::string::npos ? 0 : lines_of(text.substr(at)).size() - 4;
  };
  EXPECT_EQ(2U, count({"--flowpath", "77"})); // another instance's flowpath of the same number is another flowpath
  EXPECT_EQ(2U, count({"--flowpath", "77", "--instance", "Tier_Server_App"}));
  EXPECT_EQ(1U, count({"--flowpath", "79", "--partition", "20261122100000"})); // it came in the next partition
}

// Damaged rows are told where they stand, the good ones around them are listed, and no flowpath minds them.
TEST_F(tqshow_exceptions, bear_damaged_rows) {
  const std::string huge(70000, '9'), most = "=9223372036854775807 ", least = "=-9223372036854775808 ";
  const std::pair<std::string, int> cases[] = {
      // a row, and whether it is damaged
      {"", 1},
      {"77,3,4,5,1000,1,1,2,42,1,0,1,2,88,2,1,", 1},
      {std::string(70000, ','), 1},
      {"77,3,4,5," + huge + ",1,1,2,42,1,0,1,2,88,2,1", 1},
      {"77,3,4,5,1000,9223372036854775808,1,2,42,1,0,1,2,88,2,1", 1},
      {"77,3,4,5,1000,1,1,2,42,1,0,1,2,88,2,1" + std::string(1, '\0'), 1},
      {line_of(16, said("5" + most + "6" + most + "7" + most + "8" + most + "9" + most + "13" + most + "16" + most)),
       0},
      {line_of(16, said("5" + least + "6" + least + "10" + least + "11" + least + "12" + least + "14" + least)), 0},
      {line_of(16, said("5=" + std::string(70000, '0') + "9")), 0},
  };
  const size_t lines_of_77 = lines_of(show({"--flowpath", "77"}).output).size();
  for (const auto &[row, damaged] : cases) {
    SCOPED_TRACE(row.substr(0, 60));
    put_data("TQExceptions.csv", good_rows + row + "\n" + good_rows);
    const program_end end = ask({"--exceptions"});
    EXPECT_EQ(damaged, end.exit_status);
    const std::vector<std::string> lines = lines_of(end.output);
    ASSERT_EQ(damaged ? 9U : 10U, lines.size());
    EXPECT_EQ(damaged ? 0U : std::string::npos, end.errors.find(data_name("TQExceptions.csv") + " row 4: "));
    EXPECT_EQ(lines[1], lines[damaged ? 4 : 5]);
    EXPECT_EQ(lines_of_77 + 2, lines_of(show({"--flowpath", "77"}).output).size());
  }
}

// --- the check ------------------------------------------------------------------------------------------------------------

TEST_F(tqshow, finds_no_fault_in_a_good_test_run) {
  const program_end end = show({"--check"});
  EXPECT_EQ(0, end.exit_status);
  // 10 + 6 + 9 tokens; 2 + 3 + 1 callouts; 5 rows and 2 records; 9 + 2 + 2 + 1 + 2 + 6 + 1 names
  EXPECT_EQ("2 flowpaths, 3 segments, 25 tokens, 6 callout rows, 7 side rows, 23 names checked, no faults\n",
            end.output);
}

// A text of a file, what it is changed to, and words of the fault that this is.
struct damage {
  const char *file, *from, *to, *words;
};

constexpr damage damages[] = {
    {"tq/csv/TQMetaData.csv", "3,0,jdbc:orders\n", "", "the method 3 has no row among the names"},
    {"tq/csv/TQMetaData.csv", "2,0,", "1,0,", "TQMetaData.csv row 3: the id has a row already"},
    {"tq/csv/TQURLTable.csv", ",0,'-'\n1234", "\n1234",
     "TQURLTable.csv row 1: the row has not the columns of this file"},
    {"TQMethodTiming.csv", "\n", ",0\n", "TQMethodTiming.csv row 1: the row has not the columns of this file"},
    {"TQSQLTiming.csv", "\n", "", "TQSQLTiming.csv row 1: it has no newline at its end"},
    {"TQExceptions.csv", "2,1\n", "2,7\n", "TQExceptions.csv row 1: sub_type is 7, which has no row among the names"},
    {"TQFlowPath.csv", ",12,id=9|x,5,", ",12,id=9|x,6,", "flowpath 77: methods is 6, its segments sum up to 5"},
    {"TQFlowPath.csv", "\"{3,5}\"", "\"{3}\"", "flowpath 77: columns 43 and 44 have not as many entries"},
    {"TQFlowPath.csv", "77,3,4,5,1", "76,3,4,5,1", "flowpath 76: its main segment is not in the list"},
    {"TQFlowPath.csv", "C:1:2026112210", "C:1:../../../1",
     "flowpath 77: the list of its segments: is in a sequence blob file that is not there"},
    {"TQFlowPath.csv", ",C-1,", ",C-1,,", "TQFlowPath.csv row 1: the row has not the columns of this file"},
    {"20261122100000/tq/dat/Tier_Server_App_MethodTiming.dat", "\2", "\2\2", "its size is not a multiple of 144 bytes"},
};

TEST_F(tqshow, tells_each_damage_and_its_place) {
  for (const damage &d : damages) {
    SCOPED_TRACE(d.words);
    const std::string name = std::string(d.file).find('/') != std::string::npos ? d.file : data_name(d.file);
    const std::string good = read(name);
    ASSERT_NE(std::string::npos, good.find(d.from));
    std::string bad = good;
    bad.replace(bad.find(d.from), strlen(d.from), d.to);
    put(name, bad);
    const program_end end = show({"--check"});
    EXPECT_EQ(1, end.exit_status);
    EXPECT_NE(std::string::npos, end.output.find(d.words)) << end.output;
    put(name, good);
  }
}

TEST_F(tqshow, tells_faults_inside_the_sequence_blob_file) {
  struct case_t {
    std::function<void()> change;
    const char *words;
  };

  const std::function<void(size_t, const char *)> column = [this](size_t which, const char *text) {
    first.segments[0].columns[which] = text;
  };
  const case_t cases[] = {
      {[&] { column(7, "12"); }, "segment 77: its blob has another length than its line says"},
      {[&] { column(5, "3"); }, "segment 77: its callout text does not inflate, or has bytes behind its end"},
      {[&] { column(9, "9223372036854775807"); }, "its callout text reaches behind the end of the sequence blob file"},
      {[&] { column(45, "20261122100000:3:20"); }, "flowpath 77: a response body does not inflate"},
      {[&] { column(44, ("20261122100000:0:" + num(gzip_member(payment.callouts).size())).c_str()); },
       "segment 77: its request body is not one"},
      {[&] { second.segments[0].columns[7] = "12"; },
       "segment 79: its blob has no newline where its line says that it ends"},
      {[&] { first.segments[0].callouts += ",0"; }, "segment 77: a row of its callout text has not 19 columns"},
      {[&] { first.count = "3"; }, "flowpath 77: the list of its segments says 3, but has 2"},
      {[&] { first.edit_line = [](std::string *line) { line->resize(line->rfind(',')); }; },
       "flowpath 77: the list of its segments: a column of a segment's line that should be a number"},
  };
  for (const case_t &c : cases) {
    SCOPED_TRACE(c.words);
    first = {{payment, mailing}, payment_row, "2"};
    second = {{letter}, letter_row, "1"};
    c.change();
    make_flowpaths();
    const program_end end = show({"--check"});
    EXPECT_EQ(1, end.exit_status);
    EXPECT_NE(std::string::npos, end.output.find(c.words)) << end.output;
  }
}

// What damaged raw data leaves behind is no fault of the files: ends without beginnings, empty tokens, an empty blob, names
// of queries that went with their file.
TEST_F(tqshow, does_not_take_odd_texts_for_faults) {
  for (const char *blob :
       {"", "_", "1:99_1_0_0:0:0:0:0_1:99_1_0_0:0:0:0:0", "1_0_5__1:-1_1_9_0:0:0:0:0_", "1_0:4_5_e"}) {
    SCOPED_TRACE(blob);
    second.segments[0].blob = blob;
    make_flowpaths();
    EXPECT_EQ(0, show({"--check"}).exit_status);
    EXPECT_EQ(0, show({"--flowpath", "79"}).exit_status);
  }
  put("tq/csv/TQSQL_nonprepared.csv.prev", "0,1073741830,0,x\n");
  put("tq/csv/TQSQL_nonprepared.csv", "0,1073741831,0,y\n");
  EXPECT_EQ(0, show({"--check"}).exit_status);
}

// The row of a late flowpath stands in the previous partition; its list in the current one; the texts of its segments went to
// the previous one's file, at a place that its line does not say. Both forms; texts of nobody lie before and among them.
TEST_F(tqshow, finds_the_texts_of_late_segments) {
  make_partitions({first_partition, second_partition});
  for (const bool compressed : {true, false}) {
    SCOPED_TRACE(compressed);
    made_flowpath late = first;
    for (made_segment &segment : late.segments)
      segment.compressed = compressed;
    std::string current(5000, 'x'), previous, texts;
    const std::string other_row = put_flowpath(&previous, second);
    const size_t others = previous.size();
    std::string late_row = put_flowpath(&texts, late); // as it would be in a file of its own
    const size_t list_at = texts.rfind("\x1f\x8b\x08");
    const size_t reference = late_row.find("C:1:");
    late_row.replace(reference, late_row.find(',', reference) - reference,
                     "C:1:" + second_partition + ":" + num(current.size()) + ":" + num(texts.size() - list_at));
    current += texts.substr(list_at);
    previous += gzip_member("nobody points here") + (compressed ? "" : "\n") + texts.substr(0, list_at);
    put(second_partition + "/tq/sqb/5", current);
    put(sqb_name, previous);
    put_data("TQFlowPath.csv", late_row + other_row);
    const program_end end = show({"--check"});
    EXPECT_EQ(0, end.exit_status) << end.output;
    EXPECT_NE(std::string::npos, show({"--flowpath", "77"}).output.find("com.acme.Cart.sum(I)I  wait 1"));
    put(sqb_name, previous.substr(0, others)); // they never came
    EXPECT_EQ(1, show({"--check"}).exit_status);
  }
}

// --- damage anywhere ----------------------------------------------------------------------------------------------------

// A row counts when its newline is there: the check of a test run that has ended finds the cut, a list waits for the rest.
TEST_F(tqshow, finds_rows_cut_anywhere) {
  for (const char *name : {"TQFlowPath.csv", "TQExceptions.csv"}) {
    const std::string good = read(data_name(name));
    const size_t row_end = good.find('\n') + 1;
    for (size_t cut = 0; cut <= row_end; ++cut) {
      put_data(name, good.substr(0, cut));
      EXPECT_EQ(cut == 0 || cut == row_end ? 0 : 1, show({"--check"}).exit_status) << name << cut;
    }
    EXPECT_EQ(0, show({}).exit_status);
    EXPECT_EQ(0, show({"--exceptions"}).exit_status);
    put_data(name, good);
  }
}

TEST_F(tqshow, finds_a_sequence_blob_file_cut_anywhere) {
  for (size_t cut = sqb.size() - 1; cut < sqb.size(); cut -= 11) {
    put(sqb_name, sqb.substr(0, cut));
    EXPECT_EQ(1, show({"--check"}).exit_status) << cut;
  }
}

// A byte of a gzip head may be any; every other one is a fault. All of it can be printed as far as it goes.
TEST_F(tqshow, bears_any_byte_of_the_sequence_blob_file) {
  for (size_t at = 0; at < sqb.size(); at += 13) {
    SCOPED_TRACE(at);
    std::string bad = sqb;
    bad[at] = static_cast<char>(bad[at] ^ (1 << at % 8));
    put(sqb_name, bad);
    EXPECT_LE(show({"--check"}).exit_status, 1);
    EXPECT_LE(show({"--first"}).exit_status, 1);
  }
}

} // namespace
