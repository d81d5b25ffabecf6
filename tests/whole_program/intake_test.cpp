// The program over small test runs: how it starts and ends, what it makes of records, good and bad.

#include "test_run.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

// A little of everything that is discovered, in the forms that exist.
static const std::string discoveries = method(17, "com.acme.shop.Pay.charge()V") +
                                       "5,com.acme.shop.Pay.refund()V,18\n" +
                                       "6,User-Agent,3\n6,,4\n7,5,/shop/a,b\n7,/shop/list,6\n" +
                                       "22,8731,9,select * from cart\n22,  UPDATE cart,10\n23,drop table t,11\n" +
                                       "26,cart-service:8080,1\n32,12,java.lang.Error\n33,com.acme.Pay,13\n" +
                                       "34,14,charge\n35,no money,15\n36,16,limit\n37,17,at charge\n41,7,Checkout\n";

// --- what comes out ----------------------------------------------------------------------------------------------

TEST_F(tqp_test_run, discoveries_get_ids_and_rows_once) {
  raw(identity() + discoveries + discoveries + "10,\n");
  const program_end end = run();
  EXPECT_EQ(0, end.exit_status) << end.errors;
  EXPECT_NE(std::string::npos, end.output.find("Processing completed for TQ Data!\nTotal time taken = 00:00:0"));

  // Id 0 is the unknown of each table; the first text seen gets 1.
  EXPECT_EQ("0,0,UnknownPackage.UnknownClass.UnknownMethod()V\n0,1,UnknownClass\n0,2,UnknownPackage\n0,6, \n"
            "1,0,com.acme.shop.Pay.charge()V\n1,1,com.acme.shop.Pay\n1,2,com.acme.shop\n"
            "2,0,com.acme.shop.Pay.refund()V\n1,6,Checkout\n",
            common("TQMetaData.csv"));
  EXPECT_EQ("User-Agent,0\n ,1\n", common("TQHTTPHeaderMetaData.csv")); // headers have no unknown
  EXPECT_EQ("1234,1073741824,-1,0,0,0,-,0,'-'\n1234,1073741825,-1,0,0,0,/shop/a,b,0,'-'\n"
            "1234,1073741826,-1,0,0,0,/shop/list,0,'-'\n",
            common("TQURLTable.csv"));
  EXPECT_EQ("0,0,0,UnknownDBQuery\n8731,1,1,select * from cart\n0,2,3,  UPDATE cart\n", common("TQSQL.csv"));
  EXPECT_EQ("0,1073741824,6,drop table t\n", common("TQSQL_nonprepared.csv"));
  EXPECT_EQ("0,UnknownResource\n1,cart-service:8080\n", common("TQIPResourceMetaData.csv"));
  EXPECT_EQ("0,-\n1,java.lang.Error\n", common("TQExceptionClass.csv"));
  EXPECT_EQ("0,-\n1,com.acme.Pay\n", common("TQExceptionThrowingClass.csv"));
  EXPECT_EQ("0,-\n1,charge\n", common("TQExceptionThrowingMethod.csv"));
  EXPECT_EQ("0,-\n1,no money\n", common("TQExceptionMessage.csv"));
  EXPECT_EQ("0,-\n1,limit\n", common("TQExceptionCause.csv"));
  EXPECT_EQ("0,-\n1,at charge\n", common("TQExceptionStackTrace.csv"));

  EXPECT_EQ(4, counted("Method Discovery (Event ID 5) Records Processed"));
  EXPECT_EQ(4, counted("SQL Prepared Statement Discovery (Event ID 22) Records Processed"));
  EXPECT_EQ(1, counted("TQ Data Over (Event ID 10) Records Processed"));
  // 36 lines, and the first once more: it is run ahead when the file is opened.
  EXPECT_EQ(37, counted("Raw Data Lines Processed"));
  EXPECT_EQ(static_cast<long>(fs::file_size(raw_path())), saved_offset());
  EXPECT_TRUE(fs::exists(path("tq/logs/.tqp_version"))); // tell readers what layout to expect
  EXPECT_TRUE(fs::exists(path(".use_csv_for_method_timing")));
}

TEST_F(tqp_test_run, records_may_arrive_cut_anywhere) {
  const std::string records = identity() + "99,x,FPGVersion:2.0,JAVA\n" + method(1, "a.B.c()V") + "7,5,/a,b\njunk\n";
  keywords("TQP_NEW_RAW_DATA_POLL_INTERVAL 1\n");
  raw("");
  const auto tqp = start();
  ASSERT_TRUE(
      eventually([&] { return fs::exists(path(first_partition + "/tq/raw_data/.Tier_Server_App.txt.offset")); }));
  for (const char byte : records) { // one byte a write: every cut is met between two polls sooner or later
    append_raw(std::string(1, byte));
    if (byte == ',' || byte == '\n')
      usleep(1500);
  }
  EXPECT_TRUE(eventually([&] { return saved_offset() == static_cast<long>(records.size()); }));
  tqp->signal(SIGRTMIN + 3);
  EXPECT_EQ(0, tqp->wait().exit_status);
  EXPECT_EQ(1, occurrences(common("TQMetaData.csv"), "1,0,a.B.c()V\n"));
  EXPECT_EQ(1, occurrences(common("TQURLTable.csv"), ",/a,b,"));
  EXPECT_EQ(5, counted("Raw Data Lines Processed")); // the file was empty when it was opened: nothing ran ahead
}

TEST_F(tqp_test_run, many_instances_share_one_table_of_texts) {
  for (int i = 0; i < 12; ++i) {
    std::string records = identity("Tier_Server_App" + std::to_string(i), 1, 2, i);
    for (int m = 0; m < 200; ++m)
      records += method(i * 3 + m, "com.acme.C" + std::to_string(m % 150) + ".run()V");
    raw(records, "Tier_Server_App" + std::to_string(i));
  }
  EXPECT_EQ(0, run().exit_status);
  const std::string rows = common("TQMetaData.csv");
  for (int m = 0; m < 150; ++m)
    EXPECT_EQ(1, occurrences(rows, ",0,com.acme.C" + std::to_string(m) + ".run()V\n"));
  EXPECT_EQ(12 * 200, counted("Method Discovery (Event ID 5) Records Processed"));
}

// --- bad input -----------------------------------------------------------------------------------------------------

TEST_F(tqp_test_run, bad_records_are_told_counted_and_skipped) {
  struct bad_record {
    std::string line;
    int incomplete; // times it is told as incomplete
  };

  const bad_record bad[] = {
      {"junk", 0},
      {"abc,1,2", 0},
      {"1234,1", 0},
      {",5", 0},
      {"", 0},
      {"121,1,2", 0},
      {"999,1", 0},
      {"5,", 1},
      {"5,only.a.Name", 1},
      {"5,neg.a.Tive,-3", 1},
      {"5,too.b.Ig,134217728", 1},
      {"5,", 1},
      {"5,,7", 0}, // an empty text has no id
      {"6,", 1},
      {"6,h,-1", 1},
      {"7,5", 1},
      {"7,/u,-5", 1},
      {"7,-5,/u", 0}, // a URL that begins with a minus, with a local id of 0
      {"22,1,2", 1},
      {"22,77,4,insert into t values (1),(2)", 0}, // surplus, not counted
      {"22,text,4,x", 0},
      {"26,r", 1},
      {"32,5", 1},
      {"33,x,99999999999999999999", 1},
      {"41,", 1},
      {"2,600:0:0:600,100,7,1,5", 0},
      {std::string("5,\0a.b,1", 8), 0},
      {std::string("\0\0,1", 4), 0},
  };
  std::string records = identity();
  int incomplete = 0;
  for (const bad_record &record : bad) {
    records += record.line + "\n";
    incomplete += record.incomplete;
  }
  raw(records + method(1, "still.A.live()V"));
  EXPECT_EQ(0, run().exit_status);
  EXPECT_EQ(incomplete, occurrences(trace(), "; Found incomplete record, skipping."));
  EXPECT_EQ(1, occurrences(trace(), "; Found incomplete record,URL parameter is not present"));
  EXPECT_EQ(1, occurrences(trace(), "line # 22; More fields than expected."));
  EXPECT_EQ(1,
            occurrences(trace(), "Error in recover meta data from BCI: Tier_Server_App, More fields than expected."));
  EXPECT_EQ(1, occurrences(common("TQMetaData.csv"), "still.A.live()V"));
  EXPECT_EQ(static_cast<int64_t>(std::size(bad)) + 3, counted("Raw Data Lines Processed"));
}

TEST_F(tqp_test_run, noise_nuls_and_endless_lines_hurt_nobody_else) {
  std::string noise = identity("Noisy_Server_App", 3, 4, 6);
  unsigned seed = 12345;
  for (int i = 0; i < 300000; ++i) {
    seed = seed * 1103515245 + 12345;
    noise += static_cast<char>(seed >> 16);
  }
  raw(noise, "Noisy_Server_App");
  raw(identity("Long_Server_App", 3, 4, 7) + "5," + std::string(600000, 'x') + ",1\n" + method(1, "never.Read.it()V"),
      "Long_Server_App"); // longer than the read block: the thread idles there
  ASSERT_EQ(0, mkfifo(raw_path("Fifo_Server_App").c_str(), 0600));
  raw(identity() + method(1, "fine.B.run()V"));
  EXPECT_EQ(0, run().exit_status);
  EXPECT_EQ(1, occurrences(common("TQMetaData.csv"), "fine.B.run()V"));
  EXPECT_EQ(0, occurrences(common("TQMetaData.csv"), "never.Read.it()V"));
}

TEST_F(tqp_test_run, names_are_data_never_commands) {
  const std::string odd = "Ti'er $(touch x)_Ser\"ver; ls_A&pp";
  raw("0,Ti'er $(touch x),Ser\"ver; ls,A&pp,1,1,1\n" + method(3, "a.B`id`.c'\"();V"), odd);
  raw("5,x.y.Z,1\n", "agg_data_a_b");
  raw("5,x.y.Z,1\n", "one_underscore");
  EXPECT_EQ(0, run().exit_status);
  EXPECT_EQ(1, occurrences(common("TQMetaData.csv"), "1,0,a.B`id`.c'\"();V\n"));
  EXPECT_EQ(0, occurrences(common("TQMetaData.csv"), "x.y.Z"));
  EXPECT_TRUE(fs::exists(path(partitions.back() + "/tq/csv/" + odd + "/TQFlowPath.csv")));
  EXPECT_FALSE(fs::exists("x"));
}

TEST_F(tqp_test_run, a_file_of_another_instance_stops_at_its_first_line) {
  raw(identity("Tier_Other_App") + method(1, "wrong.A.place()V"));
  const auto tqp = start();
  EXPECT_TRUE(eventually([&] { return occurrences(trace(), "0th event parsing is failed") == 1; }));
  EXPECT_EQ(0, occurrences(common("TQMetaData.csv"), "wrong.A.place()V"));
  tqp->signal(SIGTERM); // its entry stays on purpose, and the final wait with it
  usleep(300000);
  EXPECT_FALSE(tqp->is_over());
}

// --- endings -------------------------------------------------------------------------------------------------------

TEST_F(tqp_test_run, tails_a_file_until_the_test_is_over) {
  raw(identity());
  const auto tqp = start();
  EXPECT_TRUE(eventually([&] { return saved_offset() > 0; }));
  append_raw(method(1, "late.A.one()V"));
  EXPECT_TRUE(eventually([&] { return occurrences(common("TQMetaData.csv"), "late.A.one()V") == 1; }));
  tqp->signal(SIGRTMIN + 3);
  EXPECT_EQ(0, tqp->wait().exit_status);
  EXPECT_TRUE(fs::exists(path(first_partition + "/tq/csv/.tqp_process_done_v2.txt")));
  EXPECT_EQ(1, occurrences(read(first_partition + "/tq/logs/tqp_summary_report.txt"), "Summary for Tier_Server_App\n"));
}

TEST_F(tqp_test_run, a_stop_leaves_the_last_saved_offset_and_no_done_file) {
  raw(identity());
  const auto tqp = start();
  EXPECT_TRUE(eventually([&] { return saved_offset() == static_cast<long>(identity().size()); }));
  tqp->signal(SIGTERM);
  EXPECT_EQ(0, tqp->wait().exit_status);
  EXPECT_EQ(static_cast<long>(identity().size()), saved_offset());
  EXPECT_FALSE(fs::exists(path(first_partition + "/tq/csv/.tqp_process_done_v2.txt")));
  EXPECT_EQ("", read(first_partition + "/tq/logs/tqp_summary_report.txt")); // the instance was not closed
}

TEST_F(tqp_test_run, leaves_when_its_parent_is_gone) {
  raw(identity());
  running_program parent({"/bin/sleep", "100"}, directory + "/parent");
  const auto tqp = std::make_unique<running_program>(std::vector<std::string>{std::string(TQP_BINARY_DIR) + "/tqp",
                                                                              "-t", "1234", "-W", directory, "-m", "0",
                                                                              "-N", std::to_string(parent.pid())},
                                                     directory + "/tqp");
  EXPECT_TRUE(eventually([&] { return saved_offset() > 0; }));
  parent.signal(SIGKILL);
  EXPECT_EQ(0, tqp->wait(8).exit_status) << "it is gone although nobody has collected it"; // looked at every 10 s
}

TEST_F(tqp_test_run, a_second_process_takes_over) {
  raw(identity());
  const auto first = start();
  EXPECT_TRUE(eventually([&] { return saved_offset() > 0; }));
  const program_end second = run();
  EXPECT_EQ(0, second.exit_status);
  EXPECT_EQ(-SIGKILL, first->wait().exit_status);
  EXPECT_EQ(1, occurrences(second.output, "Going to kill pid " + std::to_string(first->pid()) + " of component tqp"));
}

TEST_F(tqp_test_run, command_line_errors_have_their_words_and_status) {
  struct bad_call {
    std::vector<std::string> options;
    int status;
    std::string words;
  };

  raw(identity());
  const std::vector<bad_call> calls = {
      {{"-t", "1"}, 255, "Error : Testrun number not specified\ntqp \n\t--t  testid (Mandatory Argument) \n"},
      {{"-z"}, 1, "Error : Invalid argument z\n"},
      {{"-P"}, 1, "Error : Invalid argument P\n"},
      {{"-E", "20990101000000"}, 255, "End Partition does not exists for this testrun"},
      {{"-P", "20261122100001", "-E", first_partition}, 255, "Start Partition can't be greater than End Partition"},
  };
  for (const bad_call &call : calls) {
    const program_end end = run(call.options);
    EXPECT_EQ(call.status, end.exit_status);
    EXPECT_NE(std::string::npos, (end.output + end.errors).find(call.words)) << end.output << end.errors;
  }
  fs::remove_all(path("tq/conf"));
  EXPECT_EQ(1, run().exit_status); // no keyword file
  keywords("TQ_FPI_MASK TQEID:58:5;AppID:46:10;TS:8:38;SeqNo:0:8;\n");
  EXPECT_EQ(1, run().exit_status);
}

// --- again -----------------------------------------------------------------------------------------------------

TEST_F(tqp_test_run, a_second_run_goes_on_where_the_first_ended) {
  raw(identity() + discoveries);
  EXPECT_EQ(0, run().exit_status);
  const std::string rows = common("TQMetaData.csv");
  append_raw(method(30, "com.acme.shop.Pay.charge()V") + method(31, "new.A.one()V"));
  EXPECT_EQ(0, run().exit_status);
  EXPECT_EQ(rows + "3,0,new.A.one()V\n2,1,new.A\n2,2,new\n", common("TQMetaData.csv")); // ids go on, nothing twice
  EXPECT_EQ(static_cast<long>(fs::file_size(raw_path())), saved_offset());

  EXPECT_EQ(0, run({"-r", "0"}).exit_status); // from the beginning, into empty files
  EXPECT_EQ(rows + "3,0,new.A.one()V\n2,1,new.A\n2,2,new\n", common("TQMetaData.csv"));
}

TEST_F(tqp_test_run, prepared_queries_are_known_again_whatever_their_ids_begin_with) {
  keywords("TQP_SQL_START_NORM_ID 1999999995\n");
  raw(identity() + "22,DROP table,13\n");
  EXPECT_EQ(0, run().exit_status);
  const std::string saved = read("tq/recovery/Tier_Server_App/tqp/.TQSQL.recovery");
  EXPECT_FALSE(saved.empty());
  EXPECT_EQ(0, run().exit_status);
  EXPECT_EQ(saved, read("tq/recovery/Tier_Server_App/tqp/.TQSQL.recovery"));
}

TEST_F(tqp_test_run, an_offline_run_may_not_add_metadata_unless_told) {
  raw(identity() + method(17, "com.acme.shop.Pay.charge()V"));
  EXPECT_EQ(0, run().exit_status);
  EXPECT_EQ(0, run({"-P", first_partition}).exit_status); // nothing new
  append_raw("11,x,0\n" + method(31, "new.A.one()V"));
  const program_end refused = run({"-P", first_partition});
  EXPECT_EQ(255, refused.exit_status) << refused.output;
  EXPECT_NE(std::string::npos,
            refused.output.find("TQP Partition based Processing Error: New meta data discovered in Partition " +
                                first_partition +
                                " for Instance = Tier_Server_App with Event id = 5 for Meta data = new.A.one()V. "));
  EXPECT_EQ(0, run({"-P", first_partition, "-f", "1"}).exit_status);
  EXPECT_EQ(1, occurrences(common("TQMetaData.csv"), "new.A.one()V"));
}

TEST_F(tqp_test_run, instances_are_found_over_the_chain_of_unfinished_partitions) {
  make_partitions({first_partition, second_partition, "20261122120000"});
  raw(identity("Old_Server_App", 3, 4, 6) + method(1, "old.A.one()V"), "Old_Server_App", first_partition);
  raw(identity("Mid_Server_App", 3, 4, 7) + method(1, "mid.A.one()V"), "Mid_Server_App", second_partition);
  fs::create_directories(path(first_partition + "/tq/csv"));
  std::ofstream(path(first_partition + "/tq/csv/.tqp_process_done_v2.txt")) << "";
  EXPECT_EQ(0, run().exit_status);
  EXPECT_EQ(1, occurrences(common("TQMetaData.csv"), "mid.A.one()V"));
  EXPECT_EQ(0, occurrences(common("TQMetaData.csv"), "old.A.one()V")); // the first partition is finished
}
